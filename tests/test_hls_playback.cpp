// The HLS path end to end on a local server: first playlist and variant
// choice, segment order and skipping, reloads, retry waits, incomplete
// playlists, frame pacing, the download throttle, the receive cap and
// disconnects at every stage. Several scenarios share one test as separate
// channels so that the real 5-second waits run side by side.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "HLSClientLib.h"
#include "local_server.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "hls_demux.h"

using namespace std::chrono;
using Clock = steady_clock;

namespace {

// ---- receive cap hook ----
// Every cap the playback loop gives the segment downloader, with the channel
// taken from the calling download thread's name ("httpdown[N]").
std::mutex g_cap_lock;
std::map<int, std::vector<uint64_t>> g_caps;

std::vector<uint64_t> caps_of(int channel)
{
    std::lock_guard<std::mutex> guard(g_cap_lock);
    return g_caps[channel];
}

} // namespace

extern "C" void ts_downloader_set_bandwidth_bps(ts_downloader *handle, uint64_t bps)
{
    using Fn = void (*)(ts_downloader *, uint64_t);
    static Fn real = (Fn)dlsym(RTLD_NEXT, "ts_downloader_set_bandwidth_bps");
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    int channel = -1;
    if (sscanf(name, "httpdown[%d]", &channel) == 1) {
        std::lock_guard<std::mutex> guard(g_cap_lock);
        g_caps[channel].push_back(bps);
    }
    real(handle, bps);
}

namespace {

// ---- the site ----
struct Reply {
    int status = 200;
    std::string body;
    int delay_ms = 0;
};
using Script = std::function<Reply(int hit)>; // hit counts from 1 per target

struct Hit {
    std::string target;
    Clock::time_point at;
};

// Serves each request target (path and query) from a script and logs every
// request. Unknown targets get 404.
class Site {
public:
    Site()
    {
        server_.server().new_task_queue = [] { return new httplib::ThreadPool(48); };
        server_.server().Get(".*", [this](const httplib::Request &rq, httplib::Response &rs) { serve(rq, rs); });
        server_.start();
    }
    ~Site()
    {
        closing_ = true;
        server_.stop();
    }

    void on(const std::string &target, Script script)
    {
        std::lock_guard<std::mutex> guard(lock_);
        scripts_[target] = std::move(script);
    }
    void on(const std::string &target, const std::string &body)
    {
        on(target, [body](int) { return Reply{200, body, 0}; });
    }
    // A playlist that stays the same; reloads after the first load are slowed
    // a little so that a loop polling an unchanged playlist stays cheap.
    void playlist(const std::string &target, const std::string &body)
    {
        on(target, [body](int hit) { return Reply{200, body, hit > 2 ? 15 : 0}; });
    }

    std::string url(const std::string &target) const { return server_.url(target); }
    int hits(const std::string &target)
    {
        std::lock_guard<std::mutex> guard(lock_);
        return (int)std::count_if(log_.begin(), log_.end(), [&](const Hit &h) { return h.target == target; });
    }
    std::vector<Hit> log()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return log_;
    }
    // Targets starting with `prefix`, in request order.
    std::vector<std::string> order(const std::string &prefix)
    {
        std::vector<std::string> out;
        for (const Hit &h : log())
            if (h.target.compare(0, prefix.size(), prefix) == 0)
                out.push_back(h.target);
        return out;
    }
    Clock::time_point nth_hit(const std::string &target, int n)
    {
        for (const Hit &h : log())
            if (h.target == target && --n == 0)
                return h.at;
        return Clock::time_point{};
    }

private:
    void serve(const httplib::Request &rq, httplib::Response &rs)
    {
        Script script;
        int hit;
        {
            std::lock_guard<std::mutex> guard(lock_);
            log_.push_back({rq.target, Clock::now()});
            hit = (int)std::count_if(log_.begin(), log_.end(), [&](const Hit &h) { return h.target == rq.target; });
            auto it = scripts_.find(rq.target);
            if (it != scripts_.end())
                script = it->second;
        }
        Reply reply = script ? script(hit) : Reply{404, "missing", 0};
        for (int waited = 0; waited < reply.delay_ms && !closing_; waited += 5)
            std::this_thread::sleep_for(milliseconds(5));
        rs.status = reply.status;
        rs.set_content(reply.body, "application/vnd.apple.mpegurl");
    }

