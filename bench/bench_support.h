// Helpers the channel benchmarks share: a connect record for a URL, a poll
// for a condition with a generous deadline, and one timed connect of a
// counting channel.
#pragma once

#include <stdio.h>
#include <string.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "HLSClientLib.h"
#include "counting_demux.h"

// Connect parameters for `url` with 5-second time-outs, everything else zero.
inline hls_connect_param param_for(const std::string &url)
{
    hls_connect_param param;
    memset(&param, 0, sizeof(param));
    snprintf(param.url, sizeof(param.url), "%s", url.c_str());
    param.connect_timeout = 5;
    param.timeout = 5;
    return param;
}

// Polls `pred` every 200 us; false when it is still false after 30 seconds.
inline bool wait_until(const std::function<bool()> &pred)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// Zeroes the counting demultiplexer's byte count, connects channel 0 with
// `param` and waits until `arrived` holds; *seconds receives the time from the
// connect to then (or to the give-up). False when it never held. The caller
// disconnects.
inline bool connect_until(const hls_connect_param &param, const std::function<bool()> &arrived, double *seconds)
{
    g_counted_bytes = 0;
    auto start = std::chrono::steady_clock::now();
    hls_client_connect(0, &param);
    bool held = wait_until(arrived);
    *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return held;
}
