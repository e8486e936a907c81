#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "alloc_shim.h"
#include "hls_m3u8_int.h"
#include "stderr_capture.h"
#include "torture.h"

namespace {

using Strings = std::vector<std::string>;
using Entries = std::vector<std::pair<std::string, std::string>>; // name, duration word
const std::string kUrl = "http://h/live/p.m3u8";

std::string media(uint64_t sequence, const Entries &entries)
{
    std::string text = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(sequence) + "\n";
    for (const auto &entry : entries)
        text += "#EXTINF:" + entry.second + ",\n" + entry.first + "\n";
    return text;
}

std::string master(const std::vector<uint64_t> &bandwidths)
{
    std::string text = "#EXTM3U\n";
    for (size_t i = 0; i < bandwidths.size(); ++i)
        text += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(bandwidths[i]) + "\nv" + std::to_string(i) + ".m3u8\n";
    return text;
}

// A fragment as "sequence:uri:duration_ms", with a * when downloaded.
std::string describe(uint64_t sequence, const std::string &uri, uint64_t ns, bool done = false)
{
    return std::to_string(sequence) + ":" + uri + ":" + std::to_string(ns / 1000000) + (done ? "*" : "");
}

Strings describe(const std::list<TSDataItem> &list)
{
    Strings out;
    for (const TSDataItem &e : list)
        out.push_back(describe(e.sequence_no, e.uri, e.duration, e.has_downloaded));
    return out;
}

std::string take(char *owned)
{
    std::string out = owned ? owned : "(null)";
    free(owned);
    return out;
}

// In torture mode one of the library's allocations fails: a call that then
// gives its "no memory" result (a null client or record, load result 2) is
// checked to have changed nothing and repeated, and the repeat must give the
// normal result.
struct Client {
    m3u8_client *c = create();
    ~Client() { m3u8_client_free(c); }
    static m3u8_client *create()
    {
        return torture_retry((m3u8_client *)nullptr, m3u8_client_new);
    }
    M3U8ClientImpl &impl() { return *c->impl; }
    int32_t load(const std::string &text, const std::string &url = kUrl, int32_t *is_master = nullptr)
    {
        const std::string before = state();
        return torture_retry(2, [&] {
            int32_t result = load_once(text, url, is_master);
            EXPECT_TRUE(result != 2 || state() == before) << "a load without memory changed the client";
            return result;
        });
    }
    int32_t load_once(const std::string &text, const std::string &url, int32_t *is_master)
    {
        hls_buffer buffer{(uint8_t *)text.data(), (uint32_t)text.size(), (uint32_t)text.size()};
        return is_master ? m3u8_client_load_master_playlist(c, url.c_str(), &buffer, is_master)
                         : m3u8_client_load_playlist(c, url.c_str(), &buffer);
    }
    // Everything a load may change, with both indexes' sizes.
    std::string state()
    {
        M3U8ClientImpl &i = impl();
        std::lock_guard<std::recursive_mutex> lock(i.mutex);
        std::string out = std::to_string((uintptr_t)i.raw_data) + " " + std::to_string((uintptr_t)i.master_raw_data) +
                          " " + i.master.url + " " + std::to_string(i.master.playlists.size()) + " " +
                          std::to_string(i.max_fragment_count) + " " + std::to_string(i.bySequence.size()) + " " +
                          std::to_string(i.byUriDuration.size()) + " " + std::to_string(i.pendingCount);
        for (const std::string &e : list())
            out += " " + e;
        return out;
    }
    Strings list() { return describe(impl().fragments); }
    // The front (or back) fragment record, described, or "(null)".
    std::string fragment(bool back = false)
    {
        auto get = [&] { return back ? m3u8_client_get_back_fragment(c) : m3u8_client_get_front_fragment(c); };
        tsdata_fragment *f = torture_retry((tsdata_fragment *)nullptr, get);
        std::string out = f ? describe(f->sequence_no, f->uri, f->duration) : "(null)";
        EXPECT_TRUE(!f || f->aux == nullptr);
        tsdata_fragment_free(f);
        return out;
    }
};

} // namespace

