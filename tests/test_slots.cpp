// The request slot table: lowest free slot first, further blocks of 16, the trim rule and its asymmetry,
// reservation for a unit of work, and the receiver's lookup; then 17 and more requests in flight on zepgw.
#include <memory>
#include <vector>

#include "library_support.h"
#include "trace_capture.h"


namespace {

// A first block of 16 slots as a token embeds it, numbered 1 to 16 and chained.
class SlotTable : public ::testing::Test {
protected:
    void SetUp() override
    {
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
        for (;;) {
            RequestSlot* last = nullptr;
            for (RequestSlot* slot = table; slot != nullptr; slot = slot->nextSlot)
                if (slot->slotState != SLOT_FREE) last = slot;
            if (last == nullptr) break;
            slotFree(table, last);
        }
        EXPECT_EQ(16, chain());
    }

    RequestSlot* take(int expectedNumber)
    {
        RequestSlot* slot = nullptr;
        EXPECT_EQ(0, slotFind(table, 0, &slot));
        EXPECT_NE(nullptr, slot);
        EXPECT_EQ(expectedNumber, slot != nullptr ? slot->slotNumber : 0);
        return slot;
    }

    // Takes slots 1 to `count`.
    std::vector<RequestSlot*> takeAll(int count)
    {
        std::vector<RequestSlot*> slots;
        for (int n = 1; n <= count; n++) slots.push_back(take(n));
        return slots;
    }

    int chain() const
    {
        int count = 0;
        for (const RequestSlot* slot = table; slot != nullptr; slot = slot->nextSlot) count++;
        return count;
    }

    int level = 0;
    RequestSlot table[SLOTS_PER_TABLE];
};

TEST_F(SlotTable, LowestFreeSlotIsTakenFirst)
{
    auto slots = takeAll(3);
    EXPECT_EQ(SLOT_ALLOCATED, slots[1]->slotState);
    slotFree(table, slots[1]);
    EXPECT_EQ(SLOT_FREE, slots[1]->slotState);
    EXPECT_EQ(slots[1], take(2));
    EXPECT_EQ(&table[3], take(4));
}

TEST_F(SlotTable, SeventeenthRequestAddsABlockThatTheLastFreeReleases)
{
    TraceCapture trace(4);
    auto slots = takeAll(17);
    ASSERT_EQ(32, chain());
    RequestSlot* block = table[15].nextSlot;
    EXPECT_EQ(slots[16], block);
    for (int i = 0; i < SLOTS_PER_TABLE; i++) {
        EXPECT_EQ(17 + i, block[i].slotNumber);
        EXPECT_EQ(0, memcmp(block[i].eyecatcher, "ZEPRSLOT", 8));
    }
    EXPECT_EQ(nullptr, block[15].nextSlot);
    std::string address = pointerText(block);
    EXPECT_TRUE(trace.has(2053, "clapi_gwytok.slotFind() Created new slot table at slotP=" + address +
                                    ", first=17, last=32"));
    EXPECT_TRUE(trace.has(2055, "clapi_gwytok.slotFind() Allocated slot 17 for request"));
    slotFree(table, slots[16]);
    EXPECT_EQ(16, chain());
    EXPECT_EQ(nullptr, table[15].nextSlot);
    EXPECT_TRUE(trace.has(2059, "clapi_gwytok.slotFree() Freeing slot table at slotP=" + address +
                                    ", first=17, last=32"));
}

TEST_F(SlotTable, OnlyTheLastBlockTrimsAndTrimmingRepeats)
{
    auto slots = takeAll(33);
    ASSERT_EQ(48, chain());
    for (int n = 17; n <= 32; n++) slotFree(table, slots[n - 1]);
    EXPECT_EQ(48, chain()) << "the second block is not the last while slot 33 is taken";
    slotFree(table, slots[32]);
    EXPECT_EQ(16, chain()) << "freeing slot 33 trims the third block and then the free second one";
}

TEST_F(SlotTable, FreeClearsTheRequestCopyAndKeepsTheResults)
{
    RequestSlot* slot = take(1);
    EsiDetails details;
    slot->request.eci_luw_token = 77;
    slot->request.eci_call_type = ECI_ASYNC;
    slot->flowRc = -102;
    slot->replyRc = -7;
    slot->esiDetailsPtr = &details;
    slotFree(table, slot);
    EciParms zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, memcmp(&zero, &slot->request, sizeof zero));
    EXPECT_EQ(-102, slot->flowRc);
    EXPECT_EQ(-7, slot->replyRc);
    EXPECT_EQ(&details, slot->esiDetailsPtr);
    EXPECT_EQ(1, slot->slotNumber);
    EXPECT_EQ(0, memcmp(slot->eyecatcher, "ZEPRSLOT", 8));
}

