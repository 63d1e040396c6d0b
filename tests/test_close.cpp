// Closing, purging and closing all connections: argument checks, what waiting calls get, time limits,
// the token list afterwards, and that many cycles leave nothing behind.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "library_support.h"
#include "trace_capture.h"


namespace {

class Close : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gw.start({"-v"})); }

    GatewayToken* open(const char* applid = "")
    {
        GatewayToken* tok = nullptr;
        EXPECT_EQ(0, openGateway(gw, &tok, applid));
        return tok;
    }

    ZepgwProcess gw;
};

struct CloseArgsCase {
    const char* what;
    bool purge;
    bool nullPtr;
    unsigned int closeTimeout;
    int rc;
    int id;
    const char* message;
};

void PrintTo(const CloseArgsCase& c, std::ostream* os)
{
    *os << c.what;
}

const CloseArgsCase closeArgsCases[] = {
    {"close NULL pointer", false, true, 0, ZEP_ERR_NULLGWTOKPTR, 1010,
     "API.ZEP_closeGatewayConnection() NULL gateway token pointer, gwTokPtr=(nil)"},
    {"close NULL token", false, false, 0, ZEP_ERR_NULLGWTOK, 1011,
     "API.ZEP_closeGatewayConnection() NULL gateway token, *gwTokPtr=(nil)"},
    {"purge NULL pointer before time-out", true, true, 5000, ZEP_ERR_NULLGWTOKPTR, 1081,
     "API.ZEP_purgeGatewayConnection() NULL gateway token pointer, gwTokPtr=(nil)"},
    {"purge NULL token before time-out", true, false, 5000, ZEP_ERR_NULLGWTOK, 1082,
     "API.ZEP_purgeGatewayConnection() NULL gateway token, *gwTokPtr=(nil)"},
};

class CloseArgs : public ::testing::TestWithParam<CloseArgsCase> {};

TEST_P(CloseArgs, NullsAreRefusedFirst)
{
    const CloseArgsCase& c = GetParam();
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    GatewayToken** tokPtr = c.nullPtr ? nullptr : &tok;
    EXPECT_EQ(c.rc, c.purge ? ZEP_purgeGatewayConnection(tokPtr, c.closeTimeout) : ZEP_closeGatewayConnection(tokPtr));
    auto records = trace.records();
    ASSERT_EQ(1u, records.size()) << trace.text();
    EXPECT_EQ(c.id, records[0].id);
    EXPECT_EQ(c.message, records[0].message);
}

INSTANTIATE_TEST_SUITE_P(Close, CloseArgs, ::testing::ValuesIn(closeArgsCases),
                         [](const ::testing::TestParamInfo<CloseArgsCase>& info) {
                             return "case" + std::to_string(info.index);
                         });

TEST_F(Close, CloseSendsTheCloseFlowAndFreesTheToken)
{
    GatewayToken* tok = open();
    GatewayToken* stale = tok;
    TraceCapture trace(3);
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
    std::string address = pointerText(stale);
    EXPECT_TRUE(trace.has(2015, "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=" + address + ", lockRequired=TRUE)"));
    EXPECT_TRUE(trace.has(3015, "clapi_gwycon.clapiCloseConnection(conn=" + address + ")"));
    EXPECT_TRUE(trace.has(3020, "clapi_gwycon.clapiCloseConnection() rc=0"));
    EXPECT_TRUE(trace.has(3042, "clapi_gwycon.receiverThread() Connection closed, initiated by API; closeRc=-140 "
                                "(ZEP_ERR_GWTOK_CLOSED)"))
        << trace.text();
    EXPECT_TRUE(trace.has(1012, "API.ZEP_closeGatewayConnection() Closed Gateway connection for token " +
                                    pointerText(&tok)));
    EXPECT_TRUE(trace.has(2079, "clapi_gwytok.quiesceConnection() rc=0"));
}

TEST_F(Close, StaleTokenIsRefusedEverywhere)
{
    GatewayToken* tok = open();
    GatewayToken* stale = tok;
    ASSERT_EQ(0, ZEP_closeGatewayConnection(&tok));
    char* text = nullptr;
    unsigned short count = 1;
    SystemInfo list[1];
    char area[8] = {0};
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_closeGatewayConnection(&stale));
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_purgeGatewayConnection(&stale, 0));
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_getApplid(stale, &text));
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_getApplidQualifier(stale, &text));
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_listSystems(stale, &count, list));
    EXPECT_EQ(ZEP_ERR_BADGWTOK, callProgram(stale, "ECHO", area, sizeof area));
    EXPECT_NE(nullptr, stale) << "a refused close leaves the variable alone";
}

TEST_F(Close, PurgeWhileACallHangsEndsAfterItsTimeLimit)
{
    GatewayToken* tok = open();
    BackgroundCall hanging(tok, "HANG");
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == 1; }));
    TraceCapture trace(2);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 2));
    double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 1.9);
    EXPECT_LT(elapsed, 10.0);
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
    EXPECT_EQ(nullptr, tok);
    EXPECT_TRUE(trace.has(2071, "clapi_gwytok.quiesceConnection() Waiting 2 seconds for 1 API calls and 0 async "
                                "requests to complete"))
        << trace.text();
}

