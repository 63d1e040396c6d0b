// Synchronous ECI calls against zepgw: data both ways, codes, lengths, credentials, LUWs, and channels.
#include "library_support.h"

namespace {

using std::chrono::seconds;

int execChannel(GatewayToken* tok, EciParms&& parms) { return ZEP_ECI_Execute_Channel(tok, &parms); }

EciParms block(int callType, const char* program, void* area, int length, int extendMode = 0, int32_t luw = 0,
               Channel* channel = nullptr)
{
    EciParms parms = eciBlock(callType, program, area, length, extendMode, luw);
    parms.eci_channel = channel;
    return parms;
}

// Every test here runs on a fresh zepgw with an open token.
class EciSync : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(conn.ok()); }
    GatewayConnection conn;
    GatewayToken* tok = conn.token();
};

// The COMMAREA lengths, and the credentials sent by block version.
TEST_F(EciSync, LengthsAndCredentials)
{
    // Outbound and inbound lengths, capped at the 40-byte area; 8 guard bytes follow it. `echoed`: bytes of the
    // original data that come back, the rest of the 40 being zero.
    const struct { int outbound, inbound, echoed; } lengths[] = {{0, 0, 40}, {0, 10, 10}, {12, 0, 12}, {0, 100, 40}, {300, 0, 40}};
    const std::string sent = "abcdefghijklmnopqrstuvwxyzabcdefghijklmn";
    for (const auto& c : lengths) {
        char buffer[48];
        memset(buffer, 0xEE, sizeof buffer);
        memcpy(buffer, sent.data(), 40);
        EciParms parms = eciBlock(ECI_SYNC, "ECHO", buffer, 40);
        parms.commarea_outbound_length = static_cast<int16_t>(c.outbound);
        parms.commarea_inbound_length = static_cast<int16_t>(c.inbound);
        ASSERT_EQ(0, ZEP_ECI_Execute(tok, &parms));
        EXPECT_EQ(sent.substr(0, c.echoed) + std::string(40 - c.echoed, '\0') + std::string(8, '\xEE'),
                  std::string(buffer, 48)) << c.outbound << " " << c.inbound;
    }
    // Versions 5 and 6 send the pointed-to credentials; 16 bytes without a terminator go out whole; any non-zero
    // byte of the alternative transaction id counts.
    const struct { int version; const char *user, *password, *altTransid, *shown; } who[] = {
        {4, "ARRAYUSER", "ARRAYPW", nullptr, "user=ARRAYUSER password=ARRAYPW transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
        {3, "ABCDEFGHIJKLMNOP", "0123456789abcdef", nullptr,
         "user=ABCDEFGHIJKLMNOP password=0123456789abcdef transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
        {5, "ARRAYUSER", "ARRAYPW", nullptr, "user=pointeduser password=pointedpw transid=TRN1 system=ZEPSYS2 kind=1 "},
        {4, "ARRAYUSER", "ARRAYPW", "\0\0\0Q", "Q system=ZEPSYS2 kind=12 "},
    };
    char userid[] = "pointeduser", password[] = "pointedpw";
    for (const auto& c : who) {
        char area[128] = {};
        EciParms parms = eciBlock(ECI_SYNC, "WHO", area, sizeof area);
        parms.eci_version = static_cast<int16_t>(c.version);
        memcpy(parms.eci_userid, c.user, strlen(c.user));
        memcpy(parms.eci_password, c.password, strlen(c.password));
        parms.eci_userid_ptr = userid;
        parms.eci_password_ptr = password;
        memcpy(parms.eci_transid, "TRN1", 4);
        memcpy(parms.eci_system_name, "ZEPSYS2 ", 8);
        parms.eci_timeout = 17;
        if (c.altTransid != nullptr) memcpy(parms.eci_alt_transid, c.altTransid, 4);
        ASSERT_EQ(0, ZEP_ECI_Execute(tok, &parms));
        EXPECT_NE(std::string::npos, std::string(area, sizeof area).find(c.shown)) << area;
    }
}

TEST_F(EciSync, PasswordIsHiddenInTheBlockDumpsAndRestored)
{
    TraceCapture trace(4);
    char area[16] = "dump me";
    EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
    parms.eci_version = 4;
    memcpy(parms.eci_userid, "DUMPUSER", 8);
    memcpy(parms.eci_password, "SECRETPW", 8);
    ASSERT_EQ(0, ZEP_ECI_Execute(tok, &parms));
    EXPECT_EQ(0, memcmp(parms.eci_password, "SECRETPW\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(std::string::npos, trace.text().find("SECRETPW"));
    EXPECT_EQ(std::string::npos, trace.text().find("53454352"));   // "SECR" in hexadecimal
    const std::string tail = pointerText(&parms) + " len=" + std::to_string(sizeof(EciParms)) + " stopword=00000000";
    EXPECT_EQ(std::vector<std::string>{"DATA API.ZEP_ECI_Execute() EciParms=" + tail}, recordTexts(trace, 1504));
    EXPECT_TRUE(trace.has(1505, "API.ZEP_ECI_Execute EciParms=" + tail));
    EXPECT_TRUE(trace.has(1561, "API.ZEP_ECI_Execute() Commarea=" + pointerText(area) + " len=16 stopword=00000000"));
    // The password field (offsets 26 to 41) shows as 16 asterisks, framed by the zero bytes around it.
    std::vector<std::string> dump = trace.linesAfter(trace.find(1504).at(0));
    ASSERT_GE(dump.size(), 4u);
    EXPECT_NE(std::string::npos, dump[2].find("00002A2A 2A2A2A2A : ")) << dump[2];
    EXPECT_NE(std::string::npos, dump[3].find(": 2A2A2A2A 2A2A2A2A 2A2A0000 ")) << dump[3];
}

int be32(const char* b) { return (uint8_t)b[0] << 24 | (uint8_t)b[1] << 16 | (uint8_t)b[2] << 8 | (uint8_t)b[3]; }

TEST_F(EciSync, ExtendedUnitOfWorkAcrossThreeCalls)
{
    char area[16] = {}, reply[16];
    const int32_t token = called(tok, block(ECI_SYNC, "LUW", area, sizeof area, 1)).eci_luw_token;
    ASSERT_NE(0, token);
    EXPECT_EQ(1, be32(area));
    // While a request of the unit is in flight (an asynchronous one, not yet collected), the unit is busy.
    const uint32_t q = called(tok, block(ECI_ASYNC, "LUW", area, sizeof area, 1, token)).eci_message_qualifier;
    EXPECT_EQ(ECI_ERR_ALREADY_ACTIVE, exec(tok, block(ECI_SYNC, "LUW", area, sizeof area, 1, token)));
    const EciParms collected = called(tok, replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, q, reply, sizeof reply));
    EXPECT_EQ(token, copyOf(collected.eci_luw_token));
    EXPECT_EQ(2, be32(reply));
    EXPECT_EQ(0, copyOf(called(tok, block(ECI_SYNC, "LUW", area, sizeof area, 2, token)).eci_luw_token));
    // The unit is over: its token names no slot any more.
    EXPECT_EQ(ECI_ERR_LUW_TOKEN, exec(tok, block(ECI_SYNC, "LUW", area, sizeof area, 1, token)));
}

TEST_F(EciSync, FrameChecksAndRegistration)
{
    TraceCapture trace(1);
    char area[8] = "x";
    EXPECT_EQ(ZEP_ERR_NULLGWTOK, exec(nullptr, eciBlock(ECI_SYNC, "ECHO", area, sizeof area)));
    EXPECT_TRUE(trace.has(1501, "API.ZEP_ECI_Execute() NULL gateway token, gwTok=(nil)"));
    EXPECT_EQ(ZEP_ERR_NULLECIPOINTER, ZEP_ECI_Execute(tok, nullptr));
    EXPECT_TRUE(trace.has(1502, "API.ZEP_ECI_Execute() NULL Eci Parameter, EciParms=(nil)"));
    EXPECT_EQ(0, tok->apiCalls);   // every registration was undone
}

TEST_F(EciSync, RefusedChannelCallsLeaveTheChannelFree)
{
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("CHANGES", &channel));
    char area[8];
    const struct { int callType, extendMode; Channel* channel; void* commarea; int rc; } checks[] = {
        {ECI_SYNC, 0, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL}, {ECI_ASYNC, 0, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL},
        {ECI_SYNC, 2, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL}, {ECI_SYNC, 0, nullptr, area, ECI_ERR_INVALID_CHANNEL},
        {ECI_SYNC, 0, channel, area, ECI_ERR_COMMAREA_AND_CHANNEL}, {ECI_GET_REPLY, 0, nullptr, nullptr, ECI_ERR_NO_REPLY},
        {ECI_SYNC, 3, channel, nullptr, ECI_ERR_INVALID_EXTEND_MODE},
    };
    for (int traced : {0, 1}) {   // the records of the first two, from the traced round
        TraceCapture trace(traced ? 1 : 0);
        for (const auto& c : checks)
            EXPECT_EQ(c.rc, execChannel(tok, block(c.callType, "CHANNEL", c.commarea, c.commarea ? 8 : 0, c.extendMode,
                                                   0, c.channel))) << c.callType << " " << c.extendMode;
        if (!traced) continue;
        EXPECT_TRUE(trace.has(1510, "API.ZEP_ECI_Execute_Channel() NULL channel, channel=(nil)"));
        EXPECT_TRUE(trace.has(1511, "API.ZEP_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, "
                                    "channel=" + pointerText(channel) + ", eci_commarea=" + pointerText(area)));
    }
    EciParms old = block(ECI_SYNC, "CHANNEL", nullptr, 0, 0, 0, channel);
    old.eci_version = 3;
    EXPECT_EQ(ECI_ERR_INVALID_VERSION, ZEP_ECI_Execute_Channel(tok, &old));
    EXPECT_EQ(0, channel->isLocked);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST_F(EciSync, AsynchronousChannelCallKeepsTheChannelLockedUntilCollected)
{
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("ASYNCCHAN", &channel));
    ASSERT_EQ(0, ECI_createContainer(channel, "MODX", ECI_CHAR, 0, "xyz", 3));
    ASSERT_EQ(0, execChannel(tok, block(ECI_ASYNC, "CHANNEL", nullptr, 0, 0, 0, channel)));
    // Extend mode 2 does not lock the channel, so it goes through while the channel is held.
    auto committed = std::async(std::launch::async,
                                [&] { return execChannel(tok, block(ECI_SYNC, "ECHO", nullptr, 0, 2, 0, channel)); });
    ASSERT_EQ(std::future_status::ready, committed.wait_for(seconds(5)));
    EXPECT_EQ(0, committed.get());
    EXPECT_EQ(1, channel->isLocked);
    EXPECT_EQ(channel, copyOf(called(tok, replyBlock(ECI_GET_REPLY_WAIT, 0, nullptr, 0)).eci_channel));
    EXPECT_EQ(0, channel->isLocked);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

}  // namespace
