// Synchronous ECI calls with a COMMAREA against zepgw: data both ways, codes, lengths, credentials, LUWs.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>

#include "clapi_internal.h"
#include "library_support.h"
#include "trace_capture.h"

namespace {

int be32(const char* bytes)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes);
    return static_cast<int>((uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3]);
}

struct ProgramCase {
    const char* program;
    const char* input;
    const char* output;
    int rc;
    const char* abend;   // the 4 bytes copied back into eci_abend_code (zepgw sends blanks for none)
};

const ProgramCase programCases[] = {
    {"ECHO", "Hello, Gateway!", "Hello, Gateway!", 0, "    "},
    {"REVERSE", "abcdefghijklmnop", "ponmlkjihgfedcba", 0, "    "},
    {"UPPER", "mixed Case 123 text", "MIXED CASE 123 TEXT", 0, "    "},
    {"ABEND", "kept as it was", "kept as it was", ECI_ERR_TRANSACTION_ABEND, "ZA01"},
    {"FAIL", "rolled back", "rolled back", ECI_ERR_ROLLEDBACK, "    "},
    {"NOSUCH", "who am i", "who am i", ECI_ERR_TRANSACTION_ABEND, "ZUNK"},
};

TEST(EciSync, ProgramsTransformTheCommareaAndReturnTheirCodes)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    for (const ProgramCase& c : programCases) {
        SCOPED_TRACE(c.program);
        const size_t n = strlen(c.input);
        char area[64];
        memcpy(area, c.input, n);
        EciParms parms = eciBlock(ECI_SYNC, c.program, area, static_cast<int>(n));
        memcpy(parms.eci_abend_code, "xxxx", 4);
        EXPECT_EQ(c.rc, ZEP_ECI_Execute(conn.token(), &parms));
        EXPECT_EQ(std::string(c.output), std::string(area, n));
        EXPECT_EQ(0, memcmp(c.abend, parms.eci_abend_code, 4));
    }
}

struct LengthCase {
    const char* what;
    int outbound;
    int inbound;
    size_t echoed;   // bytes of the original data that come back; the rest of the 40 are zero
};

const LengthCase lengthCases[] = {
    {"whole area both ways", 0, 0, 40},
    {"inbound 10: only 10 bytes come back", 0, 10, 10},
    {"outbound 12: only 12 bytes go out", 12, 0, 12},
    {"inbound beyond the area is capped", 0, 100, 40},
    {"outbound beyond the area is capped", 300, 0, 40},
};

TEST(EciSync, InboundAndOutboundLengths)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    for (const LengthCase& c : lengthCases) {
        SCOPED_TRACE(c.what);
        char buffer[48];
        memset(buffer, 0xEE, sizeof buffer);   // 8 guard bytes after the 40-byte area
        for (int i = 0; i < 40; ++i) buffer[i] = static_cast<char>('a' + i % 26);
        EciParms parms = eciBlock(ECI_SYNC, "ECHO", buffer, 40);
        parms.commarea_outbound_length = static_cast<int16_t>(c.outbound);
        parms.commarea_inbound_length = static_cast<int16_t>(c.inbound);
        ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &parms));
        for (size_t i = 0; i < 40; ++i)
            ASSERT_EQ(i < c.echoed ? static_cast<char>('a' + i % 26) : 0, buffer[i]) << "byte " << i;
        for (size_t i = 40; i < sizeof buffer; ++i) ASSERT_EQ(static_cast<char>(0xEE), buffer[i]) << "byte " << i;
    }
}

TEST(EciSync, OversizeReplyLeavesTheByteAfterTheAreaUntouched)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char buffer[64 + 150];
    memset(buffer, 0xEE, sizeof buffer);
    memcpy(buffer, "oversize", 8);
    memset(buffer + 8, '.', 56);
    EciParms parms = eciBlock(ECI_SYNC, "OVERSIZE", buffer, 64);
    EXPECT_EQ(ECI_ERR_INVALID_DATA_LENGTH, ZEP_ECI_Execute(conn.token(), &parms));
    EXPECT_EQ(0, memcmp(buffer, "oversize", 8));
    for (size_t i = 64; i < sizeof buffer; ++i) ASSERT_EQ(static_cast<char>(0xEE), buffer[i]) << "byte " << i;

    // The connection goes on.
    char area[8] = "again";
    EciParms next = eciBlock(ECI_SYNC, "UPPER", area, sizeof area);
    EXPECT_EQ(0, ZEP_ECI_Execute(conn.token(), &next));
    EXPECT_STREQ("AGAIN", area);
}

struct WhoCase {
    const char* what;
    int version;
    const char* arrayUser;       // the 16-byte fields, NUL-padded
    const char* arrayPassword;
    const char* altTransid;      // 4 bytes or nullptr
    const char* expected;        // nullptr: only the kind is checked
};

