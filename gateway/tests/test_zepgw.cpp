// zepgw's codec against golden byte images in both directions, its programs and fault modes, and its user and
// system tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>

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
Bytes eciReply(int32_t rc, const std::string& abend, int32_t length, const Bytes& rest, int32_t luw = 0)
{
    return cat({be32(1), be32(luw), be32(0), be32(rc), ascii(abend), be32(length), rest});
}
Bytes withData(const std::string& data) { return cat({hex("00"), ascii(data), hex("00")}); }
Bytes noData() { return hex("FF 00 00000000 00"); }

EciCall eci(const std::string& program, const std::string& commarea = kAlphabet)
{
    EciCall c;
    c.program = program;
    c.commarea = commarea;
    return c;
}
EciCall with(EciCall c, const std::function<void(EciCall&)>& change) { change(c); return c; }

Bytes container(const std::string& name, const char* marks, const std::string& data)
{
    return cat({name16(name), hex(marks), ascii(data)});
}

// A password payload: kind 0 verifies, kind 1 changes to `newPassword`.
Bytes esi(int32_t kind, const std::string& user, const std::string& password, const std::string& server = "",
          const std::string& newPassword = "")
{
    Wire w;
    w.i32(kind).field(user, 10).i32(int32_t(password.size())).scrambled(password).field(server, 8);
    if (kind == 1) w.i32(int32_t(newPassword.size())).scrambled(newPassword);
    return w.b;
}
// Success: return code 0, the user's times 1, 3 and 2 (k: the user's place in the table), the count.
Bytes esiSuccess(int32_t k, int32_t count)
{
    Wire w;
    w.i32(0);
    for (int32_t t : {1, 3, 2}) w.i32(2020 + t).i32(k % 12).i32(1 + k % 28).i32(8 + t).i32(5 * k % 60).i32(10 * t + k % 10).i32(0);
    return w.i32(count).b;
}

class Zepgw : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {}, const std::string& applid = "TESTAPP")
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_TRUE(client.connect(gw.port(), applid));
    }
    // Sends the payload as request `id` of `type`, checks the reply header and returns the reply payload.
    Bytes exchange(const std::string& type, const Bytes& p)
    {
        const int32_t id = ++lastId;
        Bytes answer;
        EXPECT_TRUE(client.call(message(1, id, type, p), answer));
        EXPECT_EQ(toHex(Bytes(answer.begin(), answer.begin() + std::min<size_t>(answer.size(), 24))),
                  toHex(Wire().i32(0x47617465).i32(0x10901000).i32(3).i32(id).i32(0).i32(int32_t(type.size())).b));
        return payload(answer);
    }
    ZepgwProcess gw;
    RawClient client;
    int32_t lastId = 0;
};

TEST_F(Zepgw, GoldenImagesOfHandshakeEciEsiAndClose)
{
    TempFile users("BOBBY SECRET7\n");
    start({"--users", users.path()}, "");
    const Bytes hs = hex("47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
                         "0002656E 00024742 00000000 00000000 0000 0005 5445535431 0000");
    ASSERT_EQ(toHex(handshake("TEST1")), toHex(hs));
    const Bytes eciRequest = cat({hex("47617465 10901000 00000001 00000001 00000000 00000003 454349 00 000000B9"
                                      "00000001 00000000 00000000 00000000 00 00000008 2020202020202020"
                                      "5553455231 0000000000000000000000 00000002 9E03"
                                      "4543484F20202020 54524E31 00000000 00000064 00 00"),
                                  ascii(kAlphabet), hex("00 0000 00 FFFFFFFF 00000007")});
    ASSERT_EQ(toHex(eciMessage(1, eci("ECHO    "))), toHex(eciRequest));
    const Bytes esiRequest = hex("47617465 10901000 00000001 00000002 00000000 00000003 455349 00 00000021"
                                 "00000000 424F424259 0000000000 00000007 AC160611171163 54455354 00000000");
    ASSERT_EQ(toHex(message(1, 2, "ESI", esi(0, "BOBBY", "SECRET7", "TEST"))), toHex(esiRequest));
    const struct { Bytes request, answer; } cases[] = {
        {hs, hex(kHandshakeReply)},
        {eciRequest, cat({hex("47617465 10901000 00000003 00000001 00000000 00000003 454349 00 0000007E"
                              "00000001 00000000 00000000 00000000 20202020 00000064 00"), ascii(kAlphabet), hex("00")})},
        {esiRequest, hex("47617465 10901000 00000003 00000002 00000000 00000003 455349 00 0000005C 00000000"
                         "000007E5 00000000 00000001 00000009 00000000 0000000A 00000000"
                         "000007E7 00000000 00000001 0000000B 00000000 0000001E 00000000"
                         "000007E6 00000000 00000001 0000000A 00000000 00000014 00000000 00000001")},
        {hex(kClose), hex(kClose)},
    };
    for (const auto& c : cases) {
        Bytes answer;
        ASSERT_TRUE(client.call(c.request, answer));
        EXPECT_EQ(toHex(answer), toHex(c.answer));
    }
    Bytes rest;
    EXPECT_TRUE(client.waitClosed(5, &rest));
    EXPECT_EQ(toHex(rest), "");
}

