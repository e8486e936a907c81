#include "demux_capture.h"

#include <string.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "hls_host_demux.h"

namespace {

struct Recorder {
    void *handle = nullptr;
    DemuxRun *run = nullptr;
};

int32_t record(void *first, frame_info *info, uint8_t *data, void *user)
{
    Recorder *r = static_cast<Recorder *>(user);
    r->run->bad_first_argument |= first != r->handle;
    CapturedFrame f{*info, {}};
    uint32_t len = f.video() ? info->video.length : info->audio.length;
    r->run->bad_length |= len == 0 || !data;
    if (len && data)
        f.data.assign(reinterpret_cast<const char *>(data), len);
    r->run->frames.push_back(std::move(f));
    return 0;
}

std::vector<CapturedFrame> of_kind(const std::vector<CapturedFrame> &frames, bool video)
{
    std::vector<CapturedFrame> out;
    for (const CapturedFrame &f : frames)
        if (f.video() == video)
            out.push_back(f);
    return out;
}

std::string joined(const std::vector<CapturedFrame> &frames)
{
    std::string s;
    for (const CapturedFrame &f : frames)
        s += f.data;
    return s;
}

} // namespace

bool CapturedFrame::operator==(const CapturedFrame &o) const
{
    return memcmp(&info, &o.info, sizeof info) == 0 && data == o.data;
}

std::vector<CapturedFrame> DemuxRun::video() const { return of_kind(frames, true); }
std::vector<CapturedFrame> DemuxRun::audio() const { return of_kind(frames, false); }
std::string DemuxRun::video_bytes() const { return joined(video()); }
std::string DemuxRun::audio_bytes() const { return joined(audio()); }

DemuxRun run_demux_cuts(bool flv, const std::string &bytes, const std::vector<size_t> &cuts)
{
    DemuxRun run;
    Recorder rec{nullptr, &run};
    rec.handle = flv ? flv_demux_new(record, &rec) : ts_demux_new(record, &rec);
    int32_t (*put)(void *, const uint8_t *, uint32_t) = flv ? flv_demux_put_data : ts_demux_put_data;
    size_t from = 0;
    std::vector<size_t> ends = cuts;
    ends.push_back(bytes.size());
    for (size_t end : ends) {
        if (end < from || end > bytes.size())
            continue;
        put(rec.handle, reinterpret_cast<const uint8_t *>(bytes.data()) + from, (uint32_t)(end - from));
        from = end;
    }
    (flv ? flv_demux_free : ts_demux_free)(rec.handle);
    return run;
}

DemuxRun run_demux(bool flv, const std::string &bytes, size_t piece)
{
    std::vector<size_t> cuts;
    for (size_t at = piece; piece && at < bytes.size(); at += piece)
        cuts.push_back(at);
    return run_demux_cuts(flv, bytes, cuts);
}

size_t intact_frames(const std::vector<CapturedFrame> &want, const std::vector<CapturedFrame> &got)
{
    size_t n = 0;
    auto from = got.begin();
    for (const CapturedFrame &f : want) {
        auto found = std::find(from, got.end(), f);
        if (found != got.end())
            n++, from = found + 1;
    }
    return n;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string sample_fact(const std::string &root, const std::string &key)
{
    std::istringstream in(read_file(root + "/samples.txt"));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size() + 1, key + "=") == 0)
            return line.substr(key.size() + 1);
    return "";
}
