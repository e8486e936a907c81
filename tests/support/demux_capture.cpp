#include "demux_capture.h"

#include <string.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "hls_host_demux.h"

namespace {

int32_t record(void *first, frame_info *info, uint8_t *data, void *user)
{
    DemuxRun *run = static_cast<DemuxRun *>(user);
    CapturedFrame f{*info, {}};
    uint32_t len = f.video() ? info->video.length : info->audio.length;
    run->bad_call |= first != run->handle || len == 0 || !data;
    if (len && data)
        f.data.assign(reinterpret_cast<const char *>(data), len);
    run->frames.push_back(std::move(f));
    return 0;
}

} // namespace

bool CapturedFrame::operator==(const CapturedFrame &o) const
{
    return memcmp(&info, &o.info, sizeof info) == 0 && data == o.data;
}

Frames DemuxRun::of_kind(bool video) const
{
    Frames out;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(out),
                 [&](const CapturedFrame &f) { return f.video() == video; });
    return out;
}

DemuxRun run_demux(bool flv, const std::string &bytes, size_t piece)
{
    DemuxRun run;
    run.handle = flv ? flv_demux_new(record, &run) : ts_demux_new(record, &run);
    auto put = flv ? flv_demux_put_data : ts_demux_put_data;
    const uint8_t *data = reinterpret_cast<const uint8_t *>(bytes.data());
    const size_t step = piece ? piece : bytes.size();
    for (size_t at = 0; at < bytes.size(); at += step)
        put(run.handle, data + at, (uint32_t)std::min(step, bytes.size() - at));
    (flv ? flv_demux_free : ts_demux_free)(run.handle);
    return run;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
