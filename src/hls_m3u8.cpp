/* Playlist module: the line-by-line M3U8 parser and its records, segment URI
 * resolution, and the playlist client with its fragment list. */
#include "hls_m3u8_int.h"

#include <assert.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <iterator>
#include <memory>
#include <new>

#include "hls_log.h"

/* ---- keyword table ---- */

namespace {

/* A set of bytes, for splitting without a search per character. */
struct ByteSet {
    bool member[256] = {};
    explicit ByteSet(const std::string &bytes)
    {
        for (unsigned char c : bytes)
            member[c] = true;
    }
    bool has(char c) const { return member[(unsigned char)c]; }
};

/* Built once when the library is loaded and only read afterwards, so any
 * number of parsers may use them from any thread. Words are compared with
 * them whole and case-sensitively. */
const std::string kSeparators = "# -.,:=";
const ByteSet kSeparatorSet(kSeparators);
const std::string kTagPrefix = "#EXT";
const std::string kExt = "EXT";
const std::string kX = "X";
const std::string kExtM3u = "EXTM3U";
const std::string kExtInf = "EXTINF";
const std::string kStream = "STREAM";
const std::string kInf = "INF";
const std::string kMedia = "MEDIA";
const std::string kSequence = "SEQUENCE";
const std::string kPlaylist = "PLAYLIST";
const std::string kType = "TYPE";
const std::string kVersion = "VERSION";
const std::string kAllow = "ALLOW";
const std::string kCache = "CACHE";
const std::string kTargetDuration = "TARGETDURATION";
const std::string kEndList = "ENDLIST";
const std::string kProgram = "PROGRAM";
const std::string kId = "ID";
const std::string kBandwidth = "BANDWIDTH";
const std::string kResolution = "RESOLUTION";
const std::string kCodec = "CODEC";
const std::string kYes = "YES";
const std::string kNo = "NO";

} // namespace

/* ---- words and numbers ---- */

/* Splits into `words`, reusing the strings already there, so that a parser
 * tokenizing line after line stops allocating once its words have room. */
static void split_into(const std::string &text, const ByteSet &separators, std::vector<std::string> &words)
{
    size_t count = 0;
    const size_t n = text.size();
    size_t i = 0;
    for (;;) {
        while (i < n && separators.has(text[i]))
            ++i;
        if (i == n)
            break;
        size_t start = i;
        while (i < n && !separators.has(text[i]))
            ++i;
        if (count < words.size())
            words[count].assign(text, start, i - start);
        else
            words.emplace_back(text, start, i - start);
        ++count;
    }
    words.resize(count);
}

std::vector<std::string> custom_split(const std::string &text, const std::string &separators)
{
    std::vector<std::string> words;
    split_into(text, ByteSet(separators), words);
    return words;
}

/* Reads an unsigned 64-bit decimal number exactly as formatted stream
 * extraction does in the classic locale, without building a stream: white
 * space is skipped, one sign is taken (a minus negates modulo 2^64), digits
 * run to the first non-digit and the rest is ignored. Fails with 0 when no
 * digit follows, and with 2^64 - 1 when the digits overflow. */
static bool extract_u64(const std::string &word, uint64_t &value)
{
    const size_t n = word.size();
    size_t i = 0;
    while (i < n && (word[i] == ' ' || (word[i] >= '\t' && word[i] <= '\r')))
        ++i;
    bool negative = false;
    if (i < n && (word[i] == '-' || word[i] == '+')) {
        negative = word[i] == '-';
        ++i;
    }
    uint64_t result = 0;
    bool digits = false, overflow = false;
    for (; i < n && word[i] >= '0' && word[i] <= '9'; ++i) {
        unsigned digit = (unsigned)(word[i] - '0');
        digits = true;
        if (result > (UINT64_MAX - digit) / 10)
            overflow = true;
        else
            result = result * 10 + digit;
    }
    if (!digits) {
        value = 0;
        return false;
    }
    if (overflow) {
        value = UINT64_MAX;
        return false;
    }
    value = negative ? (uint64_t)0 - result : result;
    return true;
}

