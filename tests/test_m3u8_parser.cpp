#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "hls_m3u8.h"

namespace {

using Strings = std::vector<std::string>;

// A parser that ran the line cycle, without the assembly step, over `lines`,
// starting in `state` after a tag of kind `substate`.
M3U8Parser after(const Strings &lines, int32_t state = NoLine, int32_t substate = OtherTag)
{
    M3U8Parser parser;
    parser.state = state;
    parser.substate = substate;
    for (const std::string &line : lines) {
        parser.line = line;
        parser.evalState();
        parser.readLine();
    }
    return parser;
}

} // namespace

TEST(M3u8Parser, SplitsOnSeparatorRunsAndNeverYieldsEmptyWords)
{
    struct Case { std::string text; Strings words; } cases[] = {
        {"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1280x720",
         {"EXT", "X", "STREAM", "INF", "PROGRAM", "ID", "1", "BANDWIDTH", "1280000", "RESOLUTION", "1280x720"}},
        {"#EXTINF:9.009,", {"EXTINF", "9", "009"}}, {"#EXT-X-TARGETDURATION:10", {"EXT", "X", "TARGETDURATION", "10"}},
        {"", {}}, {"# -.,:=#", {}}, {"a--b", {"a", "b"}},
        {"\"q\"\ta/b", {"\"q\"\ta/b"}}, // quote, tab and slash belong to words
    };
    for (const Case &c : cases)
        EXPECT_EQ(custom_split(c.text, "# -.,:="), c.words) << c.text;
    EXPECT_EQ(custom_split("x1y11z", "1"), (Strings{"x", "y", "z"}));
}

TEST(M3u8Parser, NumberReaderMatchesStreamExtractionExactly)
{
    auto check = [](const std::string &word) {
        M3U8Parser parser;
        parser.state = TagLine;
        parser.token = word;
        uint64_t got = parser.tokenToUnsignedInt(), want = 0;
        std::istringstream in(word);
        bool ok = static_cast<bool>(in >> want);
        EXPECT_EQ(got, want) << "word [" << word << "]";
        EXPECT_EQ(parser.state, ok ? TagLine : NoLine) << "word [" << word << "]";
    };
    // What the random words below cannot hold: other white space, bytes
    // above 127, and long runs of digits around the 64-bit limit.
    for (const char *word : {"", " \t\v\f\r\n42x", "\xff" "1", "18446744073709551615", "18446744073709551616",
                             "-18446744073709551615", "-18446744073709551616", "0000000000000000000000018446744073709551615"})
        check(word);
    // And the shapes between them, at random.
    std::mt19937 rng(12345);
    const std::string alphabet = "0123456789999+- \tx";
    for (int i = 0; i < 3000; ++i) {
        std::string word(rng() % 24, ' ');
        for (char &c : word)
            c = alphabet[rng() % alphabet.size()];
        check(word);
    }
    // An anchor that does not depend on the standard library: a minus wraps.
    M3U8Parser parser;
    parser.token = "-5";
    EXPECT_EQ(parser.tokenToUnsignedInt(), UINT64_MAX - 4);
}

