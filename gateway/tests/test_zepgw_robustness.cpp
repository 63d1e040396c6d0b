// zepgw against misbehaving clients, many clients, signals, the ways it
// stops by itself, and its command line.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <thread>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

Bytes eciMessageWithPayload(const Bytes& p, size_t announced)
{
    return cat({header(1, 1, "ECI", announced), p});
}

Bytes goodEciPayload()
{
    EciCall call;
    call.commarea = repeat('c', 100);
    return eciPayload(call);
}

Bytes eciWithChannelCount(int32_t count)
{
    EciCall call;
    call.channel = cat({name16("CH"), be32(819), be32(count)});
    const Bytes p = eciPayload(call);
    return cat({header(1, 1, "ECI", p.size()), p});
}

struct BadInput {
    const char* name;
    Bytes (*bytes)();
    bool thenStopSending;
    const char* reason;
};

void PrintTo(const BadInput& c, std::ostream* os) { *os << c.name; }

const BadInput kBadInputs[] = {
    {"BadEyecatcher",
     [] { return hex("47617466 10901000 00000001 00000001 00000000 00000003 454349 00 00000000"); },
     false, "bad eyecatcher 0x47617466"},
    {"NegativePayloadLength",
     [] { return hex("47617465 10901000 00000001 00000001 00000000 00000003 454349 00 FFFFFFFF"); },
     false, "payload length -1"},
    {"PayloadOver16MiB",
     [] { return hex("47617465 10901000 00000001 00000001 00000000 00000003 454349 00 01000001"); },
     false, "payload length 16777217"},
    {"RequestTypeLengthZero",
     [] { return hex("47617465 10901000 00000001 00000001 00000000 00000000 00 00000000"); }, false,
     "request type length 0"},
    {"RequestTypeLength17",
     [] { return hex("47617465 10901000 00000001 00000001 00000000 00000011"); }, false,
     "request type length 17"},
    {"RequestTypeLengthNegative",
     [] { return hex("47617465 10901000 00000001 00000001 00000000 FFFFFFFF"); }, false,
     "request type length -1"},
    {"UnknownRequestType", [] { return header(1, 1, "XYZ", 0); }, false,
     "unknown request type 'XYZ'"},
    {"UnexpectedFlowType", [] { return header(3, 1, "ECI", 0); }, false, "unexpected flow type 3"},
    {"EciPayloadLongerThanItsFields",
     [] { return eciMessageWithPayload(cat({goodEciPayload(), hex("00")}), 186); }, false,
     "malformed ECI request (payload of 186 bytes)"},
    {"EciPayloadShorterThanItsFields",
     [] {
         const Bytes p = goodEciPayload();
         return eciMessageWithPayload(Bytes(p.begin(), p.end() - 1), 184);
     },
     false, "malformed ECI request (payload of 184 bytes)"},
    {"EciImpossibleContainerCount", [] { return eciWithChannelCount(0x7FFFFFFF); }, false,
     "malformed ECI request"},
    {"EsiPayloadTooShort", [] { return cat({header(1, 1, "ESI", 4), be32(0)}); }, false,
     "malformed ESI request (payload of 4 bytes)"},
    {"HandshakePayloadTooShort", [] { return cat({header(5, -2, "BASE", 10), repeat(0, 10)}); },
     false, "malformed handshake (payload of 10 bytes)"},
    {"TruncatedMessage", [] { return cat({header(1, 1, "ECI", 100), repeat(1, 10)}); }, true,
     "truncated message: payload of 100 bytes announced"},
    {"TruncatedHeader", [] { return hex("47617465 10901000 0000"); }, true, "truncated header"},
};

class ZepgwBadClient : public ::testing::TestWithParam<BadInput> {};

TEST_P(ZepgwBadClient, IsDisconnectedWithReasonWhileOthersCarryOn)
{
    const BadInput& c = GetParam();
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    RawClient good, bad;
    ASSERT_TRUE(good.connect(gw.port()));
    ASSERT_TRUE(good.handshake());
    ASSERT_TRUE(bad.connect(gw.port()));
    ASSERT_TRUE(bad.handshake());
    ASSERT_TRUE(bad.send(c.bytes()));
    if (c.thenStopSending)
        bad.endSending();
    EXPECT_TRUE(bad.waitClosed(5));
    EXPECT_NE(gw.log().find(std::string("conn 2 closed: ") + c.reason), std::string::npos)
        << gw.log();

    EciCall call;
    call.commarea = ascii("still here");
    Bytes answer;
    ASSERT_TRUE(good.call(eciMessage(1, call), answer));
    EXPECT_EQ(toHex(Bytes(answer.end() - 11, answer.end())), toHex(cat({ascii("still here"), hex("00")})));
    EXPECT_TRUE(gw.stop());
}

INSTANTIATE_TEST_SUITE_P(All, ZepgwBadClient, ::testing::ValuesIn(kBadInputs),
                         [](const ::testing::TestParamInfo<BadInput>& info) {
                             return std::string(info.param.name);
                         });

class ZepgwStopSignal : public ::testing::TestWithParam<int> {};

