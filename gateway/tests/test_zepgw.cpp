// zepgw's codec against golden byte images in both directions, its programs and fault modes, and its user and
// system tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

const std::string kAlphabet = [] { std::string s; for (int i = 0; i < 10; ++i) s += "abcdefghij"; return s; }();
const char kHandshakeReply[] = "47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 00000012"
                               "0002656E 00024742 00000000 00000000 0000";
// The close request, which is also zepgw's answer to it.
const char kClose[] = "47617465 10901000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000";

// An ECI reply payload of kind 1: LUW token, return code, abend code, COMMAREA length, then what follows.
Bytes eciReply(int32_t rc, const std::string& abend, int32_t length, const Bytes& rest)
{
    return cat({be32(1), be32(0), be32(0), be32(rc), ascii(abend), be32(length), rest});
}
Bytes withData(const std::string& data) { return cat({hex("00"), ascii(data), hex("00")}); }
Bytes noData() { return hex("FF 00 00000000 00"); }
Bytes container(const std::string& name, const char* marks, const std::string& data)
{
    return cat({name16(name), hex(marks), ascii(data)});
}
// A password verification of `user` at `server`.
Bytes esi(const std::string& user, const std::string& password, const std::string& server = "", int32_t kind = 0)
{
    return Wire().i32(kind).field(user, 10).i32(int32_t(password.size())).scrambled(password).field(server, 8).b;
}

class Zepgw : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {}, const std::string& applid = "TESTAPP")
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_TRUE(client.connect(gw.port(), applid));
    }
    ZepgwProcess gw;
    RawClient client;
};

// Whole requests and the whole answers to them, in order on one connection.
struct Exchange {
    Bytes request, answer;
};
Exchange esiExchange(int32_t id, const Bytes& request, const Bytes& reply)
{
    return {message(1, id, "ESI", request), message(3, id, "ESI", reply)};
}

