// Plain MPEG-TS and FLV streams: bytes flow straight from the transfer into
// the host demultiplexer and frames straight to the host; start and stop are
// reported around every connection; broken transfers are retried after a
// pause that a disconnect cuts short.
#include <algorithm>

#include "channel_stream_fixture.h"

namespace {

struct Kind {
    const char *name;
    bool flv;
    std::string prefix;
    const char *function; // reporting function of the transfer messages
};

const Kind kTs{"ts", false, ts_sync_prefix(), "download_data_by_ts"};
// The header claims something else: the bytes decide.
const Kind kFlv{"flv", true, "FLV\x01\x05" + std::string(20, '\0'), "download_data_by_flv"};

std::vector<HostEvent> events_where(const std::function<bool(const HostEvent &)> &pred)
{
    std::vector<HostEvent> out;
    for (const HostEvent &e : test_host::events())
        if (pred(e))
            out.push_back(e);
    return out;
}

std::vector<int32_t> statuses(int32_t channel)
{
    std::vector<int32_t> out;
    for (const HostEvent &e : events_where([&](const HostEvent &e) { return e.kind == HostEvent::Status && e.channel == channel; }))
        out.push_back(e.value);
    return out;
}

size_t events_of(HostEvent::Kind kind, bool flv)
{
    return test_host::count([&](const HostEvent &e) { return e.kind == kind && e.flv == flv; });
}

std::string expected_body(const Kind &kind, size_t frames)
{
    std::string body = kind.prefix;
    for (size_t i = 0; i < frames; ++i)
        body += stream_frame(i, !kind.flv);
    return body;
}

class DirectStream : public ClientTest {};

TEST_F(DirectStream, FramesReachHostOnDownloadThreadUntilServerEndsStream)
{
    StderrCapture err;
    StreamServer srv;
    // Different lengths, so that the two streams end (and log) at different moments.
    auto frames_of = [](const Kind &kind) -> size_t { return kind.flv ? 40 : 20; };
    for (const Kind *kind : {&kTs, &kFlv})
        srv.stream(std::string("/") + kind->name, "application/octet-stream",
                   [kind, frames_of](int) { return plan_of(kind->prefix, frames_of(*kind)); });
    srv.start();
    test_host::keep_pieces = true;
    test_host::frame_result = 41;

    for (int32_t channel : {0, 1}) {
        hls_connect_param param = make_param(srv.url(channel == 0 ? "/ts" : "/flv"));
        ASSERT_EQ(hls_client_connect(channel, &param), 0);
    }
    ASSERT_TRUE(test_host::wait_for(
        [] { return test_host::status_count(0, HLS_STREAM_STOPPED) + test_host::status_count(1, HLS_STREAM_STOPPED) == 2; }, 5s));

    for (int32_t channel : {0, 1}) {
        const Kind &kind = channel == 0 ? kTs : kFlv;
        const size_t kFrames = frames_of(kind);
        SCOPED_TRACE(kind.name);
        EXPECT_EQ(events_of(HostEvent::DemuxNew, kind.flv), 1u);
        // The whole body went into the demultiplexer once, unchanged: no
        // reconnection after the server ended the stream.
        EXPECT_EQ(test_host::received_bytes(kind.flv), expected_body(kind, kFrames));
        EXPECT_EQ(srv.requests(std::string("/") + kind.name), 2u); // probe + stream

        auto frames = events_where([&](const HostEvent &e) { return e.kind == HostEvent::Frame && e.channel == channel; });
        auto puts = events_where([&](const HostEvent &e) { return e.kind == HostEvent::Put && e.flv == kind.flv; });
        auto status = events_where([&](const HostEvent &e) { return e.kind == HostEvent::Status && e.channel == channel; });
        ASSERT_EQ(frames.size(), kFrames);
        ASSERT_FALSE(puts.empty());
        for (size_t i = 0; i < kFrames; ++i) {
            EXPECT_EQ(frames[i].data, stream_payload(i));
            EXPECT_EQ(frames[i].info.video.pts, i);
            // Delivered inside the transfer, on the channel's download thread.
            EXPECT_EQ(frames[i].thread, puts.front().thread);
        }
        EXPECT_NE(puts.front().thread, std::this_thread::get_id());
        EXPECT_EQ(statuses(channel), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
        // The start is reported before the first bytes reach the demultiplexer.
        auto all = test_host::events();
        auto first_of = [&](const std::function<bool(const HostEvent &)> &pred) {
            return std::find_if(all.begin(), all.end(), pred) - all.begin();
        };
        EXPECT_LT(first_of([&](const HostEvent &e) { return e.kind == HostEvent::Status && e.channel == channel; }),
                  first_of([&](const HostEvent &e) { return e.kind == HostEvent::Put && e.flv == kind.flv; }));
        EXPECT_EQ(status.front().thread, puts.front().thread);

        std::string ended = std::string(kind.function) + ">: curl_easy_perform(" + srv.url(std::string("/") + kind.name) +
                            ") immediately return CURLE_OK!\n";
        EXPECT_EQ(err.count(ended), 1u) << err.text();
    }
    // The host's result went back to the demultiplexer untouched.
    auto results = test_host::callback_results();
    EXPECT_EQ(results.size(), frames_of(kTs) + frames_of(kFlv));
    EXPECT_EQ(std::count(results.begin(), results.end(), 41), (long)results.size());
    EXPECT_FALSE(err.contains("return error"));

    for (int32_t channel : {0, 1})
        EXPECT_EQ(hls_client_disconnect(channel), 0);
    EXPECT_EQ(test_host::status_count(0, HLS_STREAM_STOPPED), 1u); // not repeated on close
    EXPECT_EQ(test_host::count([](const HostEvent &e) { return e.kind == HostEvent::DemuxFree; }), 2u);
}

TEST_F(DirectStream, DisconnectWhileDataFlowsStopsOnceWithoutMessage)
{
    StderrCapture err;
    StreamServer srv;
    srv.stream("/ts", "video/MP2T", [](int) { return plan_of(kTs.prefix); });
    srv.start();
    hls_connect_param param = make_param(srv.url("/ts"));
    ASSERT_EQ(hls_client_connect(2, &param), 0);
    ASSERT_TRUE(test_host::wait_for([] { return test_host::frame_count(2) >= 5; }, 5s));

    auto start = Clock::now();
    EXPECT_EQ(hls_client_disconnect(2), 0);
    EXPECT_LT(seconds_between(start, Clock::now()), 1.0);
    EXPECT_EQ(statuses(2), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED}));
    EXPECT_EQ(events_of(HostEvent::DemuxFree, false), 1u);
    EXPECT_EQ(err.text(), "");
    size_t frames = test_host::frame_count(2);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(test_host::frame_count(2), frames);
}

