// What the channel benchmarks add to the shared client helpers: one timed
// connect of a counting channel.
#pragma once

#include <chrono>
#include <functional>

#include "client_helpers.h"
#include "counting_demux.h"

// Zeroes the counting demultiplexer's byte count, connects channel 0 with
// `param` and waits until `arrived` holds; *seconds receives the time from the
// connect to then (or to the give-up after 30 s). It polls every 200 us, so
// that the poll does not blur the figure. False when it never held. The
// caller disconnects.
inline bool connect_until(const hls_connect_param &param, const std::function<bool()> &arrived, double *seconds)
{
    g_counted_bytes = 0;
    auto start = Clock::now();
    hls_client_connect(0, &param);
    bool held = wait_until(arrived, std::chrono::seconds(30), std::chrono::microseconds(200));
    *seconds = seconds_between(start, Clock::now());
    return held;
}
