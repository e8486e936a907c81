// get_absolute_path over arbitrary base/reference pairs (split at the first
// newline). An absolute reference must come back unchanged.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "hls_m3u8.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string input(reinterpret_cast<const char *>(data), size);
    size_t cut = input.find('\n');
    std::string base = cut == std::string::npos ? input : input.substr(0, cut);
    std::string relative = cut == std::string::npos ? std::string() : input.substr(cut + 1);
    std::string result = get_absolute_path(base, relative);
    if (relative.compare(0, 4, "http") == 0 && result != relative)
        abort();
    return 0;
}
