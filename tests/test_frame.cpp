// The library frame: correlators and concurrent first calls. (That the library makes SIGPIPE harmless shows
// wherever a send meets a connection that has ended.)
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "clapi_impl.h"
#include "zepclient.h"

// Many threads making the first call at once all see one finished initialisation. Correlators then start at 1
// and skip 0 after the wrap. (Concurrent callers of the correlator are ThreadSanitizer's to watch: every suite
// that calls from many threads takes correlators concurrently.)
TEST(Frame, ConcurrentFirstCallsThenCorrelatorsFromOne)
{
    ASSERT_EQ(0u, clapiState);
    const int threads = 8;
    std::atomic<int> ready{0};
    std::vector<std::future<std::string>> calls;
    for (int t = 0; t < threads; ++t)
        calls.push_back(std::async(std::launch::async, [&] {
            for (++ready; ready.load() < threads;) std::this_thread::yield();
            char* version = nullptr;
            const int rc = ZEP_getAPIVersion(&version);
            return std::to_string(rc) + " " + (version != nullptr ? version : "NULL");
        }));
    for (auto& call : calls) EXPECT_EQ("0 2.3.0.0", call.get());
    EXPECT_EQ(1u, clapiState);
    EXPECT_EQ(0, clapiInitRc);
    EXPECT_EQ(1u, getNextCorrelator());
    EXPECT_EQ(2u, getNextCorrelator());
    nextCorrelator = 4294967295u;
    EXPECT_EQ(4294967295u, getNextCorrelator());
    EXPECT_EQ(1u, getNextCorrelator());
}
