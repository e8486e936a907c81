// A demultiplexer for benchmarks that only counts the bytes pushed into it.
#pragma once
#include <stdint.h>

#include <atomic>

extern std::atomic<uint64_t> g_counted_bytes;