    LocalServer server_;
    std::mutex lock_;
    std::map<std::string, Script> scripts_;
    std::vector<Hit> log_;
    std::atomic<bool> closing_{false};
};

// ---- playlists and segments ----
std::string media(const std::vector<std::pair<std::string, const char *>> &segments, int sequence = 0)
{
    std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(sequence) + "\n";
    for (const auto &s : segments)
        text += std::string("#EXTINF:") + s.second + ",\n" + s.first + "\n";
    return text;
}

std::string master(const std::vector<std::pair<uint64_t, std::string>> &variants)
{
    std::string text = "#EXTM3U\n";
    for (const auto &v : variants)
        text += "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=" + std::to_string(v.first) + "\n" + v.second + "\n";
    return text;
}

// `video` video frames named "<tag>v<i>", each followed by `audio` audio
// frames "<tag>a<i>.<j>"; `pad` extra payload bytes per video frame.
std::string segment(const std::string &tag, int video, int audio = 0, uint8_t rate = 25, uint16_t frac = 0,
                    size_t pad = 0)
{
    std::string out;
    for (int i = 0; i < video; i++) {
        out += test_host::make_frame(HLS_FRAME_TYPE_VIDEO_KEY, tag + "v" + std::to_string(i) + std::string(pad, '.'),
                                     i, rate, frac);
        for (int j = 0; j < audio; j++)
            out += test_host::make_frame(0x0a000000, tag + "a" + std::to_string(i) + "." + std::to_string(j));
    }
    return out;
}

const std::string kIncomplete = "#EXTM3U\n";

// ---- host side ----
std::vector<HostEvent> events_of(HostEvent::Kind kind, int channel)
{
    std::vector<HostEvent> out;
    for (const HostEvent &e : test_host::events())
        if (e.kind == kind && e.channel == channel)
            out.push_back(e);
    return out;
}

std::vector<HostEvent> frames_of(int channel) { return events_of(HostEvent::Frame, channel); }

std::vector<std::string> payloads_of(int channel)
{
    std::vector<std::string> out;
    for (const HostEvent &e : frames_of(channel))
        out.push_back(e.data.substr(0, e.data.find('.')));
    return out;
}

std::vector<int32_t> statuses_of(int channel)
{
    std::vector<int32_t> out;
    for (const HostEvent &e : events_of(HostEvent::Status, channel))
        out.push_back(e.value);
    return out;
}

bool thread_named(const std::string &name)
{
    DIR *dir = opendir("/proc/self/task");
    if (!dir)
        return false;
    bool found = false;
    while (struct dirent *entry = readdir(dir)) {
        std::string path = std::string("/proc/self/task/") + entry->d_name + "/comm";
        if (FILE *f = fopen(path.c_str(), "r")) {
            char comm[32] = {0};
            if (fgets(comm, sizeof(comm), f) && std::string(comm) == name + "\n")
                found = true;
            fclose(f);
        }
    }
    closedir(dir);
    return found;
}

double seconds_between(Clock::time_point a, Clock::time_point b) { return duration<double>(b - a).count(); }

bool wait(const std::function<bool()> &pred, int ms = 10000) { return test_host::wait_for(pred, milliseconds(ms)); }

