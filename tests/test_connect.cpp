// Opening connections: the argument checks in their order, APPLIDs from the environment, resolution, the
// bounded connect, the handshake and its failures, against zepgw on loopback.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "library_support.h"
#include "trace_capture.h"


namespace {

const char* const OPEN_API = "API.ZEP_openRemoteGatewayConnectionApplid() ";

struct OpenArgsCase {
    const char* what;
    bool hostNull, tokPtrNull, applidNull, qualifierNull;
    int port;
    unsigned int connTimeout;
    int rc;
    int id;               // the *EXC* record
    const char* message;  // after OPEN_API
};

const OpenArgsCase openArgsCases[] = {
    {"port 0", false, false, false, false, 0, 5, ZEP_ERR_BADPORT, 1001, "Port value out of range, port=0"},
    {"port 65536", false, false, false, false, 65536, 5, ZEP_ERR_BADPORT, 1001, "Port value out of range, port=65536"},
    {"port before every NULL", true, true, true, true, -5, 5, ZEP_ERR_BADPORT, 1001,
     "Port value out of range, port=-5"},
    {"NULL token pointer before the time-out", true, true, true, true, 1, 3601, ZEP_ERR_NULLGWTOKPTR, 1002,
     "NULL gateway token pointer, gwTokPtr=(nil)"},
    {"time-out 3601", false, false, false, false, 1, 3601, ZEP_ERR_INVALIDTIMEOUTPARM, 1003,
     "Timeout value out of range, connTimeout=3601"},
    {"time-out -1 compared unsigned", true, false, true, true, 1, static_cast<unsigned int>(-1),
     ZEP_ERR_INVALIDTIMEOUTPARM, 1003, "Timeout value out of range, connTimeout=-1"},
    {"NULL host name before NULL texts", true, false, true, true, 1, 5, ZEP_ERR_NULLADDRESS, 1004,
     "NULL host name, hostname=(nil)"},
    {"NULL applid", false, false, true, true, 1, 5, ZEP_ERR_NULLPARM, 1005, "NULL applid, applid=(nil)"},
    {"NULL qualifier", false, false, false, true, 1, 5, ZEP_ERR_NULLPARM, 1006,
     "NULL applid qualifier, applidQualifier=(nil)"},
};

void PrintTo(const OpenArgsCase& c, std::ostream* os)
{
    *os << c.what;
}

class OpenArgs : public ::testing::TestWithParam<OpenArgsCase> {};

TEST_P(OpenArgs, FirstFailingArgumentWinsAndIsTraced)
{
    const OpenArgsCase& c = GetParam();
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    int rc = ZEP_openRemoteGatewayConnectionApplid(c.hostNull ? nullptr : "127.0.0.1", c.port,
                                                   c.tokPtrNull ? nullptr : &tok, c.connTimeout,
                                                   c.applidNull ? nullptr : "APPL", c.qualifierNull ? nullptr : "Q");
    EXPECT_EQ(c.rc, rc);
    EXPECT_EQ(nullptr, tok);
    auto records = trace.records();
    ASSERT_EQ(1u, records.size()) << trace.text();
    EXPECT_EQ(c.id, records[0].id);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ(std::string(OPEN_API) + c.message, records[0].message);
}

INSTANTIATE_TEST_SUITE_P(Connect, OpenArgs, ::testing::ValuesIn(openArgsCases),
                         [](const ::testing::TestParamInfo<OpenArgsCase>& info) { return std::to_string(info.index); });

// A port on loopback on which nothing listens.
int closedPort()
{
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
    close(sock);
    return ntohs(address.sin_port);
}

TEST(Connect, ClosedPortIsRefusedAndLeavesNoToken)
{
    TraceCapture trace(1);
    int port = closedPort();
    for (unsigned int connTimeout : {0u, 5u}) {
        GatewayToken* tok = nullptr;
        EXPECT_EQ(ZEP_ERR_CONNECTFAILED, ZEP_openRemoteGatewayConnection("127.0.0.1", port, &tok, connTimeout));
        EXPECT_EQ(nullptr, tok);
        EXPECT_EQ(0, listedTokens());
    }
    EXPECT_TRUE(trace.has(3008, "clapi_gwycon.clapiConnectToGateway() Unable to connect to Gateway: Connection refused (111)"))
        << trace.text();
    EXPECT_TRUE(trace.has(2013, "clapi_gwytok.openClientSocket() Failed to connect to Gateway 127.0.0.1:" +
                                    std::to_string(port)));
}

// A listener whose backlog is full: the kernel drops further connection requests, so a connect stays pending.
class FullListener {
public:
    FullListener()
    {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, 0);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        for (int& filler : fillers_) {
            filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
        }
    }
    ~FullListener()
    {
        for (int filler : fillers_) close(filler);
        close(listener_);
    }
    int port() const { return port_; }

private:
    int listener_ = -1;
    int port_ = 0;
    int fillers_[4] = {-1, -1, -1, -1};
};

