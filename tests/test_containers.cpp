/* Containers: creation and its CCSID rules, reading and replacing data, browsing, deleting, and the checks. */
#include "library_support.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <future>

namespace {

using Containers = ChannelTest;

ContainerInfo infoOf(Channel* chan, const char* name)
{
    ContainerInfo info;
    memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(ECI_getContainerInfo(chan, name, &info), 0) << name;
    return info;
}

/* The packed block's numbers, copied out so that they can be compared by reference. */
struct InfoFields {
    int32_t  type;
    int32_t  ccsid;
    uint32_t dataLength;
};

InfoFields fieldsOf(Channel* chan, const char* name)
{
    ContainerInfo info = infoOf(chan, name);
    return InfoFields{info.type, info.ccsid, info.dataLength};
}

std::string nameOf(const ContainerInfo& info)
{
    return std::string(info.name, strnlen(info.name, sizeof info.name));
}

TEST_F(Containers, BrowsingIsNewestFirstAndWraps)
{
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(ECI_createContainer(chan, "A", ECI_BIT, 0, NULL, 0), 0);
    ASSERT_EQ(ECI_createContainer(chan, "B", ECI_BIT, 0, NULL, 0), 0);
    TraceCapture trace(4);
    ContainerInfo info;
    ASSERT_EQ(ECI_getFirstContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "B");
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "A");
    EXPECT_EQ(ECI_getNextContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "B");
    EXPECT_EQ(onlyRecord(trace, 1374), "DEBUG API.ECI_getFirstContainer() Current container is \"B\"");
    EXPECT_EQ(onlyRecord(trace, 1380), "DEBUG API.ECI_getNextContainer() No more containers in channel \"CHAN\"");
    EXPECT_EQ(onlyRecord(trace, 1381),
              "DEBUG API.ECI_getNextContainer() Current container is NULL, retrieving first container");
    std::vector<std::string> current = {"DEBUG API.ECI_getNextContainer() Current container is \"A\"",
                                        "DEBUG API.ECI_getNextContainer() Current container is \"B\""};
    EXPECT_EQ(recordTexts(trace, 1383), current);
    std::vector<std::string> exits = {"EXIT API.ECI_getNextContainer() rc=0 (ECI_NO_ERROR)",
                                      "EXIT API.ECI_getNextContainer() rc=-54 (ECI_ERR_ENDOFCONTAINERS)",
                                      "EXIT API.ECI_getNextContainer() rc=0 (ECI_NO_ERROR)"};
    EXPECT_EQ(recordTexts(trace, 1385), exits);
}

TEST_F(Containers, InfoIsZeroedThenFilledWithoutMovingTheCursor)
{
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(ECI_createContainer(chan, "SIXTEENCHARSNAME", ECI_CHAR, 1208, "hello", 5), 0);
    ASSERT_EQ(ECI_createContainer(chan, "OTHER", ECI_BIT, 0, NULL, 0), 0);
    ContainerInfo info;
    ASSERT_EQ(ECI_getFirstContainer(chan, &info), 0);   /* OTHER */
    info = infoOf(chan, "SIXTEENCHARSNAME");
    EXPECT_EQ(memcmp(info.name, "SIXTEENCHARSNAME", 17), 0);   /* the 17th byte is the NUL */
    InfoFields fields = fieldsOf(chan, "SIXTEENCHARSNAME");
    EXPECT_EQ(fields.type, ECI_CHAR);
    EXPECT_EQ(fields.ccsid, 1208);
    EXPECT_EQ(fields.dataLength, 5u);
    info = infoOf(chan, "OTHER");
    for (size_t i = 5; i < sizeof info.name; i++) EXPECT_EQ(info.name[i], '\0') << i;
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "SIXTEENCHARSNAME");
}

struct CcsidCase {
    const char* label;
    const char* lang;
    int         first;           /* explicit CCSID of the first character container, 0 for none */
    int         second;          /* and of the second */
    int         firstExpected;
    int         secondExpected;
    int         channelExpected;
    int         channelRecordId;
    const char* channelRecord;
};

