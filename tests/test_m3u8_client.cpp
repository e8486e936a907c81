#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hls_m3u8.h"
#include "stderr_capture.h"

// Allocation failures on demand: the next malloc of exactly `fail_size`
// bytes on this thread returns null. The library resolves malloc from the
// executable, so this reaches its allocations too. Sanitizers bring their own
// allocator, so the tests that need it are skipped there.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define FAILING_MALLOC 1
extern "C" void *__libc_malloc(size_t size);
static thread_local size_t fail_size = 0;
extern "C" void *malloc(size_t size) noexcept
{
    if (fail_size != 0 && size == fail_size) {
        fail_size = 0;
        return nullptr;
    }
    return __libc_malloc(size);
}
#endif

namespace {

struct Client {
    m3u8_client *c = m3u8_client_new();
    ~Client() { m3u8_client_free(c); }
    M3U8ClientImpl &impl() { return *c->impl; }
};

hls_buffer view(const std::string &text)
{
    return hls_buffer{(uint8_t *)text.data(), (uint32_t)text.size(), (uint32_t)text.size()};
}

int32_t load(Client &client, const std::string &url, const std::string &text)
{
    hls_buffer buffer = view(text);
    return m3u8_client_load_playlist(client.c, url.c_str(), &buffer);
}

int32_t load_master(Client &client, const std::string &url, const std::string &text, int32_t *is_master)
{
    hls_buffer buffer = view(text);
    return m3u8_client_load_master_playlist(client.c, url.c_str(), &buffer, is_master);
}

// A media playlist starting at `sequence`, one entry per name, each lasting
// its duration word.
std::string media(uint64_t sequence, const std::vector<std::pair<std::string, std::string>> &entries)
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

// The fragment list as "sequence:uri:duration_ms" with a trailing * when
// downloaded.
std::vector<std::string> fragments(Client &client)
{
    std::vector<std::string> out;
    for (const TSDataItem &item : client.impl().fragments)
        out.push_back(std::to_string(item.sequence_no) + ":" + item.uri + ":" +
                      std::to_string(item.duration / 1000000) + (item.has_downloaded ? "*" : ""));
    return out;
}

std::string take(char *owned)
{
    std::string out = owned ? owned : "(null)";
    free(owned);
    return out;
}

std::string front_uri(Client &client, bool back = false)
{
    tsdata_fragment *f = back ? m3u8_client_get_back_fragment(client.c) : m3u8_client_get_front_fragment(client.c);
    std::string out = f ? std::string(f->uri) + "#" + std::to_string(f->sequence_no) : "(null)";
    tsdata_fragment_free(f);
    return out;
}

const std::string kUrl = "http://h/live/p.m3u8";
using Strings = std::vector<std::string>;

} // namespace

TEST(M3u8Client, NewClientHasNothingToGive)
{
    Client client;
    ASSERT_NE(client.c, nullptr);
    EXPECT_EQ(m3u8_client_get_raw_data(client.c), nullptr);
    EXPECT_EQ(m3u8_client_get_master_raw_data(client.c), nullptr);
    EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), 0u);
    EXPECT_EQ(front_uri(client), "(null)");
    EXPECT_EQ(front_uri(client, true), "(null)");
    EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, 0)), "(null)");
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(client.c, 1)), "(null)");
    EXPECT_EQ(m3u8_client_is_time_to_refresh_playlist(client.c), 1);
    EXPECT_EQ(tsdata_fragment_new(nullptr), nullptr);
    tsdata_fragment_free(nullptr);
    m3u8_client_free(nullptr);
}

TEST(M3u8Client, PicksVariantByBandwidthWithTieBreaks)
{
    Client client;
    int32_t is_master = -1;
    ASSERT_EQ(load_master(client, "http://h/m.m3u8", master({800000, 400000, 400000, 1200000, 1200000}), &is_master), 0);
    EXPECT_EQ(is_master, 1);
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(client.c, 1)), "v3.m3u8");
    EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), 1200000u);
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(client.c, 0)), "v2.m3u8");
    EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), 400000u);
    EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, 1)), "v1.m3u8");
    EXPECT_EQ(take(m3u8_client_get_second_playlist(client.c, 5)), "v0.m3u8"); // past the end
    EXPECT_EQ(m3u8_client_get_bandwidth_bps(client.c), 400000u);

    Client single;
    ASSERT_EQ(load_master(single, "http://h/m.m3u8", master({5}), &is_master), 0);
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(single.c, 1)), "v0.m3u8");
    EXPECT_EQ(take(m3u8_client_get_second_playlist_by_bandwidth(single.c, 0)), "v0.m3u8");
}

