// The probe's sniffer fed with arbitrary bytes in pieces whose sizes come from
// the input, checked step by step against a plain re-reading of everything
// received so far.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "hls_demux_stream.h"

namespace {
// The decision the sniffer must take on the accumulated bytes: the protocol,
// and whether to go on receiving.
void expected(const std::string &b, int32_t &protocol, bool &more)
{
    size_t n = b.size();
    protocol = HLS_PROTOCOL_UNKNOWN;
    more = true;
    if (n < 3)
        return;
    if (b.compare(0, 3, "FLV") == 0) {
        protocol = HLS_PROTOCOL_FLV;
        more = false;
        return;
    }
    if (n >= 564) {
        bool ts = true;
        for (size_t at = 0; at < n && ts; at += 188)
            ts = (uint8_t)b[at] == 0x47;
        if (ts) {
            protocol = HLS_PROTOCOL_TS;
            more = false;
            return;
        }
    }
    if (n < 7)
        return;
    if (b.find("#EXTM3U") != std::string::npos) {
        protocol = HLS_PROTOCOL_M3U8;
        more = false;
        return;
    }
    more = n <= 4096;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    probe_result probe;
    memset(&probe, 0, sizeof(probe));
    std::string seen;
    size_t at = 0;
    while (at < size) {
        // Each piece: one length byte (1..256 bytes), then the piece itself.
        size_t want = (size_t)data[at++] + 1;
        if (want > size - at)
            want = size - at;
        if (want == 0)
            break;
        seen.append(reinterpret_cast<const char *>(data + at), want);
        size_t taken = protocol_writer((char *)(data + at), 1, want, &probe);
        at += want;
        int32_t protocol;
        bool more;
        expected(seen, protocol, more);
        if (probe.protocol != protocol || (taken == want) != more || (more && taken != want))
            abort();
        if (probe.size != seen.size() || memcmp(probe.data, seen.data(), seen.size()) != 0)
            abort();
        if (!more)
            break;
    }
    free(probe.data);
    return 0;
}
