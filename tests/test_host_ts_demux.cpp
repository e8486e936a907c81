// Reference MPEG-TS demultiplexer: the frame rate comes from the best source
// at hand, audio frames cut across PES packets keep their bytes and time
// stamps, and damaged input loses only the frames it damages. The recorded
// samples themselves are checked in test_host_demux_samples.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "demux_capture.h"
#include "es_builders.h"
#include "es_parse.h"
#include "hls_host_demux.h"

namespace {

const size_t PKT = 188;
const uint16_t VIDEO_PID = 0x100, AUDIO_PID = 0x101, PMT_PID = 0x1000;
using Packets = std::vector<std::string>;

uint16_t pid_of(const std::string &p) { return (uint16_t)(((p[1] & 0x1f) << 8) | (uint8_t)p[2]); }
bool unit_start(const std::string &p) { return p[1] & 0x40; }
size_t header_size(const std::string &p) { return 4 + ((p[3] & 0x20) ? 1 + (uint8_t)p[4] : 0); }

Packets packets(const std::string &ts)
{
    Packets out;
    for (size_t i = 0; i + PKT <= ts.size(); i += PKT)
        out.push_back(ts.substr(i, PKT));
    return out;
}

std::string join(const Packets &pkts) { return std::accumulate(pkts.begin(), pkts.end(), std::string()); }

// PTS of the PES that starts in packet p.
uint64_t pes_pts(const std::string &p)
{
    const uint8_t *q = reinterpret_cast<const uint8_t *>(p.data()) + header_size(p);
    return ((uint64_t)(q[9] & 0x0e) << 29) | (q[10] << 22) | ((q[11] & 0xfe) << 14) | (q[12] << 7) | (q[13] >> 1);
}

// Packs one PES into TS packets; a bounded PES declares its length.
std::string pes_packets(uint16_t pid, uint8_t stream_id, uint64_t pts, const std::string &payload, bool bounded,
                        uint8_t &cc)
{
    std::string pes = std::string("\0\0\1", 3) + (char)stream_id + std::string(2, '\0') + "\x80\x80\x05" +
                      (char)(0x21 | ((pts >> 29) & 0x0e)) + (char)(pts >> 22) + (char)(((pts >> 14) & 0xfe) | 1) +
                      (char)(pts >> 7) + (char)(((pts << 1) & 0xfe) | 1) + payload;
    size_t len = bounded ? pes.size() - 6 : 0;
    pes[4] = (char)(len >> 8);
    pes[5] = (char)len;
    std::string out;
    for (size_t at = 0; at < pes.size();) {
        size_t n = std::min<size_t>(184, pes.size() - at);
        std::string p = {0x47, (char)((at == 0 ? 0x40 : 0) | (pid >> 8)), (char)pid, (char)(0x10 | (cc++ & 15))};
        if (n < 184) {
            p[3] = (char)(p[3] | 0x20);
            p += (char)(183 - n);
            if (n < 183)
                p += '\0' + std::string(182 - n, '\xff');
        }
        out += p + pes.substr(at, n);
        at += n;
    }
    return out;
}

// PAT and PMT packets of the sample (video 0x100 H.264, audio 0x101 AAC).
std::string program_tables()
{
    Packets pkts = packets(read_sample("stream.ts"));
    auto first = [&](uint16_t pid) { return *std::find_if(pkts.begin(), pkts.end(), [&](auto &p) { return pid_of(p) == pid; }); };
    return first(0) + first(PMT_PID);
}

TEST(TsDemuxFrameRate, ComesFromParameterSetTimingElseTimeStampSpacing)
{
    // The samples' own parameter sets give their first key frames a rate
    // (see test_host_demux_samples); these cover the other shapes.
    struct Case { const char *name; std::string sps; uint32_t milli; } cases[] = {
        {"baseline 30000/1001", h264_sps(66, 2, 1001, 60000), 29970},
        {"high with scaling list 50/1", h264_sps(100, 2, 1, 50), 25000},
        {"no VUI", h264_sps(66, 0), 0},
        {"VUI without timing", h264_sps(100, 1), 0},
        {"cut before the timing", h264_sps(66, 2, 1001, 60000).substr(0, 12), 0},
        {"zero ticks", h264_sps(66, 2, 0, 50), 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(es_h264_sps_rate((const uint8_t *)c.sps.data(), c.sps.size()), c.milli) << c.name;

    // A stream without timing information: the spacing of time stamps
    // (3003 ticks, 29.97 frames per second) gives the rate.
    std::string idr = std::string("\0\0\0\1\x09\xf0\0\0\0\1", 10) + h264_sps(66, 0) +
                      std::string("\0\0\0\1\x68\xce\x38\x80\0\0\0\1\x65\x88\x84", 15);
    std::string other = std::string("\0\0\0\1\x09\x30\0\0\0\1\x41\x9a\x02", 13), ts = program_tables();
    uint8_t cc = 0;
    for (int i = 0; i < 41; i++)
        ts += pes_packets(VIDEO_PID, 0xe0, 90000 + i * 3003, i % 20 ? other : idr, true, cc);
    Frames v = run_demux(false, ts).video();
    ASSERT_EQ(v.size(), 41u);
    for (int i : {0, 20, 40}) { // nothing to measure at the first
        EXPECT_EQ(v[i].info.type, HLS_FRAME_TYPE_VIDEO_KEY);
        EXPECT_EQ((uint32_t)(v[i].info.video.frame_rate * 1000 + v[i].info.video.frame_rate_frac), i ? 29970u : 0u) << i;
    }
}

TEST(TsDemuxContinuity, LostOrDamagedPacketDropsExactlyThePesItHits)
{
    // Video PES packets with lengths (the TS file) and without (HLS).
    for (bool bounded : {true, false}) {
        SCOPED_TRACE(bounded ? "bounded" : "unbounded");
        Packets pkts = packets(bounded ? read_sample("stream.ts") : read_hls_variant("high"));
        DemuxRun base = run_demux(false, join(pkts));
        // Indexes of the packets of the nth PES on a PID.
        auto pes_of = [&](uint16_t pid, size_t nth) {
            std::vector<size_t> at;
            for (size_t i = 0, seen = 0; i < pkts.size(); i++)
                if (pid_of(pkts[i]) == pid && (seen += unit_start(pkts[i])) == nth + 1)
                    at.push_back(i);
            return at;
        };
        std::vector<size_t> v = pes_of(VIDEO_PID, 9), a;
        size_t k = std::count_if(pkts.begin(), pkts.end(), [](auto &p) { return unit_start(p) && pid_of(p) == AUDIO_PID; }) / 2;
        while ((a = pes_of(AUDIO_PID, k)).size() < 2) // past the first segment, which HLS input repeats
            k++;
        uint64_t a_from = pes_pts(pkts[a[0]]), a_to = pes_pts(pkts[pes_of(AUDIO_PID, k + 1)[0]]);
        ASSERT_GE(v.size(), 2u);

        Frames without_9 = base.video(), short_9 = base.video(), a_kept;
        without_9.erase(without_9.begin() + 9);
        for (const CapturedFrame &f : base.audio())
            if (f.info.audio.pts < a_from || f.info.audio.pts >= a_to)
                a_kept.push_back(f);
        ASSERT_LT(a_kept.size(), base.audio().size());
        // Nothing tells an unbounded PES that lost its tail from a whole one:
        // it goes out short by that packet's payload.
        size_t tail = PKT - header_size(pkts[v.back()]);
        short_9[9].data.resize(short_9[9].data.size() - tail);
        short_9[9].info.video.length -= (uint32_t)tail;

        // What happens to packet `at`: lost, flagged with a transport error, or sent twice.
        struct Case { const char *name; size_t at; char damage; Frames video, audio; } cases[] = {
            {"video packet lost inside a PES", v[1], 'x', without_9, base.audio()},
            {"last packet of a video PES lost", v.back(), 'x', bounded ? without_9 : short_9, base.audio()},
            {"transport error flagged inside a video PES", v[1], 'e', without_9, base.audio()},
            {"audio packet lost inside a PES", a[1], 'x', base.video(), a_kept},
            {"duplicate packet", v[1], 'd', base.video(), base.audio()},
        };
        for (const Case &c : cases) {
            Packets damaged = pkts;
            if (c.damage == 'e')
                damaged[c.at][1] |= (char)0x80;
            else if (c.damage == 'd')
                damaged.insert(damaged.begin() + c.at, pkts[c.at]);
            else
                damaged.erase(damaged.begin() + c.at);
            DemuxRun run = run_demux(false, join(damaged), 1000);
            EXPECT_TRUE(run.video() == c.video) << c.name;
            EXPECT_TRUE(run.audio() == c.audio) << c.name;
        }
    }
}

TEST(TsDemuxAudio, FramesCutAcrossPesPacketsKeepTheirBytesAndTimeStamps)
{
    Frames frames = run_demux(false, read_sample("stream.ts")).audio();
    // Damaged bytes that look like an ADTS header come first: the frame
    // they announce is not followed by another, so they are passed over.
    std::string es = frames[0].data.substr(0, 3) + std::string("\x06\x40\x1f\xfc", 4);
    std::vector<size_t> starts;
    for (const CapturedFrame &f : frames)
        starts.push_back(es.size()), es += f.data;
    // PES packets of odd sizes, cut anywhere in the frames; some too small
    // to hold the start of a frame.
    std::string ts = program_tables();
    uint8_t cc = 0;
    std::vector<std::pair<size_t, uint64_t>> pes; // start offset, pts
    for (size_t at = 0, i = 0; at < es.size(); i++) {
        size_t n = std::min<size_t>(es.size() - at, i % 7 == 3 ? 60 : 700 + 337 * (i % 5));
        pes.push_back({at, 500000 + i * 7777});
        ts += pes_packets(AUDIO_PID, 0xc0, pes.back().second, es.substr(at, n), true, cc);
        at += n;
    }
    Frames out = run_demux(false, ts, 97).audio();
    ASSERT_EQ(out.size(), frames.size());
    size_t prev = pes.size();
    uint64_t base = 0, counted = 0;
    for (size_t i = 0; i < out.size(); i++, counted++) {
        EXPECT_EQ(out[i].data, frames[i].data) << i;
        size_t p = 0; // the PES in which frame i starts
        while (p + 1 < pes.size() && pes[p + 1].first <= starts[i])
            p++;
        if (p != prev) // the first frame starting in a PES takes its pts
            base = pes[p].second, counted = 0, prev = p;
        EXPECT_EQ(out[i].info.audio.pts, (uint32_t)(base + counted * 1024 * 90000 / 44100)) << i;
    }
}

TEST(TsDemuxDamage, GarbageBadTablesAndOversizedPesGiveNoFrames)
{
    std::mt19937 rng(7);
    std::string noise(400000, '\0'), fake_sync(400000, '\0');
    for (size_t i = 0; i < noise.size(); i++)
        noise[i] = (char)rng(), fake_sync[i] = i % PKT == 0 ? 0x47 : (char)rng();
    for (const std::string *g : {&noise, &fake_sync})
        EXPECT_EQ(run_demux(false, *g, 1 + rng() % 5000).frames.size(), 0u);
    // A PMT whose CRC does not match is not applied: no streams, no frames.
    Packets pkts = packets(read_sample("stream.ts"));
    for (std::string &p : pkts)
        if (pid_of(p) == PMT_PID)
            p[4 + 1 + 12] ^= 0x3f; // the first stream type
    EXPECT_EQ(run_demux(false, join(pkts)).frames.size(), 0u);

    // An unbounded video PES beyond the size cap is dropped; the next is not.
    std::string big(ES_MAX_FRAME + 1000, '\x11'), small = std::string("\0\0\0\1\x09\x30\0\0\0\1\x41\x9a", 12);
    std::string ts = program_tables();
    uint8_t cc = 0;
    for (uint64_t pts : {1000, 4600, 8200})
        ts += pes_packets(VIDEO_PID, 0xe0, pts, pts == 1000 ? big : small, false, cc);
    Frames v = run_demux(false, ts, 65536).video();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(v[0].data, small);
    EXPECT_EQ(v[0].info.video.pts, 4600u);
}

} // namespace