TEST(Connect, PendingConnectTimesOut)
{
    FullListener listener;
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(ZEP_ERR_CONNECTTIMEOUT, ZEP_openRemoteGatewayConnection("127.0.0.1", listener.port(), &tok, 1));
    double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(0, listedTokens());
    EXPECT_TRUE(trace.has(3008, "clapi_gwycon.clapiConnectToGateway() Unable to connect to Gateway: Operation now in "
                                "progress (115)"))
        << trace.text();
    EXPECT_EQ(1u, trace.find(3028).size());
}

TEST(Connect, UnresolvableNameGivesBadHost)
{
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    EXPECT_EQ(ZEP_ERR_BADHOST, ZEP_openRemoteGatewayConnection("zepgw-no-such-host.invalid", 2006, &tok, 5));
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
    auto records = trace.find(3023);
    ASSERT_EQ(1u, records.size()) << trace.text();
    EXPECT_EQ(0u, records[0].message.find(
                      "clapi_gwycon.getHostInfo() Unable to resolve host (zepgw-no-such-host.invalid:2006): "))
        << records[0].message;
}

TEST(Connect, OpenListsAConnectedTokenWithItsOptions)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(2);
    GatewayToken* tok = nullptr;
    ASSERT_EQ(0, ZEP_openRemoteGatewayConnectionApplid("localhost", gw.port(), &tok, 5, "APPL1", "QUAL1"));
    ASSERT_NE(nullptr, tok);
    EXPECT_EQ(CONN_OPEN, connStatusOf(tok));
    EXPECT_EQ(1, listedTokens());
    EXPECT_EQ(0, memcmp(tok->eyecatcher, "ZEPGWTOK", 8));
    EXPECT_EQ(gw.port(), tok->port);
    EXPECT_EQ(5, tok->connTimeout);

    int on = 0;
    socklen_t length = sizeof on;
    ASSERT_EQ(0, getsockopt(tok->socket, SOL_SOCKET, SO_KEEPALIVE, &on, &length));
    EXPECT_EQ(1, on);
    ASSERT_EQ(0, getsockopt(tok->socket, IPPROTO_TCP, TCP_NODELAY, &on, &length));
    EXPECT_EQ(1, on);
    EXPECT_EQ(0, fcntl(tok->socket, F_GETFL) & O_NONBLOCK) << "blocking again after the bounded connect";

    char line[GWTOK_FORMAT_LEN];
    clapiFormatGatewayToken(tok, line);
    EXPECT_TRUE(trace.has(2009, "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=" + pointerText(tok) + ") " + line));
    EXPECT_TRUE(trace.has(2012, "clapi_gwytok.openClientSocket() Connected to Gateway localhost:" +
                                    std::to_string(gw.port()) + " - socketDescriptor(" + std::to_string(tok->socket) +
                                    ")"));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
}

TEST(Connect, MissingHandshakeTimesOutWithinSeconds)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(ZEP_ERR_CONNECTTIMEOUT, openGateway(gw, &tok, "NOHS", 1));
    double elapsed = secondsSince(start);
    EXPECT_GE(elapsed, 0.9);
    EXPECT_LT(elapsed, 5.0);
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
    EXPECT_TRUE(trace.has(3012, "clapi_gwycon.clapiConnectToGateway() Handshake flow returned an error: -134"))
        << trace.text();
}

struct HandshakeFault {
    const char* applid;
    int rc;
    int id;               // a record the failure leaves
    const char* message;
};

void PrintTo(const HandshakeFault& c, std::ostream* os)
{
    *os << c.applid;
}

class HandshakeFaults : public ::testing::TestWithParam<HandshakeFault> {};

