/* MPEG-TS demultiplexer: packet sync, PAT/PMT, PES reassembly, one frame per
 * video PES and one per audio frame inside the audio PES packets. */
#include <string.h>

#include <new>
#include <vector>

#include "es_parse.h"
#include "hls_host_demux.h"

#define TS_PACKET 188
#define TS_SYNC 0x47
#define TS_MAX_STREAMS 8
#define TS_MAX_AUDIO_CARRY (64u * 1024u)
#define TS_MAX_AUDIO_PES (1024u * 1024u)
#define TS_MAX_MARKS 32
#define TS_NO_PID 0xffff

namespace {

enum StreamKind { KIND_H264, KIND_H265, KIND_AAC, KIND_MPA };

/* One elementary stream of the program; owns its PES and audio buffers. */
struct Stream {
    uint16_t pid = TS_NO_PID;
    uint8_t stream_type = 0;
    StreamKind kind = KIND_H264;
    int cc = -1;
    bool assembling = false;   /* a PES packet is being collected */
    std::vector<uint8_t> pes; /* the PES packet so far, header included */
    size_t pes_total = 0;      /* 6 + PES_packet_length, or 0 when unbounded */
    /* video */
    es_rate rate{};
    /* audio: a frame cut at the end of a PES waits here for the next one */
    std::vector<uint8_t> carry;
    /* Where each PES with a pts starts in the audio bytes not yet framed. */
    std::vector<std::pair<size_t, uint64_t>> marks;
    uint64_t base_pts = 0;    /* pts of the frame that started the sample count */
    uint64_t samples = 0;     /* samples since base_pts */
    uint32_t sample_rate = 0;
    bool have_base = false;
};

/* A PSI table (PAT or PMT) being collected across packets. */
struct Section {
    int cc = -1;
    bool active = false;
    std::vector<uint8_t> buf;
};

struct TsDemux {
    demux_frame_cb cb;
    void *user;
    std::vector<uint8_t> pend; /* bytes of a packet not yet complete */
    bool synced = true;
    Section pat;
    Section pmt;
    uint16_t pmt_pid = TS_NO_PID;
    std::vector<uint8_t> pmt_last; /* last PMT section applied */
    std::vector<Stream> streams;
};

struct CrcTable {
    uint32_t v[256];
    CrcTable()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i << 24;
            for (int k = 0; k < 8; k++)
                c = (c & 0x80000000u) ? (c << 1) ^ 0x04c11db7u : c << 1;
            v[i] = c;
        }
    }
};

/* CRC-32/MPEG-2; a whole section including its CRC field sums to 0. */
uint32_t crc32_mpeg(const uint8_t *p, size_t n)
{
    static const CrcTable table; /* built once, thread-safe */
    uint32_t crc = 0xffffffffu;
    for (size_t i = 0; i < n; i++)
        crc = (crc << 8) ^ table.v[((crc >> 24) ^ p[i]) & 0xff];
    return crc;
}

Stream *find_stream(TsDemux *d, uint16_t pid)
{
    for (Stream &s : d->streams)
        if (s.pid == pid)
            return &s;
    return nullptr;
}

void audio_reset(Stream *s)
{
    s->carry.clear();
    s->marks.clear();
    s->have_base = false;
}

/* Forgets the PES in progress; the stream waits for the next unit start. */
void drop_pes(Stream *s)
{
    s->assembling = false;
    s->pes.clear();
    s->pes_total = 0;
    if (s->kind == KIND_AAC || s->kind == KIND_MPA)
        audio_reset(s);
    else
        es_rate_reset_spacing(&s->rate);
}

uint64_t read_timestamp(const uint8_t *p)
{
    return ((uint64_t)(p[0] & 0x0e) << 29) | ((uint64_t)p[1] << 22) | ((uint64_t)(p[2] & 0xfe) << 14) |
           ((uint64_t)p[3] << 7) | (p[4] >> 1);
}

