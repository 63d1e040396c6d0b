// ECI requests against zepgw: the built-in programs, COMMAREA lengths,
// extend modes and units of work, channels, system names and the system list.
#include <gtest/gtest.h>

#include <algorithm>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

Bytes alphabet100()
{
    Bytes b;
    for (int i = 0; i < 10; ++i) {
        const Bytes part = ascii("abcdefghij");
        b.insert(b.end(), part.begin(), part.end());
    }
    return b;
}

Bytes alphabetPrefix(size_t n)
{
    const Bytes all = alphabet100();
    return Bytes(all.begin(), all.begin() + n);
}
// The 185-byte payload: 100-byte COMMAREA, user id USER1, password "ab",
// no inbound or outbound length, no channel, program ECHO.
Bytes literalEcho185()
{
    return cat({hex("00000001 00000000 00000000 00000000 00 00000008 2020202020202020"),
                hex("5553455231 0000000000000000000000"), hex("00000002 9E03"),
                hex("4543484F20202020 54524E31 00000000 00000064 00 00"), alphabet100(),
                hex("00 0000 00 FFFFFFFF 00000007")});
}

// ECI reply payload of kinds 1 and 12 up to the data flag, and what follows.
Bytes replyPayload(int32_t kind, int32_t luw, int32_t rc, const std::string& abend,
                   int32_t commareaLength, const Bytes& dataFlag, const Bytes& data,
                   const Bytes& channelPart = hex("00"))
{
    return cat({be32(kind), be32(luw), be32(0), be32(rc), ascii(abend), be32(commareaLength),
                dataFlag, data, channelPart});
}

Bytes echoCall100(const std::string& program)
{
    EciCall call;
    call.program = program;
    call.commarea = alphabet100();
    return eciPayload(call);
}

class ZepgwEci : public ::testing::Test {
protected:
    void start(std::vector<std::string> args = {})
    {
        ASSERT_TRUE(gw.start(args));
        ASSERT_TRUE(client.connect(gw.port()));
        ASSERT_TRUE(client.handshake());
    }

    // Sends the call as message `id` and returns the reply payload after
    // checking that the header is a FLOW_REPLY of "ECI" for that id.
    Bytes exchange(const EciCall& call, int32_t id = 1)
    {
        return exchangePayload(eciPayload(call), id);
    }

    Bytes exchangePayload(const Bytes& p, int32_t id = 1)
    {
        std::string problem;
        const Bytes answer = gwtest::exchange(client, "ECI", id, p, problem);
        EXPECT_EQ(problem, "");
        return answer;
    }

    ZepgwProcess gw;
    RawClient client;
};

TEST_F(ZepgwEci, Literal185BytePayloadIsEchoedWithExactReply)
{
    start();
    const Bytes request = literalEcho185();
    ASSERT_EQ(request.size(), 185u);
    ASSERT_EQ(toHex(echoCall100("ECHO    ")), toHex(request));  // the test builder agrees
    Bytes answer;
    ASSERT_TRUE(client.call(cat({hex("47617465 10901000 00000001 00000001 00000000 00000003 "
                                     "454349 00 000000B9"),
                                 request}),
                            answer));
    const Bytes expected =
        cat({hex("47617465 10901000 00000003 00000001 00000000 00000003 454349 00 0000007E"),
             hex("00000001 00000000 00000000 00000000 20202020 00000064 00"), alphabet100(),
             hex("00")});
    EXPECT_EQ(toHex(answer), toHex(expected));
}

struct ProgramCase {
    const char* program;
    int32_t rc;
    const char* abend;
    int32_t commareaLength;
    const char* dataFlag;
    Bytes (*data)();
};

void PrintTo(const ProgramCase& c, std::ostream* os) { *os << c.program; }

Bytes same() { return alphabet100(); }
Bytes reversed()
{
    Bytes b = alphabet100();
    std::reverse(b.begin(), b.end());
    return b;
}
Bytes upper()
{
    Bytes b;
    for (int i = 0; i < 10; ++i) {
        const Bytes part = ascii("ABCDEFGHIJ");
        b.insert(b.end(), part.begin(), part.end());
    }
    return b;
}
Bytes first20() { return alphabetPrefix(20); }
Bytes plus100() { return cat({alphabet100(), repeat('Z', 100)}); }

const ProgramCase kPrograms[] = {
    {"ECHO    ", 0, "    ", 100, "00", same},
    {"REVERSE ", 0, "    ", 100, "00", reversed},
    {"UPPER   ", 0, "    ", 100, "00", upper},
    {"SHORT   ", 0, "    ", 100, "FF 00 00000014", first20},
    {"ABEND   ", -7, "ZA01", 100, "00", same},
    {"FAIL    ", -30, "    ", 100, "00", same},
    {"NOSUCHPG", -7, "ZUNK", 100, "00", same},
    {"OVERSIZE", 0, "    ", 200, "00", plus100},
};

