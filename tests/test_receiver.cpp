// The receiver thread against zepgw: replies reach their requests, per-request failures stay with their request,
// and every way a connection ends fails each waiting request with the right code.
#include "library_support.h"

namespace {

// Pings before every reply change nothing; an exception or error flow fails its one request only, beside two
// requests left waiting. A fault that ends the whole connection fails the faulty request and every waiting one with
// the same code, and no request is sent on the ended connection.
TEST(Receiver, FailuresEndTheirRequestOrEveryWaitingOne)
{
    const struct { const char *program, *commarea; int rc, connStatus, connRc, id; const char* message; } cases[] = {
        {"UPPER", "ping", 0, CONN_OPEN, 0, 3033, "clapi_gwycon.receiverThread() Flow type is FLOW_PING"},
        {"FEXCEPT", "", ZEP_ERR_GATEWAY_EXCEPTION, CONN_OPEN, 0, 3046,
         "clapi_gwycon.receiverThread() Exception message: zepgw exception for program FEXCEPT"},
        {"FERROR", "", ZEP_ERR_WORK_WAS_REFUSED, CONN_OPEN, 0, 3036, nullptr},
        {"FERROR", "-22", ECI_ERR_UNKNOWN_SERVER, CONN_OPEN, 0, 3036, nullptr},
        {"STRAY", "", ZEP_ERR_LOSTGWCON, CONN_LOST, ZEP_ERR_SYSTEM_ERROR, 2062,
         "clapi_gwytok.slotLookup() Failed to find slot 1003 for request"},
        {"BADEYE", "", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 3213, nullptr},
        {"DROP", "", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 0, nullptr},
        {"DROPMID", "", ZEP_ERR_LOSTGWCON, CONN_LOST, 0, 0, nullptr},
        {"GWCLOSE", "", ZEP_ERR_GATEWAY_CLOSED, CONN_CLOSED, 0, 3042,
         "clapi_gwycon.receiverThread() Connection closed, initiated by Gateway; closeRc=61444 (ZEP_ERR_GATEWAY_CLOSED)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " " + c.commarea);
        GatewayConnection gc({"-v"});
        ASSERT_EQ(0, ZEP_closeGatewayConnection(gc.tokenPtr()));
        ASSERT_EQ(0, openGateway(gc.zepgw(), gc.tokenPtr(), "PINGY"));
        GatewayToken* tok = gc.token();
        BackgroundCall first(tok, "HANG"), second(tok, "HANG");
        ASSERT_TRUE(awaitRequestsLogged(gc.zepgw(), "HANG", 2));
        TraceCapture trace(4);
        BackgroundCall faulty(tok, c.program, c.commarea);
        EXPECT_EQ(c.rc, faulty.result());
        if (c.rc == 0) { EXPECT_STREQ("PING", faulty.area()); }
        EXPECT_EQ(c.connStatus, connStatusOf(tok));
        if (c.connRc != 0) { EXPECT_EQ(c.connRc, __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED)); }
        if (c.id != 0) {
            EXPECT_TRUE(c.message ? trace.has(c.id, c.message) : trace.find(c.id).size() == 1) << trace.text();
        }
        char area[8] = "more";
        EXPECT_EQ(c.connStatus == CONN_OPEN, callProgram(tok, "ECHO", area, 4) == 0);
        if (c.connStatus == CONN_OPEN) { ASSERT_TRUE(gc.zepgw().stop()); }   // ends the waiting ones
        EXPECT_EQ(c.connStatus == CONN_OPEN ? ZEP_ERR_LOSTGWCON : c.rc, first.result());
        EXPECT_EQ(c.connStatus == CONN_OPEN ? ZEP_ERR_LOSTGWCON : c.rc, second.result());
    }
}

}  // namespace
