// Password verification and change: the bytes on the wire, the answers of zepgw and a scripted Gateway, and the
// conversion of the times in a user's details.
#include <ctime>

#include "clapi_esi.h"
#include "library_support.h"

namespace {

TEST(EsiWire, RequestsCarryTheirGoldenBytesAndTheDumpHidesThePasswords)
{
    const struct { EsiRequest request; Bytes payload; } cases[] = {
        {{ESI_KIND_VERIFY, "USER1", "PASSWD7", "IGNORED", "SRV1"},
         Wire().i32(0).field("USER1", 10).i32(7).scrambled("PASSWD7").field("SRV1", 8).b},
        {{ESI_KIND_CHANGE, "A_LONG_USER_ID", "OLD", "NEWPASS", ""},
         Wire().i32(1).field("A_LONG_USER_ID", 10).i32(3).scrambled("OLD").fill(8, 0).i32(7).scrambled("NEWPASS").b},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request.userid);
        SocketPair pair;
        TraceCapture trace(4);
        FlowHeader header = requestHeader(4, ESI_REQUEST_NAME);
        EsiRequest request = c.request;
        EXPECT_EQ(0, clapiFlowESIRequest(pair.lib, &header, &request));
        const int32_t size = (int32_t)c.payload.size();
        EXPECT_EQ(size, header.payloadLength);
        Bytes wire = pair.drain();
        EXPECT_EQ(toHex(cat({Wire().header(1, 4, "ESI", size).b, c.payload})), toHex(wire));
        // The dump shows each password, after the kind, user id and its length, as asterisks.
        std::fill(wire.begin() + 50, wire.begin() + 50 + strlen(request.password), 0x2A);
        if (request.esiKind == ESI_KIND_CHANGE) std::fill(wire.end() - strlen(request.newPassword), wire.end(), 0x2A);
        EXPECT_EQ(toHex(wire), toHex(dumpedBytes(trace.linesAfter(trace.find(2526).at(0)))));
    }
}

