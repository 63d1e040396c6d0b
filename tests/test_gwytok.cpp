// Gateway tokens and their request slots, seen on their own: the token list (lookup, counting of API calls, the
// formatted line, the dumps) and the slot table (lowest free slot first, blocks of 16 and their trimming,
// reservation for a unit of work, the receiver's lookup); then 34 requests in flight on zepgw.
#include <memory>
#include <vector>

#include "library_support.h"

namespace {

// Tokens made by hand and chained into the list, so that the list functions are seen on their own.
class TokenList : public ::testing::Test {
protected:
    void TearDown() override
    {
        ClapiLockGuard guard(&gtlLock);
        gtListHeadPtr = gtListTailPtr = nullptr;
        for (GatewayToken* tok : tokens) {
            clapiDeleteEvent(&tok->requestsEnded);
            clapiDestroyLock(&tok->tableLock);
            free(tok);
        }
    }

    GatewayToken* make(int port, const char* applid = "APPL", const char* qualifier = "QUAL", bool chain = true)
    {
        GatewayToken* tok = static_cast<GatewayToken*>(calloc(1, sizeof(GatewayToken)));
        memcpy(tok->eyecatcher, "ZEPGWTOK", 8);
        tok->port = port;
        tok->socket = -1;
        strcpy(tok->applid, applid);
        strcpy(tok->applidQual, qualifier);
        clapiInitializeLock(&tok->tableLock);
        clapiCreateEvent(&tok->requestsEnded);
        tokens.push_back(tok);
        if (chain) { EXPECT_EQ(0, chainGatewayToken(tok)); }
        return tok;
    }

    int find(GatewayToken* tok, GatewayToken** parent = nullptr)
    {
        ClapiLockGuard guard(&gtlLock);
        return findGatewayToken(tok, parent);
    }

    // The dump's lines without the records around them.
    std::vector<std::string> dumped()
    {
        trace.clear();
        EXPECT_EQ(0, clapiDumpGatewayTokens());
        std::vector<std::string> plain;
        TraceRecord record;
        for (const std::string& line : trace.lines())
            if (!TraceCapture::parseRecord(line, &record)) plain.push_back(line);
        return plain;
    }

