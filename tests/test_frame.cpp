// The library frame: version and level queries, correlators, SIGPIPE, and concurrent first calls.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "clapi_impl.h"
#include "test_support.h"
#include "trace_capture.h"
#include "zepclient.h"

// Both texts are the library's own storage, the same on every call; a NULL output pointer is refused with -109
// and one exception record naming it.
TEST(Versions, TextsAndNullOutputPointers)
{
    char *dll = nullptr, *api = nullptr, *again = nullptr;
    ASSERT_EQ(0, ZEP_getDLLVersion(&dll));
    ASSERT_EQ(0, ZEP_getAPIVersion(&api));
    EXPECT_STREQ("9.1.0.4", dll);
    EXPECT_STREQ("2.3.0.0", api);
    EXPECT_EQ(cldllVersion, dll);
    EXPECT_EQ(clapiVersion, api);
    ASSERT_EQ(0, ZEP_getDLLVersion(&again));
    EXPECT_EQ(dll, again);

    TraceCapture trace(3);
    const struct { int (*call)(); int excId; const char* exc; const char* exit; } cases[] = {
        {[] { return ZEP_getDLLVersion(nullptr); }, 1033, "API.ZEP_getDLLVersion() Supplied pointer is NULL, dllVersPtr=",
         "API.ZEP_getDLLVersion() rc=-109 (ZEP_ERR_NULLPTR)"},
        {[] { return ZEP_getAPIVersion(nullptr); }, 1030, "API.ZEP_getAPIVersion() Supplied pointer is NULL, apiVersPtr=",
         "API.ZEP_getAPIVersion() rc=-109 (ZEP_ERR_NULLPTR)"},
        {[] { return ZEP_getAPITraceLevel(nullptr); }, 1036,
         "API.ZEP_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=", "API.ZEP_getAPITraceLevel() rc=-109 (ZEP_ERR_NULLPTR)"},
    };
    for (const auto& c : cases) {
        trace.clear();
        EXPECT_EQ(ZEP_ERR_NULLPTR, c.call()) << c.exit;
        const std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(3u, records.size()) << c.exit;
        EXPECT_EQ(c.excId, records[1].id);
        EXPECT_EQ("*EXC*", records[1].type);
        EXPECT_EQ(c.exc + pointerText(nullptr), records[1].message);
        EXPECT_EQ(c.excId + 1, records[2].id);
        EXPECT_EQ(c.exit, records[2].message);
    }
}

// Correlators start at 1, skip 0 after the wrap, and concurrent callers never share one.
TEST(Correlators, StartAtOneSkipZeroAndAreNeverShared)
{
    ASSERT_EQ(0, clapiInit());
    EXPECT_EQ(1u, getNextCorrelator());
    EXPECT_EQ(2u, getNextCorrelator());
    nextCorrelator = 4294967295u;
    EXPECT_EQ(4294967295u, getNextCorrelator());
    EXPECT_EQ(1u, getNextCorrelator());

    const int threads = 4, perThread = 2000;
    std::vector<std::vector<uint32_t>> taken(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&taken, t] { for (int i = 0; i < perThread; ++i) taken[t].push_back(getNextCorrelator()); });
    for (std::thread& worker : workers) worker.join();
    std::vector<bool> seen(threads * perThread + 2, false);
    for (const std::vector<uint32_t>& values : taken)
        for (uint32_t value : values) {
            ASSERT_TRUE(value >= 2 && value < seen.size()) << value;
            EXPECT_FALSE(seen[value]) << value;
            seen[value] = true;
        }
}

// Many threads making the first call at once all see one finished initialisation, which also makes SIGPIPE
// harmless for the whole process: a write to a closed peer fails with EPIPE.
TEST(Frame, ConcurrentFirstCallsAndSigpipe)
{
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(0u, clapiState);
    const int threads = 8;
    std::atomic<int> ready{0};
    std::vector<int> results(threads, -1);
    std::vector<char*> versions(threads, nullptr);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (++ready; ready.load() < threads;) std::this_thread::yield();
            results[t] = ZEP_getAPIVersion(&versions[t]);
        });
    for (std::thread& worker : workers) worker.join();
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(0, results[t]) << t;
        EXPECT_STREQ("2.3.0.0", versions[t]) << t;
    }
    EXPECT_EQ(1u, clapiState);
    EXPECT_EQ(0, clapiInitRc);
    struct sigaction after;
    ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &after));
    EXPECT_EQ(SIG_IGN, after.sa_handler);
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    close(pair[1]);
    errno = 0;
    EXPECT_EQ(-1, write(pair[0], "x", 1));
    EXPECT_EQ(EPIPE, errno);
    close(pair[0]);
}
