/* Channels on the wire: the section a request carries and the changes a reply applies. */
#include "library_support.h"

#include <thread>

namespace {

/* A channel "CHAN" holding C, B, A in list order (each container goes to the front). */
class TestChannel {
public:
    TestChannel()
    {
        EXPECT_EQ(0, ECI_createChannel("CHAN", &channel));
        EXPECT_EQ(0, ECI_createContainer(channel, "A", ECI_BIT, 0, "aaaa", 4));
        EXPECT_EQ(0, ECI_createContainer(channel, "B", ECI_BIT, 0, "bbbbbb", 6));
        EXPECT_EQ(0, ECI_createContainer(channel, "C", ECI_BIT, 0, "cc", 2));
    }
    ~TestChannel() { ECI_deleteChannel(&channel); }
    Container* find(const char* name) const
    {
        for (Container* c = channel->firstCont; c != NULL; c = c->nextCont) {
            if (strncmp(c->name, name, CHANNEL_NAME_LEN) == 0) return c;
        }
        return NULL;
    }
    std::string order() const
    {
        std::string names;
        for (Container* c = channel->firstCont; c != NULL; c = c->nextCont) names += std::string(c->name, strnlen(c->name, 16));
        return names;
    }
    std::string data(const char* name) const
    {
        Container* c = find(name);
        return c == NULL || c->dataPtr == NULL ? "" : std::string((const char*)c->dataPtr, c->dataLength);
    }
    Channel* channel = NULL;
};

Wire& record(Wire& w, const char* name, int mark, int type, int32_t ccsid, uint32_t length, const std::string& data = "")
{
    return w.field(name, 16).u8(mark).u8(0).u8(0).u8(type).i32(ccsid).i32((int32_t)length).text(data);
}

Wire section(const char* name, int32_t ccsid, int32_t count)
{
    Wire w;
    w.field(name, 16).i32(ccsid).i32(count);
    return w;
}

int apply(SocketPair& pair, const Bytes& bytes, Channel* channel)
{
    pair.feed(bytes);
    ReadBuffer in(pair.lib, (uint32_t)bytes.size());
    return readChannel(&in.sb, channel);
}

TEST(ChannelWrite, SectionCarriesEveryContainerWithChangeMarkOne)
{
    SocketPair pair;
    TraceCapture trace(2);
    Channel* channel = NULL;
    ASSERT_EQ(0, ECI_createChannel("OUTBOUND", &channel));
    ASSERT_EQ(0, ECI_createContainer(channel, "EMPTY", ECI_BIT, 0, NULL, 0));
    ASSERT_EQ(0, ECI_createContainer(channel, "FIVE", ECI_BIT, 0, "12345", 5));
    WriteBuffer out(pair.lib, 85);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeChannel(&sb, channel);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));
    Wire expected = section("OUTBOUND", channel->ccsid, 2);
    record(expected, "FIVE", 1, ECI_BIT, 0, 5, "12345");
    record(expected, "EMPTY", 1, ECI_BIT, 0, 0);
    Bytes wire = pair.drain();
    EXPECT_EQ(24u + 28u + 5u + 28u, wire.size());
    EXPECT_EQ(toHex(expected.b), toHex(wire));
    EXPECT_EQ(std::vector<std::string>({"EVENT Writing channel \"OUTBOUND\", CCSID=" + std::to_string(channel->ccsid) +
                                        ", num containers=2"}),
              recordTexts(trace, 3245));
    EXPECT_EQ(std::vector<std::string>({"EVENT Writing container \"FIVE\", type=ECI_BIT, CCSID=0, data length=5",
                                        "EVENT Writing container \"EMPTY\", type=ECI_BIT, CCSID=0, data length=0"}),
              recordTexts(trace, 3246));

    EciRequest request;
    memset(&request, 0, sizeof request);
    request.requestKind = ECI_KIND_PROGRAM;
    request.optionalMarker = -1;
    int32_t without = calculateECIRequestSize(&request);
    request.channel = channel;
    EXPECT_EQ(without + 85, calculateECIRequestSize(&request));
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST(ChannelRead, ChangeMarksAddModifyAndLeaveContainers)
{
    SocketPair pair;
    TraceCapture trace(4);
    TestChannel t;
    uint8_t* blockOfB = t.find("B")->dataPtr;
    uint8_t* blockOfA = t.find("A")->dataPtr;
    Wire reply = section("RENAMED", 500, 4);
    record(reply, "D", 1, ECI_CHAR, 1208, 3, "ddd");
    record(reply, "B", 3, ECI_CHAR, 37, 6, "BBBBBB");
    record(reply, "A", 3, ECI_BIT, 0, 2, "AA");
    record(reply, "C", 4, ECI_BIT, 0, 2);
    EXPECT_EQ(0, apply(pair, reply.b, t.channel));

    EXPECT_EQ(0, strncmp(t.channel->name, "RENAMED", 16));
    EXPECT_EQ(500, t.channel->ccsid);
    EXPECT_EQ(4, t.channel->numContainers);
    EXPECT_EQ("DCBA", t.order());
    Container* d = t.find("D");
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(0, memcmp(d->eyecatcher, "ZEPCONTA", 8));
    EXPECT_EQ(ECI_CHAR, d->type);
    EXPECT_EQ(1208, d->ccsid);
    EXPECT_EQ("ddd", t.data("D"));
    EXPECT_EQ(blockOfB, t.find("B")->dataPtr);
    EXPECT_EQ("BBBBBB", t.data("B"));
    EXPECT_EQ(ECI_CHAR, t.find("B")->type);
    EXPECT_EQ(37, t.find("B")->ccsid);
    EXPECT_EQ("AA", t.data("A"));
    EXPECT_EQ("cc", t.data("C"));

    EXPECT_EQ(std::vector<std::string>({"DEBUG Return flow contains 4 containers in channel \"RENAMED\""}),
              recordTexts(trace, 3218));
    EXPECT_EQ(std::vector<std::string>({"EVENT Container \"D\" ADDED in VANT, type=ECI_CHAR, CCSID=1208, data length=3"}),
              recordTexts(trace, 3219));
    EXPECT_EQ(std::vector<std::string>({"EVENT Container \"B\" MODIFIED in VANT, new length=6",
                                        "EVENT Container \"A\" MODIFIED in VANT, new length=2"}),
              recordTexts(trace, 3221));
    EXPECT_EQ(std::vector<std::string>({"EVENT Container \"C\" is UNCHANGED"}), recordTexts(trace, 3222));
    char freeing[96];
    snprintf(freeing, sizeof freeing, "DEBUG Freeing 4 bytes of container data (%p)", (void*)blockOfA);
    EXPECT_EQ(std::vector<std::string>({freeing}), recordTexts(trace, 3234));
}

