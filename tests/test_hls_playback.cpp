// The HLS path end to end on a local server: first playlist and variant
// choice, segment order and skipping, reloads, retry waits, incomplete
// playlists, frame pacing, the download throttle, the receive cap and
// disconnects at every stage. Several scenarios share one test as separate
// channels so that the real 5-second waits run side by side.
#include <sys/prctl.h>

#include "channel_stream.h"
#include "hls_demux.h"
#include "ts_downloader.h"

using namespace ::testing;

namespace {

// Every cap the playback loop gives the segment downloader, with the channel
// taken from the calling download thread's name ("httpdown[N]").
std::mutex g_cap_lock;
std::map<int, std::vector<uint64_t>> g_caps;

std::vector<uint64_t> caps_of(int channel)
{
    std::lock_guard<std::mutex> guard(g_cap_lock);
    return g_caps[channel];
}

// Installed as the loop's cap setter for every test of this file.
void record_cap(ts_downloader *handle, uint64_t bps)
{
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    int channel = -1;
    if (sscanf(name, "httpdown[%d]", &channel) == 1) {
        std::lock_guard<std::mutex> guard(g_cap_lock);
        g_caps[channel].push_back(bps);
    }
    ts_downloader_set_bandwidth_bps(handle, bps);
}

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
std::string segment(const std::string &tag, int video, int audio = 0, uint8_t rate = 25, uint16_t frac = 0, size_t pad = 0)
{
    std::string out;
    for (int i = 0; i < video; i++) {
        out += test_host::make_frame(HLS_FRAME_TYPE_VIDEO_KEY, tag + "v" + std::to_string(i) + std::string(pad, '.'), i, rate, frac);
        for (int j = 0; j < audio; j++)
            out += test_host::make_frame(0x0a000000, tag + "a" + std::to_string(i) + "." + std::to_string(j));
    }
    return out;
}

const std::string kIncomplete = "#EXTM3U\n";
const char *const kType = "application/vnd.apple.mpegurl";

std::vector<std::string> payloads_of(int channel)
{
    std::vector<std::string> out;
    for (const HostEvent &e : test_host::events(HostEvent::Frame, channel))
        out.push_back(e.data.substr(0, e.data.find('.')));
    return out;
}

bool wait(const std::function<bool()> &pred) { return test_host::wait_for(pred, 10s); }

// Waits for `done`; in torture mode also for `progressed` (the same point
// without the frame count, as a refused frame is lost) or for the channel's
// download thread to have ended on its own.
bool settled(int ch, const std::function<bool()> &done, const std::function<bool()> &progressed)
{
    const std::string thread = "httpdown[" + std::to_string(ch) + "]";
    return wait([&] { return done() || (torture_mode() && (progressed() || !thread_named(thread))); });
}

// Torture mode: whatever allocation the channel lost, it delivered some of
// the frames of an undisturbed run in their order, never one twice; once
// disconnected it has reported a start and a stop or nothing at all, and
// before that (`before_close`) no more than the beginning of that.
void expect_tortured_channel_holds(int ch, const std::vector<std::string> &frames, const std::vector<int32_t> &before_close)
{
    auto next = frames.begin();
    for (const std::string &payload : payloads_of(ch)) {
        next = std::find(next, frames.end(), payload);
        ASSERT_NE(next, frames.end()) << payload << " out of order or repeated";
        ++next;
    }
    const std::vector<int32_t> after = statuses_of(ch);
    EXPECT_TRUE(after.empty() || after == kStartedStopped);
    EXPECT_TRUE(before_close.size() <= after.size() && std::equal(before_close.begin(), before_close.end(), after.begin()));
}

class HlsPlayback : public ClientTest {
protected:
    void SetUp() override
    {
        std::lock_guard<std::mutex> guard(g_cap_lock);
        g_caps.clear();
        hls_set_cap_fn = record_cap;
        ClientTest::SetUp();
    }
    void TearDown() override
    {
        ClientTest::TearDown();
        hls_monotonic_ms_fn = hls_monotonic_ms;
        hls_set_cap_fn = ts_downloader_set_bandwidth_bps;
    }
    Site site_;
};

TEST_F(HlsPlayback, MasterPlaylistChoosesVariantOnceAndJoinsItsUri)
{
    const std::string variants = master({{800000, "low/index.m3u8"}, {2000000, "hi/index.m3u8"}, {1200000, "mid.m3u8"}});
    const std::string tags[] = {"hi", "low"}; // chosen with low_bandwidth 0 and 1
    const uint64_t bandwidths[] = {2000000, 800000};
    for (int ch : {0, 1}) {
        site_.playlist("/" + tags[ch] + "/index.m3u8", variants);
        site_.playlist("/" + tags[ch] + "/" + tags[ch] + "/index.m3u8", media({{"s.ts", "1.0"}}));
        site_.on("/" + tags[ch] + "/" + tags[ch] + "/s.ts", segment(tags[ch], 1));
        connect_to(ch, site_.url("/" + tags[ch] + "/index.m3u8"), ch);
    }
    for (int ch : {0, 1}) {
        const std::string dir = "/" + tags[ch] + "/", variant = dir + tags[ch] + "/index.m3u8";
        // Reloads go to the chosen variant only: the first playlist is
        // fetched by the probe and the first load, never again.
        ASSERT_TRUE(settled(
            ch, [&] { return site_.hits(variant) >= 3 && test_host::frame_count(ch) == 1; },
            [&] { return site_.hits(variant) >= 3; }));
        const std::vector<int32_t> before_close = statuses_of(ch);
        timed_disconnect(ch);
        // Nothing of this channel allocates any more: the failure, if any, is known.
        if (torture_mode()) {
            expect_tortured_channel_holds(ch, {tags[ch] + "v0"}, before_close);
            continue;
        }
        EXPECT_THAT(site_.order(dir), Contains(Ne(variant)).Times(3));
        EXPECT_EQ(site_.hits(dir + "index.m3u8"), 2u);
        EXPECT_EQ(payloads_of(ch), std::vector<std::string>{tags[ch] + "v0"});
        // Each load of the variant sets the cap to its declared bandwidth,
        // whether or not the text changed.
        EXPECT_THAT(caps_of(ch), AllOf(SizeIs(Ge(2u)), Each(bandwidths[ch])));
        EXPECT_EQ(before_close, kStarted);
        EXPECT_EQ(statuses_of(ch), kStartedStopped);
    }
}

TEST_F(HlsPlayback, MediaPlaylistFirstPlaysInOrderSkipsFailedSegmentAndReloadsHostUrl)
{
    // seg0 is missing: the loop goes straight on to seg1, with no reload
    // check in between although only seg1 is then pending, and measures seg1.
    std::string seg1 = segment("g", 2, 1, 25, 0, 3000);
    site_.on("/s/index.m3u8", [](int hit) {
        return Reply{hit <= 2 ? media({{"seg0.ts", "2.0"}, {"seg1.ts", "2.0"}})
                              : media({{"seg1.ts", "2.0"}, {"seg2.ts", "0.3"}, {"seg3.ts", "5.0"}, {"seg4.ts", "5.0"}}, 1),
                     kType, 200, hit > 4 ? 15 : 0};
    });
    site_.on("/s/seg1.ts", seg1);
    // seg2 arrives after its 300 ms slot: late, the cap rises by a quarter.
    site_.on("/s/seg2.ts", Reply{segment("l", 1), kType, 200, 450});
    site_.on("/s/seg3.ts", segment("e", 1));
    site_.on("/s/seg4.ts", segment("f", 1));
    connect_to(4, site_.url("/s/index.m3u8"));

    const std::vector<std::string> payloads{"gv0", "ga0", "gv1", "ga1", "lv0", "ev0", "fv0"};
    ASSERT_TRUE(settled(
        4, [&] { return test_host::frame_count(4) == 7 && site_.hits("/s/index.m3u8") >= 5; },
        [&] { return site_.hits("/s/index.m3u8") >= 5; }));
    const bool delivering = thread_named("hls_ctrl[4]");
    const std::vector<int32_t> before_close = statuses_of(4);
    timed_disconnect(4);
    EXPECT_TRUE(thread_gone("hls_ctrl[4]"));
    // Nothing of this channel allocates any more: the failure, if any, is known.
    if (torture_mode())
        return expect_tortured_channel_holds(4, payloads, before_close);
    EXPECT_TRUE(delivering);
    // Probe and first load; a reload once nothing is pending, none while two
    // are, another once one is left, then reloads of the host's URL; never a variant.
    EXPECT_EQ(site_.order("/s/", 10), (std::vector<std::string>{"/s/index.m3u8", "/s/index.m3u8", "/s/seg0.ts", "/s/seg1.ts",
                                                                "/s/index.m3u8", "/s/seg2.ts", "/s/seg3.ts", "/s/index.m3u8",
                                                                "/s/seg4.ts", "/s/index.m3u8"}));
    EXPECT_THAT(site_.order("/"), Contains(Ne("/s/index.m3u8")).Times(5));
    EXPECT_EQ(payloads_of(4), payloads);
    EXPECT_EQ(before_close, kStarted);
    // A media playlist as first playlist never sets a cap on load: the first
    // is 1.5 x seg1's bit rate (bytes x 8 x 1.5 / 2 s), the second 5/4 of it,
    // and the on-time seg3 and seg4 leave it alone.
    uint64_t first = (uint64_t)seg1.size() * 6;
    EXPECT_EQ(caps_of(4), (std::vector<uint64_t>{first, first * 5 / 4}));
    // Frames reach the host on one delivery thread, never on the thread that
    // feeds the demultiplexer.
    auto frames = test_host::events(HostEvent::Frame);
    auto puts = test_host::events(HostEvent::Put);
    EXPECT_THAT(frames, Each(Field(&HostEvent::thread, frames.front().thread)));
    EXPECT_NE(puts.front().thread, frames.front().thread);
    EXPECT_NE(frames.front().thread, std::this_thread::get_id());
    EXPECT_EQ(statuses_of(4), kStartedStopped);
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
        return Reply{hit == 1 ? media({{"a.ts", "0.2"}, {"b.ts", "5.0"}}) : media({{"b.ts", "5.0"}, {"c.ts", "0.2"}}, 1), kType,
                     200, hit > 2 ? 15 : 0};
    });
    for (const char *name : {"a", "b", "c"})
        site_.on(std::string("/v/") + name + ".ts", segment(name, 1));
    connect_to(5, site_.url("/v/index.m3u8"));
    ASSERT_TRUE(wait([&] { return site_.hits("/v/v.m3u8") >= 5 && test_host::frame_count(5) == 3; }));
    timed_disconnect(5);
    // Load; late a.ts; reloads after a.ts and b.ts (one segment left each
    // time) reset to the declared figure, text changed or not; late c.ts;
    // then reloads of the unchanged variant, each resetting again.
    std::vector<uint64_t> caps = caps_of(5), want{1000000, 1250000, 1000000, 1000000, 1250000};
    want.resize(std::max<size_t>(caps.size(), 6), 1000000); // at least one reload after c.ts
    EXPECT_EQ(caps, want);
}

