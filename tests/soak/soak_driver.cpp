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

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "HLSClientLib.h"
#include "client_helpers.h"

namespace {

// Per channel, whether a STARTED is outstanding (no STOPPED after it yet).
std::mutex g_lock;
std::vector<char> g_started;
// Totals for the report, in its order.
enum { CYCLES, FRAMES, STARTED, STOPPED, CONNECT_ERRORS, BUSY_CHECKS, WORST_DISCONNECT_MS, VIOLATIONS, TOTALS };
std::atomic<uint64_t> g_totals[TOTALS];
std::map<std::string, long> g_opt = {{"--seconds", 60},  {"--channels", 16},
                                     {"--threads", 4},   {"--seed", long(time(nullptr))},
                                     {"--disconnect-limit-ms", 12000}};
std::vector<std::string> g_urls;

void violation(const char *what, int32_t channel)
{
    g_totals[VIOLATIONS]++;
    printf("VIOLATION channel %d: %s\n", channel, what);
    fflush(stdout);
}

int32_t on_frame(int32_t, frame_info *, uint8_t *)
{
    g_totals[FRAMES].fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void on_status(int32_t channel, int32_t status)
{
    std::lock_guard<std::mutex> guard(g_lock);
    if (status != HLS_STREAM_STARTED && status != HLS_STREAM_STOPPED)
        return violation("unknown status value", channel);
    const bool starts = status == HLS_STREAM_STARTED;
    g_totals[starts ? STARTED : STOPPED]++;
    if (g_started[size_t(channel)] == starts)
        violation(starts ? "two STARTED without a STOPPED between" : "STOPPED without STARTED", channel);
    g_started[size_t(channel)] = starts;
}

// Connects and disconnects random channels of its own (those congruent to
// `t`, so that no channel is connected by two threads at once) until `end`.
void host_thread(long t, Clock::time_point end)
{
    const long threads = g_opt.at("--threads"), channels = g_opt.at("--channels");
    std::mt19937_64 rng(uint64_t(g_opt.at("--seed")) * 7919 + uint64_t(t));
    const long span = (channels - t + threads - 1) / threads;
    while (span > 0 && Clock::now() < end) {
        int32_t channel = int32_t(t + threads * long(rng() % uint64_t(span)));
        hls_connect_param param = make_param(g_urls[rng() % g_urls.size()], int32_t(rng() % 2), 3);
        int32_t r = hls_client_connect(channel, &param);
        if (r != 0) {
            g_totals[CONNECT_ERRORS]++;
            printf("connect(%d) returned %d\n", channel, r);
            continue;
        }
        if (hls_client_connect(channel, &param) != -5)
            violation("second connect on an open channel did not return -5", channel);
        else
            g_totals[BUSY_CHECKS]++;
        // Stay connected for a random while: from an instant to 3 s.
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 3000));
        auto before = Clock::now();
        hls_client_disconnect(channel);
        uint64_t took = uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count());
        for (uint64_t seen = g_totals[WORST_DISCONNECT_MS]; took > seen;)
            g_totals[WORST_DISCONNECT_MS].compare_exchange_weak(seen, took);
        if (took > uint64_t(g_opt.at("--disconnect-limit-ms")))
            violation("disconnect took longer than the limit", channel);
        std::lock_guard<std::mutex> guard(g_lock);
        if (g_started[size_t(channel)])
            violation("disconnect returned without STOPPED after STARTED", channel);
        g_totals[CYCLES]++;
    }
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto option = g_opt.find(a);
        char *end = nullptr;
        if (option != g_opt.end() && i + 1 < argc) {
            option->second = strtol(argv[++i], &end, 10);
        } else if (a.rfind("--", 0) != 0) {
            g_urls.push_back(a);
            continue;
        }
        if (!end || end == argv[i] || *end || option->second < 0) {
            fprintf(stderr, "bad option or value: %s\n", a.c_str());
            return 2;
        }
    }
    const long channels = g_opt["--channels"], threads = g_opt["--threads"];
    if (g_urls.empty() || channels < 1 || threads < 1) {
        fprintf(stderr, "usage: hls-soak [--seconds S] [--channels N] [--threads T] [--seed N] URL...\n");
        return 2;
    }

    g_started.assign(size_t(channels), false);
    int32_t rc = hls_client_init(int32_t(channels), on_frame, on_status, nullptr);
    if (rc != 0) {
        fprintf(stderr, "hls_client_init failed: %d\n", rc);
        return 1;
    }
    const Clock::time_point end = Clock::now() + std::chrono::seconds(g_opt["--seconds"]);
    std::vector<std::thread> workers;
    for (long t = 0; t < threads; ++t)
        workers.emplace_back(host_thread, t, end);
    for (std::thread &w : workers)
        w.join();
    hls_client_destroy();

    const char *names[TOTALS] = {"cycles",      "frames",      "started",             "stopped",
                                 "connect-errors", "busy-checks", "worst-disconnect-ms", "violations"};
    for (int i = 0; i < TOTALS; i++)
        printf("%s%s %llu", i ? " " : "", names[i], (unsigned long long)g_totals[i].load());
    printf("\n");
    return g_totals[VIOLATIONS] == 0 && g_totals[CONNECT_ERRORS] == 0 ? 0 : 1;
}