TEST(ChannelRead, AddedRecordWithANameAlreadyHeldIsAddedInFront)
{
    SocketPair pair;
    TestChannel t;
    Container* oldB = t.find("B");
    Wire reply = section("CHAN", 0, 1);
    record(reply, "B", 1, ECI_CHAR, 37, 3, "new");
    EXPECT_EQ(0, apply(pair, reply.b, t.channel));
    EXPECT_EQ("BCBA", t.order());
    EXPECT_EQ(4, t.channel->numContainers);
    Container* newB = t.channel->firstCont;
    EXPECT_NE(oldB, newB);
    EXPECT_EQ("new", std::string((const char*)newB->dataPtr, newB->dataLength));
    EXPECT_EQ(ECI_CHAR, newB->type);
    EXPECT_EQ(37, newB->ccsid);
    EXPECT_EQ("bbbbbb", std::string((const char*)oldB->dataPtr, oldB->dataLength));
}

TEST(ChannelRead, DeletingTheBrowsePositionMovesItBack)
{
    struct Case {
        const char* browseTo;
        const char* deleted;
        const char* position;
        const char* debug;
        int debugId;
        const char* nextBrowsed;
    } cases[] = {
        {"B", "B", "C", "DEBUG Current container is now \"C\"", 3229, "A"},
        {"C", "C", NULL, "DEBUG Current container is now NULL", 3230, "B"},
        {"C", "A", "C", NULL, 0, "B"},
    };
    for (const Case& c : cases) {
        SocketPair pair;
        TraceCapture trace(4);
        TestChannel t;
        ContainerInfo info;
        ASSERT_EQ(0, ECI_getFirstContainer(t.channel, &info));
        while (strcmp(info.name, c.browseTo) != 0) ASSERT_EQ(0, ECI_getNextContainer(t.channel, &info));
        Wire reply = section("CHAN", 0, 1);
        record(reply, c.deleted, 2, ECI_BIT, 0, 0);
        EXPECT_EQ(0, apply(pair, reply.b, t.channel)) << c.deleted;
        EXPECT_EQ(2, t.channel->numContainers);
        EXPECT_EQ(nullptr, t.find(c.deleted));
        EXPECT_EQ(c.position == NULL ? nullptr : t.find(c.position), t.channel->currentCont) << c.deleted;
        if (c.debug != NULL) {
            EXPECT_EQ(std::vector<std::string>({c.debug}), recordTexts(trace, c.debugId));
        }
        EXPECT_EQ(std::vector<std::string>({"EVENT Container \"" + std::string(c.deleted) + "\" DELETED in VANT"}),
                  recordTexts(trace, 3220));
        ASSERT_EQ(0, ECI_getNextContainer(t.channel, &info));
        EXPECT_STREQ(c.nextBrowsed, info.name) << c.deleted;
    }
}

