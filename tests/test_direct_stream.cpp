// Plain MPEG-TS and FLV streams: bytes flow straight from the transfer into
// the host demultiplexer and frames straight to the host; start and stop are
// reported around every connection; broken transfers are retried after a
// pause that a disconnect cuts short (and that a host function of the same
// name as the library's sleep does not replace); a demultiplexer that cannot
// be created ends the channel, on any path.
#include "channel_stream.h"

using namespace ::testing;

// The host's own hal_usleep, exported from this executable: it only counts,
// so a library whose pauses called it would retry at once.
static std::atomic<int> g_host_usleep_calls{0};
extern "C" int32_t hal_usleep(uint32_t)
{
    g_host_usleep_calls++;
    return 0;
}

namespace {

// Channel 0 plays the TS stream at /ts, channel 1 the FLV stream at /flv.
// Their lengths differ so that the two channels log at different moments.
// `function` reports their transfer messages.
struct Kind { const char *path; bool flv; std::string prefix; const char *function; size_t frames; };
const Kind kKinds[] = {
    {"/ts", false, ts_sync_prefix(), "download_data_by_ts", 20},
    {"/flv", true, "FLV\x01\x05" + std::string(20, '\0'), "download_data_by_flv", 40},
};

size_t events_of(HostEvent::Kind kind, bool flv)
{
    return test_host::events([&](const HostEvent &e) { return e.kind == kind && e.flv == flv; }).size();
}

class DirectStream : public ClientTest {
protected:
    // Serves both kinds (the header claims something else: the bytes decide)
    // from `script` and connects both channels.
    void play_both(const std::function<Reply(const Kind &, int hit)> &script)
    {
        for (int32_t channel : {0, 1}) {
            const Kind &kind = kKinds[channel];
            site_.on(kind.path, [&kind, script](int hit) { return script(kind, hit); });
            connect_to(channel, site_.url(kind.path));
        }
    }
    // How often the kind's transfer logged `outcome` for its URL.
    size_t logged(const Kind &kind, const std::string &outcome)
    {
        return err_.count(std::string(kind.function) + ">: curl_easy_perform(" + site_.url(kind.path) + ") " + outcome);
    }
    Site site_;
    StderrCapture err_;
};

TEST_F(DirectStream, FramesReachHostOnDownloadThreadUntilServerEndsStream)
{
    test_host::keep_pieces = true;
    test_host::frame_result = 41;
    play_both([](const Kind &kind, int) { return Reply{kind.prefix, "application/octet-stream", 200, 0, kind.frames}; });
    bool ended = test_host::wait_for(
        [] { return test_host::status_count(0, HLS_STREAM_STOPPED) + test_host::status_count(1, HLS_STREAM_STOPPED) == 2; }, 5s);
    ASSERT_TRUE(ended || torture_mode());

    size_t streamed = 0;
    for (int32_t channel : {0, 1}) {
        const Kind &kind = kKinds[channel];
        SCOPED_TRACE(kind.path);
        if (torture_mode() && test_host::status_count(channel, HLS_STREAM_STOPPED) == 0) {
            // The channel's thread lost an allocation: without its holder it
            // ended, without probe bytes the Content-Type decided nothing and
            // it probes again; either way the host was told nothing.
            EXPECT_EQ(statuses_of(channel).size(), 0u);
            EXPECT_EQ(test_host::frame_count(channel), 0u);
            continue;
        }
        streamed += kind.frames;
        EXPECT_EQ(events_of(HostEvent::DemuxNew, kind.flv), 1u);
        // The whole body went into the demultiplexer once, unchanged: no
        // reconnection after the server ended the stream.
        std::string body = kind.prefix;
        for (size_t i = 0; i < kind.frames; ++i)
            body += stream_frame(i, !kind.flv);
        EXPECT_EQ(test_host::received_bytes(kind.flv), body);
        EXPECT_EQ(site_.hits(kind.path), 2u); // probe + stream

        // In order, inside the transfer, on the channel's download thread,
        // with the start reported there before the first bytes went in.
        auto mine = [&](const HostEvent &e) { return e.kind == HostEvent::Put ? e.flv == kind.flv : e.channel == channel; };
        auto seen = test_host::events(mine);
        ASSERT_EQ(seen.front().kind, HostEvent::Status);
        ASSERT_EQ(seen[1].kind, HostEvent::Put);
        EXPECT_NE(seen.front().thread, std::this_thread::get_id());
        size_t frames = 0;
        for (const HostEvent &e : seen) {
            EXPECT_EQ(e.thread, seen.front().thread);
            if (e.kind == HostEvent::Frame) {
                EXPECT_EQ(e.data, stream_payload(frames));
                EXPECT_EQ(e.info.video.pts, frames++);
            }
        }
        EXPECT_EQ(frames, kind.frames);
        EXPECT_EQ(statuses_of(channel), kStartedStopped);
        EXPECT_EQ(logged(kind, "immediately return CURLE_OK!\n"), 1u) << err_.text();
    }
    // The host's result went back to the demultiplexer untouched.
    EXPECT_THAT(test_host::events(HostEvent::Result), AllOf(SizeIs(streamed), Each(Field(&HostEvent::value, 41))));
    EXPECT_FALSE(err_.contains("return error"));

    const std::vector<int32_t> stopped_before_close = statuses_of(0);
    for (int32_t channel : {0, 1})
        EXPECT_EQ(hls_client_disconnect(channel), 0);
    EXPECT_EQ(statuses_of(0), stopped_before_close); // not repeated on close
    // Every demultiplexer made (one per kind, checked above) was released.
    EXPECT_EQ(test_host::events(HostEvent::DemuxFree).size(), test_host::events(HostEvent::DemuxNew).size());
}

TEST_F(DirectStream, BrokenTransferStopsPausesAndReconnectsIntoSameDemuxUntilDisconnected)
{
    // Request 1 is the probe, request 2 breaks after 5 or 30 frames (the error
    // lines must not interleave), later ones stream until the channel closes.
    play_both([](const Kind &kind, int hit) {
        return Reply{kind.prefix, "video/MP2T", 200, 0, hit != 2 ? SIZE_MAX : kind.flv ? 30u : 5u, hit == 2};
    });
    ASSERT_TRUE(test_host::wait_for(
        [] { return test_host::status_count(0, HLS_STREAM_STARTED) == 2 && test_host::status_count(1, HLS_STREAM_STARTED) == 2; },
        9s));

    for (int32_t channel : {0, 1}) {
        const Kind &kind = kKinds[channel];
        SCOPED_TRACE(kind.path);
        auto status = test_host::events(HostEvent::Status, channel);
        ASSERT_EQ(statuses_of(channel), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED, HLS_STREAM_STARTED}));
        EXPECT_THAT(seconds_between(status[1].at, status[2].at), AllOf(Ge(4.9), Lt(6.5)));
        EXPECT_EQ(g_host_usleep_calls.load(), 0);
        EXPECT_EQ(logged(kind, "return error: "), 1u) << err_.text();
        // One demultiplexer for the life of the channel stream.
        EXPECT_EQ(events_of(HostEvent::DemuxNew, kind.flv), 1u);
        EXPECT_EQ(events_of(HostEvent::DemuxFree, kind.flv), 0u);
    }
    // Closing a channel while data flows stops it once, without a message,
    // and nothing reaches the host afterwards.
    ASSERT_TRUE(test_host::wait_for([] { return test_host::frame_count(0) > 6 && test_host::frame_count(1) > 31; }, 5s));
    for (int32_t channel : {0, 1}) {
        EXPECT_LT(timed_disconnect(channel), 1.0);
        EXPECT_EQ(statuses_of(channel), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED, HLS_STREAM_STARTED,
                                                              HLS_STREAM_STOPPED}));
        EXPECT_EQ(events_of(HostEvent::DemuxFree, kKinds[channel].flv), 1u);
    }
    size_t frames = test_host::frame_count(0) + test_host::frame_count(1);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(test_host::frame_count(0) + test_host::frame_count(1), frames);
    EXPECT_EQ(err_.count("<ERROR!"), 2u) << err_.text();
}

