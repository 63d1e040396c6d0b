// zepgw against misbehaving clients, signals, the ways it stops by itself, and its command line.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

#include "raw_client.h"
#include "zepgw_process.h"

using namespace gwtest;

namespace {

Bytes withoutLastByte(Bytes b) { b.pop_back(); return b; }

// Each bad client is disconnected with its reason logged, while a good one carries on.
TEST(ZepgwRobustness, BadInputDisconnectsOnlyItsClient)
{
    EciCall good{"ECHO    ", std::string(100, 'c')};
    const EciCall badCount{"ECHO    ", "", 0, 0, "        ", cat({name16("CH"), be32(819), be32(0x7FFFFFFF)})};
    const char* header = "47617465 10901000 00000001 00000001 00000000 ";
    const struct { Bytes sent; bool thenStopSending; std::string reason; } cases[] = {
        {hex("47617466 10901000 00000001 00000001 00000000 00000003 454349 00 00000000"), false, "bad eyecatcher 0x47617466"},
        {hex(header + std::string("00000003 454349 00 FFFFFFFF")), false, "payload length -1"},
        {hex(header + std::string("00000003 454349 00 01000001")), false, "payload length 16777217"},
        {hex(header + std::string("00000000 00 00000000")), false, "request type length 0"},
        {hex(header + std::string("00000011")), false, "request type length 17"},
        {hex(header + std::string("FFFFFFFF")), false, "request type length -1"},
        {message(1, 1, "XYZ", {}), false, "unknown request type 'XYZ'"},
        {message(3, 1, "ECI", {}), false, "unexpected flow type 3"},
        {message(1, 1, "ECI", cat({eciPayload(good), hex("00")})), false, "malformed ECI request (payload of 186 bytes)"},
        {message(1, 1, "ECI", withoutLastByte(eciPayload(good))), false, "malformed ECI request (payload of 184 bytes)"},
        {eciMessage(1, badCount), false, "malformed ECI request"},
        {message(1, 1, "ESI", be32(0)), false, "malformed ESI request (payload of 4 bytes)"},
        {message(5, -2, "BASE", Bytes(10, 0)), false, "malformed handshake (payload of 10 bytes)"},
        {cat({Wire().header(1, 1, "ECI", 100).b, Bytes(10, 1)}), true, "truncated message: payload of 100 bytes announced"},
        {hex("47617465 10901000 0000"), true, "truncated header"},
    };
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    RawClient client;
    ASSERT_TRUE(client.connect(gw.port()));
    int conn = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        RawClient bad;
        ASSERT_TRUE(bad.connect(gw.port()));
        ASSERT_TRUE(bad.send(c.sent));
        if (c.thenStopSending) bad.endSending();
        EXPECT_TRUE(bad.waitClosed());
        EXPECT_NE(gw.log().find("conn " + std::to_string(++conn) + " closed: " + c.reason), std::string::npos) << gw.log();
    }
    good.commarea = "still here";
    Bytes answer;
    ASSERT_TRUE(client.call(eciMessage(1, good), answer));
    EXPECT_EQ(toHex(Bytes(answer.end() - 11, answer.end())), toHex(cat({ascii("still here"), hex("00")})));
    EXPECT_TRUE(gw.stop());
}

// SIGTERM and SIGINT end zepgw at once with status 0 and close every connection, answered or not.
TEST(ZepgwRobustness, StopSignalsEndZepgwAndCloseEveryConnection)
{
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig);
        ZepgwProcess gw;
        ASSERT_TRUE(gw.start());
        RawClient waiting, delayed;
        ASSERT_TRUE(waiting.connect(gw.port()) && delayed.connect(gw.port()));
        Bytes answer;
        // The echo after each proves the request before it was read.
        ASSERT_TRUE(waiting.send(eciMessage(1, {"HANG    "})) && waiting.call(eciMessage(2, {}), answer));
        ASSERT_TRUE(delayed.send(eciMessage(1, {"DELAY   ", "60000"})) && delayed.call(eciMessage(2, {}), answer));
        ASSERT_TRUE(gw.signal(sig));
        int status = -1;
        ASSERT_TRUE(gw.waitExit(5, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        for (RawClient* c : {&waiting, &delayed}) {
            Bytes rest;
            EXPECT_TRUE(c->waitClosed(&rest));
            EXPECT_EQ(toHex(rest), "");
        }
    }
}

// --idle-exit after the last client has gone, the end of standard input, each with status 0.
TEST(ZepgwRobustness, EndsByItselfWithStatusZero)
{
    ZepgwProcess idle, orphan;
    ASSERT_TRUE(idle.start({"--idle-exit", "1"}) && orphan.start());
    RawClient{}.connect(idle.port());
    orphan.closeInput();
    for (ZepgwProcess* gw : {&idle, &orphan}) {
        int status = -1;
        ASSERT_TRUE(gw->waitExit(10, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_NE(idle.log().find("no client for 1 seconds"), std::string::npos) << idle.log();
}

// Help and version, and bad command lines and tables, which stop it at once.
TEST(ZepgwRobustness, CommandLines)
{
    std::string out;
    int status = -1;
    ASSERT_TRUE(ZepgwProcess::run({"--help"}, &out, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (const char* word : {"--port", "--host", "--idle-exit", "--ping", "--systems", "--users", "--exit-on-stdin-eof",
                             "-v", "--help", "ECHO", "REVERSE", "UPPER", "SHORT", "ABEND", "FAIL", "DELAY", "HANG", "LUW",
                             "CHANNEL", "CHANBAD", "OVERSIZE", "WHO", "FERROR", "FEXCEPT", "STRAY", "BADEYE", "DROP",
                             "DROPMID", "GWCLOSE", "NOHS", "HSERR", "HSBADEYE", "PINGY", "ZEPSYS1", "ZEPUSER", "ALICE",
                             "EXPIRED"})
        EXPECT_NE(out.find(word), std::string::npos) << word;
    ASSERT_TRUE(ZepgwProcess::run({"--version"}, &out, &status));
    EXPECT_EQ(out, "zepgw 1.0.0\n");
    const struct { std::vector<std::string> args; std::string fileContent; int status; } cases[] = {
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
    for (const auto& c : cases) {
        TempFile file(c.fileContent);
        std::vector<std::string> args = c.args;
        if (args.back() == "@") args.back() = file.path();
        ASSERT_TRUE(ZepgwProcess::run(args, nullptr, &status)) << args[0];
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.status) << args[0] << " " << c.fileContent;
    }
}

// Option values after "=", and --ping sending ping flows.
TEST(ZepgwRobustness, OptionValuesAfterEqualsSignAndPings)
{
    TempFile users("EQ eqpass\n");
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start({"--users=" + users.path(), "--host=127.0.0.1", "--ping=1"}));
    RawClient c;
    ASSERT_TRUE(c.connect(gw.port()));
    Bytes answer;
    ASSERT_TRUE(c.call(message(1, 1, "ESI", Wire().i32(0).field("EQ", 10).i32(6).scrambled("eqpass").field("", 8).b), answer));
    EXPECT_EQ(wordAt(payload(answer), 0), 0);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(c.read(answer));
        EXPECT_EQ(toHex(answer), "476174651090100000000007000000000000000000000004424153450000000000");
    }
}

}  // namespace
