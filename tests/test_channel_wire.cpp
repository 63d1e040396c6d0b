/* Channels on the wire: the section a request carries and the changes a reply applies. */
#include "library_support.h"

namespace {

/* A channel "CHAN" holding C, B, A in list order (each container goes to the front). */
struct TestChannel {
    TestChannel()
    {
        EXPECT_EQ(0, ECI_createChannel("CHAN", &channel));
        EXPECT_EQ(0, ECI_createContainer(channel, "A", ECI_BIT, 0, "aaaa", 4));
        EXPECT_EQ(0, ECI_createContainer(channel, "B", ECI_BIT, 0, "bbbbbb", 6));
        EXPECT_EQ(0, ECI_createContainer(channel, "C", ECI_BIT, 0, "cc", 2));
    }
    ~TestChannel() { ECI_deleteChannel(&channel); }
    /* "NAME/ccsid: " then "name=data" of every container in list order, "(ccsid)" after character data and "!"
       after a record without its eyecatcher. */
    std::string contents() const
    {
        std::string out = std::string(channel->name, strnlen(channel->name, 16)) + "/" + std::to_string(channel->ccsid) + ":";
        for (Container* c = channel->firstCont; c != NULL; c = c->nextCont)
            out += " " + std::string(c->name, strnlen(c->name, 16)) + "=" +
                   (c->dataPtr == NULL ? "" : std::string((const char*)c->dataPtr, c->dataLength)) +
                   (c->type == ECI_CHAR ? "(" + std::to_string(c->ccsid) + ")" : "") +
                   (memcmp(c->eyecatcher, "ZEPCONTA", 8) != 0 ? "!" : "");
        return out;
    }
    Channel* channel = NULL;
};

Wire& record(Wire& w, const char* name, int mark, int type, int32_t ccsid, uint32_t length, const std::string& data = "")
{
    return w.field(name, 16).u8(mark).u8(0).u8(0).u8(type).i32(ccsid).i32((int32_t)length).text(data);
}

Wire section(const char* name, int32_t ccsid, int32_t count) { return std::move(Wire().field(name, 16).i32(ccsid).i32(count)); }

int applyReply(const Bytes& bytes, Channel* channel)
{
    SocketPair pair;
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
    writeChannel(&out.sb, channel);
    EXPECT_EQ(0, flushBuffer(&out.sb));
    Wire expected = section("OUTBOUND", channel->ccsid, 2);
    record(record(expected, "FIVE", 1, ECI_BIT, 0, 5, "12345"), "EMPTY", 1, ECI_BIT, 0, 0);
    EXPECT_EQ(toHex(expected.b), toHex(pair.drain()));
    /* The only traced write of ECI_BIT containers: the record names the type that the bytes give as a number. */
    EXPECT_EQ((std::vector<std::string>{"EVENT Writing container \"FIVE\", type=ECI_BIT, CCSID=0, data length=5",
                                        "EVENT Writing container \"EMPTY\", type=ECI_BIT, CCSID=0, data length=0"}),
              recordTexts(trace, 3246));
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

/* One record per reply "RENAMED" (CCSID 500) on the channel C, B, A, browsed up to `browseTo` first; then an added
   E, never applied after a refused record. `trace` is the start of the first record with `traceId`. */
TEST(ChannelRead, EachRecordChangesTheChannelOrIsRefused)
{
    const struct {
        const char *name; int mark; uint32_t length; const char *data, *browseTo;   /* browseTo NULL: not browsed */
        int rc; const char *contents, *next; int traceId; const char* trace;       /* next: the next browsed name */
    } cases[] = {
        {"B", 1, 3, "new", NULL, 0, "RENAMED/500: E=e(37) B=new(37) C=cc B=bbbbbb A=aaaa", NULL, 3219, "EVENT Container \"B\" ADDED in VANT, type=ECI_CHAR, CCSID=37, data length=3"},
        {"B", 3, 6, "BBBBBB", NULL, 0, "RENAMED/500: E=e(37) C=cc B=BBBBBB(37) A=aaaa", NULL, 3221, "EVENT Container \"B\" MODIFIED in VANT, new length=6"},
        {"A", 3, 2, "AA", NULL, 0, "RENAMED/500: E=e(37) C=cc B=bbbbbb A=AA(37)", NULL, 3234, "DEBUG Freeing 4 bytes of container data (0x"},
        {"C", 4, 2, "", NULL, 0, "RENAMED/500: E=e(37) C=cc B=bbbbbb A=aaaa", NULL, 3222, "EVENT Container \"C\" is UNCHANGED"},
        {"B", 2, 0, "", "B", 0, "RENAMED/500: E=e(37) C=cc A=aaaa", "A", 3229, "DEBUG Current container is now \"C\""},
        {"C", 2, 0, "", "C", 0, "RENAMED/500: E=e(37) B=bbbbbb A=aaaa", "E", 3230, "DEBUG Current container is now NULL"},
        {"A", 2, 0, "", "C", 0, "RENAMED/500: E=e(37) C=cc B=bbbbbb", "B", 3220, "EVENT Container \"A\" DELETED in VANT"},
        {"NOSUCH", 2, 0, "", NULL, ZEP_ERR_SYSTEM_ERROR, "RENAMED/500: C=cc B=bbbbbb A=aaaa", NULL, 3228, "*EXC* Container \"NOSUCH\" not found in channel \"RENAMED\""},
        {"NOSUCH", 3, 0, "", NULL, ZEP_ERR_SYSTEM_ERROR, "RENAMED/500: C=cc B=bbbbbb A=aaaa", NULL, 3233, "*EXC* Container \"NOSUCH\" not found in channel \"RENAMED\""},
        {"A", 1, 0xFFFFFFF0u, "", NULL, ZEP_ERR_SYSTEM_ERROR, "RENAMED/500: C=cc B=bbbbbb A=aaaa", NULL, 3224, "*EXC* Container data length 4294967280 exceeds the 29 bytes left in the message"},
        {"A", 3, 0xFFFFFFF0u, "", NULL, ZEP_ERR_SYSTEM_ERROR, "RENAMED/500: C=cc B=bbbbbb A=", NULL, 3233, "*EXC* Container data length 4294967280 exceeds the 29 bytes left in the message"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.trace);
        TraceCapture trace(4);
        TestChannel t;
        ContainerInfo info;
        if (c.browseTo != NULL) {
            ASSERT_EQ(0, ECI_getFirstContainer(t.channel, &info));
            while (strcmp(info.name, c.browseTo) != 0) ASSERT_EQ(0, ECI_getNextContainer(t.channel, &info));
        }
        Wire reply = section("RENAMED", 500, 2);
        record(record(reply, c.name, c.mark, ECI_CHAR, 37, c.length, c.data), "E", 1, ECI_CHAR, 37, 1, "e");
        EXPECT_EQ(c.rc, applyReply(reply.b, t.channel));
        EXPECT_EQ(c.contents, t.contents());
        EXPECT_EQ(c.trace, recordTexts(trace, c.traceId).at(0).substr(0, strlen(c.trace)));
        if (c.next != NULL) {
            ASSERT_EQ(0, ECI_getNextContainer(t.channel, &info));
            EXPECT_STREQ(c.next, info.name);
        }
    }
}

/* The reply's channel lands in the request's channel; without one it is read and dropped, the stream in step. */
TEST(ChannelRead, ReplyChannelLandsInTheRequestsChannelOrIsDropped)
{
    for (bool withChannel : {true, false}) {
        SocketPair pair;
        TestChannel t;
        EciRequest request = {};
        request.channel = withChannel ? t.channel : NULL;
        /* A program reply with no COMMAREA, then the channel section. */
        Wire reply = Wire().i32(1).fill(12, 0).text("    ").i32(0).u8(0).u8(0xFF).raw(section("STRAY", 0, 2).b);
        record(record(reply, "NEW", 1, ECI_BIT, 0, 2, "nn"), "TWO", 1, ECI_BIT, 0, 0);
        pair.feed(reply.b);
        pair.feed(Wire().i32(0x0BADF00D).b);
        ReadBuffer in(pair.lib, (uint32_t)reply.b.size());
        EXPECT_EQ(0, clapiReadECIResponse(&in.sb, &request));
        EXPECT_EQ(withChannel ? "STRAY/0: TWO= NEW=nn C=cc B=bbbbbb A=aaaa" : "CHAN/-1: C=cc B=bbbbbb A=aaaa", t.contents());
        EXPECT_EQ(0u, in.sb.bytesRemaining + in.sb.bytesInBuffer);
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
        EXPECT_EQ(0x0BADF00D, readInt(&in.sb));
    }
}

}  // namespace
