// Helpers that tests and benchmarks share, free of the test framework:
// connect parameters, polling for a condition, and transport-packet filler.
#pragma once

#include <stdio.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "HLSClientLib.h"

using Clock = std::chrono::steady_clock;

inline hls_connect_param make_param(const std::string &url, int32_t low_bandwidth = 0, int32_t timeout = 5)
{
    hls_connect_param param{};
    snprintf(param.url, sizeof(param.url), "%s", url.c_str());
    param.low_bandwidth = low_bandwidth;
    param.connect_timeout = 2;
    param.timeout = timeout;
    return param;
}

inline double seconds_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// Polls `pred` every `poll` until it holds or `timeout` passes; returns its
// last value. Benchmarks poll finely so that the wait does not blur a figure.
inline bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds timeout,
                       std::chrono::microseconds poll = std::chrono::milliseconds(2))
{
    auto deadline = Clock::now() + timeout;
    while (!pred()) {
        if (Clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(poll);
    }
    return true;
}

// `bytes` bytes of 188-byte packets that start with the MPEG-TS sync byte (564
// is what the probe needs to call a body MPEG-TS). The filler holds no "TFRM".
inline std::string ts_sync_prefix(size_t bytes = 564)
{
    std::string prefix(bytes, '\x11');
    for (size_t at = 0; at < bytes; at += 188)
        prefix[at] = '\x47';
    return prefix;
}