class ZepgwPrograms : public ZepgwEci, public ::testing::WithParamInterface<ProgramCase> {};

TEST_P(ZepgwPrograms, ReplyLayoutIsExact)
{
    start();
    const ProgramCase& c = GetParam();
    const Bytes got = exchangePayload(echoCall100(c.program));
    const Bytes want = replyPayload(1, 0, c.rc, c.abend, c.commareaLength, hex(c.dataFlag), c.data());
    EXPECT_EQ(toHex(got), toHex(want)) << c.program;
}

INSTANTIATE_TEST_SUITE_P(All, ZepgwPrograms, ::testing::ValuesIn(kPrograms),
                         [](const ::testing::TestParamInfo<ProgramCase>& info) {
                             std::string n = info.param.program;
                             n.erase(n.find_last_not_of(' ') + 1);
                             return n + std::to_string(info.index);
                         });

TEST_F(ZepgwEci, InvalidExtendModeGetsMinusTwo)
{
    start();
    EciCall call;
    call.extendMode = 3;
    call.commarea = ascii("abc");
    EXPECT_EQ(toHex(exchange(call)),
              toHex(replyPayload(1, 0, -2, "    ", 3, hex("FF 00 00000000"), Bytes())));
}

struct SystemCase {
    std::string name;
    int32_t rc;
};

TEST_F(ZepgwEci, SystemNameSelectsTheServer)
{
    start();
    const SystemCase cases[] = {
        {"        ", 0},
        {std::string(8, '\0'), 0},
        {"ZEPSYS1 ", 0},
        {std::string("ZEPSYS2\0", 8), 0},
        {"TEST    ", 0},
        {"NOSUCH  ", -22},
        {"zepsys1 ", -22},
    };
    int32_t id = 1;
    for (const SystemCase& c : cases) {
        EciCall call;
        call.system = c.name;
        call.commarea = ascii("xyz");
        const Bytes want = c.rc == 0
                               ? replyPayload(1, 0, 0, "    ", 3, hex("00"), ascii("xyz"))
                               : replyPayload(1, 0, c.rc, "    ", 3, hex("FF 00 00000000"), Bytes());
        EXPECT_EQ(toHex(exchange(call, id++)), toHex(want)) << toHex(ascii(c.name));
    }
}

TEST_F(ZepgwEci, WhoShowsTheUnscrambledCredentials)
{
    start();
    EciCall call;
    call.program = "WHO     ";
    call.userid = "ZEPUSER";
    call.password = "Pass,word";
    call.transid = "TX01";
    call.system = "TEST    ";
    call.timeout = 300;
    call.commarea = repeat('.', 90);
    const std::string text =
        "user=ZEPUSER password=Pass,word transid=TX01 system=TEST kind=1 timeout=300";
    EXPECT_EQ(toHex(exchange(call)),
              toHex(replyPayload(1, 0, 0, "    ", 90, hex("00"),
                                 cat({ascii(text), repeat(0, 90 - text.size())}))));
}

// One step of a unit of work with the LUW program.
struct LuwStep {
    int32_t mode;
    int32_t tokenIn;
    int32_t rc;
    int32_t tokenOut;
    int32_t calls;  // 0: no data expected
};

TEST_F(ZepgwEci, LuwStartsContinuesAndEndsUnitsOfWork)
{
    start();
    const LuwStep steps[] = {
        {1, 0, 0, 1, 1},   {1, 1, 0, 1, 2},   {1, 1, 0, 1, 3}, {2, 1, 0, 0, 0},
        {1, 1, -8, 0, 0},  {1, 0, 0, 2, 1},   {4, 2, 0, 0, 0}, {0, 0, 0, 0, 1},
        {1, 99, -8, 0, 0}, {1, 0, 0, 3, 1},   {0, 3, 0, 0, 2}, {1, 3, -8, 0, 0},
    };
    int32_t id = 1;
    for (const LuwStep& s : steps) {
        EciCall call;
        call.program = "LUW     ";
        call.extendMode = s.mode;
        call.luwToken = s.tokenIn;
        call.commareaLength = 8;
        if (s.mode != 2 && s.mode != 4)
            call.commarea = ascii("....tail");
        const Bytes want =
            s.calls == 0 ? replyPayload(1, s.tokenOut, s.rc, "    ", 8, hex("FF 00 00000000"), Bytes())
                         : replyPayload(1, s.tokenOut, s.rc, "    ", 8, hex("00"),
                                        cat({be32(s.calls), ascii("tail")}));
        EXPECT_EQ(toHex(exchange(call, id)), toHex(want))
            << "step " << id << " mode " << s.mode << " token " << s.tokenIn;
        ++id;
    }
}

