// Reference FLV demultiplexer: AVC becomes Annex B with parameter sets
// before key frames, the frame rate comes from the best source at hand,
// audio tags become frames, and damage costs only the damaged tags. The
// recorded sample itself is checked in test_host_demux_samples.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <random>

#include "demux_capture.h"
#include "es_builders.h"
#include "es_parse.h"
#include "hls_host_demux.h"

namespace {

const std::string HEADER = std::string("FLV\x01\x05\0\0\0\x09\0\0\0\0", 13);

std::string be(uint64_t v, int bytes)
{
    std::string s;
    for (int i = bytes - 1; i >= 0; i--)
        s += (char)(v >> (8 * i));
    return s;
}

// A tag with its PreviousTagSize, right unless `prev_size` says otherwise.
std::string tag(uint8_t type, uint32_t ms, const std::string &body, int64_t prev_size = -1)
{
    return (char)type + be(body.size(), 3) + be(ms & 0xffffff, 3) + (char)(ms >> 24) + be(0, 3) + body +
           be(prev_size < 0 ? 11 + body.size() : (uint64_t)prev_size, 4);
}

std::string metadata(double fps)
{
    uint64_t bits;
    memcpy(&bits, &fps, 8);
    return tag(18, 0, "\x02" + be(10, 2) + "onMetaData\x08" + be(2, 4) + be(8, 2) + "duration" + '\0' + be(0, 8) +
                          be(9, 2) + "framerate" + '\0' + be(bits, 8) + be(0, 2) + '\x09');
}

// The NAL units of an Annex B access unit with four-byte start codes.
std::vector<std::string> nals(const std::string &au)
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

std::string sequence_header(const std::string &sps, const std::string &pps, int64_t prev_size = -1)
{
    return tag(9, 0, std::string("\x17\0\0\0\0\x01", 6) + sps.substr(1, 3) + "\xff\xe1" + be(sps.size(), 2) + sps +
                         '\x01' + be(pps.size(), 2) + pps, prev_size);
}

// Video frames as FLV tags (40 ms apart), without the NAL unit types listed
// in `strip`.
std::string video_tags(const Frames &frames, const std::vector<int> &strip, int64_t prev_size = -1)
{
    std::string out;
    for (size_t i = 0; i < frames.size(); i++) {
        std::string body = std::string(frames[i].info.type == HLS_FRAME_TYPE_VIDEO_KEY ? "\x17" : "\x27") + '\x01' +
                           std::string(3, '\0');
        for (const std::string &n : nals(frames[i].data))
            if (std::find(strip.begin(), strip.end(), n[0] & 0x1f) == strip.end())
                body += be(n.size(), 4) + n;
        out += tag(9, (uint32_t)i * 40, body, prev_size);
    }
    return out;
}

// The sample's video frames and the parameter sets of its first key frame.
struct Sample {
    Frames video = run_demux(true, read_sample("stream.flv")).video();
    std::string sps, pps;
    Sample()
    {
        for (const std::string &n : nals(video.at(0).data)) {
            if ((n[0] & 0x1f) == 7)
                sps = n;
            if ((n[0] & 0x1f) == 8)
                pps = n;
        }
    }
};

TEST(FlvDemuxVideo, ParameterSetsGoBeforeKeyFramesThatLackThem)
{
    Sample s;
    ASSERT_FALSE(s.sps.empty() || s.pps.empty());
    for (const std::vector<int> &strip : std::vector<std::vector<int>>{{7, 8}, {7, 8, 9}, {}}) {
        Frames out = run_demux(true, HEADER + sequence_header(s.sps, s.pps) + video_tags(s.video, strip), 333).video();
        ASSERT_EQ(out.size(), s.video.size()) << strip.size();
        for (size_t i = 0; i < out.size(); i++) {
            // The sample carries SPS and PPS right behind the delimiter of
            // every key frame: that is where they must come back.
            std::string want;
            for (const std::string &n : nals(s.video[i].data))
                if (strip.size() < 3 || (n[0] & 0x1f) != 9)
                    want += std::string("\0\0\0\1", 4) + n;
            EXPECT_EQ(out[i].data, want) << strip.size() << " stripped, frame " << i;
            EXPECT_EQ(out[i].info.type, s.video[i].info.type) << strip.size() << " stripped, frame " << i;
        }
    }
}

TEST(FlvDemuxFrameRate, PrefersSpsTimingThenMetadataThenTimeStampSpacing)
{
    Sample s;
    std::string untimed = h264_sps(66, 0);
    struct Case { const char *name; std::string set_up; std::vector<int> strip; uint32_t milli; } cases[] = {
        {"SPS timing over metadata", metadata(30) + sequence_header(s.sps, s.pps), {}, 25000},
        {"metadata without SPS timing", metadata(29.97) + sequence_header(untimed, s.pps), {7}, 29970},
        {"spacing of 40 ms", sequence_header(untimed, s.pps), {7}, 25000},
    };
    for (const Case &c : cases) {
        Frames out = run_demux(true, HEADER + c.set_up + video_tags(s.video, c.strip)).video();
        ASSERT_EQ(out.size(), s.video.size()) << c.name;
        for (size_t i = 25; i < out.size(); i += 25) { // key frames after the first
            const frame_info &f = out[i].info;
            EXPECT_EQ((uint32_t)(f.video.frame_rate * 1000 + f.video.frame_rate_frac), c.milli) << c.name << " " << i;
        }
    }
}

TEST(FlvDemuxAudio, ConfigurationsAndMpegAudioTagsBecomeFrames)
{
    struct Case { const char *name; std::string asc; int ok; es_aac_config want; } cases[] = {
        {"LC 44.1 kHz stereo", "\x12\x10", 1, {1, 4, 2}},
        {"HE-AAC explicit: core LC at 24 kHz", std::string("\x2b\x09\x88\x00", 4), 1, {1, 6, 1}},
        {"explicit rate 44100", std::string("\x17\x80\x56\x22\x10", 5), 1, {1, 4, 2}},
        {"explicit unlisted rate", std::string("\x17\x80\x18\x1c\x90", 5), 0, {0, 0, 0}},
        {"object type beyond LTP", "\x32\x10", 0, {0, 0, 0}},
        {"cut short", "\x12", 0, {0, 0, 0}},
    };
    for (const Case &c : cases) {
        es_aac_config got{0, 0, 0};
        EXPECT_EQ(es_aac_parse_config((const uint8_t *)c.asc.data(), c.asc.size(), &got), c.ok) << c.name;
        if (c.ok) {
            EXPECT_EQ(memcmp(&got, &c.want, sizeof got), 0) << c.name;
        }
    }
    // MPEG audio: tags of two frames each come out as single frames.
    Frames mp3 = run_demux(false, read_sample("hevc_mp3.ts")).audio();
    ASSERT_GT(mp3.size(), 10u);
    std::string flv = HEADER;
    for (size_t i = 0; i + 1 < mp3.size(); i += 2)
        flv += tag(8, (uint32_t)i * 26, "\x2e" + mp3[i].data + mp3[i + 1].data);
    Frames out = run_demux(true, flv, 100).audio();
    ASSERT_EQ(out.size(), mp3.size() / 2 * 2);
    for (size_t i = 0; i < out.size(); i++) {
        EXPECT_EQ(out[i].data, mp3[i].data) << i;
        EXPECT_EQ(out[i].info.type, HLS_FRAME_TYPE_AUDIO_MPEG);
        EXPECT_EQ(out[i].info.audio.pts, (i / 2 * 2) * 26 * 90 + (i % 2) * 1152 * 90000 / 44100) << i;
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

    Sample s;
    Frames few(s.video.begin(), s.video.begin() + 30);
    std::string set_up = HEADER + sequence_header(s.sps, s.pps), frames = video_tags(few, {});
    // A tag beyond the size cap is passed over without being kept.
    std::string big = tag(9, 0, std::string("\x27\x01\0\0\0", 5) + be(ES_MAX_FRAME, 4) + std::string(ES_MAX_FRAME, 'A'));
    EXPECT_TRUE(run_demux(true, set_up + big + frames, 65536).video() == few);
    // A writer that leaves PreviousTagSize at 0: every tag that another
    // follows is still taken; the last one cannot be told from damage.
    std::string zero_sizes = HEADER + sequence_header(s.sps, s.pps, 0) + video_tags(few, {}, 0);
    EXPECT_TRUE(run_demux(true, zero_sizes, 1000).video() == Frames(few.begin(), few.end() - 1));
}

} // namespace
