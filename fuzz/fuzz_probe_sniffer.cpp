// The probe's sniffer fed with arbitrary bytes in pieces whose sizes come from
// the input, checked step by step against a plain re-reading of everything
// received so far.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "sniff_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    probe_result probe;
    memset(&probe, 0, sizeof(probe));
    std::string seen;
    // Each piece: 1 to 256 bytes, as many as the input chooses.
    for (std::string piece; !(piece = in.ConsumeBytesAsString(in.ConsumeIntegral<uint8_t>() + 1)).empty();) {
        seen += piece;
        size_t taken = protocol_writer(&piece[0], 1, piece.size(), &probe);
        int32_t protocol;
        bool more;
        sniff_rules((const uint8_t *)seen.data(), seen.size(), protocol, more);
        if (probe.protocol != protocol || (taken == piece.size()) != more)
            abort();
        if (probe.size != seen.size() || memcmp(probe.data, seen.data(), seen.size()) != 0)
            abort();
        if (!more)
            break;
    }
    free(probe.data);
    return 0;
}