TEST_F(DirectStream, ErrorBeforeAnyDataIsOnlyLoggedAndItsPauseEndsOnDisconnect)
{
    // The probe sees a transport stream; the stream request then closes
    // right after its headers.
    site_.on("/ts", [](int hit) { return Reply{hit == 1 ? kKinds[0].prefix : "", "video/MP2T", 200, 0, 0, true}; });
    connect_to(3, site_.url("/ts"));
    ASSERT_TRUE(test_host::wait_for([&] { return err_.contains("download_data_by_ts>: curl_easy_perform("); }, 5s));
    std::this_thread::sleep_for(50ms);

    EXPECT_LT(timed_disconnect(3), 0.2);
    EXPECT_EQ(site_.hits("/ts"), 2u);
    EXPECT_EQ(err_.count("return error"), 1u);
    EXPECT_EQ(test_host::events(HostEvent::Status).size() + test_host::events(HostEvent::Put).size(), 0u);
    EXPECT_EQ(events_of(HostEvent::DemuxFree, false), 1u);
}

TEST_F(DirectStream, DemuxCreationFailureEndsThreadWithoutStreaming)
{
    test_host::fail_ts_new = true;
    test_host::fail_flv_new = true;
    // One after the other, so that the two error lines do not interleave.
    const char *messages[] = {"http_ts_demux_new>: ts_demux_new failed!\n", "http_flv_demux_new>: flv_demux_new failed!\n"};
    for (int32_t channel : {0, 1}) {
        site_.on(kKinds[channel].path, Reply{kKinds[channel].prefix, "text/plain", 200, 0, SIZE_MAX});
        connect_to(channel, site_.url(kKinds[channel].path));
        ASSERT_TRUE(test_host::wait_for([&] { return err_.contains(messages[channel]); }, 5s));
    }
    // A playlist channel whose holder cannot get its demultiplexer ends
    // quietly: no message, no playlist download after the probe.
    site_.on("/hls", Reply{"#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1.0,\ns.ts\n"});
    connect_to(2, site_.url("/hls"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(site_.hits("/ts") + site_.hits("/flv") + site_.hits("/hls"), 3u);
    EXPECT_LT(timed_disconnect(2), 0.2);
    EXPECT_EQ(err_.count("<ERROR!"), 2u) << err_.text();
    EXPECT_EQ(test_host::events().size(), 0u);
}

} // namespace
