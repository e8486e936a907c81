// End to end: the sample server and the player run as real processes; the
// player loads the library and the reference demultiplexers. What arrives is
// compared with the facts tests/data/samples.txt records for each sample.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "HLSClientLib.h"
#include "sha256.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
const std::string kPlayer = HLS_BINARY_DIR "/hlsplay";
const std::string kServer = HLS_BINARY_DIR "/hls-sample-server";

// ---- child processes ---------------------------------------------------

struct Child {
    pid_t pid = -1;
    int out = -1, err = -1;
};

// Starts `args` with stdout and stderr on pipes; `env_extra` entries
// ("NAME=value") replace or add to the environment.
Child spawn(const std::vector<std::string> &args, const std::vector<std::string> &env_extra = {})
{
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0)
        throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    posix_spawn_file_actions_addclose(&fa, out[0]);
    posix_spawn_file_actions_addclose(&fa, err[0]);
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> env_text(env_extra);
    for (char **e = environ; *e; e++) {
        std::string entry = *e;
        bool replaced = false;
        for (const std::string &x : env_extra)
            replaced = replaced || entry.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0;
        if (!replaced)
            env_text.push_back(entry);
    }
    std::vector<char *> envp;
    for (const std::string &e : env_text)
        envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    Child c;
    int rc = posix_spawn(&c.pid, argv[0], &fa, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    close(out[1]);
    close(err[1]);
    if (rc != 0)
        throw std::runtime_error("cannot start " + args[0]);
    c.out = out[0];
    c.err = err[0];
    return c;
}

struct Result {
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

// Collects a child's output until it exits; kills it after `limit`.
Result finish(Child c, std::chrono::seconds limit, const std::function<void(Child &, const Result &)> &watch = {})
{
    Result r;
    auto deadline = Clock::now() + limit;
    bool open_out = true, open_err = true;
    while (open_out || open_err) {
        if (Clock::now() > deadline) {
            kill(c.pid, SIGKILL);
            ADD_FAILURE() << "child did not finish in time: " << r.err;
            deadline = Clock::now() + std::chrono::hours(1);
        }
        pollfd fds[2] = {{c.out, POLLIN, 0}, {c.err, POLLIN, 0}};
        poll(fds, 2, 100);
        char buf[65536];
        for (int k = 0; k < 2; k++) {
            if (!(fds[k].revents & (POLLIN | POLLHUP)))
                continue;
            ssize_t n = read(fds[k].fd, buf, sizeof buf);
            if (n > 0)
                (k == 0 ? r.out : r.err).append(buf, size_t(n));
            else
                (k == 0 ? open_out : open_err) = false;
        }
        if (watch)
            watch(c, r);
    }
    close(c.out);
    close(c.err);
    int ws = 0;
    waitpid(c.pid, &ws, 0);
    r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws);
    return r;
}

Result run(const std::vector<std::string> &args, std::chrono::seconds limit = std::chrono::seconds(60))
{
    return finish(spawn(args), limit);
}

// The sample server on a free port; stopped with SIGTERM when it goes.
class SampleServer {
public:
    explicit SampleServer(std::vector<std::string> extra = {})
    {
        std::vector<std::string> args = {kServer, "--port", "0", "--seconds", "90"};
        args.insert(args.end(), extra.begin(), extra.end());
        // In a TSan build the server runs with suppressions for the
        // uninstrumented HTTP library it links.
        const char *tsan = getenv("TSAN_OPTIONS");
        child_ = spawn(args, {std::string("TSAN_OPTIONS=") + (tsan ? tsan : "") +
                              " suppressions=" HLS_SOURCE_DIR "/tools/tsan-httplib.supp"});
        std::string text;
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (text.find('\n') == std::string::npos && Clock::now() < deadline) {
            pollfd p = {child_.out, POLLIN, 0};
            char buf[256];
            if (poll(&p, 1, 100) > 0) {
                ssize_t n = read(child_.out, buf, sizeof buf);
                if (n <= 0)
                    break;
                text.append(buf, size_t(n));
            }
        }
        if (text.rfind("port ", 0) == 0)
            port_ = std::atoi(text.c_str() + 5);
        if (port_ <= 0)
            throw std::runtime_error("sample server did not report a port: " + text);
    }
    ~SampleServer()
    {
        // A clean exit on SIGTERM also shows the server never crashed.
        kill(child_.pid, SIGTERM);
        Result r = finish(child_, std::chrono::seconds(10));
        EXPECT_EQ(r.status, 0) << "sample server: " << r.err;
    }
    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    int port() const { return port_; }

private:
    Child child_;
    int port_ = 0;
};

