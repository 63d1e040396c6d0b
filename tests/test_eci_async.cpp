// Asynchronous ECI calls against zepgw, the collection of their replies, and the races around it.
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "library_support.h"

namespace {

using std::chrono::seconds;

// Sends an asynchronous call and returns its message qualifier (0 when it failed).
uint32_t startCall(GatewayToken* tok, const char* program, void* area, int length, int extendMode = 0)
{
    return called(tok, eciBlock(ECI_ASYNC, program, area, length, extendMode)).eci_message_qualifier;
}

// Threads asleep on the token's reply event, by the trace.
long sleepers(const TraceCapture& trace, GatewayToken* tok)
{
    const std::string text = "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=" + pointerText(&tok->asyncReplyEvent);
    const std::vector<TraceRecord> waits = trace.find(3119);
    return std::count_if(waits.begin(), waits.end(), [&](const TraceRecord& r) { return r.message == text; });
}

TEST(EciAsync, QualifiersSlotsAndOrderOfCollection)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    char area[16] = "luw";
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY, 999, area, sizeof area)));
    // A slot kept for a synchronous unit of work is not an asynchronous request.
    const int32_t luw = called(tok, eciBlock(ECI_SYNC, "LUW", area, sizeof area, 1)).eci_luw_token;
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY, 1, area, sizeof area)));

    // Sent but not answered yet; then collected, and its qualifier names a free slot again.
    char delay[16] = "400";   // milliseconds
    const uint32_t q = startCall(tok, "DELAY", delay, sizeof delay);
    EXPECT_EQ(ECI_ERR_NO_REPLY, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY, q, area, sizeof area)));
    EXPECT_EQ(0, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, area, sizeof area)));
    EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY, q, area, sizeof area)));
    called(tok, eciBlock(ECI_SYNC, "LUW", area, sizeof area, 2, luw));   // the commit

    // Extend mode 1 with a reply token of 0: a synchronous call frees its slot; after an asynchronous one the
    // collected slot stays kept, not free and not awaiting a reply.
    EXPECT_EQ(0, copyOf(called(tok, eciBlock(ECI_SYNC, "ECHO", area, sizeof area, 1)).eci_luw_token));
    EXPECT_EQ(1u, startCall(tok, "ECHO", area, sizeof area, 1));
    EXPECT_EQ(0, copyOf(called(tok, replyBlock(ECI_GET_REPLY_WAIT, 0, area, sizeof area)).eci_luw_token));
    EXPECT_EQ(ECI_ERR_NO_REPLY, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY, 1, area, sizeof area)));

    // An inbound length beyond the area is capped at the area; any reply names its request.
    char a[8] = "aaa", reply[8];
    EciParms capped = eciBlock(ECI_ASYNC, "UPPER", a, sizeof a);
    capped.commarea_inbound_length = 100;
    ASSERT_EQ(0, ZEP_ECI_Execute(tok, &capped));
    EXPECT_EQ(copyOf(capped.eci_message_qualifier),
              copyOf(called(tok, replyBlock(ECI_GET_REPLY_WAIT, 0, reply, sizeof reply)).eci_message_qualifier));
    EXPECT_STREQ("AAA", reply);
}

TEST(EciAsync, ClosingTokenWithOutstandingRequestStillDeliversIt)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    char request[8] = "pending", area[8] = "x", reply[8];
    const uint32_t q = startCall(tok, "UPPER", request, sizeof request);
    TraceCapture trace(1);
    GatewayToken* closing = tok;
    auto closer = std::async(std::launch::async, [&closing] { return ZEP_closeGatewayConnection(&closing); });
    EXPECT_TRUE(pollUntil([&] { return exec(tok, eciBlock(ECI_SYNC, "ECHO", area, sizeof area)) == ZEP_ERR_GWTOK_CLOSED; }));
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, exec(tok, eciBlock(ECI_ASYNC, "ECHO", area, sizeof area)));
    EXPECT_TRUE(trace.has(1503, "API.ZEP_ECI_Execute() ECI_ASYNC call attempted while connection is closing"));
    EXPECT_TRUE(trace.has(1503, "API.ZEP_ECI_Execute() ECI_SYNC call attempted while connection is closing"));
    EXPECT_EQ(std::future_status::timeout, closer.wait_for(std::chrono::milliseconds(100)));
    EXPECT_EQ(0, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply)));
    EXPECT_STREQ("PENDING", reply);
    ASSERT_EQ(std::future_status::ready, closer.wait_for(seconds(5)));
    EXPECT_EQ(0, closer.get());
    EXPECT_EQ(nullptr, closing);
    *conn.tokenPtr() = nullptr;
}

