// Interleavings of public calls, and of calls with the Gateway's flows, that must end with a return code and
// never touch freed memory; closes that must end, also on a connection that has already ended. Each race is
// provoked many times, bounded in rounds and in time; a hang ends the process, so that it fails this test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "scripted_gateway.h"
#include "trace_capture.h"
#include "zepgw_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int32_t kFlowRc = -7;   // the code of the scripted Gateway's error flows

// A call that has not ended in time cannot be taken back: the process ends at once with a message.
void endsWithin(double seconds, std::function<void()> call, const char* what)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> ended = done->get_future();
    std::thread([call, done] {
        call();
        done->set_value();
    }).detach();
    if (ended.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready) return;
    std::fprintf(stderr, "%s did not end within %.0f s\n", what, seconds);
    std::fflush(stderr);
    std::_Exit(1);
}

// True while both the round budget and the time budget last.
class Rounds {
public:
    Rounds(int most, std::chrono::seconds limit) : left_(most), until_(Clock::now() + limit) {}
    bool next() { return left_-- > 0 && Clock::now() < until_; }

private:
    int left_;
    Clock::time_point until_;
};

EciParms eciParms(int callType, const char* program, Channel* channel = nullptr, uint32_t qualifier = 0)
{
    EciParms p;
    std::memset(&p, 0, sizeof p);
    p.eci_call_type = static_cast<int16_t>(callType);
    std::memset(p.eci_program_name, ' ', sizeof p.eci_program_name);
    std::memcpy(p.eci_program_name, program, strnlen(program, sizeof p.eci_program_name));
    p.eci_version = 6;
    p.eci_channel = channel;
    p.eci_message_qualifier = qualifier;
    return p;
}

GatewayToken* openZepgw(const ZepgwProcess& gw)
{
    GatewayToken* tok = nullptr;
    EXPECT_EQ(0, ZEP_openRemoteGatewayConnection("127.0.0.1", gw.port(), &tok, 10));
    return tok;
}

std::string errorFlows(int32_t messageId, int count)
{
    std::string flows;
    for (int i = 0; i < count; i++) flows += ScriptedGateway::header(FLOW_ERROR, messageId, "ECI", 0, kFlowRc);
    return flows;
}

// Polls the trace file, with a deadline, for a record that tells a thread has reached a wait.
bool traced(const TraceCapture& trace, int id)
{
    for (auto until = Clock::now() + 10s; Clock::now() < until;)
        if (trace.hasId(id)) return true;
    return false;
}

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
        GatewayToken* tok = openZepgw(gw);
        ASSERT_NE(nullptr, tok);
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
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* tok = openZepgw(gw);
    Channel* chan = channelWith("RACES", "DATA");
    EciParms async = eciParms(ECI_ASYNC, "HANG", chan);
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &async));
    TraceCapture trace(2);
    int syncRc = 0;
    std::thread waiter([&] {
        EciParms sync = eciParms(ECI_SYNC, "CHANNEL", chan);
        syncRc = ZEP_ECI_Execute_Channel(tok, &sync);
    });
    EXPECT_TRUE(traced(trace, 1463)) << "the synchronous call never waited for the channel";
    const auto start = Clock::now();
    endsWithin(10, [&] { EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 1)); }, "the purge");
    EXPECT_LT(Clock::now() - start, 5s);
    waiter.join();
    EXPECT_EQ(ZEP_ERR_GATEWAY_CLOSED, syncRc);
    endsWithin(10, [&] { EXPECT_EQ(0, ECI_deleteChannel(&chan)); }, "deleting the channel");
}

// Error flows keep coming for slot 17 while its owner frees it and the second slot block goes with it.
TEST(Races, ErrorFlowsForASlotWhoseBlockIsFreedMeanwhile)
{
    ScriptedGateway gw;
    GatewayToken* tok = gw.open();
    ASSERT_NE(nullptr, tok);
    std::vector<EciParms> held(16, eciParms(ECI_ASYNC, "HANG"));
    for (EciParms& p : held) {
        ASSERT_EQ(0, ZEP_ECI_Execute(tok, &p));
        ASSERT_NE(0, gw.nextRequest());
    }
    const std::string burst = errorFlows(17, 64);
    TraceCapture trace(1);   // each error flow's records widen the receiver's step from lookup to delivery
    for (Rounds r(300, 20s); r.next();) {
        EciParms p = eciParms(ECI_ASYNC, "PROG");
        ASSERT_EQ(0, ZEP_ECI_Execute(tok, &p));
        ASSERT_EQ(17, gw.nextRequest());
        gw.send(burst);
        EciParms get = eciParms(ECI_GET_SPECIFIC_REPLY_WAIT, "", nullptr, 17);
        ASSERT_EQ(kFlowRc, ZEP_ECI_Execute(tok, &get));
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
            EciParms get = eciParms(ECI_GET_REPLY, "");
            int rc = ZEP_ECI_Execute(tok, &get);
            if (rc == kFlowRc) collected++;
            else if (rc != ECI_ERR_NO_REPLY) ADD_FAILURE() << "collected " << rc;
        }
    });
    int sent = 0;
    for (Rounds r(300, 10s); r.next() && collected == sent; sent++) {
        EciParms p = eciParms(ECI_ASYNC, "PROG");
        EXPECT_EQ(0, ZEP_ECI_Execute(tok, &p));
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
    endsWithin(10, [&] { EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok)); }, "the close");
    server.join();
}