struct LuwCase {
    int state;         // of the slot that holds the LUW token
    int32_t asked;     // the token asked for
    int rc;
};

void PrintTo(const LuwCase& c, std::ostream* os)
{
    *os << "state " << c.state << " token " << c.asked;
}

class LuwSlots : public SlotTable, public ::testing::WithParamInterface<LuwCase> {};

TEST_P(LuwSlots, ReservedSlotIsFoundOnlyBetweenRequests)
{
    const LuwCase& c = GetParam();
    auto slots = takeAll(3);
    slots[1]->request.eci_luw_token = 500;
    slots[1]->slotState = c.state;
    RequestSlot* found = &table[0];
    EXPECT_EQ(c.rc, slotFind(table, c.asked, &found));
    EXPECT_EQ(c.rc == 0 ? slots[1] : nullptr, found);
    EXPECT_EQ(c.rc == 0 ? SLOT_ALLOCATED : c.state, slots[1]->slotState);
}

INSTANTIATE_TEST_SUITE_P(Slots, LuwSlots,
                         ::testing::Values(LuwCase{SLOT_LUW_KEPT, 500, 0}, LuwCase{SLOT_LUW_KEPT, 501, ECI_ERR_LUW_TOKEN},
                                           LuwCase{SLOT_ALLOCATED, 500, ECI_ERR_ALREADY_ACTIVE},
                                           LuwCase{SLOT_SENT, 500, ECI_ERR_ALREADY_ACTIVE},
                                           LuwCase{SLOT_REPLIED, 500, ECI_ERR_ALREADY_ACTIVE}),
                         [](const ::testing::TestParamInfo<LuwCase>& info) { return std::to_string(info.index); });

struct LookupCase {
    int state;
    int32_t messageId;
    int rc;
    bool found;
};

void PrintTo(const LookupCase& c, std::ostream* os)
{
    *os << "state " << c.state << " id " << c.messageId;
}

class Lookups : public SlotTable, public ::testing::WithParamInterface<LookupCase> {};

TEST_P(Lookups, OnlyASentSlotAcceptsAReply)
{
    const LookupCase& c = GetParam();
    TraceCapture trace(4);
    table[4].slotState = c.state;
    RequestSlot* found = &table[0];
    EXPECT_EQ(c.rc, slotLookup(table, c.messageId, &found));
    EXPECT_EQ(c.found ? &table[4] : nullptr, found);
    std::string number = std::to_string(c.messageId);
    if (c.rc == 0) {
        EXPECT_TRUE(trace.has(2063, "clapi_gwytok.slotLookup() Found slot " + number + " for request"));
    } else {
        EXPECT_TRUE(trace.has(2062, "clapi_gwytok.slotLookup() Failed to find slot " + number + " for request"));
    }
    table[4].slotState = SLOT_FREE;
}

INSTANTIATE_TEST_SUITE_P(Slots, Lookups,
                         ::testing::Values(LookupCase{SLOT_SENT, 5, 0, true},
                                           LookupCase{SLOT_FREE, 5, ZEP_ERR_SYSTEM_ERROR, true},
                                           LookupCase{SLOT_ALLOCATED, 5, ZEP_ERR_SYSTEM_ERROR, true},
                                           LookupCase{SLOT_REPLIED, 5, ZEP_ERR_SYSTEM_ERROR, true},
                                           LookupCase{SLOT_LUW_KEPT, 5, ZEP_ERR_SYSTEM_ERROR, true},
                                           LookupCase{SLOT_SENT, 40, ZEP_ERR_SYSTEM_ERROR, false}),
                         [](const ::testing::TestParamInfo<LookupCase>& info) { return std::to_string(info.index); });

class SlotsInFlight : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(gw.start({"-v"}));
        ASSERT_EQ(0, openGateway(gw, &tok));
    }

    // Starts `count` calls of `program` and waits until each holds a slot marked as sent.
    void startCalls(int count, const char* program, const char* data = "")
    {
        for (int i = 0; i < count; i++) calls.push_back(std::make_unique<BackgroundCall>(tok, program, data));
        ASSERT_TRUE(pollUntil([&] { return slotsInState(tok, SLOT_SENT) == count; }));
    }

    ZepgwProcess gw;
    GatewayToken* tok = nullptr;
    std::vector<std::unique_ptr<BackgroundCall>> calls;
};

TEST_F(SlotsInFlight, DeletingATokenFreesBlocksStillInUse)
{
    startCalls(34, "HANG");
    ASSERT_TRUE(awaitRequestsLogged(gw, "HANG", 34));
    EXPECT_EQ(48, slotsInState(tok));
    EXPECT_EQ(0, ZEP_purgeGatewayConnection(&tok, 0));
    for (auto& call : calls) EXPECT_EQ(ZEP_ERR_GWTOK_CLOSED, call->result());
}

}  // namespace
