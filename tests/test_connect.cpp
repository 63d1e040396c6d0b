// Connections: the argument checks of the public calls, every way an open fails, the connected token, the
// APPLIDs from the environment, concurrent opens, and the system list asked of the Gateway on an open connection.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <functional>

#include "library_support.h"

namespace {

const std::string OPEN_API = "API.ZEP_openRemoteGatewayConnectionApplid() ";

// Each refused call writes one record, of its first failing argument; after a purge the token is refused by all.
TEST(Arguments, FirstFailingArgumentWinsAndStaleTokensAreRefused)
{
    GatewayConnection gc;
    GatewayToken* tok = gc.token();
    GatewayToken *opened = nullptr, *none = nullptr;
    unsigned short count = 1;
    SystemInfo list[1];
    char* text = nullptr;
    auto open = [&](const char* host, int port, bool tokPtr, unsigned int timeout, const char* applid, const char* qualifier) {
        return ZEP_openRemoteGatewayConnectionApplid(host, port, tokPtr ? &opened : nullptr, timeout, applid, qualifier);
    };
    const std::string CLOSE = "API.ZEP_closeGatewayConnection() ", PURGE = "API.ZEP_purgeGatewayConnection() ";
    const std::string LIST = "API.ZEP_listSystems() ", NULLPTR = "Supplied pointer is NULL, ";
    const struct { std::function<int()> call; int rc, id; std::string message; } cases[] = {
        {[&] { return open("127.0.0.1", 0, true, 5, "A", "Q"); }, ZEP_ERR_BADPORT, 1001, OPEN_API + "Port value out of range, port=0"},
        {[&] { return open("127.0.0.1", 65536, true, 5, "A", "Q"); }, ZEP_ERR_BADPORT, 1001, OPEN_API + "Port value out of range, port=65536"},
        {[&] { return open(nullptr, -5, false, 5, nullptr, nullptr); }, ZEP_ERR_BADPORT, 1001, OPEN_API + "Port value out of range, port=-5"},
        {[&] { return open(nullptr, 1, false, 3601, nullptr, nullptr); }, ZEP_ERR_NULLGWTOKPTR, 1002, OPEN_API + "NULL gateway token pointer, gwTokPtr=(nil)"},
        {[&] { return open("127.0.0.1", 1, true, 3601, "A", "Q"); }, ZEP_ERR_INVALIDTIMEOUTPARM, 1003, OPEN_API + "Timeout value out of range, connTimeout=3601"},
        {[&] { return open(nullptr, 1, true, -1u, nullptr, nullptr); }, ZEP_ERR_INVALIDTIMEOUTPARM, 1003, OPEN_API + "Timeout value out of range, connTimeout=-1"},
        {[&] { return open(nullptr, 1, true, 5, nullptr, nullptr); }, ZEP_ERR_NULLADDRESS, 1004, OPEN_API + "NULL host name, hostname=(nil)"},
        {[&] { return open("127.0.0.1", 1, true, 5, nullptr, nullptr); }, ZEP_ERR_NULLPARM, 1005, OPEN_API + "NULL applid, applid=(nil)"},
        {[&] { return open("127.0.0.1", 1, true, 5, "A", nullptr); }, ZEP_ERR_NULLPARM, 1006, OPEN_API + "NULL applid qualifier, applidQualifier=(nil)"},
        {[] { return ZEP_closeGatewayConnection(nullptr); }, ZEP_ERR_NULLGWTOKPTR, 1010, CLOSE + "NULL gateway token pointer, gwTokPtr=(nil)"},
        {[&] { return ZEP_closeGatewayConnection(&none); }, ZEP_ERR_NULLGWTOK, 1011, CLOSE + "NULL gateway token, *gwTokPtr=(nil)"},
        {[] { return ZEP_purgeGatewayConnection(nullptr, 5000); }, ZEP_ERR_NULLGWTOKPTR, 1081, PURGE + "NULL gateway token pointer, gwTokPtr=(nil)"},
        {[&] { return ZEP_purgeGatewayConnection(&none, 5000); }, ZEP_ERR_NULLGWTOK, 1082, PURGE + "NULL gateway token, *gwTokPtr=(nil)"},
        {[&] { return ZEP_purgeGatewayConnection(&tok, 3601); }, ZEP_ERR_INVALIDTIMEOUTPARM, 1083, PURGE + "Timeout value out of range, closeTimeout=3601"},
        {[&] { return ZEP_purgeGatewayConnection(&tok, -1u); }, ZEP_ERR_INVALIDTIMEOUTPARM, 1083, PURGE + "Timeout value out of range, closeTimeout=-1"},
        {[&] { return ZEP_listSystems(nullptr, &count, list); }, ZEP_ERR_NULLGWTOK, 1018, LIST + "NULL gateway token, gwTok=(nil)"},
        {[&] { return ZEP_listSystems(tok, nullptr, list); }, ZEP_ERR_NULLPTR, 1019, LIST + "NULL Systems Parameter, Systems=(nil)"},
        {[&] { return ZEP_listSystems(tok, &count, nullptr); }, ZEP_ERR_NULLPTR, 1020, LIST + "NULL List Parameter, List=(nil)"},
        {[&] { return ZEP_getApplid(nullptr, &text); }, ZEP_ERR_NULLGWTOK, 1055, "API.ZEP_getApplid() NULL gateway token, gwTok=(nil)"},
        {[] { return ZEP_getApplidQualifier(nullptr, nullptr); }, ZEP_ERR_NULLGWTOK, 1059, "API.ZEP_getApplidQualifier() NULL gateway token, gwTok=(nil)"},
        {[&] { return ZEP_getApplidQualifier(tok, nullptr); }, ZEP_ERR_NULLPTR, 1060, "API.ZEP_getApplidQualifier() " + NULLPTR + "applidQualifier=(nil)"},
        {[] { return ZEP_getDLLVersion(nullptr); }, ZEP_ERR_NULLPTR, 1033, "API.ZEP_getDLLVersion() " + NULLPTR + "dllVersPtr=(nil)"},
        {[] { return ZEP_getAPIVersion(nullptr); }, ZEP_ERR_NULLPTR, 1030, "API.ZEP_getAPIVersion() " + NULLPTR + "apiVersPtr=(nil)"},
        {[] { return ZEP_getAPITraceLevel(nullptr); }, ZEP_ERR_NULLPTR, 1036, "API.ZEP_getAPITraceLevel() " + NULLPTR + "traceStatePtr=(nil)"},
    };
    for (const int level : {0, 1})   // the outcome does not depend on whether the refusal is traced
        for (const auto& c : cases) {
            TraceCapture trace(level);
            EXPECT_EQ(c.rc, c.call()) << c.message;
            const std::vector<std::string> traced = {"*EXC* " + c.message};
            EXPECT_EQ(level == 1 ? traced : std::vector<std::string>{}, recordTexts(trace, c.id));
            EXPECT_EQ(level, (int)trace.records().size()) << trace.text();
        }
    EXPECT_EQ(nullptr, opened);
    EXPECT_EQ(0, tok->apiCalls) << "every registration is undone";
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
    ASSERT_EQ(0, ZEP_purgeGatewayConnection(gc.tokenPtr(), 3600));
    char area[8] = {0};
    for (const int rc : {ZEP_closeGatewayConnection(&tok), ZEP_purgeGatewayConnection(&tok, 0), ZEP_getApplid(tok, &text),
                         ZEP_getApplidQualifier(tok, &text), ZEP_listSystems(tok, &count, list), callProgram(tok, "ECHO", area, 8)})
        EXPECT_EQ(ZEP_ERR_BADGWTOK, rc);
    EXPECT_NE(nullptr, tok) << "a refused close leaves the variable alone";
}

// A TCP socket bound to a free port on loopback, and that port.
std::pair<int, int> boundSocket()
{
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(sock, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
    return {sock, ntohs(address.sin_port)};
}

// Refused, pending, unresolvable, without or with a failed handshake: nothing is listed, the code names the cause.
TEST(Connect, FailedOpensLeaveNoTokenAndGiveTheirCause)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    const auto [unused, closed] = boundSocket();
    close(unused);
    // A listener whose backlog is full: the kernel drops further connection requests, so a connect stays pending.
    const auto [listener, pending] = boundSocket();
    listen(listener, 0);
    std::vector<int> sockets{listener};
    const sockaddr_in full{AF_INET, htons(static_cast<uint16_t>(pending)), {htonl(INADDR_LOOPBACK)}, {}};
    for (int i = 0; i < 4; i++) {
        sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        connect(sockets.back(), reinterpret_cast<const sockaddr*>(&full), sizeof full);
    }
    // The bad eyecatcher's own record is checked by the flow suite.
    const struct {
        const char* host; int port; const char* applid; unsigned int connTimeout; int rc; double minSeconds;
    } cases[] = {
        {"127.0.0.1", closed, "", 0, ZEP_ERR_CONNECTFAILED, 0},
        {"127.0.0.1", closed, "", 5, ZEP_ERR_CONNECTFAILED, 0},
        {"127.0.0.1", pending, "", 1, ZEP_ERR_CONNECTTIMEOUT, 0.9},
        {"zepgw-no-such-host.invalid", 2006, "", 5, ZEP_ERR_BADHOST, 0},
        {"127.0.0.1", gw.port(), "NOHS", 1, ZEP_ERR_CONNECTTIMEOUT, 0.9},
        {"127.0.0.1", gw.port(), "HSERR", 5, ZEP_ERR_WORK_WAS_REFUSED, 0},
        {"127.0.0.1", gw.port(), "HSBADEYE", 5, ZEP_ERR_SYSTEM_ERROR, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.host) + ":" + std::to_string(c.port) + " " + c.applid);
        TraceCapture trace(1);   // the records of the cause are written as well
        GatewayToken* tok = nullptr;
        const auto start = Clock::now();
        EXPECT_EQ(c.rc, ZEP_openRemoteGatewayConnectionApplid(c.host, c.port, &tok, c.connTimeout, c.applid, ""));
        EXPECT_GE(secondsSince(start), c.minSeconds);
        EXPECT_LT(secondsSince(start), 5.0);
        EXPECT_EQ(nullptr, tok);
        EXPECT_EQ(0, listedTokens());
    }
    for (const int sock : sockets) close(sock);
}

