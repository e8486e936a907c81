// A demultiplexer that only counts the bytes pushed into it, for the
// benchmarks and the fuzz targets of the library (not linked into the tests).
#pragma once
#include <stdint.h>

#include <atomic>

extern std::atomic<uint64_t> g_counted_bytes;