const WhoCase whoCases[] = {
    {"version 4 sends the fixed fields", 4, "ARRAYUSER", "ARRAYPW", nullptr,
     "user=ARRAYUSER password=ARRAYPW transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
    {"16 bytes without a terminator go out whole", 3, "ABCDEFGHIJKLMNOP", "0123456789abcdef", nullptr,
     "user=ABCDEFGHIJKLMNOP password=0123456789abcdef transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
    {"version 5 sends the pointed-to texts", 5, "ARRAYUSER", "ARRAYPW", nullptr,
     "user=pointeduser password=pointedpw transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
    {"version 6 sends the pointed-to texts", 6, "ARRAYUSER", "ARRAYPW", nullptr,
     "user=pointeduser password=pointedpw transid=TRN1 system=ZEPSYS2 kind=1 timeout=17"},
    {"an alternative transaction id replaces the other", 4, "ARRAYUSER", "ARRAYPW", "ALT2",
     "user=ARRAYUSER password=ARRAYPW transid=ALT2 system=ZEPSYS2 kind=12 timeout=17"},
    {"one non-zero byte is enough", 4, "ARRAYUSER", "ARRAYPW", "\0\0\0Q", nullptr},
};

TEST(EciSync, CredentialsByVersionAndTransactionIds)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char userid[] = "pointeduser";
    char password[] = "pointedpw";
    for (const WhoCase& c : whoCases) {
        SCOPED_TRACE(c.what);
        char area[128];
        memset(area, 0, sizeof area);
        EciParms parms = eciBlock(ECI_SYNC, "WHO", area, sizeof area);
        parms.eci_version = static_cast<int16_t>(c.version);
        memcpy(parms.eci_userid, c.arrayUser, strlen(c.arrayUser));
        memcpy(parms.eci_password, c.arrayPassword, strlen(c.arrayPassword));
        parms.eci_userid_ptr = userid;
        parms.eci_password_ptr = password;
        memcpy(parms.eci_transid, "TRN1", 4);
        memcpy(parms.eci_system_name, "ZEPSYS2 ", 8);
        parms.eci_timeout = 17;
        if (c.altTransid != nullptr) memcpy(parms.eci_alt_transid, c.altTransid, 4);
        ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &parms));
        if (c.expected != nullptr) {
            EXPECT_EQ(c.expected, std::string(area));
        } else {
            // zepgw shows the transaction id as it came, NULs included.
            EXPECT_NE(std::string::npos, std::string(area, sizeof area).find("Q system=ZEPSYS2 kind=12 ")) << area;
        }
    }
}

TEST(EciSync, PasswordIsHiddenInTheBlockDumpsAndRestored)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    TraceCapture trace(4);
    char area[16] = "dump me";
    EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
    parms.eci_version = 4;
    memcpy(parms.eci_userid, "DUMPUSER", 8);
    memcpy(parms.eci_password, "SECRETPW", 8);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &parms));

    EXPECT_EQ(0, memcmp(parms.eci_password, "SECRETPW\0\0\0\0\0\0\0\0", 16));
    const std::string text = trace.text();
    EXPECT_EQ(std::string::npos, text.find("SECRETPW"));
    EXPECT_EQ(std::string::npos, text.find("53454352"));   // "SECR" in hexadecimal

    const std::string block = pointerText(&parms);
    const std::string size = std::to_string(sizeof(EciParms));
    std::vector<TraceRecord> before = trace.find(1504);
    ASSERT_EQ(1u, before.size());
    EXPECT_EQ("DATA", before[0].type);
    EXPECT_EQ("API.ZEP_ECI_Execute() EciParms=" + block + " len=" + size + " stopword=00000000", before[0].message);
    EXPECT_TRUE(trace.has(1505, "API.ZEP_ECI_Execute EciParms=" + block + " len=" + size + " stopword=00000000"));
    EXPECT_TRUE(trace.has(1561, "API.ZEP_ECI_Execute() Commarea=" + pointerText(area) + " len=16 stopword=00000000"));

    // The password field (offsets 26 to 41) shows as 16 asterisks, framed by the zero bytes around it.
    std::vector<std::string> dump = trace.linesAfter(before[0]);
    ASSERT_GE(dump.size(), 4u);
    EXPECT_NE(std::string::npos, dump[2].find("00002A2A 2A2A2A2A : ")) << dump[2];
    EXPECT_NE(std::string::npos, dump[3].find(": 2A2A2A2A 2A2A2A2A 2A2A0000 ")) << dump[3];
}

