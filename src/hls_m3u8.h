/* Playlist module: the M3U8 parser and its playlist records, URI resolution,
 * and the playlist client that keeps one HLS stream's playlists and fragment
 * list behind plain exported functions. */
#ifndef HLS_M3U8_H
#define HLS_M3U8_H

#include <stdint.h>

#include "hls_buffer.h"

#ifdef __cplusplus
#include <string>
#include <vector>

/* ---- parser and playlist records ---- */

/* Splits `text` into the words between runs of `separators`; never yields an
 * empty word. */
std::vector<std::string> custom_split(const std::string &text, const std::string &separators);

/* One media segment of a parsed media playlist. */
class M3UTSItem {
public:
    std::string uri;
    uint64_t sequence = 0;
    uint64_t startNs = 0;
    uint64_t endNs = 0;
    uint64_t durationNs = 0;
};

/* A parsed media playlist. */
class M3UTSPlaylist {
public:
    explicit M3UTSPlaylist(const std::string &url);
    uint64_t mediaSequence = 0;
    uint64_t targetDurationNs = 0;
    uint64_t totalDurationNs = 0;
    std::string url;
    std::string playlistType;
    bool valid = false;
    std::vector<M3UTSItem> items;
};

/* One variant stream of a parsed master playlist. */
class SecondM3UPlaylist {
public:
    explicit SecondM3UPlaylist(const std::string &uri);
    uint64_t programId = 0;
    uint64_t bandwidth = 0;
    uint64_t index = 0;
    std::string codec;
    std::string resolution;
    std::string uri;
};

/* A parsed master playlist. */
class MasterM3UPlaylist {
public:
    explicit MasterM3UPlaylist(const std::string &url);
    std::string url;
    bool valid = false;
    std::vector<SecondM3UPlaylist> playlists;
};

/* Line states. */
constexpr int32_t TagLine = 0;
constexpr int32_t UriLine = 1;
constexpr int32_t NoLine = 2;
/* Tag kinds. */
constexpr int32_t StreamInf = 0;
constexpr int32_t ExtInf = 1;
constexpr int32_t EndList = 2;
constexpr int32_t OtherTag = 3;

/* Line-by-line playlist reader. Never rejects text: what it cannot read makes
 * no record. One object serves one thread at a time. */
class M3U8Parser {
public:
    M3U8Parser();
    M3UTSPlaylist parse(std::string url, const std::string &text);
    MasterM3UPlaylist parseMaster(std::string url, const std::string &text);
    void initState();
    void evalState();
    void readLine();
    void metaTokenize();
    bool nextToken();
    void evalSubstate();
    uint64_t tokenToUnsignedInt();
    bool tokenYESNOToBool();
    void update(M3UTSPlaylist &playlist);
    void updateMaster(MasterM3UPlaylist &master);

    int32_t state;
    int32_t substate;
    uint64_t version;
    uint64_t mediaSequence;
    uint64_t targetDuration;
    std::string playlistType;
    std::string line;
    std::string token;
    std::vector<std::string> tokens;
    size_t tokenCursor;
    bool streamInfSeen;
    uint64_t programId;
    uint64_t bandwidth;
    std::string resolution;
    std::string codec;
    bool allowCache;
    double segmentDuration;
    uint64_t itemIndex;
    uint64_t elapsedNs;
    std::string uri;
};

/* ---- URI resolution ---- */

/* Resolves a segment URI against its playlist's URL; empty on failure. */
std::string get_absolute_path(std::string base, std::string relative);

/* Joins a variant URI to the request URL in place (url holds 512 characters).
 * An URI starting "http" replaces the URL; any other is put after the URL's
 * last "/". The result is cut to 511 characters. Returns 0, URL unchanged,
 * when a join is needed and the URL has no "/". */
extern "C" int32_t hls_variant_url(char *url, const char *uri);

/* The playlist client object; its class is private to the client's own
 * source (hls_m3u8_int.h). */
class M3U8ClientImpl;
#endif /* __cplusplus */

