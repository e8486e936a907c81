// End to end: the sample server and the player run as real processes; the
// player loads the library and the reference demultiplexers. What arrives is
// compared with the facts tests/data/samples.txt records for each sample.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "HLSClientLib.h"
#include "client_helpers.h"
#include "demux_capture.h"
#include "sha256.h"

extern char **environ;

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
const std::string kPlayer = HLS_BINARY_DIR "/hlsplay";
const std::string kServer = HLS_BINARY_DIR "/hls-sample-server";

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

// What a tool wrote and how it ended: its exit status, or 128 + signal.
struct Result {
    int status = -1;
    std::string out, err;
};

// A tool run as a child process under coreutils `timeout`, which kills it
// after `limit` seconds; `env` entries ("NAME=value") are added to its
// environment. Its standard output and error go to unnamed scratch files, or
// both to `term` when that is given.
class Tool {
public:
    explicit Tool(const std::vector<std::string> &args, int limit = 60, const std::vector<std::string> &env = {},
                  int term = -1)
    {
        std::vector<std::string> words = {"timeout", "-s", "KILL", std::to_string(limit), "env"};
        words.insert(words.end(), env.begin(), env.end());
#ifdef HLS_TEST_EMULATOR
        // In a cross build the tools are target programs like this test: they
        // run through the same emulator, whose words HLS_TEST_EMULATOR lists.
        std::istringstream emulator(HLS_TEST_EMULATOR);
        words.insert(words.end(), std::istream_iterator<std::string>(emulator), {});
#endif
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &w : words)
            argv.push_back(&w[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_adddup2(&files, term >= 0 ? term : fileno(out_), 1);
        posix_spawn_file_actions_adddup2(&files, term >= 0 ? term : fileno(err_), 2);
        int rc = posix_spawnp(&pid_, "timeout", &files, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&files);
        if (rc != 0)
            throw std::runtime_error("cannot start " + args[0]);
    }
    Tool(const Tool &) = delete;
    ~Tool()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            finish();
        }
        std::fclose(out_);
        std::fclose(err_);
    }
    pid_t pid() const { return pid_; }
    std::string out() const { return contents(out_); }
    std::string err() const { return contents(err_); }
    // Waits until the tool has exited.
    Result finish()
    {
        int ws = 0;
        waitpid(pid_, &ws, 0);
        pid_ = -1;
        return {WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), out(), err()};
    }

private:
    static std::string contents(FILE *file)
    {
        std::string text;
        char buf[65536];
        for (ssize_t n; (n = pread(fileno(file), buf, sizeof buf, off_t(text.size()))) > 0;)
            text.append(buf, size_t(n));
        return text;
    }
    pid_t pid_ = -1;
    FILE *out_ = std::tmpfile(), *err_ = std::tmpfile();
};

Result run(const std::vector<std::string> &args, int limit = 60)
{
    return Tool(args, limit).finish();
}

std::vector<std::string> server_command(std::vector<std::string> options)
{
    options.insert(options.begin(), {kServer, "--port", "0", "--seconds", "90"});
    return options;
}

// The sample server on a free port; stopped with SIGTERM when it goes. In a
// TSan build it runs with suppressions for the uninstrumented HTTP library it
// links.
class SampleServer : public Tool {
public:
    explicit SampleServer(const std::vector<std::string> &options = {})
        : Tool(server_command(options), 120,
               {std::string("TSAN_OPTIONS=") + (getenv("TSAN_OPTIONS") ? getenv("TSAN_OPTIONS") : "") +
                " suppressions=" HLS_SOURCE_DIR "/tools/tsan-httplib.supp"})
    {
        wait_until([&] { return out().find('\n') != std::string::npos; }, 20s, 20ms);
        if (out().rfind("port ", 0) != 0)
            throw std::runtime_error("sample server did not report a port: " + out() + err());
        port_ = std::atoi(out().c_str() + 5);
    }
    ~SampleServer()
    {
        // A clean exit on SIGTERM also shows the server never crashed.
        kill(pid(), SIGTERM);
        EXPECT_EQ(finish().status, 0) << "sample server: " << err();
    }
    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    int port() const { return port_; }

private:
    int port_ = 0;
};