TEST_F(DirectStream, BrokenTransferStopsPausesAndReconnectsIntoSameDemux)
{
    StderrCapture err;
    StreamServer srv;
    // Request 1 is the probe, request 2 breaks after some frames (the two
    // channels at different moments, so that their error lines do not
    // interleave), later ones stream until the channel closes.
    for (const Kind *kind : {&kTs, &kFlv})
        srv.stream(std::string("/") + kind->name, "video/MP2T", [kind](int n) {
            return n == 2 ? plan_of(kind->prefix, kind->flv ? 30 : 5, true) : plan_of(kind->prefix);
        });
    srv.start();
    for (int32_t channel : {0, 1}) {
        hls_connect_param param = make_param(srv.url(channel == 0 ? "/ts" : "/flv"));
        ASSERT_EQ(hls_client_connect(channel, &param), 0);
    }
    ASSERT_TRUE(test_host::wait_for(
        [] { return test_host::status_count(0, HLS_STREAM_STARTED) == 2 && test_host::status_count(1, HLS_STREAM_STARTED) == 2; },
        9s));

    for (int32_t channel : {0, 1}) {
        const Kind &kind = channel == 0 ? kTs : kFlv;
        SCOPED_TRACE(kind.name);
        auto status = events_where([&](const HostEvent &e) { return e.kind == HostEvent::Status && e.channel == channel; });
        ASSERT_EQ(status.size(), 3u);
        EXPECT_EQ(statuses(channel), (std::vector<int32_t>{HLS_STREAM_STARTED, HLS_STREAM_STOPPED, HLS_STREAM_STARTED}));
        double pause = seconds_between(status[1].at, status[2].at);
        EXPECT_GE(pause, 4.9);
        EXPECT_LT(pause, 6.5);
        std::string broken = std::string(kind.function) + ">: curl_easy_perform(" + srv.url(std::string("/") + kind.name) +
                             ") return error: ";
        EXPECT_EQ(err.count(broken), 1u) << err.text();
        // One demultiplexer for the life of the channel stream.
        EXPECT_EQ(events_of(HostEvent::DemuxNew, kind.flv), 1u);
        EXPECT_EQ(events_of(HostEvent::DemuxFree, kind.flv), 0u);
    }
    ASSERT_TRUE(test_host::wait_for([] { return test_host::frame_count(0) > 6 && test_host::frame_count(1) > 6; }, 5s));
    for (int32_t channel : {0, 1})
        EXPECT_EQ(hls_client_disconnect(channel), 0);
    for (int32_t channel : {0, 1})
        EXPECT_EQ(statuses(channel).size(), 4u);
    EXPECT_EQ(err.count("return error"), 2u);
    EXPECT_EQ(err.count("curl_easy_perform"), 2u);
}