TEST_P(ZepgwStopSignal, EndsZepgwWithStatusZeroAndClosesEveryConnection)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    RawClient waiting, delayed;
    ASSERT_TRUE(waiting.connect(gw.port()));
    ASSERT_TRUE(waiting.handshake());
    ASSERT_TRUE(delayed.connect(gw.port()));
    ASSERT_TRUE(delayed.handshake());
    EciCall hang;
    hang.program = "HANG    ";
    ASSERT_TRUE(waiting.send(eciMessage(1, hang)));
    EciCall delay;
    delay.program = "DELAY   ";
    delay.commarea = ascii("60000");
    ASSERT_TRUE(delayed.send(eciMessage(1, delay)));
    // The handshake of a third client proves both requests were read.
    RawClient third;
    ASSERT_TRUE(third.connect(gw.port()));
    ASSERT_TRUE(third.handshake());
    EciCall echo;
    Bytes answer;
    ASSERT_TRUE(waiting.call(eciMessage(2, echo), answer));
    ASSERT_TRUE(delayed.call(eciMessage(2, echo), answer));

    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(gw.signal(GetParam()));
    int status = -1;
    ASSERT_TRUE(gw.waitExit(10, &status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    for (RawClient* c : {&waiting, &delayed, &third}) {
        Bytes rest;
        EXPECT_TRUE(c->waitClosed(5, &rest));
        EXPECT_TRUE(rest.empty());
    }
    EXPECT_TRUE(gw.stop());
}

INSTANTIATE_TEST_SUITE_P(All, ZepgwStopSignal, ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigint");
                         });

TEST(ZepgwRobustness, IdleExitAfterTheLastClientLeaves)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start({"--idle-exit", "1"}));
    {
        RawClient c;
        ASSERT_TRUE(c.connect(gw.port()));
        ASSERT_TRUE(c.handshake());
    }
    int status = -1;
    ASSERT_TRUE(gw.waitExit(10, &status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(gw.log().find("no client for 1 seconds"), std::string::npos) << gw.log();
}

TEST(ZepgwRobustness, EndOfStandardInputEndsZepgw)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    gw.closeInput();
    int status = -1;
    ASSERT_TRUE(gw.waitExit(10, &status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ZepgwRobustness, HelpNamesEveryOptionProgramAndFaultMode)
{
    std::string out;
    int status = -1;
    ASSERT_TRUE(ZepgwProcess::run({"--help"}, &out, &status));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    for (const char* word :
         {"--port", "--host", "--idle-exit", "--ping", "--systems", "--users",
          "--exit-on-stdin-eof", "-v", "--help", "ECHO", "REVERSE", "UPPER", "SHORT", "ABEND",
          "FAIL", "DELAY", "HANG", "LUW", "CHANNEL", "CHANBAD", "OVERSIZE", "WHO", "FERROR",
          "FEXCEPT", "STRAY", "BADEYE", "DROP", "DROPMID", "GWCLOSE", "NOHS", "HSERR",
          "HSBADEYE", "PINGY", "ZEPSYS1", "ZEPUSER", "ALICE", "EXPIRED"}) {
        EXPECT_NE(out.find(word), std::string::npos) << word;
    }
}

struct BadStart {
    std::vector<std::string> args;
    std::string fileContent;  // of the file whose path replaces @ in args
    int status;
};

TEST(ZepgwRobustness, BadCommandLinesAndTablesStopItAtOnce)
{
    const BadStart cases[] = {
        {{"--nope"}, "", 2},
        {{"--port", "65536"}, "", 2},
        {{"--port", "12x"}, "", 2},
        {{"--ping"}, "", 2},
        {{"--idle-exit", "0"}, "", 2},
        {{"--users", "/nonexistent/zepgw-users"}, "", 1},
        {{"--users", "@"}, "ONLYONEWORD\n", 1},
        {{"--users", "@"}, "ELEVENCHARS pw\n", 1},
        {{"--users", "@"}, "USER pw soon\n", 1},
        {{"--systems", "@"}, "TENCHARSXY\tdescription\n", 1},
        {{"--systems", "@"}, "S\t" + std::string(62, 'd') + "\n", 1},
    };
    for (const BadStart& c : cases) {
        TempFile file(c.fileContent);
        std::vector<std::string> args = c.args;
        for (std::string& a : args) {
            if (a == "@")
                a = file.path();
        }
        int status = -1;
        ASSERT_TRUE(ZepgwProcess::run(args, nullptr, &status)) << args[0];
        EXPECT_TRUE(WIFEXITED(status)) << args[0];
        EXPECT_EQ(WEXITSTATUS(status), c.status) << args[0] << " " << args.back();
    }
}

TEST(ZepgwRobustness, OptionValueAfterEqualsSign)
{
    TempFile users("EQ eqpass\n");
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start({"--users=" + users.path(), "--host=127.0.0.1"}));
    RawClient c;
    ASSERT_TRUE(c.connect(gw.port()));
    const Bytes p = cat({be32(0), ascii("EQ"), repeat(0, 8), be32(6), Wire().scrambled("eqpass").b, repeat(0, 8)});
    Bytes answer;
    ASSERT_TRUE(c.call(cat({header(1, 1, "ESI", p.size()), p}), answer));
    EXPECT_EQ(wordAt(payload(answer), 0), 0);
}

}  // namespace
