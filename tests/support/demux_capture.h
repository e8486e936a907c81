// Running the reference demultiplexers over sample bytes and recording what
// they hand out, and reading the samples and the facts recorded for them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <sstream>
#include <string>
#include <vector>

#include "HLSClientLib.h"

struct CapturedFrame {
    frame_info info;
    std::string data;
    bool video() const { return (info.type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY; }
    bool operator==(const CapturedFrame &o) const;
};

using Frames = std::vector<CapturedFrame>;

struct DemuxRun {
    void *handle = nullptr;
    Frames frames;
    // A callback's first argument was not the handle, or a frame_info length
    // disagreed with the bytes.
    bool bad_call = false;
    Frames of_kind(bool video) const;
    Frames video() const { return of_kind(true); }
    Frames audio() const { return of_kind(false); }
};

// Feeds `bytes` to a new TS (or FLV) demultiplexer in pieces of `piece`
// bytes (0: in one piece), then frees it.
DemuxRun run_demux(bool flv, const std::string &bytes, size_t piece = 0);

std::string read_file(const std::string &path);

#ifdef HLS_SOURCE_DIR
inline std::string read_sample(const std::string &name) { return read_file(HLS_SOURCE_DIR "/tests/data/" + name); }
// Value recorded for `key` in the samples' samples.txt; empty if absent.
inline std::string fact(const std::string &key)
{
    std::istringstream in(read_sample("samples.txt"));
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size() + 1, key + "=") == 0)
            return line.substr(key.size() + 1);
    return "";
}
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
