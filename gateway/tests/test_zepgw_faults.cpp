// Fault modes chosen by program name, and replies that take their time.
#include <gtest/gtest.h>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

const char kClose[] = "47617465 10901000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000";

Bytes call(int32_t id, const std::string& name8, const std::string& commarea = "payload")
{
    EciCall c;
    c.program = name8;
    c.commarea = ascii(commarea);
    return eciMessage(id, c);
}

// What ECHO answers to a COMMAREA of "payload" under the given message id.
Bytes echoReply(int32_t id, const std::string& eyecatcher = "Gate")
{
    return cat({ascii(eyecatcher), hex("10901000 00000003"), be32(id), hex("00000000 00000003 454349 00 00000021"),
                hex("00000001 00000000 00000000 00000000 20202020 00000007 00"), ascii("payload"), hex("00")});
}

class ZepgwFaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(gw.start());
        ASSERT_TRUE(client.connect(gw.port()));
        ASSERT_TRUE(client.handshake());
    }

    ZepgwProcess gw;
    RawClient client;
};

// One request to a fault program: what comes back, and whether zepgw then ends the connection.
TEST_F(ZepgwFaults, EachFaultProgramAnswersItsWay)
{
    const Bytes half = echoReply(10);
    const struct {
        const char* program;
        Bytes answer;
        bool closes;
    } cases[] = {
        {"FERROR  ", hex("47617465 10901000 00000004 00000005 0000F005 00000003 454349 00 00000000"), false},
        {"FEXCEPT ", cat({hex("47617465 10901000 00000006 00000006 00000000 00000003 454349 00 00000026 00 0023"),
                          ascii("zepgw exception for program FEXCEPT")}), false},
        {"STRAY   ", echoReply(1007), false},
        {"BADEYE  ", echoReply(8, "Bad!"), false},
        {"DROP    ", Bytes(), true},
        {"DROPMID ", Bytes(half.begin(), half.begin() + half.size() / 2), true},
    };
    int32_t id = 5;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program);
        ASSERT_TRUE(client.connect(gw.port()));
        ASSERT_TRUE(client.handshake());
        ASSERT_TRUE(client.send(call(id, c.program)));
        Bytes answer;
        if (c.closes)
            EXPECT_TRUE(client.waitClosed(5, &answer));
        else
            ASSERT_TRUE(client.read(answer));
        EXPECT_EQ(toHex(answer), toHex(c.answer));
        id++;
    }
}

TEST_F(ZepgwFaults, GwcloseSendsCloseFlowWhileRequestsWait)
{
    ASSERT_TRUE(client.send(call(11, "HANG    ")));
    ASSERT_TRUE(client.send(call(12, "GWCLOSE ")));
    Bytes answer;
    ASSERT_TRUE(client.read(answer));
    EXPECT_EQ(toHex(answer), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

// HANG never answers, DELAY answers late; neither holds up the requests after them, nor the close.
TEST_F(ZepgwFaults, HangingAndDelayedRepliesDoNotHoldUpLaterRequests)
{
    ASSERT_TRUE(client.send(call(1, "HANG    ")));
    ASSERT_TRUE(client.send(call(2, "DELAY   ", "300 ms")));
    Bytes first, second;
    ASSERT_TRUE(client.call(call(3, "ECHO    "), first));
    EXPECT_EQ(toHex(first), toHex(echoReply(3)));
    ASSERT_TRUE(client.read(second, 5));
    EXPECT_EQ(messageId(second), 2);
    EXPECT_EQ(toHex(payload(second)), toHex(cat({hex("00000001 00000000 00000000 00000000 20202020 00000006 00"),
                                                 ascii("300 ms"), hex("00")})));
    ASSERT_TRUE(client.call(hex(kClose), first));
    EXPECT_EQ(toHex(first), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

}  // namespace