/* Seconds as a double to whole nanoseconds, truncating; a product below zero
 * gives 0 and one past 2^64 - 1 gives 2^64 - 1. */
static uint64_t seconds_to_ns(double seconds)
{
    double ns = seconds * 1e9;
    if (!(ns > 0.0))
        return 0;
    if (ns >= 18446744073709551616.0)
        return UINT64_MAX;
    return (uint64_t)ns;
}

/* ---- records ---- */

M3UTSPlaylist::M3UTSPlaylist(const std::string &url) : url(url) {}

SecondM3UPlaylist::SecondM3UPlaylist(const std::string &uri) : uri(uri) {}

MasterM3UPlaylist::MasterM3UPlaylist(const std::string &url) : url(url) {}

/* ---- parser ---- */

M3U8Parser::M3U8Parser()
    : state(NoLine), substate(OtherTag), version(0), mediaSequence(0), targetDuration(0), tokenCursor(0),
      streamInfSeen(false), programId(0), bandwidth(0), allowCache(false), segmentDuration(0.0), itemIndex(0),
      elapsedNs(0)
{
}

void M3U8Parser::initState()
{
    state = NoLine;
    substate = OtherTag;
    mediaSequence = 0;
    targetDuration = 0;
    streamInfSeen = false;
    programId = 0;
    bandwidth = 0;
    allowCache = false;
    segmentDuration = 0.0;
    itemIndex = 0;
    elapsedNs = 0;
}

void M3U8Parser::evalState()
{
    size_t n = line.size();
    while (n > 0 && (line[n - 1] == '\r' || line[n - 1] == '\n'))
        --n;
    line.resize(n);
    if (line.empty()) {
        state = NoLine;
        return;
    }
    if (line.compare(0, kTagPrefix.size(), kTagPrefix) == 0) {
        state = TagLine;
        return;
    }
    /* An untagged line is the URI of a segment or variant tag right before
     * it; after any other tag it is read as a tag line itself. */
    if (state == TagLine)
        state = (substate == StreamInf || substate == ExtInf) ? UriLine : TagLine;
    else
        state = NoLine;
}

void M3U8Parser::metaTokenize()
{
    split_into(line, kSeparatorSet, tokens);
    tokenCursor = 0;
}

bool M3U8Parser::nextToken()
{
    if (tokenCursor >= tokens.size())
        return false;
    token = tokens[tokenCursor++];
    return true;
}

uint64_t M3U8Parser::tokenToUnsignedInt()
{
    uint64_t value;
    if (!extract_u64(token, value))
        state = NoLine;
    return value;
}

bool M3U8Parser::tokenYESNOToBool()
{
    if (token == kYes)
        return true;
    if (token != kNo)
        state = NoLine;
    return false;
}

void M3U8Parser::evalSubstate()
{
    /* The reads are deliberately untested: with no word left, `token` keeps
     * the word it had, and the rows below compare that. */
    nextToken();
    if (token == kExt)
        nextToken();
    if (token == kX)
        nextToken();

    /* Each row that fails on a later word hands the word current at that
     * point to the rows after it. */
    if (token == kExtM3u)
        return;
    if (token == kExtInf) {
        substate = ExtInf;
        return;
    }
    if (token == kStream && nextToken() && token == kInf) {
        streamInfSeen = true;
        substate = StreamInf;
        return;
    }
    if (token == kMedia && nextToken() && token == kSequence && nextToken()) {
        mediaSequence = tokenToUnsignedInt();
        return;
    }
    if (token == kPlaylist && nextToken() && token == kType && nextToken()) {
        playlistType = token;
        return;
    }
    if (token == kVersion && nextToken()) {
        version = tokenToUnsignedInt();
        return;
    }
    if (token == kAllow && nextToken() && token == kCache && nextToken()) {
        allowCache = tokenYESNOToBool();
        return;
    }
    if (token == kTargetDuration && nextToken()) {
        targetDuration = tokenToUnsignedInt();
        return;
    }
    if (token == kEndList) {
        substate = EndList;
        return;
    }
    substate = OtherTag;
}

