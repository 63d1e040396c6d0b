// Gateway tokens and the token list: lookup by address, counting of API calls, the formatted line, the
// list dump and the state dump.
#include <memory>
#include <vector>

#include "library_support.h"
#include "trace_capture.h"


namespace {

// Tokens made by hand and chained into the list, so that the list functions are seen on their own.
class TokenList : public ::testing::Test {
protected:
    void SetUp() override { trace = std::make_unique<TraceCapture>(4); }

    void TearDown() override
    {
        ClapiLockGuard guard(&gtlLock);
        gtListHeadPtr = nullptr;
        gtListTailPtr = nullptr;
        for (GatewayToken* tok : tokens) {
            clapiDeleteEvent(&tok->requestsEnded);
            clapiDestroyLock(&tok->tableLock);
            free(tok);
        }
    }

    GatewayToken* make(int port, const char* applid, const char* qualifier)
    {
        GatewayToken* tok = static_cast<GatewayToken*>(calloc(1, sizeof(GatewayToken)));
        memcpy(tok->eyecatcher, "ZEPGWTOK", 8);
        tok->port = port;
        tok->socket = -1;
        strcpy(tok->applid, applid);
        strcpy(tok->applidQual, qualifier);
        clapiInitializeLock(&tok->tableLock);
        clapiCreateEvent(&tok->requestsEnded);
        tokens.push_back(tok);
        return tok;
    }

    GatewayToken* chained(int port, const char* applid = "APPL", const char* qualifier = "QUAL")
    {
        GatewayToken* tok = make(port, applid, qualifier);
        EXPECT_EQ(0, chainGatewayToken(tok));
        return tok;
    }

    int find(GatewayToken* tok, GatewayToken** parent)
    {
        ClapiLockGuard guard(&gtlLock);
        return findGatewayToken(tok, parent);
    }