// Each row runs its lines through the line cycle, from the given line state
// and tag kind, and lists what the parser then holds: "s<state> k<substate>"
// and every field that differs from a new parser's.
TEST(M3u8Parser, LineCycleClassifiesLinesAndReadsTagsWordByWord)
{
    struct Case { Strings lines; std::string want; int32_t state = NoLine, substate = OtherTag; } cases[] = {
        // Line classification; only trailing CR and LF are removed.
        {{"#EXT-X-ENDLIST\r\n"}, "s0 k2"},
        {{"#EXTM3U\r\r\r"}, "s0 k1", TagLine, ExtInf},
        {{"\r"}, "s2 k1", TagLine, ExtInf},
        {{" seg.ts "}, "s1 k3 uri= seg.ts ", TagLine, ExtInf},
        {{"v.m3u8\r"}, "s1 k3 uri=v.m3u8", TagLine, StreamInf},
        {{"seg.ts"}, "s0 k3", TagLine, EndList},
        {{"# EXTINF"}, "s0 k1", TagLine, OtherTag}, // a comment read as a tag line
        {{"seg.ts"}, "s2 k1", UriLine, ExtInf},
        {{"seg.ts"}, "s2 k1", NoLine, ExtInf},
        {{"#ext-x-endlist"}, "s1 k3 uri=#ext-x-endlist", TagLine, ExtInf}, // case matters
        {{"#EX"}, "s1 k3 uri=#EX", TagLine, ExtInf},
        // Tags, matched by whole words; a tag that sets no kind keeps ExtInf.
        {{"#EXTINF"}, "s0 k1"},
        {{"#EXT-ENDLIST"}, "s0 k2"},
        {{"#EXT-X-KEY:METHOD=NONE"}, "s0 k3", TagLine, ExtInf},
        {{"#EXT-X-MEDIA:TYPE=AUDIO"}, "s0 k3", TagLine, ExtInf},
        {{"#EXT-X-DISCONTINUITY"}, "s0 k3", TagLine, ExtInf},
        {{"#EXT-X-MEDIA-SEQUENCE:7"}, "s0 k1 seq=7", TagLine, ExtInf},
        {{"#EXT-X-MEDIA-SEQUENCE:123456789012345678901"}, "s2 k1 seq=18446744073709551615", TagLine, ExtInf},
        {{"#EXT-X-MEDIA-SEQUENCE"}, "s0 k3", TagLine, ExtInf}, // value word missing
        {{"#EXT-X-STREAM-MEDIA-SEQUENCE:9"}, "s0 k1 seq=9", TagLine, ExtInf},
        {{"#EXT-X-VERSION:3"}, "s0 k1 ver=3", TagLine, ExtInf},
        {{"#EXT-X-VERSION:v3"}, "s2 k1", TagLine, ExtInf},
        {{"#EXT-X-TARGETDURATION:10"}, "s0 k1 td=10", TagLine, ExtInf},
        {{"#EXT-X-TARGETDURATION"}, "s0 k3", TagLine, ExtInf},
        {{"#EXT-X-Targetduration:10"}, "s0 k3", TagLine, ExtInf},
        {{"#EXT-X-ALLOW-CACHE:MAYBE"}, "s2 k1", TagLine, ExtInf},
        {{"#EXT-X-ALLOW-CACHE:YES", "#EXT-X-PLAYLIST-TYPE:EVENT"}, "s0 k3 cache type=EVENT"},
        {{"#EXT-X-ALLOW-CACHE:YES", "#EXT-X-ALLOW-CACHE:NO"}, "s0 k3"},
        {{"#EXT-X-ALLOW-CACHE:YES", "#EXT-X-ALLOW-CACHE:yes"}, "s2 k3"}, // case matters for values too
        {{"#EXT-X-ENDLIST", "::"}, "s0 k2"}, // no words: the word left over is compared
        // Segment durations: whole seconds, then every later word as a fraction.
        {{"#EXTINF:10,"}, "s0 k1 dur=10"},
        {{"#EXTINF:10.5,"}, "s0 k1 dur=10.5"},
        {{"#EXTINF:9.009,"}, "s0 k1 dur=9.009"},
        {{"#EXTINF:10.000,"}, "s0 k1 dur=10"},
        {{"#EXTINF:6.4,Live"}, "s0 k1 dur=6.4"},
        {{"#EXTINF:10,Take 2"}, "s0 k1 dur=10.2"},
        {{"#EXTINF:4.25a,"}, "s0 k1 dur=4.025"},
        {{"#EXTINF:x.5,"}, "s2 k1 dur=0.5"},
        // Variant attributes: a value is the one word after its keyword.
        {{"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1280x720"},
         "s0 k0 prog=1 bw=1280000 inf res=1280x720"},
        {{"#EXT-X-STREAM-INF:BANDWIDTH=5,CODECS=\"avc1.4d401f,mp4a.40.2\""}, "s0 k0 bw=5 inf"},
        {{"#EXT-X-STREAM-INF:CODEC=\"avc1.4d401f\",BANDWIDTH=7"}, "s0 k0 bw=7 inf codec=\"avc1"},
        {{"#EXT-X-STREAM-INF:BANDWIDTH=5,AVERAGE-BANDWIDTH=4"}, "s0 k0 bw=4 inf"},
        {{"#EXT-X-STREAM-INF:PROGRAM-BANDWIDTH=9"}, "s0 k0 bw=9 inf"},
        {{"#EXT-X-STREAM-INF:BANDWIDTH=3,PROGRAM"}, "s0 k0 bw=3 inf"},
        {{"#EXT-X-STREAM-INF:PROGRAM-ID"}, "s2 k0 inf"}, // the value read is the keyword ID
        {{"#EXT-X-STREAM-INF:RESOLUTION"}, "s0 k0 inf res=RESOLUTION"},
        {{"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH"}, "s2 k0 prog=1 inf"},
    };
    for (const Case &c : cases) {
        M3U8Parser p = after(c.lines, c.state, c.substate);
        std::ostringstream got;
        got.precision(15);
        got << "s" << p.state << " k" << p.substate;
        std::pair<const char *, uint64_t> numbers[] = {{"seq", p.mediaSequence}, {"ver", p.version},
                                                       {"td", p.targetDuration},  {"prog", p.programId},
                                                       {"bw", p.bandwidth}};
        for (const auto &n : numbers)
            got << (n.second ? std::string(" ") + n.first + "=" + std::to_string(n.second) : "");
        got << (p.allowCache ? " cache" : "") << (p.streamInfSeen ? " inf" : "");
        std::pair<const char *, std::string> texts[] = {
            {"type", p.playlistType}, {"res", p.resolution}, {"codec", p.codec}, {"uri", p.uri}};
        for (const auto &t : texts)
            got << (t.second.empty() ? "" : std::string(" ") + t.first + "=" + t.second);
        if (p.segmentDuration != 0.0 && p.segmentDuration != -1.0) // -1: no duration read on this line
            got << " dur=" << p.segmentDuration;
        EXPECT_EQ(got.str(), c.want) << testing::PrintToString(c.lines);
    }
}

