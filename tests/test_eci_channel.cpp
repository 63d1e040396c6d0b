// ECI calls with a channel against zepgw: the checks, the changes the server makes, and the channel lock.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <string>

#include "clapi_channel.h"
#include "library_support.h"
#include "trace_capture.h"

namespace {

using std::chrono::seconds;

// The containers of a channel by name: type and data.
std::map<std::string, std::pair<int, std::string>> contents(Channel* channel)
{
    std::map<std::string, std::pair<int, std::string>> result;
    ContainerInfo info;
    for (int rc = ECI_getFirstContainer(channel, &info); rc == 0; rc = ECI_getNextContainer(channel, &info)) {
        std::string data(info.dataLength, '\0');
        unsigned long got = 0;
        EXPECT_EQ(0, ECI_getContainerData(channel, info.name, &data[0], data.size(), 0, &got));
        data.resize(got);
        const int type = info.type;
        result[info.name] = {type, data};
    }
    return result;
}

void addText(Channel* channel, const char* name, const char* text)
{
    ASSERT_EQ(0, ECI_createContainer(channel, name, ECI_CHAR, 0, text, strlen(text)));
}

EciParms channelBlock(int callType, const char* program, Channel* channel)
{
    EciParms parms = eciBlock(callType, program, nullptr, 0);
    parms.eci_channel = channel;
    return parms;
}

// A channel with the container MODX "xyz", sent asynchronously to CHANNEL; nullptr when that failed.
Channel* sendAsynchronously(GatewayToken* tok, EciParms* parms)
{
    Channel* channel = nullptr;
    EXPECT_EQ(0, ECI_createChannel("ASYNCCHAN", &channel));
    EXPECT_EQ(0, ECI_createContainer(channel, "MODX", ECI_CHAR, 0, "xyz", 3));
    *parms = channelBlock(ECI_ASYNC, "CHANNEL", channel);
    int rc = ZEP_ECI_Execute_Channel(tok, parms);
    EXPECT_EQ(0, rc);
    return rc == 0 ? channel : nullptr;
}

TEST(EciChannel, BlockMustNameAChannelAndNoCommarea)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("CHECKS", &channel));
    char area[8];

    const struct {
        const char* what;
        int callType;
        int extendMode;
        Channel* channel;
        void* commarea;
        int rc;
    } cases[] = {
        {"no channel", ECI_SYNC, 0, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL},
        {"no channel, asynchronous", ECI_ASYNC, 0, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL},
        {"no channel with extend mode 2", ECI_SYNC, 2, nullptr, nullptr, ECI_ERR_INVALID_CHANNEL},
        {"channel and COMMAREA", ECI_SYNC, 0, channel, area, ECI_ERR_COMMAREA_AND_CHANNEL},
        {"no channel and a COMMAREA", ECI_SYNC, 0, nullptr, area, ECI_ERR_INVALID_CHANNEL},
        {"reply calls need no channel", ECI_GET_REPLY, 0, nullptr, nullptr, ECI_ERR_NO_REPLY},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EciParms parms = channelBlock(c.callType, "CHANNEL", c.channel);
        parms.eci_extend_mode = static_cast<int16_t>(c.extendMode);
        parms.eci_commarea = c.commarea;
        parms.eci_commarea_length = c.commarea != nullptr ? sizeof area : 0;
        EXPECT_EQ(c.rc, ZEP_ECI_Execute_Channel(conn.token(), &parms));
    }

    TraceCapture trace(1);
    EciParms none = channelBlock(ECI_ASYNC, "CHANNEL", nullptr);
    EXPECT_EQ(ECI_ERR_INVALID_CHANNEL, ZEP_ECI_Execute_Channel(conn.token(), &none));
    EXPECT_TRUE(trace.has(1510, "API.ZEP_ECI_Execute_Channel() NULL channel, channel=(nil)"));
    EciParms both = channelBlock(ECI_SYNC, "CHANNEL", channel);
    both.eci_commarea = area;
    both.eci_commarea_length = sizeof area;
    EXPECT_EQ(ECI_ERR_COMMAREA_AND_CHANNEL, ZEP_ECI_Execute_Channel(conn.token(), &both));
    EXPECT_TRUE(trace.has(1511, "API.ZEP_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, channel=" +
                                    pointerText(channel) + ", eci_commarea=" + pointerText(area)));

    EciParms old = channelBlock(ECI_SYNC, "CHANNEL", channel);
    old.eci_version = 3;
    EXPECT_EQ(ECI_ERR_INVALID_VERSION, ZEP_ECI_Execute_Channel(conn.token(), &old));
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST(EciChannel, ServerChangesAreAppliedToTheChannel)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("CHANGES", &channel));
    addText(channel, "DELME", "going");
    addText(channel, "MODTEXT", "abcdef");
    ASSERT_EQ(0, ECI_createContainer(channel, "GROWBITS", ECI_BIT, 0, "\x01\x02\x03", 3));
    addText(channel, "KEEP", "as is");

    EciParms parms = channelBlock(ECI_SYNC, "CHANNEL", channel);
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(conn.token(), &parms));

    auto got = contents(channel);
    EXPECT_EQ(0u, got.count("DELME"));
    EXPECT_EQ(std::make_pair(int(ECI_CHAR), std::string("fedcba")), got["MODTEXT"]);
    EXPECT_EQ(std::make_pair(int(ECI_BIT), std::string("\x01\x02\x03\x01\x02\x03", 6)), got["GROWBITS"]);
    EXPECT_EQ(std::make_pair(int(ECI_CHAR), std::string("as is")), got["KEEP"]);
    EXPECT_EQ(std::make_pair(int(ECI_CHAR), std::string("containers=4")), got["RESULT"]);
    EXPECT_EQ(4u, got.size());

    // The synchronous call gave the channel back: it can be changed and deleted at once.
    EXPECT_EQ(0, ECI_setContainerData(channel, "KEEP", "new", 3));
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST(EciChannel, AsynchronousCallKeepsTheChannelLockedUntilCollected)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    EciParms parms;
    Channel* channel = sendAsynchronously(conn.token(), &parms);
    ASSERT_NE(nullptr, channel);

    // Extend mode 2 does not lock the channel, so it goes through while the channel is held.
    EciParms commit = channelBlock(ECI_SYNC, "ECHO", channel);
    commit.eci_extend_mode = 2;
    auto committed = std::async(std::launch::async, [&] { return ZEP_ECI_Execute_Channel(conn.token(), &commit); });
    ASSERT_EQ(std::future_status::ready, committed.wait_for(seconds(5)));
    EXPECT_EQ(0, committed.get());

    TraceCapture trace(2);
    Channel* doomed = channel;
    auto deleter = std::async(std::launch::async, [&doomed] { return ECI_deleteChannel(&doomed); });
    const std::string waiting =
        "clapi_channel.lockChannel() Waiting for channel \"ASYNCCHAN\" (" + pointerText(channel) + ")";
    EXPECT_TRUE(pollUntil([&] { return trace.has(1463, waiting); }));   // the deleter is blocked on the lock
    EXPECT_EQ(std::future_status::timeout, deleter.wait_for(std::chrono::milliseconds(0)));
    EXPECT_EQ(1, channel->isLocked);

    EciParms collect = replyBlock(ECI_GET_REPLY_WAIT, 0, nullptr, 0);
    ASSERT_EQ(0, ZEP_ECI_Execute(conn.token(), &collect));
    EXPECT_EQ(channel, copyOf(collect.eci_channel));
    ASSERT_EQ(std::future_status::ready, deleter.wait_for(seconds(5)));
    EXPECT_EQ(0, deleter.get());
    EXPECT_EQ(nullptr, doomed);
}