/* 10^length in double precision. Powers up to 10^22 are exact doubles and
 * pow() returns them exactly, so the table gives identical results without
 * the call. */
static double power_of_ten(size_t length)
{
    static const double exact[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    return length < sizeof(exact) / sizeof(exact[0]) ? exact[length] : pow(10.0, (double)length);
}

/* One word after a segment information tag: the first is the whole seconds,
 * every later one (title words included) a fractional part that counts only
 * when it reads as a number above zero and never spoils the line. */
static void read_duration_word(M3U8Parser &parser)
{
    if (parser.segmentDuration == -1.0) {
        parser.segmentDuration = (double)parser.tokenToUnsignedInt();
        return;
    }
    int32_t saved = parser.state;
    uint64_t fraction = parser.tokenToUnsignedInt();
    if (fraction > 0)
        parser.segmentDuration += (double)fraction / power_of_ten(parser.token.size());
    parser.state = saved;
}

/* One word after a variant stream tag. A keyword's value is the next word,
 * taken untested: when the keyword ends the line, the keyword is its value. */
static void read_attribute_word(M3U8Parser &parser)
{
    if (parser.token == kProgram && parser.nextToken() && parser.token == kId) {
        parser.nextToken();
        parser.programId = parser.tokenToUnsignedInt();
        return;
    }
    if (parser.token == kCodec) {
        parser.nextToken();
        parser.codec = parser.token;
    } else if (parser.token == kResolution) {
        parser.nextToken();
        parser.resolution = parser.token;
    } else if (parser.token == kBandwidth) {
        parser.nextToken();
        parser.bandwidth = parser.tokenToUnsignedInt();
    }
}

void M3U8Parser::readLine()
{
    if (state == UriLine) {
        uri = line;
        substate = OtherTag;
        return;
    }
    if (state != TagLine)
        return;
    segmentDuration = -1.0;
    metaTokenize();
    evalSubstate();
    /* Every remaining word is taken, whatever the tag: the last one stays in
     * `token` for the next line. */
    while (nextToken()) {
        if (substate == ExtInf)
            read_duration_word(*this);
        else if (substate == StreamInf)
            read_attribute_word(*this);
    }
}

static void fill_header(const M3U8Parser &parser, M3UTSPlaylist &playlist)
{
    playlist.mediaSequence = parser.mediaSequence;
    playlist.targetDurationNs = parser.targetDuration * 1000000000ull;
    playlist.totalDurationNs = parser.elapsedNs;
    playlist.playlistType = parser.playlistType;
    playlist.valid = true;
}

void M3U8Parser::update(M3UTSPlaylist &playlist)
{
    if (state == TagLine && substate == EndList) {
        fill_header(*this, playlist);
    } else if (state == UriLine) {
        M3UTSItem item;
        item.uri = uri;
        item.durationNs = seconds_to_ns(segmentDuration);
        item.sequence = mediaSequence + itemIndex;
        item.startNs = elapsedNs;
        item.endNs = item.startNs + item.durationNs;
        playlist.items.push_back(std::move(item));
        elapsedNs += playlist.items.back().durationNs;
        ++itemIndex;
    }
}

void M3U8Parser::updateMaster(MasterM3UPlaylist &master)
{
    if (state == TagLine && substate == EndList) {
        master.valid = true;
    } else if (state == UriLine && streamInfSeen) {
        SecondM3UPlaylist variant(uri);
        variant.programId = programId;
        variant.bandwidth = bandwidth;
        variant.index = itemIndex;
        variant.codec = codec;
        variant.resolution = resolution;
        master.playlists.push_back(std::move(variant));
        ++itemIndex;
    }
}

/* Runs one line cycle per line of `text`; a line ends at a line feed, which
 * is not part of it, and a final line feed starts no further line. */
template <class Assemble>
static void for_each_line(M3U8Parser &parser, const std::string &text, Assemble assemble)
{
    const size_t n = text.size();
    size_t pos = 0;
    while (pos < n) {
        const char *start = text.data() + pos;
        const char *feed = (const char *)memchr(start, '\n', n - pos);
        size_t length = feed ? (size_t)(feed - start) : n - pos;
        parser.line.assign(start, length);
        parser.evalState();
        parser.readLine();
        assemble();
        pos += length + 1;
    }
}

M3UTSPlaylist M3U8Parser::parse(std::string url, const std::string &text)
{
    M3UTSPlaylist playlist(url);
    initState();
    for_each_line(*this, text, [&] { update(playlist); });
    if (!playlist.items.empty())
        fill_header(*this, playlist);
    return playlist;
}

MasterM3UPlaylist M3U8Parser::parseMaster(std::string url, const std::string &text)
{
    MasterM3UPlaylist master(url);
    initState();
    for_each_line(*this, text, [&] { updateMaster(master); });
    if (!master.playlists.empty())
        master.valid = true;
    return master;
}

/* ---- URI resolution ---- */

std::string get_absolute_path(std::string base, std::string relative)
{
    if (relative.compare(0, 4, "http") == 0 && relative.size() >= 4)
        return relative;

    if (!relative.empty() && relative[0] == '/') {
        /* Index 8 is past the double slash of both http:// and https://. */
        size_t slash = base.find('/', 8);
        if (slash == std::string::npos) {
            HLS_LOG_ERROR("get_absolute_path", "Not Found '/' from %s\n", base.c_str());
            return std::string();
        }
        base.resize(slash);
        return base + relative;
    }

    size_t skipped = 0, ups = 0;
    while (relative.size() - skipped >= 3 && relative.compare(skipped, 3, "../") == 0) {
        skipped += 3;
        ++ups;
    }
    /* One cut drops the playlist's file name, each further one a segment. */
    for (size_t cut = 0; cut <= ups; ++cut) {
        size_t slash = base.rfind('/');
        if (slash == std::string::npos) {
            HLS_LOG_ERROR("get_absolute_path", "Not Found '/' from %s\n", base.c_str());
            return std::string();
        }
        base.resize(slash);
    }
    base += '/';
    base.append(relative, skipped, std::string::npos);
    return base;
}

int32_t hls_variant_url(char *url, const char *uri)
{
    if (strncmp(uri, "http", 4) == 0) {
        strncpy(url, uri, 511);
        url[511] = '\0';
        return 1;
    }
    char scratch[512];
    memset(scratch, 0, sizeof(scratch));
    memcpy(scratch, url, strnlen(url, 511));
    char *slash = strrchr(scratch, '/');
    if (!slash)
        return 0;
    /* The URI replaces everything after the last "/" (a query part included)
     * and is appended as it stands. A join that would pass 511 characters is
     * cut there, like every other URL the loop builds: the fetch of the cut
     * URL then fails and is retried, rather than writing past the field. */
    size_t at = (size_t)(slash - scratch) + 1;
    size_t room = 511 - at;
    size_t len = strnlen(uri, room);
    memcpy(scratch + at, uri, len);
    memset(scratch + at + len, 0, sizeof(scratch) - at - len);
    memcpy(url, scratch, sizeof(scratch));
    return 1;
}

/* ---- fragment list ---- */

size_t M3U8ClientImpl::UriKeyHash::operator()(const UriKey &key) const noexcept
{
    return std::hash<std::string_view>()(key.uri) ^ (size_t)(key.duration * 0x9e3779b97f4a7c15ull);
}

bool M3U8ClientImpl::knows(uint64_t sequence_no, const std::string &uri, uint64_t duration) const
{
    return bySequence.count(sequence_no) != 0 || byUriDuration.count(UriKey{uri, duration}) != 0;
}

void M3U8ClientImpl::append(const std::string &uri, uint64_t sequence_no, uint64_t duration)
{
    /* The element is put on the list, then into each index, and counted only
     * when all three hold it; a step that runs out of memory undoes the ones
     * before it, so the list and its indexes agree whatever fails. */
    TSDataItem item;
    item.uri = uri;
    item.sequence_no = sequence_no;
    item.duration = duration;
    fragments.push_back(std::move(item));
    FragmentList::iterator element = std::prev(fragments.end());
    try {
        bool fresh_sequence = bySequence.emplace(sequence_no, element).second;
        assert(fresh_sequence);
        (void)fresh_sequence;
        try {
            bool fresh_uri = byUriDuration.insert(UriKey{element->uri, duration}).second;
            assert(fresh_uri);
            (void)fresh_uri;
        } catch (...) {
            bySequence.erase(sequence_no);
            throw;
        }
    } catch (...) {
        fragments.pop_back();
        throw;
    }
    if (firstPending == fragments.end())
        firstPending = element;
    ++pendingCount;
    pendingNs += duration;
}

bool M3U8ClientImpl::markDownloaded(FragmentList::iterator element)
{
    if (element->has_downloaded)
        return false;
    element->has_downloaded = true;
    --pendingCount;
    pendingNs -= element->duration;
    return true;
}

void M3U8ClientImpl::dropFront()
{
    FragmentList::iterator front = fragments.begin();
    if (!front->has_downloaded) {
        --pendingCount;
        pendingNs -= front->duration;
    }
    if (firstPending == front)
        ++firstPending;
    bySequence.erase(front->sequence_no);
    byUriDuration.erase(UriKey{front->uri, front->duration});
    fragments.pop_front();
}

/* Removes the last element, which a merge appended, and its index entries. */
static void drop_back(M3U8ClientImpl *client)
{
    M3U8ClientImpl::FragmentList::iterator back = std::prev(client->fragments.end());
    if (!back->has_downloaded) {
        --client->pendingCount;
        client->pendingNs -= back->duration;
    }
    if (client->firstPending == back)
        client->firstPending = client->fragments.end();
    client->bySequence.erase(back->sequence_no);
    client->byUriDuration.erase(M3U8ClientImpl::UriKey{back->uri, back->duration});
    client->fragments.pop_back();
}

void update_ts_playlist(M3U8ClientImpl *client, std::string url, const M3UTSPlaylist &playlist)
{
    /* All or nothing: when memory runs out half-way, the elements this merge
     * appended are removed again and the count restored before the failure
     * goes on to the loader, so the client is as it was and a later load of
     * the same text merges every entry once. */
    const size_t size_before = client->fragments.size();
    const uint32_t max_before = client->max_fragment_count;
    size_t entries = playlist.items.size();
    if (client->max_fragment_count < entries)
        client->max_fragment_count = entries > UINT32_MAX ? UINT32_MAX : (uint32_t)entries;
    try {
        for (const M3UTSItem &item : playlist.items) {
            std::string absolute = get_absolute_path(url, item.uri);
            if (absolute.empty()) {
                HLS_LOG_ERROR("update_ts_playlist", "get_absolute_path(%s, %s) failed!\n", url.c_str(),
                              item.uri.c_str());
                continue;
            }
            /* A known element stays exactly as it is, even when the entry now
             * gives it another URL or duration. */
            if (!client->knows(item.sequence, absolute, item.durationNs))
                client->append(absolute, item.sequence, item.durationNs);
        }
    } catch (...) {
        while (client->fragments.size() > size_before)
            drop_back(client);
        client->max_fragment_count = max_before;
        throw;
    }
}

/* ---- playlist client ---- */

char *buf_to_raw_playlist(const uint8_t *data, uint32_t length, uint32_t *size)
{
    char *copy = (char *)malloc((size_t)length + 1);
    if (!copy) {
        HLS_LOG_ERROR("buf_to_raw_playlist", "malloc(%d) failed!\n", (int)(length + 1));
        return NULL;
    }
    if (length > 0)
        memcpy(copy, data, length);
    copy[length] = '\0';
    *size = length + 1;
    return copy;
}

/* True when the new copy has the stored one's size and bytes, NULs and all. */
static bool same_text(const char *stored, uint32_t stored_size, const char *text, uint32_t size)
{
    return stored && stored_size == size && memcmp(stored, text, size) == 0;
}

/* A loader's copy of the downloaded text: released on every return unless
 * the client has taken it over. */
struct FreeText {
    void operator()(char *text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

static M3U8ClientImpl *impl_of(m3u8_client *client)
{
    return client ? client->impl : NULL;
}

static tsdata_fragment *fragment_of(const TSDataItem &item)
{
    tsdata_fragment *fragment = tsdata_fragment_new(item.uri.c_str());
    if (fragment) {
        fragment->duration = item.duration;
        fragment->sequence_no = item.sequence_no;
    }
    return fragment;
}

extern "C" {

m3u8_client *m3u8_client_new(void)
{
    m3u8_client *client = (m3u8_client *)malloc(sizeof(*client));
    if (!client)
        return NULL;
    client->impl = new (std::nothrow) M3U8ClientImpl();
    if (!client->impl) {
        free(client);
        return NULL;
    }
    return client;
}

void m3u8_client_free(m3u8_client *client)
{
    if (!client)
        return;
    M3U8ClientImpl *impl = client->impl;
    if (impl) {
        free(impl->master_raw_data);
        impl->master_raw_data = NULL;
        free(impl->raw_data);
        impl->raw_data = NULL;
        impl->master.playlists.clear();
        impl->master.url.clear();
        impl->bySequence.clear();
        impl->byUriDuration.clear();
        impl->fragments.clear();
        delete impl;
        client->impl = NULL;
    }
    free(client);
}

const char *m3u8_client_get_master_raw_data(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    return impl->master_raw_data;
}

const char *m3u8_client_get_raw_data(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    return impl->raw_data;
}

char *m3u8_client_get_second_playlist(m3u8_client *client, uint32_t index)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    const std::vector<SecondM3UPlaylist> &variants = impl->master.playlists;
    if (variants.empty())
        return NULL;
    if (index >= variants.size())
        index = 0;
    return strdup(variants[index].uri.c_str());
}

char *m3u8_client_get_second_playlist_by_bandwidth(m3u8_client *client, int32_t highest)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    const std::vector<SecondM3UPlaylist> &variants = impl->master.playlists;
    if (variants.empty())
        return NULL;
    /* Among equal lowest bandwidths the last wins, among equal highest the
     * first. */
    size_t lowest = 0, top = 0;
    for (size_t i = 1; i < variants.size(); ++i) {
        if (variants[i].bandwidth <= variants[lowest].bandwidth)
            lowest = i;
        if (variants[i].bandwidth > variants[top].bandwidth)
            top = i;
    }
    const SecondM3UPlaylist &chosen = variants[highest ? top : lowest];
    impl->bandwidth_bps = chosen.bandwidth;
    return strdup(chosen.uri.c_str());
}

uint64_t m3u8_client_get_bandwidth_bps(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return 0;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    return impl->bandwidth_bps;
}

tsdata_fragment *m3u8_client_get_front_fragment(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    /* Elements never become pending again, so the hint only moves forward
     * and the search costs nothing beyond the elements marked since. */
    while (impl->firstPending != impl->fragments.end() && impl->firstPending->has_downloaded)
        ++impl->firstPending;
    if (impl->firstPending == impl->fragments.end())
        return NULL;
    return fragment_of(*impl->firstPending);
}

tsdata_fragment *m3u8_client_get_back_fragment(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return NULL;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    if (impl->fragments.empty() || impl->fragments.back().has_downloaded)
        return NULL;
    return fragment_of(impl->fragments.back());
}

int32_t m3u8_client_pop_front_fragment(m3u8_client *client, uint64_t sequence_no)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return 0;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    /* Sequence numbers are unique in the list, so the index finds the same
     * element as a walk from the front. */
    auto found = impl->bySequence.find(sequence_no);
    if (found == impl->bySequence.end()) {
        HLS_LOG_ERROR("m3u8_client_pop_front_fragment",
                      "Want to remove the TS fragment[sequence no: %llu], but not found!!!\n",
                      (unsigned long long)sequence_no);
        return 0;
    }
    if (!impl->markDownloaded(found->second))
        HLS_LOG_ERROR("m3u8_client_pop_front_fragment",
                      "Want to remove the TS fragment[sequence no: %llu], but has_downloaded is true!!!\n",
                      (unsigned long long)sequence_no);
    return 1;
}

int32_t m3u8_client_is_time_to_refresh_playlist(m3u8_client *client)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl)
        return 0;
    std::lock_guard<std::recursive_mutex> lock(impl->mutex);
    uint64_t pending = impl->pendingCount;
    int32_t due = impl->fragments.empty() || pending <= 1 || impl->pendingNs <= 1000000000ull;
    /* Beside the pending elements keep at most max_fragment_count, the ones
     * the next reload is matched against. */
    uint64_t size = impl->fragments.size();
    uint64_t keep = (uint64_t)impl->max_fragment_count + pending;
    for (uint64_t excess = size > keep ? size - keep : 0; excess > 0; --excess)
        impl->dropFront();
    return due;
}

