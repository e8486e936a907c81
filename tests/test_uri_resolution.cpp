#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "hls_m3u8.h"
#include "stderr_capture.h"

// An empty result is a failure, which logs the base as far as it was cut.
TEST(UriResolution, ResolvesByPrefixRootOrDocumentAndLogsAMissingSlash)
{
    const std::string base = "http://HOST:8080/live/ch1/index.m3u8";
    struct Case { std::string base, relative, result, logged = ""; } cases[] = {
        {base, "http://OTHER/x/seg7.ts", "http://OTHER/x/seg7.ts"},
        {base, "https://OTHER/seg7.ts", "https://OTHER/seg7.ts"},
        {base, "https-seg7.ts", "https-seg7.ts"},
        {base, "httpdocs/a.ts", "httpdocs/a.ts"},
        {base, "HTTP://OTHER/a.ts", "http://HOST:8080/live/ch1/HTTP://OTHER/a.ts"},
        {base, "htt", "http://HOST:8080/live/ch1/htt"},
        {base, "/media/seg7.ts", "http://HOST:8080/media/seg7.ts"},
        {"https://h/a/b.m3u8", "/s.ts", "https://h/s.ts"},
        {"http://h/a.m3u8", "/s.ts", "http://h/s.ts"}, // the slash after a one-letter host is index 8
        {base, "seg7.ts", "http://HOST:8080/live/ch1/seg7.ts"},
        {base, "../ch2/seg7.ts", "http://HOST:8080/live/ch2/seg7.ts"},
        {base, "../../seg7.ts", "http://HOST:8080/seg7.ts"},
        {base, "./seg7.ts", "http://HOST:8080/live/ch1/./seg7.ts"},
        {base, "hd/../seg7.ts", "http://HOST:8080/live/ch1/hd/../seg7.ts"},
        {base, "../", "http://HOST:8080/live/"},
        {base, "..", "http://HOST:8080/live/ch1/.."},
        {base, "../..", "http://HOST:8080/live/.."},
        {"http://HOST/live/index.m3u8?k=a/b", "seg7.ts", "http://HOST/live/index.m3u8?k=a/seg7.ts"},
        {"http://HOST", "seg7.ts", "http://seg7.ts"},
        {"http://HOST/a.m3u8", "../../x.ts", "http:/x.ts"}, // cuts run into the scheme
        {base, "", "http://HOST:8080/live/ch1/"},
        {"http://HOST", "/seg7.ts", "", "http://HOST"},
        {"http://HOST/index.m3u8", "../../../../x.ts", "", "http:"},
        {"index.m3u8", "seg7.ts", "", "index.m3u8"},
        {"", "/a.ts", "", ""},
        {"", "a.ts", "", ""},
    };
    for (const Case &c : cases) {
        StderrCapture capture;
        EXPECT_EQ(get_absolute_path(c.base, c.relative), c.result) << c.base << " + " << c.relative;
        std::string log = capture.text();
        if (c.result.empty()) {
            EXPECT_TRUE(capture.contains(", get_absolute_path>: Not Found '/' from " + c.logged + "\n\033[0m")) << log;
        }
        EXPECT_EQ(capture.count("\033[1;31m<ERROR! "), c.result.empty() ? 1u : 0u) << log;
    }
}

TEST(HlsVariantUrl, JoinsAfterLastSlashOrTakesAbsoluteUriWithinTheField)
{
    const std::string dir = "http://h/" + std::string(390, 'd') + "/", live = "http://h:1/live/index.m3u8";
    const std::string long_uri(300, 'u'), long_abs = "http://o/" + std::string(600, 'a');
    struct Case {
        std::string base, uri, expect;
        int32_t result;
    } cases[] = {
        {live, "video/720p.m3u8", "http://h:1/live/video/720p.m3u8", 1},
        {live, "http://o/x/a.m3u8", "http://o/x/a.m3u8", 1},
        {live, "https://o/a.m3u8", "https://o/a.m3u8", 1},
        {live, "httpdocs/a.m3u8", "httpdocs/a.m3u8", 1},
        {live, "HTTP://o/a.m3u8", "http://h:1/live/HTTP://o/a.m3u8", 1},
        {live, "/top/a.m3u8", "http://h:1/live//top/a.m3u8", 1},
        {live, "../a.m3u8", "http://h:1/live/../a.m3u8", 1},
        {live + "?k=a/b", "v.m3u8", "http://h:1/live/index.m3u8?k=a/v.m3u8", 1},
        {live + "?k=1", "v.m3u8", "http://h:1/live/v.m3u8", 1},
        {"http://h:1/live/", "v.m3u8", "http://h:1/live/v.m3u8", 1},
        {"index.m3u8", "v.m3u8", "index.m3u8", 0},
        // Long results are cut at 511 characters, never written past 512.
        {dir + "index.m3u8", long_uri, (dir + long_uri).substr(0, 511), 1},
        {dir + "index.m3u8", std::string(111, 'u'), dir + std::string(111, 'u'), 1}, // exactly 511
        {dir + "index.m3u8", long_abs, long_abs.substr(0, 511), 1},
        {std::string(510, 'p') + "/", "v.m3u8", std::string(510, 'p') + "/", 1}, // no room left at all
    };
    for (const Case &c : cases) {
        struct {
            char before[16], url[512], after[16];
        } g;
        memset(&g, 0x5a, sizeof(g));
        memcpy(g.url, c.base.c_str(), c.base.size() + 1);
        EXPECT_EQ(hls_variant_url(g.url, c.uri.c_str()), c.result) << c.base << " + " << c.uri;
        EXPECT_EQ(std::string(g.url, strnlen(g.url, sizeof(g.url))), c.expect) << c.base << " + " << c.uri;
        EXPECT_EQ(std::string(g.before, 16) + std::string(g.after, 16), std::string(32, 0x5a)) << c.base << " + " << c.uri;
    }
}