TEST_F(Zepgw, EachProgramRepliesItsWay)
{
    start();
    std::string reversed = kAlphabet, upper = kAlphabet;
    std::reverse(reversed.begin(), reversed.end());
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    const std::string who = "user=ZEPUSER password=Pass,word transid=TX01 system=TEST kind=1 timeout=300";
    const Bytes channelIn = cat({name16("MYCHAN"), be32(819), be32(4), container("DELME", "01000001 00000000 00000005", "12345"),
                                 container("MODX", "01000002 00000333 00000003", "abc"),
                                 container("GROWY", "01000001 00000000 00000002", "xy"),
                                 container("KEEP", "01000002 00000333 00000001", "k")});
    const Bytes channelOut = cat({hex("FF"), name16("MYCHAN"), hex("00000333 00000005"),
                                  container("DELME", "02000001 00000000 00000005", ""),
                                  container("MODX", "03000002 00000333 00000003", "cba"),
                                  container("GROWY", "03000001 00000000 00000004", "xyxy"),
                                  container("KEEP", "04000002 00000333 00000001", ""),
                                  container("RESULT", "01000002 00000333 0000000C", "containers=4")});
    const Bytes chanbadIn = cat({name16("CH"), be32(1208), be32(1), container("ONE", "01000001 00000000 00000001", "1")});
    const Bytes chanbadOut = cat({hex("FF"), name16("CH"), hex("000004B8 00000002"),
                                  container("NOSUCH", "02000002 000004B8 00000000", ""),
                                  container("LATE", "01000002 000004B8 00000004", "late")});
    const struct { const char* name; EciCall call; Bytes reply; } cases[] = {
        {"ECHO", eci("ECHO    "), eciReply(0, "    ", 100, withData(kAlphabet))},
        {"REVERSE", eci("REVERSE "), eciReply(0, "    ", 100, withData(reversed))},
        {"UPPER", eci("UPPER   "), eciReply(0, "    ", 100, withData(upper))},
        {"SHORT", eci("SHORT   "), eciReply(0, "    ", 100, cat({hex("FF 00 00000014"), ascii(kAlphabet.substr(0, 20)), hex("00")}))},
        {"ABEND", eci("ABEND   "), eciReply(-7, "ZA01", 100, withData(kAlphabet))},
        {"FAIL", eci("FAIL    "), eciReply(-30, "    ", 100, withData(kAlphabet))},
        {"NOSUCHPG", eci("NOSUCHPG"), eciReply(-7, "ZUNK", 100, withData(kAlphabet))},
        {"OVERSIZE", eci("OVERSIZE"), eciReply(0, "    ", 200, withData(kAlphabet + std::string(100, 'Z')))},
        {"extend mode 3", with(eci("ECHO    ", "abc"), [](EciCall& c) { c.extendMode = 3; }), eciReply(-2, "    ", 3, noData())},
        {"system NOSUCH", with(eci("ECHO    ", "xyz"), [](EciCall& c) { c.system = "NOSUCH  "; }), eciReply(-22, "    ", 3, noData())},
        {"system zepsys1", with(eci("ECHO    ", "xyz"), [](EciCall& c) { c.system = "zepsys1 "; }), eciReply(-22, "    ", 3, noData())},
        {"system ZEPSYS2", with(eci("ECHO    ", "xyz"), [](EciCall& c) { c.system = std::string("ZEPSYS2\0", 8); }),
         eciReply(0, "    ", 3, withData("xyz"))},
        {"WHO", with(eci("WHO     ", std::string(90, '.')), [](EciCall& c) {
             c.userid = "ZEPUSER", c.password = "Pass,word", c.transid = "TX01", c.system = "TEST    ", c.timeout = 300;
         }), eciReply(0, "    ", 90, withData(who + std::string(90 - who.size(), '\0')))},
        {"CHANNEL", with(eci("CHANNEL ", ""), [&](EciCall& c) { c.channel = channelIn; }), eciReply(0, "    ", 0, cat({hex("00"), channelOut}))},
        {"CHANBAD", with(eci("CHANBAD ", ""), [&](EciCall& c) { c.channel = chanbadIn; }), eciReply(0, "    ", 0, cat({hex("00"), chanbadOut}))},
        {"LUW of an unknown unit", with(eci("LUW     ", "....tail"), [](EciCall& c) { c.extendMode = 1, c.luwToken = 99; }),
         eciReply(-8, "    ", 8, noData())},
        {"CHANNEL without one", eci("CHANNEL ", "abc"), eciReply(-7, "ZNCH", 3, withData("abc"))},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(toHex(exchange("ECI", eciPayload(c.call))), toHex(c.reply)) << c.name;
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
    const auto after = [&](const char* program, int32_t id) { return cat({handshake("A"), eciMessage(id, eci(program, "payload"))}); };
    const struct { const char* name; Bytes sent, answer; bool closes; } cases[] = {
        {"FERROR", after("FERROR  ", 5),
         cat({hsReply, hex("47617465 10901000 00000004 00000005 0000F005 00000003 454349 00 00000000")}), false},
        {"FEXCEPT", after("FEXCEPT ", 6), cat({hsReply, hex("47617465 10901000 00000006 00000006 00000000 00000003 454349 00"
                                                            "00000026 00 0023"), ascii("zepgw exception for program FEXCEPT")}), false},
        {"STRAY", after("STRAY   ", 7), cat({hsReply, echo(1007, "Gate")}), false},
        {"BADEYE", after("BADEYE  ", 8), cat({hsReply, echo(8, "Bad!")}), false},
        {"DROP", after("DROP    ", 9), hsReply, true},
        {"DROPMID", after("DROPMID ", 10), cat({hsReply, Bytes(half.begin(), half.begin() + long(half.size() / 2))}), true},
        {"GWCLOSE", cat({after("HANG    ", 11), eciMessage(12, eci("GWCLOSE "))}), cat({hsReply, hex(kClose)}), true},
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
            EXPECT_TRUE(client.waitClosed(5, &answer));
        }
        for (Bytes one; !c.closes && answer.size() < c.answer.size() && client.read(one);) answer = cat({answer, one});
        EXPECT_EQ(toHex(answer), toHex(c.answer));
    }
}

