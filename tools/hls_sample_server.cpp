// hls-sample-server: serves the sample streams of tests/data (hls/master.m3u8
// with its variants, stream.ts, stream.flv) on 127.0.0.1 as
// a live HLS presentation, a static (ended) HLS presentation and plain TS and
// FLV streams played out in real time, with optional faults for tests/demos.
//
//   /hls/master.m3u8      live: each variant a sliding window over its
//                          segments, looped forever, sequence rising in time
//   /vod/master.m3u8      the same variants as ended playlists (EXT-X-ENDLIST)
//   /stream.ts            MPEG-TS in real time, looped (or once with --once)
//   /stream.flv           FLV in real time, header once, time stamps rising
#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#ifndef HLS_SAMPLE_DATA_DIR
#define HLS_SAMPLE_DATA_DIR "tests/data"
#endif

namespace {

using Clock = std::chrono::steady_clock;

const char *const kPlaylistType = "application/vnd.apple.mpegurl";
const char *const kTsType = "video/MP2T";
const char *const kFlvType = "video/x-flv";

struct Options {
    std::string data = HLS_SAMPLE_DATA_DIR;
    int port = 0;
    double seconds = 3600;
    int window = 3;
    bool once = false;
    double fault_404 = 0;
    double fault_500 = 0;
    double truncate = 0;
    double garbage = 0;
    double playlist_change = 0;
    double stall = 0;
    int stall_ms = 2000;
    double drop = 0;
    int slow_kbps = 0;
    int playlist_delay_ms = 100;
    uint64_t seed = 1;
};

struct Segment {
    std::string name;          // URI as the sample playlist gives it
    std::string duration_text; // EXTINF value as written in the sample
    double duration = 0;       // seconds
    std::string bytes;
};

struct Variant {
    std::string uri; // playlist URI as the master gives it, e.g. low/index.m3u8
    std::string dir; // its directory part with trailing slash, or empty
    std::vector<Segment> segments;
    std::vector<double> starts; // start of each segment within one loop; back() = loop length
    int target = 1;             // whole seconds, at least the longest segment
};

struct FlvTag {
    size_t offset; // of the tag header in the file
    size_t size;   // tag header + body + trailing previous-tag-size
    uint32_t timestamp;
    uint8_t type;
};

struct Samples {
    std::string master;
    std::vector<Variant> variants;
    std::string ts;
    double ts_seconds = 0;
    std::string flv;
    std::vector<FlvTag> flv_tags;
    uint32_t flv_loop_ms = 0;
};

std::atomic<bool> g_stopping{false};
Options g_opt;
Samples g_samples;
Clock::time_point g_t0;
std::mutex g_rng_lock;
std::mt19937_64 g_rng;

bool read_file(const std::string &path, std::string &out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
            line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

// Plain relative names only: the server maps URIs onto files of the data
// directory, so anything that could step out of it is refused.
bool safe_relative(const std::string &uri)
{
    return !uri.empty() && uri[0] != '/' && uri.find("..") == std::string::npos &&
           uri.find("://") == std::string::npos && uri.find('?') == std::string::npos;
}

bool load_variant(const std::string &data, Variant &v, std::string &err)
{
    size_t slash = v.uri.rfind('/');
    v.dir = slash == std::string::npos ? "" : v.uri.substr(0, slash + 1);
    std::string text;
    if (!read_file(data + "/" + v.uri, text)) {
        err = "cannot read " + data + "/" + v.uri;
        return false;
    }
    std::string pending_duration;
    bool have_inf = false;
    for (const std::string &line : lines_of(text)) {
        if (line.rfind("#EXTINF:", 0) == 0) {
            pending_duration = line.substr(8, line.find(',') == std::string::npos ? std::string::npos
                                                                                   : line.find(',') - 8);
            have_inf = true;
        } else if (!line.empty() && line[0] != '#' && have_inf) {
            Segment s;
            s.name = line;
            s.duration_text = pending_duration;
            s.duration = std::strtod(pending_duration.c_str(), nullptr);
            if (!safe_relative(line) || !(s.duration > 0)) {
                err = "unusable segment entry in " + v.uri + ": " + line;
                return false;
            }
            if (!read_file(data + "/" + v.dir + line, s.bytes)) {
                err = "cannot read " + data + "/" + v.dir + line;
                return false;
            }
            v.segments.push_back(std::move(s));
            have_inf = false;
        }
    }
    if (v.segments.empty()) {
        err = "no segments in " + v.uri;
        return false;
    }
    double t = 0;
    for (const Segment &s : v.segments) {
        v.starts.push_back(t);
        t += s.duration;
        v.target = std::max(v.target, static_cast<int>(std::ceil(s.duration)));
    }
    v.starts.push_back(t);
    return true;
}

// Length of the TS sample in seconds, from the presentation time stamps of
// the elementary stream with the most PES headers: (last - first) plus one
// average spacing, so that looping keeps the stream's own rate.
double ts_duration(const std::string &ts)
{
    struct Pid {
        uint64_t first = 0, last = 0;
        size_t count = 0;
    };
    std::map<int, Pid> pids;
    const auto *p = reinterpret_cast<const uint8_t *>(ts.data());
    for (size_t off = 0; off + 188 <= ts.size(); off += 188) {
        const uint8_t *pkt = p + off;
        if (pkt[0] != 0x47 || !(pkt[1] & 0x40))
            continue;
        int pid = ((pkt[1] & 0x1f) << 8) | pkt[2];
        size_t pos = 4;
        if (pkt[3] & 0x20)
            pos += 1 + pkt[4];
        if (!(pkt[3] & 0x10) || pos + 14 > 188)
            continue;
        const uint8_t *pes = pkt + pos;
        if (pes[0] != 0 || pes[1] != 0 || pes[2] != 1 || !(pes[7] & 0x80))
            continue;
        uint64_t pts = (uint64_t(pes[9] & 0x0e) << 29) | (uint64_t(pes[10]) << 22) | (uint64_t(pes[11] & 0xfe) << 14) |
                       (uint64_t(pes[12]) << 7) | (pes[13] >> 1);
        Pid &e = pids[pid];
        if (e.count == 0 || pts < e.first)
            e.first = pts;
        if (e.count == 0 || pts > e.last)
            e.last = pts;
        e.count++;
    }
    const Pid *best = nullptr;
    for (const auto &kv : pids)
        if (!best || kv.second.count > best->count)
            best = &kv.second;
    if (!best || best->count < 2 || best->last <= best->first)
        return 0;
    double span = double(best->last - best->first) / 90000.0;
    return span * double(best->count) / double(best->count - 1);
}

bool parse_flv(Samples &s, std::string &err)
{
    const auto *p = reinterpret_cast<const uint8_t *>(s.flv.data());
    if (s.flv.size() < 13 || std::memcmp(p, "FLV", 3) != 0) {
        err = "stream.flv is not an FLV file";
        return false;
    }
    size_t off = (size_t(p[5]) << 24) | (size_t(p[6]) << 16) | (size_t(p[7]) << 8) | p[8];
    off += 4; // PreviousTagSize0
    uint32_t last_video = 0, prev_video = 0;
    while (off + 15 <= s.flv.size()) {
        size_t body = (size_t(p[off + 1]) << 16) | (size_t(p[off + 2]) << 8) | p[off + 3];
        if (off + 11 + body + 4 > s.flv.size())
            break;
        uint32_t ts = (uint32_t(p[off + 7]) << 24) | (uint32_t(p[off + 4]) << 16) | (uint32_t(p[off + 5]) << 8) |
                      p[off + 6];
        uint8_t type = p[off] & 0x1f;
        s.flv_tags.push_back({off, 11 + body + 4, ts, type});
        if (type == 9 && ts != last_video) {
            prev_video = last_video;
            last_video = ts;
        }
        off += 11 + body + 4;
    }
    if (s.flv_tags.empty()) {
        err = "stream.flv holds no tags";
        return false;
    }
    uint32_t last = 0;
    for (const FlvTag &t : s.flv_tags)
        last = std::max(last, t.timestamp);
    uint32_t spacing = last_video > prev_video ? last_video - prev_video : 40;
    s.flv_loop_ms = last + spacing;
    return true;
}

bool load_samples(const std::string &data, Samples &s, std::string &err)
{
    const std::string hls = data + "/hls";
    if (!read_file(hls + "/master.m3u8", s.master)) {
        err = "cannot read " + hls + "/master.m3u8";
        return false;
    }
    bool after_inf = false;
    for (const std::string &line : lines_of(s.master)) {
        if (line.rfind("#EXT-X-STREAM-INF", 0) == 0) {
            after_inf = true;
        } else if (!line.empty() && line[0] != '#' && after_inf) {
            if (!safe_relative(line)) {
                err = "unusable variant URI in master.m3u8: " + line;
                return false;
            }
            Variant v;
            v.uri = line;
            if (!load_variant(hls, v, err))
                return false;
            s.variants.push_back(std::move(v));
            after_inf = false;
        }
    }
    if (s.variants.empty()) {
        err = "master.m3u8 lists no variants";
        return false;
    }
    if (!read_file(data + "/stream.ts", s.ts) || s.ts.size() < 188) {
        err = "cannot read " + data + "/stream.ts";
        return false;
    }
    s.ts_seconds = ts_duration(s.ts);
    if (!(s.ts_seconds > 0))
        s.ts_seconds = s.variants[0].starts.back();
    if (!read_file(data + "/stream.flv", s.flv)) {
        err = "cannot read " + data + "/stream.flv";
        return false;
    }
    return parse_flv(s, err);
}

double seconds_since_start() { return std::chrono::duration<double>(Clock::now() - g_t0).count(); }

// Sleeps up to `ms` in short slices; false when the server is stopping.
bool nap(int ms)
{
    auto until = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < until) {
        if (g_stopping.load())
            return false;
        std::this_thread::sleep_for(std::min<Clock::duration>(std::chrono::milliseconds(10), until - Clock::now()));
    }
    return !g_stopping.load();
}

double uniform()
{
    std::lock_guard<std::mutex> lock(g_rng_lock);
    return std::uniform_real_distribution<double>(0.0, 1.0)(g_rng);
}

bool chance(double p) { return p > 0 && uniform() < p; }

// ---- live HLS -------------------------------------------------------------

// Number of segments published so far on a variant's endless timeline. The
// timeline starts `window` segments before the server did, so the very first
// playlist is already full.
uint64_t published(const Variant &v)
{
    const size_t n = v.segments.size();
    const double loop = v.starts.back();
    double lead = 0;
    for (int i = 0; i < g_opt.window; i++)
        lead += v.segments[size_t(i) % n].duration;
    double e = seconds_since_start() + lead + 1e-9;
    uint64_t loops = static_cast<uint64_t>(e / loop);
    double rem = e - double(loops) * loop;
    uint64_t count = loops * n;
    for (size_t i = 0; i < n && v.starts[i + 1] <= rem; i++)
        count++;
    return count;
}

std::string live_playlist(const Variant &v)
{
    const size_t n = v.segments.size();
    uint64_t avail = published(v);
    uint64_t first = avail > uint64_t(g_opt.window) ? avail - uint64_t(g_opt.window) : 0;
    std::string out = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" + std::to_string(v.target) +
                      "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
    for (uint64_t s = first; s < avail; s++) {
        if (s > 0 && s % n == 0)
            out += "#EXT-X-DISCONTINUITY\n";
        out += "#EXTINF:" + v.segments[s % n].duration_text + ",\nseg" + std::to_string(s) + ".ts\n";
    }
    return out;
}

// A live playlist that changes under the reader: its window jumps back to an
// earlier sequence (as after an encoder restart), its entries come in another
// order, or it turns into text that is no playlist at all.
std::string changed_playlist(const Variant &v, std::string text)
{
    double pick = uniform();
    if (pick < 0.4) {
        std::string restart = "#EXT-X-MEDIA-SEQUENCE:" + std::to_string(uint64_t(uniform() * 5.0));
        size_t at = text.find("#EXT-X-MEDIA-SEQUENCE:");
        size_t end = text.find('\n', at);
        return text.replace(at, end - at, restart);
    }
    if (pick < 0.8) {
        std::string out = "#EXTM3U\n#EXT-X-TARGETDURATION:" + std::to_string(v.target) + "\n";
        for (size_t i = v.segments.size(); i-- > 0;)
            out += "#EXTINF:" + v.segments[i].duration_text + ",\nseg" + std::to_string(i) + ".ts\n";
        return out;
    }
    return "<html>maintenance</html>\n";
}

std::string ended_playlist(const Variant &v)
{
    std::string out =
        "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:" + std::to_string(v.target) + "\n#EXT-X-MEDIA-SEQUENCE:0\n";
    for (const Segment &s : v.segments)
        out += "#EXTINF:" + s.duration_text + ",\n" + s.name + "\n";
    return out + "#EXT-X-ENDLIST\n";
}

// ---- bodies with faults ----------------------------------------------------

// Plays out a body of known size with the configured faults: a stall at a
// random point, a dropped connection at a random point, a speed cap.
// `body` is sample data, which lives as long as the process.
void serve_with_faults(httplib::Response &res, const std::string *sample)
{
    if (chance(g_opt.fault_404)) {
        res.status = 404;
        res.set_content("not found (injected)\n", "text/plain");
        return;
    }
    if (chance(g_opt.fault_500)) {
        res.status = 500;
        res.set_content("server error (injected)\n", "text/plain");
        return;
    }
    // A truncated segment is a complete response with a shorter body; a
    // garbage one turns into random bytes from a random point on.
    auto owned = std::make_shared<std::string>();
    const std::string *body = sample;
    if (chance(g_opt.truncate)) {
        *owned = sample->substr(0, size_t(uniform() * double(sample->size())));
        body = owned.get();
    } else if (chance(g_opt.garbage)) {
        *owned = *sample;
        for (size_t i = size_t(uniform() * double(owned->size())); i < owned->size(); i++)
            (*owned)[i] = char(uniform() * 256.0);
        body = owned.get();
    }
    const size_t size = body->size();
    const size_t drop_at = chance(g_opt.drop) ? size_t(uniform() * double(size)) : size + 1;
    const size_t stall_at = chance(g_opt.stall) ? size_t(uniform() * double(size)) : size + 1;
    const double rate = g_opt.slow_kbps > 0 ? g_opt.slow_kbps * 125.0 : 0; // bytes per second
    auto start = std::make_shared<Clock::time_point>(Clock::now());
    auto stalled = std::make_shared<bool>(false);
    res.set_content_provider(size, kTsType, [=](size_t offset, size_t, httplib::DataSink &sink) {
        (void)owned; // keeps a faulty body alive while it is sent
        if (g_stopping.load())
            return false;
        if (offset >= stall_at && !*stalled) {
            *stalled = true;
            if (!nap(g_opt.stall_ms))
                return false;
            *start = Clock::now() - std::chrono::milliseconds(rate > 0 ? int64_t(double(offset) * 1000.0 / rate) : 0);
        }
        size_t chunk = std::min<size_t>(16384, size - offset);
        if (rate > 0) {
            double allowed = std::chrono::duration<double>(Clock::now() - *start).count() * rate;
            if (double(offset) >= allowed) {
                nap(10);
                return !g_stopping.load();
            }
            chunk = std::min(chunk, std::max<size_t>(1, size_t(allowed - double(offset))));
        }
        if (offset < drop_at && offset + chunk > drop_at)
            chunk = drop_at - offset;
        if (offset >= drop_at)
            return false; // close mid-body
        return chunk == 0 || sink.write(body->data() + offset, chunk);
    });
}

// ---- real-time streams -----------------------------------------------------

struct TsPlayout {
    Clock::time_point start = Clock::now();
    uint64_t sent = 0;
    bool stalled = false;
    uint64_t stall_at = UINT64_MAX, drop_at = UINT64_MAX;
};

void serve_ts(httplib::Response &res)
{
    const std::string &ts = g_samples.ts;
    double rate = double(ts.size()) / g_samples.ts_seconds;
    if (g_opt.slow_kbps > 0)
        rate = std::min(rate, g_opt.slow_kbps * 125.0);
    auto st = std::make_shared<TsPlayout>();
    if (chance(g_opt.stall))
        st->stall_at = uint64_t(uniform() * double(ts.size()));
    if (chance(g_opt.drop))
        st->drop_at = uint64_t(uniform() * double(ts.size()));
    // A quarter second ahead of the clock, whole packets at a time.
    auto provider = [st, rate](size_t, httplib::DataSink &sink) {
        const std::string &data = g_samples.ts;
        if (g_stopping.load())
            return false;
        if (g_opt.once && st->sent >= data.size())
            return true; // the fixed length ends the body
        if (st->sent >= st->drop_at)
            return false;
        if (st->sent >= st->stall_at && !st->stalled) {
            st->stalled = true;
            if (!nap(g_opt.stall_ms))
                return false;
            st->start += std::chrono::milliseconds(g_opt.stall_ms);
        }
        double ahead = std::chrono::duration<double>(Clock::now() - st->start).count() + 0.25;
        uint64_t allowed = uint64_t(ahead * rate) / 188 * 188;
        if (st->sent >= allowed) {
            nap(10);
            return !g_stopping.load();
        }
        size_t pos = size_t(st->sent % data.size());
        size_t chunk = std::min<size_t>({size_t(allowed - st->sent), data.size() - pos, 64 * 188});
        if (st->drop_at != UINT64_MAX && st->sent + chunk > st->drop_at)
            chunk = size_t(st->drop_at - st->sent);
        if (chunk > 0 && !sink.write(data.data() + pos, chunk))
            return false;
        st->sent += chunk;
        return true;
    };
    if (g_opt.once)
        res.set_content_provider(ts.size(), kTsType,
                                 [provider](size_t, size_t, httplib::DataSink &sink) { return provider(0, sink); });
    else
        res.set_chunked_content_provider(kTsType, provider);
}

struct FlvPlayout {
    Clock::time_point start = Clock::now();
    bool header_sent = false;
    uint64_t loop = 0;
    size_t tag = 0;
    uint64_t tags_sent = 0;
    uint64_t stall_at = UINT64_MAX, drop_at = UINT64_MAX;
    bool stalled = false;
};

void serve_flv(httplib::Response &res)
{
    auto st = std::make_shared<FlvPlayout>();
    const size_t ntags = g_samples.flv_tags.size();
    if (chance(g_opt.stall))
        st->stall_at = uint64_t(uniform() * double(ntags));
    if (chance(g_opt.drop))
        st->drop_at = uint64_t(uniform() * double(ntags));
    const uint64_t slow_rate = g_opt.slow_kbps > 0 ? uint64_t(g_opt.slow_kbps) * 125 : 0;
    auto bytes_out = std::make_shared<uint64_t>(0);
    auto provider = [st, slow_rate, bytes_out](size_t, httplib::DataSink &sink) {
        const Samples &s = g_samples;
        if (g_stopping.load())
            return false;
        if (!st->header_sent) {
            size_t head = s.flv_tags[0].offset;
            st->header_sent = true;
            *bytes_out += head;
            return sink.write(s.flv.data(), head);
        }
        if (st->tag == s.flv_tags.size()) {
            if (g_opt.once)
                return true; // the fixed length ends the body
            st->tag = 0;
            st->loop++;
        }
        if (st->tags_sent >= st->drop_at)
            return false;
        if (st->tags_sent >= st->stall_at && !st->stalled) {
            st->stalled = true;
            if (!nap(g_opt.stall_ms))
                return false;
            st->start += std::chrono::milliseconds(g_opt.stall_ms);
        }
        const FlvTag &t = s.flv_tags[st->tag];
        if (st->loop > 0 && t.type == 18) { // metadata goes out with the first loop only
            st->tag++;
            return true;
        }
        uint64_t when = uint64_t(t.timestamp) + st->loop * s.flv_loop_ms;
        auto elapsed = uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - st->start).count());
        bool early = when > elapsed + 250;
        bool over_cap = slow_rate > 0 && *bytes_out > (elapsed + 250) * slow_rate / 1000;
        if (early || over_cap) {
            nap(10);
            return !g_stopping.load();
        }
        std::string tag = s.flv.substr(t.offset, t.size);
        uint32_t ts = uint32_t(when);
        tag[4] = char((ts >> 16) & 0xff);
        tag[5] = char((ts >> 8) & 0xff);
        tag[6] = char(ts & 0xff);
        tag[7] = char((ts >> 24) & 0xff);
        st->tag++;
        st->tags_sent++;
        *bytes_out += tag.size();
        return sink.write(tag.data(), tag.size());
    };
    if (g_opt.once) {
        res.set_content_provider(g_samples.flv.size(), kFlvType,
                                 [provider](size_t, size_t, httplib::DataSink &sink) { return provider(0, sink); });
    } else {
        res.set_chunked_content_provider(kFlvType, provider);
    }
}