TEST(M3u8Client, MasterLoaderSortsKindsAndComparesAfterParsing)
{
    Client client;
    StderrCapture capture;
    int32_t is_master = -1;
    const std::string m1 = master({1, 2}), m2 = master({3});
    ASSERT_EQ(load_master(client, "http://h/one.m3u8", m1, &is_master), 0);
    const char *stored = m3u8_client_get_master_raw_data(client.c);
    EXPECT_EQ(std::string(stored), m1);
    // The same text from another URL changes nothing, not even the URL.
    ASSERT_EQ(load_master(client, "http://h/two.m3u8", m1, &is_master), 0);
    EXPECT_EQ(m3u8_client_get_master_raw_data(client.c), stored);
    EXPECT_EQ(client.impl().master.url, "http://h/one.m3u8");
    ASSERT_EQ(load_master(client, "http://h/two.m3u8", m2, &is_master), 0);
    EXPECT_EQ(client.impl().master.url, "http://h/two.m3u8");
    EXPECT_EQ(client.impl().master.playlists.size(), 1u);

    // A media text lands in the media slot and is merged; the master stays.
    const std::string m = media(4, {{"a.ts", "2"}, {"b.ts", "2"}});
    is_master = -1;
    ASSERT_EQ(load_master(client, kUrl, m, &is_master), 0);
    EXPECT_EQ(is_master, 0);
    EXPECT_EQ(std::string(m3u8_client_get_raw_data(client.c)), m);
    EXPECT_EQ(fragments(client), (Strings{"4:http://h/live/a.ts:2000", "5:http://h/live/b.ts:2000"}));
    EXPECT_EQ(client.impl().master.playlists.size(), 1u);
    // Neither loader merges an identical text again: from a URL that cannot
    // be resolved against, a merge would log.
    EXPECT_EQ(load(client, "nowhere", m), 0);
    EXPECT_EQ(load_master(client, "nowhere", m, &is_master), 0);
    EXPECT_EQ(capture.text(), "");

    // Valid as a master only through its end-of-list tag: tried as media.
    is_master = -1;
    EXPECT_EQ(load_master(client, kUrl, media(6, {{"c.ts", "1"}}) + "#EXT-X-ENDLIST\n", &is_master), 0);
    EXPECT_EQ(is_master, 0);
    // Not a playlist of either kind, or nothing at all: 1, nothing written.
    const char *raw = m3u8_client_get_raw_data(client.c);
    for (const std::string &junk : {std::string("hello\n"), std::string()}) {
        is_master = -1;
        EXPECT_EQ(load_master(client, kUrl, junk, &is_master), 1);
        EXPECT_EQ(load(client, kUrl, junk), 1);
        EXPECT_EQ(is_master, -1);
    }
    EXPECT_EQ(m3u8_client_get_raw_data(client.c), raw);
    EXPECT_EQ(fragments(client).size(), 3u);
}

TEST(M3u8Client, MergeAppendsOnlyEntriesUnknownBySequenceOrUrlAndDuration)
{
    Client client;
    ASSERT_EQ(load(client, kUrl, media(10, {{"a10.ts", "2"}, {"a11.ts", "2"}, {"a12.ts", "2"}})), 0);
    EXPECT_EQ(client.impl().max_fragment_count, 3u);
    // Slid by two: exactly the two new entries, at the back, pending.
    ASSERT_EQ(load(client, kUrl, media(12, {{"a12.ts", "2"}, {"a13.ts", "2"}, {"a14.ts", "2"}})), 0);
    EXPECT_EQ(fragments(client), (Strings{"10:http://h/live/a10.ts:2000", "11:http://h/live/a11.ts:2000",
                                          "12:http://h/live/a12.ts:2000", "13:http://h/live/a13.ts:2000",
                                          "14:http://h/live/a14.ts:2000"}));
    ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, 10), 1);

    // Known sequence with another URI: skipped, the element unchanged. New
    // sequence with a known URL and duration: skipped. Known URL with another
    // duration: appended. Lower sequences after a restart go to the back.
    const std::string text = media(14, {{"other.ts", "9"}, {"/live/a13.ts", "2"}, {"a13.ts", "3"}}) +
                             "#EXTINF:1,\nhttp://cdn/r.ts\n";
    ASSERT_EQ(load(client, kUrl, text), 0);
    ASSERT_EQ(load(client, kUrl, media(0, {{"a10.ts", "2"}, {"z.ts", "1"}})), 0);
    EXPECT_EQ(fragments(client), (Strings{"10:http://h/live/a10.ts:2000*", "11:http://h/live/a11.ts:2000",
                                          "12:http://h/live/a12.ts:2000", "13:http://h/live/a13.ts:2000",
                                          "14:http://h/live/a14.ts:2000", "16:http://h/live/a13.ts:3000",
                                          "17:http://cdn/r.ts:1000", "1:http://h/live/z.ts:1000"}));
    EXPECT_EQ(client.impl().max_fragment_count, 4u);

    // A changed text with only known entries replaces the raw text alone; its
    // length still raises the count.
    const std::string known = media(11, {{"a11.ts", "2"}, {"a12.ts", "2"}, {"a13.ts", "2"}, {"a14.ts", "2"},
                                         {"a10.ts", "2"}, {"x", "2"}}) + "#EXT-X-VERSION:3\n";
    Strings before = fragments(client);
    ASSERT_EQ(load(client, kUrl, known), 0);
    EXPECT_EQ(fragments(client), before);
    EXPECT_EQ(std::string(m3u8_client_get_raw_data(client.c)), known);
    EXPECT_EQ(client.impl().max_fragment_count, 6u);
}