TEST(EciAsync, WaitingCollectorsEndWhenTheConnectionIsLost)
{
    for (bool outstanding : {true, false}) {
        SCOPED_TRACE(outstanding ? "waiting for a specific reply" : "waiting for any reply with nothing outstanding");
        GatewayConnection conn;
        ASSERT_TRUE(conn.ok());
        GatewayToken* tok = conn.token();
        TraceCapture trace(4);
        char area[8] = "bye";
        const uint32_t q = outstanding ? startCall(tok, "HANG", area, sizeof area) : 0;
        auto waiter = std::async(std::launch::async, [tok, q] {
            char reply[8];
            return exec(tok, replyBlock(q ? ECI_GET_SPECIFIC_REPLY_WAIT : ECI_GET_REPLY_WAIT, q, reply, sizeof reply));
        });
        ASSERT_TRUE(pollUntil([&] { return sleepers(trace, tok) > 0; }));
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, exec(tok, eciBlock(ECI_SYNC, "DROP", area, sizeof area)));
        ASSERT_EQ(std::future_status::ready, waiter.wait_for(seconds(5)));
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, waiter.get());
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, exec(tok, eciBlock(ECI_ASYNC, "ECHO", area, sizeof area)));
    }
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
    for (int n = 0; n < 4; ++n) {
        const bool withChannel = n & 1, collectedFirst = n & 2;
        SCOPED_TRACE(std::string(withChannel ? "channel" : "COMMAREA") + (collectedFirst ? ", collected first" : ""));
        GatewayConnection conn;
        ASSERT_TRUE(conn.ok());
        GatewayToken* tok = conn.token();
        Channel* channel = nullptr;
        if (withChannel) { ASSERT_EQ(0, ECI_createChannel("SENDFAIL", &channel)); }
        ASSERT_EQ(0, clapiRequestLock(&tok->sendLock));
        auto sender = std::async(std::launch::async, [tok, channel] {
            char area[8] = "lost";
            EciParms parms = eciBlock(ECI_ASYNC, "ECHO", channel ? nullptr : area, channel ? 0 : sizeof area);
            parms.eci_channel = channel;
            return exec(tok, parms);
        });
        EXPECT_TRUE(pollUntil([&] { return asyncRequestsOf(tok) == 1; }));
        EXPECT_TRUE(conn.zepgw().signal(SIGKILL));
        EXPECT_TRUE(pollUntil([&] { return connStatusOf(tok) == CONN_LOST; }));
        char reply[8];
        if (collectedFirst) {
            EXPECT_EQ(ZEP_ERR_LOSTGWCON, exec(tok, replyBlock(ECI_GET_REPLY, 0, reply, sizeof reply)));
            EXPECT_EQ(0, asyncRequestsOf(tok));
            if (channel != nullptr) { EXPECT_EQ(0, lockChannel(channel)); }   // the collector gave it back
        }
        ASSERT_EQ(0, clapiReleaseLock(&tok->sendLock));
        ASSERT_EQ(std::future_status::ready, sender.wait_for(seconds(5)));
        EXPECT_NE(0, sender.get());
        EXPECT_EQ(0, asyncRequestsOf(tok));
        EXPECT_EQ(ECI_ERR_NO_REPLY, exec(tok, replyBlock(ECI_GET_REPLY, 0, reply, sizeof reply)));
        if (channel == nullptr) continue;
        // Locked only while the next owner holds it: the failed call never unlocks it a second time.
        EXPECT_EQ(collectedFirst ? 1 : 0, channel->isLocked);
        if (collectedFirst) { EXPECT_EQ(0, unlockChannel(channel)); }
        EXPECT_EQ(0, ECI_deleteChannel(&channel));
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
    struct sigaction hold = {}, previous;
    hold.sa_handler = holdThread;
    ASSERT_EQ(0, sigaction(SIGUSR1, &hold, &previous));
    for (bool slotReused : {false, true}) {
        SCOPED_TRACE(slotReused ? "the slot is taken by a new request" : "the slot stays free");
        GatewayConnection conn;
        ASSERT_TRUE(conn.ok());
        GatewayToken* tok = conn.token();
        TraceCapture trace(4);
        ASSERT_TRUE(conn.zepgw().pause());   // the reply comes only once the waiter is held
        char request[8] = "taken", other[8], next[8] = "next";
        const uint32_t q = startCall(tok, "ECHO", request, sizeof request);
        std::promise<int> result;
        std::future<int> waited = result.get_future();
        std::thread waiter([tok, q, &result] {
            char reply[8];
            result.set_value(exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply)));
        });
        EXPECT_TRUE(pollUntil([&] { return sleepers(trace, tok) > 0; }));
        freezer.store(0);
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(pollUntil([] { return freezer.load() == 1; }));
        // Another call takes the reply while the waiter is held.
        ASSERT_TRUE(conn.zepgw().resume());
        int rc = ECI_ERR_NO_REPLY;
        EXPECT_TRUE(pollUntil([&] {
            return (rc = exec(tok, replyBlock(ECI_GET_REPLY, 0, other, sizeof other))) != ECI_ERR_NO_REPLY;
        }));
        EXPECT_EQ(0, rc);
        EXPECT_STREQ("taken", other);
        if (slotReused) { EXPECT_EQ(q, startCall(tok, "ECHO", next, sizeof next)); }
        freezer.store(2);
        const bool ended = waited.wait_for(seconds(5)) == std::future_status::ready;
        EXPECT_TRUE(ended) << "the waiter still waits for a reply that another call took";
        if (!ended) conn.zepgw().signal(SIGKILL);   // ends the wait, so that the thread can be joined
        waiter.join();
        EXPECT_EQ(ECI_ERR_INVALID_MSG_QUAL, waited.get());
        if (!slotReused) continue;
        // The new request's reply is still there for its own collector.
        EXPECT_EQ(0, exec(tok, replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, next, sizeof next)));
        EXPECT_STREQ("next", next);
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
    struct { char reply[8] = {}; std::future<int> rc; } waiters[kWaiters];
    for (auto& w : waiters)
        w.rc = std::async(std::launch::async, [tok, &w] {
            return exec(tok, replyBlock(ECI_GET_REPLY_WAIT, 0, w.reply, sizeof w.reply));
        });
    ASSERT_TRUE(pollUntil([&] { return sleepers(trace, tok) >= kWaiters; }));
    auto ready = [&] {
        return std::count_if(std::begin(waiters), std::end(waiters), [](auto& w) {
            return w.rc.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready;
        });
    };
    char texts[kWaiters][8] = {"one", "two", "three"};
    for (int sent = 1; sent <= kWaiters; ++sent) {
        ASSERT_NE(0u, startCall(tok, "ECHO", texts[sent - 1], sizeof texts[0]));
        ASSERT_TRUE(pollUntil([&] { return ready() >= sent; }));
        EXPECT_EQ(sent, ready()) << "a waiter returned without a reply of its own";
    }
    std::vector<std::string> got;
    for (auto& w : waiters) {
        EXPECT_EQ(0, w.rc.get());
        got.push_back(w.reply);
    }
    std::sort(got.begin(), got.end());
    EXPECT_EQ((std::vector<std::string>{"one", "three", "two"}), got);
}

}  // namespace
