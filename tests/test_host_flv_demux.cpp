// Reference FLV demultiplexer: the sample stream gives the recorded
// elementary streams in any split, AVC becomes Annex B with parameter sets
// before key frames, AAC becomes ADTS, and damage costs only damaged tags.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <random>

#include "demux_capture.h"
#include "es_builders.h"
#include "es_parse.h"
#include "hls_host_demux.h"
#include "sha256.h"

namespace {

std::string be(uint64_t v, int bytes)
{
    std::string s;
    for (int i = bytes - 1; i >= 0; i--)
        s += (char)(v >> (8 * i));
    return s;
}

const std::string HEADER = std::string("FLV\x01\x05\0\0\0\x09\0\0\0\0", 13);

std::string tag(uint8_t type, uint32_t ms, const std::string &body, int32_t prev_size = -1)
{
    uint32_t prev = prev_size < 0 ? 11 + (uint32_t)body.size() : (uint32_t)prev_size;
    return (char)type + be((uint32_t)body.size(), 3) + be(ms & 0xffffff, 3) + (char)(ms >> 24) + be(0, 3) + body +
           be(prev, 4);
}

std::string metadata(double fps)
{
    uint64_t bits;
    memcpy(&bits, &fps, 8);
    return tag(18, 0, "\x02" + be(10, 2) + "onMetaData\x08" + be(2, 4) + be(8, 2) + "duration" + '\0' + be(0, 8) +
                          be(9, 2) + "framerate" + '\0' + be((uint32_t)(bits >> 32), 4) + be((uint32_t)bits, 4) +
                          be(0, 2) + '\x09');
}

std::vector<std::string> nals(const std::string &au) // split on the four-byte start codes
{
    std::vector<std::string> out;
    const std::string sc("\0\0\0\1", 4);
    for (size_t at = au.find(sc); at != std::string::npos;) {
        size_t next = au.find(sc, at + 4);
        out.push_back(au.substr(at + 4, next == std::string::npos ? std::string::npos : next - at - 4));
        at = next;
    }
    return out;
}

std::string sequence_header(const std::string &sps, const std::string &pps)
{
    return tag(9, 0, std::string("\x17\0\0\0\0\x01", 6) + sps.substr(1, 3) + "\xff\xe1" + be((uint32_t)sps.size(), 2) +
                         sps + '\x01' + be((uint32_t)pps.size(), 2) + pps);
}

// The sample's video frames as FLV tags (40 ms apart), without the NAL unit
// types listed in `strip`.
std::string video_tags(const std::vector<CapturedFrame> &frames, const std::vector<int> &strip)
{
    std::string out;
    for (size_t i = 0; i < frames.size(); i++) {
        bool key = frames[i].info.type == HLS_FRAME_TYPE_VIDEO_KEY;
        std::string body = std::string(key ? "\x17\x01" : "\x27\x01", 2) + std::string(3, '\0');
        for (const std::string &n : nals(frames[i].data))
            if (std::find(strip.begin(), strip.end(), n[0] & 0x1f) == strip.end())
                body += be((uint32_t)n.size(), 4) + n;
        out += tag(9, (uint32_t)i * 40, body);
    }
    return out;
}

std::string annexb(const std::vector<std::string> &units)
{
    std::string s;
    for (const std::string &n : units)
        s += std::string("\0\0\0\1", 4) + n;
    return s;
}

struct Parts {
    std::vector<CapturedFrame> video, audio;
    std::string sps, pps;
};

Parts sample_parts()
{
    DemuxRun run = run_demux(true, read_sample("stream.flv"));
    Parts p{run.video(), run.audio(), "", ""};
    for (const std::string &n : nals(p.video.at(0).data)) {
        if ((n[0] & 0x1f) == 7)
            p.sps = n;
        if ((n[0] & 0x1f) == 8)
            p.pps = n;
    }
    return p;
}

TEST(FlvDemuxSample, GivesTheRecordedStreamsWholeAndAtEverySplitSize)
{
    std::string flv = read_sample("stream.flv");
    DemuxRun whole = run_demux(true, flv);
    EXPECT_FALSE(whole.bad_first_argument || whole.bad_length);
    std::vector<CapturedFrame> v = whole.video();
    EXPECT_EQ(v.size(), (size_t)fact_num("stream.flv.video_frames"));
    EXPECT_EQ(whole.audio().size(), (size_t)fact_num("stream.flv.audio_frames"));
    EXPECT_EQ(sha256_hex(whole.video_bytes()), fact("stream.flv.video_sha256"));
    EXPECT_EQ(sha256_hex(whole.audio_bytes()), fact("stream.flv.audio_sha256"));
    EXPECT_EQ((size_t)std::count_if(v.begin(), v.end(),
                                    [](const CapturedFrame &f) { return f.info.type == HLS_FRAME_TYPE_VIDEO_KEY; }),
              (size_t)fact_num("stream.flv.key_frames"));
    for (size_t piece = 1; piece <= 64; piece++)
        ASSERT_TRUE(run_demux(true, flv, piece).frames == whole.frames) << "piece size " << piece;
}

TEST(FlvDemuxSample, FrameDescriptionsFollowTheStream)
{
    DemuxRun run = run_demux(true, read_sample("stream.flv"));
    std::vector<CapturedFrame> v = run.video(), a = run.audio();
    uint32_t rate = (uint32_t)fact_num("stream.flv.frame_rate");
    ASSERT_FALSE(v.empty() || a.empty());
    for (size_t i = 0; i < v.size(); i++) {
        bool key = i % rate == 0;
        EXPECT_EQ(v[i].info.type, key ? HLS_FRAME_TYPE_VIDEO_KEY : HLS_FRAME_TYPE_VIDEO_OTHER) << i;
        EXPECT_EQ(v[i].info.video.frame_rate, key ? rate : 0u) << i;
        EXPECT_EQ(v[i].info.video.frame_rate_frac, 0u) << i;
        EXPECT_EQ(v[i].info.video.pts, fact_num("stream.flv.video_first_pts") + i * 90000 / rate) << i; // ms x 90
    }
    for (size_t i = 0; i < a.size(); i++) {
        EXPECT_EQ(a[i].info.type, HLS_FRAME_TYPE_AUDIO_AAC);
        EXPECT_NEAR(a[i].info.audio.pts, fact_num("stream.flv.audio_first_pts") + i * 1024 * 90000.0 / 44100, 90.0)
            << i; // millisecond time stamps
    }
}

TEST(FlvDemuxVideo, ParameterSetsGoBeforeKeyFramesThatLackThem)
{
    Parts p = sample_parts();
    ASSERT_FALSE(p.sps.empty() || p.pps.empty());
    struct Case {
        const char *name;
        std::vector<int> strip;
    } cases[] = {{"parameter sets stripped", {7, 8}}, {"delimiters and parameter sets stripped", {7, 8, 9}},
                 {"nothing stripped", {}}};
    for (const Case &c : cases) {
        std::string flv = HEADER + sequence_header(p.sps, p.pps) + video_tags(p.video, c.strip);
        std::vector<CapturedFrame> out = run_demux(true, flv, 333).video();
        ASSERT_EQ(out.size(), p.video.size()) << c.name;
        bool no_aud = c.strip.size() == 3;
        for (size_t i = 0; i < out.size(); i++) {
            // The sample carries SPS and PPS right behind the delimiter of
            // every key frame: that is where they must come back.
            std::vector<std::string> want;
            for (const std::string &n : nals(p.video[i].data))
                if (!(no_aud && (n[0] & 0x1f) == 9))
                    want.push_back(n);
            EXPECT_EQ(out[i].data, annexb(want)) << c.name << " frame " << i;
            EXPECT_EQ(out[i].info.type, p.video[i].info.type) << c.name << " frame " << i;
        }
    }
}

TEST(FlvDemuxFrameRate, PrefersSpsTimingThenMetadataThenTimeStampSpacing)
{
    Parts p = sample_parts();
    std::string untimed = h264_sps(66, 0);
    struct Case {
        const char *name;
        std::string set_up;
        std::vector<int> strip;
        uint8_t rate;
        uint16_t frac;
    } cases[] = {
        {"SPS timing over metadata", metadata(30) + sequence_header(p.sps, p.pps), {}, 25, 0},
        {"metadata without SPS timing", metadata(29.97) + sequence_header(untimed, p.pps), {7}, 29, 970},
        {"spacing of 40 ms", sequence_header(untimed, p.pps), {7}, 25, 0},
    };
    for (const Case &c : cases) {
        std::vector<CapturedFrame> out = run_demux(true, HEADER + c.set_up + video_tags(p.video, c.strip)).video();
        ASSERT_EQ(out.size(), p.video.size()) << c.name;
        for (size_t i = 25; i < out.size(); i += 25) { // key frames after the first
            EXPECT_EQ(out[i].info.video.frame_rate, c.rate) << c.name << " frame " << i;
            EXPECT_EQ(out[i].info.video.frame_rate_frac, c.frac) << c.name << " frame " << i;
        }
    }
}

TEST(FlvDemuxAudio, ConfigurationsAndMpegAudioTagsBecomeFrames)
{
    struct Case {
        const char *name;
        std::string asc;
        int ok;
        es_aac_config want;
    } cases[] = {
        {"LC 44.1 kHz stereo", "\x12\x10", 1, {1, 4, 2}},
        {"HE-AAC explicit: core LC at 24 kHz", std::string("\x2b\x09\x88\x00", 4), 1, {1, 6, 1}},
        {"explicit rate 44100", std::string("\x17\x80\x56\x22\x10", 5), 1, {1, 4, 2}},
        {"explicit unlisted rate", std::string("\x17\x80\x18\x1c\x90", 5), 0, {}},
        {"object type beyond LTP", "\x32\x10", 0, {}},
        {"cut short", "\x12", 0, {}},
    };
    for (const Case &c : cases) {
        es_aac_config got{};
        EXPECT_EQ(es_aac_parse_config((const uint8_t *)c.asc.data(), c.asc.size(), &got), c.ok) << c.name;
        if (c.ok) {
            EXPECT_EQ(got.profile, c.want.profile) << c.name;
            EXPECT_EQ(got.rate_index, c.want.rate_index) << c.name;
            EXPECT_EQ(got.channels, c.want.channels) << c.name;
        }
    }
    // MPEG audio: tags of two frames each come out as single frames.
    std::vector<CapturedFrame> mp3 = run_demux(false, read_sample("hevc_mp3.ts")).audio();
    ASSERT_GT(mp3.size(), 10u);
    std::string flv = HEADER;
    for (size_t i = 0; i + 1 < mp3.size(); i += 2)
        flv += tag(8, (uint32_t)i * 26, "\x2e" + mp3[i].data + mp3[i + 1].data);
    std::vector<CapturedFrame> out = run_demux(true, flv, 100).audio();
    ASSERT_EQ(out.size(), mp3.size() / 2 * 2);
    for (size_t i = 0; i < out.size(); i++) {
        EXPECT_EQ(out[i].data, mp3[i].data) << i;
        EXPECT_EQ(out[i].info.type, HLS_FRAME_TYPE_AUDIO_MPEG);
        EXPECT_EQ(out[i].info.audio.pts, (i / 2 * 2) * 26 * 90 + (i % 2) * 1152 * 90000 / 44100) << i;
    }
}

TEST(FlvDemuxDamage, TruncatedInputGivesAPrefixOfTheFrames)
{
    std::string flv = read_sample("stream.flv");
    DemuxRun whole = run_demux(true, flv);
    size_t last = 0;
    for (size_t len = 0; len <= flv.size(); len += flv.size() / 37 + 1) {
        DemuxRun run = run_demux(true, flv.substr(0, len), 61);
        ASSERT_LE(run.frames.size(), whole.frames.size());
        EXPECT_TRUE(std::equal(run.frames.begin(), run.frames.end(), whole.frames.begin())) << len;
        EXPECT_GE(run.frames.size(), last);
        last = run.frames.size();
    }
    EXPECT_GT(last, whole.frames.size() / 2);
}

size_t intact(const std::vector<CapturedFrame> &want, const std::vector<CapturedFrame> &got)
{
    size_t n = 0, j = 0;
    for (const CapturedFrame &f : want) { // in order, skipping lost or damaged ones
        size_t k = j;
        while (k < got.size() && !(got[k] == f))
            k++;
        if (k < got.size())
            n++, j = k + 1;
    }
    return n;
}

TEST(FlvDemuxDamage, FlippedBytesLoseAtMostTwoTagsEach)
{
    std::string flv = read_sample("stream.flv");
    DemuxRun base = run_demux(true, flv);
    std::mt19937 rng(99);
    const int flips = 6;
    for (int trial = 0; trial < 12; trial++) {
        std::string bad = flv;
        for (int i = 0; i < flips; i++) // past the set-up tags (header, metadata, sequence headers)
            bad[1024 + rng() % (bad.size() - 1024)] ^= (char)(1 + rng() % 255);
        DemuxRun run = run_demux(true, bad, 1 + rng() % 3000);
        EXPECT_FALSE(run.bad_first_argument || run.bad_length);
        size_t lost = base.frames.size() - intact(base.video(), run.video()) - intact(base.audio(), run.audio());
        EXPECT_LE(lost, 2u * flips) << trial;
    }
}

TEST(FlvDemuxDamage, GarbageOversizedTagsAndWrongTagSizes)
{
    std::mt19937 rng(5);
    std::string noise(300000, '\0');
    for (char &c : noise)
        c = (char)rng();
    EXPECT_EQ(run_demux(true, noise, 1 + rng() % 4000).frames.size(), 0u);
    EXPECT_EQ(run_demux(true, HEADER + noise, 777).frames.size(), 0u);

    Parts p = sample_parts();
    std::vector<CapturedFrame> few(p.video.begin(), p.video.begin() + 30);
    std::string set_up = HEADER + sequence_header(p.sps, p.pps);
    std::string frames = video_tags(few, {});
    // A tag beyond the size cap is passed over without being kept.
    std::string big = tag(9, 0, "\x27\x01" + std::string(ES_MAX_FRAME + 10, '\0'));
    EXPECT_TRUE(run_demux(true, set_up + big + frames, 65536).video() == few);
    // A writer that leaves PreviousTagSize at 0: every tag that another
    // follows is still taken; the last one cannot be told from damage.
    std::string zero_sizes = HEADER;
    for (std::string t : {sequence_header(p.sps, p.pps), frames}) {
        for (size_t at = 0; at < t.size();) {
            size_t size = 11 + ((uint8_t)t[at + 1] << 16 | (uint8_t)t[at + 2] << 8 | (uint8_t)t[at + 3]);
            zero_sizes += t.substr(at, size) + be(0, 4);
            at += size + 4;
        }
    }
    std::vector<CapturedFrame> out = run_demux(true, zero_sizes, 1000).video();
    EXPECT_TRUE(out == std::vector<CapturedFrame>(few.begin(), few.end() - 1));
}

TEST(FlvDemuxResync, NewStreamAfterACutTransferComesThroughWhole)
{
    std::string flv = read_sample("stream.flv");
    DemuxRun base = run_demux(true, flv);
    for (size_t cut : {size_t(5000), size_t(100003), size_t(250000), flv.size() - 2}) {
        DemuxRun run = run_demux(true, flv.substr(0, cut) + flv, 4096);
        ASSERT_GE(run.frames.size(), base.frames.size()) << cut;
        size_t head = run.frames.size() - base.frames.size();
        EXPECT_TRUE(std::equal(run.frames.begin(), run.frames.begin() + (ptrdiff_t)head, base.frames.begin())) << cut;
        EXPECT_TRUE(std::equal(base.frames.begin(), base.frames.end(), run.frames.begin() + (ptrdiff_t)head)) << cut;
        EXPECT_GT(head, 0u);
    }
}

} // namespace
