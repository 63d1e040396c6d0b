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

#include "eci_test_support.h"

namespace {

constexpr int kThreads = 16;
constexpr int kCallsPerThread = 200;

// One thread's calls; returns the number of replies that were wrong.
int callMany(GatewayToken* tok, int thread)
{
    int wrong = 0;
    for (int call = 0; call < kCallsPerThread; ++call) {
        char area[48];
        memset(area, 0, sizeof area);
        const int length = snprintf(area, sizeof area, "thread %02d call %03d payload", thread, call);
        const bool reverse = call % 2 == 1;
        EciParms parms = eciBlock(ECI_SYNC, reverse ? "REVERSE" : "UPPER", area, length);
        if (ZEP_ECI_Execute(tok, &parms) != 0) {
            ++wrong;
            continue;
        }
        char expected[48];
        memset(expected, 0, sizeof expected);
        snprintf(expected, sizeof expected, reverse ? "thread %02d call %03d payload" : "THREAD %02d CALL %03d PAYLOAD",
                 thread, call);
        if (reverse) std::reverse(expected, expected + length);
        if (memcmp(expected, area, sizeof area) != 0) ++wrong;
    }
    return wrong;
}

TEST(EciThreads, SixteenThreadsShareOneConnection)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&wrong, &conn, t] { wrong += callMany(conn.token(), t); });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, wrong.load());

    // Every slot went back: the next call takes slot 1 again, seen as the qualifier of an asynchronous call.
    char area[8] = "last";
    EciParms async = eciBlock(ECI_ASYNC, "ECHO", area, sizeof area);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &async));
    EXPECT_EQ(1u, copyOf(async.eci_message_qualifier));
    EciParms collect = replyBlock(ECI_GET_REPLY_WAIT, 0, area, sizeof area);
    EXPECT_EQ(0, ZEP_ECI_Execute(conn.token(), &collect));
}

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
