/* Channels and containers: names, CCSIDs, data, browsing, deletion, the argument checks and the channel lock. */
#include "library_support.h"

#include <limits.h>

#include <atomic>
#include <future>

namespace {

using Channels = ChannelTest;

std::string nameOf(const ContainerInfo& info) { return std::string(info.name, strnlen(info.name, sizeof info.name)); }

std::string dataOf(Channel* chan, const char* name)
{
    char buffer[32];
    unsigned long count = 0;
    int rc = ECI_getContainerData(chan, name, buffer, sizeof buffer, 0, &count);
    return rc == 0 ? std::string(buffer, count) : "rc=" + std::to_string(rc);
}

/* The first matching prefix of LANG wins, so the longer codesets come before their language. */
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

/* The name is stored NUL-padded to 16 bytes; the 17 bytes of the caller's buffer are cleared, no more. */
TEST_F(Channels, NameIsStoredPaddedAndReturnedInSeventeenBytes)
{
    for (const char* name : {"ABCDEFGHIJKLMNOP", "AB"}) {
        Channel* chan = newChannel(name);
        char padded[17] = {}, buffer[24];
        memcpy(padded, name, strlen(name));
        EXPECT_EQ(0, memcmp(chan->name, padded, 16)) << name;
        memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(0, ECI_getChannelName(chan, buffer));
        EXPECT_EQ(std::string(padded, 17) + "x", std::string(buffer, 18));
    }
}

TEST_F(Channels, DumpShowsChannelsNewestFirstWithTheirContainers)
{
    Channel* older = newChannel("CHANA");
    Channel* newer = newChannel("CHANB");
    ASSERT_EQ(0, ECI_createContainer(newer, "C2", ECI_CHAR, 1208, "abc", 3));
    Container* c2 = newer->firstCont;
    TraceCapture trace(0);
    EXPECT_EQ(0, ZEP_ECI_dumpChannels());
    char line[3][512];
    snprintf(line[0], sizeof line[0],
             "Channel list entry -0001- : Channel(%p): eyecatcher(ZEPCHANN) name(           CHANB) serlock(%p) "
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
}

TEST_F(Channels, DeleteUnlinksFreesAndClearsTheToken)
{
    Channel* first = newChannel("FIRST");
    Channel* middle = newChannel("MIDDLE");
    Channel* last = newChannel("LAST");
    ASSERT_EQ(0, ECI_createContainer(middle, "DATA", ECI_BIT, 0, "12345", 5));
    std::string data = pointerText(middle->firstCont), block = pointerText(middle->firstCont->dataPtr);
    std::string deleted = pointerText(middle);
    TraceCapture trace(4);
    EXPECT_EQ(0, ECI_deleteChannel(&middle));
    EXPECT_EQ(nullptr, middle);
    EXPECT_EQ(first, last->nextChannel);   /* unlinked from the middle of the list */
    EXPECT_EQ("DEBUG API.ECI_deleteChannel() Freeing 5 bytes of container data (" + block + ")", onlyRecord(trace, 1420));
    EXPECT_EQ("EVENT API.ECI_deleteChannel() Deleted container \"DATA\" (" + data + ")", onlyRecord(trace, 1421));
    EXPECT_EQ("DEBUG API.ECI_deleteChannel() Released lock for channel " + deleted + ", now deleting", onlyRecord(trace, 1423));
    EXPECT_EQ("EVENT API.ECI_deleteChannel() Deleted channel \"MIDDLE\" (" + deleted + ")", onlyRecord(trace, 1422));
    ASSERT_EQ(0, ECI_createContainer(first, "BYTES", ECI_BIT, 0, "1234567", 7));
    std::string bytes = pointerText(first->firstCont->dataPtr), container = pointerText(first->firstCont);
    EXPECT_EQ(0, ECI_deleteAllChannels());
    EXPECT_EQ("DEBUG API.ECI_deleteAllChannels() Destroying event and lock for channel \"LAST\" (" + pointerText(last) + ")",
              recordTexts(trace, 1426).at(0));
    EXPECT_EQ("DEBUG API.ECI_deleteAllChannels() Freeing 7 bytes of container data (" + bytes + ")", onlyRecord(trace, 1427));
    EXPECT_EQ("EVENT API.ECI_deleteAllChannels() Deleted container \"BYTES\" (" + container + ")", onlyRecord(trace, 1317));
    EXPECT_EQ(2u, recordTexts(trace, 1429).size());
    EXPECT_EQ(nullptr, chanList);
}

/* Browsing is newest first and starts again after the end; info is zeroed, filled, and leaves the cursor. */
TEST_F(Channels, BrowsingIsNewestFirstAndWraps)
{
    Channel* chan = newChannel("CHAN");
    TraceCapture trace(4);
    ContainerInfo info;
    EXPECT_EQ(ECI_ERR_ENDOFCONTAINERS, ECI_getFirstContainer(chan, &info));
    EXPECT_EQ(ECI_ERR_ENDOFCONTAINERS, ECI_getNextContainer(chan, &info));
    EXPECT_EQ("DEBUG API.ECI_getFirstContainer() Channel \"CHAN\" has no containers", onlyRecord(trace, 1373));
    EXPECT_EQ("DEBUG API.ECI_getNextContainer() Channel \"CHAN\" has no containers", onlyRecord(trace, 1382));
    ASSERT_EQ(0, ECI_createContainer(chan, "SIXTEENCHARSNAME", ECI_CHAR, 1208, "hello", 5));
    ASSERT_EQ(0, ECI_createContainer(chan, "B", ECI_BIT, 0, NULL, 0));
    std::string names;
    for (int i = 0; i < 4; i++) {
        int rc = i == 0 ? ECI_getFirstContainer(chan, &info) : ECI_getNextContainer(chan, &info);
        names += rc == 0 ? nameOf(info) + " " : std::to_string(rc) + " ";
        if (i != 1) continue;
        memset(&info, 0x5A, sizeof info);
        ASSERT_EQ(0, ECI_getContainerInfo(chan, "B", &info));
        EXPECT_EQ(std::string(sizeof info.name - 1, '\0'), std::string(info.name + 1, sizeof info.name - 1));
        ASSERT_EQ(0, ECI_getContainerInfo(chan, "SIXTEENCHARSNAME", &info));
        EXPECT_EQ(0, memcmp(info.name, "SIXTEENCHARSNAME", 17));
        EXPECT_EQ("2 1208 5", std::to_string(info.type) + " " + std::to_string(info.ccsid) + " " + std::to_string(info.dataLength));
    }
    EXPECT_EQ("B SIXTEENCHARSNAME -54 B ", names);
    EXPECT_EQ("DEBUG API.ECI_getNextContainer() No more containers in channel \"CHAN\"", onlyRecord(trace, 1380));
    EXPECT_EQ("DEBUG API.ECI_getNextContainer() Current container is NULL, retrieving first container",
              recordTexts(trace, 1381).back());
}

/* The first character container fixes the channel's CCSID; later ones keep an explicit CCSID of their own. */
TEST_F(Channels, FirstCharacterContainerFixesTheChannelsCcsid)
{
    const struct { const char* lang; int first, second, firstSet, secondSet; const char* from; } cases[] = {
        {"ja_JP.eucJP", 0, 1208, 5050, 1208, "locale"}, {"ja_JP", 1208, 0, 1208, 1208, "Container"},
        {"ja_JP", 37, 500, 37, 500, "Container"}, {"zh_TW.big5", 0, 0, 950, 950, "locale"},
    };
    for (const auto& c : cases) {
        setenv("LANG", c.lang, 1);
        Channel* chan = newChannel("CHAN");
        TraceCapture trace(2);
        ASSERT_EQ(0, ECI_createContainer(chan, "ONE", ECI_CHAR, c.first, "1", 1));
        ASSERT_EQ(0, ECI_createContainer(chan, "TWO", ECI_CHAR, c.second, "2", 1));
        ContainerInfo one, two;
        ASSERT_EQ(0, ECI_getContainerInfo(chan, "ONE", &one) + ECI_getContainerInfo(chan, "TWO", &two));
        EXPECT_EQ(std::to_string(c.firstSet) + " " + std::to_string(c.secondSet) + " " + std::to_string(c.firstSet),
                  std::to_string(one.ccsid) + " " + std::to_string(two.ccsid) + " " + std::to_string(chan->ccsid));
        std::vector<std::string> events;
        for (const TraceRecord& r : trace.records()) if (r.id >= 1330 && r.id <= 1332) events.push_back(r.message);
        const std::string created = "API.ECI_createContainer() ";
        EXPECT_EQ((std::vector<std::string>{created + "Channel CCSID set to " + std::to_string(c.firstSet) + " from " + c.from,
                                            created + "Container CCSID set to " + std::to_string(c.firstSet),
                                            created + "Container CCSID set to " + std::to_string(c.secondSet)}),
                  events) << c.lang;
        EXPECT_EQ(0, ECI_deleteChannel(&chan));
    }
}

/* A read copies what lies between offset and the end, at most length bytes, and leaves the rest of the buffer. */
TEST_F(Channels, ReadsHonourOffsetAndLength)
{
    const struct { unsigned long length, offset, count; } cases[] = {
        {50, 0, 50}, {100, 10, 40}, {10, 5, 10}, {10, 50, 0}, {10, 60, 0}, {0, 0, 0}, {ULONG_MAX, 45, 5}, {10, ULONG_MAX, 0},
    };
    Channel* chan = newChannel("CHAN");
    unsigned char data[50];
    for (int i = 0; i < 50; i++) data[i] = (unsigned char)(i + 1);
    ASSERT_EQ(0, ECI_createContainer(chan, "DATA", ECI_BIT, 0, data, sizeof data));
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
}

TEST_F(Channels, SetDataReplacesEmptiesAndKeepsTypeAndCcsid)
{
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(0, ECI_createContainer(chan, "TEXT", ECI_CHAR, 1208, "12345", 5));
    std::string oldBlock = pointerText(chan->firstCont->dataPtr);
    TraceCapture trace(4);
    ASSERT_EQ(0, ECI_setContainerData(chan, "TEXT", "abcde", 5));   /* same length */
    EXPECT_EQ("abcde", dataOf(chan, "TEXT"));
    ASSERT_EQ(0, ECI_setContainerData(chan, "TEXT", "longer data", 11));
    EXPECT_EQ("longer data", dataOf(chan, "TEXT"));
    std::string newBlock = pointerText(chan->firstCont->dataPtr);
    ASSERT_EQ(0, ECI_setContainerData(chan, "TEXT", NULL, 0));
    EXPECT_EQ("", dataOf(chan, "TEXT"));
    ContainerInfo info;
    ASSERT_EQ(0, ECI_getContainerInfo(chan, "TEXT", &info));
    EXPECT_EQ("2 1208 0", std::to_string(info.type) + " " + std::to_string(info.ccsid) + " " + std::to_string(info.dataLength));
    EXPECT_EQ("DEBUG API.ECI_setContainerData() Freeing 5 bytes of container data (" + oldBlock + ")|"
              "DEBUG API.ECI_setContainerData() Freeing 11 bytes of container data (" + newBlock + ")",
              recordTexts(trace, 1359).at(0) + "|" + recordTexts(trace, 1359).at(1));
    ASSERT_EQ(0, ECI_createContainer(chan, "ABCDEFGHIJKLMNOP", ECI_BIT, 0, NULL, 0));
    EXPECT_EQ(ECI_ERR_CONTAINER_EXISTS, ECI_createContainer(chan, "ABCDEFGHIJKLMNOP", ECI_CHAR, 0, "x", 1));
    EXPECT_EQ("*EXC* API.ECI_createContainer() Container \"ABCDEFGHIJKLMNOP\" already exists in channel \"CHAN\"",
              onlyRecord(trace, 1328));
    EXPECT_EQ(0, ECI_createContainer(chan, "ABCDEFGHIJKLMNO", ECI_BIT, 0, NULL, 0));   /* a prefix is another name */
    EXPECT_EQ(3, chan->numContainers);
}

/* Deleting the cursor's container moves the cursor back, so browsing goes on with the container after it. */
TEST_F(Channels, DeletingTheCurrentContainerMovesTheCursorBack)
{
    Channel* chan = newChannel("CHAN");
    for (const char* name : {"A", "B", "C", "D"}) ASSERT_EQ(0, ECI_createContainer(chan, name, ECI_BIT, 0, "x", 1));
    TraceCapture trace(4);
    ContainerInfo info;
    ASSERT_EQ(0, ECI_getFirstContainer(chan, &info));   /* D */
    ASSERT_EQ(0, ECI_getNextContainer(chan, &info));    /* C */
    ASSERT_EQ(0, ECI_deleteContainer(chan, "C"));
    EXPECT_EQ("DEBUG API.ECI_deleteContainer() Current container is now \"D\"", onlyRecord(trace, 1341));
    ASSERT_EQ(0, ECI_getNextContainer(chan, &info));
    EXPECT_EQ("B", nameOf(info));
    ASSERT_EQ(0, ECI_getFirstContainer(chan, &info));   /* D, the first */
    ASSERT_EQ(0, ECI_deleteContainer(chan, "D"));
    EXPECT_EQ("DEBUG API.ECI_deleteContainer() Current container is now NULL", onlyRecord(trace, 1342));
    ASSERT_EQ(0, ECI_getNextContainer(chan, &info));
    EXPECT_EQ("B", nameOf(info));
    ASSERT_EQ(0, ECI_deleteContainer(chan, "A"));   /* not the cursor's: the cursor stays */
    EXPECT_EQ(1u, recordTexts(trace, 1341).size());
    EXPECT_EQ(ECI_ERR_ENDOFCONTAINERS, ECI_getNextContainer(chan, &info));
    EXPECT_EQ(1, chan->numContainers);
}

/* A length that cannot be allocated (only on i386 within 32 bits) is a memory shortage; one beyond 32 bits
   cannot go on the wire and is refused before the channel is taken. Either way the channel is left usable. */
TEST_F(Channels, UnallocatableOrOverlongLengthIsRefused)
{
    const unsigned long huge = ULONG_MAX - 0xFF;
    const bool wide = sizeof(unsigned long) > 4;
    const int rc = wide ? ECI_ERR_INVALID_DATA_LENGTH : ECI_ERR_MEMORY_SHORTAGE;
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(0, ECI_createContainer(chan, "SMALL", ECI_BIT, 0, "12345", 5));
    char small[16] = {};
    TraceCapture trace(1);
    EXPECT_EQ(rc, ECI_createContainer(chan, "BIG", ECI_BIT, 0, small, huge));
    EXPECT_EQ(rc, ECI_setContainerData(chan, "SMALL", small, huge));
    const std::string why = wide ? "dataLength " + std::to_string(huge) + " exceeds the largest container length 4294967295"
                                 : "Failed to allocate " + std::to_string(huge) + " bytes for container data";
    std::vector<std::string> seen;
    for (const TraceRecord& r : trace.records()) seen.push_back(r.type + " " + r.message);
    EXPECT_EQ((std::vector<std::string>{"*EXC* API.ECI_createContainer() " + why, "*EXC* API.ECI_setContainerData() " + why}), seen);
    EXPECT_EQ(1, chan->numContainers);
    EXPECT_EQ(wide ? "12345" : "", dataOf(chan, "SMALL"));   /* a failed allocation leaves no data */
    EXPECT_EQ(0, chan->isLocked);
}

/* ---------------------------------------------------------------- the channel lock */

struct HeldFixture {
    Channel* chan;
    ContainerInfo info;
    char buffer[17];
    unsigned long count;
};

#define HELD(expr) [](HeldFixture& f) -> int { return expr; }
#define SEEN(expr) [](HeldFixture& f) -> std::string { return expr; }

/* The lock is not bound to a thread: one thread takes it, the call waits, the test's thread releases it. A waiter
   writes "Finished waiting" only once it owns the channel: after arming the event, never before. */
TEST_F(Channels, CallsWaitWhileAnotherThreadHoldsTheChannel)
{
    const struct {
        const char* label;
        int (*call)(HeldFixture& f);
        std::string (*effect)(HeldFixture& f);
        const char* expected;
    } cases[] = {
        {"create", HELD(ECI_createContainer(f.chan, "NEW", ECI_BIT, 0, "new", 3)), SEEN(dataOf(f.chan, "NEW")), "new"},
        {"delete", HELD(ECI_deleteContainer(f.chan, "DATA")), SEEN(dataOf(f.chan, "DATA")), "rc=-58"},
        {"getData", HELD(ECI_getContainerData(f.chan, "DATA", f.buffer, 4, 2, &f.count)),
         SEEN(std::string(f.buffer, f.count)), "2345"},
        {"setData", HELD(ECI_setContainerData(f.chan, "DATA", "replaced", 8)), SEEN(dataOf(f.chan, "DATA")), "replaced"},
        {"info", HELD(ECI_getContainerInfo(f.chan, "DATA", &f.info)), SEEN(std::to_string(f.info.dataLength)), "10"},
        {"first", HELD(ECI_getFirstContainer(f.chan, &f.info)), SEEN(f.info.name), "DATA"},
        {"next", HELD(ECI_getNextContainer(f.chan, &f.info)), SEEN(f.info.name), "DATA"},
        {"channelName", HELD(ECI_getChannelName(f.chan, f.buffer)), SEEN(f.buffer), "HELD"},
        {"deleteChannel", HELD(ECI_deleteChannel(&f.chan)), SEEN(f.chan == NULL && chanList == NULL ? "gone" : "kept"),
         "gone"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        HeldFixture f = {newChannel("HELD"), {}, {}, 0};
        Channel* held = f.chan;
        ASSERT_EQ(0, ECI_createContainer(f.chan, "DATA", ECI_BIT, 0, "0123456789", 10));
        std::thread([&f] { EXPECT_EQ(0, lockChannel(f.chan)); }).join();
        TraceCapture trace(4);
        std::future<int> result = std::async(std::launch::async, [&c, &f] { return c.call(f); });
        bool waited = pollUntil([&trace] { return trace.hasId(1463); }, 5);
        bool early = result.wait_for(std::chrono::milliseconds(50)) != std::future_status::timeout;
        EXPECT_EQ(0, unlockChannel(held));
        ASSERT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(5)));
        EXPECT_TRUE(waited) << "the call never waited for the channel";
        EXPECT_FALSE(early) << "the call returned while the channel was held";
        EXPECT_EQ(0, result.get());
        EXPECT_EQ(c.expected, c.effect(f));
        EXPECT_EQ("EVENT clapi_channel.lockChannel() Waiting for channel \"HELD\" (" + pointerText(held) + ")",
                  onlyRecord(trace, 1463));
        EXPECT_EQ("EVENT clapi_channel.lockChannel() Finished waiting for channel \"HELD\" (" + pointerText(held) + ")",
                  onlyRecord(trace, 1468));
        std::vector<int> ids;
        for (const TraceRecord& r : trace.records())
            if (r.tid == trace.find(1463).at(0).tid && (r.id == 1463 || r.id == 3121 || r.id == 1468 || r.id == 1470)) ids.push_back(r.id);
        EXPECT_EQ((std::vector<int>{1463, 3121, 1468, 1470}), ids);
        if (f.chan != NULL) {
            EXPECT_EQ(0, f.chan->isLocked);
            EXPECT_EQ(0, ECI_deleteChannel(&f.chan));
        }
    }
}

/* Every waiter is woken by one release and exactly one of them holds the channel at a time. */
TEST_F(Channels, WaitersTakeTheChannelOneAtATime)
{
    const int threads = 4, rounds = 50;
    Channel* chan = newChannel("SHARED");
    TraceCapture trace(2);
    ASSERT_EQ(0, lockChannel(chan));
    int counter = 0;   /* plain on purpose: only the channel lock keeps the increments apart */
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; i++) {
        waiters.emplace_back([&] {
            for (int round = 0; round < rounds; round++) {
                ASSERT_EQ(0, lockChannel(chan));
                EXPECT_EQ(1, __atomic_load_n(&chan->isLocked, __ATOMIC_RELAXED));
                int seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                EXPECT_EQ(0, unlockChannel(chan));
            }
        });
    }
    bool allWaiting = pollUntil([&trace] { return trace.find(1463).size() == (size_t)threads; }, 5);
    EXPECT_EQ(0, unlockChannel(chan));
    for (std::thread& t : waiters) t.join();
    EXPECT_TRUE(allWaiting) << trace.find(1463).size() << " of " << threads << " lockers waited";
    EXPECT_EQ(threads * rounds, counter);
    EXPECT_EQ(0, chan->isLocked);
}