TEST(M3u8Client, TextRunsToFirstNulButIdentityComparesAllBytes)
{
    Client client;
    std::string first = media(1, {{"a.ts", "1"}}) + std::string("\0B", 2);
    std::string second = media(1, {{"a.ts", "1"}}) + std::string("\0C", 2);
    ASSERT_EQ(load(client, kUrl, first), 0);
    EXPECT_EQ(client.impl().raw_data_size, first.size() + 1);
    ASSERT_EQ(load(client, kUrl, second), 0);
    EXPECT_EQ(client.impl().raw_data[second.size() - 1], 'C');
    EXPECT_EQ(fragments(client), (Strings{"1:http://h/live/a.ts:1000"}));
    // A NUL before the first entry leaves nothing to parse.
    EXPECT_EQ(load(client, kUrl, std::string("#EXTM3U\n\0", 9) + media(2, {{"b.ts", "1"}})), 1);

    uint32_t size = 77;
    char *empty = buf_to_raw_playlist((const uint8_t *)"", 0, &size);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(empty[0], '\0');
    free(empty);
}

TEST(M3u8Client, UnresolvableEntriesAreLoggedAndSkipped)
{
    Client client;
    StderrCapture capture;
    ASSERT_EQ(load(client, "index.m3u8", media(0, {{"a.ts", "1"}, {"http://x/b.ts", "1"}, {"/c.ts", "1"}})), 0);
    EXPECT_EQ(fragments(client), (Strings{"1:http://x/b.ts:1000"}));
    EXPECT_EQ(client.impl().max_fragment_count, 3u);
    EXPECT_TRUE(capture.contains(", update_ts_playlist>: get_absolute_path(index.m3u8, a.ts) failed!\n"));
    EXPECT_TRUE(capture.contains(", update_ts_playlist>: get_absolute_path(index.m3u8, /c.ts) failed!\n"));
    EXPECT_EQ(capture.count("Not Found '/' from index.m3u8"), 2u);
}

TEST(M3u8Client, FragmentGettersSkipOrStopAtDownloaded)
{
    Client client;
    ASSERT_EQ(load(client, kUrl, media(0, {{"a.ts", "2.5"}, {"b.ts", "2"}, {"c.ts", "2"}})), 0);
    ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, 0), 1);
    tsdata_fragment *front = m3u8_client_get_front_fragment(client.c);
    ASSERT_NE(front, nullptr);
    EXPECT_STREQ(front->uri, "http://h/live/b.ts");
    EXPECT_EQ(front->sequence_no, 1u);
    EXPECT_EQ(front->duration, 2000000000u);
    EXPECT_EQ(front->aux, nullptr);
    tsdata_fragment_free(front);
    EXPECT_EQ(front_uri(client, true), "http://h/live/c.ts#2");
    // Marked out of order: front finds the first pending, back stops at c.
    ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, 2), 1);
    EXPECT_EQ(front_uri(client), "http://h/live/b.ts#1");
    EXPECT_EQ(front_uri(client, true), "(null)");
    ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, 1), 1);
    EXPECT_EQ(front_uri(client), "(null)");
    // A new pending entry behind downloaded ones is found again.
    ASSERT_EQ(load(client, kUrl, media(3, {{"d.ts", "2"}})), 0);
    EXPECT_EQ(front_uri(client), "http://h/live/d.ts#3");
}

