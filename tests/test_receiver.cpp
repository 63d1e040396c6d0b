// The receiver thread against zepgw: replies reach their requests, per-request failures stay with their
// request, and every way a connection ends fails each waiting request with the right code.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "library_support.h"
#include "scripted_gateway.h"
#include "trace_capture.h"


namespace {

class Receiver : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gw.start({"-v"})); }

    void TearDown() override
    {
        if (tok != nullptr) {
            EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 1));
        }
    }

    void open(const char* applid = "") { ASSERT_EQ(0, openGateway(gw, &tok, applid)); }

    // Waits until `count` requests are sent and await their replies.
    void awaitWaiting(int count) { ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == count; })); }

    ZepgwProcess gw;
    GatewayToken* tok = nullptr;
};

TEST_F(Receiver, PingBeforeEveryReplyChangesNothing)
{
    open("PINGY");
    TraceCapture trace(4);
    for (int i = 0; i < 3; i++) {
        char area[16] = "ping";
        EXPECT_EQ(0, callProgram(tok, "UPPER", area, 4));
        EXPECT_EQ(0, memcmp(area, "PING", 4));
    }
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
    EXPECT_EQ(3u, trace.find(3033).size());
    EXPECT_TRUE(trace.has(3033, "clapi_gwycon.receiverThread() Flow type is FLOW_PING"));
}

TEST_F(Receiver, ExceptionFailsOneRequestAndTheConnectionGoesOn)
{
    open();
    TraceCapture trace(1);
    char area[16] = {0};
    EXPECT_EQ(ZEP_ERR_GATEWAY_EXCEPTION, callProgram(tok, "FEXCEPT", area, sizeof area));
    EXPECT_TRUE(trace.has(3037, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_EXCEPTION"));
    EXPECT_TRUE(trace.has(3046, "clapi_gwycon.receiverThread() Exception message: zepgw exception for program FEXCEPT"))
        << trace.text();
    char echo[8] = "again";
    EXPECT_EQ(0, callProgram(tok, "ECHO", echo, 5));
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
}

struct ErrorFlowCase {
    const char* commarea;
    int rc;
};

void PrintTo(const ErrorFlowCase& c, std::ostream* os)
{
    *os << '"' << c.commarea << '"';
}

class ErrorFlows : public Receiver, public ::testing::WithParamInterface<ErrorFlowCase> {};

TEST_P(ErrorFlows, ErrorFlowFailsOneRequestWithItsCode)
{
    open();
    TraceCapture trace(1);
    char area[16] = {0};
    strcpy(area, GetParam().commarea);
    EXPECT_EQ(GetParam().rc, callProgram(tok, "FERROR", area, sizeof area));
    EXPECT_EQ(1u, trace.find(3036).size()) << trace.text();
    char echo[8] = "more";
    EXPECT_EQ(0, callProgram(tok, "ECHO", echo, 4));
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
}

INSTANTIATE_TEST_SUITE_P(Receiver, ErrorFlows,
                         ::testing::Values(ErrorFlowCase{"", ZEP_ERR_WORK_WAS_REFUSED},
                                           ErrorFlowCase{"61451", ZEP_ERR_INVALID_REQUEST_TYPE},
                                           ErrorFlowCase{"-22", ECI_ERR_UNKNOWN_SERVER}),
                         [](const ::testing::TestParamInfo<ErrorFlowCase>& info) {
                             return "code" + std::to_string(info.index);
                         });

// Faults that end the whole connection, and what each waiting request then gets.
struct EndingFault {
    const char* program;
    int rc;          // for the faulty request and every other waiting one
    int connStatus;
};

void PrintTo(const EndingFault& c, std::ostream* os)
{
    *os << c.program;
}

class EndingFaults : public Receiver, public ::testing::WithParamInterface<EndingFault> {};

TEST_P(EndingFaults, EveryWaitingRequestFails)
{
    const EndingFault& c = GetParam();
    open();
    BackgroundCall first(tok, "HANG");
    BackgroundCall second(tok, "HANG");
    ASSERT_TRUE(awaitRequestsLogged(gw, "HANG", 2));
    BackgroundCall faulty(tok, c.program);
    EXPECT_EQ(c.rc, faulty.result());
    EXPECT_EQ(c.rc, first.result());
    EXPECT_EQ(c.rc, second.result());
    EXPECT_EQ(c.connStatus, connStatusOf(tok));
    char area[8] = "late";
    EXPECT_NE(0, callProgram(tok, "ECHO", area, 4)) << "no request is sent on an ended connection";
}

const EndingFault endingFaults[] = {
    {"STRAY", ZEP_ERR_LOSTGWCON, CONN_LOST},
    {"BADEYE", ZEP_ERR_LOSTGWCON, CONN_LOST},
    {"DROP", ZEP_ERR_LOSTGWCON, CONN_LOST},
    {"DROPMID", ZEP_ERR_LOSTGWCON, CONN_LOST},
    {"GWCLOSE", ZEP_ERR_GATEWAY_CLOSED, CONN_CLOSED},
};

INSTANTIATE_TEST_SUITE_P(Receiver, EndingFaults, ::testing::ValuesIn(endingFaults),
                         [](const ::testing::TestParamInfo<EndingFault>& info) { return info.param.program; });

TEST_F(Receiver, ReplyForAFreeSlotIsTracedAndEndsTheConnection)
{
    open();
    TraceCapture trace(2);
    BackgroundCall waiting(tok, "HANG");
    awaitWaiting(1);
    BackgroundCall stray(tok, "STRAY");
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, stray.result());
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, waiting.result());
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED));
    EXPECT_TRUE(trace.has(2062, "clapi_gwytok.slotLookup() Failed to find slot 1002 for request")) << trace.text();
}