TEST(ChannelRead, UnknownNameEndsTheChannelAndLaterRecordsAreNotApplied)
{
    struct Case {
        int mark;
        int excId;
    } cases[] = {{2, 3228}, {3, 3233}};
    for (const Case& c : cases) {
        SocketPair pair;
        TraceCapture trace(1);
        TestChannel t;
        Wire reply = section("CHAN", 0, 2);
        record(reply, "NOSUCH", c.mark, ECI_BIT, 0, 0);
        record(reply, "E", 1, ECI_BIT, 0, 1, "e");
        EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, apply(pair, reply.b, t.channel));
        EXPECT_EQ("CBA", t.order());
        EXPECT_EQ(3, t.channel->numContainers);
        EXPECT_EQ(std::vector<std::string>({"*EXC* Container \"NOSUCH\" not found in channel \"CHAN\""}),
                  recordTexts(trace, c.excId));
    }
}

TEST(ChannelRead, DataLengthThatCannotBeAllocatedFailsWithoutACrash)
{
    for (int mark : {1, 3}) {
        SocketPair pair;
        TraceCapture trace(1);
        TestChannel t;
        Wire reply = section("CHAN", 0, 1);
        record(reply, "A", mark, ECI_BIT, 0, 0xFFFFFFF0u);
        int rc = apply(pair, reply.b, t.channel);
        std::vector<std::string> failed = recordTexts(trace, mark == 1 ? 3224 : 3233);
        /* The length is more than the message holds: it is refused before anything is allocated for it. */
        EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, rc) << mark;
        EXPECT_EQ(std::vector<std::string>({"*EXC* Container data length 4294967280 exceeds the 0 bytes left in the message"}),
                  failed);
        EXPECT_EQ(3, t.channel->numContainers);
        EXPECT_EQ("CBA", t.order());
        if (mark == 3) {
            EXPECT_EQ(nullptr, t.find("A")->dataPtr);
            EXPECT_EQ(0ul, t.find("A")->dataLength);
        }
    }
}

/*
 * What a freed block held can only be seen where the allocator hands the same block straight back, as
 * glibc's per-thread cache does; elsewhere (a sanitizer's quarantine, say) the test has nothing to look at.
 */
TEST(ChannelRead, ModifiedDataCutShortWipeTheOldDataBeforeFreeingThem)
{
    if (std::string(ZEP_SANITIZE) != "") GTEST_SKIP() << "freed blocks are not handed back under a sanitizer";
    SocketPair pair;
    Channel* channel = NULL;
    ASSERT_EQ(0, ECI_createChannel("CHAN", &channel));
    std::string secret(200, 'S');
    ASSERT_EQ(0, ECI_createContainer(channel, "A", ECI_BIT, 0, secret.data(), secret.size()));
    uint8_t* oldBlock = channel->firstCont->dataPtr;
    Wire reply = section("CHAN", 0, 1);
    record(reply, "A", 3, ECI_BIT, 0, 200, "short");
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, apply(pair, reply.b, channel));
    EXPECT_EQ(nullptr, channel->firstCont->dataPtr);
    EXPECT_EQ(0ul, channel->firstCont->dataLength);
    uint8_t* again = (uint8_t*)malloc(secret.size());
    ASSERT_NE(nullptr, again);
    bool sameBlock = again == oldBlock;
    /* The allocator keeps its own links in the first bytes of a free block. */
    Bytes left(again + 16, again + secret.size());
    free(again);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
    if (!sameBlock) GTEST_SKIP() << "the allocator did not hand the freed block back";
    EXPECT_EQ(toHex(Bytes(secret.size() - 16, 0)), toHex(left));
}

TEST(ChannelRead, ReplyChannelLandsInTheRequestsChannel)
{
    SocketPair pair;
    TestChannel t;
    EciRequest request;
    memset(&request, 0, sizeof request);
    request.channel = t.channel;
    Wire reply;
    reply.i32(1).i32(0).i32(0).i32(0).text("    ").i32(0).u8(0).u8(0xFF);
    reply.raw(section("CHAN", 0, 1).b);
    record(reply, "NEW", 1, ECI_BIT, 0, 2, "nn");
    pair.feed(reply.b);
    ReadBuffer in(pair.lib, (uint32_t)reply.b.size());
    EXPECT_EQ(0, clapiReadECIResponse(&in.sb, &request));
    EXPECT_EQ("NEWCBA", t.order());
    EXPECT_EQ("nn", t.data("NEW"));
}

}  // namespace

TEST(ChannelRead, ChannelInAReplyWithoutARequestChannelIsReadAndDropped)
{
    SocketPair pair;
    EciRequest request;
    memset(&request, 0, sizeof request);
    Wire reply;
    reply.i32(1).i32(0).i32(0).i32(0).text("    ").i32(0).u8(0).u8(0xFF);
    reply.raw(section("STRAY", 0, 2).b);
    record(reply, "ONE", 1, ECI_BIT, 0, 3, "one");
    record(reply, "TWO", 1, ECI_BIT, 0, 0);
    pair.feed(reply.b);
    pair.feed(Wire().i32(0x0BADF00D).b);
    ReadBuffer in(pair.lib, (uint32_t)reply.b.size());
    EXPECT_EQ(0, clapiReadECIResponse(&in.sb, &request));
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
    ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
    EXPECT_EQ(0x0BADF00D, readInt(&in.sb));
}