TEST(M3u8Client, PopMarksOnceAndLogsUnknownOrRepeated)
{
    Client client;
    ASSERT_EQ(load(client, kUrl, media(7, {{"a.ts", "1"}})), 0);
    StderrCapture capture;
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 99), 0);
    EXPECT_TRUE(capture.contains(", m3u8_client_pop_front_fragment>: Want to remove the TS fragment[sequence no: 99], "
                                 "but not found!!!\n"));
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 7), 1);
    EXPECT_FALSE(capture.contains("has_downloaded"));
    EXPECT_EQ(m3u8_client_pop_front_fragment(client.c, 7), 1);
    EXPECT_TRUE(capture.contains("Want to remove the TS fragment[sequence no: 7], but has_downloaded is true!!!\n"));
    EXPECT_EQ(fragments(client), (Strings{"7:http://h/live/a.ts:1000*"}));
}

TEST(M3u8Client, RefreshIsDueWhenAtMostOneOrOneSecondIsPending)
{
    struct Case {
        std::vector<std::string> durations;
        size_t downloaded; // marked from the front
        int32_t due;
    } cases[] = {
        {{"6", "4"}, 0, 0},          {{"25"}, 0, 1},         {{"0.3", "0.3", "0.3"}, 0, 1},
        {{"0.5", "0.5"}, 0, 1},      {{"0.5", "0.6"}, 0, 0}, {{"6", "6", "6"}, 1, 0},
        {{"6", "6", "6"}, 2, 1},     {{"9", "0.5", "0.5"}, 1, 1},
    };
    for (const Case &c : cases) {
        Client client;
        std::vector<std::pair<std::string, std::string>> entries;
        for (size_t i = 0; i < c.durations.size(); ++i)
            entries.push_back({"s" + std::to_string(i) + ".ts", c.durations[i]});
        ASSERT_EQ(load(client, kUrl, media(0, entries)), 0);
        for (size_t i = 0; i < c.downloaded; ++i)
            m3u8_client_pop_front_fragment(client.c, i);
        EXPECT_EQ(m3u8_client_is_time_to_refresh_playlist(client.c), c.due)
            << ::testing::PrintToString(c.durations) << " downloaded " << c.downloaded;
    }
}

TEST(M3u8Client, TrimKeepsMaxFragmentCountBesidePendingAndForgetsTrimmed)
{
    Client client;
    std::vector<std::pair<std::string, std::string>> first, second;
    for (int i = 0; i < 5; ++i)
        first.push_back({"s" + std::to_string(i) + ".ts", "2"});
    for (int i = 5; i < 9; ++i)
        second.push_back({"s" + std::to_string(i) + ".ts", "2"});
    ASSERT_EQ(load(client, kUrl, media(0, first)), 0);
    ASSERT_EQ(load(client, kUrl, media(5, second)), 0);
    ASSERT_EQ(client.impl().max_fragment_count, 5u);
    for (uint64_t seq = 0; seq < 7; ++seq)
        ASSERT_EQ(m3u8_client_pop_front_fragment(client.c, seq), 1);
    // 9 elements, 2 pending: the first 2 go; decided before the trim.
    EXPECT_EQ(m3u8_client_is_time_to_refresh_playlist(client.c), 0);
    Strings kept = fragments(client);
    ASSERT_EQ(kept.size(), 7u);
    EXPECT_EQ(kept.front(), "2:http://h/live/s2.ts:2000*");
    EXPECT_EQ(m3u8_client_is_time_to_refresh_playlist(client.c), 0);
    EXPECT_EQ(fragments(client), kept);
    EXPECT_EQ(front_uri(client), "http://h/live/s7.ts#7");
    // Trimmed entries are unknown again to the next merge.
    ASSERT_EQ(load(client, kUrl, media(0, first)), 0);
    EXPECT_EQ(fragments(client).size(), 9u);
    EXPECT_EQ(fragments(client).back(), "1:http://h/live/s1.ts:2000");
}

TEST(M3u8Client, OutOfMemoryGivesNullOrCodeTwoAndChangesNothing)
{
#ifndef FAILING_MALLOC
    GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail on demand";
#else
    fail_size = sizeof(m3u8_client);
    EXPECT_EQ(m3u8_client_new(), nullptr);
    fail_size = sizeof(M3U8ClientImpl);
    EXPECT_EQ(m3u8_client_new(), nullptr);
    fail_size = 0;

    Client client;
    const std::string text = media(0, {{"a.ts", "1"}});
    ASSERT_EQ(load(client, kUrl, text), 0);
    const std::string next = media(1, {{"b.ts", "1"}});
    StderrCapture capture;
    int32_t is_master = -1;
    fail_size = next.size() + 1;
    EXPECT_EQ(load(client, kUrl, next), 2);
    fail_size = next.size() + 1;
    EXPECT_EQ(load_master(client, kUrl, next, &is_master), 2);
    fail_size = 0;
    EXPECT_EQ(is_master, -1);
    EXPECT_EQ(capture.count(", buf_to_raw_playlist>: malloc(" + std::to_string(next.size() + 1) + ") failed!\n"), 2u);
    EXPECT_EQ(std::string(m3u8_client_get_raw_data(client.c)), text);
    EXPECT_EQ(fragments(client).size(), 1u);
#endif
}

