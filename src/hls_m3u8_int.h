/* Private part of the playlist module: the client object behind an
 * m3u8_client handle and its merge step. Only the client's own source and
 * its tests include this header; the rest of the library reaches the client
 * through the m3u8_client_* functions of hls_m3u8.h. */
#ifndef HLS_M3U8_INT_H
#define HLS_M3U8_INT_H

#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "hls_m3u8.h"

/* ---- playlist client ---- */

/* An element of the fragment list. */
class TSDataItem {
public:
    bool has_downloaded = false;
    std::string uri;
    uint64_t sequence_no = 0;
    uint64_t duration = 0;
};

/* The client object behind an m3u8_client handle. The fields up to `mutex`
 * hold the playlist state; the ones after it are indexes over `fragments`
 * that every append, mark and trim keeps in step, so that merging a reload,
 * marking a fragment and the reload rule cost no walk of the list. Both
 * index keys are unique in the list: an entry that matches an element by
 * sequence number, or by URL and duration, is never appended. The object
 * owns both texts (malloc'ed) and everything in its containers. */
class M3U8ClientImpl {
public:
    using FragmentList = std::list<TSDataItem>;
    /* An element's URL (viewing the element's own string, which never moves
     * or changes while the element lives) and its duration. */
    struct UriKey {
        std::string_view uri;
        uint64_t duration;
        bool operator==(const UriKey &other) const { return duration == other.duration && uri == other.uri; }
    };
    struct UriKeyHash {
        size_t operator()(const UriKey &key) const noexcept;
    };

    uint64_t bandwidth_bps = 0;
    char *raw_data = nullptr;
    uint32_t raw_data_size = 0;
    char *master_raw_data = nullptr;
    uint32_t master_raw_data_size = 0;
    uint32_t max_fragment_count = 0;
    FragmentList fragments;
    MasterM3UPlaylist master{std::string()};
    std::recursive_mutex mutex;

    std::unordered_map<uint64_t, FragmentList::iterator> bySequence;
    std::unordered_set<UriKey, UriKeyHash> byUriDuration;
    /* Every element before this one is downloaded (end() when none is known
     * to be pending). */
    FragmentList::iterator firstPending = fragments.end();
    uint64_t pendingCount = 0;
    uint64_t pendingNs = 0; /* sum of pending durations, modulo 2^64 */

    /* True when an element has `sequence_no`, or `uri` with `duration`. */
    bool knows(uint64_t sequence_no, const std::string &uri, uint64_t duration) const;
    /* Appends a pending element and indexes it. */
    void append(const std::string &uri, uint64_t sequence_no, uint64_t duration);
    /* Marks the element downloaded; false when it already was. */
    bool markDownloaded(FragmentList::iterator element);
    /* Removes the first element and its index entries. */
    void dropFront();
};

/* Merges a parsed media playlist into the client's fragment list: entries are
 * resolved against `url` and appended unless already known. Runs under the
 * lock its caller holds. */
void update_ts_playlist(M3U8ClientImpl *client, std::string url, const M3UTSPlaylist &playlist);

#endif
