#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "hls_m3u8.h"

namespace {

// One line cycle as the parse loop runs it, without the assembly step.
void feed(M3U8Parser &parser, const std::string &line)
{
    parser.line = line;
    parser.evalState();
    parser.readLine();
}

std::vector<std::string> uris(const M3UTSPlaylist &playlist)
{
    std::vector<std::string> out;
    for (const M3UTSItem &item : playlist.items)
        out.push_back(item.uri);
    return out;
}

} // namespace

TEST(M3u8Parser, SplitsOnSeparatorRunsAndNeverYieldsEmptyWords)
{
    using Words = std::vector<std::string>;
    const std::string seps = "# -.,:=";
    struct Case {
        std::string text;
        Words words;
    } cases[] = {
        {"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1280x720",
         {"EXT", "X", "STREAM", "INF", "PROGRAM", "ID", "1", "BANDWIDTH", "1280000", "RESOLUTION", "1280x720"}},
        {"#EXTINF:9.009,", {"EXTINF", "9", "009"}},
        {"#EXT-X-TARGETDURATION:10", {"EXT", "X", "TARGETDURATION", "10"}},
        {"", {}},
        {"# -.,:=#", {}},
        {"a--b", {"a", "b"}},
        {"\"q\"\ta/b", {"\"q\"\ta/b"}}, // quote, tab and slash belong to words
    };
    for (const Case &c : cases)
        EXPECT_EQ(custom_split(c.text, seps), c.words) << c.text;
    EXPECT_EQ(custom_split("x1y11z", "1"), (Words{"x", "y", "z"}));
}

