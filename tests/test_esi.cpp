// Password verification and change: the bytes on the wire, the answers of zepgw and a scripted Gateway, and the
// conversion of the times in a user's details.
#include <csignal>
#include <ctime>
#include <functional>
#include <thread>

#include "clapi_esi.h"
#include "library_support.h"

namespace {

using std::chrono::seconds;

struct EsiRequestCase {
    int kind;
    const char *userid, *password, *newPassword, *server;
    Bytes payload;
};

TEST(EsiWire, RequestsCarryTheirGoldenBytesAndTheDumpHidesThePasswords)
{
    const EsiRequestCase cases[] = {
        {ESI_KIND_VERIFY, "USER1", "PASSWD7", "IGNORED", "SRV1",
         Wire().i32(0).field("USER1", 10).i32(7).raw(Wire().scrambled("PASSWD7").b).field("SRV1", 8).b},
        {ESI_KIND_CHANGE, "A_LONG_USER_ID", "OLD", "NEWPASS", "",
         Wire().i32(1).field("A_LONG_USER_ID", 10).i32(3).raw(Wire().scrambled("OLD").b).fill(8, 0).i32(7)
             .raw(Wire().scrambled("NEWPASS").b).b},
    };
    for (const EsiRequestCase& c : cases) {
        SCOPED_TRACE(c.userid);
        SocketPair pair;
        TraceCapture trace(4);
        FlowHeader header = requestHeader(4, ESI_REQUEST_NAME);
        EsiRequest request;
        memset(&request, 0, sizeof request);
        request.esiKind = c.kind;
        request.userid = c.userid;
        request.password = c.password;
        request.newPassword = c.newPassword;
        memcpy(request.server, c.server, strlen(c.server));
        EXPECT_EQ(0, clapiFlowESIRequest(pair.lib, &header, &request));
        const int32_t size = (int32_t)c.payload.size();
        EXPECT_EQ(size, header.payloadLength);
        Bytes wire = pair.drain();
        EXPECT_EQ(toHex(cat({Wire().header(1, 4, "ESI", size).b, c.payload})), toHex(wire));
        EXPECT_EQ(std::vector<std::string>({"EXIT calculateESIRequestSize() size=" + std::to_string(size)}),
                  recordTexts(trace, 3238));
        // The dump shows each password, after the kind, user id and its length, as asterisks.
        std::vector<TraceRecord> data = trace.find(2526);
        ASSERT_EQ(1u, data.size());
        std::fill(wire.begin() + 50, wire.begin() + 50 + strlen(c.password), 0x2A);
        if (c.kind == ESI_KIND_CHANGE) std::fill(wire.end() - strlen(c.newPassword), wire.end(), 0x2A);
        EXPECT_EQ(toHex(wire), toHex(dumpedBytes(trace.linesAfter(data[0]))));
    }
}

TEST(EsiWire, RepliesDecodeWholeOrFail)
{
    const struct {
        uint32_t payload;
        bool closed;
        int32_t rc;
    } cases[] = {
        {92, false, 2200}, {0, false, ZEP_ERR_SYSTEM_ERROR}, {4, false, ZEP_ERR_SYSTEM_ERROR},
        {40, false, ZEP_ERR_SYSTEM_ERROR}, {40, true, ZEP_ERR_LOSTGWCON},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.payload);
        SocketPair pair;
        Wire sent;
        sent.i32(0);
        for (int32_t word = 1; word <= 22; word++) sent.i32(word * 100);
        sent.b.resize(c.payload);
        pair.feed(sent.b);
        // A closed connection loses the rest of the reply; otherwise the next message follows at once.
        if (c.closed) pair.closePeer();
        else pair.feed(Wire().i32(0x47617465).b);
        ReadBuffer in(pair.lib, c.closed ? 92 : c.payload);
        EsiReply reply;
        memset(&reply, 0, sizeof reply);
        EXPECT_EQ(c.rc, clapiReadESIResponse(&in.sb, &reply));
        if (c.closed) continue;
        EXPECT_EQ(c.rc == 2200 ? 0 : c.rc, reply.returnCode);
        if (c.rc == 2200) {
            // The second and third time arrive in swapped order.
            const EsiTime* times[3] = {&reply.details.esiTime1, &reply.details.esiTime3, &reply.details.esiTime2};
            for (int t = 0; t < 3; t++)
                for (int w = 0; w < 7; w++) EXPECT_EQ((t * 7 + w + 1) * 100, (&times[t]->year)[w]) << t << "," << w;
            EXPECT_EQ(2200, reply.details.esiCount);
        }
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
        EXPECT_EQ(0x47617465, readInt(&in.sb));
    }
}

