// Both reference demultiplexers over the recorded samples: the recorded
// elementary streams come out whole at every split, frame descriptions
// follow the stream, and cut input costs only the frames it cuts.
#include <gtest/gtest.h>

#include <algorithm>

#include "demux_capture.h"
#include "hls_host_demux.h"
#include "sha256.h"

namespace {

struct Sample {
    std::string key, bytes;
    bool flv;
    uint32_t audio_type, samples_per_frame;
    double pts_slack; // FLV time stamps are whole milliseconds
};

std::vector<Sample> samples()
{
    return {{"stream.ts", read_sample("stream.ts"), false, HLS_FRAME_TYPE_AUDIO_AAC, 1024, 2.0},
            {"hevc_mp3.ts", read_sample("hevc_mp3.ts") + read_sample("hevc_mp3.ts"), false, HLS_FRAME_TYPE_AUDIO_MPEG,
             1152, 2.0},
            {"hls/high", read_hls_variant("high"), false, HLS_FRAME_TYPE_AUDIO_AAC, 1024, 2.0},
            {"hls/low", read_hls_variant("low"), false, HLS_FRAME_TYPE_AUDIO_AAC, 1024, 2.0},
            {"stream.flv", read_sample("stream.flv"), true, HLS_FRAME_TYPE_AUDIO_AAC, 1024, 90.0}};
}

bool starts_with(const Frames &whole, const Frames &part)
{
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

TEST(HostDemuxSamples, GiveTheRecordedStreamsAtEverySplitWithDescriptionsThatFollowThem)
{
    for (const Sample &s : samples()) {
        SCOPED_TRACE(s.key);
        const std::string &k = s.key;
        size_t nv = fact_num(k + ".video_frames"), na = fact_num(k + ".audio_frames");
        uint32_t rate = (uint32_t)fact_num(k + ".frame_rate"), first_v = (uint32_t)fact_num(k + ".video_first_pts");
        double first_a = (double)fact_num(k + ".audio_first_pts");
        DemuxRun whole = run_demux(s.flv, s.bytes);
        EXPECT_FALSE(whole.bad_call);
        Frames v = whole.video(), a = whole.audio();
        ASSERT_GT(nv, 0u);
        // Repeated input gives frames after the recorded ones; in a single
        // recording nothing waits for more input.
        bool single = k == "stream.ts" || s.flv;
        EXPECT_TRUE(single ? v.size() == nv && a.size() == na : v.size() >= nv && a.size() >= na);
        v.resize(nv);
        a.resize(na);
        std::string vb, ab;
        for (size_t i = 0; i < nv; i++) {
            const frame_info &f = v[i].info;
            bool key = i % rate == 0; // one key frame per second
            EXPECT_EQ(f.type, key ? HLS_FRAME_TYPE_VIDEO_KEY : HLS_FRAME_TYPE_VIDEO_OTHER) << i;
            EXPECT_EQ(f.video.frame_rate, key ? rate : 0u) << i;
            EXPECT_EQ(f.video.frame_rate_frac, 0u) << i;
            EXPECT_EQ(f.video.pts, first_v + i * 90000 / rate) << i;
            EXPECT_EQ(f.video.length, v[i].data.size());
            vb += v[i].data;
        }
        for (size_t i = 0; i < na; i++) {
            EXPECT_EQ(a[i].info.type, s.audio_type);
            EXPECT_NEAR(a[i].info.audio.pts, first_a + i * s.samples_per_frame * 90000.0 / 44100, s.pts_slack) << i;
            EXPECT_EQ(a[i].info.audio.length, a[i].data.size());
            ab += a[i].data;
        }
        EXPECT_EQ(sha256_hex(vb), fact(k + ".video_sha256"));
        EXPECT_EQ(sha256_hex(ab), fact(k + ".audio_sha256"));
        for (size_t piece = 1; piece <= 64; piece++)
            ASSERT_TRUE(run_demux(s.flv, s.bytes, piece).frames == whole.frames) << "piece size " << piece;
    }
}

// A transfer cut short and followed by a new stream, as when the direct path
// reconnects into the same demultiplexer: the new stream comes through
// whole, after frames of the cut part that are its own first frames.
TEST(HostDemuxResync, NewStreamAfterACutTransferComesThroughWhole)
{
    const size_t P = 188;
    struct Case { const char *name; bool flv, unbounded; std::vector<size_t> cuts; } cases[] = {
        {"stream.ts", false, false, {P * 700 + 100, P * 1200, P * 1500 + 1, P * 333 + 187}},
        {"high", false, true, {P * 700 + 100, P * 1200, P * 1500 + 1, P * 333 + 187}},
        {"stream.flv", true, false, {5000, 100003, 250000, 344111}}, // the last two bytes short of the end
    };
    for (const Case &c : cases) {
        std::string bytes = c.unbounded ? read_hls_variant(c.name) : read_sample(c.name);
        DemuxRun whole = run_demux(c.flv, bytes);
        Frames wv = whole.video();
        for (size_t cut : c.cuts) {
            DemuxRun run = run_demux(c.flv, bytes.substr(0, cut) + bytes, 4096), before;
            size_t head = run.frames.size() - std::min(run.frames.size(), whole.frames.size());
            EXPECT_GT(head, 0u) << c.name << " " << cut;
            ASSERT_TRUE(starts_with(Frames(run.frames.begin() + head, run.frames.end()), whole.frames));
            before.frames.assign(run.frames.begin(), run.frames.begin() + head);
            Frames v = before.video();
            // A cut right at a packet boundary leaves no trace in the bytes:
            // an unbounded video PES in progress then goes out short.
            if (c.unbounded && cut % P == 0 && !v.empty() && v.size() <= wv.size() &&
                wv[v.size() - 1].data.compare(0, v.back().data.size(), v.back().data) == 0)
                v.back() = wv[v.size() - 1];
            EXPECT_TRUE(starts_with(wv, v) && starts_with(whole.audio(), before.audio())) << c.name << " " << cut;
        }
    }
}

} // namespace