TEST_F(Receiver, GatewayCloseIsTracedAsGateway)
{
    open();
    TraceCapture trace(2);
    BackgroundCall closing(tok, "GWCLOSE");
    EXPECT_EQ(ZEP_ERR_GATEWAY_CLOSED, closing.result());
    EXPECT_TRUE(trace.has(3042, "clapi_gwycon.receiverThread() Connection closed, initiated by Gateway; closeRc=61444 "
                                "(ZEP_ERR_GATEWAY_CLOSED)"))
        << trace.text();
}

TEST_F(Receiver, AsynchronousReplyIsQueuedForCollection)
{
    open();
    char area[16] = "async";
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_call_type = ECI_ASYNC;
    parms.eci_version = 6;
    memcpy(parms.eci_program_name, "UPPER   ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = 5;
    ASSERT_EQ(0, ZEP_ECI_Execute(tok, &parms));
    uint32_t qualifier = parms.eci_message_qualifier;
    ASSERT_TRUE(pollUntil([&] {
        ClapiLockGuard guard(&tok->tableLock);
        return tok->asyncReplyHead != nullptr;
    }));
    {
        ClapiLockGuard guard(&tok->tableLock);
        EXPECT_EQ(static_cast<int32_t>(qualifier), tok->asyncReplyHead->slotNumber);
        EXPECT_EQ(tok->asyncReplyHead, tok->asyncReplyTail);
        EXPECT_EQ(SLOT_REPLIED, tok->asyncReplyHead->slotState);
        EXPECT_EQ(1u, tok->asyncReplyEvent.flag);
        EXPECT_EQ(1u, tok->asyncReplyHead->event.flag);
    }
    memset(area, 0, sizeof area);
    parms.eci_call_type = ECI_GET_REPLY_WAIT;
    EXPECT_EQ(0, ZEP_ECI_Execute(tok, &parms));
    EXPECT_EQ(0, memcmp(area, "ASYNC", 5));
}

}  // namespace

namespace {

// A synchronous call on a thread of its own, for a Gateway that the test thread plays.
std::future<int> callInBackground(GatewayToken* tok, char* area, short length)
{
    return std::async(std::launch::async, [=] { return callProgram(tok, "ECHO", area, length); });
}

TEST(ScriptedReplies, UnexpectedRequestTypeFailsOneRequestAndTheConnectionGoesOn)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);
    TraceCapture trace(1);
    char area[8] = "odd";
    auto call = callInBackground(tok, area, 3);
    int32_t id = gateway.nextRequest();
    ASSERT_NE(0, id);
    gateway.send(ScriptedGateway::header(FLOW_REPLY, id, "XYZ", 0, 0));
    ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, call.get());
    EXPECT_TRUE(trace.has(3042, "clapi_gwycon.receiverThread() Gateway returned unexpected request type XYZ"))
        << trace.text();
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));

    // The next request is still answered on the same connection.
    auto next = callInBackground(tok, area, 3);
    id = gateway.nextRequest();
    ASSERT_NE(0, id);
    gateway.send(ScriptedGateway::header(FLOW_ERROR, id, "ECI", 0, ZEP_ERR_WORK_WAS_REFUSED));
    ASSERT_EQ(std::future_status::ready, next.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(ZEP_ERR_WORK_WAS_REFUSED, next.get());
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
    gateway.hangUp();
    ASSERT_TRUE(pollUntil([&] { return connStatusOf(tok) == CONN_LOST; }));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

TEST(ScriptedReplies, ConnectionErrorFlowAfterTheHandshakeEndsTheConnection)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);
    char area[8] = "wait";
    auto call = callInBackground(tok, area, 4);
    ASSERT_NE(0, gateway.nextRequest());
    gateway.send(ScriptedGateway::header(FLOW_ERROR, MSGID_HANDSHAKE, "BASE", 0, ZEP_ERR_WORK_WAS_REFUSED));
    ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, call.get());
    EXPECT_EQ(CONN_LOST, connStatusOf(tok));
    EXPECT_EQ(ZEP_ERR_WORK_WAS_REFUSED, __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED));
    gateway.hangUp();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

TEST(ScriptedReplies, EsiReplyCutShortEndsTheConnectionAndLeavesTheDetailsAlone)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);
    EsiDetails details;
    memset(&details, 0xAB, sizeof details);
    auto verify = std::async(std::launch::async, [&] {
        return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, &details);
    });
    int32_t id = gateway.nextRequest();
    ASSERT_NE(0, id);
    // A return code of 0 and then the message ends in the middle of the first time stamp.
    gateway.send(ScriptedGateway::header(FLOW_REPLY, id, "ESI", 8, 0) + ScriptedGateway::be32(0) +
                 ScriptedGateway::be32(2026));
    ASSERT_EQ(std::future_status::ready, verify.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, verify.get());
    EXPECT_EQ(CONN_LOST, connStatusOf(tok));
    EXPECT_NE(0, __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED));
    for (size_t i = 0; i < sizeof details; i++)
        EXPECT_EQ(0xAB, reinterpret_cast<const uint8_t*>(&details)[i]) << "byte " << i;
    gateway.hangUp();   // so that a connection wrongly left open cannot hold up the close
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

}  // namespace