/* ---------------------------------------------------------------- argument checks */

struct ArgFixture {
    Channel* chan;
    Channel* bogus;   /* a block the size of a channel whose lock was never initialised */
    Channel* none;
    ContainerInfo info;
    char buffer[17];
};

#define CALL(expr) [](ArgFixture& f) -> int { (void)f; return expr; }
#define RC(code) code, #code

/* The first failing check wins, is named by one exception record and again by the exit record; a failure after
   the channel was taken still releases it. "%p" stands for the bogus token. */
TEST_F(Channels, EveryArgumentCheckInOrder)
{
    const struct {
        int (*call)(ArgFixture& f);
        int rc;
        const char* rcName;
        const char* exit;   /* the function the exit record names */
        const char* exc;    /* NULL: no exception record */
    } cases[] = {
        {CALL(ECI_createChannel(NULL, NULL)), RC(ECI_ERR_NULLCHANNELPTR), "API.ECI_createChannel", "API.ECI_createChannel() tokPtr is NULL"},
        {CALL(ECI_createChannel("", &f.none)), RC(ECI_ERR_INVALID_NAME), "API.ECI_createChannel", "clapi_channel.validateName() name is zero length"},
        {CALL(ECI_deleteChannel(NULL)), RC(ECI_ERR_NULLCHANNELPTR), "API.ECI_deleteChannel", "API.ECI_deleteChannel() tokPtr is NULL"},
        {CALL(ECI_deleteChannel(&f.none)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_deleteChannel", "API.ECI_deleteChannel() *tokPtr is NULL"},
        {CALL(ECI_deleteChannel(&f.bogus)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_deleteChannel", "clapi_channel.lockChannel() chanTok (%p) is not a channel"},
        {CALL(ECI_getChannelName(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getChannelName", "API.ECI_getChannelName() chanTok is NULL"},
        {CALL(ECI_getChannelName(f.chan, NULL)), RC(ECI_ERR_NULLPTR), "API.ECI_getChannelName", "API.ECI_getChannelName() nameBuffer is NULL"},
        {CALL(ECI_getChannelName(f.bogus, f.buffer)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getChannelName", "clapi_channel.lockChannel() chanTok (%p) is not a channel"},
        {CALL(lockChannel(NULL)), RC(ECI_ERR_INVALID_CHANNEL), "clapi_channel.lockChannel", "clapi_channel.lockChannel() chanTok is NULL"},
        {CALL(unlockChannel(NULL)), RC(ECI_ERR_INVALID_CHANNEL), "clapi_channel.unlockChannel", "clapi_channel.unlockChannel() chanTok is NULL"},
        {CALL(unlockChannel(f.bogus)), RC(ECI_ERR_INVALID_CHANNEL), "clapi_channel.unlockChannel", "clapi_channel.unlockChannel() chanTok (%p) is not a channel"},
        {CALL(ECI_createContainer(NULL, NULL, 0, 0, NULL, 5)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_createContainer", "API.ECI_createContainer() chanTok is NULL"},
        {CALL(ECI_createContainer(f.chan, NULL, 0, 0, NULL, 5)), RC(ECI_ERR_INVALID_TYPE), "API.ECI_createContainer", "API.ECI_createContainer() type is invalid (0)"},
        {CALL(ECI_createContainer(f.chan, NULL, 3, 0, NULL, 5)), RC(ECI_ERR_INVALID_TYPE), "API.ECI_createContainer", "API.ECI_createContainer() type is invalid (3)"},
        {CALL(ECI_createContainer(f.chan, NULL, ECI_CHAR, 0, NULL, 5)), RC(ECI_ERR_INVALID_DATA_LENGTH), "API.ECI_createContainer", NULL},
        {CALL(ECI_createContainer(f.chan, NULL, ECI_BIT, 0, NULL, 0)), RC(ECI_ERR_INVALID_NAME), "API.ECI_createContainer", "clapi_channel.validateName() name is NULL"},
        {CALL(ECI_createContainer(f.bogus, "X", ECI_BIT, 0, NULL, 0)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_createContainer", "clapi_channel.lockChannel() chanTok (%p) is not a channel"},
        {CALL(ECI_deleteContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_deleteContainer", "API.ECI_deleteContainer() chanTok is NULL"},
        {CALL(ECI_deleteContainer(f.chan, "")), RC(ECI_ERR_INVALID_NAME), "API.ECI_deleteContainer", "clapi_channel.validateName() name is zero length"},
        {CALL(ECI_deleteContainer(f.chan, "NOPE")), RC(ECI_ERR_CONTAINER_NOTFOUND), "API.ECI_deleteContainer", "API.ECI_deleteContainer() Container \"NOPE\" does not exist in channel \"CHAN\""},
        {CALL(ECI_getContainerData(NULL, NULL, NULL, 0, 0, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getContainerData", "API.ECI_getContainerData() chanTok is NULL"},
        {CALL(ECI_getContainerData(f.chan, NULL, NULL, 0, 0, NULL)), RC(ECI_ERR_NULLPTR), "API.ECI_getContainerData", "API.ECI_getContainerData() buffer is NULL"},
        {CALL(ECI_getContainerData(f.chan, "A B", f.buffer, 8, 0, NULL)), RC(ECI_ERR_INVALID_NAME), "API.ECI_getContainerData", "clapi_channel.validateName() name contains invalid character ' '"},
        {CALL(ECI_getContainerData(f.chan, "NOPE", f.buffer, 8, 0, NULL)), RC(ECI_ERR_CONTAINER_NOTFOUND), "API.ECI_getContainerData", "API.ECI_getContainerData() Container \"NOPE\" does not exist in channel \"CHAN\""},
        {CALL(ECI_setContainerData(NULL, NULL, NULL, 5)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_setContainerData", "API.ECI_setContainerData() chanTok is NULL"},
        {CALL(ECI_setContainerData(f.chan, NULL, NULL, 5)), RC(ECI_ERR_INVALID_DATA_LENGTH), "API.ECI_setContainerData", "API.ECI_setContainerData() data is NULL when dataLength is 5"},
        {CALL(ECI_setContainerData(f.chan, NULL, NULL, 0)), RC(ECI_ERR_INVALID_NAME), "API.ECI_setContainerData", "clapi_channel.validateName() name is NULL"},
        {CALL(ECI_setContainerData(f.chan, "NOPE", NULL, 0)), RC(ECI_ERR_CONTAINER_NOTFOUND), "API.ECI_setContainerData", "API.ECI_setContainerData() Container \"NOPE\" does not exist in channel \"CHAN\""},
        {CALL(ECI_getContainerInfo(NULL, NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getContainerInfo", "API.ECI_getContainerInfo() chanTok is NULL"},
        {CALL(ECI_getContainerInfo(f.chan, NULL, NULL)), RC(ECI_ERR_NULLINFOPTR), "API.ECI_getContainerInfo", "API.ECI_getContainerInfo() infoPtr is NULL"},
        {CALL(ECI_getContainerInfo(f.chan, "SEVENTEEN_CHARS_X", &f.info)), RC(ECI_ERR_INVALID_NAME), "API.ECI_getContainerInfo", "clapi_channel.validateName() name length exceeds 16"},
        {CALL(ECI_getContainerInfo(f.chan, "NOPE", &f.info)), RC(ECI_ERR_CONTAINER_NOTFOUND), "API.ECI_getContainerInfo", "API.ECI_getContainerInfo() Container \"NOPE\" does not exist in channel \"CHAN\""},
        {CALL(ECI_getFirstContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getFirstContainer", "API.ECI_getFirstContainer() chanTok is NULL"},
        {CALL(ECI_getFirstContainer(f.chan, NULL)), RC(ECI_ERR_NULLINFOPTR), "API.ECI_getFirstContainer", "API.ECI_getFirstContainer() infoPtr is NULL"},
        {CALL(ECI_getFirstContainer(f.bogus, &f.info)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getFirstContainer", "clapi_channel.lockChannel() chanTok (%p) is not a channel"},
        {CALL(ECI_getNextContainer(NULL, NULL)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getNextContainer", "API.ECI_getNextContainer() chanTok is NULL"},
        {CALL(ECI_getNextContainer(f.chan, NULL)), RC(ECI_ERR_NULLINFOPTR), "API.ECI_getNextContainer", "API.ECI_getNextContainer() infoPtr is NULL"},
        {CALL(ECI_getNextContainer(f.bogus, &f.info)), RC(ECI_ERR_INVALID_CHANNEL), "API.ECI_getNextContainer", "clapi_channel.lockChannel() chanTok (%p) is not a channel"},
    };
    alignas(8) unsigned char notAChannel[sizeof(Channel)] = {};
    ArgFixture f = {};
    f.chan = newChannel("CHAN");
    TraceCapture trace(3);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.exc == NULL ? c.rcName : c.exc);
        f.bogus = reinterpret_cast<Channel*>(notAChannel);
        f.none = NULL;
        memset(f.buffer, 0, sizeof f.buffer);
        trace.clear();
        EXPECT_EQ(c.rc, c.call(f));
        std::vector<TraceRecord> records = trace.records();
        std::vector<std::string> exceptions, expected;
        for (const TraceRecord& r : records)
            if (r.type == "*EXC*" && r.id != 3104 && r.id != 3108) exceptions.push_back(r.message);
        char text[200];
        if (c.exc != NULL) expected.push_back((snprintf(text, sizeof text, c.exc, (void*)notAChannel), text));
        EXPECT_EQ(expected, exceptions);
        ASSERT_FALSE(records.empty());
        EXPECT_EQ("EXIT " + std::string(c.exit) + "() rc=" + std::to_string(c.rc) + " (" + c.rcName + ")",
                  records.back().type + " " + records.back().message);
        EXPECT_EQ(0, f.chan->isLocked);
    }
}

}  // namespace