// ---- connections -----------------------------------------------------------

// One thread per connection. A player keeps its connections open between
// requests (and a stream's connection for as long as it plays), so a fixed
// pool would hold every connection past its size back until an earlier one
// closed. Finished threads are joined at the next connection and at shutdown.
class ThreadPerConnection : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> fn) override
    {
        std::vector<std::thread> finished;
        bool spawned = true;
        {
            std::lock_guard<std::mutex> lock(lock_);
            finished.swap(finished_);
            // The new thread needs the lock to move itself to finished_, so
            // it is always in running_ by then.
            try {
                std::thread t([this, fn] {
                    fn();
                    std::lock_guard<std::mutex> done(lock_);
                    auto self = running_.find(std::this_thread::get_id());
                    finished_.push_back(std::move(self->second));
                    running_.erase(self);
                    idle_.notify_all();
                });
                running_.emplace(t.get_id(), std::move(t));
            } catch (const std::system_error &) {
                spawned = false;
            }
        }
        for (std::thread &f : finished)
            f.join();
        if (!spawned)
            fn(); // out of threads: served here, holding back the next accept meanwhile
    }

    void shutdown() override
    {
        std::unique_lock<std::mutex> lock(lock_);
        idle_.wait(lock, [this] { return running_.empty(); });
        std::vector<std::thread> finished;
        finished.swap(finished_);
        lock.unlock();
        for (std::thread &f : finished)
            f.join();
    }