TEST_F(HlsPlayback, FailedDownloadsWaitFiveSecondsAndUnusablePlaylistsEndTheLoop)
{
    StderrCapture capture;
    const std::string first = master({{300000, "v.m3u8"}}), variant = media({{"s.ts", "1.0"}});
    // 0: the first playlist fails once after the probe.
    site_.on("/0/index.m3u8", [variant](int hit) { return Reply{variant, kType, hit == 2 ? 503 : 200, hit > 3 ? 15 : 0}; });
    // 1: the variant fails once; the retry starts again from the first playlist.
    site_.playlist("/1/index.m3u8", first);
    site_.on("/1/v.m3u8", [variant](int hit) { return Reply{variant, kType, hit == 1 ? 404 : 200, hit > 2 ? 15 : 0}; });
    // 2: after the wait the first playlist has become unusable: the message
    // shows the master text accepted before, and the host hears nothing.
    site_.on("/2/index.m3u8", [first](int hit) { return Reply{hit <= 2 ? first : kIncomplete}; });
    // 3: the first playlist always fails; the channel is closed in the wait.
    site_.on("/3/index.m3u8", [](int hit) { return Reply{kIncomplete, kType, hit == 1 ? 200 : 500}; });
    // 4: first playlist unusable from the start; 5: its variant.
    site_.on("/4/index.m3u8", kIncomplete);
    site_.on("/5/index.m3u8", first);
    site_.on("/5/v.m3u8", kIncomplete);
    // 6: a media first playlist that turns unusable on its first reload; 7: a variant.
    site_.on("/6/index.m3u8", [variant](int hit) { return Reply{hit <= 2 ? variant : kIncomplete}; });
    site_.on("/7/index.m3u8", first);
    site_.on("/7/v.m3u8", [variant](int hit) { return Reply{hit == 1 ? variant : kIncomplete}; });
    for (int ch = 0; ch < 8; ch++) {
        site_.on("/" + std::to_string(ch) + "/s.ts", segment("s", 1));
        connect_to(ch, site_.url("/" + std::to_string(ch) + "/index.m3u8"));
    }

    ASSERT_TRUE(wait([&] { return site_.hits("/3/index.m3u8") == 2; }));
    std::this_thread::sleep_for(300ms); // well inside the wait
    EXPECT_LT(timed_disconnect(3), 0.2);
    EXPECT_EQ(site_.hits("/3/index.m3u8"), 2u);
    // Each ending loop halts its queue, whose delivery thread reports it
    // before it is joined; the started streams then report their stop.
    ASSERT_TRUE(wait([&] {
        for (int ch : {2, 4, 5, 6, 7})
            if (!capture.contains("frame_queue_get(" + std::to_string(ch) + ") failed!"))
                return false;
        return test_host::frame_count(0) == 1 && test_host::frame_count(1) == 1 && statuses_of(6).size() == 2 &&
               statuses_of(7).size() == 2;
    }));
    for (double waited : {seconds_between(site_.nth_hit("/0/index.m3u8", 2), site_.nth_hit("/0/index.m3u8", 3)),
                          seconds_between(site_.nth_hit("/1/v.m3u8", 1), site_.nth_hit("/1/index.m3u8", 3))})
        EXPECT_THAT(waited, AllOf(Ge(4.95), Lt(6.5)));
    EXPECT_EQ(site_.order("/1/", 5), (std::vector<std::string>{"/1/index.m3u8", "/1/index.m3u8", "/1/v.m3u8", "/1/index.m3u8", "/1/v.m3u8"}));
    // A media text never lands in the master slot, so channel 6 has no text to
    // show either. (Prefix and message are separate writes that concurrent
    // channels may interleave, so they are counted apart.)
    EXPECT_EQ(capture.count("First playlist: Incomplete M3U8 data[" + first + "].\n"), 1u);
    EXPECT_EQ(capture.count("First playlist: Incomplete M3U8 data[(null)].\n"), 2u);
    EXPECT_EQ(capture.count("Second playlist: Incomplete M3U8 data[(null)].\n"), 1u);
    EXPECT_EQ(capture.count("Second playlist: Incomplete M3U8 data[" + variant + "].\n"), 1u);
    EXPECT_EQ(capture.count(", parse_master_m3u8>: "), 3u);
    EXPECT_EQ(capture.count(", parse_sub_m3u8>: "), 2u);
    for (int ch : {0, 1, 6, 7})
        EXPECT_EQ(payloads_of(ch), std::vector<std::string>{"sv0"}) << ch;
    EXPECT_EQ(statuses_of(0), kStarted);
    EXPECT_EQ(statuses_of(1), kStarted);
    // Streams that ended by themselves report nothing more when closed.
    for (int ch : {2, 4, 5, 6, 7})
        EXPECT_LT(timed_disconnect(ch), 0.2) << ch;
    timed_disconnect(0);
    timed_disconnect(1);
    for (int ch = 0; ch < 8; ch++)
        EXPECT_EQ(statuses_of(ch), ch < 2 || ch > 5 ? kStartedStopped : std::vector<int32_t>{}) << ch;
}