const CcsidCase ccsidCases[] = {
    {"localeFirst", "ja_JP.eucJP", 0, 1208, 5050, 1208, 5050, 1330,
     "EVENT API.ECI_createContainer() Channel CCSID set to 5050 from locale"},
    {"containerFirst", "ja_JP", 1208, 0, 1208, 1208, 1208, 1331,
     "EVENT API.ECI_createContainer() Channel CCSID set to 1208 from Container"},
    {"bothExplicit", "ja_JP", 37, 500, 37, 500, 37, 1331,
     "EVENT API.ECI_createContainer() Channel CCSID set to 37 from Container"},
    {"bothFromLocale", "zh_TW.big5", 0, 0, 950, 950, 950, 1330,
     "EVENT API.ECI_createContainer() Channel CCSID set to 950 from locale"},
};

/* The first character container fixes the channel's CCSID; later ones keep an explicit CCSID of their own. */
TEST_F(Containers, FirstCharacterContainerFixesTheChannelsCcsid)
{
    for (const CcsidCase& c : ccsidCases) {
        SCOPED_TRACE(c.label);
        setenv("LANG", c.lang, 1);
        Channel* chan = newChannel("CHAN");
        TraceCapture trace(2);
        ASSERT_EQ(ECI_createContainer(chan, "ONE", ECI_CHAR, c.first, "1", 1), 0);
        ASSERT_EQ(ECI_createContainer(chan, "TWO", ECI_CHAR, c.second, "2", 1), 0);
        EXPECT_EQ(fieldsOf(chan, "ONE").ccsid, c.firstExpected);
        EXPECT_EQ(fieldsOf(chan, "TWO").ccsid, c.secondExpected);
        EXPECT_EQ(chan->ccsid, c.channelExpected);
        EXPECT_EQ(onlyRecord(trace, c.channelRecordId), c.channelRecord);
        EXPECT_EQ(recordTexts(trace, c.channelRecordId == 1330 ? 1331 : 1330).size(), 0u);
        std::vector<std::string> chosen = {
            "EVENT API.ECI_createContainer() Container CCSID set to " + std::to_string(c.firstExpected),
            "EVENT API.ECI_createContainer() Container CCSID set to " + std::to_string(c.secondExpected)};
        EXPECT_EQ(recordTexts(trace, 1332), chosen);
        EXPECT_EQ(ECI_deleteChannel(&chan), 0);
    }
}

struct ReadCase {
    const char*   label;
    unsigned long length;
    unsigned long offset;
    unsigned long count;
};

const ReadCase readCases[] = {
    {"whole", 50, 0, 50},        {"pastTheEnd", 100, 10, 40},   {"inside", 10, 5, 10},
    {"offsetAtEnd", 10, 50, 0},  {"offsetBeyond", 10, 60, 0},   {"zeroLength", 0, 0, 0},
    {"hugeLength", ULONG_MAX, 45, 5}, {"hugeOffset", 10, ULONG_MAX, 0},
};

/* A read copies what lies between offset and the end, at most length bytes, and leaves the rest of the buffer. */
TEST_F(Containers, ReadsHonourOffsetAndLength)
{
    Channel* chan = newChannel("CHAN");
    unsigned char data[50];
    for (int i = 0; i < 50; i++) data[i] = (unsigned char)(i + 1);
    ASSERT_EQ(ECI_createContainer(chan, "DATA", ECI_BIT, 0, data, sizeof data), 0);
    for (const ReadCase& c : readCases) {
        SCOPED_TRACE(c.label);
        unsigned char buffer[128];
        memset(buffer, 0xEE, sizeof buffer);
        unsigned long count = 777;
        EXPECT_EQ(ECI_getContainerData(chan, "DATA", buffer, c.length, c.offset, &count), 0);
        EXPECT_EQ(count, c.count);
        for (unsigned long i = 0; i < c.count; i++) EXPECT_EQ(buffer[i], data[c.offset + i]) << i;
        for (unsigned long i = c.count; i < sizeof buffer; i++) ASSERT_EQ(buffer[i], 0xEE) << i;
    }
    unsigned char buffer[8];
    EXPECT_EQ(ECI_getContainerData(chan, "DATA", buffer, sizeof buffer, 0, NULL), 0);   /* no count wanted */
    EXPECT_EQ(buffer[7], 8);
}

