// Running the reference demultiplexers over sample bytes and recording what
// they hand out, for the test_host_*_demux tests.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "HLSClientLib.h"

struct CapturedFrame {
    frame_info info;
    std::string data;
    bool video() const { return (info.type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY; }
    bool operator==(const CapturedFrame &o) const;
};

struct DemuxRun {
    std::vector<CapturedFrame> frames;
    bool bad_first_argument = false; // a callback's first argument was not the handle
    bool bad_length = false;         // a frame_info length disagreed with the bytes
    std::vector<CapturedFrame> video() const;
    std::vector<CapturedFrame> audio() const;
    std::string video_bytes() const;
    std::string audio_bytes() const;
};

// Feeds `bytes` to a new TS (or FLV) demultiplexer in pieces of `piece`
// bytes (0: in one piece), or at the cut offsets given, then frees it.
DemuxRun run_demux(bool flv, const std::string &bytes, size_t piece = 0);
DemuxRun run_demux_cuts(bool flv, const std::string &bytes, const std::vector<size_t> &cuts);

// Frames of `want` found in `got` in the same order; lost or changed ones
// are passed over.
size_t intact_frames(const std::vector<CapturedFrame> &want, const std::vector<CapturedFrame> &got);

std::string read_file(const std::string &path);
// Value recorded for `key` in samples.txt under `root`; empty if absent.
std::string sample_fact(const std::string &root, const std::string &key);

#ifdef HLS_SOURCE_DIR
inline std::string sample_path(const std::string &name) { return std::string(HLS_SOURCE_DIR) + "/tests/data/" + name; }
inline std::string read_sample(const std::string &name) { return read_file(sample_path(name)); }
inline std::string fact(const std::string &key) { return sample_fact(std::string(HLS_SOURCE_DIR) + "/tests/data", key); }
inline long fact_num(const std::string &key) { return std::stol("0" + fact(key)); }
// An HLS variant's segments in order, then its first segment again: its video
// PES packets are unbounded, so only the next unit start ends the last one.
inline std::string read_hls_variant(const std::string &name)
{
    std::string s;
    for (long i = 0; i < fact_num("hls/" + name + ".segments"); i++)
        s += read_sample("hls/" + name + "/seg" + std::to_string(i) + ".ts");
    return s + read_sample("hls/" + name + "/seg0.ts");
}
#endif
