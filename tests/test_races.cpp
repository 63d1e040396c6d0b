// Interleavings of public calls, and of calls with the Gateway's flows, that must end with a return code and
// never touch freed memory; closes that must end, also on a connection that has already ended. Each race is
// provoked many times, bounded in rounds and in time; a hang ends the process, so that it fails this test.
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "library_support.h"

namespace {

using namespace std::chrono_literals;
constexpr int32_t kFlowRc = -7;   // the code of the scripted Gateway's error flows

// A call that has not ended in time cannot be taken back: the process ends at once with a message. Returns the
// time the call took.
Clock::duration endsWithin(std::function<void()> call, const char* what)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ended = done->get_future();
    const auto start = Clock::now();
    std::thread([call, done] { call(); done->set_value(); }).detach();
    if (ended.wait_for(10s) == std::future_status::ready) return Clock::now() - start;
    std::fprintf(stderr, "%s did not end within 10 s\n", what);
    std::fflush(stderr);
    std::_Exit(1);
}

Clock::duration closeEnds(GatewayToken** tok)
{
    return endsWithin([tok] { EXPECT_EQ(0, ZEP_closeGatewayConnection(tok)); }, "the close");
}

// True while both the round budget and the time budget last.
struct Rounds {
    int left;
    Clock::time_point until;
    Rounds(int most, std::chrono::seconds limit) : left(most), until(Clock::now() + limit) {}
    bool next() { return left-- > 0 && Clock::now() < until; }
};

// One call, through the channel entry point when it names a channel.
int call(GatewayToken* tok, EciParms p, Channel* channel = nullptr)
{
    p.eci_channel = channel;
    return exec(tok, p);
}

int collect(GatewayToken* tok, int callType, uint32_t qualifier)
{
    return call(tok, replyBlock(callType, qualifier, nullptr, 0));
}

// `count` asynchronous calls that the scripted Gateway reads and leaves unanswered, in slots 1, 2, ...
void sendUnanswered(ScriptedGateway& gw, GatewayToken* tok, int count)
{
    for (int i = 1; i <= count; i++) {
        ASSERT_EQ(0, call(tok, eciBlock(ECI_ASYNC, "HANG")));
        ASSERT_EQ(i, gw.nextRequest());
    }
}

std::string errorFlows(int32_t messageId, int count)
{
    std::string flows;
    for (int i = 0; i < count; i++) flows += ScriptedGateway::header(FLOW_ERROR, messageId, "ECI", 0, kFlowRc);
    return flows;
}

const std::string kCloseFlow = ScriptedGateway::header(FLOW_CLOSE, MSGID_CLOSE, "BASE", 0, 0);

Channel* channelWith(const char* name, const char* container)
{
    Channel* chan = nullptr;
    EXPECT_EQ(0, ECI_createChannel(name, &chan));
    EXPECT_EQ(0, ECI_createContainer(chan, container, ECI_BIT, 0, "abcd", 4));
    return chan;
}

// One closes while another thread keeps calling on the token: the caller ends with a code, never on freed memory.
TEST(Races, CallsRacingTheFreeOfAClosedTokenEndWithACode)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    for (Rounds r(200, 20s); r.next();) {
        GatewayToken* tok = nullptr;
        ASSERT_EQ(0, openGateway(gw, &tok));
        std::atomic<bool> started{false};
        int last = 0;
        std::thread caller([&] {
            char* applid = nullptr;
            do {
                last = ZEP_getApplid(tok, &applid);
                started = true;
            } while (last == 0);
        });
        while (!started) std::this_thread::yield();
        GatewayToken* closing = tok;
        EXPECT_EQ(0, ZEP_closeGatewayConnection(&closing));
        caller.join();
        EXPECT_TRUE(last == ZEP_ERR_BADGWTOK || last == ZEP_ERR_GWTOK_CLOSED) << last;
    }
}