    TraceCapture trace{4};
    std::vector<GatewayToken*> tokens;
};

TEST_F(TokenList, LookupByAddressCountsEntriesPastTheSecond)
{
    GatewayToken* outsider = make(9, "OUT", "", false);
    EXPECT_EQ(FIND_TOKEN_NULL, find(nullptr));
    EXPECT_TRUE(trace.has(2048, "clapi_gwytok.findGatewayToken() Token null"));
    EXPECT_EQ(FIND_TOKEN_MISSING, find(outsider));
    EXPECT_TRUE(trace.has(2047, "clapi_gwytok.findGatewayToken() GTL is EMPTY"));
    GatewayToken* list[] = {make(1), make(2), make(3), make(4)};
    const struct { GatewayToken *tok, *parent; int entry; } cases[] = {
        {list[0], nullptr, 0}, {list[1], list[0], 0}, {list[2], list[1], 1}, {list[3], list[2], 2}};
    for (const auto& c : cases) {
        trace.clear();
        GatewayToken* parent = reinterpret_cast<GatewayToken*>(1);
        EXPECT_EQ(FIND_TOKEN_FOUND, find(c.tok, &parent));
        EXPECT_EQ(c.parent, parent);
        EXPECT_TRUE(trace.has(2046, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(" +
                                        std::to_string(c.entry) + ")")) << trace.text();
    }
    EXPECT_EQ(FIND_TOKEN_MISSING, find(outsider));
    EXPECT_TRUE(trace.has(2045, "clapi_gwytok.findGatewayToken() Token not found. GTL entries(3) head(" +
                                    pointerText(list[0]) + ") last(" + pointerText(list[3]) + ")")) << trace.text();
}

TEST_F(TokenList, RegistrationsAreCountedAndTheLastOneSignals)
{
    GatewayToken* tok = make(1);
    const std::string address = pointerText(tok);
    clapiSetEvent(&tok->requestsEnded);
    EXPECT_EQ(0, clapiRegisterRequest(tok));
    EXPECT_EQ(0, clapiRegisterRequest(tok));
    EXPECT_EQ(2, tok->apiCalls);
    EXPECT_TRUE(trace.has(2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=2 on gwTokPtr=" + address));
    EXPECT_EQ(0, clapiUnregisterRequest(tok));
    EXPECT_EQ(0u, tok->requestsEnded.flag);
    EXPECT_EQ(0, clapiUnregisterRequest(tok));
    EXPECT_EQ(1u, tok->requestsEnded.flag);
    EXPECT_TRUE(trace.has(2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" + address));
    EXPECT_TRUE(trace.has(2028, "clapi_gwytok.clapiUnregisterRequest() rc=0"));
}

TEST_F(TokenList, FormattedLineAndDumps)
{
    const std::string rule(80, '-');
    EXPECT_EQ((std::vector<std::string>{"Gateway Token List dump", rule, "The Gateway Token List is EMPTY", rule}), dumped());
    EXPECT_TRUE(trace.has(2039, "clapi_gwytok.clapiDumpGatewayTokens() List length=0"));
    GatewayToken* first = make(2006, "APPLID1", "QUAL1");
    GatewayToken* second = make(2007, "", "");
    first->socket = 7;
    first->connStatus = CONN_LOST;
    char one[GWTOK_FORMAT_LEN], two[GWTOK_FORMAT_LEN];
    EXPECT_EQ(0, clapiFormatGatewayToken(first, one));
    EXPECT_EQ("GatwayToken(" + pointerText(first) + ") eyecatcher(ZEPGWTOK) port(2006) connStatus(3) socket(7) "
              "applid(APPLID1) applidQual(QUAL1) nextGwyTokPtr(" + pointerText(second) + ")", std::string(one));
    clapiFormatGatewayToken(second, two);
    EXPECT_EQ((std::vector<std::string>{"Gateway Token List dump", rule, std::string("Gateway Token List entry -0001- : ") + one,
                                        std::string("Gateway Token List entry -0002- : ") + two,
                                        "Total number of Gateway Token List entries=2", rule}),
              dumped());
    EXPECT_EQ(0, clapiFormatGatewayToken(nullptr, one));
    EXPECT_STREQ("GatwayToken(NULL)", one);
    EXPECT_EQ(ZEP_ERR_NULLPARM, clapiFormatGatewayToken(first, nullptr));
}

TEST(TokenCreation, TokensChainAtTheTailAlsoAfterTheListEmptied)
{
    GatewayConnection gc;
    ASSERT_EQ(0, ZEP_closeGatewayConnection(gc.tokenPtr()));
    GatewayToken* again = nullptr;
    ASSERT_EQ(0, openGateway(gc.zepgw(), &again));
    ASSERT_EQ(0, openGateway(gc.zepgw(), gc.tokenPtr()));   // closed when gc ends
    GatewayToken* second = gc.token();
    {
        ClapiLockGuard guard(&gtlLock);
        EXPECT_EQ(again, gtListHeadPtr);
        EXPECT_EQ(second, again->nextGwyTokPtr);
        EXPECT_EQ(second, gtListTailPtr);
        EXPECT_EQ(nullptr, second->nextGwyTokPtr);
    }
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&again));
    ClapiLockGuard guard(&gtlLock);
    EXPECT_EQ(second, gtListHeadPtr);
}

// A first block of 16 slots as a token embeds it, numbered 1 to 16 and chained.
class SlotTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        int level = 0;
        ZEP_getAPITraceLevel(&level);   // initialises the library
        memset(static_cast<void*>(table), 0, sizeof table);
        for (int i = 0; i < SLOTS_PER_TABLE; i++) {
            memcpy(table[i].eyecatcher, "ZEPRSLOT", 8);
            table[i].slotNumber = i + 1;
            table[i].nextSlot = i + 1 < SLOTS_PER_TABLE ? &table[i + 1] : nullptr;
        }
    }

    // Frees from the highest slot down, so that every added block is trimmed again.
    void TearDown() override
    {
        for (RequestSlot* last = table; last != nullptr;) {
            last = nullptr;
            for (RequestSlot* slot = table; slot != nullptr; slot = slot->nextSlot)
                if (slot->slotState != SLOT_FREE) last = slot;
            if (last != nullptr) slotFree(table, last);
        }
        EXPECT_EQ(16, chain());
    }

    // Takes slots 1 to `count`, checking that each is the lowest free one.
    std::vector<RequestSlot*> takeAll(int count, int first = 1)
    {
        std::vector<RequestSlot*> slots;
        for (int n = first; n < first + count; n++) {
            RequestSlot* slot = nullptr;
            EXPECT_EQ(0, slotFind(table, 0, &slot));
            EXPECT_EQ(n, slot != nullptr ? slot->slotNumber : 0);
            slots.push_back(slot);
        }
        return slots;
    }

    int chain() const
    {
        int count = 0;
        for (const RequestSlot* slot = table; slot != nullptr; slot = slot->nextSlot) count++;
        return count;
    }

    RequestSlot table[SLOTS_PER_TABLE];
};

TEST_F(SlotTable, LowestFreeSlotFirstAndFreeKeepsOnlyTheResults)
{
    auto slots = takeAll(3);
    EXPECT_EQ(SLOT_ALLOCATED, slots[1]->slotState);
    EsiDetails details;
    slots[1]->request.eci_luw_token = 77;
    slots[1]->request.eci_call_type = ECI_ASYNC;
    slots[1]->flowRc = -102;
    slots[1]->replyRc = -7;
    slots[1]->esiDetailsPtr = &details;
    slotFree(table, slots[1]);
    EXPECT_EQ(SLOT_FREE, slots[1]->slotState);
    EciParms zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, memcmp(&zero, &slots[1]->request, sizeof zero));
    EXPECT_EQ(-102, slots[1]->flowRc);
    EXPECT_EQ(-7, slots[1]->replyRc);
    EXPECT_EQ(&details, slots[1]->esiDetailsPtr);
    EXPECT_EQ(0, memcmp(slots[1]->eyecatcher, "ZEPRSLOT", 8));
    EXPECT_EQ(slots[1], takeAll(1, 2)[0]);
    EXPECT_EQ(&table[3], takeAll(1, 4)[0]);
}

TEST_F(SlotTable, FurtherBlocksAreAddedAndOnlyTheLastOneTrims)
{
    TraceCapture trace(4);
    auto slots = takeAll(33);
    ASSERT_EQ(48, chain());
    RequestSlot* block = table[15].nextSlot;
    EXPECT_EQ(slots[16], block);
    for (int i = 0; i < SLOTS_PER_TABLE; i++) {
        EXPECT_EQ(17 + i, block[i].slotNumber);
        EXPECT_EQ(0, memcmp(block[i].eyecatcher, "ZEPRSLOT", 8));
    }
    const std::string address = pointerText(block);
    EXPECT_TRUE(trace.has(2053, "clapi_gwytok.slotFind() Created new slot table at slotP=" + address + ", first=17, last=32"));
    EXPECT_TRUE(trace.has(2055, "clapi_gwytok.slotFind() Allocated slot 17 for request"));
    for (int n = 17; n <= 32; n++) slotFree(table, slots[n - 1]);
    EXPECT_EQ(48, chain()) << "the second block is not the last while slot 33 is taken";
    slotFree(table, slots[32]);
    EXPECT_EQ(16, chain()) << "freeing slot 33 trims the third block and then the free second one";
    EXPECT_EQ(nullptr, table[15].nextSlot);
    EXPECT_TRUE(trace.has(2059, "clapi_gwytok.slotFree() Freeing slot table at slotP=" + address + ", first=17, last=32"));
}

TEST_F(SlotTable, ReservedSlotIsFoundOnlyBetweenRequests)
{
    auto slots = takeAll(3);
    slots[1]->request.eci_luw_token = 500;
    const struct { int state; int32_t asked; int rc; } cases[] = {
        {SLOT_LUW_KEPT, 501, ECI_ERR_LUW_TOKEN}, {SLOT_ALLOCATED, 500, ECI_ERR_ALREADY_ACTIVE},
        {SLOT_SENT, 500, ECI_ERR_ALREADY_ACTIVE}, {SLOT_REPLIED, 500, ECI_ERR_ALREADY_ACTIVE}, {SLOT_LUW_KEPT, 500, 0}};
    for (const auto& c : cases) {
        slots[1]->slotState = c.state;
        RequestSlot* found = &table[0];
        EXPECT_EQ(c.rc, slotFind(table, c.asked, &found)) << c.state << " " << c.asked;
        EXPECT_EQ(c.rc == 0 ? slots[1] : nullptr, found);
        EXPECT_EQ(c.rc == 0 ? SLOT_ALLOCATED : c.state, slots[1]->slotState);
    }
}

TEST_F(SlotTable, OnlyASentSlotAcceptsAReply)
{
    const struct { int state; int32_t messageId; int rc; } cases[] = {
        {SLOT_SENT, 5, 0}, {SLOT_FREE, 5, ZEP_ERR_SYSTEM_ERROR}, {SLOT_ALLOCATED, 5, ZEP_ERR_SYSTEM_ERROR},
        {SLOT_REPLIED, 5, ZEP_ERR_SYSTEM_ERROR}, {SLOT_LUW_KEPT, 5, ZEP_ERR_SYSTEM_ERROR}, {SLOT_SENT, 40, ZEP_ERR_SYSTEM_ERROR}};
    for (const auto& c : cases) {
        TraceCapture trace(4);
        table[4].slotState = c.state;
        RequestSlot* found = &table[0];
        EXPECT_EQ(c.rc, slotLookup(table, c.messageId, &found)) << c.state << " " << c.messageId;
        EXPECT_EQ(c.messageId == 5 ? &table[4] : nullptr, found);
        const std::string number = std::to_string(c.messageId);
        EXPECT_TRUE(c.rc == 0 ? trace.has(2063, "clapi_gwytok.slotLookup() Found slot " + number + " for request")
                              : trace.has(2062, "clapi_gwytok.slotLookup() Failed to find slot " + number + " for request"));
    }
    table[4].slotState = SLOT_FREE;
}

TEST(SlotsInFlight, DeletingATokenFreesBlocksStillInUse)
{
    GatewayConnection gc({"-v"});
    std::vector<std::unique_ptr<BackgroundCall>> calls;
    for (int i = 0; i < 34; i++) calls.push_back(std::make_unique<BackgroundCall>(gc.token(), "HANG"));
    ASSERT_TRUE(awaitRequestsLogged(gc.zepgw(), "HANG", 34));
    EXPECT_EQ(48, slotsInState(gc.token()));
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(gc.tokenPtr(), 0));
    for (auto& call : calls) EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, call->result());
}

}  // namespace