TEST_F(ZepgwEci, ChannelProgramAppliesEachChangeMark)
{
    start();
    EciCall call;
    call.program = "CHANNEL ";
    call.channel = channelSection("MYCHAN", 819,
                                  {containerRecord("DELME", 1, 0, ascii("12345")),
                                   containerRecord("MODX", 2, 819, ascii("abc")),
                                   containerRecord("GROWY", 1, 0, ascii("xy")),
                                   containerRecord("KEEP", 2, 819, ascii("k"))});
    const Bytes channel = cat({name16("MYCHAN"), hex("00000333 00000005"),
                               name16("DELME"), hex("02 00 00 01 00000000 00000005"),
                               name16("MODX"), hex("03 00 00 02 00000333 00000003"), ascii("cba"),
                               name16("GROWY"), hex("03 00 00 01 00000000 00000004"), ascii("xyxy"),
                               name16("KEEP"), hex("04 00 00 02 00000333 00000001"),
                               name16("RESULT"), hex("01 00 00 02 00000333 0000000C"),
                               ascii("containers=4")});
    EXPECT_EQ(toHex(exchange(call)),
              toHex(replyPayload(1, 0, 0, "    ", 0, hex("00"), Bytes(), cat({hex("FF"), channel}))));
}

TEST_F(ZepgwEci, ChanbadSendsDeleteOfUnknownThenAdd)
{
    start();
    EciCall call;
    call.program = "CHANBAD ";
    call.channel = channelSection("CH", 1208, {containerRecord("ONE", 1, 0, ascii("1"))});
    const Bytes channel = cat({name16("CH"), hex("000004B8 00000002"),
                               name16("NOSUCH"), hex("02 00 00 02 000004B8 00000000"),
                               name16("LATE"), hex("01 00 00 02 000004B8 00000004"), ascii("late")});
    EXPECT_EQ(toHex(exchange(call)),
              toHex(replyPayload(1, 0, 0, "    ", 0, hex("00"), Bytes(), cat({hex("FF"), channel}))));
}

// The kind 9 request: capacity, time-out, reserved, marker, correlator.
Bytes listRequest(int32_t capacity)
{
    return cat({be32(9), be32(capacity), hex("0000 00 FFFFFFFF 00000001")});
}

Bytes systemEntry(const std::string& name, const std::string& description)
{
    Bytes n = ascii(name);
    n.resize(9, ' ');
    Bytes d = ascii(description);
    d.resize(61, 0);
    return cat({n, d});
}

TEST_F(ZepgwEci, SystemListOfBuiltInTable)
{
    start();
    const Bytes request = listRequest(10);
    ASSERT_EQ(request.size(), 19u);
    EXPECT_EQ(toHex(exchangePayload(request)),
              toHex(cat({hex("00000009 00000003 00000000 000000D2"),
                         systemEntry("ZEPSYS1", "zepgw default system"),
                         systemEntry("ZEPSYS2", "zepgw second system"),
                         systemEntry("TEST", "zepgw test system")})));
}

TEST_F(ZepgwEci, SystemsFileReplacesTheTable)
{
    TempFile systems("ABC      \tfirst system\n\tno name\r\nNINECHARS\t" + std::string(61, 'd') + "\n");
    start({"--systems", systems.path()});
    EXPECT_EQ(toHex(exchangePayload(listRequest(3))),
              toHex(cat({hex("00000009 00000003 00000000 000000D2"),
                         systemEntry("ABC      ", "first system"), systemEntry("", "no name"),
                         systemEntry("NINECHARS", std::string(61, 'd'))})));
    EciCall call;
    call.commarea = ascii("q");
    call.system = "ABC     ";
    EXPECT_EQ(wordAt(exchange(call, 2), 12), 0);
    call.system = "ZEPSYS1 ";
    EXPECT_EQ(wordAt(exchange(call, 3), 12), -22);
}

TEST_F(ZepgwEci, UnknownKindIsRefusedWithErrorFlow)
{
    start();
    const Bytes p = cat({be32(5), hex("0000 00 FFFFFFFF 00000001")});
    Bytes answer;
    ASSERT_TRUE(client.call(cat({header(1, 4, "ECI", p.size()), p}), answer));
    EXPECT_EQ(toHex(answer),
              toHex(hex("47617465 10901000 00000004 00000004 0000F005 00000003 454349 00 00000000")));
}

}  // namespace

TEST_F(ZepgwEci, ChannelProgramsWithoutChannelAbend)
{
    start();
    for (const char* program : {"CHANNEL ", "CHANBAD "}) {
        EciCall call;
        call.program = program;
        call.commarea = ascii("abc");
        EXPECT_EQ(toHex(exchange(call)),
                  toHex(replyPayload(1, 0, -7, "ZNCH", 3, hex("00"), ascii("abc"))))
            << program;
    }
}