TEST(EciChannel, AsynchronousCallFailedByAnErrorFlowUnlocksTheChannelWhenCollected)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("ERRFLOW", &channel));
    addText(channel, "MODX", "kept");
    EciParms parms = channelBlock(ECI_ASYNC, "FERROR", channel);
    ASSERT_EQ(0, ZEP_ECI_Execute_Channel(conn.token(), &parms));
    EXPECT_EQ(1, channel->isLocked);

    EciParms collect = replyBlock(ECI_GET_SPECIFIC_REPLY_WAIT, parms.eci_message_qualifier, nullptr, 0);
    EXPECT_EQ(ZEP_ERR_WORK_WAS_REFUSED, ZEP_ECI_Execute_Channel(conn.token(), &collect));
    EXPECT_EQ(channel, copyOf(collect.eci_channel));
    EXPECT_EQ(0, channel->isLocked);
    EXPECT_EQ("kept", contents(channel)["MODX"].second);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST(EciChannel, FailedCallReleasesTheChannel)
{
    GatewayConnection conn;
    ASSERT_TRUE(conn.ok());
    Channel* channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("FAILING", &channel));
    addText(channel, "ANY", "data");
    EciParms abend = channelBlock(ECI_SYNC, "ABEND", channel);
    EXPECT_EQ(ECI_ERR_TRANSACTION_ABEND, ZEP_ECI_Execute_Channel(conn.token(), &abend));
    EXPECT_EQ(0, memcmp("ZA01", abend.eci_abend_code, 4));
    EXPECT_EQ(0, channel->isLocked);

    EciParms badMode = channelBlock(ECI_SYNC, "CHANNEL", channel);
    badMode.eci_extend_mode = 3;
    EXPECT_EQ(ECI_ERR_INVALID_EXTEND_MODE, ZEP_ECI_Execute_Channel(conn.token(), &badMode));
    EXPECT_EQ(0, channel->isLocked);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

}  // namespace
