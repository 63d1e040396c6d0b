// ESI password verification and change against zepgw's user table.
#include <gtest/gtest.h>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

Bytes padded(const std::string& text, size_t width)
{
    Bytes b = ascii(text);
    b.resize(width, 0);
    return b;
}

Bytes verifyPayload(const std::string& userid, const std::string& password,
                    const std::string& server)
{
    return cat({be32(0), padded(userid, 10), be32(static_cast<int32_t>(password.size())),
                Wire().scrambled(password).b, padded(server, 8)});
}

Bytes changePayload(const std::string& userid, const std::string& oldPassword,
                    const std::string& newPassword, const std::string& server = "")
{
    return cat({be32(1), padded(userid, 10), be32(static_cast<int32_t>(oldPassword.size())),
                Wire().scrambled(oldPassword).b, padded(server, 8),
                be32(static_cast<int32_t>(newPassword.size())), Wire().scrambled(newPassword).b});
}

// The seven words of time t (1 to 3) of the user in position k of the table.
Bytes userTime(int32_t k, int32_t t)
{
    return cat({be32(2020 + t), be32(k % 12), be32(1 + k % 28), be32(8 + t), be32(5 * k % 60),
                be32(10 * t + k % 10), be32(0)});
}

// Success payload: return code 0, then time1, time3, time2 and the count.
Bytes success(int32_t k, int32_t count)
{
    return cat({be32(0), userTime(k, 1), userTime(k, 3), userTime(k, 2), be32(count)});
}

class ZepgwEsi : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {})
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_TRUE(client.connect(gw.port()));
        ASSERT_TRUE(client.handshake());
    }

    Bytes exchange(const Bytes& p)
    {
        std::string problem;
        const Bytes answer = gwtest::exchange(client, "ESI", nextId++, p, problem);
        EXPECT_EQ(problem, "");
        return answer;
    }

    ZepgwProcess gw;
    RawClient client;
    int32_t nextId = 1;
};

TEST_F(ZepgwEsi, Literal33BytePayloadVerifiesWithExactReply)
{
    TempFile users("BOBBY SECRET7\n");
    start({"--users", users.path()});
    const Bytes request = hex("00000000 424F424259 0000000000 00000007 AC160611171163 "
                              "54455354 00000000");
    ASSERT_EQ(request.size(), 33u);
    ASSERT_EQ(toHex(verifyPayload("BOBBY", "SECRET7", "TEST")), toHex(request));
    Bytes answer;
    ASSERT_TRUE(client.call(cat({hex("47617465 10901000 00000001 00000001 00000000 00000003 "
                                     "455349 00 00000021"),
                                 request}),
                            answer));
    const Bytes expected = cat(
        {hex("47617465 10901000 00000003 00000001 00000000 00000003 455349 00 0000005C"),
         hex("00000000"),
         hex("000007E5 00000000 00000001 00000009 00000000 0000000A 00000000"),
         hex("000007E7 00000000 00000001 0000000B 00000000 0000001E 00000000"),
         hex("000007E6 00000000 00000001 0000000A 00000000 00000014 00000000"),
         hex("00000001")});
    EXPECT_EQ(toHex(answer), toHex(expected));
}

struct VerifyCase {
    const char* userid;
    const char* password;
    const char* server;
    int32_t rc;
};

TEST_F(ZepgwEsi, VerifyAgainstBuiltInUsers)
{
    start();
    const VerifyCase cases[] = {
        {"ALICE", "WONDER11", "", 0},
        {"ZEPUSER", "ZEPPASS1", "ZEPSYS2", 0},
        {"ALICE", "WONDER12", "", -106},
        {"ALICE", "wonder11", "ZEPSYS1", -106},
        {"NOBODY", "WONDER11", "", -108},
        {"alice", "WONDER11", "", -108},
        {"EXPIRED", "OLDPASS1", "", -105},
        {"EXPIRED", "WRONG", "", -106},
        {"ALICE", "WONDER11", "NOSUCH", -22},
    };
    for (const VerifyCase& c : cases) {
        const Bytes got = exchange(verifyPayload(c.userid, c.password, c.server));
        if (c.rc != 0)
            EXPECT_EQ(toHex(got), toHex(be32(c.rc))) << c.userid << "/" << c.password;
        else
            EXPECT_EQ(wordAt(got, 0), 0) << c.userid;
    }
}

TEST_F(ZepgwEsi, ChangeIsKeptAndTheOldPasswordStopsWorking)
{
    start();
    EXPECT_EQ(toHex(exchange(changePayload("ALICE", "WONDER11", "NEWPASS1"))), toHex(success(1, 0)));
    EXPECT_EQ(toHex(exchange(verifyPayload("ALICE", "WONDER11", ""))), toHex(be32(-106)));
    EXPECT_EQ(toHex(exchange(verifyPayload("ALICE", "NEWPASS1", ""))), toHex(success(1, 1)));
}

struct ChangeCase {
    const char* userid;
    const char* oldPassword;
    const char* newPassword;
    const char* server;
    int32_t rc;
};

TEST_F(ZepgwEsi, ChangeFailures)
{
    start();
    const ChangeCase cases[] = {
        {"ALICE", "WONDER11", "abc", "", -107},
        {"ALICE", "WONDER11", "WONDER11", "", -107},
        {"ALICE", "WRONG", "NEWPASS1", "", -106},
        {"NOBODY", "WONDER11", "NEWPASS1", "", -108},
        {"ALICE", "WONDER11", "NEWPASS1", "NOSUCH", -22},
    };
    for (const ChangeCase& c : cases) {
        EXPECT_EQ(toHex(exchange(changePayload(c.userid, c.oldPassword, c.newPassword, c.server))),
                  toHex(be32(c.rc)))
            << c.userid << " " << c.newPassword;
    }
    // None of them changed anything.
    EXPECT_EQ(toHex(exchange(verifyPayload("ALICE", "WONDER11", ""))), toHex(success(1, 1)));
}

TEST_F(ZepgwEsi, UsersFileReplacesTheTable)
{
    TempFile users("# test users\n\nFIRST  one1\nSECOND two2 expired\n");
    start({"--users", users.path()});
    EXPECT_EQ(toHex(exchange(verifyPayload("ALICE", "WONDER11", ""))), toHex(be32(-108)));
    EXPECT_EQ(toHex(exchange(verifyPayload("FIRST", "one1", ""))), toHex(success(0, 1)));
    EXPECT_EQ(toHex(exchange(verifyPayload("SECOND", "two2", ""))), toHex(be32(-105)));
}

TEST_F(ZepgwEsi, UnknownKindGetsSystemError)
{
    start();
    const Bytes p = cat({be32(7), padded("ALICE", 10), be32(1), Wire().scrambled("x").b, padded("", 8)});
    EXPECT_EQ(toHex(exchange(p)), toHex(be32(-9)));
}

}  // namespace