namespace {

// The fragment list as a plain walk over a list, the way the rules read.
struct ReferenceClient {
    struct Item {
        bool done;
        std::string uri;
        uint64_t sequence, duration;
    };
    std::list<Item> list;
    uint32_t max = 0;
    std::string raw;
    size_t not_found = 0, repeated = 0, unresolved = 0;

    int32_t load(const std::string &url, const std::string &text)
    {
        if (!raw.empty() && raw == text)
            return 0;
        M3UTSPlaylist playlist = M3U8Parser().parse(url, text);
        if (!playlist.valid)
            return 1;
        max = std::max<uint32_t>(max, (uint32_t)playlist.items.size());
        for (const M3UTSItem &item : playlist.items) {
            std::string absolute = get_absolute_path(url, item.uri);
            if (absolute.empty()) {
                ++unresolved;
                continue;
            }
            bool known = false;
            for (const Item &e : list)
                if (e.sequence == item.sequence || (e.uri == absolute && e.duration == item.durationNs)) {
                    known = true;
                    break;
                }
            if (!known)
                list.push_back({false, absolute, item.sequence, item.durationNs});
        }
        raw = text;
        return 0;
    }
    int32_t pop(uint64_t sequence)
    {
        for (Item &e : list)
            if (e.sequence == sequence) {
                repeated += e.done;
                e.done = true;
                return 1;
            }
        ++not_found;
        return 0;
    }
    int32_t refresh()
    {
        uint64_t pending = 0, sum = 0;
        for (const Item &e : list)
            if (!e.done) {
                ++pending;
                sum += e.duration;
            }
        int32_t due = list.empty() || pending <= 1 || sum <= 1000000000ull;
        while (list.size() > max + pending)
            list.pop_front();
        return due;
    }
    std::string front() const
    {
        for (const Item &e : list)
            if (!e.done)
                return e.uri + "#" + std::to_string(e.sequence);
        return "(null)";
    }
    std::string back() const
    {
        return list.empty() || list.back().done ? "(null)" : list.back().uri + "#" + std::to_string(list.back().sequence);
    }
    Strings snapshot() const
    {
        Strings out;
        for (const Item &e : list)
            out.push_back(std::to_string(e.sequence) + ":" + e.uri + ":" + std::to_string(e.duration / 1000000) +
                          (e.done ? "*" : ""));
        return out;
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
            if (op < 4) { // reload: slide, restart, dupes, other URL
                switch (pick(6)) {
                case 0: base = pick(8); break;                       // restart low
                case 1: url = urls[pick(4)]; break;                  // playlist moved
                default: base += pick(4); break;                     // slide by 0..3
                }
                std::vector<std::pair<std::string, std::string>> entries;
                for (uint32_t i = 0, n = 1 + pick(8); i < n; ++i) {
                    uint64_t id = pick(5) == 0 ? pick(60) : base + i; // occasional duplicate name
                    std::string name = (pick(8) == 0 ? "/abs/" : (pick(8) == 0 ? "http://cdn/" : "")) + std::string("s") +
                                       std::to_string(id) + ".ts";
                    entries.push_back({name, durations[pick(4) == 0 ? pick(6) : id % 6]});
                }
                std::string text = media(base, entries);
                got = load(client, url, text);
                want = ref.load(url, text);
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
            ASSERT_EQ(got, want) << "seed " << seed << " step " << step << " op " << op;
            ASSERT_EQ(fragments(client), ref.snapshot()) << "seed " << seed << " step " << step;
            ASSERT_EQ(client.impl().max_fragment_count, ref.max);
            if (pick(3) == 0) { // not every step, so that marks and trims also meet a stale front
                ASSERT_EQ(front_uri(client), ref.front()) << "seed " << seed << " step " << step;
                ASSERT_EQ(front_uri(client, true), ref.back()) << "seed " << seed << " step " << step;
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
            std::vector<std::pair<std::string, std::string>> entries;
            for (uint64_t i = 0; i < 4; ++i)
                entries.push_back({"s" + std::to_string(base + i) + ".ts", "0.5"});
            load(client, kUrl, media(base, entries));
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
