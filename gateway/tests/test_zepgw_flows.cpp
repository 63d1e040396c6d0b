// Handshake, close and ping flows of zepgw, and the fault modes chosen by
// the APPLID of the handshake.
#include <gtest/gtest.h>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

// FLOW_HANDSHAKE, message id -2, "BASE", payload 27: APPLID "TEST1", no qualifier.
const char kHandshakeTest1[] =
    "47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
    "0002656E 00024742 00000000 00000000 0000 0005 5445535431 0000";

// FLOW_HANDSHAKE reply carrying the 18-byte locale block.
const char kHandshakeReply[] =
    "47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000012"
    "0002656E 00024742 00000000 00000000 0000";

// The 33-byte close request, which is also zepgw's answer to it.
const char kClose[] =
    "47617465 10901000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000";

const char kPing[] =
    "47617465 10901000 00000007 00000000 00000000 00000004 42415345 00 00000000";

class ZepgwFlows : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {})
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_TRUE(client.connect(gw.port()));
    }

    ZepgwProcess gw;
    RawClient client;
};

TEST_F(ZepgwFlows, HandshakeOfFiveCharacterApplidIsAnsweredWithLocaleBlock)
{
    start();
    ASSERT_EQ(hex(kHandshakeTest1).size(), 33u + 27u);
    Bytes answer;
    ASSERT_TRUE(client.call(hex(kHandshakeTest1), answer));
    EXPECT_EQ(toHex(answer), toHex(hex(kHandshakeReply)));
}

TEST_F(ZepgwFlows, CloseRequestIsAnsweredWithCloseThenSocketEnds)
{
    start();
    ASSERT_TRUE(client.handshake());
    ASSERT_EQ(hex(kClose).size(), 33u);
    Bytes answer;
    ASSERT_TRUE(client.call(hex(kClose), answer));
    EXPECT_EQ(toHex(answer), toHex(hex(kClose)));
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_TRUE(rest.empty());
}

TEST_F(ZepgwFlows, PingOptionSendsPingFlows)
{
    start({"--ping", "1"});
    ASSERT_TRUE(client.handshake());
    for (int i = 0; i < 2; ++i) {
        Bytes ping;
        ASSERT_TRUE(client.read(ping, 5));
        EXPECT_EQ(toHex(ping), toHex(hex(kPing)));
    }
}

TEST_F(ZepgwFlows, NohsNeverAnswersTheHandshakeButAnswersClose)
{
    start();
    const Bytes hs = handshakePayload("NOHS");
    ASSERT_TRUE(client.send(cat({header(5, -2, "BASE", hs.size()), hs})));
    Bytes first;
    ASSERT_TRUE(client.call(hex(kClose), first));
    EXPECT_EQ(toHex(first), toHex(hex(kClose)));
    EXPECT_TRUE(client.waitClosed());
}

TEST_F(ZepgwFlows, HserrAnswersTheHandshakeWithErrorFlow)
{
    start();
    const Bytes hs = handshakePayload("HSERR");
    Bytes answer;
    ASSERT_TRUE(client.call(cat({header(5, -2, "BASE", hs.size()), hs}), answer));
    EXPECT_EQ(toHex(answer),
              toHex(hex("47617465 10901000 00000004 FFFFFFFE 0000F005 00000004 42415345 00 "
                        "00000000")));
}

TEST_F(ZepgwFlows, HsbadeyeAnswersTheHandshakeWithBadEyecatcher)
{
    start();
    const Bytes hs = handshakePayload("HSBADEYE");
    Bytes answer;
    ASSERT_TRUE(client.call(cat({header(5, -2, "BASE", hs.size()), hs}), answer));
    Bytes expected = hex(kHandshakeReply);
    std::copy_n(ascii("Bad!").begin(), 4, expected.begin());
    EXPECT_EQ(toHex(answer), toHex(expected));
}

}  // namespace
