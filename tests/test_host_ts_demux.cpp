// Reference MPEG-TS demultiplexer: the sample streams give the recorded
// elementary streams in any split, frame descriptions follow the stream,
// and damaged input loses only the frames it damages.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>

#include "demux_capture.h"
#include "es_builders.h"
#include "es_parse.h"
#include "hls_host_demux.h"
#include "sha256.h"

namespace {

const size_t PKT = 188;
const uint16_t VIDEO_PID = 0x100, AUDIO_PID = 0x101, PMT_PID = 0x1000;

uint16_t pid_of(const std::string &p) { return (uint16_t)(((p[1] & 0x1f) << 8) | (uint8_t)p[2]); }
bool unit_start(const std::string &p) { return p[1] & 0x40; }

std::vector<std::string> packets(const std::string &ts)
{
    std::vector<std::string> out;
    for (size_t i = 0; i + PKT <= ts.size(); i += PKT)
        out.push_back(ts.substr(i, PKT));
    return out;
}

std::string join(const std::vector<std::string> &pkts)
{
    std::string s;
    for (const std::string &p : pkts)
        s += p;
    return s;
}

// PTS of the PES that starts in packet p.
uint64_t pes_pts(const std::string &p)
{
    const uint8_t *q = reinterpret_cast<const uint8_t *>(p.data());
    size_t off = 4 + ((q[3] & 0x20) ? 1 + q[4] : 0);
    q += off;
    return ((uint64_t)(q[9] & 0x0e) << 29) | (q[10] << 22) | ((q[11] & 0xfe) << 14) | (q[12] << 7) | (q[13] >> 1);
}

// An HLS variant's segments in order, then its first segment again: its
// video PES packets are unbounded, so the next unit start ends the last one.
std::string hls_variant(const std::string &name, int segments)
{
    std::string s;
    for (int i = 0; i < segments; i++)
        s += read_sample("hls/" + name + "/seg" + std::to_string(i) + ".ts");
    return s + read_sample("hls/" + name + "/seg0.ts");
}

std::string ts_pts(uint64_t pts)
{
    return {(char)(0x21 | ((pts >> 29) & 0x0e)), (char)(pts >> 22), (char)(((pts >> 14) & 0xfe) | 1),
            (char)(pts >> 7), (char)(((pts << 1) & 0xfe) | 1)};
}

// Packs one PES into TS packets; a bounded PES declares its length.
std::string pes_packets(uint16_t pid, uint8_t stream_id, uint64_t pts, const std::string &payload, bool bounded,
                        uint8_t &cc)
{
    std::string pes = std::string("\0\0\1", 3) + (char)stream_id + std::string(2, '\0') + "\x80\x80\x05" +
                      ts_pts(pts) + payload;
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
    std::string pat, pmt;
    for (const std::string &p : packets(read_sample("stream.ts"))) {
        if (pid_of(p) == 0 && pat.empty())
            pat = p;
        if (pid_of(p) == PMT_PID && pmt.empty())
            pmt = p;
    }
    return pat + pmt;
}

std::string first_nal(const std::string &au, int type, bool hevc)
{
    for (size_t at = au.find(std::string("\0\0\1", 3)); at != std::string::npos;) {
        size_t next = au.find(std::string("\0\0\1", 3), at + 3);
        std::string nal = au.substr(at + 3, next == std::string::npos ? std::string::npos : next - at - 3);
        int t = hevc ? (nal[0] >> 1) & 0x3f : nal[0] & 0x1f;
        if (t == type)
            return nal.substr(0, nal.find_last_not_of('\0') + 1);
        at = next;
    }
    return "";
}

struct Sample {
    const char *key;
    std::string bytes;
    uint32_t samples_per_audio_frame;
};

std::vector<Sample> samples()
{
    return {{"stream.ts", read_sample("stream.ts"), 1024},
            {"hevc_mp3.ts", read_sample("hevc_mp3.ts") + read_sample("hevc_mp3.ts"), 1152},
            {"hls/high", hls_variant("high", (int)fact_num("hls/high.segments")), 1024},
            {"hls/low", hls_variant("low", (int)fact_num("hls/low.segments")), 1024}};
}

TEST(TsDemuxSamples, GiveTheRecordedStreamsWholeAndAtEverySplitSize)
{
    for (const Sample &s : samples()) {
        SCOPED_TRACE(s.key);
        std::string k = s.key;
        size_t nv = fact_num(k + ".video_frames"), na = fact_num(k + ".audio_frames");
        ASSERT_GT(nv, 0u);
        DemuxRun whole = run_demux(false, s.bytes);
        EXPECT_FALSE(whole.bad_first_argument || whole.bad_length);
        std::vector<CapturedFrame> v = whole.video(), a = whole.audio();
        ASSERT_GE(v.size(), nv);
        ASSERT_GE(a.size(), na);
        if (k == "stream.ts") { // bounded video PES: nothing waits for a next unit start
            EXPECT_EQ(v.size(), nv);
            EXPECT_EQ(a.size(), na);
        }
        std::string vb, ab;
        size_t keys = 0;
        for (size_t i = 0; i < nv; i++)
            vb += v[i].data, keys += v[i].info.type == HLS_FRAME_TYPE_VIDEO_KEY;
        for (size_t i = 0; i < na; i++)
            ab += a[i].data;
        EXPECT_EQ(sha256_hex(vb), fact(k + ".video_sha256"));
        EXPECT_EQ(sha256_hex(ab), fact(k + ".audio_sha256"));
        EXPECT_EQ(keys, (size_t)fact_num(k + ".key_frames"));
        for (size_t piece = 1; piece <= 64; piece++) {
            DemuxRun split = run_demux(false, s.bytes, piece);
            ASSERT_TRUE(split.frames == whole.frames) << "piece size " << piece;
        }
    }
}

TEST(TsDemuxSamples, FrameDescriptionsFollowTheStream)
{
    for (const Sample &s : samples()) {
        SCOPED_TRACE(s.key);
        std::string k = s.key;
        DemuxRun run = run_demux(false, s.bytes);
        std::vector<CapturedFrame> v = run.video(), a = run.audio();
        size_t nv = fact_num(k + ".video_frames"), na = fact_num(k + ".audio_frames");
        uint32_t first_v = (uint32_t)fact_num(k + ".video_first_pts"), first_a = (uint32_t)fact_num(k + ".audio_first_pts");
        uint32_t rate = (uint32_t)fact_num(k + ".frame_rate");
        for (size_t i = 0; i < nv && i < v.size(); i++) {
            const frame_info &f = v[i].info;
            bool key = i % rate == 0; // one key frame per second
            EXPECT_EQ(f.type, key ? HLS_FRAME_TYPE_VIDEO_KEY : HLS_FRAME_TYPE_VIDEO_OTHER) << i;
            EXPECT_EQ(f.video.frame_rate, key ? rate : 0u) << i;
            EXPECT_EQ(f.video.frame_rate_frac, 0u) << i;
            EXPECT_EQ(f.video.pts, first_v + i * 90000 / rate) << i;
            EXPECT_EQ(f.video.length, v[i].data.size());
        }
        uint32_t audio_type = s.samples_per_audio_frame == 1024 ? HLS_FRAME_TYPE_AUDIO_AAC : HLS_FRAME_TYPE_AUDIO_MPEG;
        for (size_t i = 0; i < na && i < a.size(); i++) {
            EXPECT_EQ(a[i].info.type, audio_type);
            double want = first_a + i * s.samples_per_audio_frame * 90000.0 / 44100;
            EXPECT_NEAR(a[i].info.audio.pts, want, 2.0) << i;
            EXPECT_EQ(a[i].info.audio.length, a[i].data.size());
        }
    }
}

TEST(TsDemuxFrameRate, ComesFromParameterSetTimingElseTimeStampSpacing)
{
    // Timing information of the samples' own parameter sets.
    std::string h264_key = run_demux(false, read_sample("stream.ts")).video()[0].data;
    std::string sps = first_nal(h264_key, 7, false);
    EXPECT_EQ(es_h264_sps_rate((const uint8_t *)sps.data(), sps.size()), 25000u);
    std::string hevc_key = run_demux(false, read_sample("hevc_mp3.ts")).video()[0].data;
    std::string hsps = first_nal(hevc_key, 33, true);
    EXPECT_EQ(es_h265_sps_rate((const uint8_t *)hsps.data(), hsps.size()), 25000u);

    struct Case {
        const char *name;
        std::string sps;
        uint32_t milli;
    } cases[] = {
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
    std::string other = std::string("\0\0\0\1\x09\x30\0\0\0\1\x41\x9a\x02", 13);
    std::string ts = program_tables();
    uint8_t cc = 0;
    for (int i = 0; i < 41; i++)
        ts += pes_packets(VIDEO_PID, 0xe0, 90000 + i * 3003, i % 20 ? other : idr, true, cc);
    std::vector<CapturedFrame> v = run_demux(false, ts).video();
    ASSERT_EQ(v.size(), 41u);
    EXPECT_EQ(v[0].info.type, HLS_FRAME_TYPE_VIDEO_KEY);
    EXPECT_EQ(v[0].info.video.frame_rate, 0u); // nothing to measure yet
    for (int i : {20, 40}) {
        EXPECT_EQ(v[i].info.type, HLS_FRAME_TYPE_VIDEO_KEY);
        EXPECT_EQ(v[i].info.video.frame_rate, 29u);
        EXPECT_EQ(v[i].info.video.frame_rate_frac, 970u);
    }
}

TEST(TsDemuxContinuity, LostOrDamagedPacketDropsExactlyThePesItHits)
{
    // Video PES packets with lengths (the TS file) and without (HLS).
    for (bool bounded : {true, false}) {
    SCOPED_TRACE(bounded ? "bounded" : "unbounded");
    std::vector<std::string> pkts = packets(bounded ? read_sample("stream.ts") : hls_variant("high", 6));
    DemuxRun base = run_demux(false, join(pkts));
    // Packet indexes: the 10th video unit start, the packet after it on the
    // same PID, the last packet of that PES; and an audio PES of 2+ packets.
    std::vector<size_t> vstarts, astarts;
    for (size_t i = 0; i < pkts.size(); i++)
        if (unit_start(pkts[i]) && pid_of(pkts[i]) == VIDEO_PID)
            vstarts.push_back(i);
        else if (unit_start(pkts[i]) && pid_of(pkts[i]) == AUDIO_PID)
            astarts.push_back(i);
    ASSERT_GT(vstarts.size(), 12u);
    auto next_on = [&](size_t from, uint16_t pid) {
        for (size_t i = from + 1; i < pkts.size(); i++)
            if (pid_of(pkts[i]) == pid)
                return i;
        return pkts.size();
    };
    size_t v_mid = next_on(vstarts[9], VIDEO_PID), v_last = vstarts[10];
    while (pid_of(pkts[--v_last]) != VIDEO_PID) {
    }
    ASSERT_FALSE(unit_start(pkts[v_mid]));
    size_t k = astarts.size() / 2; // past the first segment, which HLS input repeats
    while (!(next_on(astarts[k], AUDIO_PID) < astarts[k + 1]))
        k++;
    size_t a_mid = next_on(astarts[k], AUDIO_PID);
    uint64_t a_from = pes_pts(pkts[astarts[k]]), a_to = pes_pts(pkts[astarts[k + 1]]);

    auto without_video = [&](size_t index) {
        std::vector<CapturedFrame> v = base.video();
        v.erase(v.begin() + (ptrdiff_t)index);
        return v;
    };
    std::vector<CapturedFrame> a_kept;
    for (const CapturedFrame &f : base.audio())
        if (f.info.audio.pts < a_from || f.info.audio.pts >= a_to)
            a_kept.push_back(f);
    ASSERT_LT(a_kept.size(), base.audio().size());

    struct Case {
        const char *name;
        std::function<void(std::vector<std::string> &)> damage;
        std::vector<CapturedFrame> video, audio;
    } cases[] = {
        {"video packet lost inside a PES", [&](auto &p) { p.erase(p.begin() + (ptrdiff_t)v_mid); },
         without_video(9), base.audio()},
        {"last packet of a bounded video PES lost", [&](auto &p) { p.erase(p.begin() + (ptrdiff_t)v_last); },
         without_video(9), base.audio()},
        {"transport error flagged inside a video PES", [&](auto &p) { p[v_mid][1] = (char)(p[v_mid][1] | 0x80); },
         without_video(9), base.audio()},
        {"audio packet lost inside a PES", [&](auto &p) { p.erase(p.begin() + (ptrdiff_t)a_mid); }, base.video(),
         a_kept},
        {"duplicate packet", [&](auto &p) { p.insert(p.begin() + (ptrdiff_t)v_mid, p[v_mid]); }, base.video(),
         base.audio()},
    };
    for (const Case &c : cases) {
        std::vector<std::string> damaged = pkts;
        c.damage(damaged);
        DemuxRun run = run_demux(false, join(damaged), 1000);
        std::vector<CapturedFrame> v = run.video();
        if (!bounded && std::string(c.name).find("last packet") != std::string::npos) {
            // Nothing tells an unbounded PES that lost its tail from a whole
            // one: it goes out short, and every other frame is untouched.
            ASSERT_EQ(v.size(), base.video().size());
            EXPECT_EQ(base.video()[9].data.compare(0, v[9].data.size(), v[9].data), 0);
            EXPECT_LT(v[9].data.size(), base.video()[9].data.size());
            v[9] = base.video()[9];
            EXPECT_TRUE(v == base.video());
        } else {
            EXPECT_TRUE(v == c.video) << c.name;
        }
        EXPECT_TRUE(run.audio() == c.audio) << c.name;
    }
    }
}

TEST(TsDemuxAudio, FramesCutAcrossPesPacketsKeepTheirBytesAndTimeStamps)
{
    std::vector<CapturedFrame> frames = run_demux(false, read_sample("stream.ts")).audio();
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
    std::vector<CapturedFrame> out = run_demux(false, ts, 97).audio();
    ASSERT_EQ(out.size(), frames.size());
    size_t prev = pes.size();
    uint64_t base = 0, counted = 0;
    for (size_t i = 0; i < out.size(); i++) {
        EXPECT_EQ(out[i].data, frames[i].data) << i;
        size_t p = 0; // the PES in which frame i starts
        while (p + 1 < pes.size() && pes[p + 1].first <= starts[i])
            p++;
        if (p != prev) // the first frame starting in a PES takes its pts
            base = pes[p].second, counted = 0, prev = p;
        EXPECT_EQ(out[i].info.audio.pts, (uint32_t)(base + counted * 1024 * 90000 / 44100)) << i;
        counted++;
    }
}

TEST(TsDemuxDamage, TruncatedInputGivesAPrefixOfTheFrames)
{
    std::string ts = read_sample("stream.ts");
    DemuxRun whole = run_demux(false, ts);
    size_t last = 0;
    for (size_t len = 0; len <= ts.size(); len += ts.size() / 37 + 1) {
        DemuxRun run = run_demux(false, ts.substr(0, len), 61);
        ASSERT_LE(run.frames.size(), whole.frames.size());
        EXPECT_TRUE(std::equal(run.frames.begin(), run.frames.end(), whole.frames.begin())) << len;
        EXPECT_GE(run.frames.size(), last);
        last = run.frames.size();
    }
    EXPECT_GT(last, whole.frames.size() / 2);
}

TEST(TsDemuxDamage, FlippedBytesLoseAtMostTheTwoPesPacketsNearEach)
{
    std::vector<std::string> pkts = packets(read_sample("stream.ts"));
    DemuxRun base = run_demux(false, join(pkts));
    // Most audio frames in one PES, from the PES time stamps.
    std::vector<uint64_t> apts;
    for (const std::string &p : pkts)
        if (unit_start(p) && pid_of(p) == AUDIO_PID)
            apts.push_back(pes_pts(p));
    size_t per_pes = 0;
    for (size_t k = 0; k + 1 < apts.size(); k++) {
        size_t n = 0;
        for (const CapturedFrame &f : base.audio())
            n += f.info.audio.pts >= apts[k] && f.info.audio.pts < apts[k + 1];
        per_pes = std::max(per_pes, n);
    }
    std::mt19937 rng(20240611);
    const int flips = 6;
    for (int trial = 0; trial < 12; trial++) {
        std::string ts = join(pkts);
        for (int i = 0; i < flips; i++)
            ts[rng() % ts.size()] ^= (char)(1 + rng() % 255);
        DemuxRun run = run_demux(false, ts, 1 + rng() % 3000);
        EXPECT_FALSE(run.bad_first_argument || run.bad_length);
        auto intact = [](const std::vector<CapturedFrame> &want, const std::vector<CapturedFrame> &got) {
            size_t n = 0, j = 0;
            for (const CapturedFrame &f : want) { // in order, skipping lost or damaged ones
                size_t k = j;
                while (k < got.size() && !(got[k] == f))
                    k++;
                if (k < got.size())
                    n++, j = k + 1;
            }
            return n;
        };
        EXPECT_GE(intact(base.video(), run.video()) + 2 * flips, base.video().size()) << trial;
        EXPECT_GE(intact(base.audio(), run.audio()) + 2 * flips * per_pes, base.audio().size()) << trial;
    }
}

TEST(TsDemuxDamage, GarbageAndOversizedPesGiveNoFrames)
{
    std::mt19937 rng(7);
    std::string noise(400000, '\0'), fake_sync(400000, '\0');
    for (size_t i = 0; i < noise.size(); i++)
        noise[i] = (char)rng(), fake_sync[i] = i % PKT == 0 ? 0x47 : (char)rng();
    for (const std::string *g : {&noise, &fake_sync})
        EXPECT_EQ(run_demux(false, *g, 1 + rng() % 5000).frames.size(), 0u);
    // A PMT whose CRC does not match is not applied: no streams, no frames.
    std::vector<std::string> pkts = packets(read_sample("stream.ts"));
    for (std::string &p : pkts)
        if (pid_of(p) == PMT_PID)
            p[4 + 1 + 12] ^= 0x3f; // the first stream type
    EXPECT_EQ(run_demux(false, join(pkts)).frames.size(), 0u);

    // An unbounded video PES beyond the size cap is dropped; the next is not.
    std::string big(ES_MAX_FRAME + 1000, '\x11'), small = std::string("\0\0\0\1\x09\x30\0\0\0\1\x41\x9a", 12);
    std::string ts = program_tables();
    uint8_t cc = 0;
    ts += pes_packets(VIDEO_PID, 0xe0, 1000, big, false, cc);
    ts += pes_packets(VIDEO_PID, 0xe0, 4600, small, false, cc);
    ts += pes_packets(VIDEO_PID, 0xe0, 8200, small, false, cc);
    std::vector<CapturedFrame> v = run_demux(false, ts, 65536).video();
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(v[0].data, small);
    EXPECT_EQ(v[0].info.video.pts, 4600u);
}

TEST(TsDemuxResync, NewStreamAfterACutTransferComesThroughWhole)
{
    for (bool bounded : {true, false}) {
    std::string ts = bounded ? read_sample("stream.ts") : hls_variant("high", 6);
    DemuxRun base = run_demux(false, ts);
    for (size_t cut : {PKT * 700 + 100, PKT * 1200, PKT * 1500 + 1, PKT * 333 + 187}) {
        DemuxRun run = run_demux(false, ts.substr(0, cut) + ts, 4096);
        ASSERT_GE(run.frames.size(), base.frames.size()) << cut;
        size_t head = run.frames.size() - base.frames.size();
        DemuxRun before;
        before.frames.assign(run.frames.begin(), run.frames.begin() + (ptrdiff_t)head);
        std::vector<CapturedFrame> v = before.video(), a = before.audio(), bv = base.video(), ba = base.audio();
        // A cut right at a packet boundary leaves no trace in the bytes: an
        // unbounded video PES in progress then goes out short.
        if (!bounded && cut % PKT == 0 && !v.empty() && !(v.back() == bv[v.size() - 1]) &&
            bv[v.size() - 1].data.compare(0, v.back().data.size(), v.back().data) == 0)
            v.back() = bv[v.size() - 1];
        EXPECT_TRUE(std::equal(v.begin(), v.end(), bv.begin())) << cut;
        EXPECT_TRUE(std::equal(a.begin(), a.end(), ba.begin())) << cut;
        EXPECT_TRUE(std::equal(base.frames.begin(), base.frames.end(), run.frames.begin() + (ptrdiff_t)head)) << cut;
        EXPECT_GT(head, 0u);
    }
    }
}

} // namespace
