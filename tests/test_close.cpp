// Closing, purging and closing all connections: what waiting calls get, time limits, the token list
// afterwards, channels of kept units of work, and descriptors of ended connections.
#include <fcntl.h>

#include "library_support.h"

namespace {

class Close : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(gw.start({"-v"})); }

    GatewayToken* open()
    {
        GatewayToken* tok = nullptr;
        EXPECT_EQ(0, openGateway(gw, &tok));
        return tok;
    }

    ZepgwProcess gw;
};

bool isClosing(GatewayToken* tok) { return __atomic_load_n(&tok->closing, __ATOMIC_RELAXED) != 0; }
bool channelLocked(Channel* chan) { return __atomic_load_n(&chan->isLocked, __ATOMIC_RELAXED) != 0; }

TEST_F(Close, PurgeReturnsAsSoonAsTheWorkEnds)
{
    GatewayToken* tok = open();
    BackgroundCall delayed(tok, "DELAY", "300");
    ASSERT_TRUE(awaitRequestsLogged(gw, "DELAY", 1));
    const auto start = Clock::now();
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 60));
    EXPECT_LT(secondsSince(start), 10.0);
    EXPECT_EQ(0, delayed.result());
    EXPECT_EQ(0, memcmp(delayed.area(), "300", 3));
}

// While one thread purges a token and another still opens one, a second close or purge is refused and a close of
// all leaves both tokens to their owners. Uncollected replies and a call in progress hold the purge for its whole
// time limit, no longer.
TEST_F(Close, TokensBeingClosedOrOpenedBelongToTheirOwners)
{
    GatewayToken* tok = open();
    GatewayToken* copy = tok;
    ASSERT_NE(nullptr, open());   // listed behind it: the close of all must go past the token being purged
    char area[32] = "never collected";
    EciParms async = eciBlock(ECI_ASYNC, "ECHO", area, sizeof area);
    for (int i = 0; i < 2; i++) ASSERT_EQ(0, ZEP_ECI_Execute(tok, &async));
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_REPLIED) == 2; }));
    BackgroundCall hanging(tok, "HANG");
    ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == 1; }));
    GatewayToken* opened = nullptr;
    auto opening = std::async(std::launch::async, [&] { return openGateway(gw, &opened, "NOHS", 3); });
    ASSERT_TRUE(pollUntil([] { return listedTokens() == 3; }));
    TraceCapture trace(2);
    const auto start = Clock::now();
    auto purge = std::async(std::launch::async, [&] { return ZEP_purgeGatewayConnection(&tok, 2); });
    ASSERT_TRUE(pollUntil([&] { return isClosing(copy); }));
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, ZEP_closeGatewayConnection(&copy));
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, ZEP_purgeGatewayConnection(&copy, 0));
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());
    EXPECT_EQ(2, listedTokens()) << "the purging and the opening thread still own their tokens";
    ASSERT_EQ(std::future_status::ready, purge.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(0, purge.get());
    EXPECT_GE(secondsSince(start), 1.9);
    EXPECT_LT(secondsSince(start), 10.0);
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
    EXPECT_TRUE(trace.has(2071, "clapi_gwytok.quiesceConnection() Waiting 2 seconds for 1 API calls and 2 async "
                                "requests to complete")) << trace.text();
    ASSERT_EQ(std::future_status::ready, opening.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(ZEP_ERR_CONNECTTIMEOUT, opening.get());
    EXPECT_EQ(nullptr, opened);
    EXPECT_EQ(0, listedTokens());
}

// A close of all closes every token in list order without waiting for calls in progress, and goes on after the
// token it would close next was closed meanwhile. Tokens chain at the tail, also after the list emptied and after
// the tail token went.
TEST_F(Close, CloseAllClosesEveryTokenInOrder)
{
    ZepgwProcess other;
    ASSERT_TRUE(other.start());
    GatewayToken* gone = open();
    ASSERT_EQ(0, ZEP_closeGatewayConnection(&gone));
    GatewayToken* first = open();
    GatewayToken* middle = nullptr;
    ASSERT_EQ(0, openGateway(other, &middle));
    gone = open();
    ASSERT_EQ(0, ZEP_closeGatewayConnection(&gone));
    GatewayToken* last = open();
    const std::vector<GatewayToken*> order = {first, middle, last};
    BackgroundCall hanging(last, "HANG");
    ASSERT_TRUE(awaitRequestsLogged(gw, "HANG", 1));
    TraceCapture trace(3);
    // The first close waits for the Gateway's answer to its close flow while the middle token goes away.
    ASSERT_TRUE(gw.pause());
    auto closeAll = std::async(std::launch::async, [] { return ZEP_closeAllGatewayConnections(); });
    ASSERT_TRUE(pollUntil([&] { return isClosing(first); }));
    ASSERT_TRUE(other.stop());
    ASSERT_TRUE(pollUntil([&] { return connStatusOf(middle) != CONN_OPEN; }));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&middle));
    ASSERT_TRUE(gw.resume());
    ASSERT_EQ(std::future_status::ready, closeAll.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(0, closeAll.get());
    EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, hanging.result());
    EXPECT_EQ(0, listedTokens());
    std::vector<std::string> expected;
    for (GatewayToken* tok : order)   // the middle one closed by the application, the others by the close of all
        expected.push_back("ENTRY clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=" + pointerText(tok) +
                           (tok == order[1] ? ", lockRequired=TRUE)" : ", lockRequired=FALSE)"));
    EXPECT_EQ(expected, recordTexts(trace, 2015));
}

