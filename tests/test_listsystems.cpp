// The system list against zepgw: capacity and count, the trimming of names, the Gateway's codes passed
// through, and the argument checks.
#include <string>

#include "library_support.h"
#include "trace_capture.h"


namespace {

class ListSystems : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {})
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_EQ(0, openGateway(gw, &tok));
    }

    void TearDown() override
    {
        if (tok != nullptr) {
            EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
        }
    }

    // A list of `size` entries, every byte 0x5A so that untouched bytes show.
    static std::vector<SystemInfo> marked(size_t size)
    {
        std::vector<SystemInfo> list(size);
        memset(list.data(), 0x5A, size * sizeof(SystemInfo));
        return list;
    }

    static std::string field(const char* bytes, size_t length) { return std::string(bytes, length); }

    ZepgwProcess gw;
    GatewayToken* tok = nullptr;
};

TEST_F(ListSystems, BuiltInTableWithRoomToSpare)
{
    start();
    auto list = marked(5);
    unsigned short count = 5;
    EXPECT_EQ(0, ZEP_listSystems(tok, &count, list.data()));
    ASSERT_EQ(3, count);
    EXPECT_EQ(field("ZEPSYS1\0\0", 9), field(list[0].name, 9));
    EXPECT_EQ(field("ZEPSYS2\0\0", 9), field(list[1].name, 9));
    EXPECT_EQ(field("TEST\0\0\0\0\0", 9), field(list[2].name, 9));
    EXPECT_EQ(std::string("zepgw default system") + std::string(41, '\0'), field(list[0].description, 61));
    EXPECT_EQ(std::string(70, '\x5A'), field(list[3].name, 70)) << "entries past the count stay untouched";
    EXPECT_EQ(0, slotsInState(tok, SLOT_SENT) + slotsInState(tok, SLOT_ALLOCATED) + slotsInState(tok, SLOT_REPLIED));
}

TEST_F(ListSystems, NamesLoseTrailingBlanksButNeverTheirFirstByte)
{
    TempFile systems("ABC      \tthree letters\n         \tall blanks\nNINECHARS\tfull\n");
    start({"--systems", systems.path()});
    auto list = marked(3);
    unsigned short count = 3;
    EXPECT_EQ(0, ZEP_listSystems(tok, &count, list.data()));
    ASSERT_EQ(3, count);
    EXPECT_EQ(field("ABC\0\0\0\0\0\0", 9), field(list[0].name, 9));
    EXPECT_EQ(field(" \0\0\0\0\0\0\0\0", 9), field(list[1].name, 9));
    EXPECT_EQ(field("NINECHARS", 9), field(list[2].name, 9));
    EXPECT_EQ(std::string("all blanks") + std::string(51, '\0'), field(list[1].description, 61));
}

TEST_F(ListSystems, CapacityBelowTheTableGivesMoreSystemsAndStopsAtCapacity)
{
    start();
    auto list = marked(3);
    unsigned short count = 2;
    EXPECT_EQ(ZEP_ERR_MORE_SYSTEMS, ZEP_listSystems(tok, &count, list.data()));
    EXPECT_EQ(2, count);
    EXPECT_EQ(field("ZEPSYS2\0\0", 9), field(list[1].name, 9));
    EXPECT_EQ(std::string(70, '\x5A'), field(list[2].name, 70)) << "nothing is written past the capacity";
}

TEST_F(ListSystems, EmptyTableGivesNoSystems)
{
    TempFile systems("");
    start({"--systems", systems.path()});
    auto list = marked(2);
    unsigned short count = 2;
    EXPECT_EQ(ZEP_ERR_NO_SYSTEMS, ZEP_listSystems(tok, &count, list.data()));
    EXPECT_EQ(0, count);
    EXPECT_EQ(std::string(70, '\x5A'), field(list[0].name, 70));
}

TEST_F(ListSystems, ArgumentChecks)
{
    start();
    TraceCapture trace(1);
    unsigned short count = 1;
    SystemInfo list[1];
    EXPECT_EQ(ZEP_ERR_NULLGWTOK, ZEP_listSystems(nullptr, &count, list));
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_listSystems(tok, nullptr, list));
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_listSystems(tok, &count, nullptr));
    EXPECT_TRUE(trace.has(1018, "API.ZEP_listSystems() NULL gateway token, gwTok=(nil)"));
    EXPECT_TRUE(trace.has(1019, "API.ZEP_listSystems() NULL Systems Parameter, Systems=(nil)"));
    EXPECT_TRUE(trace.has(1020, "API.ZEP_listSystems() NULL List Parameter, List=(nil)"));
    EXPECT_EQ(0, tok->apiCalls) << "every registration is undone";
}

}  // namespace
