#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "hls_buffer.h"
#include "torture.h"

namespace {

// A new buffer, made again when it found no memory in torture mode.
hls_buffer *new_buffer(uint32_t capacity)
{
    return torture_retry((hls_buffer *)nullptr, [capacity] { return hls_buffer_new(capacity); });
}

} // namespace

TEST(HlsBuffer, GrowsInWholeStepsOnlyWhenNeeded)
{
    EXPECT_EQ(hls_buffer_new(0), nullptr);

    struct Case { uint32_t capacity, filled, appended, expect_capacity; } cases[] = {
        {65536, 65535, 2, 131072}, // one byte over: next step
        {65536, 65535, 1, 65536},  // exactly full: no growth
        {100, 0, 200, 65536},      // small block grows to the first step
        {65536, 0, 65536 * 2 + 1, 65536 * 3},
    };
    for (const Case &c : cases) {
        hls_buffer *b = new_buffer(c.capacity);
        ASSERT_NE(b, nullptr);
        std::string first(c.filled, 'a'), second(c.appended, 'b');
        EXPECT_EQ(hls_buffer_append(b, first.data(), c.filled), c.filled);
        const bool failed_before = torture_mode();
        uint32_t taken = hls_buffer_append(b, second.data(), c.appended);
        if (!failed_before && torture_mode()) {
            // Growth failed: the free room was taken and the buffer is full,
            // its earlier bytes intact.
            EXPECT_EQ(taken, c.capacity - c.filled);
            EXPECT_EQ(b->size, c.capacity);
            EXPECT_EQ(std::string((const char *)b->data, b->size), (first + second).substr(0, c.capacity));
            hls_buffer_free(b);
            continue;
        }
        EXPECT_EQ(taken, c.appended);
        EXPECT_EQ(b->capacity, c.expect_capacity) << c.capacity << "/" << c.filled << "/" << c.appended;
        ASSERT_EQ(b->size, c.filled + c.appended);
        EXPECT_EQ(std::string((const char *)b->data, b->size), first + second);
        hls_buffer_free(b);
    }
}

TEST(HlsBuffer, NullAndEmptyAppendsChangeNothing)
{
    hls_buffer *b = new_buffer(16);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(hls_buffer_append(b, nullptr, 5), 0u);
    EXPECT_EQ(hls_buffer_append(b, "abc", 0), 0u);
    EXPECT_EQ(hls_buffer_append(nullptr, "abc", 3), 0u);
    EXPECT_EQ(b->size, 0u);
    EXPECT_EQ(b->capacity, 16u);
    hls_buffer_free(b);
    hls_buffer_free(nullptr);
}

TEST(HlsBuffer, NeedBeyondThirtyTwoBitsIsFailedGrowthWithShortCount)
{
    // A count so large that the needed capacity cannot be held in 32 bits:
    // only the free room is taken and the buffer ends exactly full. Only the
    // first `room` bytes of the source are ever read.
    hls_buffer *b = new_buffer(64);
    ASSERT_NE(b, nullptr);
    std::string head(60, 'h');
    ASSERT_EQ(hls_buffer_append(b, head.data(), 60), 60u);
    const char tail[8] = {'1', '2', '3', '4', '5', '6', '7', '8'};
    EXPECT_EQ(hls_buffer_append(b, tail, 0xFFFFFFF0u), 4u);
    EXPECT_EQ(b->size, 64u);
    EXPECT_EQ(b->capacity, 64u);
    EXPECT_EQ(std::string((const char *)b->data, 64), head + "1234");
    // Full buffer: nothing more fits.
    EXPECT_EQ(hls_buffer_append(b, tail, 0xFFFFFFF0u), 0u);
    hls_buffer_free(b);
}

TEST(HlsBuffer, ClearReusesBlockAndDupCopiesBytesAndCapacity)
{
    hls_buffer *b = new_buffer(100);
    ASSERT_NE(b, nullptr);
    hls_buffer *empty_copy = torture_retry((hls_buffer *)nullptr, [b] { return hls_buffer_dup(b); });
    ASSERT_NE(empty_copy, nullptr);
    EXPECT_EQ(empty_copy->size, 0u);
    EXPECT_EQ(empty_copy->capacity, 100u);
    hls_buffer_free(empty_copy);

    hls_buffer_append(b, "hello", 5);
    uint8_t *block = b->data;
    hls_buffer_clear(b);
    EXPECT_EQ(b->size, 0u);
    hls_buffer_append(b, "XY", 2);
    EXPECT_EQ(b->data, block);
    EXPECT_EQ(memcmp(b->data, "XY", 2), 0);

    hls_buffer *copy = torture_retry((hls_buffer *)nullptr, [b] { return hls_buffer_dup(b); });
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->data, b->data);
    EXPECT_EQ(copy->capacity, 100u);
    EXPECT_EQ(std::string((const char *)copy->data, copy->size), "XY");
    EXPECT_EQ(hls_buffer_dup(nullptr), nullptr);
    hls_buffer_free(copy);
    hls_buffer_free(b);
    hls_buffer_clear(nullptr);
}