// The quiesce waited for a call that waited for a channel only the quiesce would release.
TEST(Races, PurgeWithALimitEndsWhileACallWaitsForAChannelOfAnUncollectedRequest)
{
    GatewayConnection gc;
    GatewayToken* tok = gc.token();
    Channel* chan = channelWith("RACES", "DATA");
    ASSERT_EQ(0, call(tok, eciBlock(ECI_ASYNC, "HANG"), chan));
    TraceCapture trace(2);
    auto waiter = std::async(std::launch::async, [&] { return call(tok, eciBlock(ECI_SYNC, "CHANNEL"), chan); });
    EXPECT_TRUE(pollUntil([&] { return trace.hasId(1463); })) << "the synchronous call never waited for the channel";
    EXPECT_LT(endsWithin([&] { EXPECT_EQ(0, ZEP_purgeGatewayConnection(gc.tokenPtr(), 1)); }, "the purge"), 5s);
    EXPECT_EQ(ZEP_ERR_GATEWAY_CLOSED, waiter.get());
    endsWithin([&] { EXPECT_EQ(0, ECI_deleteChannel(&chan)); }, "deleting the channel");
}

// Error flows keep coming for slot 17 while its owner frees it and the second slot block goes with it.
TEST(Races, ErrorFlowsForASlotWhoseBlockIsFreedMeanwhile)
{
    ScriptedGateway gw;
    GatewayToken* tok = gw.open();
    ASSERT_NE(nullptr, tok);
    ASSERT_NO_FATAL_FAILURE(sendUnanswered(gw, tok, 16));
    const std::string burst = errorFlows(17, 64);
    TraceCapture trace(1);   // each error flow's records widen the receiver's step from lookup to delivery
    for (Rounds r(300, 20s); r.next();) {
        ASSERT_EQ(0, call(tok, eciBlock(ECI_ASYNC, "PROG")));
        ASSERT_EQ(17, gw.nextRequest());
        gw.send(burst);
        ASSERT_EQ(kFlowRc, collect(tok, ECI_GET_SPECIFIC_REPLY_WAIT, 17));
    }
    gw.hangUp();
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 0));
}

// Error flows for slot 1 arrive while its request is still being built; a collector takes whatever is queued.
TEST(Races, ErrorFlowsReachOnlyRequestsThatWereSent)
{
    ScriptedGateway gw;
    GatewayToken* tok = gw.open();
    ASSERT_NE(nullptr, tok);
    std::atomic<bool> sending{true};
    std::atomic<int> collected{0};
    std::thread flood([&] {
        const std::string flows = errorFlows(1, 16);
        while (sending) gw.send(flows);
    });
    std::thread collector([&] {
        while (sending) {
            const int rc = collect(tok, ECI_GET_REPLY, 0);
            if (rc == kFlowRc) collected++;
            else if (rc != ECI_ERR_NO_REPLY) ADD_FAILURE() << "collected " << rc;
        }
    });
    int sent = 0;
    for (Rounds r(300, 10s); r.next() && collected == sent; sent++) {
        EXPECT_EQ(0, call(tok, eciBlock(ECI_ASYNC, "PROG")));
        for (auto until = Clock::now() + 5s; collected == sent && Clock::now() < until;) std::this_thread::yield();
    }
    sending = false;
    flood.join();
    collector.join();
    EXPECT_EQ(sent, collected.load());
    std::thread server([&] {
        while (gw.nextRequest() > 0) {}
        gw.hangUp();
    });
    closeEnds(&tok);
    server.join();
}

// Dumps walk the channels while a thread changes containers and replies are written into another channel.
TEST(Races, ChannelDumpsWhileContainersChange)
{
    GatewayConnection gc;
    Channel* edited = channelWith("EDITED", "KEEP");
    Channel* replied = channelWith("REPLIED", "MODX");
    TraceCapture trace(0);
    std::atomic<bool> busy{true};
    std::thread editor([&] {
        while (busy) {
            EXPECT_EQ(0, ECI_createContainer(edited, "GONE", ECI_BIT, 0, "abcd", 4));
            EXPECT_EQ(0, ECI_deleteContainer(edited, "GONE"));
        }
    });
    std::thread caller([&] {
        while (busy) {
            EXPECT_EQ(0, ECI_createContainer(replied, "DELME", ECI_BIT, 0, "abcd", 4));
            EXPECT_EQ(0, call(gc.token(), eciBlock(ECI_SYNC, "CHANNEL"), replied));
        }
    });
    for (Rounds r(300, 10s); r.next();) EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    busy = false;
    editor.join();
    caller.join();
    trace.clear();
    EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    EXPECT_NE(std::string::npos, trace.text().find("Total number of channels=2\n")) << trace.text();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(gc.tokenPtr()));
    EXPECT_EQ(0, ECI_deleteAllChannels());
}