TEST_F(Zepgw, GoldenImagesOfHandshakeEciEsiAndClose)
{
    TempFile users("# test users\n\nBOBBY SECRET7\nSECOND two2 expired\n");
    start({"--users", users.path()}, "");
    const Bytes hs = hex("47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
                         "0002656E 00024742 00000000 00000000 0000 0005 5445535431 0000");
    ASSERT_EQ(toHex(handshake("TEST1")), toHex(hs));
    const Bytes eciRequest = cat({hex("47617465 10901000 00000001 00000001 00000000 00000003 454349 00 000000B9"
                                      "00000001 00000000 00000000 00000000 00 00000008 2020202020202020"
                                      "5553455231 0000000000000000000000 00000002 9E03"
                                      "4543484F20202020 54524E31 00000000 00000064 00 00"),
                                  ascii(kAlphabet), hex("00 0000 00 FFFFFFFF 00000007")});
    ASSERT_EQ(toHex(eciMessage(1, {"ECHO    ", kAlphabet})), toHex(eciRequest));
    const Bytes esiRequest = hex("47617465 10901000 00000001 00000002 00000000 00000003 455349 00 00000021"
                                 "00000000 424F424259 0000000000 00000007 AC160611171163 54455354 00000000");
    ASSERT_EQ(toHex(message(1, 2, "ESI", esi("BOBBY", "SECRET7", "TEST"))), toHex(esiRequest));
    const Exchange exchanges[] = {
        {hs, hex(kHandshakeReply)},
        {eciRequest, cat({hex("47617465 10901000 00000003 00000001 00000000 00000003 454349 00 0000007E"
                              "00000001 00000000 00000000 00000000 20202020 00000064 00"), ascii(kAlphabet), hex("00")})},
        {esiRequest, hex("47617465 10901000 00000003 00000002 00000000 00000003 455349 00 0000005C 00000000"
                         "000007E5 00000000 00000001 00000009 00000000 0000000A 00000000"
                         "000007E7 00000000 00000001 0000000B 00000000 0000001E 00000000"
                         "000007E6 00000000 00000001 0000000A 00000000 00000014 00000000 00000001")},
        // The users file replaces the built-in users; a kind the Gateway does not know is a system error.
        esiExchange(3, esi("SECOND", "two2"), be32(-105)),
        esiExchange(4, esi("ZEPUSER", "ZEPPASS1"), be32(-108)),
        esiExchange(5, esi("BOBBY", "SECRET7", "", 7), be32(-9)),
        {hex(kClose), hex(kClose)},
    };
    for (const Exchange& e : exchanges) {
        Bytes answer;
        ASSERT_TRUE(client.call(e.request, answer));
        EXPECT_EQ(toHex(answer), toHex(e.answer));
    }
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(&rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(Zepgw, EachProgramRepliesItsWay)
{
    start();
    std::string reversed = kAlphabet, upper = kAlphabet;
    std::reverse(reversed.begin(), reversed.end());
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    const std::string blank(8, ' ');
    const Bytes channelIn = cat({name16("MYCHAN"), be32(819), be32(4), container("DELME", "01000001 00000000 00000005", "12345"),
                                 container("MODX", "01000002 00000333 00000003", "abc"),
                                 container("GROWY", "01000001 00000000 00000002", "xy"),
                                 container("KEEP", "01000002 00000333 00000001", "k")});
    const Bytes channelOut = cat({hex("00 FF"), name16("MYCHAN"), hex("00000333 00000005"),
                                  container("DELME", "02000001 00000000 00000005", ""),
                                  container("MODX", "03000002 00000333 00000003", "cba"),
                                  container("GROWY", "03000001 00000000 00000004", "xyxy"),
                                  container("KEEP", "04000002 00000333 00000001", ""),
                                  container("RESULT", "01000002 00000333 0000000C", "containers=4")});
    const Bytes chanbadIn = cat({name16("CH"), be32(1208), be32(1), container("ONE", "01000001 00000000 00000001", "1")});
    const Bytes chanbadOut = cat({hex("00 FF"), name16("CH"), hex("000004B8 00000002"),
                                  container("NOSUCH", "02000002 000004B8 00000000", ""),
                                  container("LATE", "01000002 000004B8 00000004", "late")});
    const struct { EciCall call; Bytes reply; } cases[] = {
        {{"ECHO    ", kAlphabet}, eciReply(0, "    ", 100, withData(kAlphabet))},
        {{"REVERSE ", kAlphabet}, eciReply(0, "    ", 100, withData(reversed))},
        {{"UPPER   ", kAlphabet}, eciReply(0, "    ", 100, withData(upper))},
        {{"SHORT   ", kAlphabet}, eciReply(0, "    ", 100, cat({hex("FF 00 00000014"), ascii(kAlphabet.substr(0, 20)), hex("00")}))},
        {{"ABEND   ", kAlphabet}, eciReply(-7, "ZA01", 100, withData(kAlphabet))},
        {{"FAIL    ", kAlphabet}, eciReply(-30, "    ", 100, withData(kAlphabet))},
        {{"NOSUCHPG", kAlphabet}, eciReply(-7, "ZUNK", 100, withData(kAlphabet))},
        {{"OVERSIZE", kAlphabet}, eciReply(0, "    ", 200, withData(kAlphabet + std::string(100, 'Z')))},
        {{"ECHO    ", "abc", 3}, eciReply(-2, "    ", 3, noData())},
        {{"ECHO    ", "xyz", 0, 0, "NOSUCH  "}, eciReply(-22, "    ", 3, noData())},
        {{"ECHO    ", "xyz", 0, 0, "zepsys1 "}, eciReply(-22, "    ", 3, noData())},
        {{"ECHO    ", "xyz", 0, 0, std::string("ZEPSYS2\0", 8)}, eciReply(0, "    ", 3, withData("xyz"))},
        {{"CHANNEL ", "", 0, 0, blank, channelIn}, eciReply(0, "    ", 0, channelOut)},
        {{"CHANBAD ", "", 0, 0, blank, chanbadIn}, eciReply(0, "    ", 0, chanbadOut)},
        {{"LUW     ", "....tail", 1, 99}, eciReply(-8, "    ", 8, noData())},   // a unit zepgw does not know
        {{"CHANNEL ", "abc"}, eciReply(-7, "ZNCH", 3, withData("abc"))},         // no channel sent
    };
    int32_t id = 0;
    for (const auto& c : cases) {
        Bytes answer;
        ASSERT_TRUE(client.call(eciMessage(++id, c.call), answer));
        EXPECT_EQ(toHex(answer), toHex(message(3, id, "ECI", c.reply))) << c.call.program;
    }
}

// Fault modes by program name (after a handshake) or by APPLID: everything that comes back, and whether
// zepgw then ends the connection.
TEST_F(Zepgw, EachFaultModeAnswersItsWay)
{
    start();
    const Bytes hsReply = hex(kHandshakeReply);
    const auto echo = [](int32_t id, const char* eyecatcher) {
        return cat({ascii(eyecatcher), hex("10901000 00000003"), be32(id), hex("00000000 00000003 454349 00 00000021"),
                    eciReply(0, "    ", 7, withData("payload"))});
    };
    const Bytes half = echo(10, "Gate");
    Bytes badEyeReply = hsReply;
    std::copy_n("Bad!", 4, badEyeReply.begin());
    const auto after = [&](const char* program, int32_t id) { return cat({handshake("A"), eciMessage(id, {program, "payload"})}); };
    const struct { const char* name; Bytes sent, answer; bool closes; } cases[] = {
        {"FERROR", after("FERROR  ", 5),
         cat({hsReply, hex("47617465 10901000 00000004 00000005 0000F005 00000003 454349 00 00000000")}), false},
        {"FEXCEPT", after("FEXCEPT ", 6), cat({hsReply, hex("47617465 10901000 00000006 00000006 00000000 00000003 454349 00"
                                                            "00000026 00 0023"), ascii("zepgw exception for program FEXCEPT")}), false},
        {"STRAY", after("STRAY   ", 7), cat({hsReply, echo(1007, "Gate")}), false},
        {"BADEYE", after("BADEYE  ", 8), cat({hsReply, echo(8, "Bad!")}), false},
        {"DROP", after("DROP    ", 9), hsReply, true},
        {"DROPMID", after("DROPMID ", 10), cat({hsReply, Bytes(half.begin(), half.begin() + long(half.size() / 2))}), true},
        {"GWCLOSE", cat({after("HANG    ", 11), eciMessage(12, {"GWCLOSE "})}), cat({hsReply, hex(kClose)}), true},
        {"NOHS", cat({handshake("NOHS"), hex(kClose)}), hex(kClose), true},
        {"HSERR", handshake("HSERR"), hex("47617465 10901000 00000004 FFFFFFFE 0000F005 00000004 42415345 00 00000000"), false},
        {"HSBADEYE", handshake("HSBADEYE"), badEyeReply, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(client.connect(gw.port(), ""));
        ASSERT_TRUE(client.send(c.sent));
        Bytes answer;
        if (c.closes) {
            EXPECT_TRUE(client.waitClosed(&answer));
        }
        for (Bytes one; !c.closes && answer.size() < c.answer.size() && client.read(one);) answer = cat({answer, one});
        EXPECT_EQ(toHex(answer), toHex(c.answer));
    }
}

// The system list (kind 9) of a systems file; a request kind the Gateway does not know is refused.
TEST_F(Zepgw, SystemsFileReplacesTheTable)
{
    TempFile systems("ABC      \tfirst system\n\tno name\r\nNINECHARS\t" + std::string(61, 'd') + "\n");
    start({"--systems", systems.path()});
    const auto entry = [](const std::string& name, const std::string& description) {
        return Wire().text(name).fill(9 - name.size(), ' ').field(description, 61).b;
    };
    const Bytes list = cat({hex("00000009 00000003 00000000 000000D2"), entry("ABC      ", "first system"),
                            entry("", "no name"), entry("NINECHARS", std::string(61, 'd'))});
    Bytes answer;
    ASSERT_TRUE(client.call(message(1, 3, "ECI", hex("00000009 00000003 0000 00 FFFFFFFF 00000001")), answer));
    EXPECT_EQ(toHex(answer), toHex(message(3, 3, "ECI", list)));
    ASSERT_TRUE(client.call(message(1, 4, "ECI", hex("00000005 0000 00 FFFFFFFF 00000001")), answer));
    EXPECT_EQ(toHex(answer), toHex(hex("47617465 10901000 00000004 00000004 0000F005 00000003 454349 00 00000000")));
}

}  // namespace
