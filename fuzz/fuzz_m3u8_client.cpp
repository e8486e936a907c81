// The playlist client driven by a sequence of operations decoded from the
// input: loads of playlist texts (master and media), pops, refresh checks,
// variant choices and fragment requests.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdlib.h>

#include <string>

#include "hls_buffer.h"
#include "hls_m3u8.h"

namespace {
void load(m3u8_client *client, const std::string &text, bool master)
{
    hls_buffer *buffer = hls_buffer_new(HLS_BUFFER_STEP);
    if (!buffer)
        return;
    hls_buffer_append(buffer, text.data(), (uint32_t)text.size());
    int32_t is_master = -1;
    int32_t result = master ? m3u8_client_load_master_playlist(client, "http://h/live/a.m3u8", buffer, &is_master)
                            : m3u8_client_load_playlist(client, "http://h/live/a.m3u8", buffer);
    if (result < 0 || result > 2 || (master && result == 0 && is_master != 0 && is_master != 1))
        abort();
    hls_buffer_free(buffer);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    m3u8_client *client = m3u8_client_new();
    if (!client)
        return 0;
    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0: load(client, in.ConsumeBytesAsString(in.ConsumeIntegral<uint8_t>()), true); break;
        case 1: load(client, in.ConsumeBytesAsString(in.ConsumeIntegral<uint8_t>()), false); break;
        case 2: {
            tsdata_fragment *front = m3u8_client_get_front_fragment(client);
            if (front) {
                if (m3u8_client_pop_front_fragment(client, front->sequence_no) != 1)
                    abort();
                tsdata_fragment_free(front);
            }
            break;
        }
        case 3: m3u8_client_is_time_to_refresh_playlist(client); break;
        case 4: free(m3u8_client_get_second_playlist_by_bandwidth(client, in.ConsumeIntegralInRange(0, 1))); break;
        case 5: tsdata_fragment_free(m3u8_client_get_back_fragment(client)); break;
        case 6: free(m3u8_client_get_second_playlist(client, in.ConsumeIntegralInRange(0, 3))); break;
        case 7: m3u8_client_pop_front_fragment(client, in.ConsumeIntegral<uint8_t>()); break;
        }
    }
    m3u8_client_free(client);
    return 0;
}