TEST(EsiCalls, GatewayCodesMapToEsiCodes)
{
    const int mapping[][2] = {
        {-108, ESI_ERR_USERID_INVALID}, {-107, ESI_ERR_PASSWORD_REJECTED}, {-106, ESI_ERR_PASSWORD_INVALID},
        {-105, ESI_ERR_PASSWORD_EXPIRED}, {-104, ESI_ERR_PEM_NOT_ACTIVE}, {-103, ESI_ERR_PEM_NOT_SUPPORTED},
        {-102, ESI_ERR_NULL_NEW_PASSWORD}, {-101, ESI_ERR_NULL_PASSWORD}, {-100, ESI_ERR_NULL_USERID},
        {-29, -317}, {-28, -316}, {-27, ESI_ERR_SECURITY_ERROR}, {-22, ESI_ERR_UNKNOWN_SERVER},
        {-17, ESI_ERR_NO_SESSIONS}, {-16, ESI_ERR_RESOURCE_SHORTAGE}, {-9, ESI_ERR_SYSTEM_ERROR},
        {-4, ESI_ERR_VANT_DIED}, {-3, ESI_ERR_NO_VANT}, {0, 0}, {-1, -1}, {-30, -30}, {-300, -300}, {61445, 61445},
    };
    for (const auto& m : mapping) EXPECT_EQ(m[1], mapGwyRc(m[0])) << m[0];
    char name[40];
    EXPECT_STREQ("UNKNOWN", ZEP_getRcString(mapGwyRc(-29), name));
    EXPECT_STREQ("UNKNOWN", ZEP_getRcString(mapGwyRc(-28), name));
}

