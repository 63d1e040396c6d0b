// Asynchronous ECI calls against zepgw and the collection of their replies.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "clapi_channel.h"
#include "clapi_internal.h"
#include "clapi_lock.h"
#include "library_support.h"
#include "trace_capture.h"

namespace {

using std::chrono::seconds;

// Sends an asynchronous call and returns its message qualifier (0 when it failed).
uint32_t startCall(GatewayToken* tok, const char* program, void* area, int length)
{
    EciParms parms = eciBlock(ECI_ASYNC, program, area, length);
    int rc = ZEP_ECI_Execute(tok, &parms);
    EXPECT_EQ(0, rc) << program;
    EXPECT_NE(0u, copyOf(parms.eci_message_qualifier));
    return rc == 0 ? parms.eci_message_qualifier : 0;
}

TEST(EciAsync, QualifierChecks)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char area[16];
    memset(area, 0, sizeof area);

    // A qualifier that no slot carries.
    EciParms unknown = replyBlock(ECI_GET_SPECIFIC_REPLY, 999, area, sizeof area);
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, ZEP_ECI_Execute(conn.token(), &unknown));

    // A slot kept for a synchronous unit of work is not an asynchronous request.
    EciParms luw = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    luw.eci_extend_mode = 1;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &luw));
    EciParms syncSlot = replyBlock(ECI_GET_SPECIFIC_REPLY, 1, area, sizeof area);
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, ZEP_ECI_Execute(conn.token(), &syncSlot));

    // A request that is sent but not yet answered.
    char request[16] = "400";
    const uint32_t q = startCall(conn.token(), "DELAY", request, sizeof request);
    ASSERT_NE(0u, q);
    EXPECT_NE(1u, q);
    EciParms early = replyBlock(ECI_GET_SPECIFIC_REPLY, q, area, sizeof area);
    EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(conn.token(), &early));
    EciParms late = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, area, sizeof area);
    EXPECT_EQ(0, ZEP_ECI_Execute(conn.token(), &late));
    EXPECT_STREQ("400", area);

    // Collected: the qualifier names a free slot again.
    EciParms again = replyBlock(ECI_GET_SPECIFIC_REPLY, q, area, sizeof area);
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, ZEP_ECI_Execute(conn.token(), &again));

    EciParms commit = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    commit.eci_extend_mode = 2;
    commit.eci_luw_token = luw.eci_luw_token;
    EXPECT_EQ(0, ZEP_ECI_Execute(conn.token(), &commit));
}

TEST(EciAsync, CollectedReplyKeepsItsSlotForAnyLuwTokenNotNegative)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char area[8] = "luw";

    // Extend mode 1 with a reply token of 0: a synchronous call frees its slot, so slot 1 is free again.
    EciParms sync = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
    sync.eci_extend_mode = 1;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &sync));
    ASSERT_EQ(0, copyOf(sync.eci_luw_token));

    // The same through an asynchronous call: the collected slot stays kept, not free and not awaiting a reply.
    EciParms async = eciBlock(ECI_ASYNC, "ECHO", area, sizeof area);
    async.eci_extend_mode = 1;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &async));
    EXPECT_EQ(1u, copyOf(async.eci_message_qualifier));
    EciParms collect = replyBlock(ECI_GET_REPLY_WAIT, 0, area, sizeof area);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &collect));
    EXPECT_EQ(0, copyOf(collect.eci_luw_token));
    EciParms kept = replyBlock(ECI_GET_SPECIFIC_REPLY, 1, area, sizeof area);
    EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(conn.token(), &kept));
    EXPECT_EQ(2u, startCall(conn.token(), "ECHO", area, sizeof area));
    EciParms last = replyBlock(ECI_GET_REPLY_WAIT, 0, area, sizeof area);
    EXPECT_EQ(0, ZEP_ECI_Execute(conn.token(), &last));
}

TEST(EciAsync, TooSmallAreaKeepsTheReplyForASecondTry)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char request[100];
    for (size_t i = 0; i < sizeof request; ++i) request[i] = static_cast<char>('0' + i % 10);
    const uint32_t q = startCall(conn.token(), "REVERSE", request, sizeof request);
    ASSERT_NE(0u, q);

    char small[50];
    memset(small, 0x11, sizeof small);
    EciParms first = replyBlock(ECI_GET_REPLY_WAIT, 0, small, sizeof small);
    EXPECT_EQ(ECI_ERR_INVALID_DATA_LENGTH, ZEP_ECI_Execute(conn.token(), &first));
    EXPECT_EQ(100, copyOf(first.eci_commarea_length));
    for (char c : small) ASSERT_EQ(0x11, c);

    char large[100];
    EciParms second = replyBlock(ECI_GET_SPECIFIC_REPLY, q, large, sizeof large);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &second));
    for (size_t i = 0; i < sizeof large; ++i) ASSERT_EQ(request[99 - i], large[i]) << "byte " << i;
}