TEST(M3u8Client, NewClientAndNullArgumentsGiveNothing)
{
    Client client;
    ASSERT_NE(client.c, nullptr);
    EXPECT_EQ(m3u8_client_get_raw_data(client.c), nullptr);
    EXPECT_EQ(m3u8_client_get_master_raw_data(client.c), nullptr);
    EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), 0u);
    EXPECT_EQ(client.fragment() + client.fragment(true), "(null)(null)");
    EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, 0)), "(null)");
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(client.c, 1)), "(null)");
    EXPECT_EQ(m3u8_client_is_time_to_refresh_playlist(client.c), 1);
    EXPECT_EQ(tsdata_fragment_new(nullptr), nullptr);
    tsdata_fragment_free(nullptr);
    m3u8_client_free(nullptr);
    // A missing argument, or a buffer that claims bytes it does not hold: 1.
    hls_buffer text{(uint8_t *)"#EXTM3U\n", 8, 8}, claimed{nullptr, 8, 8};
    int32_t is_master = -1;
    struct Case { m3u8_client *c; const char *url; hls_buffer *buffer; } cases[] = {
        {nullptr, kUrl.c_str(), &text}, {client.c, nullptr, &text}, {client.c, kUrl.c_str(), nullptr},
        {client.c, kUrl.c_str(), &claimed}};
    for (const Case &k : cases) {
        EXPECT_EQ(m3u8_client_load_playlist(k.c, k.url, k.buffer), 1);
        EXPECT_EQ(m3u8_client_load_master_playlist(k.c, k.url, k.buffer, &is_master), 1);
    }
    EXPECT_EQ(m3u8_client_load_master_playlist(client.c, kUrl.c_str(), &text, nullptr), 1);
    EXPECT_EQ(is_master, -1);
    EXPECT_EQ(m3u8_client_get_raw_data(client.c), nullptr);
    if (getenv("HLS_TORTURE_FAIL_AT"))
        return; // the allocation shim is driven from outside
    for (long n : {1, 2}) { // the handle, then the client object
        alloc_shim_fail_nth(n);
        EXPECT_EQ(m3u8_client_new(), nullptr);
    }
    alloc_shim_fail_nth(0);
}

TEST(M3u8Client, PicksVariantByBandwidthWithTieBreaks)
{
    const std::vector<uint64_t> five = {800000, 400000, 400000, 1200000, 1200000};
    struct Case { std::vector<uint64_t> bandwidths; int32_t highest; std::string uri; uint64_t bps; } cases[] = {
        {five, 1, "v3.m3u8", 1200000}, {five, -7, "v3.m3u8", 1200000}, {five, 0, "v2.m3u8", 400000},
        {{5}, 1, "v0.m3u8", 5},        {{5}, 0, "v0.m3u8", 5},          {{1ull << 32 | 1, 5}, 1, "v0.m3u8", 1ull << 32 | 1},
    };
    for (const Case &k : cases) {
        Client client;
        int32_t is_master = -1;
        ASSERT_EQ(client.load(master(k.bandwidths), kUrl, &is_master), 0);
        EXPECT_EQ(is_master, 1);
        EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(client.c, k.highest)), k.uri);
        // By index, the first one past the end; neither changes the choice.
        size_t n = k.bandwidths.size();
        EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, n - 1)), "v" + std::to_string(n - 1) + ".m3u8");
        EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, n)), "v0.m3u8");
        EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), k.bps) << k.uri;
    }
}