// HANG never answers, DELAY answers late; neither holds up the requests after them, nor the close.
TEST_F(Zepgw, HangingAndDelayedRepliesDoNotHoldUpLaterRequests)
{
    start();
    lastId = 2;
    ASSERT_TRUE(client.send(cat({eciMessage(1, eci("HANG    ")), eciMessage(2, eci("DELAY   ", "300 ms"))})));
    EXPECT_EQ(toHex(exchange("ECI", eciPayload(eci("ECHO    ", "x")))), toHex(eciReply(0, "    ", 1, withData("x"))));
    Bytes late;
    ASSERT_TRUE(client.read(late, 5));
    EXPECT_EQ(toHex(late), toHex(message(3, 2, "ECI", eciReply(0, "    ", 6, withData("300 ms")))));
    ASSERT_TRUE(client.call(hex(kClose), late));
    EXPECT_EQ(toHex(late), toHex(hex(kClose)));
    EXPECT_TRUE(client.waitClosed());
}

// Verifying and changing passwords against a users file, in order: the change is kept; a kind the Gateway
// does not know is a system error.
TEST_F(Zepgw, PasswordsAgainstTheUsersFile)
{
    TempFile users("# test users\n\nFIRST  one1\nSECOND two2 expired\nALICE WONDER11\n");
    start({"--users", users.path()});
    const struct { Bytes request, reply; } cases[] = {
        {esi(0, "FIRST", "one1"), esiSuccess(0, 1)},
        {esi(0, "SECOND", "two2"), be32(-105)},
        {esi(0, "ZEPUSER", "ZEPPASS1"), be32(-108)},
        {esi(1, "ALICE", "WONDER11", "ZEPSYS2", "NEWPASS1"), esiSuccess(2, 0)},
        {esi(0, "ALICE", "WONDER11"), be32(-106)},
        {esi(0, "ALICE", "NEWPASS1"), esiSuccess(2, 1)},
        {cat({be32(7), Wire().field("ALICE", 10).i32(1).scrambled("x").field("", 8).b}), be32(-9)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(toHex(exchange("ESI", c.request)), toHex(c.reply)) << toHex(c.request);
    }
}

// The system list (kind 9) of a systems file, and names from it selecting the server.
TEST_F(Zepgw, SystemsFileReplacesTheTable)
{
    TempFile systems("ABC      \tfirst system\n\tno name\r\nNINECHARS\t" + std::string(61, 'd') + "\n");
    start({"--systems", systems.path()});
    const auto entry = [](const std::string& name, const std::string& description) {
        return Wire().text(name).fill(9 - name.size(), ' ').field(description, 61).b;
    };
    EXPECT_EQ(toHex(exchange("ECI", hex("00000009 00000003 0000 00 FFFFFFFF 00000001"))),
              toHex(cat({hex("00000009 00000003 00000000 000000D2"), entry("ABC      ", "first system"),
                         entry("", "no name"), entry("NINECHARS", std::string(61, 'd'))})));
    EXPECT_EQ(wordAt(exchange("ECI", eciPayload(with(eci("ECHO    "), [](EciCall& c) { c.system = "ABC     "; }))), 12), 0);
    EXPECT_EQ(wordAt(exchange("ECI", eciPayload(with(eci("ECHO    "), [](EciCall& c) { c.system = "ZEPSYS1 "; }))), 12), -22);
    Bytes refused;
    ASSERT_TRUE(client.call(message(1, 4, "ECI", hex("00000005 0000 00 FFFFFFFF 00000001")), refused));
    EXPECT_EQ(toHex(refused), toHex(hex("47617465 10901000 00000004 00000004 0000F005 00000003 454349 00 00000000")));
}

}  // namespace