TEST(EciAsync, SpecificReplyCanBeTakenOutOfOrder)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char a[8] = "aaa";
    char b[8] = "bbb";
    const uint32_t qa = startCall(conn.token(), "UPPER", a, sizeof a);
    const uint32_t qb = startCall(conn.token(), "UPPER", b, sizeof b);
    char reply[8];
    EciParms second = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, qb, reply, sizeof reply);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &second));
    EXPECT_STREQ("BBB", reply);
    EciParms first = replyBlock(ECI_GET_REPLY_WAIT, 0, reply, sizeof reply);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &first));
    EXPECT_EQ(qa, copyOf(first.eci_message_qualifier));
    EXPECT_STREQ("AAA", reply);
}

TEST(EciAsync, FailedReplyLeavesTheCommareaUntouched)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    const struct {
        const char* program;
        const char* data;
        int rc;
        const char* abend;
    } cases[] = {
        {"ABEND", "not for you", ECI_ERR_TRANSACTION_ABEND, "ZA01"},
        {"FAIL", "rolled back", ECI_ERR_ROLLEDBACK, "    "},
        {"FERROR", "61450", ZEP_ERR_GATEWAY_BACK_LEVEL, nullptr},   // an error flow instead of a reply
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        char request[16];
        memset(request, 0, sizeof request);
        memcpy(request, c.data, strlen(c.data));
        startCall(conn.token(), c.program, request, sizeof request);
        char reply[16];
        memset(reply, 0xEE, sizeof reply);
        EciParms parms = replyBlock(ECI_GET_REPLY_WAIT, 0, reply, sizeof reply);
        EXPECT_EQ(c.rc, ZEP_ECI_Execute(conn.token(), &parms));
        if (c.abend != nullptr) {
            EXPECT_EQ(0, memcmp(c.abend, parms.eci_abend_code, 4));
        }
        for (char ch : reply) ASSERT_EQ(static_cast<char>(0xEE), ch);
    }
}

TEST(EciAsync, LongerReplyThanTheLibraryBufferIsKeptWhole)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char request[40];
    memset(request, 'r', sizeof request);
    EciParms parms = eciBlock(ECI_ASYNC, "OVERSIZE", request, sizeof request);
    parms.commarea_inbound_length = 100;   // capped at the 40 bytes of the area
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &parms));

    // The reply is 100 bytes longer than the area: it is kept whole until an area that fits asks for it.
    char reply[140];
    EciParms collect = replyBlock(ECI_GET_REPLY_WAIT, 0, reply, 40);
    ASSERT_EQ(ECI_ERR_INVALID_DATA_LENGTH, ZEP_ECI_Execute(conn.token(), &collect));
    ASSERT_EQ(140, copyOf(collect.eci_commarea_length));
    collect = replyBlock(ECI_GET_REPLY_WAIT, 0, reply, sizeof reply);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &collect));
    EXPECT_EQ(140, copyOf(collect.commarea_inbound_length));
    EXPECT_EQ(0, memcmp(request, reply, sizeof request));
}

TEST(EciAsync, ClosingTokenWithOutstandingRequestStillDeliversIt)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    char request[8] = "pending";
    const uint32_t q = startCall(tok, "UPPER", request, sizeof request);
    ASSERT_NE(0u, q);

    // The close waits for the outstanding request.
    TraceCapture trace(1);
    GatewayToken* closing = tok;
    auto closer = std::async(std::launch::async, [&closing] { return ZEP_closeGatewayConnection(&closing); });
    char area[8] = "x";
    EXPECT_TRUE(pollUntil([&] {
        EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
        return ZEP_ECI_Execute(tok, &parms) == ZEP_ERR_GWTOK_CLOSED;
    }));
    EciParms async = eciBlock(ECI_ASYNC, "ECHO", area, sizeof area);
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, ZEP_ECI_Execute(tok, &async));
    EXPECT_TRUE(trace.has(1503, "API.ZEP_ECI_Execute() ECI_ASYNC call attempted while connection is closing"));
    EXPECT_TRUE(trace.has(1503, "API.ZEP_ECI_Execute() ECI_SYNC call attempted while connection is closing"));
    EXPECT_EQ(std::future_status::timeout, closer.wait_for(std::chrono::milliseconds(100)));

    char reply[8];
    EciParms parms = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply);
    EXPECT_EQ(0, ZEP_ECI_Execute(tok, &parms));
    EXPECT_STREQ("PENDING", reply);

    ASSERT_EQ(std::future_status::ready, closer.wait_for(seconds(5)));
    EXPECT_EQ(0, closer.get());
    EXPECT_EQ(nullptr, closing);
    *conn.tokenPtr() = nullptr;
}