// The APPLIDs come from the environment when a variable is set, even to an empty value; then opens on two
// threads at once.
TEST(Connect, OpenListsAConnectedTokenAlsoAmongConcurrentOpens)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(4);   // the open's records are written as well; the APPLIDs it took decide what it read
    GatewayToken* tok = nullptr;
    setenv("ZEP_APPLID", "ENVAPPL8", 1);
    setenv("ZEP_APPLIDQUALIFIER", "", 1);
    ASSERT_EQ(0, ZEP_openRemoteGatewayConnectionApplid("localhost", gw.port(), &tok, 5, "ARGUMENT9", "ARGQUAL"));
    unsetenv("ZEP_APPLID");
    unsetenv("ZEP_APPLIDQUALIFIER");
    int keepAlive = 0, noDelay = 0;
    socklen_t length = sizeof(int);
    getsockopt(tok->socket, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &length);
    getsockopt(tok->socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(keepAlive, noDelay)) << "keep-alive and no delay";
    EXPECT_EQ(0, fcntl(tok->socket, F_GETFL) & O_NONBLOCK) << "blocking again after the bounded connect";
    char *applid = nullptr, *qualifier = nullptr;
    EXPECT_EQ(std::pair(0, 0), std::pair(ZEP_getApplid(tok, &applid), ZEP_getApplidQualifier(tok, &qualifier)));
    EXPECT_EQ(std::pair(tok->applid, tok->applidQual), std::pair(applid, qualifier)) << "the token's own texts";
    EXPECT_EQ("ENVAPPL8|", std::string(applid) + "|" + qualifier);
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    EXPECT_EQ(0, listedTokens());

    // At trace level 2 each open formats its token, next-token field included, while another open may chain a
    // token behind it; ThreadSanitizer checks that the two do not race.
    TraceCapture concurrent(2);
    auto cycles = [&gw] {
        int failures = 0;
        for (int i = 0; i < 15; i++) {
            GatewayToken* opened = nullptr;
            if (openGateway(gw, &opened) != 0 || ZEP_closeGatewayConnection(&opened) != 0) failures++;
        }
        return failures;
    };
    auto first = std::async(std::launch::async, cycles);
    EXPECT_EQ(0, cycles());
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(30u, concurrent.find(2009).size());
    EXPECT_EQ(0, listedTokens());
}