void emit_video(TsDemux *d, Stream *s, uint8_t *data, size_t size, bool has_pts, uint64_t pts, uint64_t dts)
{
    if (size == 0)
        return;
    es_au_info au;
    es_scan_annexb(data, size, s->kind == KIND_H265, &au);
    if (au.sps_rate)
        s->rate.sps_milli = au.sps_rate;
    if (has_pts)
        es_rate_add_stamp(&s->rate, dts, (1ull << 33) - 1);
    frame_info info;
    es_video_info(&info, au.key, es_rate_milli(&s->rate), (uint32_t)pts, (uint32_t)size);
    d->cb(d, &info, data, d->user);
}

/* Splits audio PES data into frames. A PES may end inside a frame, which
 * then completes with the next PES; the pts of a PES belongs to the first
 * frame that starts inside it, later frames count samples from there. */
void emit_audio(TsDemux *d, Stream *s, uint8_t *data, size_t size, bool has_pts, uint64_t pts)
{
    uint8_t *buf = data;
    size_t n = size, mark = 0;
    if (!s->carry.empty()) {
        if (s->carry.size() + size > TS_MAX_AUDIO_CARRY) {
            audio_reset(s);
        } else {
            mark = s->carry.size();
            s->carry.insert(s->carry.end(), data, data + size);
            buf = s->carry.data();
            n = s->carry.size();
        }
    }
    if (has_pts) {
        if (s->marks.size() == TS_MAX_MARKS)
            s->marks.erase(s->marks.begin());
        s->marks.push_back({mark, pts});
    }
    uint32_t type = s->kind == KIND_AAC ? HLS_FRAME_TYPE_AUDIO_AAC : HLS_FRAME_TYPE_AUDIO_MPEG;
    size_t i = 0;
    while (i < n) {
        uint32_t samples = 0, rate = 0;
        size_t len = s->kind == KIND_AAC ? es_adts_header(buf + i, n - i, &samples, &rate)
                                         : es_mpa_header(buf + i, n - i, &samples, &rate);
        if (len == 0 && n - i >= 7) { /* not a frame start: look for the next one */
            const void *next = memchr(buf + i + 1, 0xff, n - i - 1);
            i = next ? (size_t)((const uint8_t *)next - buf) : n;
            continue;
        }
        if (len == 0 || i + len > n)
            break; /* the rest of the frame comes with the next PES */
        /* A frame must be followed by another frame start or by the end of
         * the data, or the header was a false sync inside damaged bytes. */
        if (i + len < n && buf[i + len] != 0xff) {
            i++;
            continue;
        }
        size_t passed = 0; /* the latest PES starting at or before this frame gives its pts */
        while (passed < s->marks.size() && s->marks[passed].first <= i)
            passed++;
        if (passed) {
            s->base_pts = s->marks[passed - 1].second;
            s->samples = 0;
            s->sample_rate = rate;
            s->have_base = true;
            s->marks.erase(s->marks.begin(), s->marks.begin() + (ptrdiff_t)passed);
        }
        if (rate != s->sample_rate && s->have_base) { /* keep the running time across a rate change */
            s->base_pts += s->samples * 90000 / s->sample_rate;
            s->samples = 0;
            s->sample_rate = rate;
        }
        uint64_t frame_pts = s->have_base ? s->base_pts + s->samples * 90000 / s->sample_rate : 0;
        frame_info info;
        es_audio_info(&info, type, (uint32_t)frame_pts, (uint32_t)len);
        d->cb(d, &info, buf + i, d->user);
        s->samples += samples;
        i += len;
    }
    if (buf == data) {
        s->carry.assign(data + i, data + n);
    } else {
        s->carry.erase(s->carry.begin(), s->carry.begin() + (ptrdiff_t)i);
    }
    for (auto &m : s->marks)
        m.first = m.first > i ? m.first - i : 0;
}