// Starts a unit of work with an asynchronous channel call and collects its reply: the slot stays kept.
void keepLuwSlotWithChannel(GatewayToken* tok, Channel* chan)
{
    EciParms start = eciBlock(ECI_ASYNC, "LUW");
    start.eci_extend_mode = 1;
    start.eci_channel = chan;
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &start));
    EciParms collect = start;
    collect.eci_call_type = ECI_GET_REPLY_WAIT;
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(tok, &collect));
    ASSERT_EQ(1, slotsInState(tok, SLOT_LUW_KEPT));
}

// A kept unit of work neither unlocks a channel that a call on another connection holds, nor touches its own
// channel once that is deleted.
TEST_F(Close, KeptUnitOfWorkLeavesItsChannelAlone)
{
    GatewayToken* luwTok = open();
    GatewayToken* other = open();
    Channel* shared = nullptr;
    Channel* gone = nullptr;
    ASSERT_EQ(0, ECI_createChannel("SHARED", &shared));
    ASSERT_EQ(0, ECI_createChannel("GONE", &gone));
    keepLuwSlotWithChannel(luwTok, shared);
    EciParms hanging = eciBlock(ECI_ASYNC, "HANG");
    hanging.eci_channel = shared;
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(other, &hanging));
    ASSERT_TRUE(channelLocked(shared));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&luwTok));
    EXPECT_TRUE(channelLocked(shared)) << "the uncollected call on the other connection still owns the channel";
    keepLuwSlotWithChannel(other, gone);
    Channel* stale = gone;
    ASSERT_EQ(0, ECI_deleteChannel(&gone));
    {
        ClapiLockGuard guard(&other->tableLock);
        for (RequestSlot* slot = other->requestTable; slot != nullptr; slot = slot->nextSlot)
            EXPECT_NE(stale, copyOf(slot->request.eci_channel)) << "slot " << slot->slotNumber;
    }
    // The quiesce gives the channel of an uncollected asynchronous call back.
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&other, 0));
    EXPECT_FALSE(channelLocked(shared));
    EXPECT_EQ(0, ECI_deleteChannel(&shared));
}

TEST_F(Close, DescriptorOfAnEndedConnectionStaysTakenUntilTheTokenIsFreed)
{
    GatewayToken* tok = open();
    const int descriptor = tok->socket;
    ASSERT_TRUE(gw.stop());
    ASSERT_TRUE(pollUntil([&] { return connStatusOf(tok) == CONN_LOST; }));
    int expired = 0;
    ASSERT_EQ(0, clapiTimedWaitEvent(&tok->recvThreadEndedEvent, 10, &expired));
    ASSERT_EQ(0, expired) << "the receiver thread has ended";
    // A late sender must not find the number reused by another connection or file.
    EXPECT_NE(-1, fcntl(descriptor, F_GETFD)) << "still open, so no new descriptor can take the number";
    char area[8] = "late";
    EXPECT_NE(0, callProgram(tok, "ECHO", area, 4));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr)) << "ESI too";
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD)) << "freeing the token closes its descriptor";
}

}  // namespace