int32_t m3u8_client_load_master_playlist(m3u8_client *client, const char *url, const hls_buffer *buffer,
                                         int32_t *is_master)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl || !url || !buffer || !is_master || (!buffer->data && buffer->size))
        return 1;
    uint32_t size = 0;
    OwnedText text(buf_to_raw_playlist(buffer->data, buffer->size, &size));
    if (!text)
        return 2;
    /* Parsing and merging allocate; when memory runs out the client state is
     * still the earlier one (the merge undoes itself and nothing is stored
     * before it succeeds), the copy is released and the load reports it. */
    try {
        M3U8Parser parser;
        std::string url_text(url);
        std::lock_guard<std::recursive_mutex> lock(impl->mutex);

        const std::string body(text.get()); /* up to the first NUL */
        MasterM3UPlaylist master = parser.parseMaster(url_text, body);
        if (master.valid && !master.playlists.empty()) {
            if (!same_text(impl->master_raw_data, impl->master_raw_data_size, text.get(), size)) {
                impl->master = std::move(master);
                free(impl->master_raw_data);
                impl->master_raw_data = text.release();
                impl->master_raw_data_size = size;
            }
            *is_master = 1;
            return 0;
        }

        M3UTSPlaylist media = parser.parse(url_text, body);
        if (!media.valid)
            return 1;
        if (!same_text(impl->raw_data, impl->raw_data_size, text.get(), size)) {
            update_ts_playlist(impl, url_text, media);
            free(impl->raw_data);
            impl->raw_data = text.release();
            impl->raw_data_size = size;
        }
        *is_master = 0;
        return 0;
    } catch (const std::bad_alloc &) {
        return 2;
    }
}

