// libFuzzer target: the FLV demultiplexer fed any bytes in input-chosen pieces.
#include "demux_pieces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    feed_in_pieces(data, size, flv_demux_new, flv_demux_put_data, flv_demux_free);
    return 0;
}
