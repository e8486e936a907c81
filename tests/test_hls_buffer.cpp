#include <gtest/gtest.h>

#include <string>

#include "hls_buffer.h"
#include "torture.h"

namespace {

// A new buffer, made again when it found no memory in torture mode.
hls_buffer *new_buffer(uint32_t capacity)
{
    return torture_retry((hls_buffer *)nullptr, [capacity] { return hls_buffer_new(capacity); });
}

std::string contents(const hls_buffer *b)
{
    return std::string((const char *)b->data, b->size);
}

} // namespace

// Each row fills a new buffer with `filled` bytes, then appends `appended`
// bytes of a patterned source (none at all when `source` is false). A need
// beyond 32 bits is failed growth: only the free room is taken and the
// buffer ends exactly full, and only that many source bytes are read.
TEST(HlsBuffer, AppendGrowsInWholeStepsOrTakesOnlyTheRoomLeft)
{
    EXPECT_EQ(hls_buffer_new(0), nullptr);
    EXPECT_EQ(hls_buffer_append(nullptr, "abc", 3), 0u);
    struct Case { uint32_t capacity, filled, appended, taken, expect_capacity; bool source = true; } cases[] = {
        {65536, 65535, 2, 2, 131072},                       // one byte over: next step
        {65536, 65535, 1, 1, 65536},                        // exactly full: no growth
        {100, 0, 200, 200, 65536},                          // small block grows to the first step
        {65536, 0, 65536 * 2 + 1, 65536 * 2 + 1, 65536 * 3},
        {16, 0, 5, 0, 16, false},
        {16, 3, 0, 0, 16},
        {64, 60, 0xFFFFFFF0u, 4, 64},
        {64, 63, 0xFFFFFFF0u, 1, 64},
        {64, 64, 0xFFFFFFF0u, 0, 64},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.capacity) + "/" + std::to_string(c.filled) + "/" + std::to_string(c.appended));
        hls_buffer *b = new_buffer(c.capacity);
        ASSERT_NE(b, nullptr);
        std::string first(c.filled, '-'), second(std::min(c.appended, 200000u), ' ');
        for (size_t i = 0; i < second.size(); ++i)
            second[i] = (char)('a' + i % 23);
        ASSERT_EQ(hls_buffer_append(b, first.data(), c.filled), c.filled);
        const bool failed_before = torture_mode();
        uint32_t taken = hls_buffer_append(b, c.source ? second.data() : nullptr, c.appended);
        // In torture mode growth may fail: then the free room is taken.
        const bool growth_failed = !failed_before && torture_mode();
        EXPECT_EQ(taken, growth_failed ? c.capacity - c.filled : c.taken);
        EXPECT_EQ(b->capacity, growth_failed ? c.capacity : c.expect_capacity);
        EXPECT_EQ(contents(b), (first + second).substr(0, c.filled + taken));
        hls_buffer_free(b);
    }
    hls_buffer_free(nullptr);
}

TEST(HlsBuffer, ClearReusesBlockAndDupCopiesBytesAndCapacity)
{
    hls_buffer *b = new_buffer(100);
    ASSERT_NE(b, nullptr);
    for (const std::string text : {"", "hello"}) {
        hls_buffer_clear(b);
        hls_buffer_append(b, text.data(), (uint32_t)text.size());
        hls_buffer *copy = torture_retry((hls_buffer *)nullptr, [b] { return hls_buffer_dup(b); });
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(copy->data, b->data);
        EXPECT_EQ(copy->capacity, 100u);
        EXPECT_EQ(contents(copy), contents(b));
        hls_buffer_free(copy);
    }
    uint8_t *block = b->data;
    hls_buffer_clear(b);
    hls_buffer_append(b, "XY", 2);
    EXPECT_EQ(b->data, block);
    EXPECT_EQ(contents(b), "XY");
    EXPECT_EQ(hls_buffer_dup(nullptr), nullptr);
    hls_buffer_free(b);
    hls_buffer_clear(nullptr);
}