TEST(M3u8Parser, NumberReaderMatchesStreamExtractionExactly)
{
    auto check = [](const std::string &word) {
        M3U8Parser parser;
        parser.state = TagLine;
        parser.token = word;
        uint64_t got = parser.tokenToUnsignedInt();
        std::istringstream in(word);
        uint64_t want = 0;
        bool ok = static_cast<bool>(in >> want);
        EXPECT_EQ(got, want) << "word [" << word << "]";
        EXPECT_EQ(parser.state, ok ? TagLine : NoLine) << "word [" << word << "]";
    };
    const char *tricky[] = {"0", "25a", "", "a25", "007", "-5", "+5", "-", "+", "+-5", "-0", " \t\v\f\r\n42x",
                            "\t", "18446744073709551615", "18446744073709551616", "99999999999999999999999",
                            "-18446744073709551615", "-18446744073709551616", "0000000000000000000000018446744073709551615",
                            "1x2", "0x1f", "+\t5", "12 34", "\xff" "1", "5+"};
    for (const char *word : tricky)
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

TEST(M3u8Parser, ClassifiesLinesByPrefixAndWhatCameBefore)
{
    struct Case {
        int32_t state, substate;
        std::string line;
        int32_t expect;
        std::string stripped;
    } cases[] = {
        {NoLine, OtherTag, "#EXTINF:5,\r\n", TagLine, "#EXTINF:5,"},
        {NoLine, OtherTag, "#EXTM3U\r\r\r", TagLine, "#EXTM3U"},
        {TagLine, ExtInf, "\r", NoLine, ""},
        {TagLine, ExtInf, " seg.ts ", UriLine, " seg.ts "}, // spaces stay
        {TagLine, StreamInf, "v.m3u8\r", UriLine, "v.m3u8"},
        {TagLine, EndList, "seg.ts", TagLine, "seg.ts"},
        {TagLine, OtherTag, "# comment", TagLine, "# comment"},
        {UriLine, ExtInf, "seg.ts", NoLine, "seg.ts"},
        {NoLine, ExtInf, "seg.ts", NoLine, "seg.ts"},
        {TagLine, ExtInf, "#ext-x-endlist", UriLine, "#ext-x-endlist"}, // case matters
        {TagLine, ExtInf, "#EX", UriLine, "#EX"},
    };
    for (const Case &c : cases) {
        M3U8Parser parser;
        parser.state = c.state;
        parser.substate = c.substate;
        parser.line = c.line;
        parser.evalState();
        EXPECT_EQ(parser.state, c.expect) << c.line;
        EXPECT_EQ(parser.line, c.stripped);
    }
}

TEST(M3u8Parser, RecognisesTagsByWholeWordsOnly)
{
    // Each line is read as a tag line by a parser whose last tag was a
    // segment tag, so that "unchanged" shows as ExtInf.
    struct Case {
        std::string line;
        int32_t substate, state;
        uint64_t number; // the number field the tag sets, when it has one
        uint64_t M3U8Parser::*field;
    } cases[] = {
        {"#EXTM3U", ExtInf, TagLine, 0, nullptr},
        {"#EXTINF", ExtInf, TagLine, 0, nullptr},
        {"#EXT-X-ENDLIST", EndList, TagLine, 0, nullptr},
        {"#EXT-ENDLIST", EndList, TagLine, 0, nullptr},
        {"#EXT-X-KEY:METHOD=NONE", OtherTag, TagLine, 0, nullptr},
        {"#EXT-X-MEDIA:TYPE=AUDIO", OtherTag, TagLine, 0, nullptr},
        {"#EXT-X-DISCONTINUITY", OtherTag, TagLine, 0, nullptr},
        {"#EXT-X-MEDIA-SEQUENCE:7", ExtInf, TagLine, 7, &M3U8Parser::mediaSequence},
        {"#EXT-X-MEDIA-SEQUENCE:123456789012345678901", ExtInf, NoLine, UINT64_MAX, &M3U8Parser::mediaSequence},
        {"#EXT-X-MEDIA-SEQUENCE", OtherTag, TagLine, 0, nullptr}, // value word missing
        {"#EXT-X-STREAM-MEDIA-SEQUENCE:9", ExtInf, TagLine, 9, &M3U8Parser::mediaSequence},
        {"#EXT-X-VERSION:3", ExtInf, TagLine, 3, &M3U8Parser::version},
        {"#EXT-X-VERSION:v3", ExtInf, NoLine, 0, &M3U8Parser::version},
        {"#EXT-X-TARGETDURATION:10", ExtInf, TagLine, 10, &M3U8Parser::targetDuration},
        {"#EXT-X-TARGETDURATION", OtherTag, TagLine, 0, nullptr},
        {"#EXT-X-Targetduration:10", OtherTag, TagLine, 0, nullptr},
        {"#EXT-X-ALLOW-CACHE:MAYBE", ExtInf, NoLine, 0, nullptr},
    };
    for (const Case &c : cases) {
        M3U8Parser parser;
        parser.state = TagLine;
        parser.substate = ExtInf;
        feed(parser, c.line);
        EXPECT_EQ(parser.substate, c.substate) << c.line;
        EXPECT_EQ(parser.state, c.state) << c.line;
        if (c.field) {
            EXPECT_EQ(parser.*c.field, c.number) << c.line;
        }
    }

    M3U8Parser parser;
    feed(parser, "#EXT-X-ALLOW-CACHE:YES");
    feed(parser, "#EXT-X-PLAYLIST-TYPE:EVENT");
    EXPECT_TRUE(parser.allowCache);
    EXPECT_EQ(parser.playlistType, "EVENT");
    feed(parser, "#EXT-X-ALLOW-CACHE:NO");
    EXPECT_FALSE(parser.allowCache);
    EXPECT_EQ(parser.state, TagLine);
    feed(parser, "#EXT-X-ALLOW-CACHE:yes"); // case matters for values too
    EXPECT_EQ(parser.state, NoLine);
    EXPECT_FALSE(parser.streamInfSeen);
    feed(parser, "#EXT-X-STREAM-INF:BANDWIDTH=1");
    EXPECT_TRUE(parser.streamInfSeen);
    EXPECT_EQ(parser.substate, StreamInf);
    // A line read as a tag line that has no words compares the word left
    // over from the line before.
    feed(parser, "#EXT-X-ENDLIST");
    feed(parser, "::");
    EXPECT_EQ(parser.state, TagLine);
    EXPECT_EQ(parser.substate, EndList);
}

TEST(M3u8Parser, ReadsDurationsFromWholeAndFractionWords)
{
    struct Case {
        std::string line;
        double seconds;
        int32_t state;
    } cases[] = {
        {"#EXTINF:10,", 10.0, TagLine},       {"#EXTINF:10.5,", 10.5, TagLine},
        {"#EXTINF:9.009,", 9.009, TagLine},   {"#EXTINF:10.000,", 10.0, TagLine},
        {"#EXTINF:6.4,Live", 6.4, TagLine},   {"#EXTINF", -1.0, TagLine},
        {"#EXTINF:10,Take 2", 10.2, TagLine}, // title words are fractions too
        {"#EXTINF:4.25a,", 4.025, TagLine},    {"#EXTINF:x.5,", 0.5, NoLine},
    };
    for (const Case &c : cases) {
        M3U8Parser parser;
        feed(parser, c.line);
        EXPECT_DOUBLE_EQ(parser.segmentDuration, c.seconds) << c.line;
        EXPECT_EQ(parser.state, c.state) << c.line;
    }
    // 2.002 s lies just below its exact value in double precision, and the
    // conversion truncates.
    struct Ns {
        std::string tag;
        uint64_t ns;
    } ns_cases[] = {{"#EXTINF:2.002,", 2001999999ull}, {"#EXTINF:10.5,", 10500000000ull},
                    {"#EXTINF,", 0},                    {"#EXTINF:18446744073709551615,", UINT64_MAX}};
    for (const Ns &c : ns_cases) {
        M3UTSPlaylist playlist = M3U8Parser().parse("u", c.tag + "\na.ts\n");
        ASSERT_EQ(playlist.items.size(), 1u) << c.tag;
        EXPECT_EQ(playlist.items[0].durationNs, c.ns) << c.tag;
    }
}

TEST(M3u8Parser, ReadsVariantAttributesWordByWord)
{
    struct Case {
        std::string line;
        uint64_t program, bandwidth;
        std::string resolution, codec;
        int32_t state;
    } cases[] = {
        {"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1280x720", 1, 1280000, "1280x720", "", TagLine},
        {"#EXT-X-STREAM-INF:BANDWIDTH=5,CODECS=\"avc1.4d401f,mp4a.40.2\"", 0, 5, "", "", TagLine},
        {"#EXT-X-STREAM-INF:CODEC=\"avc1.4d401f\",BANDWIDTH=7", 0, 7, "", "\"avc1", TagLine},
        {"#EXT-X-STREAM-INF:BANDWIDTH=5,AVERAGE-BANDWIDTH=4", 0, 4, "", "", TagLine},
        {"#EXT-X-STREAM-INF:PROGRAM-BANDWIDTH=9", 0, 9, "", "", TagLine},
        {"#EXT-X-STREAM-INF:BANDWIDTH=3,PROGRAM", 0, 3, "", "", TagLine},
        {"#EXT-X-STREAM-INF:PROGRAM-ID", 0, 0, "", "", NoLine},     // value is the keyword ID
        {"#EXT-X-STREAM-INF:RESOLUTION", 0, 0, "RESOLUTION", "", TagLine},
        {"#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH", 1, 0, "", "", NoLine},
    };
    for (const Case &c : cases) {
        M3U8Parser parser;
        feed(parser, c.line);
        EXPECT_EQ(parser.programId, c.program) << c.line;
        EXPECT_EQ(parser.bandwidth, c.bandwidth) << c.line;
        EXPECT_EQ(parser.resolution, c.resolution) << c.line;
        EXPECT_EQ(parser.codec, c.codec) << c.line;
        EXPECT_EQ(parser.state, c.state) << c.line;
    }
}

TEST(M3u8Parser, WalksMediaPlaylistLineByLine)
{
    struct Row {
        std::string line;
        int32_t state, substate;
    } rows[] = {
        {"#EXTM3U", TagLine, OtherTag},      {"#EXT-X-VERSION:3", TagLine, OtherTag},
        {"#EXT-X-TARGETDURATION:10", TagLine, OtherTag},
        {"#EXT-X-MEDIA-SEQUENCE:7", TagLine, OtherTag},
        {"#EXTINF:9.5,", TagLine, ExtInf},   {"seg7.ts", UriLine, OtherTag},
        {"#EXTINF:10,", TagLine, ExtInf},    {"seg8.ts", UriLine, OtherTag},
        {"#EXT-X-ENDLIST", TagLine, EndList},
    };
    M3U8Parser parser;
    parser.initState();
    for (const Row &r : rows) {
        feed(parser, r.line);
        EXPECT_EQ(parser.state, r.state) << r.line;
        EXPECT_EQ(parser.substate, r.substate) << r.line;
        if (r.line == "#EXTINF:9.5,") {
            EXPECT_DOUBLE_EQ(parser.segmentDuration, 9.5);
        }
    }
    EXPECT_EQ(parser.version, 3u);
    EXPECT_EQ(parser.targetDuration, 10u);
    EXPECT_EQ(parser.mediaSequence, 7u);
    EXPECT_EQ(parser.uri, "seg8.ts");
}

TEST(M3u8Parser, AssemblesSegmentsWithSequenceAndTimes)
{
    const std::string text = "#EXTM3U\r\n#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:7\n#EXT-X-PLAYLIST-TYPE:VOD\n"
                             "#EXTINF:10,\na.ts\n#EXTINF:10,\nb.ts\n#EXTINF:5.5,\nc.ts";
    M3U8Parser parser;
    M3UTSPlaylist playlist = parser.parse("http://h/p.m3u8", text);
    const uint64_t s = 1000000000ull;
    struct Want {
        uint64_t sequence, start, end, duration;
    } want[] = {{7, 0, 10 * s, 10 * s}, {8, 10 * s, 20 * s, 10 * s}, {9, 20 * s, 25 * s + s / 2, 5 * s + s / 2}};
    ASSERT_EQ(playlist.items.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(playlist.items[i].sequence, want[i].sequence);
        EXPECT_EQ(playlist.items[i].startNs, want[i].start);
        EXPECT_EQ(playlist.items[i].endNs, want[i].end);
        EXPECT_EQ(playlist.items[i].durationNs, want[i].duration);
    }
    EXPECT_EQ(uris(playlist), (std::vector<std::string>{"a.ts", "b.ts", "c.ts"}));
    EXPECT_TRUE(playlist.valid); // live: no end-of-list tag, header filled at the end
    EXPECT_EQ(playlist.totalDurationNs, 25 * s + s / 2);
    EXPECT_EQ(playlist.targetDurationNs, 6 * s);
    EXPECT_EQ(playlist.mediaSequence, 7u);
    EXPECT_EQ(playlist.playlistType, "VOD");
    EXPECT_EQ(playlist.url, "http://h/p.m3u8");

    // A second parse on the same object starts its counters and the sequence
    // again, but the version read before stays.
    parser.version = 5;
    M3UTSPlaylist again = parser.parse("u", "#EXTINF:1,\nx.ts\n");
    ASSERT_EQ(again.items.size(), 1u);
    EXPECT_EQ(again.items[0].sequence, 0u);
    EXPECT_EQ(again.items[0].startNs, 0u);
    EXPECT_EQ(parser.version, 5u);
}

TEST(M3u8Parser, KeepsOrDropsSegmentsAsTheLineStatesSay)
{
    struct Case {
        const char *what;
        std::string text;
        bool valid;
        std::vector<std::string> uris;
        std::vector<uint64_t> sequences;
    } cases[] = {
        {"empty", "", false, {}, {}},
        {"tags only", "#EXTM3U\n#EXT-X-VERSION:3\n", false, {}, {}},
        {"end-of-list only", "#EXTM3U\n#EXT-X-ENDLIST\n", true, {}, {}},
        {"blank before URI", "#EXTINF:1,\n\na.ts\n#EXTINF:1,\nb.ts", true, {"b.ts"}, {0}},
        {"comment taken as URI", "#EXTINF:1,\n# note\na.ts\n", true, {"# note"}, {0}},
        {"byte range between", "#EXTINF:1,\n#EXT-X-BYTERANGE:5@0\na.ts\n", false, {}, {}},
        {"two untagged lines", "#EXTINF:1,\na.ts\nb.ts\n", true, {"a.ts"}, {0}},
        {"unreadable seconds", "#EXT-X-MEDIA-SEQUENCE:4\n#EXTINF:x,\na.ts\n#EXTINF:1,\nb.ts", true, {"b.ts"}, {4}},
        {"untagged after end", "#EXTINF:1,\na.ts\n#EXT-X-ENDLIST\nb.ts\n", true, {"a.ts"}, {0}},
        {"CRLF endings", "#EXTINF:1,\r\na.ts\r\n", true, {"a.ts"}, {0}},
    };
    for (const Case &c : cases) {
        M3UTSPlaylist playlist = M3U8Parser().parse("u", c.text);
        EXPECT_EQ(playlist.valid, c.valid) << c.what;
        EXPECT_EQ(uris(playlist), c.uris) << c.what;
        for (size_t i = 0; i < c.sequences.size() && i < playlist.items.size(); ++i)
            EXPECT_EQ(playlist.items[i].sequence, c.sequences[i]) << c.what;
    }
    // A tag that keeps the tag kind leaves the URI a URI, with no duration.
    M3UTSPlaylist kept = M3U8Parser().parse("u", "#EXTINF:4,\n#EXT-X-VERSION:3\na.ts\n");
    ASSERT_EQ(kept.items.size(), 1u);
    EXPECT_EQ(kept.items[0].durationNs, 0u);
    // Without an end-of-list tag and segments every header field stays initial.
    M3UTSPlaylist bare = M3U8Parser().parse("u", "#EXT-X-TARGETDURATION:6\n#EXT-X-MEDIA-SEQUENCE:3\n");
    EXPECT_EQ(bare.targetDurationNs, 0u);
    EXPECT_EQ(bare.mediaSequence, 0u);
}

TEST(M3u8Parser, AssemblesVariantsAndLetsAttributesPersist)
{
    const std::string text = "#EXTM3U\n#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=800000,RESOLUTION=640x360\nlow.m3u8\n"
                             "#EXT-X-STREAM-INF:BANDWIDTH=1600000\nhigh.m3u8\n";
    MasterM3UPlaylist master = M3U8Parser().parseMaster("http://h/m.m3u8", text);
    EXPECT_TRUE(master.valid);
    EXPECT_EQ(master.url, "http://h/m.m3u8");
    ASSERT_EQ(master.playlists.size(), 2u);
    EXPECT_EQ(master.playlists[0].uri, "low.m3u8");
    EXPECT_EQ(master.playlists[1].uri, "high.m3u8");
    EXPECT_EQ(master.playlists[0].bandwidth, 800000u);
    EXPECT_EQ(master.playlists[1].bandwidth, 1600000u);
    EXPECT_EQ(master.playlists[1].resolution, "640x360"); // inherited
    EXPECT_EQ(master.playlists[1].programId, 1u);
    EXPECT_EQ(master.playlists[0].index, 0u);
    EXPECT_EQ(master.playlists[1].index, 1u);

    struct Case {
        std::string text;
        bool valid;
        size_t variants;
    } cases[] = {
        {"#EXTM3U\n#EXT-X-ENDLIST\n", true, 0},
        {"#EXTINF:1,\na.ts\n", false, 0},
        {"#EXTINF:1,\na.ts\n#EXT-X-ENDLIST", true, 0},
        {"#EXT-X-STREAM-INF:BANDWIDTH\nv.m3u8\n", false, 0}, // unreadable bandwidth drops the URI
        // Once a variant tag was read, a URI after a segment tag is a variant too.
        {"#EXT-X-STREAM-INF:BANDWIDTH=1\nv.m3u8\n#EXTINF:1,\na.ts\n", true, 2},
    };
    for (const Case &c : cases) {
        MasterM3UPlaylist m = M3U8Parser().parseMaster("u", c.text);
        EXPECT_EQ(m.valid, c.valid) << c.text;
        EXPECT_EQ(m.playlists.size(), c.variants) << c.text;
    }
}
