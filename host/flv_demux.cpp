/* FLV demultiplexer: file header, tags, onMetaData, AVC video turned into
 * Annex B access units, AAC turned into ADTS frames, MPEG audio split into
 * frames. */
#include <math.h>
#include <string.h>

#include <new>
#include <vector>

#include "es_parse.h"
#include "hls_host_demux.h"

#define FLV_TAG_HEADER 11
#define FLV_MAX_HEADER 4096 /* largest data offset of a file header we accept */

namespace {

enum State { ST_HEADER, ST_TAG, ST_SKIP, ST_HUNT };

struct FlvDemux {
    demux_frame_cb cb;
    void *user;
    std::vector<uint8_t> buf; /* an incomplete header or tag waits here */
    State state = ST_HEADER;
    size_t need = 0;      /* bytes parse() wants at its position before it can go on */
    size_t skip_left = 0; /* bytes of an oversized tag still to pass over */
    /* video */
    unsigned nal_length_size = 4;
    std::vector<uint8_t> ps; /* SPS and PPS of the sequence header, Annex B */
    es_rate rate{};
    std::vector<uint8_t> out; /* frame being built */
    /* audio */
    bool aac_ready = false;
    es_aac_config aac{};
};

uint32_t be16(const uint8_t *p) { return (uint32_t)(p[0] << 8) | p[1]; }
uint32_t be24(const uint8_t *p) { return ((uint32_t)p[0] << 16) | ((uint32_t)p[1] << 8) | p[2]; }
uint32_t be32(const uint8_t *p) { return ((uint32_t)p[0] << 24) | be24(p + 1); }

bool is_signature(const uint8_t *p) { return p[0] == 'F' && p[1] == 'L' && p[2] == 'V' && p[3] == 1; }

/* Could these 11 bytes be a tag header? Audio, video or script data, zero
 * reserved bits, stream id 0, as every FLV writer sets it. */
bool plausible_tag(const uint8_t *p)
{
    unsigned type = p[0] & 0x1f;
    return (type == 8 || type == 9 || type == 18) && (p[0] & 0xc0) == 0 && p[8] == 0 && p[9] == 0 && p[10] == 0;
}

/* Skips one AMF0 value at *pos; false when it is malformed or runs out. */
bool amf_skip(const uint8_t *p, size_t n, size_t *pos, int depth);

bool amf_skip_pairs(const uint8_t *p, size_t n, size_t *pos, int depth)
{
    while (*pos + 3 <= n) {
        size_t klen = be16(p + *pos);
        if (klen == 0 && p[*pos + 2] == 9) {
            *pos += 3;
            return true;
        }
        *pos += 2 + klen;
        if (!amf_skip(p, n, pos, depth + 1))
            return false;
    }
    return false;
}

bool amf_skip(const uint8_t *p, size_t n, size_t *pos, int depth)
{
    if (depth > 16 || *pos >= n)
        return false;
    uint8_t marker = p[(*pos)++];
    size_t left = n - *pos;
    uint64_t len; /* a long string's 4 + 32-bit length must not wrap a 32-bit size_t */
    switch (marker) {
    case 0: len = 8; break;                              /* number */
    case 1: len = 1; break;                              /* boolean */
    case 2: len = left < 2 ? 2 : 2 + be16(p + *pos); break; /* string */
    case 5: case 6: len = 0; break;                      /* null, undefined */
    case 7: len = 2; break;                              /* reference */
    case 11: len = 10; break;                            /* date */
    case 12: len = left < 4 ? 4 : 4 + (uint64_t)be32(p + *pos); break; /* long string */
    case 3: return amf_skip_pairs(p, n, pos, depth);     /* object */
    case 8:                                              /* ECMA array */
        if (left < 4)
            return false;
        *pos += 4;
        return amf_skip_pairs(p, n, pos, depth);
    case 10: {                                           /* strict array */
        if (left < 4)
            return false;
        uint32_t count = be32(p + *pos);
        *pos += 4;
        for (uint32_t i = 0; i < count; i++)
            if (!amf_skip(p, n, pos, depth + 1))
                return false;
        return true;
    }
    default: return false;
    }
    if (len > left)
        return false;
    *pos += (size_t)len;
    return true;
}

/* Takes the frame rate from an onMetaData script tag. */
void script_tag(FlvDemux *d, const uint8_t *p, size_t n)
{
    static const char name[] = "onMetaData";
    if (n < 13 || p[0] != 2 || be16(p + 1) != 10 || memcmp(p + 3, name, 10) != 0)
        return;
    size_t pos = 13;
    if (pos < n && p[pos] == 8)
        pos += 5;
    else if (pos < n && p[pos] == 3)
        pos += 1;
    else
        return;
    while (pos + 3 <= n) {
        size_t klen = be16(p + pos);
        if (klen == 0 && p[pos + 2] == 9)
            return;
        if (pos + 2 + klen >= n)
            return;
        const uint8_t *key = p + pos + 2;
        pos += 2 + klen;
        if (klen == 9 && memcmp(key, "framerate", 9) == 0 && p[pos] == 0 && pos + 9 <= n) {
            uint64_t bits = ((uint64_t)be32(p + pos + 1) << 32) | be32(p + pos + 5);
            double fps;
            memcpy(&fps, &bits, sizeof fps);
            if (isfinite(fps) && fps > 0 && fps < 256)
                d->rate.meta_milli = (uint32_t)llround(fps * 1000);
        }
        if (!amf_skip(p, n, &pos, 0))
            return;
    }
}

/* AVCDecoderConfigurationRecord: NAL length size, SPS and PPS. A malformed
 * record leaves the previous one in force. */
void avc_sequence_header(FlvDemux *d, const uint8_t *p, size_t n)
{
    if (n < 7 || p[0] != 1)
        return;
    std::vector<uint8_t> ps;
    uint32_t milli = 0;
    size_t pos = 5;
    for (int list = 0; list < 2; list++) {
        if (pos >= n)
            return;
        unsigned count = list == 0 ? p[pos] & 0x1f : p[pos];
        pos++;
        for (unsigned i = 0; i < count; i++) {
            if (pos + 2 > n)
                return;
            size_t len = be16(p + pos);
            pos += 2;
            if (len == 0 || len > n - pos)
                return;
            if (list == 0) {
                uint32_t r = es_h264_sps_rate(p + pos, len);
                milli = r ? r : milli;
            }
            static const uint8_t start[4] = {0, 0, 0, 1};
            ps.insert(ps.end(), start, start + 4);
            ps.insert(ps.end(), p + pos, p + pos + len);
            pos += len;
        }
    }
    d->nal_length_size = (p[4] & 3) + 1u;
    d->ps.swap(ps);
    if (milli)
        d->rate.sps_milli = milli;
}

/* Length-prefixed NAL units to one Annex B access unit. Parameter sets of
 * the sequence header go in front of an IDR access unit that lacks its own,
 * behind the access unit delimiter when there is one. */
void avc_frame(FlvDemux *d, const uint8_t *p, size_t n, uint32_t ms, int32_t cts)
{
    const unsigned ls = d->nal_length_size;
    bool sps = false, pps = false, idr = false, first_aud = false;
    size_t total = 0, count = 0;
    for (size_t i = 0; i < n;) {
        if (n - i < ls)
            return; /* damaged: the whole frame goes */
        size_t len = 0;
        for (unsigned k = 0; k < ls; k++)
            len = (len << 8) | p[i + k];
        i += ls;
        if (len > n - i)
            return;
        if (len == 0)
            continue;
        unsigned type = p[i] & 0x1f;
        if (count == 0)
            first_aud = type == 9;
        if (type == 7) {
            sps = true;
            uint32_t r = es_h264_sps_rate(p + i, len);
            if (r)
                d->rate.sps_milli = r;
        }
        pps = pps || type == 8;
        idr = idr || type == 5;
        total += 4 + len;
        count++;
        i += len;
    }
    if (count == 0)
        return;
    bool insert = idr && !(sps && pps) && !d->ps.empty();
    d->out.clear();
    d->out.reserve(total + (insert ? d->ps.size() : 0));
    size_t index = 0;
    for (size_t i = 0; i < n;) {
        size_t len = 0;
        for (unsigned k = 0; k < ls; k++)
            len = (len << 8) | p[i + k];
        i += ls;
        if (len == 0)
            continue;
        if (insert && !(index == 0 && first_aud)) {
            d->out.insert(d->out.end(), d->ps.begin(), d->ps.end());
            insert = false;
        }
        static const uint8_t start[4] = {0, 0, 0, 1};
        d->out.insert(d->out.end(), start, start + 4);
        d->out.insert(d->out.end(), p + i, p + i + len);
        i += len;
        index++;
    }
    es_rate_add_stamp(&d->rate, (uint64_t)ms * 90, ~0ull);
    frame_info info;
    es_video_info(&info, idr, es_rate_milli(&d->rate), (ms + (uint32_t)cts) * 90u, (uint32_t)d->out.size());
    d->cb(d, &info, d->out.data(), d->user);
}

void video_tag(FlvDemux *d, const uint8_t *p, size_t n, uint32_t ms)
{
    /* AVC only; extended headers (bit 7) and info frames (type 5) are not
     * frames to hand on. */
    if (n < 5 || (p[0] & 0x80) || (p[0] & 0x0f) != 7 || ((p[0] >> 4) & 7) == 5)
        return;
    int32_t cts = (int32_t)(be24(p + 2) << 8) >> 8;
    if (p[1] == 0)
        avc_sequence_header(d, p + 5, n - 5);
    else if (p[1] == 1)
        avc_frame(d, p + 5, n - 5, ms, cts);
}

void audio_tag(FlvDemux *d, const uint8_t *p, size_t n, uint32_t ms)
{
    if (n < 2)
        return;
    unsigned format = p[0] >> 4;
    frame_info info;
    if (format == 10) {
        if (p[1] == 0) {
            es_aac_config c;
            d->aac_ready = es_aac_parse_config(p + 2, n - 2, &c) != 0;
            if (d->aac_ready)
                d->aac = c;
        } else if (p[1] == 1 && d->aac_ready && n > 2 && n - 2 + 7 <= 8191) {
            size_t len = n - 2 + 7;
            d->out.resize(len);
            es_adts_write(d->out.data(), &d->aac, len);
            memcpy(d->out.data() + 7, p + 2, n - 2);
            es_audio_info(&info, HLS_FRAME_TYPE_AUDIO_AAC, ms * 90u, (uint32_t)len);
            d->cb(d, &info, d->out.data(), d->user);
        }
    } else if (format == 2) { /* MPEG audio layer III: one or more whole frames */
        uint64_t samples = 0;
        for (size_t i = 1; i < n;) {
            uint32_t count = 0, rate = 0;
            size_t len = es_mpa_header(p + i, n - i, &count, &rate);
            if (len == 0 || len > n - i)
                break;
            d->out.assign(p + i, p + i + len);
            es_audio_info(&info, HLS_FRAME_TYPE_AUDIO_MPEG, ms * 90u + (uint32_t)(samples * 90000 / rate),
                          (uint32_t)len);
            d->cb(d, &info, d->out.data(), d->user);
            samples += count;
            i += len;
        }
    }
}

void tag(FlvDemux *d, const uint8_t *p, size_t size)
{
    if (p[0] & 0x20)
        return; /* encrypted */
    uint32_t ms = be24(p + 4) | ((uint32_t)p[7] << 24);
    const uint8_t *data = p + FLV_TAG_HEADER;
    switch (p[0] & 0x1f) {
    case 8: audio_tag(d, data, size, ms); break;
    case 9: video_tag(d, data, size, ms); break;
    default: script_tag(d, data, size); break;
    }
}

/* Parses what it can of p; returns the bytes used and leaves in d->need
 * how many bytes it wants at its new position to go on. */
size_t parse(FlvDemux *d, const uint8_t *p, size_t n)
{
    size_t i = 0;
    for (;;) {
        const uint8_t *q = p + i;
        size_t avail = n - i;
        switch (d->state) {
        case ST_SKIP: {
            size_t take = avail < d->skip_left ? avail : d->skip_left;
            i += take;
            d->skip_left -= take;
            if (d->skip_left) {
                d->need = 1;
                return i;
            }
            d->state = ST_TAG;
            break;
        }
        case ST_HEADER: {
            if (avail < 9) {
                d->need = 9;
                return i;
            }
            size_t offset = be32(q + 5);
            if (!is_signature(q) || offset < 9 || offset > FLV_MAX_HEADER) {
                d->state = ST_HUNT;
                i += is_signature(q) ? 1 : 0;
                break;
            }
            if (avail < offset + 4) {
                d->need = offset + 4;
                return i;
            }
            i += offset + 4; /* header, then PreviousTagSize0 */
            d->state = ST_TAG;
            break;
        }
        case ST_TAG: {
            if (avail >= 4 && is_signature(q)) { /* the stream starts over (reconnection) */
                d->state = ST_HEADER;
                break;
            }
            if (avail < FLV_TAG_HEADER) {
                d->need = FLV_TAG_HEADER;
                return i;
            }
            if (!plausible_tag(q)) {
                d->state = ST_HUNT;
                break;
            }
            size_t size = be24(q + 1);
            if (size > ES_MAX_FRAME) {
                d->skip_left = size + 4;
                i += FLV_TAG_HEADER;
                d->state = ST_SKIP;
                break;
            }
            size_t total = FLV_TAG_HEADER + size + 4;
            if (avail < total) {
                d->need = total;
                return i;
            }
            if (be32(q + total - 4) != FLV_TAG_HEADER + size) {
                /* Some writers get PreviousTagSize wrong; accept the tag when
                 * a tag or a file header follows, else it is damaged. */
                if (avail < total + FLV_TAG_HEADER) {
                    d->need = total + FLV_TAG_HEADER;
                    return i;
                }
                if (!plausible_tag(q + total) && !is_signature(q + total)) {
                    i++;
                    d->state = ST_HUNT;
                    break;
                }
            }
            tag(d, q, size);
            i += total;
            break;
        }
        case ST_HUNT: {
            /* Looks for a file header, or a tag header whose PreviousTagSize
             * confirms it. */
            size_t j = i;
            for (; n - j >= FLV_TAG_HEADER; j++) {
                if (is_signature(p + j)) {
                    d->state = ST_HEADER;
                    break;
                }
                if (!plausible_tag(p + j))
                    continue;
                size_t size = be24(p + j + 1);
                if (size > ES_MAX_FRAME)
                    continue;
                size_t total = FLV_TAG_HEADER + size + 4;
                if (n - j < total) {
                    d->need = total;
                    return j;
                }
                if (be32(p + j + total - 4) == FLV_TAG_HEADER + size) {
                    d->state = ST_TAG;
                    break;
                }
            }
            i = j;
            if (d->state == ST_HUNT) {
                d->need = FLV_TAG_HEADER;
                return i;
            }
            break;
        }
        }
    }
}

} // namespace