// The player's summary, checked for the documented shape; one entry per
// channel, in channel order, its members in the documented order.
std::vector<Json> summary_channels(const std::string &out, size_t expected)
{
    Json doc = Json::parse(out, nullptr, false);
    const bool shaped = doc.is_object() && doc.size() == 1 && doc.contains("channels") && doc["channels"].is_array();
    if (!shaped || doc["channels"].size() != expected) {
        ADD_FAILURE() << "expected one JSON document with " << expected << " channels: " << out;
        return std::vector<Json>(expected, Json::object());
    }
    const std::vector<std::string> keys = {"channel",     "url",         "started",     "stopped",
                                           "video_frames", "audio_frames", "video_bytes", "audio_bytes",
                                           "first_frame_ms"};
    std::vector<Json> channels = doc["channels"];
    for (size_t i = 0; i < expected; i++) {
        std::vector<std::string> names;
        for (auto it = channels[i].begin(); it != channels[i].end(); ++it) {
            names.push_back(it.key());
            bool ok = it.key() == "url" ? it->is_string()
                                        : it->is_number_unsigned() || (it.key() == "first_frame_ms" && it->is_null());
            EXPECT_TRUE(ok) << it.key() << " in " << out;
        }
        EXPECT_EQ(names, keys) << out;
        EXPECT_EQ(channels[i].value("channel", -1), int(i)) << out;
    }
    return channels;
}

double num(const Json &c, const char *key)
{
    auto v = c.find(key);
    return v != c.end() && v->is_number() ? v->get<double>() : -1;
}

// An ended HLS presentation whose last video PES is unbounded (length field
// 0) cannot deliver its final access unit: nothing after it tells the
// demultiplexer that the frame is complete, and a host demultiplexer has no
// end-of-stream call. 1 when the variant's last segment ends that way.
int final_video_pes_unbounded(const std::string &variant)
{
    std::string seg = read_sample(variant + "/seg" + std::to_string(fact_num(variant + ".segments") - 1) + ".ts");
    int unbounded = -1;
    for (size_t off = 0; off + 188 <= seg.size(); off += 188) {
        auto *p = reinterpret_cast<const uint8_t *>(seg.data() + off);
        size_t pos = 4 + ((p[3] & 0x20) ? 1 + p[4] : 0);
        if (p[0] == 0x47 && (p[1] & 0x40) && pos + 6 <= 188 && p[pos] == 0 && p[pos + 1] == 0 && p[pos + 2] == 1 &&
            (p[pos + 3] & 0xf0) == 0xe0)
            unbounded = p[pos + 4] == 0 && p[pos + 5] == 0;
    }
    EXPECT_GE(unbounded, 0) << variant << ": no video PES in the last segment";
    return unbounded == 1;
}

// ---- tests ---------------------------------------------------------------

