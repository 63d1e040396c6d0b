// Password verification and change against zepgw, and the mapping of the Gateway's codes.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <string>

#include "clapi_esi.h"
#include "clapi_internal.h"
#include "library_support.h"
#include "trace_capture.h"

namespace {

using std::chrono::seconds;

// How many ESI requests zepgw has answered, from its -v log.
size_t esiRequestsSeen(ZepgwProcess& gw)
{
    const std::string log = gw.log();
    size_t count = 0;
    for (size_t at = log.find(" ESI kind "); at != std::string::npos; at = log.find(" ESI kind ", at + 1)) ++count;
    return count;
}

TEST(EsiCalls, GatewayCodesMapToEsiCodes)
{
    const struct {
        int gateway;
        int esi;
    } mapping[] = {
        {-108, ESI_ERR_USERID_INVALID}, {-107, ESI_ERR_PASSWORD_REJECTED}, {-106, ESI_ERR_PASSWORD_INVALID},
        {-105, ESI_ERR_PASSWORD_EXPIRED}, {-104, ESI_ERR_PEM_NOT_ACTIVE}, {-103, ESI_ERR_PEM_NOT_SUPPORTED},
        {-102, ESI_ERR_NULL_NEW_PASSWORD}, {-101, ESI_ERR_NULL_PASSWORD}, {-100, ESI_ERR_NULL_USERID},
        {-29, -317}, {-28, -316}, {-27, ESI_ERR_SECURITY_ERROR}, {-22, ESI_ERR_UNKNOWN_SERVER},
        {-17, ESI_ERR_NO_SESSIONS}, {-16, ESI_ERR_RESOURCE_SHORTAGE}, {-9, ESI_ERR_SYSTEM_ERROR},
        {-4, ESI_ERR_VANT_DIED}, {-3, ESI_ERR_NO_VANT},
        {0, 0}, {-1, -1}, {-30, -30}, {-300, -300}, {61445, 61445},
    };
    for (const auto& m : mapping) EXPECT_EQ(m.esi, mapGwyRc(m.gateway)) << m.gateway;
    char name[40];
    EXPECT_STREQ("UNKNOWN", ZEP_getRcString(mapGwyRc(-29), name));
    EXPECT_STREQ("UNKNOWN", ZEP_getRcString(mapGwyRc(-28), name));
}

TEST(EsiCalls, GatewayAnswersMapToEsiCodes)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    const struct {
        const char* what;
        const char* userid;
        const char* password;
        const char* newPassword;   // nullptr: verify
        const char* server;
        int rc;
    } cases[] = {
        {"right password", "ZEPUSER", "ZEPPASS1", nullptr, nullptr, 0},
        {"named server", "ALICE", "WONDER11", nullptr, "ZEPSYS2", 0},
        {"unknown user", "NOBODY", "whatever", nullptr, nullptr, ESI_ERR_USERID_INVALID},
        {"wrong password", "ZEPUSER", "WRONGPW1", nullptr, nullptr, ESI_ERR_PASSWORD_INVALID},
        {"expired password", "EXPIRED", "OLDPASS1", nullptr, nullptr, ESI_ERR_PASSWORD_EXPIRED},
        {"unknown server", "ZEPUSER", "ZEPPASS1", nullptr, "NOSUCHSV", ESI_ERR_UNKNOWN_SERVER},
        {"new password too short", "ALICE", "WONDER11", "abc", nullptr, ESI_ERR_PASSWORD_REJECTED},
        {"new password same as old", "ALICE", "WONDER11", "WONDER11", nullptr, ESI_ERR_PASSWORD_REJECTED},
        {"change of an expired password", "EXPIRED", "OLDPASS1", "NEWPASS2", nullptr, 0},
        {"the new password counts", "EXPIRED", "NEWPASS2", nullptr, nullptr, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EsiDetails details;
        memset(&details, 0x5A, sizeof details);
        int rc = c.newPassword == nullptr
                     ? ZEP_ESI_verifyPassword(conn.token(), c.userid, c.password, c.server, &details)
                     : ZEP_ESI_changePassword(conn.token(), c.userid, c.password, c.newPassword, c.server, &details);
        EXPECT_EQ(c.rc, rc);
        if (rc != 0) {
            EXPECT_EQ(0x5A5A5A5A, details.esiCount);   // no details on failure
        }
    }
}

TEST(EsiCalls, DetailsArriveInTheirOwnWordOrder)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    EsiDetails details;
    memset(&details, 0, sizeof details);
    ASSERT_EQ(0, ZEP_ESI_verifyPassword(conn.token(), "ALICE", "WONDER11", nullptr, &details));
    // zepgw: user k=1 of its table, time t: year 2020+t, month k, day 1+k, hour 8+t, minute 5k, second 10t+k.
    const EsiTime* times[] = {&details.esiTime1, &details.esiTime2, &details.esiTime3};
    for (int t = 1; t <= 3; ++t) {
        SCOPED_TRACE(t);
        const EsiTime& got = *times[t - 1];
        EXPECT_EQ(2020 + t, got.year);
        EXPECT_EQ(1, got.month);
        EXPECT_EQ(2, got.day);
        EXPECT_EQ(8 + t, got.hour);
        EXPECT_EQ(5, got.minute);
        EXPECT_EQ(10 * t + 1, got.second);
        EXPECT_EQ(0, got.reserved);
    }
    EXPECT_EQ(1, details.esiCount);
    ASSERT_EQ(0, ZEP_ESI_verifyPassword(conn.token(), "ALICE", "WONDER11", nullptr, &details));
    EXPECT_EQ(2, details.esiCount);
}

