// hlsplay: plays one or more stream URLs through libhlsclient, one channel
// per URL, and reports what arrived: a live status display on a terminal,
// plain log lines otherwise, optional dumps of the frame bytes and a JSON
// summary at exit. Status and log lines go to standard error, data (the JSON
// summary) to standard output. The exit status tells a script what happened:
// 0 every channel started, 1 none did (or a set-up step failed), 2 a bad
// command line, 3 some channels never started.
//
// The library calls back on its own threads, so everything a callback
// touches is atomic or under the channel's lock, and the callbacks never call
// into the library. Signals are taken synchronously by the main thread with
// sigtimedwait; the library is only ever called from the main thread.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "HLSClientLib.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    double seconds = 0; // 0: until SIGINT or SIGTERM
    double stop_after_idle = 0; // 0: never; else disconnect a channel after this long without a frame
    bool low_bandwidth = false;
    long connect_timeout = 10;
    long timeout = 30;
    int ip_resolve = 0;
    const char *ca_path = nullptr;
    const char *dump = nullptr;
    bool json = false;
    bool quiet = false;
    std::vector<std::string> urls;
};

struct Channel {
    int32_t index = 0;
    std::string url;
    Clock::time_point connected_at;
    std::atomic<uint64_t> started{0}, stopped{0};
    std::atomic<uint64_t> video_frames{0}, audio_frames{0};
    std::atomic<uint64_t> video_bytes{0}, audio_bytes{0};
    std::atomic<int64_t> first_frame_ms{-1};
    std::atomic<Clock::rep> last_frame{0}; // Clock ticks of the latest frame, 0 before the first
    std::atomic<uint32_t> stream_rate_milli{0}; // declared frame rate x 1000, from key frames

    std::mutex dump_lock; // guards the two files and dump_failed
    FILE *video_out = nullptr;
    FILE *audio_out = nullptr;
    bool dump_failed = false;

    // Main thread only: whether the channel was disconnected for idleness,
    // and the previous display snapshot.
    bool idle_closed = false;
    uint64_t shown_frames = 0, shown_bytes = 0, shown_video = 0;
    uint64_t shown_started = 0, shown_stopped = 0;
};

std::vector<std::unique_ptr<Channel>> g_channels;

Channel *channel_at(int32_t channel)
{
    if (channel < 0 || size_t(channel) >= g_channels.size())
        return nullptr;
    return g_channels[size_t(channel)].get();
}

int32_t on_frame(int32_t channel, frame_info *info, uint8_t *data)
{
    Channel *ch = channel_at(channel);
    if (!ch || !info)
        return 0;
    const bool video = (info->type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY;
    const uint32_t length = video ? info->video.length : info->audio.length;
    if (ch->first_frame_ms.load(std::memory_order_relaxed) < 0) {
        int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - ch->connected_at).count();
        int64_t unset = -1;
        ch->first_frame_ms.compare_exchange_strong(unset, ms);
    }
    ch->last_frame.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    if (video) {
        ch->video_frames++;
        ch->video_bytes += length;
        if (info->type == HLS_FRAME_TYPE_VIDEO_KEY && info->video.frame_rate > 0)
            ch->stream_rate_milli = uint32_t(info->video.frame_rate) * 1000u +
                                    std::min<uint32_t>(info->video.frame_rate_frac, 999u);
    } else {
        ch->audio_frames++;
        ch->audio_bytes += length;
    }
    std::lock_guard<std::mutex> lock(ch->dump_lock);
    FILE *out = video ? ch->video_out : ch->audio_out;
    if (out && length > 0 && data && std::fwrite(data, 1, length, out) != length)
        ch->dump_failed = true;
    return 0;
}

void on_status(int32_t channel, int32_t status)
{
    Channel *ch = channel_at(channel);
    if (!ch)
        return;
    if (status == HLS_STREAM_STARTED)
        ch->started++;
    else if (status == HLS_STREAM_STOPPED)
        ch->stopped++;
}

const char *result_meaning(int32_t rc)
{
    switch (rc) {
    case -1: return "a system or library call failed (libcurl's global set-up)";
    case -2: return "an argument is out of range or missing";
    case -3: return "the library is not initialised";
    case -5: return "the channel is already in use";
    case -6: return "the channel stream could not be created (no memory or no thread)";
    case -15: return "no memory for the channel table";
    default: return "unknown result";
    }
}

