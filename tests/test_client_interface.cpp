// The four exported calls: argument checks in their order, every result code,
// slot occupancy, and closing channels on disconnect and tear-down.
#include <sys/mman.h>
#include <sys/resource.h>

#include "channel_stream.h"

namespace {

// Answers every path with a page the library does not play: the download
// thread probes once, writes "Not Supported" and ends, keeping its slot.
Reply page(int) { return Reply{"<html></html>", "text/html"}; }

class ConnectTest : public ClientTest {};

TEST_F(ConnectTest, ArgumentsAreCheckedInOrderAndSlotsStayTakenUntilDisconnected)
{
    StderrCapture err;
    Site pages(page);
    const std::string base = pages.url("/");
    hls_connect_param good = make_param(base + "ok");
    std::string long_url = base + std::string(511 - base.size(), 'u');

    struct Case {
        const char *what;
        int32_t channel;
        std::function<void(hls_connect_param &)> edit;
        bool null_param;
        int32_t expect;
    } cases[] = {
        {"channel -1", -1, nullptr, false, -2},
        {"channel == count", kChannels, nullptr, false, -2},
        {"channel -1 with null param", -1, nullptr, true, -2},
        {"null param", 0, nullptr, true, -2},
        {"no NUL in 512", 0, [](hls_connect_param &p) { memset(p.url, 'a', sizeof(p.url)); }, false, -2},
        {"empty url", 0, [](hls_connect_param &p) { p.url[0] = '\0'; }, false, -2},
        {"connect_timeout 0", 0, [](hls_connect_param &p) { p.connect_timeout = 0; }, false, -2},
        {"connect_timeout 31", 0, [](hls_connect_param &p) { p.connect_timeout = 31; }, false, -2},
        {"connect_timeout -5", 0, [](hls_connect_param &p) { p.connect_timeout = -5; }, false, -2},
        {"channel == count, bad url", kChannels, [](hls_connect_param &p) { p.url[0] = '\0'; }, false, -2},
        {"511 characters", 0, [&](hls_connect_param &p) { memcpy(p.url, long_url.c_str(), 512); }, false, 0},
        {"connect_timeout 1", 1, [](hls_connect_param &p) { p.connect_timeout = 1; }, false, 0},
        {"connect_timeout 30, timeout unchecked", 2, [](hls_connect_param &p) { p.connect_timeout = 30, p.timeout = -7; },
         false, 0},
        {"last channel", kChannels - 1, nullptr, false, 0},
        // An occupied slot is only found after every argument check passed.
        {"occupied, bad url", 0, [](hls_connect_param &p) { p.url[0] = '\0'; }, false, -2},
        {"occupied, bad timeout", 0, [](hls_connect_param &p) { p.connect_timeout = 0; }, false, -2},
        {"occupied", 0, nullptr, false, -5},
    };
    for (const Case &c : cases) {
        hls_connect_param param = good;
        if (c.edit)
            c.edit(param);
        EXPECT_EQ(hls_client_connect(c.channel, c.null_param ? nullptr : &param), c.expect) << c.what;
    }
    // The 511-character URL was fetched as given, not cut.
    EXPECT_TRUE(test_host::wait_for([&] { return pages.hits(long_url.substr(base.size() - 1)) == 1; }, 5s));
    EXPECT_EQ(hls_client_disconnect(-1), -2);
    EXPECT_EQ(hls_client_disconnect(kChannels), -2);

    // Streams that ended by themselves keep their slots until disconnected;
    // the channel then connects again. None of them reports to the host.
    ASSERT_TRUE(test_host::wait_for([&] { return err.count("Not Supported Content-Type[text/html]") == 4; }, 5s));
    EXPECT_EQ(hls_client_connect(1, &good), -5);
    EXPECT_EQ(hls_client_disconnect(1), 0);
    EXPECT_EQ(hls_client_disconnect(1), 0); // already free
    EXPECT_EQ(hls_client_disconnect(3), 0); // never connected
    EXPECT_EQ(hls_client_connect(1, &good), 0);
    EXPECT_TRUE(test_host::wait_for([&] { return err.count("Not Supported Content-Type[text/html]") == 5; }, 5s));
    EXPECT_EQ(pages.hits("/ok"), 4u);
    EXPECT_EQ(test_host::events().size(), 0u);
}

std::atomic<int> g_foreign_calls{0};
int32_t foreign_frame(int32_t, frame_info *, uint8_t *) { return ++g_foreign_calls; }
void foreign_status(int32_t, int32_t) { ++g_foreign_calls; }

// Calls before init, after a refused init and after destroy give -3.
TEST(ClientInterface, CallsBeforeInitAfterDestroyOrAfterRefusedInitGiveNotInitialised)
{
    hls_connect_param param = make_param("http://127.0.0.1:1/");
    auto refused = [&](const char *when) {
        EXPECT_EQ(hls_client_connect(0, &param), -3) << when;
        EXPECT_EQ(hls_client_connect(-1, nullptr), -3) << when; // wins over bad arguments
        EXPECT_EQ(hls_client_disconnect(0), -3) << when;
    };
    EXPECT_EQ(hls_client_destroy(), 0);
    refused("never initialised");
    struct Case { int32_t channels; hls_frame_cb frame; hls_status_cb status; } bad[] = {
        {0, test_host::frame_cb, test_host::status_cb},  {-1, test_host::frame_cb, test_host::status_cb},
        {INT32_MIN, test_host::frame_cb, test_host::status_cb}, {1, nullptr, test_host::status_cb},
        {1, test_host::frame_cb, nullptr},
    };
    for (const Case &c : bad) {
        EXPECT_EQ(hls_client_init(c.channels, c.frame, c.status, "/tmp"), -2) << c.channels;
        refused("after a refused init");
    }
    ASSERT_EQ(init_client(1), 0);
    EXPECT_EQ(hls_client_destroy(), 0);
    refused("after destroy");
}

// A second init is refused; destroy closes every channel, and init works again.
TEST(ClientInterface, SecondInitIsRefusedAndDestroyClosesEveryChannel)
{
    test_host::reset();
    Site site;
    site.on("/ts", Reply{ts_sync_prefix(), "video/MP2T", 200, 0, SIZE_MAX});
    hls_connect_param param = make_param(site.url("/ts"));
    ASSERT_EQ(hls_client_init(3, test_host::frame_cb, test_host::status_cb, nullptr), 0);
    EXPECT_EQ(hls_client_init(8, foreign_frame, foreign_status, "/tmp"), -2);
    EXPECT_EQ(hls_client_connect(3, &param), -2); // the channel count is still 3
    for (int32_t channel = 0; channel < 3; ++channel)
        ASSERT_EQ(hls_client_connect(channel, &param), 0);
    ASSERT_TRUE(test_host::wait_for(
        [] { return test_host::frame_count(0) >= 2 && test_host::frame_count(1) >= 2 && test_host::frame_count(2) >= 2; }, 5s));

    EXPECT_EQ(hls_client_destroy(), 0);
    // Every thread was joined before destroy returned: each stream reported
    // its end and its demultiplexer was released, and nothing comes later.
    for (int32_t channel = 0; channel < 3; ++channel)
        EXPECT_EQ(test_host::status_count(channel, HLS_STREAM_STOPPED), 1u) << channel;
    EXPECT_EQ(test_host::events(HostEvent::DemuxFree).size(), 3u);
    size_t events_at_destroy = test_host::events().size();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(test_host::events().size(), events_at_destroy);
    EXPECT_EQ(g_foreign_calls.load(), 0);

    ASSERT_EQ(hls_client_init(1, test_host::frame_cb, test_host::status_cb, nullptr), 0);
    EXPECT_EQ(hls_client_connect(0, &param), 0);
    EXPECT_TRUE(test_host::wait_for([] { return test_host::status_count(0, HLS_STREAM_STARTED) == 2; }, 5s));
    EXPECT_EQ(hls_client_destroy(), 0);
    EXPECT_EQ(test_host::status_count(0, HLS_STREAM_STOPPED), 2u);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Inaccessible reservations that stand in for the address-space limit where
// setting it does not take: an emulator (qemu-user) keeps that limit to
// itself, but gives the program an address space of its own to fill.
std::vector<std::pair<void *, size_t>> g_reserved;

// Reserves every free range, largest pieces first, then gives `headroom`
// bytes back in one piece.
void reserve_all_but(size_t headroom)
{
    g_reserved.reserve(4096); // no allocation once the space is full
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    for (size_t size = SIZE_MAX / 4 + 1; size >= page && g_reserved.size() < g_reserved.capacity();) {
        void *p = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED)
            size /= 2;
        else
            g_reserved.emplace_back(p, size);
    }
    for (auto &r : g_reserved) {
        size_t back = std::min(headroom, r.second);
        munmap(r.first, back);
        r.first = (char *)r.first + back;
        r.second -= back;
        headroom -= back;
    }
}

// Caps this process's address space `headroom` bytes above what it maps now,
// so that the next large mapping (a thread stack, a huge table) fails; a
// headroom of 0 lifts the cap.
void cap_address_space(size_t headroom)
{
    for (const auto &r : g_reserved)
        if (r.second)
            munmap(r.first, r.second);
    g_reserved.clear();
    unsigned long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = headroom ? pages * (rlim_t)sysconf(_SC_PAGESIZE) + headroom : limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
    rlimit now{};
    if (headroom && (getrlimit(RLIMIT_AS, &now) != 0 || now.rlim_cur != limit.rlim_cur))
        reserve_all_but(headroom);
}

// Runs in a child process; exits with the number of the first step that did
// not give the expected result, 0 when all did.
[[noreturn]] void exhaust_memory_then_recover()
{
    hls_connect_param param = make_param("http://127.0.0.1:1/"); // refused: the thread keeps probing
    int step = 0;
    auto expect = [&](int32_t got, int32_t want) {
        if (++step && got != want) {
            fprintf(stderr, "step %d: got %d, want %d\n", step, got, want);
            _exit(step);
        }
    };
    // No room for a table of INT32_MAX slots: initialised, but without slots.
    cap_address_space(64u << 20);
    expect(hls_client_init(INT32_MAX, test_host::frame_cb, test_host::status_cb, "/tmp"), -15);
    expect(hls_client_connect(0, &param), -3);
    expect(hls_client_disconnect(0), -3);
    expect(hls_client_init(1, test_host::frame_cb, test_host::status_cb, nullptr), -2);
    expect(hls_client_destroy(), 0);
    cap_address_space(0);
    // No room for a download thread's stack: -6 and the slot stays free.
    expect(hls_client_init(2, test_host::frame_cb, test_host::status_cb, nullptr), 0);
    cap_address_space(1u << 20);
    expect(hls_client_connect(1, &param), -6);
    cap_address_space(0);
    expect(hls_client_connect(1, &param), 0);
    expect(hls_client_destroy(), 0);
    fprintf(stderr, "all steps passed\n");
    _exit(0);
}

TEST(ClientInterfaceDeathTest, ExhaustedMemoryGivesFifteenAndSixAndLeavesNothingBehind)
{
#ifdef HLS_TEST_EMULATOR
    // The emulator cannot start a target program again (threadsafe death
    // tests re-execute the test binary); the child is a plain fork instead,
    // and this test's process has no other thread at this point.
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    EXPECT_EXIT(exhaust_memory_then_recover(), ::testing::ExitedWithCode(0),
                "hls_init_all_channel>: out of memory(.|\n)*all steps passed");
}
#endif

} // namespace
