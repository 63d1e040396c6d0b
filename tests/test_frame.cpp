// The library frame: version and level queries, correlators, SIGPIPE, and concurrent first calls.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "clapi_impl.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

std::string withPointer(const char* fmt, const void* pointer) {
    char text[160];
    snprintf(text, sizeof text, fmt, pointer);
    return text;
}

}  // namespace

TEST(Versions, TextsAndTheSamePointerOnEveryCall) {
    char* dll = nullptr;
    char* dllAgain = nullptr;
    char* api = nullptr;
    char* apiAgain = nullptr;
    ASSERT_EQ(0, ZEP_getDLLVersion(&dll));
    ASSERT_EQ(0, ZEP_getDLLVersion(&dllAgain));
    ASSERT_EQ(0, ZEP_getAPIVersion(&api));
    ASSERT_EQ(0, ZEP_getAPIVersion(&apiAgain));
    EXPECT_STREQ("9.1.0.4", dll);
    EXPECT_STREQ("2.3.0.0", api);
    EXPECT_EQ(dll, dllAgain);
    EXPECT_EQ(api, apiAgain);
    EXPECT_EQ(cldllVersion, dll);   // the library's own storage, not a copy
    EXPECT_EQ(clapiVersion, api);
}

// A NULL output pointer is refused with -109 and one exception record naming it.
TEST(Versions, NullOutputPointers) {
    TraceCapture trace(3);
    struct Case {
        const char* name;
        int (*call)();
        int excId, exitId;
        const char* exc;
        const char* exit;
    };
    const Case cases[] = {
        {"dll", [] { return ZEP_getDLLVersion(nullptr); }, 1033, 1034,
         "API.ZEP_getDLLVersion() Supplied pointer is NULL, dllVersPtr=%p",
         "API.ZEP_getDLLVersion() rc=-109 (ZEP_ERR_NULLPTR)"},
        {"api", [] { return ZEP_getAPIVersion(nullptr); }, 1030, 1031,
         "API.ZEP_getAPIVersion() Supplied pointer is NULL, apiVersPtr=%p",
         "API.ZEP_getAPIVersion() rc=-109 (ZEP_ERR_NULLPTR)"},
        {"level", [] { return ZEP_getAPITraceLevel(nullptr); }, 1036, 1037,
         "API.ZEP_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=%p",
         "API.ZEP_getAPITraceLevel() rc=-109 (ZEP_ERR_NULLPTR)"},
    };
    for (const Case& c : cases) {
        trace.clear();
        EXPECT_EQ(ZEP_ERR_NULLPTR, c.call()) << c.name;
        std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(3u, records.size()) << c.name;
        EXPECT_EQ(c.excId, records[1].id);
        EXPECT_EQ("*EXC*", records[1].type);
        EXPECT_EQ(withPointer(c.exc, nullptr), records[1].message);
        EXPECT_EQ(c.exitId, records[2].id);
        EXPECT_EQ(c.exit, records[2].message);
    }
}

TEST(Correlators, StartAtOneAndSkipZeroAfterTheWrap) {
    ASSERT_EQ(0, clapiInit());
    EXPECT_EQ(1u, getNextCorrelator());
    EXPECT_EQ(2u, getNextCorrelator());
    EXPECT_EQ(3u, nextCorrelator);

    nextCorrelator = 4294967295u;
    EXPECT_EQ(4294967295u, getNextCorrelator());
    EXPECT_EQ(1u, getNextCorrelator());
    EXPECT_EQ(2u, getNextCorrelator());
}

TEST(Correlators, ConcurrentCallersNeverShareAValue) {
    ASSERT_EQ(0, clapiInit());
    const int threads = 4, perThread = 2000;
    std::vector<std::vector<uint32_t>> taken(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&taken, t] {
            for (int i = 0; i < perThread; ++i) taken[t].push_back(getNextCorrelator());
        });
    for (std::thread& worker : workers) worker.join();
    std::vector<bool> seen(threads * perThread + 1, false);
    for (const std::vector<uint32_t>& values : taken)
        for (uint32_t value : values) {
            ASSERT_GE(value, 1u);
            ASSERT_LE(value, static_cast<uint32_t>(threads * perThread));
            EXPECT_FALSE(seen[value]) << value;
            seen[value] = true;
        }
}

// The first call makes SIGPIPE harmless for the whole process: a write to a closed peer fails with EPIPE.
TEST(Frame, SigpipeIsIgnoredAfterTheFirstCall) {
    signal(SIGPIPE, SIG_DFL);   // whatever the test runner handed down

    char* version = nullptr;
    ASSERT_EQ(0, ZEP_getDLLVersion(&version));
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

// Many threads making the first call at once all see one finished initialisation.
TEST(Frame, ConcurrentFirstCalls) {
    ASSERT_EQ(0u, clapiState);
    const int threads = 8;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<int> results(threads, -1);
    std::vector<char*> versions(threads, nullptr);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            ++ready;
            while (!go.load()) std::this_thread::yield();
            results[t] = ZEP_getAPIVersion(&versions[t]);
        });
    while (ready.load() < threads) std::this_thread::yield();
    go = true;
    for (std::thread& worker : workers) worker.join();

    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(0, results[t]) << t;
        ASSERT_NE(nullptr, versions[t]) << t;
        EXPECT_STREQ("2.3.0.0", versions[t]) << t;
    }
    EXPECT_EQ(1u, clapiState);
    EXPECT_EQ(0, clapiInitRc);
    EXPECT_EQ(0, clapiInit());
}