#ifdef __cplusplus
extern "C" {
#endif

/* Fragment record handed to callers, who free it with tsdata_fragment_free. */
typedef struct tsdata_fragment {
    char *uri;            /* owned copy of the segment URL */
    char *aux;            /* owned, never set by the library */
    uint8_t reserved0[16];
    uint32_t word0;
    uint32_t word1;
    uint64_t word2;
    uint8_t reserved1[8];
    uint64_t duration;    /* nanoseconds */
    uint64_t sequence_no;
    uint32_t word3;
} tsdata_fragment;

/* The client handle: one field, the client object. */
typedef struct m3u8_client {
#ifdef __cplusplus
    M3U8ClientImpl *impl;
#else
    void *impl;
#endif
} m3u8_client;

/* A new empty client; null when memory runs out. Every call below but
 * m3u8_client_free holds the client's recursive lock for its whole body. */
m3u8_client *m3u8_client_new(void);
/* Frees the client and all it owns; null is ignored. Not while another call
 * on the same client runs. */
void m3u8_client_free(m3u8_client *client);
/* The last accepted master / media text itself (NUL-terminated), or null;
 * owned by the client, valid until a later load replaces it. */
const char *m3u8_client_get_master_raw_data(m3u8_client *client);
const char *m3u8_client_get_raw_data(m3u8_client *client);
/* strdup of variant `index`'s URI (the first one when past the end), or null
 * without variants; the caller frees it. */
char *m3u8_client_get_second_playlist(m3u8_client *client, uint32_t index);
/* strdup of the URI, as written, of the highest (non-zero `highest`: first of
 * equals) or lowest (last of equals) bandwidth variant, whose bandwidth it
 * records; null without variants. The caller frees it. */
char *m3u8_client_get_second_playlist_by_bandwidth(m3u8_client *client, int32_t highest);
/* Bandwidth of the variant chosen last, 0 before any choice. */
uint64_t m3u8_client_get_bandwidth_bps(m3u8_client *client);
/* A record of the first pending fragment, or null; the caller frees it with
 * tsdata_fragment_free. */
tsdata_fragment *m3u8_client_get_front_fragment(m3u8_client *client);
/* A record of the last fragment if it is pending, else null. */
tsdata_fragment *m3u8_client_get_back_fragment(m3u8_client *client);
/* Marks the fragment with `sequence_no` downloaded (it stays in the list):
 * 1 when found, also when already marked (logged); 0 when unknown (logged). */
int32_t m3u8_client_pop_front_fragment(m3u8_client *client, uint64_t sequence_no);
/* 1 when the media playlist is due for a reload: the list is empty, or at
 * most one fragment or one second of fragments is pending; 0 otherwise. Then
 * trims the list from the front to max_fragment_count plus the pending. */
int32_t m3u8_client_is_time_to_refresh_playlist(m3u8_client *client);
/* Results of the two playlist loaders below. */
enum {
    M3U8_LOAD_OK = 0,
    M3U8_LOAD_NOT_PLAYLIST = 1,
    M3U8_LOAD_NO_MEMORY = 2,
};
/* Loads the text in `buffer`, fetched from `url`, as a master playlist or, if
 * it is none, as a media playlist merged into the fragment list. 0 accepted
 * (*is_master 1 or 0), 1 not a playlist, 2 no memory for the copy. */
int32_t m3u8_client_load_master_playlist(m3u8_client *client, const char *url, const hls_buffer *buffer,
                                         int32_t *is_master);
/* Loads a media playlist and merges its new entries; an unchanged text is
 * accepted without parsing. 0 accepted, 1 not a media playlist, 2 no memory. */
int32_t m3u8_client_load_playlist(m3u8_client *client, const char *url, const hls_buffer *buffer);
/* A zeroed fragment record holding a copy of `uri`; null for a null uri or
 * when memory runs out. */
tsdata_fragment *tsdata_fragment_new(const char *uri);
void tsdata_fragment_free(tsdata_fragment *fragment);

/* A malloc'ed copy of `length` bytes with a NUL behind them; stores length + 1
 * in *size. Null (logged, *size untouched) when memory runs out. */
char *buf_to_raw_playlist(const uint8_t *data, uint32_t length, uint32_t *size);

#ifdef __cplusplus
}
#endif

#endif