void usage(FILE *out)
{
    std::fputs("usage: hlsplay [options] URL [URL ...]\n"
               "Plays each URL (MPEG-TS, FLV or HLS over http/https) on its own channel, 0 upwards.\n"
               "Status lines go to standard error, the --json summary to standard output.\n"
               "options:\n"
               "  --seconds S          disconnect and exit after S seconds (default: until SIGINT/SIGTERM)\n"
               "  --stop-after-idle S  disconnect a channel once no frame has arrived for S seconds\n"
               "                       (and exit when every channel is disconnected)\n"
               "  --low-bandwidth      pick the lowest-bandwidth HLS variant (default: the highest)\n"
               "  --connect-timeout S  connection time limit, 1 to 30 seconds (default 10)\n"
               "  --timeout S          time limit of each playlist download in seconds (default 30)\n"
               "  --ipv4 | --ipv6      resolve names to this address family only\n"
               "  --ca-path PATH       CA certificate directory or file for https\n"
               "                       (no usable path: certificates are not verified)\n"
               "  --dump DIR           write DIR/chN.video and DIR/chN.audio: the frame bytes of each kind\n"
               "  --json               print a JSON summary on standard output at exit\n"
               "  --quiet              no status display or log lines\n"
               "  --version            print the version\n"
               "  --help               this text\n"
               "exit status: 0 every channel started, 1 none did or a set-up step failed,\n"
               "             2 bad command line, 3 some channels never started\n",
               out);
}

bool parse_long(const char *text, long lo, long hi, long &out)
{
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

bool parse_seconds(const char *text, double &out)
{
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v > 0 && v <= 1e7))
        return false;
    out = v;
    return true;
}

bool http_or_https(const std::string &url)
{
    for (const char *scheme : {"http://", "https://"})
        if (strncasecmp(url.c_str(), scheme, std::strlen(scheme)) == 0)
            return true;
    return false;
}

enum {
    OPT_SECONDS = 256,
    OPT_IDLE,
    OPT_LOW_BANDWIDTH,
    OPT_CONNECT_TIMEOUT,
    OPT_TIMEOUT,
    OPT_IPV4,
    OPT_IPV6,
    OPT_CA_PATH,
    OPT_DUMP,
    OPT_JSON,
    OPT_QUIET,
    OPT_VERSION,
};