TEST(E2ePlayer, CommandLinesGetTheirExitStatusAndMessage)
{
    SampleServer taken; // its port is in use
    const std::string u = "http://127.0.0.1:1/x.ts";
    // Errors go to standard error with nothing on standard output.
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    } cases[] = {
        {{kPlayer}, 2, "no URL"},
        {{kPlayer, "--bogus", u}, 2, "unknown option '--bogus'"},
        {{kPlayer, u, "--seconds"}, 2, "--seconds needs"},
        {{kPlayer, "--seconds", "abc", u}, 2, "--seconds needs"},
        {{kPlayer, "--stop-after-idle", "0", u}, 2, "--stop-after-idle needs"},
        {{kPlayer, "--connect-timeout", "0", u}, 2, "--connect-timeout needs whole seconds from 1 to 30"},
        {{kPlayer, "--connect-timeout=31", u}, 2, "--connect-timeout needs whole seconds from 1 to 30"},
        {{kPlayer, "--timeout", "2.5", u}, 2, "--timeout needs"},
        {{kPlayer, "--ipv4", "--ipv6", u}, 2, "exclude each other"},
        {{kPlayer, "--json=yes", u}, 2, "--json takes no value"},
        {{kPlayer, "--dump", "", u}, 2, "--dump needs a directory"},
        {{kPlayer, u, ""}, 2, "URL 2 is empty"},
        {{kPlayer, "http://127.0.0.1:1/" + std::string(493, 'a')}, 2, "URL 1 is 512 characters long; at most 511"},
        {{kPlayer, u, "rtsp://127.0.0.1/x"}, 2, "URL 2 is not http:// or https://: rtsp://127.0.0.1/x"},
        {{kPlayer, "127.0.0.1/x.ts"}, 2, "URL 1 is not http:// or https://"},
        {{kPlayer, "--dump", "/proc/no/such/dir", u}, 1, "cannot create /proc/no/such/dir"},
        // A channel that never gets a frame is closed after the idle time, so
        // the player exits long before --seconds, with 1: no channel started.
        {{kPlayer, "--seconds", "60", "--stop-after-idle", "0.5", u}, 1, "channel 0 never started: " + u + "\n"},
        {{kServer, "--port", "70000"}, 2, "--port needs a whole number from 0 to 65535"},
        {{kServer, "--drop", "1.5"}, 2, "--drop needs a number from 0 to 1"},
        {{kServer, "--frobnicate"}, 2, "unknown option '--frobnicate'"},
        {{kServer, "--data", "/nonexistent", "--seconds", "5"}, 1, "cannot read /nonexistent/hls/master.m3u8"},
        {{kServer, "--port", std::to_string(taken.port()), "--seconds", "5"}, 1, "cannot bind"},
    };
    for (const Case &c : cases) {
        Result r = run(c.args, 20);
        const std::string shown = c.args.size() > 1 ? c.args[1] : "(none)";
        EXPECT_EQ(r.status, c.status) << shown;
        EXPECT_TRUE(has(r.err, c.message)) << shown << ": " << r.err;
        EXPECT_EQ(r.out, "") << shown;
    }
    // Help and version are not errors.
    Result help = run({kPlayer, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(has(help.out, "usage: hlsplay")) << help.out;
    Result version = run({kPlayer, "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "hlsplay " HLSCLIENT_VERSION_STRING "\n");
}

TEST(E2ePlayer, FiniteStreamsDeliverTheSampleFramesIntact)
{
    ASSERT_FALSE(fact("stream.ts.video_frames").empty()) << "tests/data/samples.txt missing";
    SampleServer server({"--once"});
    char temp[] = "/tmp/hls_e2e_XXXXXX";
    ASSERT_TRUE(mkdtemp(temp));
    const std::string dir = temp, low_dir = dir + "/low";
    // Two players at once: the highest HLS variant with TS and FLV, and the
    // lowest variant alone.
    // Each player ends by itself once every channel has gone quiet: the ended
    // presentation is requested again and again, but delivers no frame.
    auto low = std::async(std::launch::async, [&] {
        return run({kPlayer, "--quiet", "--json", "--low-bandwidth", "--stop-after-idle", "4", "--dump", low_dir,
                    server.url("/vod/master.m3u8")});
    });
    Result r = run({kPlayer, "--json", "--stop-after-idle", "4", "--dump", dir, server.url("/vod/master.m3u8"),
                    server.url("/stream.ts"), server.url("/stream.flv")});
    Result rl = low.get();
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(rl.status, 0) << rl.err;
    std::vector<Json> channels = summary_channels(r.out, 3), low_channels = summary_channels(rl.out, 1);

    // The direct streams come first: their video verifies the bytes of the
    // HLS variant that cannot deliver its final access unit.
    const struct {
        const Json &summary;
        std::string dump, sample;
    } expects[] = {{channels[1], dir + "/ch1", "stream.ts"},
                   {channels[2], dir + "/ch2", "stream.flv"},
                   {channels[0], dir + "/ch0", "hls/high"},
                   {low_channels[0], low_dir + "/ch0", "hls/low"}};
    std::map<std::string, std::string> verified_video; // video sum -> dump that matched it
    for (const auto &e : expects) {
        const Json &c = e.summary;
        const std::string &s = e.sample;
        std::string video = read_file(e.dump + ".video"), audio = read_file(e.dump + ".audio");
        const std::string video_sum = fact(s + ".video_sha256");
        int held = s.rfind("hls/", 0) == 0 ? final_video_pes_unbounded(s) : 0;
        EXPECT_EQ(num(c, "started"), 1) << s;
        EXPECT_EQ(num(c, "stopped"), 1) << s;
        EXPECT_EQ(num(c, "video_frames"), std::stod(fact(s + ".video_frames")) - held) << s;
        EXPECT_EQ(num(c, "audio_frames"), std::stod(fact(s + ".audio_frames"))) << s;
        EXPECT_EQ(num(c, "video_bytes"), double(video.size())) << s;
        EXPECT_EQ(num(c, "audio_bytes"), double(audio.size())) << s;
        EXPECT_EQ(sha256_hex(audio), fact(s + ".audio_sha256")) << s;
        if (held == 0) {
            EXPECT_EQ(sha256_hex(video), video_sum) << s;
            verified_video[video_sum] = video;
        } else {
            // All but the final access unit: a proper prefix of the same
            // elementary stream where a direct stream verified it.
            EXPECT_LT(video.size(), std::stoul(fact(s + ".video_bytes"))) << s;
            if (verified_video.count(video_sum)) {
                EXPECT_EQ(verified_video[video_sum].compare(0, video.size(), video), 0) << s;
            }
        }
        EXPECT_GE(num(c, "first_frame_ms"), 0) << s;
        EXPECT_LT(num(c, "first_frame_ms"), 5000) << s;
    }
    EXPECT_EQ(verified_video.count(fact("hls/high.video_sha256")), 1u) << "no direct stream checks hls/high bytes";
    // Not a terminal: plain log lines, on standard error next to the JSON.
    for (const char *line : {"ch1 stream started", "ch2 stream stopped", "ch0 no frame for 4 s, disconnecting"})
        EXPECT_TRUE(has(r.err, line)) << line << " not in " << r.err;
    EXPECT_FALSE(has(rl.err, "frames/s")) << "--quiet still logged: " << rl.err;
    std::system(("rm -rf " + dir).c_str());
}

TEST(E2ePlayer, StopsCleanlyOnSignalsAndRedrawsAStatusDisplayOnATerminal)
{
    SampleServer server;
    for (int sig : {SIGINT, SIGTERM}) {
        Tool player({kPlayer, "--json", server.url("/stream.ts")}, 30);
        ASSERT_TRUE(wait_until([&] { return player.err().find("ch0 stream started") != std::string::npos; }, 20s,
                               20ms))
            << player.err();
        kill(player.pid(), sig);
        const Clock::time_point sent_at = Clock::now();
        Result r = player.finish();
        EXPECT_EQ(r.status, 0) << "signal " << sig << ": " << r.err;
        EXPECT_LT(Clock::now() - sent_at, 5s);
        std::vector<Json> channels = summary_channels(r.out, 1);
        EXPECT_EQ(num(channels[0], "started"), 1);
        EXPECT_EQ(num(channels[0], "stopped"), 1);
    }

    // On a terminal, a status display redrawn in place instead of log lines.
    int term = -1, player_side = -1;
    ASSERT_EQ(openpty(&term, &player_side, nullptr, nullptr, nullptr), 0);
    fcntl(player_side, F_SETFD, FD_CLOEXEC);
    Tool player({kPlayer, "--seconds", "2.5", server.url("/stream.ts"), server.url("/stream.flv")}, 20, {},
                player_side);
    close(player_side);
    // The terminal reads fail once the player, its last user, has exited.
    std::string screen;
    char buf[4096];
    for (ssize_t n; (n = read(term, buf, sizeof buf)) > 0;)
        screen.append(buf, size_t(n));
    close(term);
    EXPECT_EQ(player.finish().status, 0) << screen;
    // Ticks at 1 s and 2 s and a final redraw: after the first drawing, each
    // one moves up over the two channel lines and rewrites them.
    EXPECT_EQ(occurrences(screen, "\x1b[2A"), 2u) << screen;
    EXPECT_EQ(occurrences(screen, "\r\x1b[Kch"), 6u) << screen;
    // A status display, and no log lines on a terminal.
    EXPECT_TRUE(has(screen, "ch1  playing") && !has(screen, "stream started")) << screen;
    size_t last = screen.rfind("\x1b[2A");
    ASSERT_NE(last, std::string::npos);
    EXPECT_TRUE(has(screen.substr(last), "ch0  stopped")) << "final redraw: " << screen.substr(last);
}

// A GET on the sample server; a response with status -1 when it failed.
httplib::Response get(httplib::Client &cli, const std::string &path)
{
    auto res = cli.Get(path.c_str());
    return res ? *res : httplib::Response();
}

// Asks for the endless TS stream on `streams` connections at once and keeps
// every one open and unread until all have their answer or `limit` passes.
// Per stream, when its answer came (Clock::duration::max() when none did).
std::vector<Clock::duration> answer_times(int port, size_t streams, Clock::duration limit)
{
    std::vector<Clock::duration> answered(streams, Clock::duration::max());
    std::atomic<size_t> answers{0};
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> clients;
    for (size_t i = 0; i < streams; i++)
        clients.emplace_back([&, i] {
            httplib::Client cli("127.0.0.1", port);
            cli.set_read_timeout(limit);
            cli.Get(
                "/stream.ts",
                [&](const httplib::Response &res) {
                    EXPECT_EQ(res.status, 200) << "stream " << i;
                    answered[i] = Clock::now() - start;
                    answers++;
                    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(start + limit - Clock::now());
                    wait_until([&] { return answers == streams; }, left, 10ms);
                    return false;
                },
                [](const char *, size_t) { return false; });
        });
    for (std::thread &c : clients)
        c.join();
    return answered;
}

TEST(E2eSampleServer, SlidesLivePlaylistsOverLoopedSegmentsAndAnswersSixtyFourOpenStreams)
{
    using Ms = std::chrono::duration<double, std::milli>;
    SampleServer server({"--window", "8", "--playlist-delay-ms", "0"});
    httplib::Client cli("127.0.0.1", server.port());
    httplib::Response master = get(cli, "/hls/master.m3u8");
    EXPECT_EQ(master.get_header_value("Content-Type"), "application/vnd.apple.mpegurl");
    EXPECT_EQ(master.body, read_sample("hls/master.m3u8"));

    // Six sample segments, eight in the window: the loop point is listed,
    // marked as a discontinuity, and its segments are the sample's again.
    const std::string first = get(cli, "/hls/low/index.m3u8").body;
    EXPECT_TRUE(has(first, "#EXT-X-MEDIA-SEQUENCE:0\n") && !has(first, "#EXT-X-ENDLIST")) << first;
    EXPECT_TRUE(has(first, "#EXT-X-DISCONTINUITY\n#EXTINF:1.000000,\nseg6.ts\n")) << first;
    EXPECT_EQ(occurrences(first, "#EXTINF"), 8u);
    for (int seq : {1, 7}) {
        httplib::Response seg = get(cli, "/hls/low/seg" + std::to_string(seq) + ".ts");
        EXPECT_EQ(seg.get_header_value("Content-Type"), "video/MP2T");
        EXPECT_TRUE(seg.body == read_sample("hls/low/seg1.ts")) << seq;
    }
    // The window moves on in real time, one segment per segment duration.
    std::string later;
    wait_until(
        [&] {
            later = get(cli, "/hls/low/index.m3u8").body;
            return later.find("#EXT-X-MEDIA-SEQUENCE:1\n") != std::string::npos;
        },
        10s, 50ms);
    EXPECT_TRUE(has(later, "seg8.ts") && !has(later, "seg0.ts")) << later;

    // The ended presentation lists the sample segments and ends.
    EXPECT_TRUE(has(get(cli, "/vod/high/index.m3u8").body, "seg5.ts\n#EXT-X-ENDLIST\n"));
    EXPECT_EQ(get(cli, "/hls/low/../../samples.txt").status, 404);

    // One stream alone first: how long an answer takes on this machine now.
    Clock::duration alone = answer_times(server.port(), 1, 20s)[0];
    ASSERT_NE(alone, Clock::duration::max());

    // Then 64 at once, every one kept open and unread: each holds a server
    // thread for good, so a server with a fixed number of workers would never
    // answer the ones past that number. A connection the server is too slow
    // to accept is retried by TCP a second later at the earliest, several
    // seconds for repeated tries; the bound leaves a loaded machine room
    // beyond that, scaled by how long one answer took.
    const Ms bound = Ms(2000) + 100 * Ms(alone);
    std::vector<Clock::duration> answered =
        answer_times(server.port(), 64, std::chrono::duration_cast<Clock::duration>(bound) + 10s);
    Ms last = *std::max_element(answered.begin(), answered.end());
    ASSERT_NE(last, Ms(Clock::duration::max())) << "streams never answered while the others stayed open";
    std::printf("one stream answered in %.1f ms; 64 open streams all answered within %.0f ms\n", Ms(alone).count(),
                last.count());
    EXPECT_LT(last, bound);
}

TEST(E2ePlayer, LiveStreamsPlayAcrossLoopPointsAndSurviveFaults)
{
    double sample_video = std::stod(fact("stream.ts.video_frames"));
    SampleServer clean;
    SampleServer faulty({"--fault-404", "0.3", "--drop", "0.3", "--stall", "0.2", "--stall-ms", "800", "--seed", "3"});
    auto faults = std::async(std::launch::async, [&] {
        return run({kPlayer, "--json", "--seconds", "10", faulty.url("/hls/master.m3u8"), faulty.url("/stream.ts"),
                    faulty.url("/stream.flv")});
    });
    // Two refused channels never start: exit status 3. Their URLs carry every
    // character class the summary's escaping must handle, and are as long as
    // a URL may be.
    const std::string odd = "http://127.0.0.1:1/a\"b\\c\td\x01/\xc3\xa9\xe2\x82\xac\xf0\x9f\x8e\xa5\xff.ts";
    const std::string longest = "http://127.0.0.1:1/" + std::string(511 - 19, 'a');
    Result r = run({kPlayer, "--json", "--seconds", "10", clean.url("/hls/master.m3u8"), clean.url("/stream.ts"),
                    clean.url("/stream.flv"), odd, longest});
    Result f = faults.get();
    ASSERT_EQ(r.status, 3) << r.err;
    EXPECT_TRUE(has(r.err, "channel 3 never started: ")) << r.err;
    EXPECT_TRUE(has(r.err, "channel 4 never started: " + longest + "\n")) << r.err;
    ASSERT_EQ(f.status, 0) << f.err;
    std::vector<Json> played = summary_channels(r.out, 5);
    // Valid UTF-8 survives; the stray 0xff byte becomes U+FFFD.
    EXPECT_EQ(played[3]["url"], odd.substr(0, odd.size() - 4) + "\xef\xbf\xbd.ts");
    EXPECT_EQ(played[4]["url"], longest);
    EXPECT_EQ(r.out.find('\t'), std::string::npos) << "raw control character in the JSON";
    for (size_t i = 3; i < 5; i++) {
        EXPECT_TRUE(played[i]["first_frame_ms"].is_null());
        for (const char *k : {"started", "stopped", "video_frames", "audio_frames", "video_bytes", "audio_bytes"})
            EXPECT_EQ(num(played[i], k), 0) << k;
    }
    // Ten seconds of a six-second sample: every channel played past the loop
    // point, at about the stream's own rate.
    played.resize(3);
    for (const Json &c : played) {
        EXPECT_EQ(num(c, "started"), 1) << c;
        EXPECT_EQ(num(c, "stopped"), 1) << c;
        EXPECT_GT(num(c, "video_frames"), sample_video) << c;
        EXPECT_LT(num(c, "video_frames"), 25 * 11) << c;
    }
    // Under faults every start is matched by a stop and frames still arrive.
    for (const Json &c : summary_channels(f.out, 3)) {
        EXPECT_GE(num(c, "started"), 1) << c;
        EXPECT_EQ(num(c, "stopped"), num(c, "started")) << c;
        EXPECT_GT(num(c, "video_frames"), 0) << c;
    }
}

} // namespace