// Dumps walk the channels while a thread changes containers and replies are written into another channel.
TEST(Races, ChannelDumpsWhileContainersChange)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* tok = openZepgw(gw);
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
            EciParms p = eciParms(ECI_SYNC, "CHANNEL", replied);
            EXPECT_EQ(0, ZEP_ECI_Execute_Channel(tok, &p));
        }
    });
    for (Rounds r(300, 10s); r.next();) EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    busy = false;
    editor.join();
    caller.join();
    trace.clear();
    EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    EXPECT_NE(std::string::npos, trace.text().find("Total number of channels=2\n")) << trace.text();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
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
            for (int32_t id; (id = gw.nextRequest()) != 0;) {
                if (closed) late++;
                else if (id == MSGID_CLOSE) gw.send(ScriptedGateway::header(FLOW_CLOSE, MSGID_CLOSE, "BASE", 0, 0));
                else gw.send(ScriptedGateway::header(FLOW_ERROR, id, "ESI", 0, kFlowRc));
                closed = closed || id == MSGID_CLOSE;
            }
        });
        std::atomic<int> calls{0};
        std::atomic<int> last{kFlowRc};
        std::thread esi([&] {
            while ((last = ZEP_ESI_verifyPassword(tok, "USER", "PASS", "SYS", nullptr)) == kFlowRc) calls++;
        });
        while (calls == 0 && last == kFlowRc) std::this_thread::yield();
        GatewayToken* closing = tok;
        endsWithin(10, [&] { EXPECT_EQ(0, ZEP_closeGatewayConnection(&closing)); }, "the close");
        esi.join();
        server.join();
        EXPECT_EQ(0, late);
        EXPECT_TRUE(last == ZEP_ERR_GWTOK_CLOSED || last == ZEP_ERR_BADGWTOK) << last.load();
    }
}

struct EndedCase {
    const char* program;
    int rc;
};

void PrintTo(const EndedCase& c, std::ostream* os)
{
    *os << c.program;
}

class CloseEnded : public ::testing::TestWithParam<EndedCase> {};

// Uncollected asynchronous requests, one holding a channel, on a connection the Gateway then ends.
TEST_P(CloseEnded, CloseReturnsAtOnceAndReleasesUncollectedRequests)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* tok = openZepgw(gw);
    Channel* chan = channelWith("ENDED", "DATA");
    char area[16] = "never answered";
    EciParms viaArea = eciParms(ECI_ASYNC, "HANG");
    viaArea.eci_commarea = area;
    viaArea.eci_commarea_length = sizeof area;
    EciParms viaChannel = eciParms(ECI_ASYNC, "HANG", chan);
    ASSERT_EQ(0, ZEP_ECI_Execute(tok, &viaArea));
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &viaChannel));
    EciParms ending = eciParms(ECI_SYNC, GetParam().program);
    EXPECT_EQ(GetParam().rc, ZEP_ECI_Execute(tok, &ending));
    const auto start = Clock::now();
    endsWithin(10, [&] { EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok)); }, "the close");
    EXPECT_LT(Clock::now() - start, 1s);
    EXPECT_EQ(nullptr, tok);
    endsWithin(10, [&] { EXPECT_EQ(0, ECI_deleteChannel(&chan)); }, "deleting the channel");
}

INSTANTIATE_TEST_SUITE_P(Races, CloseEnded,
                         ::testing::Values(EndedCase{"GWCLOSE", ZEP_ERR_GATEWAY_CLOSED},
                                           EndedCase{"DROP", ZEP_ERR_LOSTGWCON}),
                         [](const ::testing::TestParamInfo<EndedCase>& info) {
                             return std::string(info.param.program);
                         });

// Reply waiters woken by one reply re-check as the Gateway's close flow arrives: each collects its failed request.
TEST(Races, ReplyWaitersRacingTheGatewaysCloseFlowLeaveNoCloseWaiting)
{
    constexpr int kWaiters = 8;
    for (Rounds r(100, 20s); r.next();) {
        ScriptedGateway gw;
        GatewayToken* tok = gw.open();
        ASSERT_NE(nullptr, tok);
        for (int i = 1; i <= kWaiters + 1; i++) {
            EciParms async = eciParms(ECI_ASYNC, "PROG");
            ASSERT_EQ(0, ZEP_ECI_Execute(tok, &async));
            ASSERT_EQ(i, gw.nextRequest());
        }
        std::vector<int> waitRc(kWaiters + 1, 0);
        std::vector<std::thread> waiters;
        for (int i = 1; i <= kWaiters; i++) {
            waiters.emplace_back([&, i] {
                EciParms get = eciParms(ECI_GET_SPECIFIC_REPLY_WAIT, "", nullptr, static_cast<uint32_t>(i));
                waitRc[i] = ZEP_ECI_Execute(tok, &get);
            });
        }
        gw.send(errorFlows(kWaiters + 1, 1) + ScriptedGateway::header(FLOW_CLOSE, MSGID_CLOSE, "BASE", 0, 0));
        for (std::thread& waiter : waiters) waiter.join();
        for (int i = 1; i <= kWaiters; i++) EXPECT_EQ(ZEP_ERR_GATEWAY_CLOSED, waitRc[i]) << i;
        EciParms answered = eciParms(ECI_GET_SPECIFIC_REPLY, "", nullptr, kWaiters + 1);
        EXPECT_EQ(kFlowRc, ZEP_ECI_Execute(tok, &answered));
        endsWithin(10, [&] { EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok)); }, "the close");
    }
}

}  // namespace
