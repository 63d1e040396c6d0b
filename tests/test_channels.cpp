/* Channels and containers: one table of calls and what they leave, reads, CCSIDs, the dump and the channel lock. */
#include "library_support.h"

#include <limits.h>

namespace {

using Channels = ChannelTest;

/* What a table's calls work on; `bogus` is a block the size of a channel whose lock was never initialised. */
struct Args {
    Channel *chan, *other, *bogus, *none;
    ContainerInfo info;
    char buffer[18];
    unsigned long count;
};

#define CALL(expr) [](Args& a) -> int { (void)a; return expr; }
#define RC(code) code, #code

constexpr unsigned long HUGE_LENGTH = ULONG_MAX - 0xFF;
constexpr bool WIDE = sizeof(unsigned long) > 4;

std::string text(const void* p, size_t max) { return std::string((const char*)p, strnlen((const char*)p, max)); }

/* "CCSID: NAME(type,ccsid)=data ..." in list order, '*' at the browse position, then "| info" once filled. */
std::string stateOf(const Args& a)
{
    std::string out = std::to_string(a.chan->ccsid) + ":";
    int listed = 0;
    for (const Container* c = a.chan->firstCont; c != NULL; c = c->nextCont, listed++)
        out += " " + text(c->name, 16) + (c == a.chan->currentCont ? "*" : "") + "(" + std::to_string(c->type) + "," +
               std::to_string(c->ccsid) + ")=" + std::string((const char*)c->dataPtr, c->dataPtr ? c->dataLength : 0);
    if (listed != a.chan->numContainers) out += " numContainers=" + std::to_string(a.chan->numContainers);
    if (a.info.type != 0x5A5A5A5A)
        out += " | " + text(a.info.name, sizeof a.info.name) + " " + std::to_string(a.info.type) + " " +
               std::to_string(a.info.ccsid) + " " + std::to_string(a.info.dataLength);
    return out;
}

/* The first character container fixes the channel's CCSID (LANG is ja_JP.eucJP: 5050); "other" is another channel.
   A failed check is named by one exception record; `record` is the start of one record the call writes ("%p": the
   bogus token); `state` (NULL: not looked at) is stateOf after the call. Every call ends with its exit record and
   leaves the channel free. */
TEST_F(Channels, EveryCallInOrder)
{
    const std::string why = WIDE ? "dataLength " + std::to_string(HUGE_LENGTH) + " exceeds the largest container length 4294967295"
                                 : "Failed to allocate " + std::to_string(HUGE_LENGTH) + " bytes for container data";
    const int hugeRc = WIDE ? ECI_ERR_INVALID_DATA_LENGTH : ECI_ERR_MEMORY_SHORTAGE;
    const char* hugeName = WIDE ? "ECI_ERR_INVALID_DATA_LENGTH" : "ECI_ERR_MEMORY_SHORTAGE";
    const struct { int (*call)(Args& a); int rc; const char* rcName; std::string record; const char* state; } cases[] = {
        {CALL(ECI_getFirstContainer(a.chan, &a.info)), RC(ECI_ERR_ENDOFCONTAINERS), "DEBUG API.ECI_getFirstContainer() Channel \"CHAN\" has no containers", "-1:"},
        {CALL(ECI_getNextContainer(a.chan, &a.info)), RC(ECI_ERR_ENDOFCONTAINERS), "DEBUG API.ECI_getNextContainer() Channel \"CHAN\" has no containers", "-1:"},
        {CALL(ECI_createContainer(a.chan, "TEXT", ECI_CHAR, 0, "12345", 5)), RC(ECI_NO_ERROR), "EVENT API.ECI_createContainer() Channel CCSID set to 5050 from locale", "5050: TEXT(2,5050)=12345"},
        {CALL(ECI_createContainer(a.chan, "U8", ECI_CHAR, 1208, "abc", 3)), RC(ECI_NO_ERROR), "EVENT API.ECI_createContainer() Container CCSID set to 1208", "5050: U8(2,1208)=abc TEXT(2,5050)=12345"},
        {CALL(ECI_createContainer(a.other, "ONE", ECI_CHAR, 37, "1", 1)), RC(ECI_NO_ERROR), "EVENT API.ECI_createContainer() Channel CCSID set to 37 from Container", NULL},
        {CALL(ECI_createContainer(a.other, "TWO", ECI_CHAR, 0, "2", 1)), RC(ECI_NO_ERROR), "EVENT API.ECI_createContainer() Container CCSID set to 37", NULL},
        {CALL(ECI_setContainerData(a.chan, "TEXT", "abcde", 5)), RC(ECI_NO_ERROR), "", "5050: U8(2,1208)=abc TEXT(2,5050)=abcde"},
        {CALL(ECI_setContainerData(a.chan, "TEXT", "longer data", 11)), RC(ECI_NO_ERROR), "DEBUG API.ECI_setContainerData() Freeing 5 bytes of container data (", "5050: U8(2,1208)=abc TEXT(2,5050)=longer data"},
        {CALL(ECI_createContainer(a.chan, "BIG", ECI_BIT, 0, a.buffer, HUGE_LENGTH)), hugeRc, hugeName, "*EXC* API.ECI_createContainer() " + why, "5050: U8(2,1208)=abc TEXT(2,5050)=longer data"},
        {CALL(ECI_setContainerData(a.chan, "TEXT", a.buffer, HUGE_LENGTH)), hugeRc, hugeName, "*EXC* API.ECI_setContainerData() " + why, WIDE ? "5050: U8(2,1208)=abc TEXT(2,5050)=longer data" : "5050: U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_setContainerData(a.chan, "TEXT", NULL, 0)), RC(ECI_NO_ERROR), "", "5050: U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_createContainer(a.chan, "ABCDEFGHIJKLMNOP", ECI_BIT, 0, NULL, 0)), RC(ECI_NO_ERROR), "", "5050: ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_createContainer(a.chan, "ABCDEFGHIJKLMNOP", ECI_CHAR, 0, "x", 1)), RC(ECI_ERR_CONTAINER_EXISTS), "*EXC* API.ECI_createContainer() Container \"ABCDEFGHIJKLMNOP\" already exists in channel \"CHAN\"", NULL},
        {CALL(ECI_getContainerData(a.chan, "U8", a.buffer, 8, 3, &a.count)), RC(ECI_NO_ERROR), "DEBUG API.ECI_getContainerData() No data to copy", "5050: ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_getContainerData(a.chan, "U8", a.buffer, 8, 1, &a.count)), RC(ECI_NO_ERROR), "DEBUG API.ECI_getContainerData() Copied 2 bytes into ", NULL},
        {CALL(ECI_getContainerInfo(a.chan, "U8", &a.info)), RC(ECI_NO_ERROR), "", "5050: ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)= | U8 2 1208 3"},
        {CALL(ECI_getContainerInfo(a.chan, "ABCDEFGHIJKLMNOP", &a.info)), RC(ECI_NO_ERROR), "", "5050: ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)= | ABCDEFGHIJKLMNOP 1 0 0"},
        {CALL(ECI_createContainer(a.chan, "B", ECI_BIT, 0, "b", 1)), RC(ECI_NO_ERROR), "", "5050: B(1,0)=b ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_getFirstContainer(a.chan, &a.info)), RC(ECI_NO_ERROR), "", "5050: B*(1,0)=b ABCDEFGHIJKLMNOP(1,0)= U8(2,1208)=abc TEXT(2,5050)= | B 1 0 1"},
        {CALL(ECI_getNextContainer(a.chan, &a.info)), RC(ECI_NO_ERROR), "", "5050: B(1,0)=b ABCDEFGHIJKLMNOP*(1,0)= U8(2,1208)=abc TEXT(2,5050)= | ABCDEFGHIJKLMNOP 1 0 0"},
        {CALL(ECI_deleteContainer(a.chan, "ABCDEFGHIJKLMNOP")), RC(ECI_NO_ERROR), "DEBUG API.ECI_deleteContainer() Current container is now \"B\"", "5050: B*(1,0)=b U8(2,1208)=abc TEXT(2,5050)="},
        {CALL(ECI_deleteContainer(a.chan, "TEXT")), RC(ECI_NO_ERROR), "", "5050: B*(1,0)=b U8(2,1208)=abc"},
        {CALL(ECI_getNextContainer(a.chan, &a.info)), RC(ECI_NO_ERROR), "", "5050: B(1,0)=b U8*(2,1208)=abc | U8 2 1208 3"},
        {CALL(ECI_getNextContainer(a.chan, &a.info)), RC(ECI_ERR_ENDOFCONTAINERS), "DEBUG API.ECI_getNextContainer() No more containers in channel \"CHAN\"", "5050: B(1,0)=b U8(2,1208)=abc"},
        {CALL(ECI_getNextContainer(a.chan, &a.info)), RC(ECI_NO_ERROR), "DEBUG API.ECI_getNextContainer() Current container is NULL, retrieving first container", "5050: B*(1,0)=b U8(2,1208)=abc | B 1 0 1"},
        {CALL(ECI_deleteContainer(a.chan, "B")), RC(ECI_NO_ERROR), "DEBUG API.ECI_deleteContainer() Current container is now NULL", "5050: U8(2,1208)=abc"},
        {CALL(ECI_createChannel(NULL, NULL)), RC(ECI_ERR_NULLCHANNELPTR), "*EXC* API.ECI_createChannel() tokPtr is NULL", NULL},
        {CALL(ECI_createChannel("", &a.none)), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name is zero length", NULL},
        {CALL(ECI_deleteChannel(NULL)), RC(ECI_ERR_NULLCHANNELPTR), "*EXC* API.ECI_deleteChannel() tokPtr is NULL", NULL},
        {CALL(ECI_deleteChannel(&a.none)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_deleteChannel() *tokPtr is NULL", NULL},
        {CALL(ECI_deleteChannel(&a.bogus)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel", NULL},
        {CALL(ECI_getChannelName(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_getChannelName() chanTok is NULL", NULL},
        {CALL(ECI_getChannelName(a.chan, NULL)), RC(ECI_ERR_NULLPTR), "*EXC* API.ECI_getChannelName() nameBuffer is NULL", NULL},
        {CALL(ECI_getChannelName(a.bogus, a.buffer)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel", NULL},
        {CALL(lockChannel(NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok is NULL", NULL},
        {CALL(unlockChannel(NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.unlockChannel() chanTok is NULL", NULL},
        {CALL(unlockChannel(a.bogus)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.unlockChannel() chanTok (%p) is not a channel", NULL},
        {CALL(ECI_createContainer(NULL, NULL, 0, 0, NULL, 5)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_createContainer() chanTok is NULL", NULL},
        {CALL(ECI_createContainer(a.chan, NULL, 0, 0, NULL, 5)), RC(ECI_ERR_INVALID_TYPE), "*EXC* API.ECI_createContainer() type is invalid (0)", NULL},
        {CALL(ECI_createContainer(a.chan, NULL, 3, 0, NULL, 5)), RC(ECI_ERR_INVALID_TYPE), "*EXC* API.ECI_createContainer() type is invalid (3)", NULL},
        {CALL(ECI_createContainer(a.chan, NULL, ECI_CHAR, 0, NULL, 5)), RC(ECI_ERR_INVALID_DATA_LENGTH), "", NULL},
        {CALL(ECI_createContainer(a.chan, NULL, ECI_BIT, 0, NULL, 0)), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name is NULL", NULL},
        {CALL(ECI_createContainer(a.bogus, "X", ECI_BIT, 0, NULL, 0)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel", NULL},
        {CALL(ECI_deleteContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_deleteContainer() chanTok is NULL", NULL},
        {CALL(ECI_deleteContainer(a.chan, "")), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name is zero length", NULL},
        {CALL(ECI_deleteContainer(a.chan, "NOPE")), RC(ECI_ERR_CONTAINER_NOTFOUND), "*EXC* API.ECI_deleteContainer() Container \"NOPE\" does not exist in channel \"CHAN\"", NULL},
        {CALL(ECI_getContainerData(NULL, NULL, NULL, 0, 0, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_getContainerData() chanTok is NULL", NULL},
        {CALL(ECI_getContainerData(a.chan, NULL, NULL, 0, 0, NULL)), RC(ECI_ERR_NULLPTR), "*EXC* API.ECI_getContainerData() buffer is NULL", NULL},
        {CALL(ECI_getContainerData(a.chan, "A B", a.buffer, 8, 0, NULL)), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name contains invalid character ' '", NULL},
        {CALL(ECI_getContainerData(a.chan, "NOPE", a.buffer, 8, 0, NULL)), RC(ECI_ERR_CONTAINER_NOTFOUND), "*EXC* API.ECI_getContainerData() Container \"NOPE\" does not exist in channel \"CHAN\"", NULL},
        {CALL(ECI_setContainerData(NULL, NULL, NULL, 5)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_setContainerData() chanTok is NULL", NULL},
        {CALL(ECI_setContainerData(a.chan, NULL, NULL, 5)), RC(ECI_ERR_INVALID_DATA_LENGTH), "*EXC* API.ECI_setContainerData() data is NULL when dataLength is 5", NULL},
        {CALL(ECI_setContainerData(a.chan, NULL, NULL, 0)), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name is NULL", NULL},
        {CALL(ECI_setContainerData(a.chan, "NOPE", NULL, 0)), RC(ECI_ERR_CONTAINER_NOTFOUND), "*EXC* API.ECI_setContainerData() Container \"NOPE\" does not exist in channel \"CHAN\"", NULL},
        {CALL(ECI_getContainerInfo(NULL, NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_getContainerInfo() chanTok is NULL", NULL},
        {CALL(ECI_getContainerInfo(a.chan, NULL, NULL)), RC(ECI_ERR_NULLINFOPTR), "*EXC* API.ECI_getContainerInfo() infoPtr is NULL", NULL},
        {CALL(ECI_getContainerInfo(a.chan, "SEVENTEEN_CHARS_X", &a.info)), RC(ECI_ERR_INVALID_NAME), "*EXC* clapi_channel.validateName() name length exceeds 16", NULL},
        {CALL(ECI_getContainerInfo(a.chan, "ABCDEFGHIJKLMNO", &a.info)), RC(ECI_ERR_CONTAINER_NOTFOUND), "*EXC* API.ECI_getContainerInfo() Container \"ABCDEFGHIJKLMNO\" does not exist in channel \"CHAN\"", NULL},
        {CALL(ECI_getFirstContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_getFirstContainer() chanTok is NULL", NULL},
        {CALL(ECI_getFirstContainer(a.chan, NULL)), RC(ECI_ERR_NULLINFOPTR), "*EXC* API.ECI_getFirstContainer() infoPtr is NULL", NULL},
        {CALL(ECI_getFirstContainer(a.bogus, &a.info)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel", NULL},
        {CALL(ECI_getNextContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* API.ECI_getNextContainer() chanTok is NULL", NULL},
        {CALL(ECI_getNextContainer(a.chan, NULL)), RC(ECI_ERR_NULLINFOPTR), "*EXC* API.ECI_getNextContainer() infoPtr is NULL", NULL},
        {CALL(ECI_getNextContainer(a.bogus, &a.info)), RC(ECI_ERR_INVALID_CHANNEL), "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel", NULL},
    };
    setenv("LANG", "ja_JP.eucJP", 1);
    alignas(8) unsigned char notAChannel[sizeof(Channel)] = {};
    TraceCapture trace(4);
    /* Traced, then again untraced: no check and no result may depend on the trace being on. */
    for (const int level : {4, 0}) {
        ASSERT_EQ(0, ECI_deleteAllChannels());
        ZEP_setAPITraceLevel(level);
        Args a = {newChannel("CHAN"), newChannel("OTHER"), reinterpret_cast<Channel*>(notAChannel), NULL, {}, {}, 0};
        for (const auto& c : cases) {
            char record[200];
            snprintf(record, sizeof record, c.record.c_str(), (void*)notAChannel);
            SCOPED_TRACE((c.record.empty() ? c.rcName : record) + std::string(" at level ") + std::to_string(level));
            memset(&a.info, 0x5A, sizeof a.info);
            trace.clear();
            EXPECT_EQ(c.rc, c.call(a));
            std::vector<TraceRecord> records = trace.records();
            if (level == 0) {
                EXPECT_EQ(0u, records.size());
            } else {
                ASSERT_FALSE(records.empty());
                size_t exceptions = 0, matches = 0;
                for (const TraceRecord& r : records) {
                    if (r.type == "*EXC*" && r.id != 3104 && r.id != 3108) exceptions++;
                    if ((r.type + " " + r.message).compare(0, strlen(record), record) == 0) matches++;
                }
                EXPECT_EQ(c.record.compare(0, 5, "*EXC*") == 0 ? 1u : 0u, exceptions);
                EXPECT_LE(1u, matches);
                const std::string function = records.front().message.substr(0, records.front().message.find('('));
                EXPECT_EQ("EXIT " + function + "() rc=" + std::to_string(c.rc) + " (" + c.rcName + ")",
                          records.back().type + " " + records.back().message);
            }
            if (c.state != NULL) { EXPECT_EQ(c.state, stateOf(a)); }
            EXPECT_EQ(0, a.chan->isLocked);
        }
    }
}

TEST(Ccsid, LangSelectsTheCcsid)
{
    const struct { const char* lang; int ccsid, id; const char* record; } cases[] = {
        {NULL, 819, 1437, "DEBUG clapi_channel.getCurrentCcsid() LANG environment variable not set, defaulting to CCSID 819"},
        {"Ja_JP", 819, 1439, "*EXC* clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset Ja_JP"},
        {"zh_TW.eucTW", 964, 1438, "DEBUG clapi_channel.getCurrentCcsid() Mapped codeset zh_TW.eucTW to CCSID 964"},
    };
    for (const auto& c : cases) {
        c.lang != NULL ? setenv("LANG", c.lang, 1) : unsetenv("LANG");
        TraceCapture trace(4);
        int ccsid = -7;
        EXPECT_EQ(0, getCurrentCcsid(&ccsid));
        EXPECT_EQ(c.ccsid, ccsid);
        EXPECT_EQ(c.record, onlyRecord(trace, c.id));
    }
}

/* Deleting a channel unlinks it from the middle of the list; the dump shows the rest newest first. */
TEST_F(Channels, DeleteUnlinksAndTheDumpShowsWhatIsLeft)
{
    Channel* older = newChannel("CHANA");
    Channel* middle = newChannel("MIDDLE");
    Channel* newer = newChannel("SIXTEENCHARSNAME");
    ASSERT_EQ(0, ECI_createContainer(middle, "DATA", ECI_BIT, 0, "12345", 5));
    ASSERT_EQ(0, ECI_createContainer(newer, "C2", ECI_CHAR, 1208, "abc", 3));
    Container* c2 = newer->firstCont;
    const std::string data = pointerText(middle->firstCont), deleted = pointerText(middle);
    TraceCapture trace(4);
    EXPECT_EQ(0, ECI_deleteChannel(&middle));
    EXPECT_EQ(nullptr, middle);
    EXPECT_EQ("EVENT API.ECI_deleteChannel() Deleted container \"DATA\" (" + data + ")", onlyRecord(trace, 1421));
    EXPECT_EQ("EVENT API.ECI_deleteChannel() Deleted channel \"MIDDLE\" (" + deleted + ")", onlyRecord(trace, 1422));
    EXPECT_EQ(0, ZEP_setAPITraceLevel(0));   /* the dump is written at any level */
    trace.clear();
    EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    char line[3][512];
    snprintf(line[0], sizeof line[0],
             "Channel list entry -0001- : Channel(%p): eyecatcher(ZEPCHANN) name(SIXTEENCHARSNAME) serlock(%p) "
             "unlockEvent(%p) isLocked(0) ccsid(1208) numContainers(1) nextChannel(%p) firstCont(%p) currentCont((nil))",
             (void*)newer, (void*)&newer->serlock, (void*)&newer->unlockEvent, (void*)older, (void*)c2);
    snprintf(line[1], sizeof line[1], "   Container list entry -0001/0001- : Container(%p): eyecatcher(ZEPCONTA) name("
             "              C2) type(2) ccsid(1208) dataLength(3) dataPtr(%p) nextCont((nil))", (void*)c2, (void*)c2->dataPtr);
    snprintf(line[2], sizeof line[2],
             "Channel list entry -0002- : Channel(%p): eyecatcher(ZEPCHANN) name(           CHANA) serlock(%p) "
             "unlockEvent(%p) isLocked(0) ccsid(-1) numContainers(0) nextChannel((nil)) firstCont((nil)) "
             "currentCont((nil))", (void*)older, (void*)&older->serlock, (void*)&older->unlockEvent);
    const std::string rule(80, '-');
    EXPECT_EQ(trace.lines(), (std::vector<std::string>{"Channel and container dump", rule, line[0], line[1], line[2],
                                                       "Total number of channels=2", rule}));
    EXPECT_EQ(0, ZEP_setAPITraceLevel(4));
    EXPECT_EQ(0, ECI_deleteAllChannels());
    EXPECT_EQ(2u, recordTexts(trace, 1429).size());
    EXPECT_EQ(nullptr, chanList);
}

/* A read copies what lies between offset and the end, at most length bytes, and leaves the rest of the buffer.
   Untraced, as most applications call. */
TEST_F(Channels, ReadsHonourOffsetAndLength)
{
    const struct { unsigned long length, offset, count; } cases[] = {
        {50, 0, 50}, {100, 10, 40}, {10, 5, 10}, {10, 50, 0}, {10, 60, 0}, {0, 0, 0}, {ULONG_MAX, 45, 5}, {10, ULONG_MAX, 0},
    };
    Channel* chan = newChannel("CHAN");
    unsigned char data[50];
    for (int i = 0; i < 50; i++) data[i] = (unsigned char)(i + 1);
    setenv("LANG", "zh_TW.big5", 1);   /* a codeset mapped with the trace off */
    ASSERT_EQ(0, ECI_createContainer(chan, "DATA", ECI_CHAR, 0, NULL, 0));
    ASSERT_EQ(0, ECI_setContainerData(chan, "DATA", data, sizeof data));
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + "@" + std::to_string(c.offset));
        unsigned char buffer[128];
        memset(buffer, 0xEE, sizeof buffer);
        unsigned long count = 777;
        EXPECT_EQ(0, ECI_getContainerData(chan, "DATA", buffer, c.length, c.offset, &count));
        EXPECT_EQ(c.count, count);
        for (unsigned long i = 0; i < sizeof buffer; i++)
            ASSERT_EQ(i < c.count ? data[c.offset + i] : 0xEE, buffer[i]) << i;
    }
    unsigned char buffer[8];
    EXPECT_EQ(0, ECI_getContainerData(chan, "DATA", buffer, sizeof buffer, 0, NULL));   /* no count wanted */
    EXPECT_EQ(8, buffer[7]);
    EXPECT_EQ(950, chan->firstCont->ccsid);
}

}  // namespace