/* Hands a complete PES packet on as frames. */
void finish_pes(TsDemux *d, Stream *s)
{
    std::vector<uint8_t> &p = s->pes;
    s->assembling = false;
    size_t size = p.size();
    if (s->pes_total) {
        if (size < s->pes_total) { /* a bounded PES cut short */
            drop_pes(s);
            return;
        }
        size = s->pes_total;
    }
    if (size < 9 || p[0] != 0 || p[1] != 0 || p[2] != 1 || (p[6] & 0xc0) != 0x80 || 9u + p[8] > size) {
        drop_pes(s);
        return;
    }
    unsigned flags = p[7] >> 6;
    bool has_pts = false;
    uint64_t pts = 0, dts = 0;
    if ((flags == 2 && p[8] >= 5) || (flags == 3 && p[8] >= 10)) {
        has_pts = true;
        pts = dts = read_timestamp(&p[9]);
        if (flags == 3)
            dts = read_timestamp(&p[14]);
    }
    uint8_t *payload = p.data() + 9 + p[8];
    size_t payload_size = size - 9 - p[8];
    if (s->kind == KIND_H264 || s->kind == KIND_H265)
        emit_video(d, s, payload, payload_size, has_pts, pts, dts);
    else
        emit_audio(d, s, payload, payload_size, has_pts, pts);
    p.clear();
    s->pes_total = 0;
}

void pes_payload(TsDemux *d, Stream *s, const uint8_t *p, size_t n, bool unit_start)
{
    if (unit_start) {
        if (s->assembling)
            finish_pes(d, s);
        s->assembling = true;
        s->pes.clear();
        s->pes_total = 0;
    } else if (!s->assembling) {
        return; /* waiting for the start of the next PES */
    }
    size_t cap = (s->kind == KIND_AAC || s->kind == KIND_MPA) ? TS_MAX_AUDIO_PES : ES_MAX_FRAME;
    if (s->pes.size() + n > cap) {
        drop_pes(s);
        return;
    }
    s->pes.insert(s->pes.end(), p, p + n);
    if (s->pes_total == 0 && s->pes.size() >= 6) {
        size_t len = ((size_t)s->pes[4] << 8) | s->pes[5];
        s->pes_total = len ? len + 6 : 0;
    }
    if (s->pes_total && s->pes.size() >= s->pes_total)
        finish_pes(d, s);
}

void apply_pat(TsDemux *d, const uint8_t *sec, size_t len)
{
    if (sec[0] != 0x00 || !(sec[5] & 1))
        return;
    for (size_t i = 8; i + 4 <= len - 4; i += 4) {
        uint16_t program = (uint16_t)((sec[i] << 8) | sec[i + 1]);
        uint16_t pid = (uint16_t)(((sec[i + 2] & 0x1f) << 8) | sec[i + 3]);
        if (program == 0 || pid == 0 || pid == 0x1fff)
            continue; /* network information table, or nonsense */
        if (pid != d->pmt_pid) {
            d->pmt_pid = pid;
            d->pmt = Section();
            d->pmt_last.clear();
        }
        return; /* the first program is the one played */
    }
}

bool kind_of(uint8_t stream_type, StreamKind *kind)
{
    switch (stream_type) {
    case 0x1b: *kind = KIND_H264; return true;
    case 0x24: *kind = KIND_H265; return true;
    case 0x0f: *kind = KIND_AAC; return true;
    case 0x03: case 0x04: *kind = KIND_MPA; return true;
    default: return false;
    }
}

/* Rebuilds the stream list from a PMT section. A stream that keeps its PID
 * and type keeps its state, including a PES in progress. */
void apply_pmt(TsDemux *d, const uint8_t *sec, size_t len)
{
    if (sec[0] != 0x02 || !(sec[5] & 1))
        return;
    if (d->pmt_last.size() == len && memcmp(d->pmt_last.data(), sec, len) == 0)
        return; /* repeated unchanged, as it is every segment and every 100 ms */
    d->pmt_last.assign(sec, sec + len);
    size_t i = 12 + (((size_t)(sec[10] & 0x0f) << 8) | sec[11]);
    std::vector<Stream> next;
    while (i + 5 <= len - 4 && next.size() < TS_MAX_STREAMS) {
        uint8_t type = sec[i];
        uint16_t pid = (uint16_t)(((sec[i + 1] & 0x1f) << 8) | sec[i + 2]);
        i += 5 + (((size_t)(sec[i + 3] & 0x0f) << 8) | sec[i + 4]);
        StreamKind kind;
        if (!kind_of(type, &kind) || pid == 0 || pid == d->pmt_pid || pid == 0x1fff)
            continue;
        bool taken = false;
        for (const Stream &s : next)
            taken = taken || s.pid == pid;
        if (taken)
            continue;
        Stream *old = find_stream(d, pid);
        if (old && old->stream_type == type) {
            next.push_back(std::move(*old));
            old->pid = TS_NO_PID;
            continue;
        }
        Stream s;
        s.pid = pid;
        s.stream_type = type;
        s.kind = kind;
        next.push_back(std::move(s));
    }
    d->streams.swap(next);
}