int32_t m3u8_client_load_playlist(m3u8_client *client, const char *url, const hls_buffer *buffer)
{
    M3U8ClientImpl *impl = impl_of(client);
    if (!impl || !url || !buffer || (!buffer->data && buffer->size))
        return 1;
    uint32_t size = 0;
    OwnedText text(buf_to_raw_playlist(buffer->data, buffer->size, &size));
    if (!text)
        return 2;
    /* As in the master loader: running out of memory leaves the client as it
     * was and gives 2. */
    try {
        M3U8Parser parser;
        std::lock_guard<std::recursive_mutex> lock(impl->mutex);
        /* An unchanged reload is recognised before any parsing. */
        if (same_text(impl->raw_data, impl->raw_data_size, text.get(), size))
            return 0;
        std::string url_text(url);
        M3UTSPlaylist media = parser.parse(url_text, std::string(text.get()));
        if (!media.valid)
            return 1;
        update_ts_playlist(impl, url_text, media);
        free(impl->raw_data);
        impl->raw_data = text.release();
        impl->raw_data_size = size;
        return 0;
    } catch (const std::bad_alloc &) {
        return 2;
    }
}

tsdata_fragment *tsdata_fragment_new(const char *uri)
{
    if (!uri)
        return NULL;
    tsdata_fragment *fragment = (tsdata_fragment *)malloc(sizeof(*fragment));
    if (!fragment)
        return NULL;
    memset(fragment, 0, sizeof(*fragment));
    fragment->uri = strdup(uri);
    if (!fragment->uri) {
        free(fragment);
        return NULL;
    }
    return fragment;
}

void tsdata_fragment_free(tsdata_fragment *fragment)
{
    if (!fragment)
        return;
    free(fragment->uri);
    fragment->uri = NULL;
    free(fragment->aux);
    fragment->aux = NULL;
    free(fragment);
}

} /* extern "C" */
