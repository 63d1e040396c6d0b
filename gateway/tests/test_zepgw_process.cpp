// The fixture helper that starts zepgw for tests: it must never leave a
// zepgw process behind.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sys/wait.h>

#include "raw_client.h"
#include "zepgw_process.h"

namespace {

bool processGone(pid_t pid)
{
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

TEST(ZepgwProcess, StartReadsThePortAndStopEndsTheProcess)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    EXPECT_GT(gw.port(), 0);
    gwtest::RawClient c;
    ASSERT_TRUE(c.connect(gw.port()));
    EXPECT_TRUE(c.handshake());
    const pid_t pid = gw.pid();
    EXPECT_TRUE(gw.stop());
    EXPECT_TRUE(processGone(pid));
    EXPECT_NE(gw.log().find("listening on 127.0.0.1 port " + std::to_string(gw.port())),
              std::string::npos)
        << gw.log();
}

TEST(ZepgwProcess, DestructorStopsARunningZepgw)
{
    pid_t pid = -1;
    {
        ZepgwProcess gw;
        ASSERT_TRUE(gw.start());
        pid = gw.pid();
    }
    EXPECT_TRUE(processGone(pid));
}

TEST(ZepgwProcess, FailedStartLeavesNoChild)
{
    ZepgwProcess gw;
    EXPECT_FALSE(gw.start({"--no-such-option"}));
    int status = 0;
    EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ZepgwProcess, TwoGatewaysGetTheirOwnPorts)
{
    ZepgwProcess a, b;
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    EXPECT_NE(a.port(), b.port());
    EXPECT_TRUE(a.stop());
    EXPECT_TRUE(b.stop());
}

TEST(ZepgwProcess, PausedZepgwAnswersOnlyAfterResume)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    gwtest::RawClient c;
    ASSERT_TRUE(c.connect(gw.port()));
    ASSERT_TRUE(gw.pause());
    const gwtest::Bytes hs = gwtest::handshakePayload("PAUSED");
    ASSERT_TRUE(c.send(gwtest::cat({gwtest::header(5, -2, "BASE", hs.size()), hs})));
    gwtest::Bytes answer;
    EXPECT_FALSE(c.read(answer, 0.2));
    ASSERT_TRUE(gw.resume());
    ASSERT_TRUE(c.read(answer, 5));
    EXPECT_EQ(gwtest::flowType(answer), 5);
    EXPECT_TRUE(gw.stop());
}

TEST(ZepgwProcess, StopEndsAPausedZepgw)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    ASSERT_TRUE(gw.pause());
    const pid_t pid = gw.pid();
    gw.stop();
    EXPECT_TRUE(processGone(pid));
}

}  // namespace