// ---- sample facts and files --------------------------------------------

std::map<std::string, std::string> sample_facts()
{
    std::map<std::string, std::string> facts;
    std::ifstream in(HLS_SOURCE_DIR "/tests/data/samples.txt");
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (!line.empty() && line[0] != '#' && eq != std::string::npos)
            facts[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return facts;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string temp_dir()
{
    char name[] = "/tmp/hls_e2e_XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error("mkdtemp failed");
    return name;
}

// ---- the player's summary -----------------------------------------------

using Json = nlohmann::ordered_json;

// The player's summary, checked for the documented shape; one entry per
// channel, in channel order, its members in the documented order.
std::vector<Json> summary_channels(const std::string &out, size_t expected)
{
    Json doc = Json::parse(out, nullptr, false);
    const bool shaped = doc.is_object() && doc.size() == 1 && doc.contains("channels") && doc["channels"].is_array();
    if (!shaped || doc["channels"].size() != expected) {
        ADD_FAILURE() << "expected one JSON document with " << expected << " channels: " << out;
        return {};
    }
    const char *const keys[] = {"channel", "url", "started", "stopped", "video_frames",
                                "audio_frames", "video_bytes", "audio_bytes", "first_frame_ms"};
    std::vector<Json> channels = doc["channels"];
    for (size_t i = 0; i < expected; i++) {
        const Json &c = channels[i];
        std::vector<std::string> names;
        for (auto it = c.begin(); it != c.end(); ++it) {
            names.push_back(it.key());
            bool ok = it.key() == "url" ? it->is_string()
                                        : it->is_number_unsigned() || (it.key() == "first_frame_ms" && it->is_null());
            EXPECT_TRUE(ok) << it.key() << " in " << out;
        }
        EXPECT_EQ(names, std::vector<std::string>(std::begin(keys), std::end(keys))) << out;
        EXPECT_EQ(c.value("channel", -1), int(i)) << out;
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
int final_video_pes_unbounded(const std::string &variant, std::map<std::string, std::string> &facts)
{
    std::string seg = read_file(HLS_SOURCE_DIR "/tests/data/" + variant + "/seg" +
                                std::to_string(std::stoi(facts[variant + ".segments"]) - 1) + ".ts");
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

TEST(E2ePlayer, BadCommandLinesExitNonZeroWithAMessage)
{
    SampleServer taken; // its port is in use
    const std::string u = "http://127.0.0.1:1/x.ts";
    const std::string too_long = "http://127.0.0.1:1/" + std::string(512 - 19, 'a'); // 512 characters
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
        {{kPlayer, too_long}, 2, "URL 1 is 512 characters long; at most 511"},
        {{kPlayer, u, "rtsp://127.0.0.1/x"}, 2, "URL 2 is not http:// or https://: rtsp://127.0.0.1/x"},
        {{kPlayer, "127.0.0.1/x.ts"}, 2, "URL 1 is not http:// or https://"},
        {{kPlayer, "--dump", "/proc/no/such/dir", u}, 1, "cannot create /proc/no/such/dir"},
        {{kServer, "--port", "70000"}, 2, "--port needs a whole number from 0 to 65535"},
        {{kServer, "--drop", "1.5"}, 2, "--drop needs a number from 0 to 1"},
        {{kServer, "--frobnicate"}, 2, "unknown option '--frobnicate'"},
        {{kServer, "--data", "/nonexistent", "--seconds", "5"}, 1, "cannot read /nonexistent/hls/master.m3u8"},
        {{kServer, "--port", std::to_string(taken.port()), "--seconds", "5"}, 1, "cannot bind"},
    };
    for (const Case &c : cases) {
        Result r = run(c.args, std::chrono::seconds(20));
        std::string shown = c.args.size() > 1 ? c.args[1] : "(none)";
        EXPECT_EQ(r.status, c.status) << shown;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << shown << ": " << r.err;
        EXPECT_EQ(r.out, "") << shown;
    }
    // Help and version are not errors; a URL of exactly 511 characters is
    // accepted, and its channel, which cannot start, is named at the end.
    Result help = run({kPlayer, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: hlsplay"), std::string::npos);
    Result version = run({kPlayer, "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "hlsplay " HLSCLIENT_VERSION_STRING "\n");
    Result longest = run({kPlayer, "--quiet", "--seconds", "0.2", too_long.substr(0, 511)});
    EXPECT_EQ(longest.status, 1) << longest.err;
    EXPECT_NE(longest.err.find("channel 0 never started: " + too_long.substr(0, 511) + "\n"), std::string::npos)
        << longest.err;
}

TEST(E2ePlayer, FiniteStreamsDeliverTheSampleFramesIntact)
{
    auto facts = sample_facts();
    ASSERT_FALSE(facts.empty()) << "tests/data/samples.txt missing";
    SampleServer server({"--once"});
    std::string dir = temp_dir(), low_dir = dir + "/low";
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

    struct Expect {
        const Result *result;
        std::string dump_dir;
        int channel;
        std::string sample;
    } expects[] = {
        {&r, dir, 1, "stream.ts"}, {&r, dir, 2, "stream.flv"}, {&r, dir, 0, "hls/high"}, {&rl, low_dir, 0, "hls/low"}};
    std::vector<Json> main_channels = summary_channels(r.out, 3), low_channels = summary_channels(rl.out, 1);
    ASSERT_EQ(main_channels.size(), 3u);
    ASSERT_EQ(low_channels.size(), 1u);
    std::map<std::string, std::string> verified_video; // video sum -> dump that matched it
    for (const Expect &e : expects) {
        const Json &c = e.result == &r ? main_channels[size_t(e.channel)] : low_channels[0];
        const std::string &s = e.sample;
        std::string base = e.dump_dir + "/ch" + std::to_string(e.channel);
        std::string video = read_file(base + ".video"), audio = read_file(base + ".audio");
        const std::string &video_sum = facts[s + ".video_sha256"];
        int held = s.rfind("hls/", 0) == 0 ? final_video_pes_unbounded(s, facts) : 0;
        EXPECT_EQ(num(c, "started"), 1) << s;
        EXPECT_EQ(num(c, "stopped"), 1) << s;
        EXPECT_EQ(num(c, "video_frames"), std::stod(facts[s + ".video_frames"]) - held) << s;
        EXPECT_EQ(num(c, "audio_frames"), std::stod(facts[s + ".audio_frames"])) << s;
        EXPECT_EQ(num(c, "video_bytes"), double(video.size())) << s;
        EXPECT_EQ(num(c, "audio_bytes"), double(audio.size())) << s;
        EXPECT_EQ(sha256_hex(audio), facts[s + ".audio_sha256"]) << s;
        if (held == 0) {
            EXPECT_EQ(sha256_hex(video), video_sum) << s;
            verified_video[video_sum] = video;
        } else {
            // All but the final access unit: a proper prefix of the same
            // elementary stream where a direct stream verified it.
            EXPECT_LT(video.size(), std::stoul(facts[s + ".video_bytes"])) << s;
            if (verified_video.count(video_sum)) {
                EXPECT_EQ(verified_video[video_sum].compare(0, video.size(), video), 0) << s;
            }
        }
        EXPECT_GE(num(c, "first_frame_ms"), 0) << s;
        EXPECT_LT(num(c, "first_frame_ms"), 5000) << s;
    }
    EXPECT_EQ(verified_video.count(facts["hls/high.video_sha256"]), 1u) << "no direct stream checks hls/high bytes";
    // Not a terminal: plain log lines, on standard error next to the JSON.
    EXPECT_NE(r.err.find("ch1 stream started"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("ch2 stream stopped"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("ch0 no frame for 4 s, disconnecting"), std::string::npos) << r.err;
    EXPECT_EQ(rl.err.find("frames/s"), std::string::npos) << "--quiet still logged: " << rl.err;
    std::system(("rm -rf " + dir).c_str());
}

TEST(E2ePlayer, SummaryEscapesUrlsAndReportsChannelsThatNeverPlayed)
{
    // Port 1 refuses connections: the channel never starts. The URL carries
    // every character class the escaping must handle.
    const std::string odd = "http://127.0.0.1:1/a\"b\\c\td\x01/\xc3\xa9\xe2\x82\xac\xf0\x9f\x8e\xa5\xff.ts";
    const std::string plain = "http://127.0.0.1:1/plain.ts";
    // Frameless channels are closed after the idle time, so the player exits
    // long before --seconds, with 1: no channel started.
    Result r = run({kPlayer, "--json", "--quiet", "--seconds", "60", "--stop-after-idle", "0.5", odd, plain});
    ASSERT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("channel 0 never started: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("channel 1 never started: " + plain + "\n"), std::string::npos) << r.err;
    std::vector<Json> channels = summary_channels(r.out, 2);
    ASSERT_EQ(channels.size(), 2u);
    // Valid UTF-8 survives; the stray 0xff byte becomes U+FFFD.
    std::string want = odd.substr(0, odd.size() - 4) + "\xef\xbf\xbd.ts";
    EXPECT_EQ(channels[0]["url"], want);
    EXPECT_EQ(channels[1]["url"], plain);
    for (const Json &c : channels) {
        EXPECT_TRUE(c["first_frame_ms"].is_null());
        for (const char *k : {"started", "stopped", "video_frames", "audio_frames", "video_bytes", "audio_bytes"})
            EXPECT_EQ(num(c, k), 0) << k;
    }
    EXPECT_EQ(r.out.find('\t'), std::string::npos) << "raw control character in the JSON";
}

TEST(E2ePlayer, PlayerStopsCleanlyOnSigintAndSigterm)
{
    SampleServer server;
    for (int sig : {SIGINT, SIGTERM}) {
        bool sent = false;
        Clock::time_point sent_at;
        Result r = finish(spawn({kPlayer, "--json", server.url("/stream.ts")}), std::chrono::seconds(30),
                          [&](Child &c, const Result &so_far) {
                              if (!sent && so_far.err.find("ch0 stream started") != std::string::npos) {
                                  kill(c.pid, sig);
                                  sent = true;
                                  sent_at = Clock::now();
                              }
                          });
        ASSERT_TRUE(sent) << r.err;
        EXPECT_EQ(r.status, 0) << "signal " << sig << ": " << r.err;
        EXPECT_LT(Clock::now() - sent_at, std::chrono::seconds(5));
        std::vector<Json> channels = summary_channels(r.out, 1);
        ASSERT_EQ(channels.size(), 1u);
        EXPECT_EQ(num(channels[0], "started"), 1);
        EXPECT_EQ(num(channels[0], "stopped"), 1);
    }
}

TEST(E2ePlayer, TerminalGetsAStatusDisplayRedrawnInPlace)
{
    SampleServer server;
    const std::string ts = server.url("/stream.ts"), flv = server.url("/stream.flv");
    int term = -1;
    pid_t pid = forkpty(&term, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execl(kPlayer.c_str(), kPlayer.c_str(), "--seconds", "2.5", ts.c_str(), flv.c_str(), (char *)nullptr);
        _exit(127);
    }
    std::string screen;
    char buf[4096];
    for (auto deadline = Clock::now() + std::chrono::seconds(20); Clock::now() < deadline;) {
        pollfd p = {term, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        ssize_t n = read(term, buf, sizeof buf);
        if (n <= 0)
            break; // the player closed the terminal
        screen.append(buf, size_t(n));
    }
    close(term);
    int ws = 0;
    waitpid(pid, &ws, 0);
    EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0) << screen;
    // Ticks at 1 s and 2 s and a final redraw: after the first drawing, each
    // one moves up over the two channel lines and rewrites them.
    size_t ups = 0, lines = 0;
    for (size_t p = screen.find("\x1b[2A"); p != std::string::npos; p = screen.find("\x1b[2A", p + 1))
        ups++;
    for (size_t p = screen.find("\r\x1b[Kch"); p != std::string::npos; p = screen.find("\r\x1b[Kch", p + 1))
        lines++;
    EXPECT_EQ(ups, 2u) << screen;
    EXPECT_EQ(lines, 6u) << screen;
    EXPECT_NE(screen.find("ch1  playing"), std::string::npos) << screen;
    size_t last = screen.rfind("\x1b[2A");
    ASSERT_NE(last, std::string::npos);
    EXPECT_NE(screen.find("ch0  stopped", last), std::string::npos) << "final redraw: " << screen.substr(last);
    EXPECT_EQ(screen.find("stream started"), std::string::npos) << "log lines on a terminal";
}

TEST(E2eSampleServer, LivePlaylistsSlideOverLoopedSegments)
{
    SampleServer server({"--window", "8", "--playlist-delay-ms", "0"});
    httplib::Client cli("127.0.0.1", server.port());
    auto master = cli.Get("/hls/master.m3u8");
    ASSERT_TRUE(master);
    EXPECT_EQ(master->get_header_value("Content-Type"), "application/vnd.apple.mpegurl");
    EXPECT_EQ(master->body, read_file(HLS_SOURCE_DIR "/tests/data/hls/master.m3u8"));

    // Six sample segments, eight in the window: the loop point is listed,
    // marked as a discontinuity, and its segments are the sample's again.
    auto first = cli.Get("/hls/low/index.m3u8");
    ASSERT_TRUE(first);
    const std::string &text = first->body;
    EXPECT_NE(text.find("#EXT-X-MEDIA-SEQUENCE:0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("#EXT-X-DISCONTINUITY\n#EXTINF:1.000000,\nseg6.ts\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("#EXT-X-ENDLIST"), std::string::npos);
    size_t entries = 0;
    for (size_t p = text.find("#EXTINF"); p != std::string::npos; p = text.find("#EXTINF", p + 1))
        entries++;
    EXPECT_EQ(entries, 8u);
    for (int seq : {1, 7}) {
        auto seg = cli.Get(("/hls/low/seg" + std::to_string(seq) + ".ts").c_str());
        ASSERT_TRUE(seg);
        EXPECT_EQ(seg->get_header_value("Content-Type"), "video/MP2T");
        EXPECT_TRUE(seg->body == read_file(HLS_SOURCE_DIR "/tests/data/hls/low/seg1.ts")) << seq;
    }
    // The window moves on in real time, one segment per segment duration.
    std::string later;
    for (auto deadline = Clock::now() + std::chrono::seconds(10); Clock::now() < deadline;) {
        auto again = cli.Get("/hls/low/index.m3u8");
        if (again && again->body.find("#EXT-X-MEDIA-SEQUENCE:1\n") != std::string::npos) {
            later = again->body;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_NE(later.find("seg8.ts"), std::string::npos) << later;
    EXPECT_EQ(later.find("seg0.ts"), std::string::npos) << later;

    // The ended presentation lists the sample segments and ends.
    auto ended = cli.Get("/vod/high/index.m3u8");
    ASSERT_TRUE(ended);
    EXPECT_NE(ended->body.find("seg5.ts\n#EXT-X-ENDLIST\n"), std::string::npos) << ended->body;
    auto unknown = cli.Get("/hls/low/../../samples.txt");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);
}

// Connects to the server and asks for the endless TS stream; -1 on failure.
int open_stream(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(uint16_t(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string request = "GET /stream.ts HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        write(fd, request.data(), request.size()) != ssize_t(request.size())) {
        close(fd);
        return -1;
    }
    return fd;
}

// Waits until every stream has its status line or the deadline passes; the
// result holds, per stream, when its answer came (Clock::duration::max()
// when none did).
std::vector<Clock::duration> await_answers(const std::vector<int> &fds, Clock::time_point start,
                                           Clock::time_point deadline)
{
    std::vector<Clock::duration> answered(fds.size(), Clock::duration::max());
    for (size_t waiting = fds.size(); waiting > 0 && Clock::now() < deadline;) {
        std::vector<pollfd> polls;
        for (size_t i = 0; i < fds.size(); i++)
            polls.push_back({fds[i], short(answered[i] == Clock::duration::max() ? POLLIN : 0), 0});
        poll(polls.data(), polls.size(), 100);
        for (size_t i = 0; i < fds.size(); i++) {
            char head[12];
            if (!(polls[i].revents & POLLIN))
                continue;
            ssize_t n = recv(fds[i], head, sizeof head, MSG_WAITALL);
            EXPECT_EQ(std::string(head, size_t(std::max<ssize_t>(n, 0))), "HTTP/1.1 200") << "stream " << i;
            answered[i] = Clock::now() - start;
            waiting--;
        }
    }
    return answered;
}

TEST(E2eSampleServer, AnswersSixtyFourOpenStreamsAtOnce)
{
    using Ms = std::chrono::duration<double, std::milli>;
    SampleServer server;
    // One stream alone first: how long an answer takes on this machine now.
    Clock::time_point start = Clock::now();
    int lone = open_stream(server.port());
    ASSERT_GE(lone, 0);
    Clock::duration alone = await_answers({lone}, start, start + std::chrono::seconds(20))[0];
    close(lone);
    ASSERT_NE(alone, Clock::duration::max());

    // Then 64 at once, every one kept open and unread: each holds a server
    // thread for good, so a server with a fixed number of workers would never
    // answer the ones past that number. A connection the server is too slow
    // to accept is retried by TCP a second later at the earliest, several
    // seconds for repeated tries; the bound leaves a loaded machine room
    // beyond that, scaled by how long one answer took.
    const Ms bound = Ms(2000) + 100 * Ms(alone);
    std::vector<int> fds;
    start = Clock::now();
    for (int i = 0; i < 64; i++) {
        fds.push_back(open_stream(server.port()));
        ASSERT_GE(fds.back(), 0);
    }
    std::vector<Clock::duration> answered =
        await_answers(fds, start, start + std::chrono::duration_cast<Clock::duration>(bound) + std::chrono::seconds(10));
    for (int fd : fds)
        close(fd);
    Ms last = *std::max_element(answered.begin(), answered.end());
    ASSERT_NE(last, Ms(Clock::duration::max())) << "streams never answered while the others stayed open";
    std::printf("one stream answered in %.1f ms; 64 open streams all answered within %.0f ms\n", Ms(alone).count(),
                last.count());
    EXPECT_LT(last, bound);
}

TEST(E2ePlayer, LiveStreamsPlayAcrossLoopPointsAndSurviveFaults)
{
    auto facts = sample_facts();
    double sample_video = std::stod(facts["stream.ts.video_frames"]);
    SampleServer clean;
    SampleServer faulty({"--fault-404", "0.3", "--drop", "0.3", "--stall", "0.2", "--stall-ms", "800", "--seed", "3"});
    auto faults = std::async(std::launch::async, [&] {
        return run({kPlayer, "--json", "--seconds", "10", faulty.url("/hls/master.m3u8"), faulty.url("/stream.ts"),
                    faulty.url("/stream.flv")});
    });
    // A fourth channel that is refused never starts: exit status 3.
    const std::string refused = "http://127.0.0.1:1/never.ts";
    Result r = run({kPlayer, "--json", "--seconds", "10", clean.url("/hls/master.m3u8"), clean.url("/stream.ts"),
                    clean.url("/stream.flv"), refused});
    Result f = faults.get();
    ASSERT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("channel 3 never started: " + refused + "\n"), std::string::npos) << r.err;
    ASSERT_EQ(f.status, 0) << f.err;
    // Ten seconds of a six-second sample: every channel played past the loop
    // point, at about the stream's own rate.
    std::vector<Json> played = summary_channels(r.out, 4);
    ASSERT_EQ(played.size(), 4u);
    EXPECT_EQ(num(played[3], "started"), 0);
    played.pop_back();
    for (const Json &c : played) {
        EXPECT_EQ(num(c, "started"), 1) << c["url"];
        EXPECT_EQ(num(c, "stopped"), 1) << c["url"];
        EXPECT_GT(num(c, "video_frames"), sample_video) << c["url"];
        EXPECT_LT(num(c, "video_frames"), 25 * 11) << c["url"];
    }
    // Under faults every start is matched by a stop and frames still arrive.
    for (const Json &c : summary_channels(f.out, 3)) {
        EXPECT_GE(num(c, "started"), 1) << c["url"];
        EXPECT_EQ(num(c, "stopped"), num(c, "started")) << c["url"];
        EXPECT_GT(num(c, "video_frames"), 0) << c["url"];
    }
}

} // namespace
