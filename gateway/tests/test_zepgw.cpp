// zepgw's codec against golden byte images in both directions, its programs, its users file, and zepgw against
// misbehaving clients, the ways it stops by itself, and its command line. The library's suites drive
// its fault modes and its systems file end to end.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "bytes.h"
#include "run_command.h"
#include "zepgw_process.h"

namespace {

Bytes hex(const std::string& digits) { return hexBytes(digits); }
Bytes ascii(const std::string& text) { return Bytes(text.begin(), text.end()); }
Bytes be32(int32_t value) { return Wire().i32(value).b; }
Bytes name16(const std::string& name) { return Wire().field(name, 16).b; }
// A whole message: header for `payload`, then the payload.
Bytes message(int32_t flowType, int32_t messageId, const std::string& type, const Bytes& payload)
{
    return cat({Wire().header(flowType, messageId, type, static_cast<int32_t>(payload.size())).b, payload});
}

// An ECI request payload of kind 1 as the client library lays it out; program and system are the 8 bytes sent,
// channel a whole channel section or none.
Bytes eciPayload(const std::string& program, const std::string& commarea, int32_t extendMode = 0,
                 int32_t luwToken = 0, const std::string& system = "        ", const Bytes& channel = {})
{
    Wire w;
    w.i32(1).i32(extendMode).i32(luwToken).i32(0).u8(0).i32(8).text(system).field("USER1", 16);
    w.i32(2).scrambled("ab").text(program).text("TRN1");
    w.i32(0).i32(static_cast<int32_t>(commarea.size())).u8(0).u8(0).text(commarea);
    if (channel.empty()) w.u8(0); else w.u8(0xFF).raw(channel);
    return w.i16(0).u8(0).i32(-1).i32(7).b;
}

// A bare protocol client: it sends byte strings written by hand and reads back whole messages, knowing only
// where the header keeps its lengths. Every read gives up after 5 s.
class RawClient {
public:
    ~RawClient() { close(); }