private:
    std::mutex lock_;
    std::condition_variable idle_;
    std::map<std::thread::id, std::thread> running_;
    std::vector<std::thread> finished_;
};

// ---- routing ---------------------------------------------------------------

bool parse_segment_number(const std::string &name, uint64_t &seq)
{
    if (name.size() < 7 || name.compare(0, 3, "seg") != 0 || name.compare(name.size() - 3, 3, ".ts") != 0)
        return false;
    std::string digits = name.substr(3, name.size() - 6);
    if (digits.empty() || digits.size() > 18 || digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    seq = std::stoull(digits);
    return true;
}

void playlist_response(httplib::Response &res, const std::string &text, bool media)
{
    // A short pause before every media playlist slows down clients that
    // reload an unchanged playlist without pausing; the master is fetched
    // once per start and is answered at once.
    if (media)
        nap(g_opt.playlist_delay_ms);
    res.set_content(text, kPlaylistType);
}

void route(const httplib::Request &req, httplib::Response &res)
{
    const std::string &path = req.path;
    const Samples &s = g_samples;
    if (path == "/stream.ts")
        return serve_ts(res);
    if (path == "/stream.flv")
        return serve_flv(res);
    bool live = path.rfind("/hls/", 0) == 0;
    bool ended = path.rfind("/vod/", 0) == 0;
    if (live || ended) {
        std::string rest = path.substr(5);
        if (rest == "master.m3u8")
            return playlist_response(res, s.master, false);
        for (const Variant &v : s.variants) {
            if (rest == v.uri) {
                std::string text = live ? live_playlist(v) : ended_playlist(v);
                if (live && chance(g_opt.playlist_change))
                    text = changed_playlist(v, text);
                return playlist_response(res, text, true);
            }
            if (rest.compare(0, v.dir.size(), v.dir) != 0)
                continue;
            std::string name = rest.substr(v.dir.size());
            if (name.find('/') != std::string::npos)
                continue;
            uint64_t seq = 0;
            if (live && parse_segment_number(name, seq)) {
                const Segment &seg = v.segments[seq % v.segments.size()];
                return serve_with_faults(res, &seg.bytes);
            }
            for (const Segment &seg : v.segments)
                if (ended && seg.name == name)
                    return serve_with_faults(res, &seg.bytes);
        }
    }
    res.status = 404;
    res.set_content("not found\n", "text/plain");
}

void usage(FILE *out)
{
    std::fprintf(out,
                 "usage: hls-sample-server [options]\n"
                 "Serves the sample streams on 127.0.0.1:\n"
                 "  /hls/master.m3u8  live HLS (sliding window, looped, sequence rising in real time)\n"
                 "  /vod/master.m3u8  the same variants as ended playlists (EXT-X-ENDLIST)\n"
                 "  /stream.ts        MPEG-TS in real time, looped\n"
                 "  /stream.flv       FLV in real time, looped, time stamps rising\n"
                 "options:\n"
                 "  --data DIR             sample directory (default %s)\n"
                 "  --port N               port, 0 picks a free one (default 0); printed first as \"port N\"\n"
                 "  --seconds S            stop after S seconds (default 3600)\n"
                 "  --window N             segments in each live playlist (default 3)\n"
                 "  --once                 /stream.ts and /stream.flv play the sample once, then end\n"
                 "  --fault-404 P          answer a fraction P of segment requests with 404\n"
                 "  --fault-500 P          answer a fraction P of segment requests with 500\n"
                 "  --truncate P           cut a fraction P of segment bodies short (complete responses)\n"
                 "  --garbage P            turn a fraction P of segment bodies into random bytes midway\n"
                 "  --playlist-change P    change a fraction P of live playlists under the reader\n"
                 "  --stall P              pause a fraction P of segment and stream bodies once\n"
                 "  --stall-ms N           length of that pause (default 2000)\n"
                 "  --drop P               close a fraction P of segment and stream bodies midway\n"
                 "  --slow-kbps N          cap every segment and stream body at N kbit/s\n"
                 "  --playlist-delay-ms N  wait before answering a media playlist (default 100)\n"
                 "  --seed N               seed of the fault choices (default 1)\n"
                 "  --help\n",
                 HLS_SAMPLE_DATA_DIR);
}

bool parse_number(const char *text, double lo, double hi, double &out)
{
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= lo && v <= hi))
        return false;
    out = v;
    return true;
}