const struct option kOptions[] = {
    {"seconds", required_argument, nullptr, OPT_SECONDS},
    {"stop-after-idle", required_argument, nullptr, OPT_IDLE},
    {"low-bandwidth", no_argument, nullptr, OPT_LOW_BANDWIDTH},
    {"connect-timeout", required_argument, nullptr, OPT_CONNECT_TIMEOUT},
    {"timeout", required_argument, nullptr, OPT_TIMEOUT},
    {"ipv4", no_argument, nullptr, OPT_IPV4},
    {"ipv6", no_argument, nullptr, OPT_IPV6},
    {"ca-path", required_argument, nullptr, OPT_CA_PATH},
    {"dump", required_argument, nullptr, OPT_DUMP},
    {"json", no_argument, nullptr, OPT_JSON},
    {"quiet", no_argument, nullptr, OPT_QUIET},
    {"version", no_argument, nullptr, OPT_VERSION},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

const struct option *option_of(int val)
{
    for (const struct option *o = kOptions; o->name; o++)
        if (o->val == val)
            return o;
    return nullptr;
}

// Returns -1 to go on, otherwise the exit status. getopt_long's own messages
// are off so that every complaint names the option the same way.
int parse_options(int argc, char **argv, Options &opt)
{
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1) {
        const struct option *o = option_of(c == ':' || c == '?' ? optopt : c);
        const std::string name = o ? std::string("--") + o->name : "";
        const char *v = optarg;
        if (c == ':') {
            std::fprintf(stderr, "hlsplay: %s needs a value (try --help)\n", name.c_str());
            return 2;
        }
        if (c == '?') {
            // A known option here was given a value it does not take.
            if (o)
                std::fprintf(stderr, "hlsplay: %s takes no value\n", name.c_str());
            else
                std::fprintf(stderr, "hlsplay: unknown option '%s' (try --help)\n", argv[optind - 1]);
            return 2;
        }
        switch (c) {
        case 'h':
            usage(stdout);
            return 0;
        case OPT_VERSION:
            std::printf("hlsplay %s\n", HLSCLIENT_VERSION_STRING);
            return 0;
        case OPT_LOW_BANDWIDTH:
            opt.low_bandwidth = true;
            break;
        case OPT_IPV4:
        case OPT_IPV6: {
            int family = c == OPT_IPV4 ? 1 : 2;
            if (opt.ip_resolve != 0 && opt.ip_resolve != family) {
                std::fprintf(stderr, "hlsplay: --ipv4 and --ipv6 exclude each other\n");
                return 2;
            }
            opt.ip_resolve = family;
            break;
        }
        case OPT_JSON:
            opt.json = true;
            break;
        case OPT_QUIET:
            opt.quiet = true;
            break;
        case OPT_SECONDS:
        case OPT_IDLE:
            if (!parse_seconds(v, c == OPT_SECONDS ? opt.seconds : opt.stop_after_idle)) {
                std::fprintf(stderr, "hlsplay: %s needs a number of seconds above 0, not '%s'\n", name.c_str(), v);
                return 2;
            }
            break;
        case OPT_CONNECT_TIMEOUT:
            if (!parse_long(v, 1, 30, opt.connect_timeout)) {
                std::fprintf(stderr, "hlsplay: --connect-timeout needs whole seconds from 1 to 30, not '%s'\n", v);
                return 2;
            }
            break;
        case OPT_TIMEOUT:
            if (!parse_long(v, 1, 86400, opt.timeout)) {
                std::fprintf(stderr, "hlsplay: --timeout needs whole seconds from 1 to 86400, not '%s'\n", v);
                return 2;
            }
            break;
        case OPT_CA_PATH:
            opt.ca_path = v;
            break;
        case OPT_DUMP:
            if (!*v) {
                std::fprintf(stderr, "hlsplay: --dump needs a directory\n");
                return 2;
            }
            opt.dump = v;
            break;
        }
    }
    opt.urls.assign(argv + optind, argv + argc);
    if (opt.urls.empty()) {
        std::fprintf(stderr, "hlsplay: no URL given (try --help)\n");
        return 2;
    }
    for (size_t i = 0; i < opt.urls.size(); i++) {
        const std::string &u = opt.urls[i];
        if (u.empty()) {
            std::fprintf(stderr, "hlsplay: URL %zu is empty\n", i + 1);
            return 2;
        }
        if (u.size() > sizeof(hls_connect_param{}.url) - 1) {
            std::fprintf(stderr, "hlsplay: URL %zu is %zu characters long; at most %zu are allowed\n", i + 1,
                         u.size(), sizeof(hls_connect_param{}.url) - 1);
            return 2;
        }
        if (!http_or_https(u)) {
            std::fprintf(stderr, "hlsplay: URL %zu is not http:// or https://: %s\n", i + 1, u.c_str());
            return 2;
        }
    }
    return -1;
}

