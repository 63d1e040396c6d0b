// Fault modes chosen by program name, and replies that take their time.
#include <gtest/gtest.h>

#include <chrono>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

const char kClose[] =
    "47617465 10901000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000";

EciCall program(const std::string& name8, const std::string& commarea = "payload")
{
    EciCall call;
    call.program = name8;
    call.commarea = ascii(commarea);
    return call;
}

// What ECHO answers to a COMMAREA of "payload" under the given message id.
Bytes echoReply(int32_t id)
{
    return cat({header(3, id, "ECI", 33), hex("00000001 00000000 00000000 00000000 20202020"),
                hex("00000007 00"), ascii("payload"), hex("00")});
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

TEST_F(ZepgwFaults, EchoReplyOfTheseTestsIsWhatZepgwSends)
{
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(3, program("ECHO    ")), answer));
    EXPECT_EQ(toHex(answer), toHex(echoReply(3)));
}

TEST_F(ZepgwFaults, FerrorSendsErrorFlowWithDefaultCode)
{
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(5, program("FERROR  ")), answer));
    EXPECT_EQ(toHex(answer),
              toHex(hex("47617465 10901000 00000004 00000005 0000F005 00000003 454349 00 00000000")));
}

TEST_F(ZepgwFaults, FerrorTakesItsCodeFromTheCommarea)
{
    const struct {
        const char* commarea;
        int32_t code;
    } cases[] = {{"61446", 61446}, {"-22 rest", -22}, {"0", 0}, {"x1", 61445}};
    int32_t id = 1;
    for (const auto& c : cases) {
        Bytes answer;
        ASSERT_TRUE(client.call(eciMessage(id, program("FERROR  ", c.commarea)), answer));
        EXPECT_EQ(flowType(answer), 4);
        EXPECT_EQ(messageId(answer), id);
        EXPECT_EQ(headerReturnCode(answer), c.code) << c.commarea;
        EXPECT_TRUE(payload(answer).empty());
        ++id;
    }
}

TEST_F(ZepgwFaults, FexceptSendsExceptionFlowWithText)
{
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(6, program("FEXCEPT ")), answer));
    EXPECT_EQ(toHex(answer),
              toHex(cat({hex("47617465 10901000 00000006 00000006 00000000 00000003 454349 00 "
                             "00000026 00 0023"),
                         ascii("zepgw exception for program FEXCEPT")})));
}

TEST_F(ZepgwFaults, StrayRepliesUnderAnotherMessageId)
{
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(7, program("STRAY   ")), answer));
    Bytes expected = echoReply(1007);
    EXPECT_EQ(toHex(answer), toHex(expected));
}

TEST_F(ZepgwFaults, BadeyeRepliesWithBadEyecatcher)
{
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(8, program("BADEYE  ")), answer));
    Bytes expected = echoReply(8);
    std::copy_n(ascii("Bad!").begin(), 4, expected.begin());
    EXPECT_EQ(toHex(answer), toHex(expected));
}

TEST_F(ZepgwFaults, DropClosesWithoutReply)
{
    ASSERT_TRUE(client.send(eciMessage(9, program("DROP    "))));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(ZepgwFaults, DropmidSendsHalfAReplyThenCloses)
{
    ASSERT_TRUE(client.send(eciMessage(10, program("DROPMID "))));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    const Bytes full = echoReply(10);
    EXPECT_EQ(toHex(rest), toHex(Bytes(full.begin(), full.begin() + full.size() / 2)));
}

TEST_F(ZepgwFaults, GwcloseSendsCloseFlowWhileRequestsWait)
{
    ASSERT_TRUE(client.send(eciMessage(11, program("HANG    "))));
    ASSERT_TRUE(client.send(eciMessage(12, program("GWCLOSE "))));
    Bytes answer;
    ASSERT_TRUE(client.read(answer));
    EXPECT_EQ(toHex(answer), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(ZepgwFaults, HangNeverAnswersButOtherRequestsAndCloseAre)
{
    ASSERT_TRUE(client.send(eciMessage(1, program("HANG    "))));
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(2, program("ECHO    ")), answer));
    EXPECT_EQ(toHex(answer), toHex(echoReply(2)));
    // A reply to HANG would have been written before these two.
    ASSERT_TRUE(client.call(hex(kClose), answer));
    EXPECT_EQ(toHex(answer), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(ZepgwFaults, DelayedReplyDoesNotHoldUpLaterRequests)
{
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(client.send(eciMessage(1, program("DELAY   ", "300 ms"))));
    Bytes first, second;
    ASSERT_TRUE(client.call(eciMessage(2, program("ECHO    ")), first));
    EXPECT_EQ(messageId(first), 2);
    ASSERT_TRUE(client.read(second, 5));
    EXPECT_EQ(toHex(payload(second)),
              toHex(cat({hex("00000001 00000000 00000000 00000000 20202020 00000006 00"),
                         ascii("300 ms"), hex("00")})));
    EXPECT_EQ(messageId(second), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(ZepgwFaults, CloseIsAnsweredBeforeADelayedReply)
{
    ASSERT_TRUE(client.send(eciMessage(1, program("DELAY   ", "3000"))));
    Bytes answer;
    ASSERT_TRUE(client.call(hex(kClose), answer, 2));
    EXPECT_EQ(toHex(answer), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(ZepgwFaults, ManyRequestsInFlightAreAllAnsweredWithTheirIds)
{
    Bytes burst;
    for (int32_t id = 1; id <= 200; ++id) {
        const Bytes m = eciMessage(id, program(id % 2 == 0 ? "ECHO    " : "DELAY   ", "5"));
        burst.insert(burst.end(), m.begin(), m.end());
    }
    ASSERT_TRUE(client.send(burst));
    std::vector<bool> seen(201, false);
    for (int i = 0; i < 200; ++i) {
        Bytes answer;
        ASSERT_TRUE(client.read(answer, 10)) << "after " << i << " replies";
        const int32_t id = messageId(answer);
        ASSERT_TRUE(id >= 1 && id <= 200) << id;
        EXPECT_FALSE(seen[id]) << id;
        seen[id] = true;
        EXPECT_EQ(wordAt(payload(answer), 12), 0);
    }
}

}  // namespace
