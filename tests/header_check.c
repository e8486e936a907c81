/* Compiled, never run: the exported headers must build warning-free as C99,
 * C11 and C++11 to C++17 (see tests/CMakeLists.txt), and the frame record's
 * fields must be reachable by their documented names in every one of them. */
#include "HLSClientLib.h"
#include "hls_host_demux.h"

uint32_t hls_header_check_length(const frame_info *info);

uint32_t hls_header_check_length(const frame_info *info)
{
    if ((info->type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY)
        return info->video.length + info->video.pts + info->video.frame_rate;
    return info->audio.length + info->audio.pts;
}