TEST(EsiCalls, AnswersOfZepgwAndTextsRefusedBeforeSending)
{
    GatewayConnection conn({"-v"});
    ASSERT_TRUE(conn.ok());
    GatewayToken* tok = conn.token();
    const struct {
        const char *userid, *password, *newPassword, *server;   // newPassword nullptr: verify
        int rc;
    } answers[] = {
        {"ZEPUSER", "ZEPPASS1", nullptr, nullptr, 0},
        {"ALICE", "WONDER11", nullptr, "ZEPSYS2", 0},
        {"NOBODY", "whatever", nullptr, nullptr, ESI_ERR_USERID_INVALID},
        {"ZEPUSER", "WRONGPW1", nullptr, nullptr, ESI_ERR_PASSWORD_INVALID},
        {"EXPIRED", "OLDPASS1", nullptr, nullptr, ESI_ERR_PASSWORD_EXPIRED},
        {"ZEPUSER", "ZEPPASS1", nullptr, "NOSUCHSV", ESI_ERR_UNKNOWN_SERVER},
        {"ALICE", "WONDER11", "abc", nullptr, ESI_ERR_PASSWORD_REJECTED},
        {"EXPIRED", "OLDPASS1", "NEWPASS2", nullptr, 0},
        {"EXPIRED", "NEWPASS2", nullptr, nullptr, 0},   // the new password counts
    };
    for (const auto& c : answers) {
        SCOPED_TRACE(std::string(c.userid) + " " + c.password);
        EsiDetails details;
        memset(&details, 0x5A, sizeof details);
        int rc = c.newPassword == nullptr
                     ? ZEP_ESI_verifyPassword(tok, c.userid, c.password, c.server, &details)
                     : ZEP_ESI_changePassword(tok, c.userid, c.password, c.newPassword, c.server, &details);
        EXPECT_EQ(c.rc, rc);
        EXPECT_EQ(rc != 0, details.esiCount == 0x5A5A5A5A);   // details on success only
    }
    auto esiRequestsSeen = [&conn] {
        const std::string log = conn.zepgw().log();
        size_t count = 0;
        for (size_t at = log.find(" ESI kind "); at != std::string::npos; at = log.find(" ESI kind ", at + 1)) ++count;
        return count;
    };
    TraceCapture trace(1);
    const struct {
        int rc, id;
        std::function<int()> call;
        const char* message;   // up to the caller's pointer
    } refused[] = {
        {ESI_ERR_NULL_USERID, 1802, [tok] { return ZEP_ESI_verifyPassword(tok, "", "pw", nullptr, nullptr); },
         "API.ZEP_ESI_verifyPassword() NULL user id, userid="},
        {ESI_ERR_NULL_PASSWORD, 1803, [tok] { return ZEP_ESI_verifyPassword(tok, "U", nullptr, nullptr, nullptr); },
         "API.ZEP_ESI_verifyPassword() NULL password, password="},
        {ESI_ERR_NULL_USERID, 1808, [tok] { return ZEP_ESI_changePassword(tok, nullptr, "a", "b", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL user id, userid="},
        {ESI_ERR_NULL_PASSWORD, 1809, [tok] { return ZEP_ESI_changePassword(tok, "U", "", "b", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL old password, oldPassword="},
        {ESI_ERR_NULL_NEW_PASSWORD, 1810, [tok] { return ZEP_ESI_changePassword(tok, "U", "a", "", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL new password, newPassword="},
        {ZEP_ERR_NULLGWTOK, 1801, [] { return ZEP_ESI_verifyPassword(nullptr, "U", "P", nullptr, nullptr); },
         "API.ZEP_ESI_verifyPassword() NULL gateway token, gwTok=(nil)"},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.message);
        trace.clear();
        EXPECT_EQ(c.rc, c.call());
        std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(c.id, records[0].id);
        EXPECT_EQ(0u, records[0].message.find(c.message)) << records[0].message;
    }
    char stranger[64] = {};   // not a token the library handed out
    GatewayToken* bad = reinterpret_cast<GatewayToken*>(stranger);
    EXPECT_EQ(ZEP_ERR_BADGWTOK, ZEP_ESI_verifyPassword(bad, "U", "P", nullptr, nullptr));
    EXPECT_EQ(0, tok->apiCalls);
    // Nothing of them reached zepgw, only the answered requests and the next proper one.
    EXPECT_EQ(0, ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr));
    ASSERT_TRUE(pollUntil([&] { return esiRequestsSeen() >= 10; }));
    EXPECT_EQ(10u, esiRequestsSeen());
}

TEST(EsiCalls, LostConnectionDuringTheWaitGivesLostConnection)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    TraceCapture trace(3);
    GatewayToken* tok = conn.token();
    ASSERT_TRUE(conn.zepgw().pause());   // zepgw keeps the request unanswered
    auto verify = std::async(std::launch::async,
                             [tok] { return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr); });
    // Once the request is written, the caller waits on its slot; then the Gateway goes away.
    ASSERT_TRUE(pollUntil([&] { return trace.hasId(3240); }));
    ASSERT_TRUE(conn.zepgw().signal(SIGKILL));
    ASSERT_EQ(std::future_status::ready, verify.wait_for(seconds(5)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, verify.get());
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr));
}

// Replies a faulty Gateway sends: its own error flows, and an ESI reply to an ECI request.
TEST(EsiCalls, ErrorFlowsAndMisdirectedRepliesLeaveTheDetailsAlone)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);
    std::string words;
    for (int i = 0; i < 22; i++) words += ScriptedGateway::be32(2000 + i);
    const std::string esiReply = ScriptedGateway::be32(0) + words;
    EsiDetails details;
    // -27 would be mapped if it came as the reply's ESI code; as the code of an error flow it is the result.
    for (int code : {ZEP_ERR_WORK_WAS_REFUSED, -27, 0}) {
        SCOPED_TRACE(code);
        memset(&details, 0xAB, sizeof details);
        auto verify = std::async(std::launch::async,
                                 [&] { return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, &details); });
        const int32_t id = gateway.nextRequest();
        ASSERT_NE(0, id);
        gateway.send(code != 0 ? ScriptedGateway::header(FLOW_ERROR, id, "ESI", 0, code)
                               : ScriptedGateway::header(FLOW_REPLY, id, "ESI", 92, 0) + esiReply);
        ASSERT_EQ(std::future_status::ready, verify.wait_for(seconds(10)));
        EXPECT_EQ(code, verify.get());
        if (code == 0) {
            ASSERT_EQ(2000, details.esiTime1.year);
            continue;
        }
        for (size_t i = 0; i < sizeof details; i++)
            ASSERT_EQ(0xAB, reinterpret_cast<const uint8_t*>(&details)[i]) << "byte " << i;
    }
    // The last ESI caller's block stays behind; an ECI call on the same slot, answered as if it were an ESI
    // request, never writes into it.
    memset(&details, 0xAB, sizeof details);
    char area[8] = "eci";
    auto call = std::async(std::launch::async, [&] {
        EciParms parms = eciBlock(ECI_SYNC, "ECHO", area, sizeof area);
        return ZEP_ECI_Execute(tok, &parms);
    });
    const int32_t id = gateway.nextRequest();
    ASSERT_EQ(1, id);
    gateway.send(ScriptedGateway::header(FLOW_REPLY, id, "ESI", 92, 0) + esiReply);
    ASSERT_EQ(std::future_status::ready, call.wait_for(seconds(10)));
    call.get();
    for (size_t i = 0; i < sizeof details; i++)
        ASSERT_EQ(0xAB, reinterpret_cast<const uint8_t*>(&details)[i]) << "byte " << i;
    gateway.hangUp();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

/* ---- Times ---- */

TEST(EsiTime, WeekdayAndDayOfYearTable)
{
    const struct {
        EsiTime in;
        int wday;
        int yday;   // 1 January is day 1
    } cases[] = {
        {{2000, 0, 1, 0, 0, 0, 0}, 6, 1},
        {{2024, 1, 29, 12, 30, 45, 0}, 4, 60},
        {{2023, 11, 31, 23, 59, 59, 0}, 0, 365},
        {{2024, 11, 31, 0, 0, 0, 0}, 2, 366},
        {{2100, 2, 1, 0, 0, 0, 0}, 2, 60},     // a leap day in the weekday only
        {{1900, 0, 1, 0, 0, 0, 0}, 1, 1},
        {{2150, 5, 15, 6, 7, 8, 0}, 1, 166},   // after the century terms change
        {{2000, 2, 1, 0, 0, 0, 0}, 3, 61},     // leap by the 400 rule
        {{1789, 6, 14, 0, 0, 0, 0}, -6, 195},  // before 1900 the weekday may be negative
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in.year);
        struct tm out;
        memset(&out, 0x5A, sizeof out);
        ASSERT_EQ(&out, ZEP_ESI_convertTime(&c.in, &out));
        const int got[] = {out.tm_wday, out.tm_yday, out.tm_year, out.tm_mon, out.tm_mday, out.tm_hour, out.tm_min,
                           out.tm_sec, out.tm_isdst};
        const int want[] = {c.wday, c.yday, c.in.year - 1900, c.in.month, c.in.day, c.in.hour, c.in.minute,
                            c.in.second, -1};
        for (size_t i = 0; i < 9; i++) EXPECT_EQ(want[i], got[i]) << "member " << i;
    }
}

TEST(EsiTime, UnsetYearBadMonthNullPointersAndTraceRecords)
{
    TraceCapture trace(4);
    struct tm out, before;
    memset(&out, 0x5A, sizeof out);
    EsiTime in = {2024, 1, 29, 12, 30, 45, 0};
    ASSERT_EQ(&out, ZEP_ESI_convertTime(&in, &out));
    char entry[128];
    snprintf(entry, sizeof entry, "API.ZEP_ESI_convertTime(esiTime=%p, result=%p)", (void*)&in, (void*)&out);
    EXPECT_TRUE(trace.has(1813, entry));
    EXPECT_TRUE(trace.has(1814, "API.ZEP_ESI_convertTime() tm members year=124, month=1, day=29, hour=12, min=30, "
                                "sec=45, wday=4, yday=60"));
    EXPECT_EQ(std::vector<std::string>{"EXIT API.ZEP_ESI_convertTime() result=" + pointerText(&out)},
              recordTexts(trace, 1815));

    EsiTime unset = {0, 5, 17, 10, 11, 12, 0};   // year 0: unset, the result is zeroed
    memset(&out, 0x5A, sizeof out);
    ASSERT_EQ(&out, ZEP_ESI_convertTime(&unset, &out));
    memset(&before, 0, sizeof before);
    EXPECT_EQ(0, memcmp(&before, &out, sizeof out));

    memset(&out, 0x5A, sizeof out);
    before = out;
    for (int month : {-1, 12, 1000000, -2147483647 - 1}) {
        trace.clear();
        in.month = month;
        EXPECT_EQ(&out, ZEP_ESI_convertTime(&in, &out));
        EXPECT_EQ(0, memcmp(&before, &out, sizeof out)) << month;
        EXPECT_EQ(std::vector<std::string>{"*EXC* API.ZEP_ESI_convertTime() Invalid month, month=" +
                                           std::to_string(month)},
                  recordTexts(trace, 1828));
    }
    EXPECT_EQ(&out, ZEP_ESI_convertTime(nullptr, &out));
    EXPECT_EQ(0, memcmp(&before, &out, sizeof out));
    EXPECT_EQ(nullptr, ZEP_ESI_convertTime(&in, nullptr));
}

}  // namespace