/* Applies the complete sections at the start of the section buffer and
 * keeps an incomplete one; stuffing or a damaged length ends the run. */
void psi_sections(TsDemux *d, Section *sec, bool is_pat)
{
    std::vector<uint8_t> &b = sec->buf;
    size_t off = 0;
    while (b.size() - off >= 3) {
        if (b[off] == 0xff) {
            off = b.size();
            sec->active = false;
            break;
        }
        size_t len = 3 + (((size_t)(b[off + 1] & 0x0f) << 8) | b[off + 2]);
        if (len < 12 || len > 1024) {
            off = b.size();
            sec->active = false;
            break;
        }
        if (b.size() - off < len)
            break;
        const uint8_t *s = b.data() + off;
        if ((s[1] & 0x80) && crc32_mpeg(s, len) == 0) {
            if (is_pat)
                apply_pat(d, s, len);
            else
                apply_pmt(d, s, len);
        }
        off += len;
    }
    b.erase(b.begin(), b.begin() + (ptrdiff_t)off);
}

/* Collects the PSI sections of the PAT or PMT PID across packets. */
void psi_payload(TsDemux *d, Section *sec, const uint8_t *p, size_t n, bool unit_start, bool is_pat)
{
    if (unit_start) {
        size_t pointer = n ? p[0] : 0;
        if (n == 0 || pointer >= n) {
            sec->active = false;
            sec->buf.clear();
            return;
        }
        p++;
        n--;
        if (sec->active) { /* the bytes before the pointer end the previous section */
            sec->buf.insert(sec->buf.end(), p, p + pointer);
            psi_sections(d, sec, is_pat);
        }
        sec->buf.assign(p + pointer, p + n);
        sec->active = true;
    } else {
        if (!sec->active || sec->buf.size() + n > 2048) {
            sec->active = false;
            sec->buf.clear();
            return;
        }
        sec->buf.insert(sec->buf.end(), p, p + n);
    }
    psi_sections(d, sec, is_pat);
}

/* Continuity check; returns 0 in order, 1 duplicate, 2 packets were lost. */
int continuity(int *last, unsigned cc, bool discontinuity)
{
    int prev = *last;
    *last = (int)cc;
    if (prev < 0 || discontinuity)
        return 0;
    if ((unsigned)prev == cc)
        return 1;
    return ((unsigned)prev + 1) % 16 == cc ? 0 : 2;
}