TEST_F(Close, SecondCloseWhileTheFirstRunsIsRefused)
{
    GatewayToken* tok = open();
    GatewayToken* copy = tok;
    BackgroundCall hanging(tok, "HANG");
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == 1; }));
    auto purge = std::async(std::launch::async, [&] { return ZEP_purgeGatewayConnection(&tok, 1); });
    ASSERT_TRUE(pollUntil([&] { return __atomic_load_n(&copy->closing, __ATOMIC_RELAXED) != 0; }));
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, ZEP_closeGatewayConnection(&copy));
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, ZEP_purgeGatewayConnection(&copy, 0));
    ASSERT_EQ(std::future_status::ready, purge.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(0, purge.get());
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
}

TEST_F(Close, CloseAllClosesEveryTokenWithoutWaiting)
{
    GatewayToken* first = open();
    GatewayToken* second = open();
    GatewayToken* third = open();
    BackgroundCall hanging(second, "HANG");
    ASSERT_TRUE(awaitRequestsLogged(gw, "HANG", 1));
    TraceCapture trace(3);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
    EXPECT_EQ(0, listedTokens());
    auto closes = trace.find(2015);
    ASSERT_EQ(3u, closes.size());
    std::vector<GatewayToken*> order = {first, second, third};
    for (size_t i = 0; i < order.size(); i++)
        EXPECT_EQ("clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=" + pointerText(order[i]) + ", lockRequired=FALSE)",
                  closes[i].message);
    EXPECT_TRUE(trace.has(2037, "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=3, rc=0"));
    EXPECT_TRUE(trace.has(1015, "API.ZEP_closeAllGatewayConnections() Closed all Gateway connections"));
    char* text = nullptr;
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_getApplid(first, &text));
}

TEST_F(Close, UncollectedAsynchronousRepliesAreAbandoned)
{
    GatewayToken* tok = open();
    char area[32] = "never collected";
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_call_type = ECI_ASYNC;
    parms.eci_version = 6;
    memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    for (int i = 0; i < 2; i++) ASSERT_EQ(0, ZEP_ECI_Execute(tok, &parms));
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_REPLIED) == 2; }));
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 1));
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(nullptr, tok);
}

// An asynchronous channel call of `program` in extend mode `extendMode`; the channel stays locked until collected.
EciParms asyncChannelCall(const char* program, Channel* chan, int extendMode = 0)
{
    EciParms parms = eciBlock(ECI_ASYNC, program);
    parms.eci_extend_mode = static_cast<short>(extendMode);
    parms.eci_channel = chan;
    return parms;
}

bool channelLocked(Channel* chan)
{
    return __atomic_load_n(&chan->isLocked, __ATOMIC_RELAXED) != 0;
}

// Starts a unit of work with an asynchronous channel call and collects its reply: the slot stays kept.
void keepLuwSlotWithChannel(GatewayToken* tok, Channel* chan)
{
    EciParms start = asyncChannelCall("LUW", chan, 1);
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &start));
    EciParms collect = start;
    collect.eci_call_type = ECI_GET_REPLY_WAIT;
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &collect));
    ASSERT_NE(0, collect.eci_luw_token);
    ASSERT_EQ(1, slotsInState(tok, SLOT_LUW_KEPT));
    ASSERT_FALSE(channelLocked(chan));
}

TEST_F(Close, KeptUnitOfWorkDoesNotUnlockAChannelThatAnotherCallHolds)
{
    GatewayToken* luwTok = open();
    GatewayToken* other = open();
    Channel* chan = nullptr;
    ASSERT_EQ(0, ECI_createChannel("SHARED", &chan));
    keepLuwSlotWithChannel(luwTok, chan);
    EciParms hanging = asyncChannelCall("HANG", chan);
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(other, &hanging));
    ASSERT_TRUE(channelLocked(chan));

    EXPECT_EQ(0, ZEP_closeGatewayConnection(&luwTok));
    EXPECT_TRUE(channelLocked(chan)) << "the uncollected call on the other connection still owns the channel";

    // The quiesce gives the channel of an uncollected asynchronous call back.
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&other, 0));
    EXPECT_FALSE(channelLocked(chan));
    EXPECT_EQ(0, ECI_deleteChannel(&chan));
}