    std::unique_ptr<TraceCapture> trace;
    std::vector<GatewayToken*> tokens;
};

TEST_F(TokenList, LookupByAddressCountsEntriesPastTheSecond)
{
    GatewayToken* first = chained(1);
    GatewayToken* second = chained(2);
    GatewayToken* third = chained(3);
    GatewayToken* fourth = chained(4);
    struct {
        GatewayToken* tok;
        GatewayToken* parent;
        int entry;
    } cases[] = {{first, nullptr, 0}, {second, first, 0}, {third, second, 1}, {fourth, third, 2}};
    for (const auto& c : cases) {
        trace->clear();
        GatewayToken* parent = reinterpret_cast<GatewayToken*>(1);
        EXPECT_EQ(FIND_TOKEN_FOUND, find(c.tok, &parent));
        EXPECT_EQ(c.parent, parent);
        EXPECT_TRUE(trace->has(2046, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(" +
                                         std::to_string(c.entry) + ")"))
            << trace->text();
    }
    EXPECT_EQ(FIND_TOKEN_FOUND, find(third, nullptr));
}

TEST_F(TokenList, LookupRefusals)
{
    trace->clear();
    EXPECT_EQ(FIND_TOKEN_NULL, find(nullptr, nullptr));
    EXPECT_TRUE(trace->has(2048, "clapi_gwytok.findGatewayToken() Token null"));
    GatewayToken* outsider = make(9, "OUT", "");
    EXPECT_EQ(FIND_TOKEN_MISSING, find(outsider, nullptr));
    EXPECT_TRUE(trace->has(2047, "clapi_gwytok.findGatewayToken() GTL is EMPTY"));
    GatewayToken* first = chained(1);
    GatewayToken* second = chained(2);
    EXPECT_EQ(FIND_TOKEN_MISSING, find(outsider, nullptr));
    EXPECT_TRUE(trace->has(2045, "clapi_gwytok.findGatewayToken() Token not found. GTL entries(1) head(" +
                                     pointerText(first) + ") last(" + pointerText(second) + ")"))
        << trace->text();
}

TEST_F(TokenList, RegistrationsAreCountedAndTheLastOneSignals)
{
    GatewayToken* tok = chained(1);
    clapiSetEvent(&tok->requestsEnded);
    EXPECT_EQ(0, clapiRegisterRequest(tok));
    EXPECT_EQ(0, clapiRegisterRequest(tok));
    EXPECT_EQ(2, tok->apiCalls);
    std::string address = pointerText(tok);
    EXPECT_TRUE(trace->has(2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=2 on gwTokPtr=" + address));
    EXPECT_EQ(0, clapiUnregisterRequest(tok));
    EXPECT_EQ(0u, tok->requestsEnded.flag);
    EXPECT_EQ(0, clapiUnregisterRequest(tok));
    EXPECT_EQ(1u, tok->requestsEnded.flag);
    EXPECT_TRUE(trace->has(2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=0 on gwTokPtr=" + address));
    EXPECT_TRUE(trace->has(2028, "clapi_gwytok.clapiUnregisterRequest() rc=0"));
}

TEST_F(TokenList, FormattedLine)
{
    GatewayToken* first = chained(2006, "APPLID1", "QUAL1");
    GatewayToken* second = chained(2007, "", "");
    first->socket = 7;
    first->connStatus = CONN_LOST;
    char line[GWTOK_FORMAT_LEN];
    EXPECT_EQ(0, clapiFormatGatewayToken(first, line));
    EXPECT_EQ("GatwayToken(" + pointerText(first) + ") eyecatcher(ZEPGWTOK) port(2006) connStatus(3) socket(7) "
              "applid(APPLID1) applidQual(QUAL1) nextGwyTokPtr(" + pointerText(second) + ")",
              std::string(line));
    EXPECT_EQ(0, clapiFormatGatewayToken(nullptr, line));
    EXPECT_STREQ("GatwayToken(NULL)", line);
    EXPECT_EQ(ZEP_ERR_NULLPARM, clapiFormatGatewayToken(first, nullptr));
}

const std::string RULE(80, '-');

TEST_F(TokenList, DumpListsEveryTokenInOrder)
{
    GatewayToken* first = chained(1, "A", "");
    GatewayToken* second = chained(2, "B", "");
    char one[GWTOK_FORMAT_LEN], two[GWTOK_FORMAT_LEN];
    clapiFormatGatewayToken(first, one);
    clapiFormatGatewayToken(second, two);
    trace->clear();
    EXPECT_EQ(0, clapiDumpGatewayTokens());
    std::vector<std::string> plain;
    for (const std::string& line : trace->lines()) {
        TraceRecord record;
        if (!TraceCapture::parseRecord(line, &record)) plain.push_back(line);
    }
    EXPECT_EQ((std::vector<std::string>{"Gateway Token List dump", RULE, std::string("Gateway Token List entry -0001- : ") + one,
                                        std::string("Gateway Token List entry -0002- : ") + two,
                                        "Total number of Gateway Token List entries=2", RULE}),
              plain);
}

TEST(TokenCreation, FirstTokenAfterTheListEmptiedChainsAtTheHead)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* first = nullptr;
    ASSERT_EQ(0, openGateway(gw, &first));
    ASSERT_EQ(0, ZEP_closeGatewayConnection(&first));
    GatewayToken* again = nullptr;
    ASSERT_EQ(0, openGateway(gw, &again));
    {
        ClapiLockGuard guard(&gtlLock);
        EXPECT_EQ(again, gtListHeadPtr);
        EXPECT_EQ(again, gtListTailPtr);
        EXPECT_EQ(nullptr, again->nextGwyTokPtr);
    }
    GatewayToken* second = nullptr;
    ASSERT_EQ(0, openGateway(gw, &second));
    {
        ClapiLockGuard guard(&gtlLock);
        EXPECT_EQ(second, again->nextGwyTokPtr);
        EXPECT_EQ(second, gtListTailPtr);
    }
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&again));
    {
        ClapiLockGuard guard(&gtlLock);
        EXPECT_EQ(second, gtListHeadPtr);
    }
    EXPECT_EQ(0, ZEP_closeGatewayConnection(&second));
}

}  // namespace

TEST_F(TokenList, DumpOfAnEmptyList)
{
    trace->clear();
    EXPECT_EQ(0, clapiDumpGatewayTokens());
    auto lines = trace->lines();
    std::vector<std::string> plain;
    for (const std::string& line : lines) {
        TraceRecord record;
        if (!TraceCapture::parseRecord(line, &record)) plain.push_back(line);
    }
    EXPECT_EQ((std::vector<std::string>{"Gateway Token List dump", RULE, "The Gateway Token List is EMPTY", RULE}), plain);
    EXPECT_TRUE(trace->has(2039, "clapi_gwytok.clapiDumpGatewayTokens() List length=0"));
}

TEST(StateDump, WritesAtAnyLevelWithoutPrefix)
{
    TraceCapture trace(0);
    EXPECT_EQ(0, ZEP_dumpState());
    auto lines = trace.lines();
    ASSERT_GE(lines.size(), 5u) << trace.text();
    EXPECT_EQ("zepclient state dump: DLL Version=9.1.0.4 Trace Level=0 clientAPITraceFile=" + trace.path(), lines[0]);
    EXPECT_EQ("Gateway Token List dump", lines[1]);
    EXPECT_EQ("The Gateway Token List is EMPTY", lines[3]);
    EXPECT_TRUE(trace.records().empty());
}