TEST(EciSync, ExtendedUnitOfWorkAcrossThreeCalls)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    char area[16];
    memset(area, 0, sizeof area);

    EciParms first = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    first.eci_extend_mode = 1;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &first));
    const int32_t token = first.eci_luw_token;
    ASSERT_NE(0, token);
    EXPECT_EQ(1, be32(area));

    EciParms second = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    second.eci_extend_mode = 1;
    second.eci_luw_token = token;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &second));
    EXPECT_EQ(token, copyOf(second.eci_luw_token));
    EXPECT_EQ(2, be32(area));

    // While a request of the unit is in flight (an asynchronous one, not yet collected), the unit is busy.
    EciParms async = eciBlock(ECI_ASYNC, "LUW", area, sizeof area);
    async.eci_extend_mode = 1;
    async.eci_luw_token = token;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &async));
    EciParms busy = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    busy.eci_extend_mode = 1;
    busy.eci_luw_token = token;
    EXPECT_EQ(ECI_ERR_ALREADY_ACTIVE, ZEP_ECI_Execute(conn.token(), &busy));
    char reply[16];
    EciParms collect = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, async.eci_message_qualifier, reply, sizeof reply);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &collect));
    EXPECT_EQ(3, be32(reply));
    EXPECT_EQ(token, copyOf(collect.eci_luw_token));

    EciParms commit = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    commit.eci_extend_mode = 2;
    commit.eci_luw_token = token;
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &commit));
    EXPECT_EQ(0, copyOf(commit.eci_luw_token));

    // The unit is over: its token names no slot any more.
    EciParms after = eciBlock(ECI_SYNC, "LUW", area, sizeof area);
    after.eci_extend_mode = 1;
    after.eci_luw_token = token;
    EXPECT_EQ(ECI_ERR_LUW_TOKEN, ZEP_ECI_Execute(conn.token(), &after));
}

TEST(EciSync, EsiReplyToAnEciRequestNeverWritesTheDetailsOfAnEarlierEsiCaller)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);

    // An ESI call on slot 1, answered with details, leaves its caller's block behind.
    EsiDetails details;
    memset(&details, 0x11, sizeof details);
    auto verify = std::async(std::launch::async, [&] {
        return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, &details);
    });
    int32_t id = gateway.nextRequest();
    ASSERT_EQ(1, id);
    std::string words;
    for (int i = 0; i < 22; i++) words += ScriptedGateway::be32(2000 + i);
    gateway.send(ScriptedGateway::header(FLOW_REPLY, id, "ESI", 92, 0) + ScriptedGateway::be32(0) + words);
    ASSERT_EQ(std::future_status::ready, verify.wait_for(std::chrono::seconds(10)));
    ASSERT_EQ(0, verify.get());
    ASSERT_EQ(2000, details.esiTime1.year);
    memset(&details, 0xAB, sizeof details);

    // An ECI call takes slot 1 next, and a faulty Gateway answers it as if it were an ESI request.
    char area[8] = "eci";
    auto call = std::async(std::launch::async, [&] {
        EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
        return ZEP_ECI_Execute(tok, &parms);
    });
    id = gateway.nextRequest();
    ASSERT_EQ(1, id);
    gateway.send(ScriptedGateway::header(FLOW_REPLY, id, "ESI", 92, 0) + ScriptedGateway::be32(0) + words);
    ASSERT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10)));
    call.get();
    for (size_t i = 0; i < sizeof details; i++)
        ASSERT_EQ(0xAB, reinterpret_cast<const uint8_t*>(&details)[i]) << "byte " << i;
    gateway.hangUp();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

}  // namespace

TEST(EciSync, FrameChecksAndRegistration)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    TraceCapture trace(1);
    char area[8] = "x";
    EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);

    EXPECT_EQ(ZEP_ERR_NULLGWTOK, ZEP_ECI_Execute(nullptr, &parms));
    EXPECT_TRUE(trace.has(1501, "API.ZEP_ECI_Execute() NULL gateway token, gwTok=(nil)"));
    EXPECT_EQ(ZEP_ERR_NULLECIPOINTER, ZEP_ECI_Execute(conn.token(), nullptr));
    EXPECT_TRUE(trace.has(1502, "API.ZEP_ECI_Execute() NULL Eci Parameter, EciParms=(nil)"));
    EXPECT_EQ(0, conn.token()->apiCalls);   // the registration was undone

    GatewayToken* stranger = reinterpret_cast<GatewayToken*>(area);
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_ECI_Execute(stranger, &parms));

    parms.eci_version = 2;
    EXPECT_EQ(ECI_ERR_INVALID_VERSION, ZEP_ECI_Execute(conn.token(), &parms));
    EXPECT_EQ(0, conn.token()->apiCalls);
}