TEST_P(HandshakeFaults, OpenReturnsTheReceiversCodeAndListsNothing)
{
    const HandshakeFault& c = GetParam();
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(1);
    GatewayToken* tok = nullptr;
    EXPECT_EQ(c.rc, openGateway(gw, &tok, c.applid, 5));
    EXPECT_EQ(nullptr, tok);
    EXPECT_EQ(0, listedTokens());
    EXPECT_TRUE(trace.has(c.id, c.message)) << trace.text();
    EXPECT_TRUE(trace.has(3012, "clapi_gwycon.clapiConnectToGateway() Handshake flow returned an error: " +
                                    std::to_string(c.rc)));
}

const HandshakeFault handshakeFaults[] = {
    {"HSERR", ZEP_ERR_WORK_WAS_REFUSED, 3036,
     "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_ERROR, rc=61445 (ZEP_ERR_WORK_WAS_REFUSED)"},
    {"HSBADEYE", ZEP_ERR_SYSTEM_ERROR, 3213, "Bad eyecatcher! Expected=0x47617465, actual=0x42616421"},
};

INSTANTIATE_TEST_SUITE_P(Connect, HandshakeFaults, ::testing::ValuesIn(handshakeFaults),
                         [](const ::testing::TestParamInfo<HandshakeFault>& info) { return info.param.applid; });

struct Applids {
    char* applid = nullptr;
    char* qualifier = nullptr;
};

Applids applidsOf(GatewayToken* tok)
{
    Applids texts;
    EXPECT_EQ(0, ZEP_getApplid(tok, &texts.applid));
    EXPECT_EQ(0, ZEP_getApplidQualifier(tok, &texts.qualifier));
    return texts;
}

TEST(Connect, EnvironmentOverridesApplidAndQualifier)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    setenv("ZEP_APPLID", "ENVAPPL8", 1);
    setenv("ZEP_APPLIDQUALIFIER", "", 1);
    TraceCapture trace(4);
    GatewayToken* tok = nullptr;
    ASSERT_EQ(0, ZEP_openRemoteGatewayConnectionApplid("127.0.0.1", gw.port(), &tok, 5, "ARGUMENT9", "ARGQUAL"));
    Applids texts = applidsOf(tok);
    EXPECT_STREQ("ENVAPPL8", texts.applid);
    EXPECT_STREQ("", texts.qualifier);
    EXPECT_TRUE(trace.has(1007, std::string(OPEN_API) + "Environment variables: applidEnv=ENVAPPL8 and applidQualifierEnv="));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

TEST(Connect, ApplidQueriesHandOutTheTokensOwnTexts)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* tok = nullptr;
    ASSERT_EQ(0, ZEP_openRemoteGatewayConnectionApplid("127.0.0.1", gw.port(), &tok, 5, "MYAPPL", "MYQUAL"));
    Applids texts = applidsOf(tok);
    EXPECT_EQ(tok->applid, texts.applid);
    EXPECT_EQ(tok->applidQual, texts.qualifier);
    EXPECT_STREQ("MYAPPL", texts.applid);
    EXPECT_STREQ("MYQUAL", texts.qualifier);
    char* applid = nullptr;
    EXPECT_EQ(ZEP_ERR_NULLGWTOK, ZEP_getApplid(nullptr, &applid));
    EXPECT_EQ(ZEP_ERR_NULLGWTOK, ZEP_getApplidQualifier(nullptr, nullptr));
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_getApplid(tok, nullptr));
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_getApplidQualifier(tok, nullptr));
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
}

}  // namespace

namespace {

// At trace level 2 each open formats its token, next-token field included, while another open may chain
// a token behind it; ThreadSanitizer checks that the two do not race.
TEST(Connect, ConcurrentOpensAtTraceLevelTwo)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TraceCapture trace(2);
    auto cycles = [&gw] {
        int failures = 0;
        for (int i = 0; i < 15; i++) {
            GatewayToken* tok = nullptr;
            if (openGateway(gw, &tok) != 0 || ZEP_closeGatewayConnection(&tok) != 0) failures++;
        }
        return failures;
    };
    auto first = std::async(std::launch::async, cycles);
    auto second = std::async(std::launch::async, cycles);
    ASSERT_EQ(std::future_status::ready, first.wait_for(std::chrono::seconds(60)));
    ASSERT_EQ(std::future_status::ready, second.wait_for(std::chrono::seconds(60)));
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(30u, trace.find(2009).size());
    EXPECT_EQ(0, listedTokens());
}

}  // namespace