// The summary: one object per channel, in channel order, with its members in
// a fixed order. Invalid UTF-8 in a URL becomes U+FFFD, so the output is
// always valid JSON.
std::string summary_json()
{
    nlohmann::ordered_json channels = nlohmann::ordered_json::array();
    for (const auto &c : g_channels) {
        int64_t first = c->first_frame_ms.load();
        channels.push_back({{"channel", c->index},
                            {"url", c->url},
                            {"started", c->started.load()},
                            {"stopped", c->stopped.load()},
                            {"video_frames", c->video_frames.load()},
                            {"audio_frames", c->audio_frames.load()},
                            {"video_bytes", c->video_bytes.load()},
                            {"audio_bytes", c->audio_bytes.load()},
                            {"first_frame_ms", first < 0 ? nlohmann::ordered_json() : nlohmann::ordered_json(first)}});
    }
    nlohmann::ordered_json doc = {{"channels", std::move(channels)}};
    return doc.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

const char *state_of(const Channel &c)
{
    uint64_t started = c.started.load(), stopped = c.stopped.load();
    if (started == 0)
        return stopped ? "stopped" : "waiting";
    return started > stopped ? "playing" : "stopped";
}

// One status line per channel: state, delivered frames per second (video +
// audio), bit rate of the delivered frame bytes, the stream's declared frame
// rate, frames delivered so far.
std::string status_line(Channel &c, double interval)
{
    uint64_t video = c.video_frames.load(), frames = video + c.audio_frames.load();
    uint64_t bytes = c.video_bytes.load() + c.audio_bytes.load();
    double fps = interval > 0 ? double(frames - c.shown_frames) / interval : 0;
    double kbps = interval > 0 ? double(bytes - c.shown_bytes) * 8.0 / 1000.0 / interval : 0;
    double vfps = interval > 0 ? double(video - c.shown_video) / interval : 0;
    c.shown_frames = frames;
    c.shown_bytes = bytes;
    c.shown_video = video;
    uint32_t rate = c.stream_rate_milli.load();
    char rate_text[32] = "   -  ";
    if (rate)
        std::snprintf(rate_text, sizeof rate_text, "%6.2f", rate / 1000.0);
    char line[256];
    std::snprintf(line, sizeof line,
                  "ch%-2d %-8s %7.1f frames/s %8.1f kbit/s  video %5.1f/s of %s fps  %9llu frames", c.index,
                  state_of(c), fps, kbps, vfps, rate_text, static_cast<unsigned long long>(frames));
    return line;
}

class Display {
public:
    Display(FILE *out, bool quiet) : out_(out), quiet_(quiet), tty_(isatty(fileno(out)) != 0) {}

    // Redraws (terminal) or logs (otherwise) every channel's status line;
    // rates cover the time since the previous call.
    void tick(double elapsed)
    {
        Clock::time_point now = Clock::now();
        double interval = std::chrono::duration<double>(now - last_).count();
        last_ = now;
        if (quiet_)
            return;
        if (tty_) {
            if (drawn_)
                std::fprintf(out_, "\x1b[%zuA", g_channels.size());
            // Lines are cut to the terminal's width: a wrapped line would
            // break the cursor-up count of the next redraw.
            struct winsize ws = {};
            size_t width = ioctl(fileno(out_), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 ? ws.ws_col - 1 : 200;
            for (auto &c : g_channels) {
                std::string line = status_line(*c, interval) + "  " + c->url;
                std::fprintf(out_, "\r\x1b[K%s\n", line.substr(0, width).c_str());
            }
            drawn_ = true;
        } else {
            for (auto &c : g_channels) {
                events(*c, elapsed);
                std::fprintf(out_, "[%7.1fs] %s\n", elapsed, status_line(*c, interval).c_str());
            }
        }
        std::fflush(out_);
    }

    // Plain mode logs stream starts and stops as they are noticed.
    void events(Channel &c, double elapsed)
    {
        uint64_t started = c.started.load(), stopped = c.stopped.load();
        for (; c.shown_started < started; c.shown_started++)
            std::fprintf(out_, "[%7.1fs] ch%d stream started\n", elapsed, c.index);
        for (; c.shown_stopped < stopped; c.shown_stopped++)
            std::fprintf(out_, "[%7.1fs] ch%d stream stopped\n", elapsed, c.index);
    }

    void log(const char *text, double elapsed)
    {
        if (quiet_)
            return;
        std::fprintf(out_, "[%7.1fs] %s\n", elapsed, text);
        std::fflush(out_);
    }

    // After the disconnects: the terminal shows the final states, the log
    // the last events.
    void finish(double elapsed)
    {
        if (quiet_)
            return;
        if (tty_) {
            tick(elapsed);
            return;
        }
        for (auto &c : g_channels)
            events(*c, elapsed);
        std::fflush(out_);
    }

private:
    FILE *out_;
    bool quiet_;
    bool tty_;
    bool drawn_ = false;
    Clock::time_point last_ = Clock::now();
};

// Since when a channel has been without frames: its latest frame, or its
// connect while none has arrived.
Clock::time_point idle_since(const Channel &c)
{
    Clock::rep last = c.last_frame.load(std::memory_order_relaxed);
    return last ? Clock::time_point(Clock::duration(last)) : c.connected_at;
}

bool open_dumps(const char *dir)
{
    if (mkdir(dir, 0777) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "hlsplay: cannot create %s: %s\n", dir, std::strerror(errno));
        return false;
    }
    for (auto &c : g_channels) {
        std::string base = std::string(dir) + "/ch" + std::to_string(c->index);
        c->video_out = std::fopen((base + ".video").c_str(), "wb");
        c->audio_out = std::fopen((base + ".audio").c_str(), "wb");
        if (!c->video_out || !c->audio_out) {
            std::fprintf(stderr, "hlsplay: cannot write %s.video/.audio: %s\n", base.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

// Closes the dump files; false when any write failed.
bool close_dumps()
{
    bool ok = true;
    for (auto &c : g_channels) {
        std::lock_guard<std::mutex> lock(c->dump_lock);
        for (FILE **f : {&c->video_out, &c->audio_out}) {
            if (*f && std::fclose(*f) != 0)
                c->dump_failed = true;
            *f = nullptr;
        }
        if (c->dump_failed) {
            std::fprintf(stderr, "hlsplay: writing the dump of channel %d failed\n", c->index);
            ok = false;
        }
    }
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    int rc = parse_options(argc, argv, opt);
    if (rc >= 0)
        return rc;
    for (size_t i = 0; i < opt.urls.size(); i++) {
        auto c = std::make_unique<Channel>();
        c->index = int32_t(i);
        c->url = opt.urls[i];
        g_channels.push_back(std::move(c));
    }
    if (opt.dump && !open_dumps(opt.dump)) {
        close_dumps();
        return 1;
    }

    // Block the stop signals before the library starts any thread, so that
    // every thread inherits the mask and only sigtimedwait below sees them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Display display(stderr, opt.quiet);
    const Clock::time_point t0 = Clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - t0).count(); };

    int32_t irc = hls_client_init(int32_t(g_channels.size()), on_frame, on_status, opt.ca_path);
    if (irc != 0) {
        std::fprintf(stderr, "hlsplay: hls_client_init failed (%d): %s\n", irc, result_meaning(irc));
        close_dumps();
        return 1;
    }
    int status = 0;
    for (auto &c : g_channels) {
        hls_connect_param p;
        std::memset(&p, 0, sizeof p);
        std::memcpy(p.url, c->url.data(), c->url.size());
        p.low_bandwidth = opt.low_bandwidth ? 1 : 0;
        p.connect_timeout = int32_t(opt.connect_timeout);
        p.timeout = int32_t(opt.timeout);
        p.ip_resolve = opt.ip_resolve;
        c->connected_at = Clock::now();
        int32_t crc = hls_client_connect(c->index, &p);
        if (crc != 0) {
            std::fprintf(stderr, "hlsplay: connecting channel %d to %s failed (%d): %s\n", c->index, c->url.c_str(),
                         crc, result_meaning(crc));
            status = 1;
            break;
        }
    }

    if (status == 0) {
        const bool timed = opt.seconds > 0;
        const Clock::time_point deadline =
            t0 + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(opt.seconds));
        const auto idle_limit =
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(opt.stop_after_idle));
        Clock::time_point next_tick = Clock::now() + std::chrono::seconds(1);
        for (;;) {
            Clock::time_point now = Clock::now();
            if (timed && now >= deadline)
                break;
            Clock::time_point wake = timed ? std::min(next_tick, deadline) : next_tick;
            if (opt.stop_after_idle > 0) {
                // The library keeps requesting an ended presentation's
                // playlist, so a channel that has gone quiet is closed here.
                size_t open = 0;
                for (auto &c : g_channels) {
                    if (c->idle_closed)
                        continue;
                    Clock::time_point until = idle_since(*c) + idle_limit;
                    if (now >= until) {
                        char text[96];
                        std::snprintf(text, sizeof text, "ch%d no frame for %g s, disconnecting", c->index,
                                      opt.stop_after_idle);
                        display.log(text, elapsed());
                        hls_client_disconnect(c->index);
                        c->idle_closed = true;
                        continue;
                    }
                    open++;
                    wake = std::min(wake, until);
                }
                if (open == 0)
                    break;
                now = Clock::now();
            }
            auto wait_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wake - now).count();
            if (wait_ns < 0)
                wait_ns = 0;
            struct timespec ts = {time_t(wait_ns / 1000000000), long(wait_ns % 1000000000)};
            int sig = sigtimedwait(&stop_signals, nullptr, &ts);
            if (sig == SIGINT || sig == SIGTERM) {
                display.log(sig == SIGINT ? "interrupted, disconnecting" : "terminated, disconnecting", elapsed());
                break;
            }
            now = Clock::now();
            if (now >= next_tick) {
                display.tick(elapsed());
                next_tick += std::chrono::seconds(1);
                if (next_tick < now)
                    next_tick = now + std::chrono::seconds(1);
            }
        }
    }

    // Disconnecting joins each channel's threads; after it no callback runs.
    for (auto &c : g_channels)
        hls_client_disconnect(c->index);
    hls_client_destroy();
    display.finish(elapsed());
    if (!close_dumps())
        status = 1;
    // Channels that never started are named, so that a script can tell which
    // of its URLs failed; the exit status says whether any did start.
    size_t silent = 0;
    for (auto &c : g_channels) {
        if (c->started.load() == 0) {
            std::fprintf(stderr, "hlsplay: channel %d never started: %s\n", c->index, c->url.c_str());
            silent++;
        }
    }
    if (status == 0 && silent > 0)
        status = silent == g_channels.size() ? 1 : 3;
    if (opt.json) {
        std::printf("%s\n", summary_json().c_str());
        std::fflush(stdout);
    }
    return status;
}