// Each row is parsed by the same parser, so every parse must start afresh.
// A result reads "valid" or "invalid", the header fields that are set, then
// each segment as "uri#sequence start+duration" in nanoseconds.
TEST(M3u8Parser, AssemblesSegmentsAsTheLineStatesSay)
{
    struct Case { const char *what; std::string text, want; } cases[] = {
        {"empty", "", "invalid"},
        {"tags only", "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:3\n", "invalid"},
        {"end-of-list only", "#EXTM3U\n#EXT-X-TARGETDURATION:6\n#EXT-X-ENDLIST\n", "valid td=6000000000"},
        {"blank before URI", "#EXTINF:1,\n\na.ts\n#EXTINF:1,\nb.ts", "valid total=1000000000 | b.ts#0 0+1000000000"},
        {"comment taken as URI", "#EXTINF:1,\n# note\na.ts\n", "valid total=1000000000 | # note#0 0+1000000000"},
        {"byte range between", "#EXTINF:1,\n#EXT-X-BYTERANGE:5@0\na.ts\n", "invalid"},
        {"version tag between", "#EXTINF:4,\n#EXT-X-VERSION:3\na.ts\n", "valid | a.ts#0 0+0"},
        {"two untagged lines", "#EXTINF:1,\na.ts\nb.ts\n", "valid total=1000000000 | a.ts#0 0+1000000000"},
        {"tag after a URI line", "#EXTINF:1,\na.ts\n#EXT-X-VERSION:3\nb.ts\n",
         "valid total=1000000000 | a.ts#0 0+1000000000"},
        {"unreadable seconds", "#EXT-X-MEDIA-SEQUENCE:4\n#EXTINF:x,\na.ts\n#EXTINF:1,\nb.ts",
         "valid seq=4 total=1000000000 | b.ts#4 0+1000000000"},
        {"untagged after end", "#EXTINF:1,\na.ts\n#EXT-X-ENDLIST\nb.ts\n", "valid total=1000000000 | a.ts#0 0+1000000000"},
        {"CRLF endings", "#EXTINF:1,\r\na.ts\r\n", "valid total=1000000000 | a.ts#0 0+1000000000"},
        // 2.002 s lies just below its exact value in double precision, and
        // the conversion truncates.
        {"2.002 s", "#EXTINF:2.002,\na.ts\n", "valid total=2001999999 | a.ts#0 0+2001999999"},
        {"no seconds", "#EXTINF,\na.ts\n", "valid | a.ts#0 0+0"},
        {"beyond 64 bits", "#EXTINF:18446744073709551615,\na.ts\n",
         "valid total=18446744073709551615 | a.ts#0 0+18446744073709551615"},
        {"live, header filled at the end",
         "#EXTM3U\r\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:7\n#EXT-X-PLAYLIST-TYPE:VOD\n"
         "#EXTINF:10,\na.ts\n#EXTINF:10,\nb.ts\n#EXTINF:5.5,\nc.ts",
         "valid seq=7 td=6000000000 total=25500000000 type=VOD | a.ts#7 0+10000000000 "
         "| b.ts#8 10000000000+10000000000 | c.ts#9 20000000000+5500000000"},
        {"type kept from the parse before", "#EXTINF:1,\nx.ts\n", "valid total=1000000000 type=VOD | x.ts#0 0+1000000000"},
    };
    M3U8Parser parser;
    for (const Case &c : cases) {
        M3UTSPlaylist p = parser.parse("http://h/p.m3u8", c.text);
        std::pair<const char *, uint64_t> header[] = {
            {"seq", p.mediaSequence}, {"td", p.targetDurationNs}, {"total", p.totalDurationNs}};
        std::string got = p.valid ? "valid" : "invalid";
        for (const auto &h : header)
            got += h.second ? std::string(" ") + h.first + "=" + std::to_string(h.second) : "";
        got += p.playlistType.empty() ? "" : " type=" + p.playlistType;
        for (const M3UTSItem &i : p.items) {
            got += " | " + i.uri + "#" + std::to_string(i.sequence) + " " + std::to_string(i.startNs) + "+" +
                   std::to_string(i.durationNs);
            EXPECT_EQ(i.endNs, i.startNs + i.durationNs) << c.what;
        }
        EXPECT_EQ(got, c.want) << c.what;
        EXPECT_EQ(p.url, "http://h/p.m3u8");
    }
    EXPECT_EQ(parser.version, 3u); // not reset between parses
}

