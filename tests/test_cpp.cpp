// The C++ interface (zepclient.hpp) against zepgw: errors, lifetimes, moves, asynchronous replies,
// channels, units of work, lists of systems and the header's own refusals. The C++ demo makes only calls
// that these cases and zepcall's make.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "run_command.h"
#include "trace_capture.h"
#include "zepclient.hpp"
#include "zepgw_process.h"

using namespace std::chrono_literals;

namespace {

// A zepgw and a connection to it; a zepgw that did not start gives port 0, which the connection refuses.
class Cpp : public ::testing::Test {
protected:
    ZepgwProcess gw;
    zep::Connection conn{"127.0.0.1", gw.start() ? gw.port() : 0};
};

// The zep::Error that `action` throws; one with code 0 when it throws none.
zep::Error caught(const std::function<void()>& action)
{
    try { action(); } catch (const zep::Error& e) { return e; }
    return zep::Error(0, "nothing thrown");
}

#define RC(code) code, #code

TEST_F(Cpp, ErrorsCarryTheReturnCodeAndItsName)
{
    // zepcall's cases raise the refused connect, the abend with its code, the unknown system, the wrong password
    // and the bad channel name through the same calls.
    zep::Channel ch{"ERRORS"};
    const struct { std::function<void()> action; int rc; const char* name; } cases[] = {
        {[&] { zep::Connection("127.0.0.1", gw.port(), 3601s); }, RC(ZEP_ERR_INVALIDTIMEOUTPARM)},
        {[&] { zep::Connection("127.0.0.1", gw.port(), 5s, "NINECHARS"); }, RC(ZEP_ERR_APPLIDTOOLONG)},
        {[&] { conn.call("PROGRAM99", "x"); }, RC(ECI_ERR_INVALID_NAME)},
        {[&] { conn.call("ECHO", std::string(32768, 'x')); }, RC(ECI_ERR_INVALID_DATA_LENGTH)},
        {[&] { conn.purge(3601s); }, RC(ZEP_ERR_INVALIDTIMEOUTPARM)},
        {[&] { zep::setTraceLevel(6); }, RC(ZEP_ERR_TRACELEVEL)},
        {[&] { zep::setTraceFile("/nonexistent/dir/trace"); }, RC(ZEP_ERR_TRACEFILE)},
        {[&] { ch.get("MISSING"); }, RC(ECI_ERR_CONTAINER_NOTFOUND)},
    };
    for (const auto& c : cases) {
        const zep::Error e = caught(c.action);
        using Outcome = std::tuple<int, std::string, const std::error_category*>;
        EXPECT_EQ(Outcome(e.code().value(), e.code().message(), &e.code().category()),
                  Outcome(c.rc, c.name, &zep::category()));
        EXPECT_NE(std::string(e.what()).find(c.name), std::string::npos) << e.what();
    }
    EXPECT_EQ(conn.call("ECHO", "still open").data(), "still open");
}

// The other options reach the Gateway in zepcall's WHO case.
TEST_F(Cpp, UnitsOfWorkCarryTheirToken)
{
    zep::CallOptions unit;
    unit.extendMode = zep::ExtendMode::extended;
    const zep::Reply first = conn.call("LUW", std::vector<char>(6, 'a'), unit);
    EXPECT_NE(first.luwToken(), 0);
    unit.luwToken = first.luwToken();
    const zep::Reply second = conn.call("LUW", std::vector<char>(6, 'a'), unit);
    EXPECT_EQ(second.data(), std::string("\0\0\0\2aa", 6));
    EXPECT_EQ(second.luwToken(), first.luwToken());
    unit.extendMode = zep::ExtendMode::commit;
    EXPECT_EQ(conn.call("LUW", "", unit).luwToken(), 0);
}

TEST_F(Cpp, DroppedRepliesNeitherLeakNorBlockTheEnd)
{
    zep::PendingReply outliving;
    GatewayToken* token = nullptr;
    const auto start = std::chrono::steady_clock::now();
    {
        zep::Connection ending = std::move(conn);
        token = ending.native();
        zep::Channel ch{"HELD"};
        ch.put("DATA", "bytes");
        outliving = ending.callAsync("HANG", "never answered");
        EXPECT_EQ(outliving.wait_for(20ms), std::future_status::timeout);
        ending.callAsync("HANG", ch);        // dropped at once; the request keeps the channel
        ending.callAsync("ECHO", "dropped");  // dropped; its reply is collected and thrown away
        EXPECT_EQ(ending.call("ECHO", "still usable").data(), "still usable");
    }  // the channel goes first without blocking; the connection purges within its drain limit
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    EXPECT_EQ(caught([&] { outliving.get(); }).code().value(), ZEP_ERR_NULLGWTOK);
    char* applid = nullptr;
    EXPECT_EQ(ZEP_getApplid(token, &applid), ZEP_ERR_BADGWTOK);
    TraceCapture trace(0);
    ZEP_dumpState();
    for (const char* empty : {"The Gateway Token List is EMPTY\n", "The channel list is EMPTY\n"})
        EXPECT_NE(trace.text().find(empty), std::string::npos) << trace.text();
}

TEST_F(Cpp, MovedFromObjectsAreHarmless)
{
    GatewayToken* token = conn.native();
    zep::Connection second = std::move(conn);
    EXPECT_EQ(conn.native(), nullptr);
    EXPECT_EQ(second.native(), token);
    conn.close();
    conn.purge(0s);
    EXPECT_EQ(caught([&] { conn.call("ECHO", "x"); }).code().value(), ZEP_ERR_NULLGWTOK);

    zep::PendingReply pending = second.callAsync("ECHO", "moved");
    zep::PendingReply taken = std::move(pending);
    EXPECT_EQ(pending.qualifier(), 0u);
    EXPECT_EQ(caught([&] { pending.get(); }).code().value(), ECI_ERR_INVALID_MSG_QUAL);
    EXPECT_EQ(taken.wait_for(10s), std::future_status::ready);  // collects the reply for get() to return
    EXPECT_EQ(taken.get().data(), "moved");

    zep::Channel ch{"MOVED"};
    zep::Channel other = std::move(ch);
    EXPECT_EQ(ch.native(), nullptr);
    EXPECT_EQ(caught([&] { ch.put("X", "y"); }).code().value(), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(other.name(), "MOVED");

    conn = zep::Connection{"127.0.0.1", gw.port()};
    second = std::move(conn);  // ends the connection `second` held
    char* applid = nullptr;
    EXPECT_EQ(ZEP_getApplid(token, &applid), ZEP_ERR_BADGWTOK);
    EXPECT_EQ(second.call("ECHO", "alive").data(), "alive");
    second.close();
    EXPECT_EQ(second.native(), nullptr);
}

// zepcall's CHANNEL cases list a reply's containers (type, CCSID, data); here one is read, replaced and erased.
TEST_F(Cpp, ChannelRoundTrip)
{
    zep::Channel ch{"ROUNDTRIP"};
    ch.putText("MODTEXT", "reverse me", 37);
    ch.put("GROWDATA", std::vector<std::byte>{std::byte{1}, std::byte{2}});
    ch.putText("KEEP", "left alone");
    ch.put("DELME", "gone");
    ch.putText("KEEP", "kept");  // replaces
    conn.call("CHANNEL", ch);
    EXPECT_EQ(ch.get("RESULT") + ch.get("KEEP") + ch.get("GROWDATA"), "containers=4kept\1\2\1\2");
    ch.erase("RESULT");
    conn.callAsync("CHANNEL", ch).get();
    EXPECT_EQ(ch.get("MODTEXT"), "reverse me");
    EXPECT_EQ(ch.get("RESULT"), "containers=3");
}

// The built-in systems, the password details and a change of password: zepcall's systems, verify and change cases.
TEST(CppSystems, ListGrowsToEveryNameOrIsEmpty)
{
    std::string table;
    for (int i = 0; i < 40; ++i) table += "SYS" + std::to_string(i) + "\tsystem " + std::to_string(i) + "\n";
    TempFile many(table), none("");
    ZepgwProcess manyGw, noneGw;
    ASSERT_TRUE(manyGw.start({"--systems", many.path()}) && noneGw.start({"--systems", none.path()}));
    const std::vector<zep::System> all = zep::Connection{"127.0.0.1", manyGw.port()}.systems();
    ASSERT_EQ(all.size(), 40u);
    EXPECT_EQ(all[39].name + all[39].description, "SYS39system 39");
    EXPECT_TRUE(zep::Connection("127.0.0.1", noneGw.port()).systems().empty());
}

TEST(CppHeader, RefusesToCompileWithoutExceptions)
{
    const CommandResult result = runCommand("echo '#include \"zepclient.hpp\"' | " ZEP_CXX_COMPILER
                                            " -std=c++17 -fno-exceptions -fsyntax-only -I" ZEP_SOURCE_DIR
                                            "/include -x c++ - 2>&1");
    EXPECT_NE(result.status, 0);
    EXPECT_NE(result.output.find("#error \"zepclient.hpp reports every failure by throwing zep::Error and cannot"),
              std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("exception handling disabled"), std::string::npos) << result.output;
}

// `make demo` runs this program; nothing else in the test run would notice it broken.
TEST_F(Cpp, DemoRunsEveryStep)
{
    const CommandResult result = runCommand(ZEP_DEMO_CPP " " + std::to_string(gw.port()));
    EXPECT_EQ(result.status, 0) << result.output;
    for (const char* line : {"  UPPER answered \"HELLO, GATEWAY\"\n", "  reply to 1: \"tseuqer tsrif\"\n",
                             "  MODTEXT          CHAR  10 bytes: em esrever\n",
                             "  first time:            Friday 01 January 2021 09:00:10\n", "demo: every step worked\n"})
        EXPECT_NE(result.output.find(line), std::string::npos) << line << result.output;
}

}  // namespace
