#include <gtest/gtest.h>

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
