// Gateway tokens and their request slots: the token list of real connections (lookup, the formatted line, the
// dump), and the slot table on its own (lowest free slot first, blocks of 16 and their trimming).
#include <vector>

#include "library_support.h"

namespace {

int find(GatewayToken* tok)
{
    ClapiLockGuard guard(&gtlLock);
    return findGatewayToken(tok, nullptr);
}

TEST(TokenList, LookupFormattedLineAndDump)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(4);
    GatewayToken outsider = {};
    const std::string rule(80, '-');
    // The empty list's dump is test_cpp's; the parent a lookup gives is what the closes in test_close unlink by.
    EXPECT_EQ(FIND_TOKEN_NULL, find(nullptr));
    EXPECT_EQ(FIND_TOKEN_MISSING, find(&outsider));

    GatewayToken* list[4] = {};
    for (GatewayToken*& tok : list) ASSERT_EQ(0, ZEP_openRemoteGatewayConnectionApplid("127.0.0.1", gw.port(), &tok, 5, "APPLID1", "QUAL1"));
    EXPECT_EQ(FIND_TOKEN_MISSING, find(&outsider));

    char line[GWTOK_FORMAT_LEN];
    EXPECT_EQ(0, clapiFormatGatewayToken(list[0], line));
    EXPECT_EQ("GatwayToken(" + pointerText(list[0]) + ") eyecatcher(ZEPGWTOK) port(" + std::to_string(gw.port()) +
                  ") connStatus(" + std::to_string(CONN_OPEN) + ") socket(" + std::to_string(list[0]->socket) +
                  ") applid(APPLID1) applidQual(QUAL1) nextGwyTokPtr(" + pointerText(list[1]) + ")", std::string(line));
    std::vector<std::string> expected = {"Gateway Token List dump", rule};
    for (int i = 0; i < 4; i++) {
        clapiFormatGatewayToken(list[i], line);
        expected.push_back("Gateway Token List entry -000" + std::to_string(i + 1) + "- : " + line);
    }
    expected.push_back("Total number of Gateway Token List entries=4");
    expected.push_back(rule);
    trace.clear();
    EXPECT_EQ(0, clapiDumpGatewayTokens());
    std::vector<std::string> dumped;   // the dump's lines without the records around them
    TraceRecord record;
    for (const std::string& l : trace.lines())
        if (!TraceCapture::parseRecord(l, &record)) dumped.push_back(l);
    EXPECT_EQ(expected, dumped);
    EXPECT_EQ(0, clapiFormatGatewayToken(nullptr, line));
    EXPECT_STREQ("GatwayToken(NULL)", line);
    EXPECT_EQ(ZEP_ERR_NULLPARM, clapiFormatGatewayToken(list[0], nullptr));
    ZEP_setAPITraceLevel(1);   // below level 2 the close of all formats no token
    EXPECT_EQ(0, ZEP_closeAllGatewayConnections());
    EXPECT_EQ(0, listedTokens());
}

int chainLength(const RequestSlot* table)
{
    int count = 0;
    for (const RequestSlot* slot = table; slot != nullptr; slot = slot->nextSlot) count++;
    return count;
}

// On a first block of 16 slots as a token embeds it: the lowest free slot is taken first, a freed slot keeps
// only its results, and further blocks come and go at the end of the chain.
TEST(SlotTable, LowestFreeSlotFirstAndOnlyTheLastBlockTrims)
{
    ASSERT_EQ(0, clapiInit());
    TraceCapture trace(4);   // the blocks' DEBUG records are written as well
    RequestSlot table[SLOTS_PER_TABLE] = {};
    for (int i = 0; i < SLOTS_PER_TABLE; i++) {
        table[i].slotNumber = i + 1;
        table[i].nextSlot = i + 1 < SLOTS_PER_TABLE ? &table[i + 1] : nullptr;
    }
    std::vector<RequestSlot*> slots;
    auto take = [&] {
        RequestSlot* slot = nullptr;
        EXPECT_EQ(0, slotFind(table, 0, &slot));
        return slot;
    };
    for (int n = 1; n <= 33; n++) {
        slots.push_back(take());
        ASSERT_EQ(n, slots.back()->slotNumber);
    }
    ASSERT_EQ(48, chainLength(table));
    EsiDetails details;
    slots[1]->request.eci_luw_token = 77;
    slots[1]->flowRc = -102;
    slots[1]->esiDetailsPtr = &details;
    slotFree(table, slots[1]);
    const EciParms zero = {};
    EXPECT_EQ(0, memcmp(&zero, &slots[1]->request, sizeof zero));
    EXPECT_EQ(-102, slots[1]->flowRc);
    EXPECT_EQ(&details, slots[1]->esiDetailsPtr);
    EXPECT_EQ(slots[1], take());

    RequestSlot* block = table[15].nextSlot;
    EXPECT_EQ(slots[16], block);
    for (int i = 0; i < SLOTS_PER_TABLE; i++) EXPECT_EQ(0, memcmp(block[i].eyecatcher, "ZEPRSLOT", 8));
    for (int n = 17; n <= 32; n++) slotFree(table, slots[n - 1]);
    EXPECT_EQ(48, chainLength(table)) << "the second block is not the last while slot 33 is taken";
    slotFree(table, slots[32]);
    EXPECT_EQ(16, chainLength(table)) << "freeing slot 33 trims the third block and then the free second one";
    for (int n = 1; n <= 16; n++) slotFree(table, slots[n - 1]);
}

}  // namespace
