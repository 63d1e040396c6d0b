// Locks that know whether they live, and manual-reset events.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "clapi_lock.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string withPointer(const char* fmt, const void* pointer) {
    char text[160];
    snprintf(text, sizeof text, fmt, pointer);
    return text;
}

pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// True once the thread is asleep in the kernel (state S), polled with a deadline.
bool waitUntilSleeping(pid_t tid, double seconds = 5.0) {
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    while (Clock::now() < deadline) {
        std::ifstream in(path);
        std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        size_t close = stat.rfind(')');
        if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S') return true;
        std::this_thread::yield();
    }
    return false;
}

// A waiter on its own detached thread, so that a test fails instead of hanging when a wait never ends.
struct Waiter {
    std::atomic<bool> done{false};
    std::atomic<pid_t> tid{0};
    int result = -2;
    int expired = -1;
    double seconds = 0;

    bool finishedWithin(double limit) const {
        auto deadline = Clock::now() + std::chrono::duration<double>(limit);
        while (!done.load() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return done.load();
    }
};

// The thread shares the waiter, so a waiter that never finishes is not freed under it.
std::shared_ptr<Waiter> startWait(ClapiEvent* event, int timeout = -1) {
    auto waiter = std::make_shared<Waiter>();
    std::thread([waiter, event, timeout] {
        waiter->tid = threadId();
        auto start = Clock::now();
        if (timeout < 0) waiter->result = clapiWaitEvent(event);
        else waiter->result = clapiTimedWaitEvent(event, timeout, &waiter->expired);
        waiter->seconds = std::chrono::duration<double>(Clock::now() - start).count();
        waiter->done = true;
    }).detach();
    return waiter;
}

bool waitUntilBlocked(const Waiter& waiter) {
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (waiter.tid.load() == 0 && Clock::now() < deadline) std::this_thread::yield();
    return waiter.tid.load() != 0 && waitUntilSleeping(waiter.tid.load());
}

}  // namespace

// A destroyed or never initialised lock is refused before its mutex is touched, with one record each.
TEST(Locks, DeadLocksAreRefused) {
    TraceCapture trace(1);
    ClapiLock destroyed;
    memset(&destroyed, 0, sizeof destroyed);
    ASSERT_EQ(0, clapiInitializeLock(&destroyed));
    ASSERT_EQ(0, clapiDestroyLock(&destroyed));
    ClapiLock never;
    memset(&never, 0, sizeof never);

    struct Case { const char* lockName; ClapiLock* lock; int (*operation)(ClapiLock*); int id; const char* text; };
    const Case cases[] = {
        {"destroyed", &destroyed, clapiRequestLock, 3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized"},
        {"destroyed", &destroyed, clapiReleaseLock, 3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized"},
        {"destroyed", &destroyed, clapiDestroyLock, 3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized"},
        {"never", &never, clapiRequestLock, 3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized"},
        {"never", &never, clapiReleaseLock, 3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized"},
        {"never", &never, clapiDestroyLock, 3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized"},
    };
    for (const Case& c : cases) {
        trace.clear();
        EXPECT_EQ(-1, c.operation(c.lock)) << c.lockName << " " << c.id;
        std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(1u, records.size()) << c.lockName << " " << c.id;
        EXPECT_EQ(c.id, records[0].id);
        EXPECT_EQ("*EXC*", records[0].type);
        EXPECT_EQ(withPointer(c.text, c.lock), records[0].message);
    }
    EXPECT_EQ(0xCCDDEEFFu, clapiIsLockInitialized(&destroyed));
    EXPECT_EQ(0u, clapiIsLockInitialized(&never));

    // At level 0 the refusal is silent.
    ASSERT_EQ(0, ZEP_setAPITraceLevel(0));
    trace.clear();
    EXPECT_EQ(-1, clapiRequestLock(&destroyed));
    EXPECT_EQ("", trace.text());
}

TEST(Events, OneSignalReleasesEveryWaiter) {
    ClapiEvent event;
    ASSERT_EQ(0, clapiCreateEvent(&event));
    auto first = startWait(&event);
    auto second = startWait(&event);
    ASSERT_TRUE(waitUntilBlocked(*first));
    ASSERT_TRUE(waitUntilBlocked(*second));
    EXPECT_FALSE(first->done.load());
    EXPECT_FALSE(second->done.load());

    ASSERT_EQ(0, clapiClearEvent(&event));
    bool firstDone = first->finishedWithin(5);
    bool secondDone = second->finishedWithin(5);
    EXPECT_TRUE(firstDone);
    EXPECT_TRUE(secondDone);
    if (!firstDone || !secondDone) return;   // leave the event to the stuck waiter
    EXPECT_EQ(0, first->result);
    EXPECT_EQ(0, second->result);
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}

TEST(Events, TimedWaitWithTimeoutZeroExpires) {
    ClapiEvent event;
    ASSERT_EQ(0, clapiCreateEvent(&event));   // a new event is reset
    int expired = -1;
    auto start = Clock::now();
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 0, &expired));
    EXPECT_EQ(1, expired);
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 5.0);
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}

TEST(Events, TimedWaitReleasedBeforeItsDeadline) {
    ClapiEvent event;
    ASSERT_EQ(0, clapiCreateEvent(&event));
    auto waiter = startWait(&event, 60);
    ASSERT_TRUE(waitUntilBlocked(*waiter));
    EXPECT_FALSE(waiter->done.load());
    ASSERT_EQ(0, clapiClearEvent(&event));
    ASSERT_TRUE(waiter->finishedWithin(5));
    EXPECT_EQ(0, waiter->result);
    EXPECT_EQ(0, waiter->expired);
    EXPECT_LT(waiter->seconds, 5.0);
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}

// Resetting makes later waits block again: a one-second timed wait then runs out.
TEST(Events, ResetMakesLaterWaitsBlock) {
    ClapiEvent event;
    ASSERT_EQ(0, clapiCreateEvent(&event));
    ASSERT_EQ(0, clapiClearEvent(&event));
    int expired = -1;
    ASSERT_EQ(0, clapiTimedWaitEvent(&event, 1, &expired));
    ASSERT_EQ(0, expired);

    ASSERT_EQ(0, clapiSetEvent(&event));
    auto start = Clock::now();
    EXPECT_EQ(0, clapiTimedWaitEvent(&event, 1, &expired));
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_EQ(1, expired);
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(0, clapiDeleteEvent(&event));
}