TEST_F(DirectStream, ErrorBeforeAnyDataIsOnlyLoggedAndItsPauseEndsOnDisconnect)
{
    StderrCapture err;
    StreamServer srv;
    // The probe sees a transport stream; the stream request then closes
    // right after its headers.
    srv.stream("/ts", "video/MP2T", [](int n) { return n == 1 ? plan_of(kTs.prefix) : plan_of("", 0, true); });
    srv.start();
    hls_connect_param param = make_param(srv.url("/ts"));
    ASSERT_EQ(hls_client_connect(3, &param), 0);
    ASSERT_TRUE(test_host::wait_for([&] { return err.contains("download_data_by_ts>: curl_easy_perform("); }, 5s));
    std::this_thread::sleep_for(50ms);

    auto start = Clock::now();
    EXPECT_EQ(hls_client_disconnect(3), 0);
    EXPECT_LT(seconds_between(start, Clock::now()), 0.2);
    EXPECT_EQ(srv.requests("/ts"), 2u);
    EXPECT_EQ(err.count("return error"), 1u);
    EXPECT_EQ(test_host::count([](const HostEvent &e) { return e.kind == HostEvent::Status || e.kind == HostEvent::Put; }), 0u);
    EXPECT_EQ(events_of(HostEvent::DemuxFree, false), 1u);
}

TEST_F(DirectStream, DemuxCreationFailureEndsThreadWithoutStreaming)
{
    StderrCapture err;
    StreamServer srv;
    for (const Kind *kind : {&kTs, &kFlv})
        srv.stream(std::string("/") + kind->name, "text/plain", [kind](int) { return plan_of(kind->prefix); });
    srv.start();
    test_host::fail_ts_new = true;
    test_host::fail_flv_new = true;
    // One after the other, so that the two error lines do not interleave.
    hls_connect_param ts_param = make_param(srv.url("/ts"));
    ASSERT_EQ(hls_client_connect(0, &ts_param), 0);
    ASSERT_TRUE(test_host::wait_for([&] { return err.contains("http_ts_demux_new>: ts_demux_new failed!\n"); }, 5s));
    hls_connect_param flv_param = make_param(srv.url("/flv"));
    ASSERT_EQ(hls_client_connect(1, &flv_param), 0);
    ASSERT_TRUE(test_host::wait_for([&] { return err.contains("http_flv_demux_new>: flv_demux_new failed!\n"); }, 5s));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(srv.requests("/ts"), 1u);
    EXPECT_EQ(srv.requests("/flv"), 1u);
    EXPECT_EQ(test_host::events().size(), 0u);
    EXPECT_EQ(hls_client_connect(0, nullptr), -2);
    for (int32_t channel : {0, 1}) {
        hls_connect_param param = make_param(srv.url("/ts"));
        EXPECT_EQ(hls_client_connect(channel, &param), -5); // ended, still held
        EXPECT_EQ(hls_client_disconnect(channel), 0);
    }
}

} // namespace