// ESI calls keep coming while the connection closes: none may go out after the close flow.
TEST(Races, CloseWaitsForEveryCallRegisteredBeforeItsCloseFlow)
{
    for (Rounds r(100, 20s); r.next();) {
        ScriptedGateway gw;
        GatewayToken* tok = gw.open();
        ASSERT_NE(nullptr, tok);
        int late = 0;
        std::thread server([&] {
            bool closed = false;
            for (int32_t id; (id = gw.nextRequest()) != 0; closed = closed || id == MSGID_CLOSE) {
                if (closed) late++;
                else gw.send(id == MSGID_CLOSE ? kCloseFlow : ScriptedGateway::header(FLOW_ERROR, id, "ESI", 0, kFlowRc));
            }
        });
        std::atomic<int> calls{0}, last{kFlowRc};
        std::thread esi([&] {
            while ((last = ZEP_ESI_verifyPassword(tok, "USER", "PASS", "SYS", nullptr)) == kFlowRc) calls++;
        });
        while (calls == 0 && last == kFlowRc) std::this_thread::yield();
        GatewayToken* closing = tok;
        closeEnds(&closing);
        esi.join();
        server.join();
        EXPECT_EQ(0, late);
        EXPECT_TRUE(last == ZEP_ERR_GWTOK_CLOSED || last == ZEP_ERR_BADGWTOK) << last.load();
    }
}

// Uncollected asynchronous requests, one holding a channel, on a connection the Gateway then ends: the close
// returns at once and releases them.
TEST(Races, CloseOfAnEndedConnectionReleasesUncollectedRequests)
{
    const struct { const char* program; int rc; } cases[] = {{"GWCLOSE", ZEP_ERR_GATEWAY_CLOSED},
                                                            {"DROP", ZEP_ERR_LOSTGWCON}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        GatewayConnection gc;
        Channel* chan = channelWith("ENDED", "DATA");
        char area[16] = "never answered";
        ASSERT_EQ(0, call(gc.token(), eciBlock(ECI_ASYNC, "HANG", area, sizeof area)));
        ASSERT_EQ(0, call(gc.token(), eciBlock(ECI_ASYNC, "HANG"), chan));
        EXPECT_EQ(c.rc, call(gc.token(), eciBlock(ECI_SYNC, c.program)));
        EXPECT_LT(closeEnds(gc.tokenPtr()), 1s);
        EXPECT_EQ(nullptr, gc.token());
        endsWithin([&] { EXPECT_EQ(0, ECI_deleteChannel(&chan)); }, "deleting the channel");
    }
}

// Reply waiters woken by one reply re-check as the Gateway's close flow arrives: each collects its failed request.
TEST(Races, ReplyWaitersRacingTheGatewaysCloseFlowLeaveNoCloseWaiting)
{
    constexpr int kWaiters = 8;
    for (Rounds r(100, 20s); r.next();) {
        ScriptedGateway gw;
        GatewayToken* tok = gw.open();
        ASSERT_NE(nullptr, tok);
        ASSERT_NO_FATAL_FAILURE(sendUnanswered(gw, tok, kWaiters + 1));
        std::vector<std::future<int>> waiters;
        for (uint32_t i = 1; i <= kWaiters; i++)
            waiters.push_back(
                std::async(std::launch::async, [=] { return collect(tok, ECI_GET_SPECIFIC_REPLY_WAIT, i); }));
        gw.send(errorFlows(kWaiters + 1, 1) + kCloseFlow);
        for (auto& waiter : waiters) EXPECT_EQ(ZEP_ERR_GATEWAY_CLOSED, waiter.get());
        EXPECT_EQ(kFlowRc, collect(tok, ECI_GET_SPECIFIC_REPLY, kWaiters + 1));
        closeEnds(&tok);
    }
}

}  // namespace
