// Many application threads sharing one connection: every caller gets its own reply.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "library_support.h"

namespace {

constexpr int kThreads = 16;
constexpr int kCallsPerThread = 200;

TEST(EciThreads, AsynchronousCallsFromManyThreadsAreCollectedByOne)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    constexpr int kSenders = 8;
    constexpr int kEach = 25;
    static char areas[kSenders][kEach][16];
    std::atomic<int> failures{0};
    std::atomic<int> finished{0};
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < kEach; ++i) {
                snprintf(areas[s][i], sizeof areas[s][i], "s%d-%d", s, i);
                EciParms parms = eciBlock(ECI_ASYNC, "ECHO", areas[s][i], sizeof areas[s][i]);
                if (ZEP_ECI_Execute(conn.token(), &parms) != 0) ++failures;
            }
            ++finished;
        });
    }
    // Collect while the senders are still sending, until every sent request is answered. Nothing is asserted
    // before the senders are joined: what goes wrong is noted and reported after.
    int collected = 0;
    std::vector<bool> seen(kSenders * kEach, false);
    std::vector<std::string> wrong;
    bool timedOut = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (finished.load() < kSenders || collected < kSenders * kEach - failures.load()) {
        if (std::chrono::steady_clock::now() > deadline) {
            timedOut = true;
            break;
        }
        char reply[16];
        EciParms parms = replyBlock(ECI_GET_REPLY, 0, reply, sizeof reply);
        const int rc = ZEP_ECI_Execute(conn.token(), &parms);
        if (rc == ECI_ERR_NO_REPLY) {
            std::this_thread::yield();
            continue;
        }
        ++collected;
        int s = -1, i = -1;
        if (rc != 0 || sscanf(reply, "s%d-%d", &s, &i) != 2 || s < 0 || s >= kSenders || i < 0 || i >= kEach ||
            seen[s * kEach + i]) {
            wrong.push_back("rc=" + std::to_string(rc) + " reply=" + std::string(reply, strnlen(reply, sizeof reply)));
            continue;
        }
        seen[s * kEach + i] = true;
    }
    for (std::thread& t : senders) t.join();
    EXPECT_FALSE(timedOut) << collected << " replies collected";
    EXPECT_EQ(0, failures.load());
    EXPECT_TRUE(wrong.empty()) << wrong.size() << " wrong replies, the first: " << wrong.front();
    EXPECT_EQ(kSenders * kEach, collected);
}

}  // namespace