TEST_F(HlsPlayback, VideoPacedAtFrameRateAudioUnpacedAndDownloadsHeldWhileQueueIsFull)
{
    // 60 video frames at 25 fps, each followed by one audio frame, in a 10 s
    // segment that arrives at once.
    site_.playlist("/p/index.m3u8", media({{"seg0.ts", "10.0"}, {"seg1.ts", "10.0"}, {"seg2.ts", "10.0"}}));
    site_.on("/p/seg0.ts", segment("a", 60, 1, 25));
    site_.on("/p/seg1.ts", segment("b", 1, 0, 25));
    site_.on("/p/seg2.ts", segment("c", 1, 0, 25));
    connect_to(6, site_.url("/p/index.m3u8"));
    ASSERT_TRUE(wait([&] { return site_.hits("/p/seg1.ts") == 1 && test_host::frame_count(6) >= 90; }));

    auto frames = test_host::events(HostEvent::Frame);
    // With 30 or more video frames queued the pace is the stream's own: 25
    // frames take one second. No wait ever follows an audio frame.
    std::vector<Clock::time_point> video;
    std::vector<double> after_audio; // gap to the next frame
    for (size_t i = 0; i + 1 < frames.size() && i < 80; i++)
        if (test_host::is_video(frames[i].info))
            video.push_back(frames[i].at);
        else
            after_audio.push_back(seconds_between(frames[i].at, frames[i + 1].at));
    ASSERT_GE(video.size(), 26u);
    EXPECT_THAT(seconds_between(video[0], video[25]), AllOf(Gt(0.85), Lt(1.4)));
    std::sort(after_audio.begin(), after_audio.end());
    EXPECT_LT(after_audio[after_audio.size() / 2], 0.005);

    // seg1 was held back until fewer than 30 video frames were queued, that
    // is until about 31 of the 60 had been delivered.
    Clock::time_point seg1_at = site_.nth_hit("/p/seg1.ts", 1);
    auto delivered = std::count_if(frames.begin(), frames.end(), [&](const HostEvent &e) { return e.at < seg1_at && test_host::is_video(e.info); });
    EXPECT_THAT(delivered, AllOf(Ge(30), Le(36)));
    EXPECT_GT(seconds_between(site_.nth_hit("/p/seg0.ts", 1), seg1_at), 1.0);
    EXPECT_LT(timed_disconnect(6), 0.3);
}