TEST(EciAsync, WaitingCallEndsWhenTheConnectionIsLost)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    char request[8] = "bye";
    const uint32_t q = startCall(tok, "HANG", request, sizeof request);
    auto waiter = std::async(std::launch::async, [tok, q] {
        char reply[8];
        EciParms parms = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply);
        return ZEP_ECI_Execute(tok, &parms);
    });
    char area[8] = "x";
    EciParms drop = eciBlock(ECI_SYNC, "DROP", area, sizeof area);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ECI_Execute(tok, &drop));
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(seconds(5)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, waiter.get());

    EciParms after = eciBlock(ECI_ASYNC, "ECHO", area, sizeof area);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ECI_Execute(tok, &after));
}

int asyncRequestsOf(GatewayToken* tok)
{
    ClapiLockGuard guard(&tok->tableLock);
    return tok->asyncRequests;
}

// An asynchronous call that is marked sent while the test holds the send lock, so that the connection can end,
// and a collector can take the failed request, before its write fails.
TEST(EciAsync, SendFailingAsTheConnectionEndsReleasesEverythingOnce)
{
    const struct {
        const char* what;
        bool withChannel;
        bool collectedFirst;
    } cases[] = {
        {"COMMAREA, nobody collects the failure", false, false},
        {"COMMAREA, a collector takes the failure before the write fails", false, true},
        {"channel, nobody collects the failure", true, false},
        {"channel, a collector takes the failure before the write fails", true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        GatewayConnection conn;
        ASSERT_TRUE(conn.ok());
        GatewayToken* tok = conn.token();
        Channel* channel = nullptr;
        if (c.withChannel) {
            ASSERT_EQ(0, ECI_createChannel("SENDFAIL", &channel));
        }

        ASSERT_EQ(0, clapiRequestLock(&tok->sendLock));
        auto sender = std::async(std::launch::async, [tok, channel] {
            char area[8] = "lost";
            EciParms parms = eciBlock(ECI_ASYNC, "ECHO", channel != nullptr ? nullptr : area,
                                      channel != nullptr ? 0 : sizeof area);
            parms.eci_channel = channel;
            return channel != nullptr ? ZEP_ECI_Execute_Channel(tok, &parms) : ZEP_ECI_Execute(tok, &parms);
        });
        const bool marked = pollUntil([&] { return asyncRequestsOf(tok) == 1; });
        EXPECT_TRUE(marked);
        EXPECT_TRUE(conn.zepgw().signal(SIGKILL));
        EXPECT_TRUE(pollUntil([&] { return connStatusOf(tok) == CONN_LOST; }));
        if (c.collectedFirst) {
            char reply[8];
            EciParms collect = replyBlock(ECI_GET_REPLY, 0, reply, sizeof reply);
            EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ECI_Execute(tok, &collect));
            EXPECT_EQ(0, asyncRequestsOf(tok));
            // The collector gave the channel back; the next owner takes it.
            if (channel != nullptr) {
                EXPECT_EQ(0, lockChannel(channel));
            }
        }
        ASSERT_EQ(0, clapiReleaseLock(&tok->sendLock));
        ASSERT_EQ(std::future_status::ready, sender.wait_for(seconds(5)));
        EXPECT_NE(0, sender.get());

        EXPECT_EQ(0, asyncRequestsOf(tok));
        char reply[8];
        EciParms after = replyBlock(ECI_GET_REPLY, 0, reply, sizeof reply);
        EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(tok, &after));   // nothing of the request is left queued
        if (channel != nullptr) {
            // Locked only while the next owner holds it: the failed call never unlocks it a second time.
            EXPECT_EQ(c.collectedFirst ? 1 : 0, channel->isLocked);
            if (c.collectedFirst) {
                EXPECT_EQ(0, unlockChannel(channel));
            }
            EXPECT_EQ(0, ECI_deleteChannel(&channel));
        }
    }
}

// A thread stopped in a signal handler until released: it cannot take a reply while it is held there.
std::atomic<int> freezer{0};   // 1 while a thread is held, 2 to release it

void holdThread(int)
{
    freezer.store(1);
    while (freezer.load() != 2) sched_yield();
}