TEST_F(Containers, SetDataReplacesEmptiesAndKeepsTypeAndCcsid)
{
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(ECI_createContainer(chan, "TEXT", ECI_CHAR, 1208, "12345", 5), 0);
    std::string oldBlock = pointerText(chan->firstCont->dataPtr);
    TraceCapture trace(4);
    char buffer[16] = {};
    unsigned long count = 0;

    ASSERT_EQ(ECI_setContainerData(chan, "TEXT", "abcde", 5), 0);   /* same length */
    ASSERT_EQ(ECI_getContainerData(chan, "TEXT", buffer, sizeof buffer, 0, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "abcde");

    ASSERT_EQ(ECI_setContainerData(chan, "TEXT", "longer data", 11), 0);
    ASSERT_EQ(ECI_getContainerData(chan, "TEXT", buffer, sizeof buffer, 0, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "longer data");
    EXPECT_EQ(recordTexts(trace, 1359).front(),
              "DEBUG API.ECI_setContainerData() Freeing 5 bytes of container data (" + oldBlock + ")");
    std::string newBlock = pointerText(chan->firstCont->dataPtr);

    ASSERT_EQ(ECI_setContainerData(chan, "TEXT", NULL, 0), 0);
    InfoFields fields = fieldsOf(chan, "TEXT");
    EXPECT_EQ(fields.dataLength, 0u);
    EXPECT_EQ(fields.type, ECI_CHAR);
    EXPECT_EQ(fields.ccsid, 1208);
    EXPECT_EQ(chan->firstCont->dataPtr, nullptr);
    ASSERT_EQ(ECI_getContainerData(chan, "TEXT", buffer, sizeof buffer, 0, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(recordTexts(trace, 1359).back(),
              "DEBUG API.ECI_setContainerData() Freeing 11 bytes of container data (" + newBlock + ")");
    EXPECT_EQ(recordTexts(trace, 1359).size(), 2u);
    EXPECT_EQ(recordTexts(trace, 1363).back(), "EXIT API.ECI_setContainerData() rc=0 (ECI_NO_ERROR)");
}

TEST_F(Containers, DuplicateNameIsRefused)
{
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(ECI_createContainer(chan, "ABCDEFGHIJKLMNOP", ECI_BIT, 0, NULL, 0), 0);
    TraceCapture trace(1);
    EXPECT_EQ(ECI_createContainer(chan, "ABCDEFGHIJKLMNOP", ECI_CHAR, 0, "x", 1), ECI_ERR_CONTAINER_EXISTS);
    EXPECT_EQ(onlyRecord(trace, 1328), "*EXC* API.ECI_createContainer() Container \"ABCDEFGHIJKLMNOP\" already exists in "
                                "channel \"CHAN\"");
    EXPECT_EQ(ECI_createContainer(chan, "ABCDEFGHIJKLMNO", ECI_BIT, 0, NULL, 0), 0);   /* a prefix is another name */
    EXPECT_EQ(chan->numContainers, 2);
    EXPECT_EQ(chan->ccsid, CCSID_UNSET);   /* the refused container set nothing */
    EXPECT_EQ(chan->isLocked, 0);
}

/* Deleting the cursor's container moves the cursor back, so browsing goes on with the container after it. */
TEST_F(Containers, DeletingTheCurrentContainerMovesTheCursorBack)
{
    Channel* chan = newChannel("CHAN");
    for (const char* name : {"A", "B", "C", "D"}) ASSERT_EQ(ECI_createContainer(chan, name, ECI_BIT, 0, "x", 1), 0);
    TraceCapture trace(4);
    ContainerInfo info;
    ASSERT_EQ(ECI_getFirstContainer(chan, &info), 0);   /* D */
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);    /* C */
    ASSERT_EQ(ECI_deleteContainer(chan, "C"), 0);
    EXPECT_EQ(onlyRecord(trace, 1341), "DEBUG API.ECI_deleteContainer() Current container is now \"D\"");
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "B");

    ASSERT_EQ(ECI_getFirstContainer(chan, &info), 0);   /* D, the first */
    ASSERT_EQ(ECI_deleteContainer(chan, "D"), 0);
    EXPECT_EQ(onlyRecord(trace, 1342), "DEBUG API.ECI_deleteContainer() Current container is now NULL");
    ASSERT_EQ(ECI_getNextContainer(chan, &info), 0);
    EXPECT_EQ(nameOf(info), "B");

    ASSERT_EQ(ECI_deleteContainer(chan, "A"), 0);   /* not the cursor's: the cursor stays */
    EXPECT_EQ(recordTexts(trace, 1341).size(), 1u);
    EXPECT_EQ(ECI_getNextContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
    EXPECT_EQ(chan->numContainers, 1);
    EXPECT_EQ(recordTexts(trace, 1344).size(), 3u);
    EXPECT_EQ(recordTexts(trace, 1343).size(), 3u);
}

/* A length that cannot be allocated is a return code, never a crash. Only on i386 is such a length within the
   32 bits that a container may carry; on x86-64 every unallocatable length is longer and refused before. */
const unsigned long hugeLength = ULONG_MAX - 0xFF;

TEST_F(Containers, UnallocatableLengthIsAMemoryShortage)
{
    if (sizeof(unsigned long) > 4) GTEST_SKIP() << "every unallocatable length is refused as too long here";
    Channel* chan = newChannel("CHAN");
    char small[16] = {};
    TraceCapture trace(1);
    EXPECT_EQ(ECI_createContainer(chan, "BIG", ECI_BIT, 0, small, hugeLength), ECI_ERR_MEMORY_SHORTAGE);
    EXPECT_EQ(onlyRecord(trace, 1333), "*EXC* API.ECI_createContainer() Failed to allocate " + std::to_string(hugeLength) +
                                    " bytes for container data");
    EXPECT_EQ(chan->firstCont, nullptr);
    EXPECT_EQ(chan->numContainers, 0);

    ASSERT_EQ(ECI_createContainer(chan, "SMALL", ECI_BIT, 0, "12345", 5), 0);
    EXPECT_EQ(ECI_setContainerData(chan, "SMALL", small, hugeLength), ECI_ERR_MEMORY_SHORTAGE);
    EXPECT_EQ(onlyRecord(trace, 1361), "*EXC* API.ECI_setContainerData() Failed to allocate " + std::to_string(hugeLength) +
                                    " bytes for container data");
    EXPECT_EQ(fieldsOf(chan, "SMALL").dataLength, 0u);   /* left with no data */
    EXPECT_EQ(chan->firstCont->dataPtr, nullptr);
    EXPECT_EQ(chan->isLocked, 0);
}

/* Lengths beyond 32 bits cannot go on the wire: refused before the channel is taken, the container untouched. */
TEST_F(Containers, LengthBeyondThirtyTwoBitsIsRefused)
{
    if (sizeof(unsigned long) <= 4) GTEST_SKIP() << "an unsigned long cannot exceed 32 bits here";
    Channel* chan = newChannel("CHAN");
    ASSERT_EQ(ECI_createContainer(chan, "SMALL", ECI_BIT, 0, "12345", 5), 0);
    char small[16] = {};
    const unsigned long over = 0xFFFFFFFFUL + 1;
    for (unsigned long length : {over, hugeLength}) {
        SCOPED_TRACE(length);
        TraceCapture trace(4);
        EXPECT_EQ(ECI_createContainer(chan, "BIG", ECI_BIT, 0, small, length), ECI_ERR_INVALID_DATA_LENGTH);
        EXPECT_EQ(ECI_setContainerData(chan, "SMALL", small, length), ECI_ERR_INVALID_DATA_LENGTH);
        std::vector<std::string> exceptions;
        for (const TraceRecord& r : trace.records())
            if (r.type == "*EXC*") exceptions.push_back(std::to_string(r.id) + " " + r.message);
        std::vector<std::string> expected = {
            "1386 API.ECI_createContainer() dataLength " + std::to_string(length) +
                " exceeds the largest container length 4294967295",
            "1387 API.ECI_setContainerData() dataLength " + std::to_string(length) +
                " exceeds the largest container length 4294967295"};
        EXPECT_EQ(exceptions, expected);
        EXPECT_EQ(recordTexts(trace, 1337), std::vector<std::string>{
                                                "EXIT API.ECI_createContainer() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"});
        EXPECT_EQ(recordTexts(trace, 1363), std::vector<std::string>{
                                                "EXIT API.ECI_setContainerData() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"});
        EXPECT_FALSE(trace.hasId(1460)) << "the channel was taken";
    }
    EXPECT_EQ(chan->numContainers, 1);
    char buffer[8] = {};
    unsigned long count = 0;
    ASSERT_EQ(ECI_getContainerData(chan, "SMALL", buffer, sizeof buffer, 0, &count), 0);
    EXPECT_EQ(std::string(buffer, count), "12345");
}

/* ---------------------------------------------------------------- waiting for the channel */

struct HeldFixture {
    Channel*      chan;
    ContainerInfo info;
    char          buffer[17];
    unsigned long count;
};

struct HeldCase {
    const char* label;
    int (*call)(HeldFixture& f);
    std::string (*effect)(HeldFixture& f);   /* what the call did, read after it returned */
    const char* expected;
};

#define HELD(expr) [](HeldFixture& f) -> int { return expr; }
#define SEEN(expr) [](HeldFixture& f) -> std::string { return expr; }

std::string dataOf(Channel* chan, const char* name)
{
    char buffer[32];
    unsigned long count = 0;
    int rc = ECI_getContainerData(chan, name, buffer, sizeof buffer, 0, &count);
    return rc == 0 ? std::string(buffer, count) : "rc=" + std::to_string(rc);
}

const HeldCase heldCases[] = {
    {"create", HELD(ECI_createContainer(f.chan, "NEW", ECI_BIT, 0, "new", 3)), SEEN(dataOf(f.chan, "NEW")), "new"},
    {"delete", HELD(ECI_deleteContainer(f.chan, "DATA")), SEEN(dataOf(f.chan, "DATA")), "rc=-58"},
    {"getData", HELD(ECI_getContainerData(f.chan, "DATA", f.buffer, 4, 2, &f.count)),
     SEEN(std::string(f.buffer, f.count)), "2345"},
    {"setData", HELD(ECI_setContainerData(f.chan, "DATA", "replaced", 8)), SEEN(dataOf(f.chan, "DATA")), "replaced"},
    {"info", HELD(ECI_getContainerInfo(f.chan, "DATA", &f.info)), SEEN(std::to_string(f.info.dataLength)), "10"},
    {"first", HELD(ECI_getFirstContainer(f.chan, &f.info)), SEEN(f.info.name), "DATA"},
    {"next", HELD(ECI_getNextContainer(f.chan, &f.info)), SEEN(f.info.name), "DATA"},
    {"channelName", HELD(ECI_getChannelName(f.chan, f.buffer)), SEEN(f.buffer), "HELD"},
};

/* Every call on a channel that another thread holds waits for the release, then does its work. */
TEST_F(Containers, CallsWaitWhileAnotherThreadHoldsTheChannel)
{
    for (const HeldCase& c : heldCases) {
        SCOPED_TRACE(c.label);
        HeldFixture f = {};
        f.chan = newChannel("HELD");
        ASSERT_EQ(ECI_createContainer(f.chan, "DATA", ECI_BIT, 0, "0123456789", 10), 0);
        std::thread([&f] { EXPECT_EQ(lockChannel(f.chan), 0); }).join();
        TraceCapture trace(2);
        std::atomic<bool> returned{false};
        std::future<int> result = std::async(std::launch::async, [&c, &f, &returned] {
            int rc = c.call(f);
            returned = true;
            return rc;
        });
        bool waited = pollUntil([&trace] { return trace.hasId(1463); }, 5);
        bool early = result.wait_for(std::chrono::milliseconds(50)) != std::future_status::timeout;
        EXPECT_EQ(unlockChannel(f.chan), 0);
        ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_TRUE(waited) << "the call never waited for the channel";
        EXPECT_FALSE(early) << "the call returned while the channel was held";
        EXPECT_EQ(result.get(), 0);
        EXPECT_TRUE(returned);
        EXPECT_EQ(c.effect(f), c.expected);
        EXPECT_EQ(onlyRecord(trace, 1468),
                  "EVENT clapi_channel.lockChannel() Finished waiting for channel \"HELD\" (" + pointerText(f.chan) + ")");
        EXPECT_EQ(f.chan->isLocked, 0);
        EXPECT_EQ(ECI_deleteChannel(&f.chan), 0);
    }
}

/* ---------------------------------------------------------------- argument checks */

struct NotAChannel {
    alignas(8) unsigned char bytes[sizeof(Channel)] = {};
};

struct Fixture {
    Channel*      chan;
    Channel*      bogus;
    ContainerInfo info;
    char          buffer[8];
};

struct ArgCase {
    const char* label;
    int (*call)(Fixture& f);
    int         rc;
    const char* excText;   /* NULL: no exception record */
    const char* exitText;
};

#define CALL(expr) [](Fixture& f) -> int { (void)f; return expr; }

const ArgCase argCases[] = {
    {"createNullChannelFirst", CALL(ECI_createContainer(NULL, NULL, 0, 0, NULL, 5)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_createContainer() chanTok is NULL", "API.ECI_createContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"createTypeZero", CALL(ECI_createContainer(f.chan, NULL, 0, 0, NULL, 5)), ECI_ERR_INVALID_TYPE,
     "API.ECI_createContainer() type is invalid (0)", "API.ECI_createContainer() rc=-56 (ECI_ERR_INVALID_TYPE)"},
    {"createTypeThree", CALL(ECI_createContainer(f.chan, NULL, 3, 0, NULL, 5)), ECI_ERR_INVALID_TYPE,
     "API.ECI_createContainer() type is invalid (3)", "API.ECI_createContainer() rc=-56 (ECI_ERR_INVALID_TYPE)"},
    {"createNullData", CALL(ECI_createContainer(f.chan, NULL, ECI_CHAR, 0, NULL, 5)), ECI_ERR_INVALID_DATA_LENGTH,
     NULL, "API.ECI_createContainer() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"},
    {"createBadName", CALL(ECI_createContainer(f.chan, NULL, ECI_BIT, 0, NULL, 0)), ECI_ERR_INVALID_NAME,
     "clapi_channel.validateName() name is NULL", "API.ECI_createContainer() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"createNotAChannel", CALL(ECI_createContainer(f.bogus, "X", ECI_BIT, 0, NULL, 0)), ECI_ERR_INVALID_CHANNEL,
     "clapi_channel.lockChannel() chanTok (%p) is not a channel",
     "API.ECI_createContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"deleteNullChannelFirst", CALL(ECI_deleteContainer(NULL, NULL)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_deleteContainer() chanTok is NULL", "API.ECI_deleteContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"deleteBadName", CALL(ECI_deleteContainer(f.chan, "")), ECI_ERR_INVALID_NAME,
     "clapi_channel.validateName() name is zero length", "API.ECI_deleteContainer() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"deleteNotFound", CALL(ECI_deleteContainer(f.chan, "NOPE")), ECI_ERR_CONTAINER_NOTFOUND,
     "API.ECI_deleteContainer() Container \"NOPE\" does not exist in channel \"CHAN\"",
     "API.ECI_deleteContainer() rc=-58 (ECI_ERR_CONTAINER_NOTFOUND)"},
    {"getNullChannelFirst", CALL(ECI_getContainerData(NULL, NULL, NULL, 0, 0, NULL)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_getContainerData() chanTok is NULL", "API.ECI_getContainerData() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"getNullBuffer", CALL(ECI_getContainerData(f.chan, NULL, NULL, 0, 0, NULL)), ECI_ERR_NULLPTR,
     "API.ECI_getContainerData() buffer is NULL", "API.ECI_getContainerData() rc=-109 (ECI_ERR_NULLPTR)"},
    {"getBadName", CALL(ECI_getContainerData(f.chan, "A B", f.buffer, 8, 0, NULL)), ECI_ERR_INVALID_NAME,
     "clapi_channel.validateName() name contains invalid character ' '",
     "API.ECI_getContainerData() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"getNotFound", CALL(ECI_getContainerData(f.chan, "NOPE", f.buffer, 8, 0, NULL)), ECI_ERR_CONTAINER_NOTFOUND,
     "API.ECI_getContainerData() Container \"NOPE\" does not exist in channel \"CHAN\"",
     "API.ECI_getContainerData() rc=-58 (ECI_ERR_CONTAINER_NOTFOUND)"},
    {"setNullChannelFirst", CALL(ECI_setContainerData(NULL, NULL, NULL, 5)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_setContainerData() chanTok is NULL", "API.ECI_setContainerData() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"setNullData", CALL(ECI_setContainerData(f.chan, NULL, NULL, 5)), ECI_ERR_INVALID_DATA_LENGTH,
     "API.ECI_setContainerData() data is NULL when dataLength is 5",
     "API.ECI_setContainerData() rc=-1 (ECI_ERR_INVALID_DATA_LENGTH)"},
    {"setBadName", CALL(ECI_setContainerData(f.chan, NULL, NULL, 0)), ECI_ERR_INVALID_NAME,
     "clapi_channel.validateName() name is NULL", "API.ECI_setContainerData() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"setNotFound", CALL(ECI_setContainerData(f.chan, "NOPE", NULL, 0)), ECI_ERR_CONTAINER_NOTFOUND,
     "API.ECI_setContainerData() Container \"NOPE\" does not exist in channel \"CHAN\"",
     "API.ECI_setContainerData() rc=-58 (ECI_ERR_CONTAINER_NOTFOUND)"},
    {"infoNullChannelFirst", CALL(ECI_getContainerInfo(NULL, NULL, NULL)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_getContainerInfo() chanTok is NULL", "API.ECI_getContainerInfo() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"infoNullInfo", CALL(ECI_getContainerInfo(f.chan, NULL, NULL)), ECI_ERR_NULLINFOPTR,
     "API.ECI_getContainerInfo() infoPtr is NULL", "API.ECI_getContainerInfo() rc=-55 (ECI_ERR_NULLINFOPTR)"},
    {"infoBadName", CALL(ECI_getContainerInfo(f.chan, "SEVENTEEN_CHARS_X", &f.info)), ECI_ERR_INVALID_NAME,
     "clapi_channel.validateName() name length exceeds 16", "API.ECI_getContainerInfo() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"infoNotFound", CALL(ECI_getContainerInfo(f.chan, "NOPE", &f.info)), ECI_ERR_CONTAINER_NOTFOUND,
     "API.ECI_getContainerInfo() Container \"NOPE\" does not exist in channel \"CHAN\"",
     "API.ECI_getContainerInfo() rc=-58 (ECI_ERR_CONTAINER_NOTFOUND)"},
    {"firstNullChannelFirst", CALL(ECI_getFirstContainer(NULL, NULL)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_getFirstContainer() chanTok is NULL", "API.ECI_getFirstContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"firstNullInfo", CALL(ECI_getFirstContainer(f.chan, NULL)), ECI_ERR_NULLINFOPTR,
     "API.ECI_getFirstContainer() infoPtr is NULL", "API.ECI_getFirstContainer() rc=-55 (ECI_ERR_NULLINFOPTR)"},
    {"firstNotAChannel", CALL(ECI_getFirstContainer(f.bogus, &f.info)), ECI_ERR_INVALID_CHANNEL,
     "clapi_channel.lockChannel() chanTok (%p) is not a channel",
     "API.ECI_getFirstContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"nextNullChannelFirst", CALL(ECI_getNextContainer(NULL, NULL)), ECI_ERR_INVALID_CHANNEL,
     "API.ECI_getNextContainer() chanTok is NULL", "API.ECI_getNextContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"nextNullInfo", CALL(ECI_getNextContainer(f.chan, NULL)), ECI_ERR_NULLINFOPTR,
     "API.ECI_getNextContainer() infoPtr is NULL", "API.ECI_getNextContainer() rc=-55 (ECI_ERR_NULLINFOPTR)"},
    {"nextNotAChannel", CALL(ECI_getNextContainer(f.bogus, &f.info)), ECI_ERR_INVALID_CHANNEL,
     "clapi_channel.lockChannel() chanTok (%p) is not a channel",
     "API.ECI_getNextContainer() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
};

/* Ids the container calls use for the records the text does not number, in the order of each call. */
const std::vector<int> exitIds = {1337, 1346, 1354, 1363, 1369, 1376, 1385};

/* The first failing check wins, is named by one exception record and named again in the exit record;
   a failure after the channel was taken still releases it. */
TEST_F(Containers, EveryArgumentCheckInOrder)
{
    NotAChannel notAChannel;
    Fixture f;
    f.chan = newChannel("CHAN");
    f.bogus = reinterpret_cast<Channel*>(notAChannel.bytes);
    TraceCapture trace(3);
    for (const ArgCase& c : argCases) {
        SCOPED_TRACE(c.label);
        trace.clear();
        EXPECT_EQ(c.call(f), c.rc);
        std::vector<TraceRecord> records = trace.records();
        trace.clear();
        std::vector<std::string> exceptions;
        for (const TraceRecord& r : records)
            if (r.type == "*EXC*" && r.id != 3104) exceptions.push_back(r.message);
        std::vector<std::string> expected;
        if (c.excText != NULL) {
            char text[200];
            snprintf(text, sizeof text, c.excText, (void*)f.bogus);
            expected.push_back(text);
        }
        EXPECT_EQ(exceptions, expected);
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(records.back().type, "EXIT");
        EXPECT_EQ(records.back().message, c.exitText);
        EXPECT_NE(std::find(exitIds.begin(), exitIds.end(), records.back().id), exitIds.end()) << records.back().id;
        EXPECT_EQ(f.chan->isLocked, 0);
    }
}

}  // namespace

TEST_F(Containers, EmptyChannelHasNoFirstAndNoNext)
{
    Channel* chan = newChannel("NONE");
    TraceCapture trace(4);
    ContainerInfo info;
    EXPECT_EQ(ECI_getFirstContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
    EXPECT_EQ(ECI_getNextContainer(chan, &info), ECI_ERR_ENDOFCONTAINERS);
    EXPECT_EQ(onlyRecord(trace, 1373), "DEBUG API.ECI_getFirstContainer() Channel \"NONE\" has no containers");
    EXPECT_EQ(onlyRecord(trace, 1382), "DEBUG API.ECI_getNextContainer() Channel \"NONE\" has no containers");
    EXPECT_EQ(chan->isLocked, 0);   /* released after the failure */
}
