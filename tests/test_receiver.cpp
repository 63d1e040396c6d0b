// The receiver thread against zepgw: replies reach their requests, per-request failures stay with their request,
// and every way a connection ends fails each waiting request with the right code.
#include "library_support.h"

namespace {

// Pings before every reply change nothing; an exception or error flow fails its one request only.
TEST(Receiver, PerRequestFailuresLeaveTheConnectionOpen)
{
    GatewayConnection gc;
    ASSERT_EQ(0, ZEP_closeGatewayConnection(gc.tokenPtr()));
    ASSERT_EQ(0, openGateway(gc.zepgw(), gc.tokenPtr(), "PINGY"));
    const struct { const char* program; const char* commarea; int rc; int id; const char* message; } cases[] = {
        {"UPPER", "ping", 0, 3033, "clapi_gwycon.receiverThread() Flow type is FLOW_PING"},
        {"FEXCEPT", "", ZEP_ERR_GATEWAY_EXCEPTION, 3046,
         "clapi_gwycon.receiverThread() Exception message: zepgw exception for program FEXCEPT"},
        {"FERROR", "", ZEP_ERR_WORK_WAS_REFUSED, 3036, nullptr},
        {"FERROR", "-22", ECI_ERR_UNKNOWN_SERVER, 3036, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " " + c.commarea);
        TraceCapture trace(4);
        char area[16] = {0};
        strcpy(area, c.commarea);
        EXPECT_EQ(c.rc, callProgram(gc.token(), c.program, area, sizeof area));
        if (c.rc == 0) { EXPECT_STREQ("PING", area); }
        EXPECT_TRUE(c.message != nullptr ? trace.has(c.id, c.message) : trace.find(c.id).size() == 1) << trace.text();
        char echo[8] = "more";
        EXPECT_EQ(0, callProgram(gc.token(), "ECHO", echo, 4));
        EXPECT_EQ(CONN_OPEN, connStatusOf(gc.token()));
    }
}

// Faults that end the whole connection: the faulty request and every other waiting one get the same code.
TEST(Receiver, ConnectionEndingFaultsFailEveryWaitingRequest)
{
    const struct { const char* program; int rc, connStatus, connRc, id; const char* message; } cases[] = {
        {"STRAY", ZEP_ERR_LOSTGWCON, CONN_LOST, ZEP_ERR_SYSTEM_ERROR, 2062,
         "clapi_gwytok.slotLookup() Failed to find slot 1003 for request"},
        {"BADEYE", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 3213, nullptr},
        {"DROP", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 0, nullptr},
        {"DROPMID", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 0, nullptr},
        {"GWCLOSE", ZEP_ERR_GATEWAY_CLOSED, CONN_CLOSED, 0, 3042,
         "clapi_gwycon.receiverThread() Connection closed, initiated by Gateway; closeRc=61444 (ZEP_ERR_GATEWAY_CLOSED)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        GatewayConnection gc({"-v"});
        GatewayToken* tok = gc.token();
        BackgroundCall first(tok, "HANG"), second(tok, "HANG");
        ASSERT_TRUE(awaitRequestsLogged(gc.zepgw(), "HANG", 2));
        TraceCapture trace(2);
        BackgroundCall faulty(tok, c.program);
        EXPECT_EQ(c.rc, faulty.result());
        EXPECT_EQ(c.rc, first.result());
        EXPECT_EQ(c.rc, second.result());
        EXPECT_EQ(c.connStatus, connStatusOf(tok));
        if (c.connRc != 0) { EXPECT_EQ(c.connRc, __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED)); }
        if (c.id != 0) { EXPECT_TRUE(c.message ? trace.has(c.id, c.message) : trace.hasId(c.id)) << trace.text(); }
        char area[8] = "late";
        EXPECT_NE(0, callProgram(tok, "ECHO", area, 4)) << "no request is sent on an ended connection";
    }
}

}  // namespace