// Returns -1 to go on, else the exit status.
int parse_options(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        }
        if (a == "--once") {
            g_opt.once = true;
            continue;
        }
        struct Numeric {
            const char *name;
            double lo, hi;
            bool integer;
            std::function<void(double)> set;
        };
        const Numeric numeric[] = {
            {"--port", 0, 65535, true, [](double v) { g_opt.port = int(v); }},
            {"--seconds", 0.001, 1e7, false, [](double v) { g_opt.seconds = v; }},
            {"--window", 1, 100, true, [](double v) { g_opt.window = int(v); }},
            {"--fault-404", 0, 1, false, [](double v) { g_opt.fault_404 = v; }},
            {"--fault-500", 0, 1, false, [](double v) { g_opt.fault_500 = v; }},
            {"--truncate", 0, 1, false, [](double v) { g_opt.truncate = v; }},
            {"--garbage", 0, 1, false, [](double v) { g_opt.garbage = v; }},
            {"--playlist-change", 0, 1, false, [](double v) { g_opt.playlist_change = v; }},
            {"--stall", 0, 1, false, [](double v) { g_opt.stall = v; }},
            {"--stall-ms", 0, 600000, true, [](double v) { g_opt.stall_ms = int(v); }},
            {"--drop", 0, 1, false, [](double v) { g_opt.drop = v; }},
            {"--slow-kbps", 1, 1e7, true, [](double v) { g_opt.slow_kbps = int(v); }},
            {"--playlist-delay-ms", 0, 60000, true, [](double v) { g_opt.playlist_delay_ms = int(v); }},
            {"--seed", 0, 1e18, true, [](double v) { g_opt.seed = uint64_t(v); }},
        };
        if (a == "--data") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "hls-sample-server: --data needs a directory\n");
                return 2;
            }
            g_opt.data = argv[++i];
            continue;
        }
        const Numeric *match = nullptr;
        for (const Numeric &n : numeric)
            if (a == n.name)
                match = &n;
        if (!match) {
            std::fprintf(stderr, "hls-sample-server: unknown option '%s' (try --help)\n", a.c_str());
            return 2;
        }
        double v = 0;
        if (i + 1 >= argc || !parse_number(argv[i + 1], match->lo, match->hi, v) ||
            (match->integer && v != std::floor(v))) {
            std::fprintf(stderr, "hls-sample-server: %s needs a %s from %g to %g\n", match->name,
                         match->integer ? "whole number" : "number", match->lo, match->hi);
            return 2;
        }
        match->set(v);
        i++;
    }
    return -1;
}

} // namespace

