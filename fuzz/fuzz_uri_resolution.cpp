// get_absolute_path over arbitrary base/reference pairs. An absolute
// reference must come back unchanged.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>

#include <string>

#include "hls_m3u8.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    std::string base = in.ConsumeRandomLengthString();
    std::string relative = in.ConsumeRemainingBytesAsString();
    std::string result = get_absolute_path(base, relative);
    if (relative.compare(0, 4, "http") == 0 && result != relative)
        abort();
    return 0;
}