TEST(EciAsync, SpecificWaitLearnsThatAnotherCallTookItsReply)
{
    struct sigaction hold;
    memset(&hold, 0, sizeof hold);
    hold.sa_handler = holdThread;
    struct sigaction previous;
    ASSERT_EQ(0, sigaction(SIGUSR1, &hold, &previous));
    for (bool slotReused : {false, true}) {
        SCOPED_TRACE(slotReused ? "the slot is taken by a new request" : "the slot stays free");
        GatewayConnection conn;
        ASSERT_TRUE(conn.ok());
        GatewayToken* tok = conn.token();
        TraceCapture trace(4);
        ASSERT_TRUE(conn.zepgw().pause());   // the reply comes only once the waiter is held
        char request[8] = "taken";
        const uint32_t q = startCall(tok, "ECHO", request, sizeof request);
        ASSERT_NE(0u, q);

        std::promise<int> result;
        std::future<int> waited = result.get_future();
        std::thread waiter([tok, q, &result] {
            char reply[8];
            EciParms parms = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply);
            result.set_value(ZEP_ECI_Execute(tok, &parms));
        });
        const std::string sleeping =
            "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=" + pointerText(&tok->asyncReplyEvent);
        EXPECT_TRUE(pollUntil([&] { return trace.has(3119, sleeping); }));
        freezer.store(0);
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(pollUntil([] { return freezer.load() == 1; }));

        // Another call takes the reply while the waiter is held.
        ASSERT_TRUE(conn.zepgw().resume());
        char other[8];
        int rc = ECI_ERR_NO_REPLY;
        EXPECT_TRUE(pollUntil([&] {
            EciParms any = replyBlock(ECI_GET_REPLY, 0, other, sizeof other);
            rc = ZEP_ECI_Execute(tok, &any);
            return rc != ECI_ERR_NO_REPLY;
        }));
        EXPECT_EQ(0, rc);
        EXPECT_STREQ("taken", other);
        char next[8] = "next";
        if (slotReused) {
            EXPECT_EQ(q, startCall(tok, "ECHO", next, sizeof next));
        }

        freezer.store(2);
        const bool ended = waited.wait_for(seconds(5)) == std::future_status::ready;
        EXPECT_TRUE(ended) << "the waiter still waits for a reply that another call took";
        if (!ended) conn.zepgw().signal(SIGKILL);   // ends the wait, so that the thread can be joined
        waiter.join();
        EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, waited.get());
        if (slotReused) {
            // The new request's reply is still there for its own collector.
            EciParms own = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, next, sizeof next);
            EXPECT_EQ(0, ZEP_ECI_Execute(tok, &own));
            EXPECT_STREQ("next", next);
        }
    }
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(EciAsync, OneReplyWakesOneOfSeveralWaitersAndTheOthersWaitOn)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    TraceCapture trace(4);
    constexpr int kWaiters = 3;
    struct Waiter {
        char reply[8];
        EciParms parms;
        std::future<int> rc;
    } waiters[kWaiters];
    for (Waiter& w : waiters) {
        memset(w.reply, 0, sizeof w.reply);
        w.parms = replyBlock(ECI_GET_REPLY_WAIT, 0, w.reply, sizeof w.reply);
        w.rc = std::async(std::launch::async, [tok, &w] { return ZEP_ECI_Execute(tok, &w.parms); });
    }
    const std::string sleeping =
        "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=" + pointerText(&tok->asyncReplyEvent);
    ASSERT_TRUE(pollUntil([&] {   // every waiter has gone to sleep
        size_t asleep = 0;
        for (const TraceRecord& r : trace.find(3119)) asleep += r.message == sleeping;
        return asleep >= kWaiters;
    }));

    auto ready = [&] {
        int n = 0;
        for (Waiter& w : waiters) n += w.rc.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready;
        return n;
    };
    const char* texts[kWaiters] = {"one", "two", "three"};
    for (int sent = 1; sent <= kWaiters; ++sent) {
        char area[8];
        memset(area, 0, sizeof area);
        strcpy(area, texts[sent - 1]);
        ASSERT_NE(0u, startCall(tok, "ECHO", area, sizeof area));
        ASSERT_TRUE(pollUntil([&] { return ready() >= sent; }));
        EXPECT_EQ(sent, ready()) << "a waiter returned without a reply of its own";
    }
    std::vector<std::string> got;
    for (Waiter& w : waiters) {
        EXPECT_EQ(0, w.rc.get());
        got.push_back(w.reply);
    }
    std::sort(got.begin(), got.end());
    EXPECT_EQ((std::vector<std::string>{"one", "three", "two"}), got);
}

}  // namespace

TEST(EciAsync, WaitForAnyReplyWithNothingOutstandingEndsWhenTheConnectionIsLost)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    TraceCapture trace(4);
    auto waiter = std::async(std::launch::async, [tok] {
        char reply[8];
        EciParms parms = replyBlock(ECI_GET_REPLY_WAIT, 0, reply, sizeof reply);
        return ZEP_ECI_Execute(tok, &parms);
    });
    // The collector is asleep on the reply event before the Gateway goes away.
    const std::string sleeping = "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=" + pointerText(&tok->asyncReplyEvent);
    ASSERT_TRUE(pollUntil([&] { return trace.has(3119, sleeping); }));
    char area[8] = "x";
    EciParms drop = eciBlock(ECI_SYNC, "DROP", area, sizeof area);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ECI_Execute(tok, &drop));
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(seconds(5)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, waiter.get());
}
