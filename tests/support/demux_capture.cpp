#include "demux_capture.h"

#include <string.h>

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
    if (first != r->handle)
        r->run->bad_first_argument = true;
    CapturedFrame f;
    f.info = *info;
    uint32_t len = f.video() ? info->video.length : info->audio.length;
    if (len == 0 || !data)
        r->run->bad_length = true;
    else
        f.data.assign(reinterpret_cast<const char *>(data), len);
    r->run->frames.push_back(std::move(f));
    return 0;
}

} // namespace

bool CapturedFrame::operator==(const CapturedFrame &o) const
{
    return memcmp(&info, &o.info, sizeof info) == 0 && data == o.data;
}

std::vector<CapturedFrame> DemuxRun::video() const
{
    std::vector<CapturedFrame> out;
    for (const CapturedFrame &f : frames)
        if (f.video())
            out.push_back(f);
    return out;
}

std::vector<CapturedFrame> DemuxRun::audio() const
{
    std::vector<CapturedFrame> out;
    for (const CapturedFrame &f : frames)
        if (!f.video())
            out.push_back(f);
    return out;
}

std::string DemuxRun::video_bytes() const
{
    std::string s;
    for (const CapturedFrame &f : frames)
        if (f.video())
            s += f.data;
    return s;
}

std::string DemuxRun::audio_bytes() const
{
    std::string s;
    for (const CapturedFrame &f : frames)
        if (!f.video())
            s += f.data;
    return s;
}

DemuxRun run_demux_cuts(bool flv, const std::string &bytes, const std::vector<size_t> &cuts)
{
    DemuxRun run;
    Recorder rec;
    rec.run = &run;
    rec.handle = flv ? flv_demux_new(record, &rec) : ts_demux_new(record, &rec);
    size_t from = 0;
    std::vector<size_t> ends = cuts;
    ends.push_back(bytes.size());
    for (size_t end : ends) {
        if (end < from || end > bytes.size())
            continue;
        const uint8_t *p = reinterpret_cast<const uint8_t *>(bytes.data()) + from;
        if (flv)
            flv_demux_put_data(rec.handle, p, (uint32_t)(end - from));
        else
            ts_demux_put_data(rec.handle, p, (uint32_t)(end - from));
        from = end;
    }
    if (flv)
        flv_demux_free(rec.handle);
    else
        ts_demux_free(rec.handle);
    return run;
}

DemuxRun run_demux(bool flv, const std::string &bytes, size_t piece)
{
    std::vector<size_t> cuts;
    for (size_t at = piece; piece && at < bytes.size(); at += piece)
        cuts.push_back(at);
    return run_demux_cuts(flv, bytes, cuts);
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
