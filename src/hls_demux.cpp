#include "hls_demux.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "hls_host_demux.h"
#include "hls_log.h"

/* ======================================================================
 * Channel stream record, download thread, probe and direct TS/FLV paths.
 * ====================================================================== */

/* (channel stream section) */

/* ======================================================================
 * HLS path: holder, frame delivery thread and playback loop.
 *
 * Everything below this banner belongs to the HLS path; the download thread
 * enters it through hls_demux_new once the probe has found a playlist.
 * ====================================================================== */

/* (HLS section: placeholder until the HLS path is built; the download thread
 * ends after the probe for playlists.) */
void hls_demux_new(http_demux *record)
{
    (void)record;
}
