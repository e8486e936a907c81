#include "es_parse.h"

#include <string.h>

/* Parameter sets are small; the timing information sits within the first
 * few hundred bytes even with scaling lists, so a bounded copy is enough. */
#define ES_MAX_RBSP 1024

namespace {

/* Reads bits MSB first. Reading past the end yields zeros and sets
 * `overrun`, so a parser can run to its end and check once. */
struct BitReader {
    const uint8_t *p;
    size_t size;
    size_t bit = 0;
    bool overrun = false;

    BitReader(const uint8_t *data, size_t n) : p(data), size(n) {}

    uint32_t u(unsigned n)
    {
        uint32_t v = 0;
        for (unsigned i = 0; i < n; i++) {
            uint32_t b = 0;
            if (bit / 8 < size)
                b = (p[bit / 8] >> (7 - bit % 8)) & 1;
            else
                overrun = true;
            bit++;
            v = (v << 1) | b;
        }
        return v;
    }
    void skip(size_t n)
    {
        bit += n;
        if (bit > size * 8)
            overrun = true;
    }
    uint32_t ue()
    {
        unsigned zeros = 0;
        while (u(1) == 0) {
            if (overrun || ++zeros > 31) {
                overrun = true;
                return 0;
            }
        }
        if (zeros == 0)
            return 0;
        return (uint32_t)(((1ull << zeros) - 1) + u(zeros));
    }
    int32_t se()
    {
        uint32_t k = ue();
        return (k & 1) ? (int32_t)((k + 1) / 2) : -(int32_t)(k / 2);
    }
};

/* Copies a NAL unit payload without its emulation prevention bytes. */
size_t unescape(const uint8_t *src, size_t size, uint8_t *dst, size_t cap)
{
    size_t n = 0, zeros = 0;
    for (size_t i = 0; i < size && n < cap; i++) {
        if (zeros >= 2 && src[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = src[i] == 0 ? zeros + 1 : 0;
        dst[n++] = src[i];
    }
    return n;
}

void h264_scaling_list(BitReader &br, int size)
{
    int last = 8, next = 8;
    for (int j = 0; j < size && !br.overrun; j++) {
        if (next != 0)
            next = (last + br.se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

/* VUI fields up to the timing information (H.264 and H.265 share them);
 * returns false when no timing follows. */
bool vui_to_timing(BitReader &br, bool hevc)
{
    if (br.u(1) && br.u(8) == 255) /* aspect_ratio_info_present, idc */
        br.skip(32);
    if (br.u(1)) /* overscan_info_present */
        br.skip(1);
    if (br.u(1)) { /* video_signal_type_present */
        br.skip(4);
        if (br.u(1))
            br.skip(24);
    }
    if (br.u(1)) { /* chroma_loc_info_present */
        br.ue();
        br.ue();
    }
    if (hevc) {
        br.skip(3); /* neutral_chroma, field_seq, frame_field_info */
        if (br.u(1)) { /* default_display_window */
            br.ue();
            br.ue();
            br.ue();
            br.ue();
        }
    }
    return br.u(1) != 0 && !br.overrun;
}

uint32_t milli_from_ticks(uint32_t units, uint32_t scale, uint32_t ticks_per_frame)
{
    if (units == 0 || scale == 0)
        return 0;
    uint64_t den = (uint64_t)units * ticks_per_frame;
    uint64_t milli = ((uint64_t)scale * 1000 + den / 2) / den;
    return milli > 255999 ? 0 : (uint32_t)milli;
}

void h265_profile_tier_level(BitReader &br, unsigned max_sub_layers_minus1)
{
    br.skip(88); /* general profile space .. general constraint flags */
    br.skip(8);  /* general_level_idc */
    bool profile[8] = {}, level[8] = {};
    for (unsigned i = 0; i < max_sub_layers_minus1; i++) {
        profile[i] = br.u(1);
        level[i] = br.u(1);
    }
    if (max_sub_layers_minus1 > 0)
        for (unsigned i = max_sub_layers_minus1; i < 8; i++)
            br.skip(2);
    for (unsigned i = 0; i < max_sub_layers_minus1; i++) {
        if (profile[i])
            br.skip(88);
        if (level[i])
            br.skip(8);
    }
}

void h265_scaling_list_data(BitReader &br)
{
    for (int size_id = 0; size_id < 4; size_id++)
        for (int matrix_id = 0; matrix_id < 6; matrix_id += size_id == 3 ? 3 : 1) {
            if (!br.u(1)) {
                br.ue();
                continue;
            }
            int coefs = 1 << (4 + (size_id << 1));
            if (coefs > 64)
                coefs = 64;
            if (size_id > 1)
                br.se();
            for (int i = 0; i < coefs && !br.overrun; i++)
                br.se();
        }
}

/* Parses the short-term reference picture sets; false when malformed. */
bool h265_st_ref_pic_sets(BitReader &br, uint32_t count)
{
    uint32_t num_delta_pocs[64] = {};
    for (uint32_t idx = 0; idx < count; idx++) {
        if (idx != 0 && br.u(1)) { /* inter_ref_pic_set_prediction_flag */
            br.u(1);               /* delta_rps_sign */
            br.ue();               /* abs_delta_rps_minus1 */
            uint32_t ref = idx - 1; /* delta_idx_minus1 is absent in the SPS */
            uint32_t n = 0;
            for (uint32_t j = 0; j <= num_delta_pocs[ref]; j++) {
                bool used = br.u(1);
                bool use_delta = used ? true : br.u(1) != 0;
                if (used || use_delta)
                    n++;
            }
            num_delta_pocs[idx] = n;
        } else {
            uint32_t neg = br.ue(), pos = br.ue();
            if (neg > 16 || pos > 16)
                return false;
            for (uint32_t j = 0; j < neg + pos; j++) {
                br.ue();
                br.u(1);
            }
            num_delta_pocs[idx] = neg + pos;
        }
        if (br.overrun || num_delta_pocs[idx] > 32)
            return false;
    }
    return true;
}

} // namespace

uint32_t es_h264_sps_rate(const uint8_t *nal, size_t size)
{
    if (!nal || size < 2)
        return 0;
    uint8_t rbsp[ES_MAX_RBSP];
    size_t n = unescape(nal + 1, size - 1, rbsp, sizeof rbsp);
    BitReader br(rbsp, n);
    uint32_t profile = br.u(8);
    br.skip(16); /* constraint flags, level */
    br.ue();     /* seq_parameter_set_id */
    switch (profile) {
    case 100: case 110: case 122: case 244: case 44: case 83:
    case 86: case 118: case 128: case 138: case 139: case 134: case 135: {
        uint32_t chroma = br.ue();
        if (chroma == 3)
            br.skip(1);
        br.ue(); /* bit depths */
        br.ue();
        br.skip(1);
        if (br.u(1)) /* seq_scaling_matrix_present */
            for (int i = 0; i < (chroma != 3 ? 8 : 12) && !br.overrun; i++)
                if (br.u(1))
                    h264_scaling_list(br, i < 6 ? 16 : 64);
        break;
    }
    default:
        break;
    }
    br.ue(); /* log2_max_frame_num_minus4 */
    uint32_t poc_type = br.ue();
    if (poc_type == 0) {
        br.ue();
    } else if (poc_type == 1) {
        br.skip(1);
        br.se();
        br.se();
        uint32_t cycle = br.ue();
        if (cycle > 255)
            return 0;
        for (uint32_t i = 0; i < cycle && !br.overrun; i++)
            br.se();
    }
    br.ue();     /* max_num_ref_frames */
    br.skip(1);  /* gaps_in_frame_num_allowed */
    br.ue();     /* width, height in macroblocks */
    br.ue();
    if (!br.u(1)) /* frame_mbs_only */
        br.skip(1);
    br.skip(1); /* direct_8x8_inference */
    if (br.u(1)) { /* frame_cropping */
        br.ue();
        br.ue();
        br.ue();
        br.ue();
    }
    if (!br.u(1) || br.overrun) /* vui_parameters_present */
        return 0;
    if (!vui_to_timing(br, false))
        return 0;
    uint32_t units = br.u(32), scale = br.u(32);
    /* H.264 counts field ticks: one frame lasts two of them. */
    return br.overrun ? 0 : milli_from_ticks(units, scale, 2);
}

uint32_t es_h265_sps_rate(const uint8_t *nal, size_t size)
{
    if (!nal || size < 3)
        return 0;
    uint8_t rbsp[ES_MAX_RBSP];
    size_t n = unescape(nal + 2, size - 2, rbsp, sizeof rbsp);
    BitReader br(rbsp, n);
    br.skip(4); /* sps_video_parameter_set_id */
    uint32_t max_sub_layers_minus1 = br.u(3);
    if (max_sub_layers_minus1 > 6)
        return 0;
    br.skip(1);
    h265_profile_tier_level(br, max_sub_layers_minus1);
    br.ue(); /* sps_seq_parameter_set_id */
    if (br.ue() == 3) /* chroma_format_idc */
        br.skip(1);
    br.ue(); /* width, height */
    br.ue();
    if (br.u(1)) { /* conformance_window */
        br.ue();
        br.ue();
        br.ue();
        br.ue();
    }
    br.ue(); /* bit depths */
    br.ue();
    uint32_t log2_max_poc_lsb = br.ue() + 4;
    if (log2_max_poc_lsb > 16)
        return 0;
    bool ordering_all = br.u(1);
    for (uint32_t i = ordering_all ? 0 : max_sub_layers_minus1; i <= max_sub_layers_minus1; i++) {
        br.ue();
        br.ue();
        br.ue();
    }
    for (int i = 0; i < 6; i++) /* coding and transform block sizes, depths */
        br.ue();
    if (br.u(1) && br.u(1)) /* scaling_list_enabled, sps_scaling_list_data_present */
        h265_scaling_list_data(br);
    br.skip(2); /* amp, sample_adaptive_offset */
    if (br.u(1)) { /* pcm_enabled */
        br.skip(8);
        br.ue();
        br.ue();
        br.skip(1);
    }
    uint32_t sets = br.ue();
    if (sets > 64 || !h265_st_ref_pic_sets(br, sets))
        return 0;
    if (br.u(1)) { /* long_term_ref_pics_present */
        uint32_t count = br.ue();
        if (count > 32)
            return 0;
        for (uint32_t i = 0; i < count; i++)
            br.skip(log2_max_poc_lsb + 1);
    }
    br.skip(2); /* temporal_mvp, strong_intra_smoothing */
    if (!br.u(1) || br.overrun) /* vui_parameters_present */
        return 0;
    if (!vui_to_timing(br, true))
        return 0;
    uint32_t units = br.u(32), scale = br.u(32);
    return br.overrun ? 0 : milli_from_ticks(units, scale, 1);
}

size_t es_next_start_code(const uint8_t *p, size_t from, size_t size)
{
    size_t i = from;
    while (i + 3 <= size) {
        const void *z = memchr(p + i + 2, 1, size - i - 2);
        if (!z)
            return size;
        size_t one = (size_t)((const uint8_t *)z - p);
        if (p[one - 1] == 0 && p[one - 2] == 0)
            return one - 2;
        i = one - 1;
    }
    return size;
}

void es_scan_annexb(const uint8_t *au, size_t size, int hevc, es_au_info *out)
{
    memset(out, 0, sizeof *out);
    bool sps = false, pps = false;
    size_t sc = es_next_start_code(au, 0, size);
    while (sc < size) {
        size_t start = sc + 3;
        size_t next = es_next_start_code(au, start, size);
        size_t end = next;
        while (end > start && au[end - 1] == 0) /* zero bytes of a four-byte start code */
            end--;
        if (start < end) {
            unsigned type = hevc ? (au[start] >> 1) & 0x3f : au[start] & 0x1f;
            if (hevc) {
                if (type == 33) {
                    sps = true;
                    uint32_t r = es_h265_sps_rate(au + start, end - start);
                    out->sps_rate = r ? r : out->sps_rate;
                } else if (type == 34) {
                    pps = true;
                } else if (type < 32) {
                    out->key = type >= 16 && type <= 23;
                    break;
                }
            } else {
                if (type == 7) {
                    sps = true;
                    uint32_t r = es_h264_sps_rate(au + start, end - start);
                    out->sps_rate = r ? r : out->sps_rate;
                } else if (type == 8) {
                    pps = true;
                } else if (type >= 1 && type <= 5) {
                    out->key = type == 5;
                    break;
                }
            }
        }
        sc = next;
    }
    out->has_ps = sps && pps;
}

static const uint32_t aac_rates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};

int es_aac_rate_index(uint32_t rate)
{
    for (int i = 0; i < 13; i++)
        if (aac_rates[i] == rate)
            return i;
    return -1;
}

int es_aac_parse_config(const uint8_t *p, size_t size, es_aac_config *out)
{
    BitReader br(p, size);
    uint32_t type = br.u(5);
    if (type == 31)
        type = 32 + br.u(6);
    int index = (int)br.u(4);
    if (index == 15)
        index = es_aac_rate_index(br.u(24));
    uint32_t channels = br.u(4);
    if (type == 5 || type == 29) {
        /* Explicit HE-AAC: the extension rate follows, then the core type. */
        if (br.u(4) == 15)
            br.skip(24);
        type = br.u(5);
        if (type == 31)
            type = 32 + br.u(6);
    }
    if (br.overrun || type < 1 || type > 4 || index < 0 || index > 12)
        return 0;
    out->profile = (uint8_t)(type - 1);
    out->rate_index = (uint8_t)index;
    out->channels = (uint8_t)channels;
    return 1;
}

void es_adts_write(uint8_t *h, const es_aac_config *c, size_t len)
{
    h[0] = 0xff;
    h[1] = 0xf1; /* MPEG-4, layer 0, no CRC */
    h[2] = (uint8_t)((c->profile << 6) | (c->rate_index << 2) | ((c->channels >> 2) & 1));
    h[3] = (uint8_t)(((c->channels & 3) << 6) | ((len >> 11) & 3));
    h[4] = (uint8_t)(len >> 3);
    h[5] = (uint8_t)(((len & 7) << 5) | 0x1f); /* buffer fullness 0x7ff: variable rate */
    h[6] = 0xfc;                              /* one raw data block */
}

size_t es_adts_header(const uint8_t *p, size_t size, uint32_t *samples, uint32_t *rate)
{
    if (size < 7 || p[0] != 0xff || (p[1] & 0xf6) != 0xf0)
        return 0;
    unsigned sfi = (p[2] >> 2) & 0x0f;
    if (sfi > 12)
        return 0;
    size_t header = (p[1] & 1) ? 7 : 9;
    size_t len = ((size_t)(p[3] & 3) << 11) | ((size_t)p[4] << 3) | (p[5] >> 5);
    if (len <= header)
        return 0;
    *samples = 1024u * ((p[6] & 3) + 1u);
    *rate = aac_rates[sfi];
    return len;
}

size_t es_mpa_header(const uint8_t *p, size_t size, uint32_t *samples, uint32_t *rate)
{
    static const uint16_t kbps[2][3][15] = {
        {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
         {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
         {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},
        {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}}};
    static const uint32_t rates[3] = {44100, 48000, 32000};
    if (size < 4 || p[0] != 0xff || (p[1] & 0xe0) != 0xe0)
        return 0;
    unsigned version = (p[1] >> 3) & 3; /* 0: 2.5, 1: reserved, 2: MPEG-2, 3: MPEG-1 */
    unsigned layer = 4 - ((p[1] >> 1) & 3); /* 4 means reserved */
    unsigned bitrate_index = p[2] >> 4, rate_index = (p[2] >> 2) & 3, padding = (p[2] >> 1) & 1;
    if (version == 1 || layer == 4 || bitrate_index == 0 || bitrate_index == 15 || rate_index == 3)
        return 0;
    bool mpeg1 = version == 3;
    uint32_t sr = rates[rate_index] >> (mpeg1 ? 0 : version == 2 ? 1 : 2);
    uint32_t bitrate = kbps[mpeg1 ? 0 : 1][layer - 1][bitrate_index] * 1000u;
    size_t len;
    if (layer == 1) {
        len = (12 * bitrate / sr + padding) * 4;
        *samples = 384;
    } else if (layer == 2 || mpeg1) {
        len = 144 * bitrate / sr + padding;
        *samples = 1152;
    } else {
        len = 72 * bitrate / sr + padding;
        *samples = 576;
    }
    *rate = sr;
    return len > 4 ? len : 0;
}

void es_rate_reset_spacing(es_rate *r)
{
    r->have_stamp = 0;
    r->delta_count = 0;
    r->delta_pos = 0;
    r->delta_sum = 0;
}

void es_rate_add_stamp(es_rate *r, uint64_t stamp, uint64_t wrap)
{
    if (r->have_stamp) {
        uint64_t delta = (stamp - r->last_stamp) & wrap;
        if (delta == 0 || delta > 90000) {
            /* A jump (splice, reordering, wrap-around) says nothing about the
             * frame rate: start measuring afresh. */
            es_rate_reset_spacing(r);
        } else {
            if (r->delta_count == 16)
                r->delta_sum -= r->deltas[r->delta_pos];
            else
                r->delta_count++;
            r->deltas[r->delta_pos] = (uint32_t)delta;
            r->delta_sum += delta;
            r->delta_pos = (r->delta_pos + 1) % 16;
        }
    }
    r->last_stamp = stamp;
    r->have_stamp = 1;
}

uint32_t es_rate_milli(const es_rate *r)
{
    if (r->sps_milli)
        return r->sps_milli;
    if (r->meta_milli)
        return r->meta_milli;
    if (r->delta_count == 0 || r->delta_sum == 0)
        return 0;
    uint64_t milli = ((uint64_t)r->delta_count * 90000000ull + r->delta_sum / 2) / r->delta_sum;
    return milli > 255999 ? 255999 : (uint32_t)milli;
}

void es_video_info(frame_info *info, int key, uint32_t milli, uint32_t pts, uint32_t length)
{
    memset(info, 0, sizeof *info);
    info->type = key ? HLS_FRAME_TYPE_VIDEO_KEY : HLS_FRAME_TYPE_VIDEO_OTHER;
    if (key) {
        info->video.frame_rate = (uint8_t)(milli / 1000);
        info->video.frame_rate_frac = (uint16_t)(milli % 1000);
    }
    info->video.pts = pts;
    info->video.length = length;
}

void es_audio_info(frame_info *info, uint32_t type, uint32_t pts, uint32_t length)
{
    memset(info, 0, sizeof *info);
    info->type = type;
    info->audio.pts = pts;
    info->audio.length = length;
}