TEST(EsiCalls, MissingTextsAreRefusedWithoutSendingAnything)
{
    GatewayConnection conn({"-v"});
    ASSERT_TRUE(conn.ok());
    TraceCapture trace(1);
    GatewayToken* tok = conn.token();
    const struct {
        const char* what;
        int rc;
        int id;
        std::function<int()> call;
        const char* message;
    } cases[] = {
        {"empty user id", ESI_ERR_NULL_USERID, 1802, [tok] { return ZEP_ESI_verifyPassword(tok, "", "pw", nullptr, nullptr); },
         "API.ZEP_ESI_verifyPassword() NULL user id, userid=%p"},
        {"null password", ESI_ERR_NULL_PASSWORD, 1803, [tok] { return ZEP_ESI_verifyPassword(tok, "U", nullptr, nullptr, nullptr); },
         "API.ZEP_ESI_verifyPassword() NULL password, password=%p"},
        {"null user id on change", ESI_ERR_NULL_USERID, 1808,
         [tok] { return ZEP_ESI_changePassword(tok, nullptr, "a", "b", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL user id, userid=%p"},
        {"empty old password", ESI_ERR_NULL_PASSWORD, 1809,
         [tok] { return ZEP_ESI_changePassword(tok, "U", "", "b", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL old password, oldPassword=%p"},
        {"empty new password", ESI_ERR_NULL_NEW_PASSWORD, 1810,
         [tok] { return ZEP_ESI_changePassword(tok, "U", "a", "", nullptr, nullptr); },
         "API.ZEP_ESI_changePassword() NULL new password, newPassword=%p"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        trace.clear();
        EXPECT_EQ(c.rc, c.call());
        std::vector<TraceRecord> records = trace.records();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(c.id, records[0].id);
        // The pointer printed is the caller's text, which the test cannot name here: compare the words only.
        const std::string prefix = std::string(c.message).substr(0, strlen(c.message) - 2);
        EXPECT_EQ(0u, records[0].message.find(prefix)) << records[0].message;
    }
    EXPECT_EQ(ZEP_ERR_NULLGWTOK, ZEP_ESI_verifyPassword(nullptr, "U", "P", nullptr, nullptr));
    EXPECT_TRUE(trace.has(1801, "API.ZEP_ESI_verifyPassword() NULL gateway token, gwTok=(nil)"));
    EXPECT_EQ(0, tok->apiCalls);

    // Nothing reached zepgw; a proper request does.
    EXPECT_EQ(0, ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr));
    ASSERT_TRUE(pollUntil([&] { return esiRequestsSeen(conn.zepgw()) >= 1; }));
    EXPECT_EQ(1u, esiRequestsSeen(conn.zepgw()));
}

TEST(EsiCalls, LostConnectionDuringTheWaitGivesLostConnection)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    TraceCapture trace(3);
    GatewayToken* tok = conn.token();
    ASSERT_TRUE(conn.zepgw().pause());   // zepgw keeps the request unanswered
    auto verify = std::async(std::launch::async, [tok] {
        return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr);
    });
    // Once the request is written, the caller waits on its slot; then the Gateway goes away.
    ASSERT_TRUE(pollUntil([&] { return trace.hasId(3240); }));
    ASSERT_TRUE(conn.zepgw().signal(SIGKILL));
    ASSERT_EQ(std::future_status::ready, verify.wait_for(seconds(5)));
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, verify.get());

    // A later request finds the connection gone.
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, nullptr));
}

TEST(EsiCalls, ErrorFlowGivesTheSlotsOwnCodeUnmappedAndNoDetails)
{
    ScriptedGateway gateway;
    GatewayToken* tok = gateway.open();
    ASSERT_NE(nullptr, tok);
    // -27 would be mapped if it came as the reply's ESI code; as the code of an error flow it is the result.
    const int codes[] = {ZEP_ERR_WORK_WAS_REFUSED, -27};
    for (int code : codes) {
        SCOPED_TRACE(code);
        EsiDetails details;
        memset(&details, 0xAB, sizeof details);
        auto verify = std::async(std::launch::async, [&] {
            return ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, &details);
        });
        const int32_t id = gateway.nextRequest();
        ASSERT_NE(0, id);
        gateway.send(ScriptedGateway::header(FLOW_ERROR, id, "ESI", 0, code));
        ASSERT_EQ(std::future_status::ready, verify.wait_for(seconds(10)));
        EXPECT_EQ(code, verify.get());
        for (size_t i = 0; i < sizeof details; i++)
            ASSERT_EQ(0xAB, reinterpret_cast<const uint8_t*>(&details)[i]) << "byte " << i;
    }
    gateway.hangUp();
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

}  // namespace
