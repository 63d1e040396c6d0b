// The library frame: correlators, SIGPIPE, and concurrent first calls.
#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "clapi_impl.h"
#include "zepclient.h"

// Correlators start at 1 and skip 0 after the wrap. (Concurrent callers are ThreadSanitizer's to watch: every
// suite that calls from many threads takes correlators concurrently.)
TEST(Correlators, StartAtOneAndSkipZero)
{
    ASSERT_EQ(0, clapiInit());
    EXPECT_EQ(1u, getNextCorrelator());
    EXPECT_EQ(2u, getNextCorrelator());
    nextCorrelator = 4294967295u;
    EXPECT_EQ(4294967295u, getNextCorrelator());
    EXPECT_EQ(1u, getNextCorrelator());
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