int main(int argc, char **argv)
{
    int rc = parse_options(argc, argv);
    if (rc >= 0)
        return rc;
    std::string err;
    if (!load_samples(g_opt.data, g_samples, err)) {
        std::fprintf(stderr, "hls-sample-server: %s\n", err.c_str());
        return 1;
    }
    g_rng.seed(g_opt.seed);

    // Signals are taken synchronously by the main thread; every other thread
    // inherits the blocked mask.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);
    signal(SIGPIPE, SIG_IGN);

    httplib::Server svr;
    svr.new_task_queue = [] { return new ThreadPerConnection; };
    // Only SO_REUSEADDR: the HTTP library's default adds SO_REUSEPORT, which
    // would let a second server bind a port that is already in use.
    socket_t listener_sock = INVALID_SOCKET;
    svr.set_socket_options([&listener_sock](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        listener_sock = sock;
    });
    svr.set_keep_alive_timeout(2);
    svr.Get(".*", route);
    int port = g_opt.port;
    if (port == 0) {
        port = svr.bind_to_any_port("127.0.0.1");
    } else if (!svr.bind_to_port("127.0.0.1", port)) {
        port = -1;
    }
    if (port <= 0) {
        std::fprintf(stderr, "hls-sample-server: cannot bind 127.0.0.1:%d (in use?)\n", g_opt.port);
        return 1;
    }
    // The HTTP library listens with a backlog of 5: a player starting dozens
    // of channels at once would see its surplus connections dropped and
    // retried a second or more later. Listening again only raises the backlog.
    if (listener_sock != INVALID_SOCKET)
        listen(listener_sock, SOMAXCONN);
    g_t0 = Clock::now();
    std::printf("port %d\n", port);
    std::printf("hls  http://127.0.0.1:%d/hls/master.m3u8\n", port);
    std::printf("vod  http://127.0.0.1:%d/vod/master.m3u8\n", port);
    std::printf("ts   http://127.0.0.1:%d/stream.ts\n", port);
    std::printf("flv  http://127.0.0.1:%d/stream.flv\n", port);
    std::fflush(stdout);

    std::thread listener([&svr] { svr.listen_after_bind(); });
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(g_opt.seconds));
    while (Clock::now() < deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        long wait_ms = std::max<long>(1, std::min<long>(left, 500));
        struct timespec ts = {wait_ms / 1000, (wait_ms % 1000) * 1000000L};
        if (sigtimedwait(&sigs, nullptr, &ts) > 0)
            break;
    }
    g_stopping.store(true);
    svr.stop();
    listener.join();
    return 0;
}
