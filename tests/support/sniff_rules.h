// The probe's sniffing rules as a plain re-reading of every byte received so
// far: the reference the fuzz target checks the sniffer against, and the
// full-rescan cost the benchmark compares it with.
#pragma once

#include <stdint.h>
#include <string.h>

#include "hls_demux_stream.h"

// The protocol the `n` accumulated bytes at `b` show, and whether to go on
// receiving.
inline void sniff_rules(const uint8_t *b, size_t n, int32_t &protocol, bool &more)
{
    protocol = HLS_PROTOCOL_UNKNOWN;
    more = true;
    if (n < 3)
        return;
    bool ts = n >= 564;
    for (size_t at = 0; at < n && ts; at += 188)
        ts = b[at] == 0x47;
    if (memcmp(b, "FLV", 3) == 0)
        protocol = HLS_PROTOCOL_FLV;
    else if (ts)
        protocol = HLS_PROTOCOL_TS;
    for (size_t i = 0; protocol == HLS_PROTOCOL_UNKNOWN && i + 7 <= n; ++i)
        if (memcmp(b + i, "#EXTM3U", 7) == 0)
            protocol = HLS_PROTOCOL_M3U8;
    more = protocol == HLS_PROTOCOL_UNKNOWN && n <= 4096;
}