TEST(M3u8Parser, AssemblesVariantsAndLetsAttributesPersist)
{
    const std::string text = "#EXTM3U\n#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=800000,RESOLUTION=640x360\nlow.m3u8\n"
                             "#EXT-X-STREAM-INF:BANDWIDTH=1600000\nhigh.m3u8\n";
    M3U8Parser parser; // one for all: every parse starts afresh
    MasterM3UPlaylist master = parser.parseMaster("http://h/m.m3u8", text);
    EXPECT_TRUE(master.valid);
    EXPECT_EQ(master.url, "http://h/m.m3u8");
    Strings got;
    for (const SecondM3UPlaylist &v : master.playlists)
        got.push_back(v.uri + " " + std::to_string(v.index) + " " + std::to_string(v.programId) + " " +
                      std::to_string(v.bandwidth) + " " + v.resolution);
    EXPECT_EQ(got, (Strings{"low.m3u8 0 1 800000 640x360", "high.m3u8 1 1 1600000 640x360"})); // inherited

    struct Case { std::string text; bool valid; size_t variants; } cases[] = {
        {"#EXTM3U\n#EXT-X-ENDLIST\n", true, 0},
        {"#EXTINF:1,\na.ts\n", false, 0},
        {"#EXTINF:1,\na.ts\n#EXT-X-ENDLIST", true, 0},
        {"#EXT-X-STREAM-INF:BANDWIDTH\nv.m3u8\n", false, 0}, // unreadable bandwidth drops the URI
        // Once a variant tag was read, a URI after a segment tag is a variant too.
        {"#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n#EXTINF:1,\na.ts\n", true, 2},
    };
    for (const Case &c : cases) {
        MasterM3UPlaylist m = parser.parseMaster("u", c.text);
        EXPECT_EQ(m.valid, c.valid) << c.text;
        EXPECT_EQ(m.playlists.size(), c.variants) << c.text;
    }
}