    // Connects to zepgw, and exchanges a handshake with this APPLID unless it is empty.
    bool connect(int port, const std::string& applid = "TESTAPP")
    {
        close();
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        const timeval limit{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
        const Bytes names = Wire().i16(int32_t(applid.size())).text(applid).i16(0).b;
        Bytes answer;
        return applid.empty() ||
               (call(message(5, -2, "BASE", cat({hex("0002656E 00024742 00000000 00000000 0000"), names})), answer) &&
                wordAt(answer, 8) == 5);
    }
    bool send(const Bytes& bytes)
    {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // One whole message; false on a time-out or the end.
    bool read(Bytes& message) { return readMessage(fd_, message); }
    // A request and its one answer.
    bool call(const Bytes& request, Bytes& answer) { return send(request) && read(answer); }
    // Reads until the peer closes; true when it did before a read timed out. What arrived first is added to *rest.
    bool waitClosed(Bytes* rest = nullptr)
    {
        uint8_t buf[4096];
        ssize_t r;
        while ((r = recv(fd_, buf, sizeof buf, 0)) > 0)
            if (rest != nullptr) rest->insert(rest->end(), buf, buf + r);
        // A reset counts as closed too; only the time-out does not.
        return r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    // Ends the sending side only, as a client that stops in mid-message.
    void endSending() { shutdown(fd_, SHUT_WR); }
    void close()
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

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
// A password verification (kind 0) of `user` at no particular server.
Bytes esi(const std::string& user, const std::string& password, int32_t kind = 0)
{
    return Wire().i32(kind).field(user, 10).i32(int32_t(password.size())).scrambled(password).field("", 8).b;
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

TEST_F(Zepgw, GoldenImagesOfHandshakeEciEsiAndClose)
{
    TempFile users("# test users\n\nBOBBY SECRET7\r\nSECOND two2 expired\n");
    start({"--users=" + users.path(), "--host=127.0.0.1"}, "");   // option values after "=" too
    const Bytes hs = hex("47617465 10901000 00000005 FFFFFFFE 00000000 00000004 42415345 00 0000001B"
                         "0002656E 00024742 00000000 00000000 0000 0005 5445535431 0000");
    const Bytes eciRequest = cat({hex("47617465 10901000 00000001 00000001 00000000 00000003 454349 00 000000B9"
                                      "00000001 00000000 00000000 00000000 00 00000008 2020202020202020"
                                      "5553455231 0000000000000000000000 00000002 9E03"
                                      "4543484F20202020 54524E31 00000000 00000064 00 00"),
                                  ascii(kAlphabet), hex("00 0000 00 FFFFFFFF 00000007")});
    const Bytes esiRequest = hex("47617465 10901000 00000001 00000002 00000000 00000003 455349 00 00000021"
                                 "00000000 424F424259 0000000000 00000007 AC160611171163 54455354 00000000");
    // Whole requests and the whole answers to them, in order on one connection.
    const struct { Bytes request, answer; } exchanges[] = {
        {hs, hex(kHandshakeReply)},
        {eciRequest, cat({hex("47617465 10901000 00000003 00000001 00000000 00000003 454349 00 0000007E"
                              "00000001 00000000 00000000 00000000 20202020 00000064 00"), ascii(kAlphabet), hex("00")})},
        {esiRequest, hex("47617465 10901000 00000003 00000002 00000000 00000003 455349 00 0000005C 00000000"
                         "000007E5 00000000 00000001 00000009 00000000 0000000A 00000000"
                         "000007E7 00000000 00000001 0000000B 00000000 0000001E 00000000"
                         "000007E6 00000000 00000001 0000000A 00000000 00000014 00000000 00000001")},
        // The users file replaces the built-in users; an ESI kind the Gateway does not know is a system error.
        {message(1, 3, "ESI", esi("SECOND", "two2")), message(3, 3, "ESI", be32(-105))},
        {message(1, 4, "ESI", esi("ZEPUSER", "ZEPPASS1")), message(3, 4, "ESI", be32(-108))},
        {message(1, 5, "ESI", esi("BOBBY", "SECRET7", 7)), message(3, 5, "ESI", be32(-9))},
        // So is an ECI request of a kind it does not know, with an error flow.
        {message(1, 6, "ECI", hex("00000005 0000 00 FFFFFFFF 00000001")),
         hex("47617465 10901000 00000004 00000006 0000F005 00000003 454349 00 00000000")},
        {hex(kClose), hex(kClose)},
    };
    for (const auto& e : exchanges) {
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
    const std::string blank(8, ' ');
    const Bytes chanbadIn = cat({name16("CH"), be32(1208), be32(1), container("ONE", "01000001 00000000 00000001", "1")});
    const Bytes chanbadOut = cat({hex("00 FF"), name16("CH"), hex("000004B8 00000002"),
                                  container("NOSUCH", "02000002 000004B8 00000000", ""),
                                  container("LATE", "01000002 000004B8 00000004", "late")});
    const struct { Bytes request, reply; } cases[] = {
        {eciPayload("ECHO    ", kAlphabet), eciReply(0, "    ", 100, withData(kAlphabet))},
        {eciPayload("SHORT   ", kAlphabet), eciReply(0, "    ", 100, cat({hex("FF 00 00000014"), ascii(kAlphabet.substr(0, 20)), hex("00")}))},
        {eciPayload("ABEND   ", kAlphabet), eciReply(-7, "ZA01", 100, withData(kAlphabet))},
        {eciPayload("FAIL    ", kAlphabet), eciReply(-30, "    ", 100, withData(kAlphabet))},
        {eciPayload("NOSUCHPG", kAlphabet), eciReply(-7, "ZUNK", 100, withData(kAlphabet))},
        {eciPayload("OVERSIZE", kAlphabet), eciReply(0, "    ", 200, withData(kAlphabet + std::string(100, 'Z')))},
        {eciPayload("ECHO    ", "abc", 3), eciReply(-2, "    ", 3, noData())},
        {eciPayload("ECHO    ", "xyz", 0, 0, "NOSUCH  "), eciReply(-22, "    ", 3, noData())},
        {eciPayload("ECHO    ", "xyz", 0, 0, "zepsys1 "), eciReply(-22, "    ", 3, noData())},
        {eciPayload("ECHO    ", "xyz", 0, 0, std::string("ZEPSYS2\0", 8)), eciReply(0, "    ", 3, withData("xyz"))},
        {eciPayload("CHANBAD ", "", 0, 0, blank, chanbadIn), eciReply(0, "    ", 0, chanbadOut)},
        {eciPayload("LUW     ", "....tail", 1, 99), eciReply(-8, "    ", 8, noData())},   // a unit zepgw does not know
        {eciPayload("CHANNEL ", "abc"), eciReply(-7, "ZNCH", 3, withData("abc"))},         // no channel sent
    };
    int32_t id = 0;
    for (const auto& c : cases) {
        Bytes answer;
        ASSERT_TRUE(client.call(message(1, ++id, "ECI", c.request), answer));
        EXPECT_EQ(toHex(answer), toHex(message(3, id, "ECI", c.reply))) << "request " << id;
    }
}

// Each bad client is disconnected with its reason logged, while a good one carries on.
TEST_F(Zepgw, BadInputDisconnectsOnlyItsClient)
{
    const Bytes good = eciPayload("ECHO    ", std::string(100, 'c'));
    const Bytes badCount = eciPayload("ECHO    ", "", 0, 0, "        ", cat({name16("CH"), be32(819), be32(0x7FFFFFFF)}));
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
        {message(1, 1, "ECI", cat({good, hex("00")})), false, "malformed ECI request (payload of 186 bytes)"},
        {message(1, 1, "ECI", Bytes(good.begin(), good.end() - 1)), false, "malformed ECI request (payload of 184 bytes)"},
        {message(1, 1, "ECI", badCount), false, "malformed ECI request"},
        {message(1, 1, "ESI", be32(0)), false, "malformed ESI request (payload of 4 bytes)"},
        {message(5, -2, "BASE", Bytes(10, 0)), false, "malformed handshake (payload of 10 bytes)"},
        {cat({Wire().header(1, 1, "ECI", 100).b, Bytes(10, 1)}), true, "truncated message: payload of 100 bytes announced"},
        {hex("47617465 10901000 0000"), true, "truncated header"},
    };
    start();
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
    Bytes answer;
    ASSERT_TRUE(client.call(message(1, 1, "ECI", eciPayload("ECHO    ", "still here")), answer));
    EXPECT_EQ(toHex(Bytes(answer.end() - 11, answer.end())), toHex(cat({ascii("still here"), hex("00")})));
    EXPECT_TRUE(gw.stop());
}

// --idle-exit after the last client has gone, the end of standard input, and SIGINT (as SIGTERM) at once with a
// request still unanswered: each ends zepgw with status 0.
TEST(ZepgwRobustness, EndsByItselfWithStatusZero)
{
    ZepgwProcess idle, orphan, interrupted;
    ASSERT_TRUE(idle.start({"--idle-exit", "1"}) && orphan.start() && interrupted.start());
    RawClient{}.connect(idle.port());
    orphan.closeInput();
    RawClient hanging;
    Bytes answer;
    // The echo after the HANG proves that zepgw has read it.
    ASSERT_TRUE(hanging.connect(interrupted.port()) && hanging.send(message(1, 1, "ECI", eciPayload("HANG    ", ""))));
    ASSERT_TRUE(hanging.call(message(1, 2, "ECI", eciPayload("ECHO    ", "")), answer) && interrupted.signal(SIGINT));
    for (ZepgwProcess* gw : {&idle, &orphan, &interrupted}) {
        int status = -1;
        ASSERT_TRUE(gw->waitExit(10, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_NE(idle.log().find("no client for 1 seconds"), std::string::npos) << idle.log();
    EXPECT_TRUE(hanging.waitClosed());
}

// Help and version, and bad command lines and tables, which stop it at once.
TEST(ZepgwRobustness, CommandLines)
{
    // zepgw run to its end, or killed after 10 s; its input is empty.
    const auto run = [](const std::string& args) {
        return runCommand("timeout -s KILL 10 " + std::string(ZepgwProcess::path()) + " " + args + " </dev/null");
    };
    const CommandResult help = run("--help");
    EXPECT_EQ(0, help.status);
    for (const char* word : {"--port", "--host", "--idle-exit", "--ping", "--systems", "--users", "--exit-on-stdin-eof",
                             "-v", "--help", "ECHO", "CHANBAD", "HSBADEYE", "PINGY", "ZEPSYS1", "EXPIRED"})
        EXPECT_NE(help.output.find(word), std::string::npos) << word;
    EXPECT_EQ(run("--version").output, "zepgw 1.0.0\n");
    // A file argument "@" names a file with the given content.
    const struct { std::string args, fileContent; int status; } cases[] = {
        {"--nope", "", 2},
        {"--port 65536", "", 2},
        {"--port 12x", "", 2},
        {"--ping", "", 2},
        {"--idle-exit 0", "", 2},
        {"--users /nonexistent/zepgw-users", "", 1},
        {"--users @", "ONLYONEWORD\n", 1},
        {"--users @", "ELEVENCHARS pw\n", 1},
        {"--users @", "USER pw soon\n", 1},
        {"--systems @", "TENCHARSXY\tdescription\n", 1},
        {"--systems @", "S\t" + std::string(62, 'd') + "\n", 1},
    };
    for (const auto& c : cases) {
        TempFile file(c.fileContent);
        std::string args = c.args;
        if (args.back() == '@') args.replace(args.size() - 1, 1, file.path());
        EXPECT_EQ(c.status, run(args).status) << args << " " << c.fileContent;
    }
}

TEST_F(Zepgw, PingSendsPingFlows)
{
    start({"--ping=1"});
    Bytes answer;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(client.read(answer));
        EXPECT_EQ(toHex(answer), "476174651090100000000007000000000000000000000004424153450000000000");
    }
}

}  // namespace