class HlsPlayback : public ::testing::Test {
protected:
    void SetUp() override
    {
        test_host::reset();
        {
            std::lock_guard<std::mutex> guard(g_cap_lock);
            g_caps.clear();
        }
        ASSERT_EQ(hls_client_init(8, test_host::frame_cb, test_host::status_cb, nullptr), 0);
    }
    void TearDown() override
    {
        hls_client_destroy();
        hls_monotonic_ms_fn = hls_monotonic_ms;
    }

    void connect(int channel, const std::string &url, int low_bandwidth = 0)
    {
        hls_connect_param p;
        memset(&p, 0, sizeof(p));
        snprintf(p.url, sizeof(p.url), "%s", url.c_str());
        p.low_bandwidth = low_bandwidth;
        p.connect_timeout = 5;
        p.timeout = 5;
        ASSERT_EQ(hls_client_connect(channel, &p), 0);
    }
    // Disconnects and returns how long the call took, in seconds.
    double disconnect(int channel)
    {
        auto start = Clock::now();
        EXPECT_EQ(hls_client_disconnect(channel), 0);
        return seconds_between(start, Clock::now());
    }

    Site site_;
};

} // namespace

TEST_F(HlsPlayback, MediaPlaylistFirstPlaysSegmentsInOrderAndReloadsHostUrl)
{
    site_.playlist("/m/index.m3u8", media({{"seg0.ts", "1.0"}, {"seg1.ts", "1.0"}, {"seg2.ts", "1.0"}}));
    for (int i = 0; i < 3; i++)
        site_.on("/m/seg" + std::to_string(i) + ".ts", segment("s" + std::to_string(i), 2, 1));
    connect(2, site_.url("/m/index.m3u8"));

    ASSERT_TRUE(wait([&] { return test_host::frame_count(2) == 12 && site_.hits("/m/index.m3u8") >= 5; }));
    EXPECT_TRUE(thread_named("hls_ctrl[2]"));
    // Probe, first load, then a reload once one segment is left, then reloads
    // of the host's URL while nothing is pending; no variant is ever fetched.
    std::vector<std::string> order = site_.order("/m/");
    order.resize(7);
    EXPECT_EQ(order, (std::vector<std::string>{"/m/index.m3u8", "/m/index.m3u8", "/m/seg0.ts", "/m/seg1.ts",
                                               "/m/index.m3u8", "/m/seg2.ts", "/m/index.m3u8"}));
    EXPECT_EQ(site_.log().size(), (size_t)site_.hits("/m/index.m3u8") + 3);
    EXPECT_EQ(payloads_of(2), (std::vector<std::string>{"s0v0", "s0a0", "s0v1", "s0a1", "s1v0", "s1a0", "s1v1",
                                                         "s1a1", "s2v0", "s2a0", "s2v1", "s2a1"}));
    EXPECT_EQ(statuses_of(2), std::vector<int32_t>{HLS_STREAM_STARTED});

    // Frames reach the host on the delivery thread, never on the thread that
    // feeds the demultiplexer.
    std::thread::id feeder, deliverer;
    for (const HostEvent &e : test_host::events()) {
        if (e.kind == HostEvent::Put)
            feeder = e.thread;
        if (e.kind == HostEvent::Frame)
            deliverer = e.thread;
    }
    EXPECT_EQ(test_host::count([&](const HostEvent &e) { return e.kind == HostEvent::Frame && e.thread != deliverer; }),
              0u);
    EXPECT_NE(feeder, deliverer);
    EXPECT_NE(deliverer, std::this_thread::get_id());

    disconnect(2);
    EXPECT_EQ(statuses_of(2), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
    EXPECT_FALSE(thread_named("hls_ctrl[2]"));
}

TEST_F(HlsPlayback, MasterPlaylistChoosesVariantOnceAndJoinsItsUri)
{
    const std::string variants = master({{800000, "low/index.m3u8"}, {2000000, "hi/index.m3u8"}, {1200000, "mid.m3u8"}});
    struct Channel {
        int channel, low_bandwidth;
        std::string host, master_text, media_target, tag;
        uint64_t bandwidth;
    } channels[] = {
        {0, 0, "/a/index.m3u8", variants, "/a/hi/index.m3u8", "hi", 2000000},
        {1, 1, "/b/index.m3u8", variants, "/b/low/index.m3u8", "low", 800000},
        // An absolute variant URI is fetched as it stands.
        {2, 0, "/c/index.m3u8", master({{500000, site_.url("/abs/v.m3u8")}}), "/abs/v.m3u8", "abs", 500000},
        // The join replaces what follows the last "/", even inside the query.
        {3, 0, "/q/index.m3u8?k=a/b", master({{700000, "v.m3u8"}}), "/q/index.m3u8?k=a/v.m3u8", "q", 700000},
    };
    for (const Channel &c : channels) {
        site_.playlist(c.host, c.master_text);
        site_.playlist(c.media_target, media({{"s.ts", "1.0"}}));
        std::string dir = c.media_target.substr(0, c.media_target.rfind('/') + 1);
        site_.on(dir + "s.ts", segment(c.tag, 1));
        connect(c.channel, site_.url(c.host), c.low_bandwidth);
    }
    for (const Channel &c : channels) {
        SCOPED_TRACE(c.host);
        // Reloads go to the variant only: the first playlist is fetched by
        // the probe and the first load, never again.
        ASSERT_TRUE(wait([&] { return site_.hits(c.media_target) >= 3 && test_host::frame_count(c.channel) == 1; }));
        EXPECT_EQ(site_.hits(c.host), 2);
        EXPECT_EQ(payloads_of(c.channel), std::vector<std::string>{c.tag + "v0"});
        EXPECT_EQ(statuses_of(c.channel), std::vector<int32_t>{HLS_STREAM_STARTED});
        // Each load of the variant sets the cap to its declared bandwidth,
        // whether or not the text changed.
        std::vector<uint64_t> caps = caps_of(c.channel);
        ASSERT_GE(caps.size(), 2u);
        EXPECT_EQ(std::count(caps.begin(), caps.end(), c.bandwidth), (long)caps.size());
    }
    EXPECT_EQ(site_.hits("/a/low/index.m3u8") + site_.hits("/b/hi/index.m3u8") + site_.hits("/a/mid.m3u8"), 0);
    for (const Channel &c : channels)
        disconnect(c.channel);
    for (const Channel &c : channels)
        EXPECT_EQ(statuses_of(c.channel), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
}

TEST_F(HlsPlayback, FailedSegmentIsSkippedAndCapComesFromTheFirstGoodOne)
{
    // seg0 is missing: the loop goes straight on to seg1, with no reload
    // check in between although only seg1 is then pending, and measures seg1.
    std::string seg1 = segment("g", 2, 0, 25, 0, 3000);
    site_.on("/s/index.m3u8", [](int hit) {
        return Reply{200, hit <= 2 ? media({{"seg0.ts", "2.0"}, {"seg1.ts", "2.0"}})
                                   : media({{"seg1.ts", "2.0"}, {"seg2.ts", "0.3"}, {"seg3.ts", "5.0"}}, 1),
                     hit > 4 ? 15 : 0};
    });
    site_.on("/s/seg1.ts", seg1);
    // seg2 arrives after its 300 ms slot: late, the cap rises by a quarter.
    site_.on("/s/seg2.ts", [](int) { return Reply{200, segment("l", 1), 450}; });
    site_.on("/s/seg3.ts", segment("e", 1));
    connect(4, site_.url("/s/index.m3u8"));

    ASSERT_TRUE(wait([&] { return site_.hits("/s/seg3.ts") == 1 && test_host::frame_count(4) == 4; }));
    std::vector<std::string> order = site_.order("/s/");
    order.resize(8);
    EXPECT_EQ(order, (std::vector<std::string>{"/s/index.m3u8", "/s/index.m3u8", "/s/seg0.ts", "/s/seg1.ts",
                                               "/s/index.m3u8", "/s/seg2.ts", "/s/index.m3u8", "/s/seg3.ts"}));
    EXPECT_EQ(payloads_of(4), (std::vector<std::string>{"gv0", "gv1", "lv0", "ev0"}));
    // A media playlist as first playlist never sets a cap on load: the first
    // is 1.5 x seg1's bit rate (bytes x 8 x 1.5 / 2 s), the second 5/4 of it,
    // and the on-time seg3 leaves it alone.
    uint64_t first = (uint64_t)seg1.size() * 6;
    EXPECT_EQ(caps_of(4), (std::vector<uint64_t>{first, first * 5 / 4}));
    disconnect(4);
    EXPECT_EQ(statuses_of(4), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
}

std::atomic<uint32_t> g_fake_ms{0};
uint32_t one_second_per_read() { return g_fake_ms.fetch_add(1000); }

TEST_F(HlsPlayback, LateSegmentRaisesVariantCapUntilTheNextLoad)
{
    // The loop's clock advances one second at every reading, so a 0.2 s
    // segment is always late and a 5 s one never.
    hls_monotonic_ms_fn = one_second_per_read;
    site_.playlist("/v/index.m3u8", master({{1000000, "v.m3u8"}}));
    site_.on("/v/v.m3u8", [](int hit) {
        return Reply{200, hit == 1 ? media({{"a.ts", "0.2"}, {"b.ts", "5.0"}}) : media({{"b.ts", "5.0"}, {"c.ts", "0.2"}}, 1),
                     hit > 2 ? 15 : 0};
    });
    for (const char *name : {"a", "b", "c"})
        site_.on(std::string("/v/") + name + ".ts", segment(name, 1));
    connect(5, site_.url("/v/index.m3u8"));
    ASSERT_TRUE(wait([&] { return site_.hits("/v/v.m3u8") >= 5 && test_host::frame_count(5) == 3; }));
    disconnect(5);
    // Load; late a.ts; reloads after a.ts and b.ts (one segment left each
    // time) reset to the declared figure, text changed or not; late c.ts;
    // then reloads of the unchanged variant, each resetting again.
    std::vector<uint64_t> caps = caps_of(5);
    ASSERT_GE(caps.size(), 6u);
    EXPECT_EQ(std::vector<uint64_t>(caps.begin(), caps.begin() + 5),
              (std::vector<uint64_t>{1000000, 1250000, 1000000, 1000000, 1250000}));
    EXPECT_EQ(std::count(caps.begin() + 5, caps.end(), 1000000u), (long)caps.size() - 5);
}

TEST_F(HlsPlayback, PlaylistFailuresWaitFiveSecondsAndDisconnectCutsTheWait)
{
    StderrCapture capture;
    // 0: the first playlist fails once after the probe.
    site_.on("/r0/index.m3u8", [](int hit) {
        return hit == 2 ? Reply{503, "busy", 0} : Reply{200, media({{"s.ts", "1.0"}}), hit > 3 ? 15 : 0};
    });
    site_.on("/r0/s.ts", segment("r", 1));
    // 1: the variant fails once; the retry starts again from the first playlist.
    const std::string first = master({{300000, "v.m3u8"}});
    site_.playlist("/r1/index.m3u8", first);
    site_.on("/r1/v.m3u8", [](int hit) {
        return hit == 1 ? Reply{404, "no", 0} : Reply{200, media({{"s.ts", "1.0"}}), hit > 2 ? 15 : 0};
    });
    site_.on("/r1/s.ts", segment("r", 1));
    // 2: after the wait the first playlist has become unusable: the message
    // shows the master text accepted before, and the host hears nothing.
    site_.on("/r2/index.m3u8", [first](int hit) { return Reply{200, hit <= 2 ? first : kIncomplete, 0}; });
    // 3: the first playlist always fails; the channel is closed in the wait.
    site_.on("/r3/index.m3u8", [](int hit) { return hit == 1 ? Reply{200, kIncomplete, 0} : Reply{500, "down", 0}; });
    for (int ch = 0; ch < 4; ch++)
        connect(ch, site_.url("/r" + std::to_string(ch) + "/index.m3u8"));

    ASSERT_TRUE(wait([&] { return site_.hits("/r3/index.m3u8") == 2; }));
    std::this_thread::sleep_for(milliseconds(300)); // well inside the wait
    EXPECT_LT(disconnect(3), 0.2);
    EXPECT_EQ(site_.hits("/r3/index.m3u8"), 2);

    ASSERT_TRUE(wait([&] {
        return test_host::frame_count(0) == 1 && test_host::frame_count(1) == 1 &&
               capture.contains("First playlist: Incomplete M3U8 data[" + first + "].") &&
               capture.contains("frame_queue_get(2) failed!");
    }));
    double wait0 = seconds_between(site_.nth_hit("/r0/index.m3u8", 2), site_.nth_hit("/r0/index.m3u8", 3));
    double wait1 = seconds_between(site_.nth_hit("/r1/v.m3u8", 1), site_.nth_hit("/r1/index.m3u8", 3));
    EXPECT_GE(wait0, 4.95);
    EXPECT_LT(wait0, 6.5);
    EXPECT_GE(wait1, 4.95);
    EXPECT_LT(wait1, 6.5);
    std::vector<std::string> order = site_.order("/r1/");
    order.resize(5);
    EXPECT_EQ(order, (std::vector<std::string>{"/r1/index.m3u8", "/r1/index.m3u8", "/r1/v.m3u8", "/r1/index.m3u8",
                                        "/r1/v.m3u8"}));
    EXPECT_EQ(statuses_of(0), std::vector<int32_t>{HLS_STREAM_STARTED});
    EXPECT_EQ(statuses_of(1), std::vector<int32_t>{HLS_STREAM_STARTED});
    for (int ch = 0; ch < 3; ch++)
        disconnect(ch);
    EXPECT_TRUE(statuses_of(2).empty());
    EXPECT_TRUE(statuses_of(3).empty());
    EXPECT_EQ(statuses_of(0), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
}

TEST_F(HlsPlayback, IncompletePlaylistEndsTheLoopAndReportsOnlyAStartedStream)
{
    StderrCapture capture;
    const std::string variant = media({{"s.ts", "1.0"}});
    // 0: first playlist unusable from the start.
    site_.on("/i0/index.m3u8", kIncomplete);
    // 1: master fine, variant unusable from the start.
    site_.on("/i1/index.m3u8", master({{100, "v.m3u8"}}));
    site_.on("/i1/v.m3u8", kIncomplete);
    // 2: a media first playlist that turns unusable on its first reload.
    site_.on("/i2/index.m3u8", [variant](int hit) { return Reply{200, hit <= 2 ? variant : kIncomplete, 0}; });
    // 3: a variant that turns unusable on its first reload.
    site_.on("/i3/index.m3u8", master({{100, "v.m3u8"}}));
    site_.on("/i3/v.m3u8", [variant](int hit) { return Reply{200, hit == 1 ? variant : kIncomplete, 0}; });
    for (int ch : {2, 3})
        site_.on("/i" + std::to_string(ch) + "/s.ts", segment("i", 1));
    for (int ch = 0; ch < 4; ch++)
        connect(ch, site_.url("/i" + std::to_string(ch) + "/index.m3u8"));

    // Each delivery thread reports the halted queue once before it is joined;
    // the started streams then report their stop.
    ASSERT_TRUE(wait([&] {
        for (int ch = 0; ch < 4; ch++)
            if (!capture.contains("frame_queue_get(" + std::to_string(ch) + ") failed!"))
                return false;
        return statuses_of(2).size() == 2 && statuses_of(3).size() == 2;
    }));
    // A media text never lands in the master slot, so channel 2 has no text to
    // show either. (Prefix and message are separate writes that concurrent
    // channels may interleave, so they are counted apart.)
    EXPECT_EQ(capture.count("First playlist: Incomplete M3U8 data[(null)].\n"), 2u);
    EXPECT_EQ(capture.count("Second playlist: Incomplete M3U8 data[(null)].\n"), 1u);
    EXPECT_EQ(capture.count("Second playlist: Incomplete M3U8 data[" + variant + "].\n"), 1u);
    EXPECT_EQ(capture.count(", parse_master_m3u8>: "), 2u);
    EXPECT_EQ(capture.count(", parse_sub_m3u8>: "), 2u);
    EXPECT_TRUE(statuses_of(0).empty());
    EXPECT_TRUE(statuses_of(1).empty());
    for (int ch : {2, 3}) {
        EXPECT_EQ(statuses_of(ch), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
        EXPECT_EQ(payloads_of(ch), std::vector<std::string>{"iv0"});
    }
    // The stream ended by itself: closing the channel reports nothing more.
    for (int ch = 0; ch < 4; ch++)
        EXPECT_LT(disconnect(ch), 0.2);
    EXPECT_EQ(test_host::count([](const HostEvent &e) { return e.kind == HostEvent::Status; }), 4u);
}

TEST_F(HlsPlayback, VideoPacedAtFrameRateAudioUnpacedAndDownloadsHeldWhileQueueIsFull)
{
    // 60 video frames at 25 fps, each followed by one audio frame, in a 10 s
    // segment that arrives at once.
    site_.playlist("/p/index.m3u8", media({{"seg0.ts", "10.0"}, {"seg1.ts", "10.0"}, {"seg2.ts", "10.0"}}));
    site_.on("/p/seg0.ts", segment("a", 60, 1, 25));
    site_.on("/p/seg1.ts", segment("b", 1, 0, 25));
    site_.on("/p/seg2.ts", segment("c", 1, 0, 25));
    connect(6, site_.url("/p/index.m3u8"));
    ASSERT_TRUE(wait([&] { return site_.hits("/p/seg1.ts") == 1 && test_host::frame_count(6) >= 90; }));

    std::vector<HostEvent> frames = frames_of(6);
    std::vector<Clock::time_point> video;
    std::vector<double> after_video, after_audio; // gap to the next frame
    for (size_t i = 0; i + 1 < frames.size() && i < 80; i++) {
        double gap = seconds_between(frames[i].at, frames[i + 1].at);
        (test_host::is_video(frames[i].info) ? after_video : after_audio).push_back(gap);
        if (test_host::is_video(frames[i].info))
            video.push_back(frames[i].at);
    }
    // With 30 or more video frames queued the pace is the stream's own:
    // 25 frames take one second.
    ASSERT_GE(video.size(), 26u);
    double span = seconds_between(video[0], video[25]);
    EXPECT_GT(span, 0.85);
    EXPECT_LT(span, 1.4);
    std::sort(after_video.begin(), after_video.end());
    std::sort(after_audio.begin(), after_audio.end());
    EXPECT_GT(after_video[after_video.size() / 2], 0.025);
    EXPECT_LT(after_audio[after_audio.size() / 2], 0.005);

    // seg1 was held back until fewer than 30 video frames were queued, that
    // is until about 31 of the 60 had been delivered.
    Clock::time_point seg1_at = site_.nth_hit("/p/seg1.ts", 1);
    size_t delivered = 0;
    for (const HostEvent &e : frames)
        delivered += (e.at < seg1_at && test_host::is_video(e.info)) ? 1 : 0;
    EXPECT_GE(delivered, 30u);
    EXPECT_LE(delivered, 36u);
    EXPECT_GT(seconds_between(site_.nth_hit("/p/seg0.ts", 1), seg1_at), 1.0);
    EXPECT_LT(disconnect(6), 0.3);
}

TEST_F(HlsPlayback, DisconnectAtAnyStageEndsBothThreadsAndReportsOnce)
{
    // 0: in the middle of the first playlist's transfer. The transfer runs to
    // its end and the playlist is loaded, so the segment loop is entered and
    // reports the start before it sees the channel closed.
    site_.on("/d0/index.m3u8", [](int hit) { return Reply{200, media({{"s.ts", "1.0"}}), hit == 2 ? 800 : 0}; });
    // 4: the same, but the transfer fails: the retry wait ends at once and
    // the host hears nothing.
    site_.on("/d4/index.m3u8", [](int hit) { return Reply{hit == 2 ? 503 : 200, media({{"s.ts", "1.0"}}), hit == 2 ? 800 : 0}; });
    // 1: in the middle of a segment's transfer.
    site_.playlist("/d1/index.m3u8", media({{"s.ts", "10.0"}}));
    site_.on("/d1/s.ts", [](int) { return Reply{200, segment("d", 1), 800}; });
    // 2: while the loop throttles (200 video frames queued, a 20 s slot).
    site_.playlist("/d2/index.m3u8", media({{"s.ts", "20.0"}, {"t.ts", "20.0"}}));
    site_.on("/d2/s.ts", segment("d", 200, 0, 25));
    // 3: while the delivery thread waits out a one-second frame period.
    site_.playlist("/d3/index.m3u8", media({{"s.ts", "1.0"}}));
    site_.on("/d3/s.ts", segment("d", 5, 0, 0, 500));
    for (int ch = 0; ch < 5; ch++)
        connect(ch, site_.url("/d" + std::to_string(ch) + "/index.m3u8"));

    ASSERT_TRUE(wait([&] {
        return site_.hits("/d0/index.m3u8") == 2 && site_.hits("/d4/index.m3u8") == 2 && site_.hits("/d1/s.ts") == 1 && test_host::frame_count(2) >= 10 &&
               test_host::frame_count(3) >= 1;
    }));
    struct Expect {
        int channel;
        double max_seconds;
        bool started;
    } expects[] = {{0, 1.5, true}, {4, 1.5, false}, {1, 1.5, true}, {2, 0.3, true}, {3, 1.3, true}};
    for (const Expect &e : expects) {
        SCOPED_TRACE(e.channel);
        EXPECT_LT(disconnect(e.channel), e.max_seconds);
        std::vector<int32_t> expected;
        if (e.started)
            expected = {HLS_STREAM_STARTED, HLS_STREAM_STOPPED};
        EXPECT_EQ(statuses_of(e.channel), expected);
    }
    EXPECT_EQ(site_.hits("/d2/t.ts"), 0);
    // Nothing reaches the host once the channels are closed.
    size_t events = test_host::events().size();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(test_host::events().size(), events);
}

TEST_F(HlsPlayback, HolderPartFailureEndsTheChannelQuietly)
{
    test_host::fail_ts_new = true;
    site_.on("/h/index.m3u8", media({{"s.ts", "1.0"}}));
    connect(7, site_.url("/h/index.m3u8"));
    ASSERT_TRUE(wait([&] { return site_.hits("/h/index.m3u8") == 1; }));
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(site_.hits("/h/index.m3u8"), 1);
    EXPECT_TRUE(test_host::events().empty());
    hls_connect_param p;
    memset(&p, 0, sizeof(p));
    snprintf(p.url, sizeof(p.url), "%s", site_.url("/h/index.m3u8").c_str());
    p.connect_timeout = 5;
    EXPECT_EQ(hls_client_connect(7, &p), -5); // the slot stays taken until closed
    EXPECT_LT(disconnect(7), 0.2);
    EXPECT_TRUE(test_host::events().empty());
}