TEST(M3u8Client, MasterLoaderSortsKindsAndComparesAfterParsing)
{
    Client client;
    StderrCapture capture;
    int32_t is_master = -1;
    const std::string m1 = master({1, 2});
    ASSERT_EQ(client.load(m1, "http://h/one.m3u8", &is_master), 0);
    const char *stored = m3u8_client_get_master_raw_data(client.c);
    EXPECT_EQ(std::string(stored), m1);
    // The same text from another URL changes nothing, not even the URL.
    ASSERT_EQ(client.load(m1, "http://h/two.m3u8", &is_master), 0);
    EXPECT_EQ(m3u8_client_get_master_raw_data(client.c), stored);
    EXPECT_EQ(client.impl().master.url, "http://h/one.m3u8");
    ASSERT_EQ(client.load(master({3}), "http://h/two.m3u8", &is_master), 0);
    EXPECT_EQ(client.impl().master.url, "http://h/two.m3u8");
    EXPECT_EQ(client.impl().master.playlists.size(), 1u);

    // A media text lands in the media slot and is merged; the master stays.
    const std::string m = media(4, {{"a.ts", "2"}, {"b.ts", "2"}});
    is_master = -1;
    ASSERT_EQ(client.load(m, kUrl, &is_master), 0);
    EXPECT_EQ(is_master, 0);
    EXPECT_EQ(std::string(m3u8_client_get_raw_data(client.c)), m);
    EXPECT_EQ(client.list(), (Strings{"4:http://h/live/a.ts:2000", "5:http://h/live/b.ts:2000"}));
    EXPECT_EQ(client.impl().master.playlists.size(), 1u);
    // Neither loader merges an identical text again: from a URL that cannot
    // be resolved against, a merge would log.
    EXPECT_EQ(client.load(m, "nowhere"), 0);
    EXPECT_EQ(client.load(m, "nowhere", &is_master), 0);
    EXPECT_TRUE(capture.text().empty() || (torture_mode() && capture.contains(", buf_to_raw_playlist>: malloc(")))
        << capture.text();

    // Valid as a master only through its end-of-list tag: tried as media.
    is_master = -1;
    EXPECT_EQ(client.load(media(6, {{"c.ts", "1"}}) + "#EXT-X-ENDLIST\n", kUrl, &is_master), 0);
    EXPECT_EQ(is_master, 0);
    // Not a playlist of either kind, or nothing at all: 1, nothing written.
    const char *raw = m3u8_client_get_raw_data(client.c);
    for (const std::string junk : {"hello\n", ""}) {
        is_master = -1;
        EXPECT_EQ(client.load(junk, kUrl, &is_master), 1);
        EXPECT_EQ(client.load(junk), 1);
        EXPECT_EQ(is_master, -1);
    }
    EXPECT_EQ(m3u8_client_get_raw_data(client.c), raw);
    EXPECT_EQ(client.list().size(), 3u);
}

TEST(M3u8Client, TextRunsToFirstNulButIdentityComparesAllBytes)
{
    Client client;
    std::string first = media(1, {{"a.ts", "1"}}) + std::string("\0B", 2);
    std::string second = media(1, {{"a.ts", "1"}}) + std::string("\0C", 2);
    ASSERT_EQ(client.load(first), 0);
    EXPECT_EQ(client.impl().raw_data_size, first.size() + 1);
    ASSERT_EQ(client.load(second), 0); // new text, known entries: only the text changes
    EXPECT_EQ(client.impl().raw_data[second.size() - 1], 'C');
    EXPECT_EQ(client.list(), (Strings{"1:http://h/live/a.ts:1000"}));
    // A NUL before the first entry leaves nothing to parse.
    EXPECT_EQ(client.load(std::string("#EXTM3U\n\0", 9) + media(2, {{"b.ts", "1"}})), 1);

    uint32_t size = 77;
    char *empty = buf_to_raw_playlist((const uint8_t *)"", 0, &size);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(empty[0], '\0');
    free(empty);
}

// The exact words are the contract; how often each case logs, the reference
// walk below checks.
TEST(M3u8Client, LogsUnresolvableEntriesAndUnknownOrRepeatedMarksInTheirWords)
{
    Client client;
    StderrCapture capture;
    ASSERT_EQ(client.load(media(0, {{"a.ts", "1"}, {"http://x/b.ts", "1"}, {"/c.ts", "1"}}), "index.m3u8"), 0);
    EXPECT_EQ(client.list(), (Strings{"1:http://x/b.ts:1000"}));
    EXPECT_EQ(client.impl().max_fragment_count, 3u);
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 99), 0);
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 1), 1);
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 1), 1);
    const std::string mark = ", m3u8_client_pop_front_fragment>: Want to remove the TS fragment[sequence no: ";
    const Strings lines = {", update_ts_playlist>: get_absolute_path(index.m3u8, a.ts) failed!\n",
                           ", update_ts_playlist>: get_absolute_path(index.m3u8, /c.ts) failed!\n",
                           mark + "99], but not found!!!\n\033[0m",
                           mark + "1], but has_downloaded is true!!!\n\033[0m"};
    for (const std::string &line : lines)
        EXPECT_EQ(capture.count(line), 1u) << capture.text();
    EXPECT_EQ(capture.count("Not Found '/' from index.m3u8"), 2u);
    EXPECT_EQ(capture.count("<ERROR! "), 6u);
}

