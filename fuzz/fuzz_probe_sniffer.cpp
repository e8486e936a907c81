// The probe's sniffer fed with arbitrary bytes in pieces whose sizes come from
// the input, checked step by step against a plain re-reading of everything
// received so far.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "sniff_rules.h"

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
        sniff_rules((const uint8_t *)seen.data(), seen.size(), protocol, more);
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