TEST_F(HlsPlayback, DisconnectAtAnyStageEndsBothThreadsAndReportsOnce)
{
    // 0: in the middle of the first playlist's transfer. The transfer runs to
    // its end and the playlist is loaded, so the segment loop is entered and
    // reports the start before it sees the channel closed.
    site_.on("/d0/index.m3u8", [](int hit) { return Reply{media({{"s.ts", "1.0"}}), kType, 200, hit == 2 ? 800 : 0}; });
    // 1: the same, but the transfer fails: the retry wait ends at once and
    // the host hears nothing.
    site_.on("/d1/index.m3u8", [](int hit) { return Reply{media({{"s.ts", "1.0"}}), kType, hit == 2 ? 503 : 200, hit == 2 ? 800 : 0}; });
    // 2: in the middle of a segment's transfer.
    site_.playlist("/d2/index.m3u8", media({{"s.ts", "10.0"}}));
    site_.on("/d2/s.ts", Reply{segment("d", 1), kType, 200, 800});
    // 3: while the loop throttles (200 video frames queued, a 20 s slot).
    site_.playlist("/d3/index.m3u8", media({{"s.ts", "20.0"}, {"t.ts", "20.0"}}));
    site_.on("/d3/s.ts", segment("d", 200, 0, 25));
    // 4: while the delivery thread waits out a one-second frame period.
    site_.playlist("/d4/index.m3u8", media({{"s.ts", "1.0"}}));
    site_.on("/d4/s.ts", segment("d", 5, 0, 0, 500));
    for (int ch = 0; ch < 5; ch++)
        connect_to(ch, site_.url("/d" + std::to_string(ch) + "/index.m3u8"));

    ASSERT_TRUE(wait([&] {
        return site_.hits("/d0/index.m3u8") == 2 && site_.hits("/d1/index.m3u8") == 2 && site_.hits("/d2/s.ts") == 1 &&
               test_host::frame_count(3) >= 10 && test_host::frame_count(4) >= 1;
    }));
    const double max_seconds[] = {1.5, 1.5, 1.5, 0.3, 1.3};
    for (int ch = 0; ch < 5; ch++) {
        EXPECT_LT(timed_disconnect(ch), max_seconds[ch]) << ch;
        EXPECT_EQ(statuses_of(ch), ch == 1 ? std::vector<int32_t>{} : kStartedStopped) << ch;
    }
    EXPECT_EQ(site_.hits("/d3/t.ts"), 0u);
    // Nothing reaches the host once the channels are closed.
    size_t events = test_host::events().size();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(test_host::events().size(), events);
}

} // namespace
