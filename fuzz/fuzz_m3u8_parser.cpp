// Both parse operations over arbitrary text, checking the records' invariants.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "hls_m3u8.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    M3U8Parser parser;
    MasterM3UPlaylist master = parser.parseMaster("http://fuzz.example/live/index.m3u8", text);
    M3UTSPlaylist media = parser.parse("http://fuzz.example/live/index.m3u8", text);
    for (size_t i = 0; i < master.playlists.size(); ++i)
        if (master.playlists[i].index != i)
            abort();
    uint64_t elapsed = 0;
    for (const M3UTSItem &item : media.items) {
        if (item.startNs != elapsed || item.endNs != item.startNs + item.durationNs || item.uri.empty())
            abort();
        elapsed += item.durationNs;
    }
    if (!media.items.empty() && !media.valid)
        abort();
    return 0;
}