void packet(TsDemux *d, const uint8_t *p)
{
    uint16_t pid = (uint16_t)(((p[1] & 0x1f) << 8) | p[2]);
    bool unit_start = p[1] & 0x40;
    unsigned afc = (p[3] >> 4) & 3, cc = p[3] & 0x0f;
    Stream *s = find_stream(d, pid);
    Section *sec = pid == 0 ? &d->pat : pid == d->pmt_pid ? &d->pmt : nullptr;
    if (p[1] & 0x80) { /* transport error: the packet cannot be trusted */
        if (s && s->assembling)
            drop_pes(s);
        if (sec)
            sec->active = false;
        return;
    }
    if (afc == 0 || (!s && !sec))
        return;
    size_t off = 4;
    bool discontinuity = false;
    if (afc & 2) {
        unsigned alen = p[4];
        if (alen > 183 || (afc == 3 && alen > 182))
            return;
        if (alen > 0)
            discontinuity = p[5] & 0x80;
        off = 5 + alen;
    }
    if (!(afc & 1))
        return; /* adaptation field only: the counter does not advance */
    const uint8_t *payload = p + off;
    size_t n = TS_PACKET - off;
    if (sec) {
        int c = continuity(&sec->cc, cc, discontinuity);
        if (c == 1)
            return;
        if (c == 2 && !unit_start) {
            sec->active = false;
            sec->buf.clear();
            return;
        }
        psi_payload(d, sec, payload, n, unit_start, pid == 0);
        return;
    }
    int c = continuity(&s->cc, cc, discontinuity);
    if (c == 1)
        return;
    if (c == 2) {
        if (!unit_start) {
            /* Bytes of this PES were lost: drop it and wait for the next. */
            drop_pes(s);
            return;
        }
        /* Lost packets before a unit start: a bounded PES that misses bytes
         * fails its length check; an unbounded one ended with its last packet
         * as far as can be told. Over HTTP such gaps come from joined
         * segments or switched variants, where the previous PES is whole. */
        if (s->assembling)
            finish_pes(d, s);
        if (s->kind == KIND_AAC || s->kind == KIND_MPA)
            audio_reset(s);
        else
            es_rate_reset_spacing(&s->rate);
    }
    pes_payload(d, s, payload, n, unit_start);
}

/* Consumes whole packets from p; returns the bytes used. Keeps sync by
 * requiring the sync byte at every packet start; after losing it, a new
 * position counts only when a second sync byte follows one packet later. */
size_t consume(TsDemux *d, const uint8_t *p, size_t n)
{
    size_t i = 0;
    while (n - i >= TS_PACKET) {
        if (p[i] == TS_SYNC && d->synced) {
            packet(d, p + i);
            i += TS_PACKET;
            continue;
        }
        if (d->synced) {
            /* The packet before ran into foreign bytes: a transfer was cut
             * and a new stream follows, or bytes were damaged. Whatever was
             * being assembled may hold some of them, or miss its end. */
            d->synced = false;
            for (Stream &s : d->streams)
                if (s.assembling)
                    drop_pes(&s);
        }
        if (p[i] != TS_SYNC) {
            const void *q = memchr(p + i + 1, TS_SYNC, n - i - 1);
            if (!q)
                return n;
            i = (size_t)((const uint8_t *)q - p);
            continue;
        }
        if (n - i < TS_PACKET + 1)
            break;
        if (p[i + TS_PACKET] == TS_SYNC)
            d->synced = true;
        else
            i++;
    }
    return i;
}

} // namespace

extern "C" void *ts_demux_new(demux_frame_cb cb, void *user)
{
    if (!cb)
        return nullptr;
    TsDemux *d = new (std::nothrow) TsDemux();
    if (!d)
        return nullptr;
    d->cb = cb;
    d->user = user;
    return d;
}

extern "C" int32_t ts_demux_put_data(void *handle, const uint8_t *data, uint32_t size)
{
    TsDemux *d = static_cast<TsDemux *>(handle);
    if (!d || (!data && size))
        return -1;
    try {
        while (size > 0) {
            if (d->pend.empty()) {
                size_t used = consume(d, data, size);
                d->pend.assign(data + used, data + size);
                return 0;
            }
            /* Complete the pending packet (one more byte while hunting, to
             * confirm a sync position), then go on straight from the input. */
            size_t want = d->synced ? TS_PACKET : TS_PACKET + 1;
            size_t take = want > d->pend.size() ? want - d->pend.size() : 1;
            if (take > size)
                take = size;
            d->pend.insert(d->pend.end(), data, data + take);
            data += take;
            size -= take;
            size_t used = consume(d, d->pend.data(), d->pend.size());
            d->pend.erase(d->pend.begin(), d->pend.begin() + (ptrdiff_t)used);
        }
    } catch (const std::bad_alloc &) {
        return -1;
    }
    return 0;
}

extern "C" void ts_demux_free(void *handle)
{
    delete static_cast<TsDemux *>(handle);
}
