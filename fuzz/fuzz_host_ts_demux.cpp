// libFuzzer target: the TS demultiplexer fed any bytes in input-chosen pieces.
#include "demux_pieces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    feed_in_pieces(data, size, ts_demux_new, ts_demux_put_data, ts_demux_free);
    return 0;
}