TEST_F(Close, ChannelDeletedAfterItsUnitOfWorkReplyIsNotTouchedByTheClose)
{
    GatewayToken* tok = open();
    Channel* chan = nullptr;
    ASSERT_EQ(0, ECI_createChannel("GONE", &chan));
    keepLuwSlotWithChannel(tok, chan);
    Channel* stale = chan;
    ASSERT_EQ(0, ECI_deleteChannel(&chan));
    {
        ClapiLockGuard guard(&tok->tableLock);
        for (RequestSlot* slot = tok->requestTable; slot != nullptr; slot = slot->nextSlot) {
            Channel* named = slot->request.eci_channel;   /* a packed field: read by value */
            EXPECT_NE(stale, named) << "slot " << slot->slotNumber << " still names the channel";
        }
    }
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

TEST_F(Close, CloseAllLeavesATokenThatAnotherThreadIsClosing)
{
    GatewayToken* tok = open();
    GatewayToken* copy = tok;
    BackgroundCall hanging(tok, "HANG");
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == 1; }));
    auto purge = std::async(std::launch::async, [&] { return ZEP_purgeGatewayConnection(&tok, 2); });
    ASSERT_TRUE(pollUntil([&] { return __atomic_load_n(&copy->closing, __ATOMIC_RELAXED) != 0; }));
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());
    EXPECT_EQ(1, listedTokens()) << "the purging thread still owns the token";
    ASSERT_EQ(std::future_status::ready, purge.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(0, purge.get());
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
    EXPECT_EQ(0, listedTokens());
}

TEST_F(Close, CloseAllLeavesATokenThatIsStillBeingOpened)
{
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());   // initialises the library before the test reads its list
    GatewayToken* tok = nullptr;
    auto opening = std::async(std::launch::async, [&] { return openGateway(gw, &tok, "NOHS", 3); });
    ASSERT_TRUE(pollUntil([] { return listedTokens() == 1; }));
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());
    EXPECT_EQ(1, listedTokens()) << "the opener still owns the token";
    EXPECT_EQ(std::future_status::timeout, opening.wait_for(std::chrono::milliseconds(0)));
    ASSERT_EQ(std::future_status::ready, opening.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(ZEP_ERR_CONNECTTIMEOUT, opening.get());
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
}

TEST_F(Close, CloseAllGoesOnAfterItsNextTokenWasDeletedMeanwhile)
{
    ZepgwProcess other;
    ASSERT_TRUE(other.start());
    GatewayToken* first = open();
    GatewayToken* middle = nullptr;
    ASSERT_EQ(0, openGateway(other, &middle));
    GatewayToken* last = open();
    ASSERT_NE(nullptr, last);

    // The first close waits for the Gateway's answer to its close flow while the middle token goes away.
    ASSERT_TRUE(gw.pause());
    auto closeAll = std::async(std::launch::async, [] { return ZEP_closeAllGatewayConnections(); });
    ASSERT_TRUE(pollUntil([&] { return __atomic_load_n(&first->closing, __ATOMIC_RELAXED) != 0; }));
    ASSERT_TRUE(other.stop());
    ASSERT_TRUE(pollUntil([&] { return connStatusOf(middle) != CONN_OPEN; }));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&middle));
    ASSERT_TRUE(gw.resume());

    ASSERT_EQ(std::future_status::ready, closeAll.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(0, closeAll.get());
    EXPECT_EQ(0, listedTokens()) << "the last token was closed as well";
}

TEST_F(Close, DescriptorOfAnEndedConnectionStaysTakenUntilTheTokenIsFreed)
{
    GatewayToken* tok = open();
    int descriptor = tok->socket;
    ASSERT_TRUE(gw.stop());
    ASSERT_TRUE(pollUntil([&] { return connStatusOf(tok) == CONN_LOST; }));
    int expired = 0;
    ASSERT_EQ(0, clapiTimedWaitEvent(&tok->recvThreadEndedEvent, 10, &expired));
    ASSERT_EQ(0, expired) << "the receiver thread has ended";
    // A late sender must not find the number reused by another connection or file.
    EXPECT_NE(-1, fcntl(descriptor, F_GETFD));
    int reused = dup(0);
    EXPECT_NE(descriptor, reused);
    close(reused);
    char area[8] = "late";
    EXPECT_NE(0, callProgram(tok, "ECHO", area, 4));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD)) << "freeing the token closes its descriptor";
}

}  // namespace

TEST_F(Close, PurgeTimeLimitAbove3600ComparedUnsigned)
{
    GatewayToken* tok = open();
    TraceCapture trace(1);
    EXPECT_EQ(ZEP_ERR_INVALIDTIMEOUTPARM, ZEP_purgeGatewayConnection(&tok, 3601));
    EXPECT_EQ(ZEP_ERR_INVALIDTIMEOUTPARM, ZEP_purgeGatewayConnection(&tok, static_cast<unsigned int>(-1)));
    EXPECT_TRUE(trace.has(1083, "API.ZEP_purgeGatewayConnection() Timeout value out of range, closeTimeout=3601"));
    EXPECT_TRUE(trace.has(1083, "API.ZEP_purgeGatewayConnection() Timeout value out of range, closeTimeout=-1"));
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 3600));
    EXPECT_EQ(nullptr, tok);
}

TEST_F(Close, PurgeReturnsAsSoonAsTheWorkEnds)
{
    GatewayToken* tok = open();
    BackgroundCall delayed(tok, "DELAY", "300");
    ASSERT_TRUE(awaitRequestsLogged(gw, "DELAY", 1));
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 60));
    EXPECT_LT(secondsSince(start), 10.0);
    EXPECT_EQ(0, delayed.result());
    EXPECT_EQ(0, memcmp(delayed.area(), "300", 3));
}