// The system list of a zepgw started with these arguments, into `capacity` entries of a list one longer, every
// byte 0x5A so that untouched bytes show: the code, the count, and each name and description padded with NULs.
TEST(ListSystems, CountCapacityAndNamesAsTheGatewayGivesThem)
{
    TempFile blanks("ABC      \tthree letters\n         \tall blanks\nNINECHARS\tfull\n"), empty("");
    const std::string rest(61, '\0'), untouched(70, '\x5A');
    const struct { std::vector<std::string> args; unsigned short capacity; int rc; std::vector<std::string> listed; } cases[] = {
        {{}, 5, 0, {"ZEPSYS1", "zepgw default system", "ZEPSYS2", "", "TEST", ""}},
        {{}, 2, ZEP_ERR_MORE_SYSTEMS, {"ZEPSYS1", "", "ZEPSYS2", ""}},
        {{"--systems", blanks.path()}, 3, 0,   // names lose trailing blanks, but never their first byte
         {"ABC", "", " ", "all blanks", "NINECHARS", ""}},
        {{"--systems", empty.path()}, 2, ZEP_ERR_NO_SYSTEMS, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "built-in" : c.args[1]);
        GatewayConnection gc(c.args);
        std::vector<SystemInfo> list(c.capacity + 1u);
        memset(list.data(), 0x5A, list.size() * sizeof(SystemInfo));
        unsigned short count = c.capacity;
        EXPECT_EQ(c.rc, ZEP_listSystems(gc.token(), &count, list.data()));
        ASSERT_EQ(c.listed.size() / 2, count);
        for (size_t i = 0; i < count; i++) {
            EXPECT_EQ((c.listed[2 * i] + rest).substr(0, 9), std::string(list[i].name, 9));
            if (!c.listed[2 * i + 1].empty()) { EXPECT_EQ((c.listed[2 * i + 1] + rest).substr(0, 61), std::string(list[i].description, 61)); }
        }
        EXPECT_EQ(untouched, std::string(list[count].name, 70)) << "nothing is written past the count";
        EXPECT_EQ(slotsInState(gc.token()), slotsInState(gc.token(), SLOT_FREE)) << "every slot is free again";
    }
}

}  // namespace
