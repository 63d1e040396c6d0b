// Locks that know whether they live, and manual-reset events.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "library_support.h"

namespace {

// A destroyed or never initialised lock is refused before its mutex is touched, with one record each.
TEST(Locks, DeadLocksAreRefused)
{
    TraceCapture trace(1);
    ClapiLock destroyed = {}, never = {};
    ASSERT_EQ(0, clapiInitializeLock(&destroyed));
    ASSERT_EQ(0, clapiDestroyLock(&destroyed));
    const struct { int (*operation)(ClapiLock*); int id; const char* name; } cases[] = {
        {clapiRequestLock, 3104, "clapiRequestLock"}, {clapiReleaseLock, 3108, "clapiReleaseLock"},
        {clapiDestroyLock, 3112, "clapiDestroyLock"}};
    for (ClapiLock* lock : {&destroyed, &never}) {
        for (const auto& c : cases) {
            trace.clear();
            EXPECT_EQ(-1, c.operation(lock)) << c.name;
            EXPECT_EQ("*EXC* clapi_lock." + std::string(c.name) + "(lockPtr=" + pointerText(lock) + ") Lock not initialized",
                      onlyRecord(trace, c.id));
            EXPECT_EQ(1u, trace.records().size()) << trace.text();
        }
    }
    EXPECT_EQ(0xCCDDEEFFu, clapiIsLockInitialized(&destroyed));
    EXPECT_EQ(0u, clapiIsLockInitialized(&never));
    ASSERT_EQ(0, ZEP_setAPITraceLevel(0));
    trace.clear();
    EXPECT_EQ(-1, clapiRequestLock(&destroyed));
    EXPECT_EQ("", trace.text()) << "at level 0 the refusal is silent";
}

// A wait on a detached thread of its own, so that a test fails instead of hanging when a wait never ends; the
// thread shares the waiter, so a waiter that never finishes is not freed under it.
struct Waiter {
    std::atomic<bool> done{false};
    std::atomic<pid_t> tid{0};
    int result = -2, expired = -1;
};

// True once the waiter's thread sleeps in the kernel (state S) within its wait.
bool blocked(const Waiter& waiter)
{
    return pollUntil([&] {
        std::ifstream in("/proc/self/task/" + std::to_string(waiter.tid.load()) + "/stat");
        std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const size_t close = stat.rfind(')');
        return waiter.tid.load() != 0 && close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S';
    }, 5);
}

std::shared_ptr<Waiter> startWait(ClapiEvent* event, int timeout = -1)
{
    auto waiter = std::make_shared<Waiter>();
    std::thread([waiter, event, timeout] {
        waiter->tid = static_cast<pid_t>(syscall(SYS_gettid));
        waiter->result = timeout < 0 ? clapiWaitEvent(event) : clapiTimedWaitEvent(event, timeout, &waiter->expired);
        waiter->done = true;
    }).detach();
    return waiter;
}

// One signal releases every waiter, timed or not; a signalled event lets timed waits through until it is reset.
TEST(Events, OneSignalReleasesEveryWaiterAndTimedWaitsExpireOnlyOnAResetEvent)
{
    ClapiEvent event;
    ASSERT_EQ(0, clapiCreateEvent(&event));
    std::shared_ptr<Waiter> waiters[] = {startWait(&event), startWait(&event), startWait(&event, 60)};
    for (auto& waiter : waiters) ASSERT_TRUE(blocked(*waiter));
    for (auto& waiter : waiters) EXPECT_FALSE(waiter->done.load());
    ASSERT_EQ(0, clapiClearEvent(&event));
    for (auto& waiter : waiters) ASSERT_TRUE(pollUntil([&] { return waiter->done.load(); }, 5)) << "not released";
    for (auto& waiter : waiters) EXPECT_EQ(0, waiter->result);
    EXPECT_EQ(0, waiters[2]->expired);

    const struct { int (*change)(ClapiEvent*); int timeout, expired; double minSeconds; } cases[] = {
        {nullptr, 1, 0, 0}, {clapiClearEvent, 1, 0, 0}, {clapiSetEvent, 1, 1, 0.9}, {nullptr, 0, 1, 0}};
    for (const auto& c : cases) {
        if (c.change != nullptr) { ASSERT_EQ(0, c.change(&event)); }
        int expired = -1;
        const auto start = Clock::now();
        EXPECT_EQ(0, clapiTimedWaitEvent(&event, c.timeout, &expired));
        EXPECT_EQ(c.expired, expired);
        EXPECT_GE(secondsSince(start), c.minSeconds);
        EXPECT_LT(secondsSince(start), 5.0);
    }
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}

}  // namespace