extern "C" void *flv_demux_new(demux_frame_cb cb, void *user)
{
    if (!cb)
        return nullptr;
    FlvDemux *d = new (std::nothrow) FlvDemux();
    if (!d)
        return nullptr;
    d->cb = cb;
    d->user = user;
    return d;
}

extern "C" int32_t flv_demux_put_data(void *handle, const uint8_t *data, uint32_t size)
{
    FlvDemux *d = static_cast<FlvDemux *>(handle);
    if (!d || (!data && size))
        return -1;
    try {
        while (size > 0) {
            if (d->buf.empty()) {
                size_t used = parse(d, data, size);
                d->buf.assign(data + used, data + size);
                return 0;
            }
            /* Complete the waiting unit from the input, then go on straight
             * from the input; while hunting, take everything. */
            size_t take = d->need > d->buf.size() ? d->need - d->buf.size() : 1;
            if (d->state == ST_HUNT || take > size)
                take = size;
            d->buf.insert(d->buf.end(), data, data + take);
            data += take;
            size -= take;
            size_t used = parse(d, d->buf.data(), d->buf.size());
            d->buf.erase(d->buf.begin(), d->buf.begin() + (ptrdiff_t)used);
        }
    } catch (const std::bad_alloc &) {
        return -1;
    }
    return 0;
}

extern "C" void flv_demux_free(void *handle)
{
    delete static_cast<FlvDemux *>(handle);
}