// Each allocation of a load that merges, failed in turn (the copy of the
// text, parse, URL resolution, list element, either index): the load gives 2
// and leaves list, indexes, count and text as they were, so the same text
// loaded again merges every entry exactly once.
TEST(M3u8Client, LoadRunningOutOfMemoryAnywhereLeavesListAndIndexesAsTheyWere)
{
    if (getenv("HLS_TORTURE_FAIL_AT"))
        GTEST_SKIP() << "the allocation shim is driven from outside";
    const std::string first = media(0, {{"s0.ts", "1"}, {"s1.ts", "1"}});
    const std::string next = media(1, {{"s1.ts", "1"}, {"s2.ts", "1"}, {"s3.ts", "2"}});
    const Strings merged = {"0:http://h/live/s0.ts:1000*", "1:http://h/live/s1.ts:1000", "2:http://h/live/s2.ts:1000",
                            "3:http://h/live/s3.ts:2000"};
    for (bool through_master : {false, true}) {
        long n = 1;
        for (;; ++n) {
            SCOPED_TRACE(std::string(through_master ? "master" : "media") + " loader, allocation " + std::to_string(n));
            Client client;
            ASSERT_EQ(client.load(first), 0);
            ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, 0), 1);
            const Strings before = client.list();
            int32_t is_master = -1;
            StderrCapture capture;
            alloc_shim_fail_nth(n);
            int32_t result = client.load(next, kUrl, through_master ? &is_master : nullptr);
            const bool failed = alloc_shim_fired();
            alloc_shim_fail_nth(0);
            if (!failed) {
                EXPECT_EQ(result, 0);
                EXPECT_EQ(client.list(), merged);
                break;
            }
            ASSERT_EQ(result, 2);
            EXPECT_EQ(is_master, -1);
            const std::string copy_failed =
                ", buf_to_raw_playlist>: malloc(" + std::to_string(next.size() + 1) + ") failed!\n";
            EXPECT_EQ(capture.count(copy_failed), n == 1 ? 1u : 0u) << capture.text();
            EXPECT_EQ(client.list(), before);
            EXPECT_EQ(client.impl().max_fragment_count, 2u);
            EXPECT_EQ(std::string(m3u8_client_get_raw_data(client.c)), first);

            ASSERT_EQ(client.load(next, kUrl, through_master ? &is_master : nullptr), 0);
            EXPECT_EQ(client.list(), merged);
            EXPECT_EQ(client.impl().bySequence.size(), 4u);
            EXPECT_EQ(client.impl().byUriDuration.size(), 4u);
            EXPECT_EQ(client.impl().pendingCount, 3u);
            EXPECT_EQ(client.fragment(), "1:http://h/live/s1.ts:1000");
        }
        EXPECT_GT(n, 10) << "the merge should have been failed at many points";
    }
}

namespace {

// The fragment list as a plain walk over a list, the way the rules read:
// merging, marking, the reload rule with its one-second boundary, and the
// trim to max_fragment_count beside the pending elements (once per check,
// whether or not the front fragment was asked for since the marks).
struct ReferenceClient {
    std::list<TSDataItem> list;
    uint32_t max = 0;
    std::string raw; // no text loaded here is empty
    size_t not_found = 0, repeated = 0, unresolved = 0;

    int32_t load(const std::string &url, const std::string &text)
    {
        M3UTSPlaylist playlist = M3U8Parser().parse(url, text);
        if (text == raw || !playlist.valid)
            return text == raw ? 0 : 1;
        max = std::max<uint32_t>(max, (uint32_t)playlist.items.size());
        for (const M3UTSItem &item : playlist.items) {
            std::string absolute = get_absolute_path(url, item.uri);
            bool known = absolute.empty() && ++unresolved;
            for (const TSDataItem &e : list)
                known = known || e.sequence_no == item.sequence || (e.uri == absolute && e.duration == item.durationNs);
            if (!known)
                list.push_back({false, absolute, item.sequence, item.durationNs});
        }
        raw = text;
        return 0;
    }
    int32_t pop(uint64_t sequence)
    {
        for (TSDataItem &e : list)
            if (e.sequence_no == sequence) {
                repeated += e.has_downloaded;
                return e.has_downloaded = true;
            }
        ++not_found;
        return 0;
    }
    int32_t refresh()
    {
        uint64_t pending = 0, sum = 0;
        for (const TSDataItem &e : list)
            if (!e.has_downloaded)
                ++pending, sum += e.duration;
        while (list.size() > max + pending)
            list.pop_front();
        return pending <= 1 || sum <= 1000000000ull;
    }
};

} // namespace