// A reply is 23 words; the second and third time arrive in swapped order. Cut short it fails and the stream stays
// in step for the next message, unless the connection closed.
TEST(EsiWire, RepliesDecodeWholeOrFail)
{
    const struct { uint32_t payload; bool closed; int32_t rc; } cases[] = {
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
        if (c.closed) pair.closePeer();
        else pair.feed(Wire().i32(0x47617465).b);
        ReadBuffer in(pair.lib, c.closed ? 92 : c.payload);
        EsiReply reply;
        memset(&reply, 0, sizeof reply);
        EXPECT_EQ(c.rc, clapiReadESIResponse(&in.sb, &reply));
        if (c.closed) continue;
        EXPECT_EQ(c.rc == 2200 ? 0 : c.rc, reply.returnCode);
        const EsiTime* times[3] = {&reply.details.esiTime1, &reply.details.esiTime3, &reply.details.esiTime2};
        for (int t = 0; c.rc == 2200 && t < 3; t++)
            for (int w = 0; w < 7; w++) EXPECT_EQ((t * 7 + w + 1) * 100, (&times[t]->year)[w]) << t << "," << w;
        EXPECT_EQ(c.rc == 2200 ? 2200 : 0, reply.details.esiCount);
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

// zepgw's answers, and texts refused before anything is sent (id: the one exception record, 0 for none). The
// refused calls come first: the answered ones after them prove that none of them reached zepgw.
TEST(EsiCalls, AnswersOfZepgwAndTextsRefusedBeforeSending)
{
    GatewayConnection conn({"-v"});
    ASSERT_TRUE(conn.ok());
    char stranger[64] = {};   // not a token the library handed out
    GatewayToken* const tokens[] = {conn.token(), nullptr, reinterpret_cast<GatewayToken*>(stranger)};
    // token indexes tokens; newPassword nullptr: verify; message: up to the caller's pointer.
    const struct { int token; const char *userid, *password, *newPassword, *server; int rc, id; const char* message; } cases[] = {
        {0, "", "pw", nullptr, nullptr, ESI_ERR_NULL_USERID, 1802, "API.ZEP_ESI_verifyPassword() NULL user id, userid="},
        {0, "U", nullptr, nullptr, nullptr, ESI_ERR_NULL_PASSWORD, 1803, "API.ZEP_ESI_verifyPassword() NULL password, password="},
        {0, nullptr, "a", "b", nullptr, ESI_ERR_NULL_USERID, 1808, "API.ZEP_ESI_changePassword() NULL user id, userid="},
        {0, "U", "", "b", nullptr, ESI_ERR_NULL_PASSWORD, 1809, "API.ZEP_ESI_changePassword() NULL old password, oldPassword="},
        {0, "U", "a", "", nullptr, ESI_ERR_NULL_NEW_PASSWORD, 1810, "API.ZEP_ESI_changePassword() NULL new password, newPassword="},
        {1, "U", "P", nullptr, nullptr, ZEP_ERR_NULLGWTOK, 1801, "API.ZEP_ESI_verifyPassword() NULL gateway token, gwTok=(nil)"},
        {2, "U", "P", nullptr, nullptr, ZEP_ERR_BADGWTOK, 2022, "clapi_gwytok.clapiRegisterRequest() Gateway token="},
        {0, "ZEPUSER", "ZEPPASS1", nullptr, nullptr, 0, 0, ""},
        {0, "ALICE", "WONDER11", nullptr, "ZEPSYS2", 0, 0, ""},
        {0, "ZEPUSER", "ZEPPASS1", nullptr, "NOSUCHSV", ESI_ERR_UNKNOWN_SERVER, 0, ""},
        {0, "EXPIRED", "OLDPASS1", "NEWPASS2", nullptr, 0, 0, ""},
        {0, "EXPIRED", "NEWPASS2", nullptr, nullptr, 0, 0, ""},   // the new password counts
    };
    TraceCapture trace(1);
    for (const auto& c : cases) {
        GatewayToken* tok = tokens[c.token];
        // The answered calls untraced, as most applications call; a refused one traced and untraced as well.
        for (const int level : c.id != 0 ? std::vector<int>{0, 1} : std::vector<int>{0}) {
            SCOPED_TRACE(std::string(c.userid ? c.userid : "-") + " " + (c.password ? c.password : "-") + " at level " +
                         std::to_string(level));
            EsiDetails details;
            memset(&details, 0x5A, sizeof details);
            ZEP_setAPITraceLevel(level);
            trace.clear();
            const int rc = c.newPassword == nullptr
                               ? ZEP_ESI_verifyPassword(tok, c.userid, c.password, c.server, &details)
                               : ZEP_ESI_changePassword(tok, c.userid, c.password, c.newPassword, c.server, &details);
            EXPECT_EQ(c.rc, rc);
            EXPECT_EQ(rc != 0, details.esiCount == 0x5A5A5A5A);   // details on success only
            std::vector<TraceRecord> records = trace.records();
            ASSERT_EQ(level != 0 ? 1u : 0u, records.size());
            if (level != 0) {
                EXPECT_EQ(c.id, records[0].id);
                EXPECT_EQ(0u, records[0].message.find(c.message)) << records[0].message;
            }
        }
    }
    EXPECT_EQ(0, conn.token()->apiCalls);
    auto esiRequestsSeen = [&conn] {
        const std::string log = conn.zepgw().log();
        size_t count = 0;
        for (size_t at = log.find(" ESI kind "); at != std::string::npos; at = log.find(" ESI kind ", at + 1)) ++count;
        return count;
    };
    ASSERT_TRUE(pollUntil([&] { return esiRequestsSeen() >= 5; }));
    EXPECT_EQ(5u, esiRequestsSeen());
}

/* ---- Times ---- */

// The nine members a conversion sets, "unchanged" when it left the result alone, "zeroed" when it cleared it.
std::string membersOf(const struct tm& out)
{
    struct tm pattern;
    memset(&pattern, 0x5A, sizeof pattern);
    if (memcmp(&pattern, &out, sizeof out) == 0) return "unchanged";
    if (std::string((const char*)&out, sizeof out) == std::string(sizeof out, '\0')) return "zeroed";
    char text[128];
    snprintf(text, sizeof text, "%d %d %d-%d-%d %d:%d:%d %d", out.tm_wday, out.tm_yday, out.tm_year, out.tm_mon,
             out.tm_mday, out.tm_hour, out.tm_min, out.tm_sec, out.tm_isdst);
    return text;
}

// Weekday, then day of the year counting 1 January as day 1, then the rest. A month outside the tables leaves the
// result as it was.
TEST(EsiTime, ConversionTable)
{
    const struct { EsiTime in; const char* out; } cases[] = {
        {{2000, 0, 1, 0, 0, 0, 0}, "6 1 100-0-1 0:0:0 -1"},
        {{2024, 1, 29, 12, 30, 45, 0}, "4 60 124-1-29 12:30:45 -1"},
        {{2023, 11, 31, 23, 59, 59, 0}, "0 365 123-11-31 23:59:59 -1"},
        {{2024, 11, 31, 0, 0, 0, 0}, "2 366 124-11-31 0:0:0 -1"},
        {{2100, 2, 1, 0, 0, 0, 0}, "2 60 200-2-1 0:0:0 -1"},         // a leap day in the weekday only
        {{1900, 0, 1, 0, 0, 0, 0}, "1 1 0-0-1 0:0:0 -1"},
        {{2150, 5, 15, 6, 7, 8, 0}, "1 166 250-5-15 6:7:8 -1"},      // after the century terms change
        {{2000, 2, 1, 0, 0, 0, 0}, "3 61 100-2-1 0:0:0 -1"},         // leap by the 400 rule
        {{1789, 6, 14, 0, 0, 0, 0}, "-6 195 -111-6-14 0:0:0 -1"},    // before 1900 the weekday may be negative
        {{0, 5, 17, 10, 11, 12, 0}, "zeroed"},                        // year 0: unset
        {{2024, -1, 1, 0, 0, 0, 0}, "unchanged"},
        {{2024, 12, 1, 0, 0, 0, 0}, "unchanged"},
        {{2024, -2147483647 - 1, 1, 0, 0, 0, 0}, "unchanged"},
    };
    TraceCapture trace(4);   // the records of each conversion are written as well
    for (const auto& c : cases) {
        SCOPED_TRACE(c.out);
        struct tm out;
        memset(&out, 0x5A, sizeof out);
        ASSERT_EQ(&out, ZEP_ESI_convertTime(&c.in, &out));
        EXPECT_EQ(c.out, membersOf(out));
    }
    ZEP_setAPITraceLevel(0);   // and untraced, as most applications call
    const EsiTime in = {2024, 1, 29, 12, 30, 45, 0};
    struct tm out;
    memset(&out, 0x5A, sizeof out);
    EXPECT_EQ(&out, ZEP_ESI_convertTime(nullptr, &out));
    EXPECT_EQ("unchanged", membersOf(out));
    EXPECT_EQ(nullptr, ZEP_ESI_convertTime(&in, nullptr));
    EXPECT_EQ(&out, ZEP_ESI_convertTime(&in, &out));
    EXPECT_EQ("4 60 124-1-29 12:30:45 -1", membersOf(out));
}

}  // namespace
