// Soak driver: many channels connected and disconnected at random moments
// from several host threads against a (faulty) server. Checks the order of
// status reports and how long each disconnect takes, and reports totals.
//
//   hls-soak [--seconds S] [--channels N] [--threads T] [--seed N]
//            [--disconnect-limit-ms MS] URL [URL ...]
//
// Exit status 0 when no violation was seen, 1 otherwise, 2 for bad usage.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "HLSClientLib.h"
#include "client_helpers.h"

namespace {

struct ChannelState {
    std::mutex lock;
    bool started = false; // a STARTED is outstanding (no STOPPED after it yet)
    std::atomic<uint64_t> frames{0};
};

std::vector<ChannelState> *g_channels;
std::atomic<uint64_t> g_violations{0};
std::atomic<uint64_t> g_started{0};
std::atomic<uint64_t> g_stopped{0};

void violation(const char *what, int32_t channel)
{
    g_violations.fetch_add(1);
    fprintf(stdout, "VIOLATION channel %d: %s\n", channel, what);
    fflush(stdout);
}

int32_t on_frame(int32_t channel, frame_info *, uint8_t *)
{
    (*g_channels)[channel].frames.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void on_status(int32_t channel, int32_t status)
{
    ChannelState &state = (*g_channels)[channel];
    std::lock_guard<std::mutex> guard(state.lock);
    if (status == HLS_STREAM_STARTED) {
        g_started.fetch_add(1);
        if (state.started)
            violation("two STARTED without a STOPPED between", channel);
        state.started = true;
    } else if (status == HLS_STREAM_STOPPED) {
        g_stopped.fetch_add(1);
        if (!state.started)
            violation("STOPPED without STARTED", channel);
        state.started = false;
    } else {
        violation("unknown status value", channel);
    }
}

long arg_long(const char *text, const char *name)
{
    char *end = nullptr;
    long value = strtol(text, &end, 10);
    if (!*text || *end || value < 0) {
        fprintf(stderr, "bad value for %s: %s\n", name, text);
        exit(2);
    }
    return value;
}

} // namespace

int main(int argc, char **argv)
{
    long seconds = 60, channels = 16, threads = 4, limit_ms = 12000, seed = (long)time(nullptr);
    const std::pair<const char *, long *> options[] = {{"--seconds", &seconds}, {"--channels", &channels},
                                                       {"--threads", &threads}, {"--seed", &seed},
                                                       {"--disconnect-limit-ms", &limit_ms}};
    std::vector<std::string> urls;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto option = std::find_if(std::begin(options), std::end(options), [&](const auto &o) { return a == o.first; });
        if (option != std::end(options) && i + 1 < argc)
            *option->second = arg_long(argv[++i], option->first);
        else if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            fprintf(stderr, "unknown option %s\n", a.c_str());
            return 2;
        } else
            urls.push_back(a);
    }
    if (urls.empty() || channels < 1 || threads < 1) {
        fprintf(stderr, "usage: hls-soak [--seconds S] [--channels N] [--threads T] [--seed N] URL...\n");
        return 2;
    }

    std::vector<ChannelState> states((size_t)channels);
    g_channels = &states;
    int32_t rc = hls_client_init((int32_t)channels, on_frame, on_status, nullptr);
    if (rc != 0) {
        fprintf(stderr, "hls_client_init failed: %d\n", rc);
        return 1;
    }

    std::atomic<uint64_t> cycles{0}, errors{0}, busy{0};
    std::atomic<long> worst_ms{0};
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::vector<std::thread> workers;
    for (long t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            std::mt19937_64 rng((unsigned long)seed * 7919 + (unsigned long)t);
            while (std::chrono::steady_clock::now() < end) {
                // Each host thread drives the channels congruent to its number,
                // so a channel is never connected by two threads at once.
                long span = (channels - t + threads - 1) / threads;
                if (span <= 0)
                    return;
                int32_t channel = (int32_t)(t + threads * (long)(rng() % (uint64_t)span));
                const std::string &url = urls[rng() % urls.size()];
                hls_connect_param param = make_param(url, (int32_t)(rng() % 2), 3);
                int32_t r = hls_client_connect(channel, &param);
                if (r != 0) {
                    errors.fetch_add(1);
                    fprintf(stdout, "connect(%d) returned %d\n", channel, r);
                    continue;
                }
                if (hls_client_connect(channel, &param) != -5)
                    violation("second connect on an open channel did not return -5", channel);
                else
                    busy.fetch_add(1);
                // Stay connected for a random while: from an instant to 3 s.
                std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 3000));
                auto before = std::chrono::steady_clock::now();
                hls_client_disconnect(channel);
                long took = (long)std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - before).count();
                long seen = worst_ms.load();
                while (took > seen && !worst_ms.compare_exchange_weak(seen, took)) {
                }
                if (took > limit_ms)
                    violation("disconnect took longer than the limit", channel);
                {
                    std::lock_guard<std::mutex> guard(states[(size_t)channel].lock);
                    if (states[(size_t)channel].started)
                        violation("disconnect returned without STOPPED after STARTED", channel);
                }
                cycles.fetch_add(1);
            }
        });
    }
    for (std::thread &w : workers)
        w.join();
    hls_client_destroy();

    uint64_t frames = 0;
    for (ChannelState &s : states)
        frames += s.frames.load();
    printf("cycles %llu frames %llu started %llu stopped %llu connect-errors %llu busy-checks %llu "
           "worst-disconnect-ms %ld violations %llu\n",
           (unsigned long long)cycles.load(), (unsigned long long)frames, (unsigned long long)g_started.load(),
           (unsigned long long)g_stopped.load(), (unsigned long long)errors.load(),
           (unsigned long long)busy.load(), worst_ms.load(), (unsigned long long)g_violations.load());
    return g_violations.load() == 0 && errors.load() == 0 ? 0 : 1;
}