TEST(M3u8Client, IndexedMergeMatchesListWalkOverRandomReloads)
{
    const char *durations[] = {"1", "2", "0.5", "2.002", "6", "0.25"};
    const std::string urls[] = {kUrl, "http://h/live/p2.m3u8", "http://h/other/p.m3u8", "nowhere.m3u8"};
    for (uint32_t seed = 1; seed <= 24; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](uint32_t n) { return rng() % n; };
        Client client;
        ReferenceClient ref;
        StderrCapture capture;
        uint64_t base = pick(50);
        std::string url = kUrl;
        for (int step = 0; step < 300; ++step) {
            uint32_t op = pick(10);
            int32_t got = 0, want = 0;
            if (op < 4) { // reload: restart low, playlist moved, or slide by 0..3
                uint32_t how = pick(6);
                base = how == 0 ? pick(8) : base + (how == 1 ? 0 : pick(4));
                url = how == 1 ? urls[pick(4)] : url;
                Entries entries;
                for (uint32_t i = 0, n = 1 + pick(8); i < n; ++i) {
                    uint64_t id = pick(5) == 0 ? pick(60) : base + i; // occasional duplicate name
                    std::string dir = pick(8) == 0 ? "/abs/" : (pick(8) == 0 ? "http://cdn/" : "");
                    entries.push_back({dir + "s" + std::to_string(id) + ".ts", durations[pick(4) == 0 ? pick(6) : id % 6]});
                }
                got = client.load(media(base, entries), url);
                want = ref.load(url, media(base, entries));
            } else if (op < 7) { // the loop marks the front, sometimes a random one
                tsdata_fragment *f = m3u8_client_get_front_fragment(client.c);
                uint64_t seq = (f && pick(4) != 0) ? f->sequence_no : base + pick(12) - 4;
                tsdata_fragment_free(f);
                got = m3u8_client_pop_front_fragment(client.c, seq);
                want = ref.pop(seq);
            } else {
                got = m3u8_client_is_time_to_refresh_playlist(client.c);
                want = ref.refresh();
            }
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + " op " + std::to_string(op));
            ASSERT_EQ(got, want);
            Strings list = describe(ref.list);
            ASSERT_EQ(client.list(), list);
            ASSERT_EQ(client.impl().max_fragment_count, ref.max);
            if (pick(3) == 0) { // not every step, so that marks and trims also meet a stale front
                auto pending = std::find_if(list.begin(), list.end(), [](const std::string &e) { return e.back() != '*'; });
                ASSERT_EQ(client.fragment(), pending == list.end() ? "(null)" : *pending);
                ASSERT_EQ(client.fragment(true), list.empty() || list.back().back() == '*' ? "(null)" : list.back());
            }
        }
        EXPECT_EQ(capture.count("but not found!!!"), ref.not_found);
        EXPECT_EQ(capture.count("but has_downloaded is true!!!"), ref.repeated);
        EXPECT_EQ(capture.count(", update_ts_playlist>: "), ref.unresolved);
    }
}

TEST(M3u8Client, ConcurrentLoadsAndMarksKeepCountsConsistent)
{
    Client client; // no capture here: sanitizer reports must stay visible
    std::atomic<bool> done{false};
    std::thread loader([&] {
        for (uint64_t base = 0; base < 300; ++base) {
            Entries window;
            for (uint64_t i = base; i < base + 4; ++i)
                window.push_back({"s" + std::to_string(i) + ".ts", "0.5"});
            client.load(media(base, window));
        }
        done = true;
    });
    size_t marked = 0;
    for (;;) {
        bool finished = done; // read before looking, so nothing is missed
        tsdata_fragment *f = m3u8_client_get_front_fragment(client.c);
        if (!f && finished)
            break;
        if (f)
            marked += m3u8_client_pop_front_fragment(client.c, f->sequence_no);
        tsdata_fragment_free(f);
        m3u8_client_is_time_to_refresh_playlist(client.c);
    }
    loader.join();
    EXPECT_EQ(marked, 303u); // every segment of the sliding window, once
    EXPECT_EQ(client.impl().pendingCount, 0u);
}
