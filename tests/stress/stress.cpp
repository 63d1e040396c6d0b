// Load against zepgw answering out of order: many callers on one connection, many asynchronous requests
// outstanding, many opens and closes. Run by .ci/run; ZEP_STRESS_SCALE (default 1) scales the counts.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "library_support.h"

namespace {

int scaled(int count)
{
    const char* scale = getenv("ZEP_STRESS_SCALE");
    return std::max(1, static_cast<int>(count * (scale != nullptr ? atof(scale) : 1.0)));
}

class Stress : public ::testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_EQ(0, ZEP_closeGatewayConnection(gc_.tokenPtr()));
        EXPECT_TRUE(gc_.zepgw().stop());
    }
    GatewayConnection gc_{{"--jitter", "2"}};
    GatewayToken* tok_ = gc_.token();
};

// Every tenth call abends; the others come back reversed. Each caller checks only what is its own; only the
// first failure of all callers is reported.
void callerLoop(GatewayToken* tok, int thread, int calls, std::atomic<int>* failures)
{
    for (int i = 0; i < calls; ++i) {
        const std::string text = "thread " + std::to_string(thread) + " call " + std::to_string(i);
        char area[32];
        memcpy(area, text.data(), text.size());
        const bool abend = i % 10 == 0;
        EciParms parms = eciBlock(ECI_SYNC, abend ? "ABEND" : "REVERSE", area, static_cast<int>(text.size()));
        const int rc = ZEP_ECI_Execute(tok, &parms);
        const std::string expected = abend ? text : std::string(text.rbegin(), text.rend());
        const bool ok = rc == (abend ? ECI_ERR_TRANSACTION_ABEND : 0) && std::string(area, text.size()) == expected &&
                        memcmp(parms.eci_abend_code, abend ? "ZA01" : "    ", 4) == 0;
        if (!ok && (*failures)++ == 0)
            ADD_FAILURE() << text << ": rc " << rc << ", data " << std::string(area, text.size());
    }
}

TEST_F(Stress, SixtyFourCallersShareOneConnection)
{
    const int threads = 64, calls = scaled(10000);
    std::atomic<int> failures{0};
    auto start = Clock::now();
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) callers.emplace_back(callerLoop, tok_, t, calls, &failures);
    for (std::thread& caller : callers) caller.join();
    double seconds = secondsSince(start);
    printf("stress: %d threads x %d synchronous calls in %.1f s: %.0f calls/s\n", threads, calls, seconds,
           threads * calls / seconds);
    EXPECT_EQ(0, failures.load());
}

TEST_F(Stress, FiveHundredAsynchronousRequestsCollectedByQualifierInRandomOrder)
{
    const int requests = 500;
    auto start = Clock::now();
    std::vector<std::pair<uint32_t, std::string>> sent;
    for (int i = 0; i < requests; ++i) {
        char area[16];
        int length = snprintf(area, sizeof area, "async %05d", i);
        EciParms parms = eciBlock(ECI_ASYNC, "REVERSE", area, length);
        ASSERT_EQ(0, ZEP_ECI_Execute(tok_, &parms)) << i;
        sent.emplace_back(parms.eci_message_qualifier, std::string(std::make_reverse_iterator(area + length),
                                                                   std::make_reverse_iterator(area)));
    }
    double sending = secondsSince(start);
    std::shuffle(sent.begin(), sent.end(), std::mt19937(std::random_device{}()));
    for (const auto& [qualifier, expected] : sent) {
        char area[16] = {0};
        EciParms parms = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, qualifier, area, sizeof area);
        ASSERT_EQ(0, ZEP_ECI_Execute(tok_, &parms)) << qualifier;
        ASSERT_EQ(expected, std::string(area, expected.size())) << qualifier;
    }
    char area[16];
    EciParms none = replyBlock(ECI_GET_REPLY, 0, area, sizeof area);
    EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(tok_, &none));
    printf("stress: %d asynchronous requests sent in %.3f s, all collected in %.3f s\n", requests, sending,
           secondsSince(start));
}

int entriesOf(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

TEST_F(Stress, OpenAndCloseLeaveNoDescriptorOrThread)
{
    const int cycles = scaled(1000);
    const auto counts = [] { return std::make_pair(entriesOf("/proc/self/fd"), entriesOf("/proc/self/task")); };
    const std::pair<int, int> before = counts();
    auto start = Clock::now();
    for (int i = 0; i < cycles; ++i) {
        GatewayToken* tok = nullptr;
        ASSERT_EQ(0, openGateway(gc_.zepgw(), &tok)) << i;
        char area[8] = "cycle";
        ASSERT_EQ(0, callProgram(tok, "UPPER", area, sizeof area)) << i;
        ASSERT_EQ(0, ZEP_closeGatewayConnection(&tok)) << i;
    }
    double seconds = secondsSince(start);
    // The receiver thread signals its end just before it returns; give its exit a moment to show.
    pollUntil([&] { return counts() == before; });
    EXPECT_EQ(before, counts()) << "descriptors and threads";
    printf("stress: %d open/call/close cycles in %.1f s (%.1f ms each); %d descriptors and %d threads before and "
           "after\n", cycles, seconds, 1000 * seconds / cycles, before.first, before.second);
}

}  // namespace
