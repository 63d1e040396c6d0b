/* Channels: creation, names, the channel list and its dump, deletion and the channel lock. */
#include "library_support.h"

#include <stdarg.h>
#include <string.h>

#include <atomic>
#include <future>

namespace {

const std::string rule(80, '-');

using Channels = ChannelTest;

TEST_F(Channels, SixteenCharacterNameIsStoredWholeAndReturnedTerminated)
{
    Channel* chan = newChannel("ABCDEFGHIJKLMNOP");
    ASSERT_NE(chan, nullptr);
    EXPECT_EQ(memcmp(chan->eyecatcher, "ZEPCHANN", 8), 0);
    EXPECT_EQ(memcmp(chan->name, "ABCDEFGHIJKLMNOP", 16), 0);
    char buffer[24];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(ECI_getChannelName(chan, buffer), 0);
    EXPECT_STREQ(buffer, "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(buffer[17], 'x');   /* 17 bytes are the call's, no more */
}

TEST_F(Channels, ShortNameIsPaddedAndTheWhole17BytesAreCleared)
{
    Channel* chan = newChannel("AB");
    const char padded[16] = {'A', 'B'};
    EXPECT_EQ(memcmp(chan->name, padded, 16), 0);
    char buffer[24];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(ECI_getChannelName(chan, buffer), 0);
    for (int i = 2; i < 17; i++) EXPECT_EQ(buffer[i], '\0') << i;
    EXPECT_EQ(buffer[17], 'x');
}

TEST_F(Channels, DumpShowsChannelsNewestFirstWithTheirContainers)
{
    Channel* older = newChannel("CHANA");
    Channel* newer = newChannel("CHANB");
    ASSERT_EQ(ECI_createContainer(newer, "C1", ECI_BIT, 0, "12345", 5), 0);
    ASSERT_EQ(ECI_createContainer(newer, "C2", ECI_CHAR, 1208, "abc", 3), 0);
    Container* c2 = newer->firstCont;
    Container* c1 = c2->nextCont;
    TraceCapture trace(0);
    EXPECT_EQ(ZEP_ECI_dumpChannels(), 0);

    char line[4][512];
    snprintf(line[0], sizeof line[0],
             "Channel list entry -0001- : Channel(%p): eyecatcher(ZEPCHANN) name(           CHANB) serlock(%p) "
             "unlockEvent(%p) isLocked(0) ccsid(1208) numContainers(2) nextChannel(%p) firstCont(%p) currentCont((nil))",
             (void*)newer, (void*)&newer->serlock, (void*)&newer->unlockEvent, (void*)older, (void*)c2);
    snprintf(line[1], sizeof line[1],
             "   Container list entry -0001/0001- : Container(%p): eyecatcher(ZEPCONTA) name(              C2) "
             "type(2) ccsid(1208) dataLength(3) dataPtr(%p) nextCont(%p)",
             (void*)c2, (void*)c2->dataPtr, (void*)c1);
    snprintf(line[2], sizeof line[2],
             "   Container list entry -0001/0002- : Container(%p): eyecatcher(ZEPCONTA) name(              C1) "
             "type(1) ccsid(0) dataLength(5) dataPtr(%p) nextCont((nil))",
             (void*)c1, (void*)c1->dataPtr);
    snprintf(line[3], sizeof line[3],
             "Channel list entry -0002- : Channel(%p): eyecatcher(ZEPCHANN) name(           CHANA) serlock(%p) "
             "unlockEvent(%p) isLocked(0) ccsid(-1) numContainers(0) nextChannel((nil)) firstCont((nil)) "
             "currentCont((nil))",
             (void*)older, (void*)&older->serlock, (void*)&older->unlockEvent);
    std::vector<std::string> expected = {"Channel and container dump", rule, line[0], line[1], line[2], line[3],
                                         "Total number of channels=2", rule};
    EXPECT_EQ(trace.lines(), expected);
}

TEST_F(Channels, DeleteUnlinksFreesAndClearsTheToken)
{
    Channel* first = newChannel("FIRST");
    Channel* middle = newChannel("MIDDLE");
    Channel* last = newChannel("LAST");
    ASSERT_EQ(ECI_createContainer(middle, "DATA", ECI_BIT, 0, "12345", 5), 0);
    ASSERT_EQ(ECI_createContainer(middle, "EMPTY", ECI_BIT, 0, NULL, 0), 0);
    Container* empty = middle->firstCont;
    Container* data = empty->nextCont;
    std::string dataBlock = pointerText(data->dataPtr);
    Channel* deleted = middle;
    TraceCapture trace(4);
    EXPECT_EQ(ECI_deleteChannel(&middle), 0);
    EXPECT_EQ(middle, nullptr);
    EXPECT_EQ(last->nextChannel, first);   /* unlinked from the middle of the list */
    EXPECT_EQ(onlyRecord(trace, 1420),
              "DEBUG API.ECI_deleteChannel() Freeing 5 bytes of container data (" + dataBlock + ")");
    std::vector<std::string> containers = {
        "EVENT API.ECI_deleteChannel() Deleted container \"EMPTY\" (" + pointerText(empty) + ")",
        "EVENT API.ECI_deleteChannel() Deleted container \"DATA\" (" + pointerText(data) + ")"};
    EXPECT_EQ(recordTexts(trace, 1421), containers);
    EXPECT_EQ(onlyRecord(trace, 1423),
              "DEBUG API.ECI_deleteChannel() Released lock for channel " + pointerText(deleted) + ", now deleting");
    EXPECT_EQ(onlyRecord(trace, 1422), "EVENT API.ECI_deleteChannel() Deleted channel \"MIDDLE\" (" + pointerText(deleted) + ")");
    EXPECT_EQ(onlyRecord(trace, 1314), "EXIT API.ECI_deleteChannel() rc=0 (ECI_NO_ERROR)");
    EXPECT_EQ(ECI_deleteChannel(&last), 0);
    EXPECT_EQ(first->nextChannel, nullptr);
    EXPECT_EQ(ECI_deleteChannel(&first), 0);   /* the head, and then the last one */
    EXPECT_EQ(chanList, nullptr);
}

TEST_F(Channels, DeleteAllEmptiesTheList)
{
    Channel* a = newChannel("A");
    Channel* b = newChannel("B");
    ASSERT_EQ(ECI_createContainer(a, "BYTES", ECI_BIT, 0, "1234567", 7), 0);
    std::string block = pointerText(a->firstCont->dataPtr);
    std::string container = pointerText(a->firstCont);
    TraceCapture trace(4);
    EXPECT_EQ(ECI_deleteAllChannels(), 0);
    std::vector<std::string> destroyed = {
        "DEBUG API.ECI_deleteAllChannels() Destroying event and lock for channel \"B\" (" + pointerText(b) + ")",
        "DEBUG API.ECI_deleteAllChannels() Destroying event and lock for channel \"A\" (" + pointerText(a) + ")"};
    EXPECT_EQ(recordTexts(trace, 1426), destroyed);
    EXPECT_EQ(onlyRecord(trace, 1427), "DEBUG API.ECI_deleteAllChannels() Freeing 7 bytes of container data (" + block + ")");
    EXPECT_EQ(onlyRecord(trace, 1317), "EVENT API.ECI_deleteAllChannels() Deleted container \"BYTES\" (" + container + ")");
    std::vector<std::string> channels = {
        "EVENT API.ECI_deleteAllChannels() Deleted channel \"B\" (" + pointerText(b) + ")",
        "EVENT API.ECI_deleteAllChannels() Deleted channel \"A\" (" + pointerText(a) + ")"};
    EXPECT_EQ(recordTexts(trace, 1429), channels);
    EXPECT_EQ(onlyRecord(trace, 1430), "EXIT API.ECI_deleteAllChannels() rc=0 (ECI_NO_ERROR)");
    EXPECT_EQ(chanList, nullptr);
}

/* A block the size of a channel whose lock was never initialised. */
struct NotAChannel {
    alignas(8) unsigned char bytes[sizeof(Channel)] = {};
    Channel* token() { return reinterpret_cast<Channel*>(bytes); }
};

struct ArgCase {
    const char* label;
    int (*call)(Channel* chan, Channel* bogus);
    int         rc;
    int         excId;
    const char* excText;
    const char* exitText;
};

const ArgCase argCases[] = {
    {"createNullTokPtrFirst", [](Channel*, Channel*) { return ECI_createChannel(NULL, NULL); },
     ECI_ERR_NULLCHANNELPTR, 1301, "*EXC* API.ECI_createChannel() tokPtr is NULL",
     "EXIT API.ECI_createChannel() rc=-52 (ECI_ERR_NULLCHANNELPTR)"},
    {"createBadName",
     [](Channel*, Channel*) {
         Channel* c = NULL;
         return ECI_createChannel("", &c);
     },
     ECI_ERR_INVALID_NAME, 1407, "*EXC* clapi_channel.validateName() name is zero length",
     "EXIT API.ECI_createChannel() rc=-51 (ECI_ERR_INVALID_NAME)"},
    {"deleteNullTokPtr", [](Channel*, Channel*) { return ECI_deleteChannel(NULL); }, ECI_ERR_NULLCHANNELPTR, 1311,
     "*EXC* API.ECI_deleteChannel() tokPtr is NULL", "EXIT API.ECI_deleteChannel() rc=-52 (ECI_ERR_NULLCHANNELPTR)"},
    {"deleteNullToken",
     [](Channel*, Channel*) {
         Channel* c = NULL;
         return ECI_deleteChannel(&c);
     },
     ECI_ERR_INVALID_CHANNEL, 1312, "*EXC* API.ECI_deleteChannel() *tokPtr is NULL",
     "EXIT API.ECI_deleteChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"deleteNotAChannel", [](Channel*, Channel* bogus) { return ECI_deleteChannel(&bogus); }, ECI_ERR_INVALID_CHANNEL,
     1462, "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel",
     "EXIT API.ECI_deleteChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"nameNullTokenFirst", [](Channel*, Channel*) { return ECI_getChannelName(NULL, NULL); }, ECI_ERR_INVALID_CHANNEL,
     1321, "*EXC* API.ECI_getChannelName() chanTok is NULL",
     "EXIT API.ECI_getChannelName() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"nameNullBuffer", [](Channel* chan, Channel*) { return ECI_getChannelName(chan, NULL); }, ECI_ERR_NULLPTR, 1322,
     "*EXC* API.ECI_getChannelName() nameBuffer is NULL", "EXIT API.ECI_getChannelName() rc=-109 (ECI_ERR_NULLPTR)"},
    {"nameNotAChannel",
     [](Channel*, Channel* bogus) {
         char buffer[17];
         return ECI_getChannelName(bogus, buffer);
     },
     ECI_ERR_INVALID_CHANNEL, 1462, "*EXC* clapi_channel.lockChannel() chanTok (%p) is not a channel",
     "EXIT API.ECI_getChannelName() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"lockNull", [](Channel*, Channel*) { return lockChannel(NULL); }, ECI_ERR_INVALID_CHANNEL, 1461,
     "*EXC* clapi_channel.lockChannel() chanTok is NULL", "EXIT clapi_channel.lockChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"unlockNull", [](Channel*, Channel*) { return unlockChannel(NULL); }, ECI_ERR_INVALID_CHANNEL, 1472,
     "*EXC* clapi_channel.unlockChannel() chanTok is NULL",
     "EXIT clapi_channel.unlockChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
    {"unlockNotAChannel", [](Channel*, Channel* bogus) { return unlockChannel(bogus); }, ECI_ERR_INVALID_CHANNEL, 1473,
     "*EXC* clapi_channel.unlockChannel() chanTok (%p) is not a channel",
     "EXIT clapi_channel.unlockChannel() rc=-50 (ECI_ERR_INVALID_CHANNEL)"},
};

/* The first failing check wins, is named in one exception record and is named again by the exit record. */
TEST_F(Channels, EveryArgumentCheckInOrder)
{
    Channel* chan = newChannel("CHAN");
    NotAChannel bogus;
    TraceCapture trace(3);
    for (const ArgCase& c : argCases) {
        SCOPED_TRACE(c.label);
        trace.clear();
        EXPECT_EQ(c.call(chan, bogus.token()), c.rc);
        char excText[200];
        snprintf(excText, sizeof excText, c.excText, (void*)bogus.token());
        std::vector<TraceRecord> records = trace.records();
        trace.clear();
        std::vector<std::string> exceptions;
        for (const TraceRecord& r : records)
            if (r.type == "*EXC*" && r.id != 3104 && r.id != 3108) exceptions.push_back(r.type + " " + r.message);
        EXPECT_EQ(exceptions, std::vector<std::string>{excText});
        bool named = false;
        for (const TraceRecord& r : records)
            if (r.type == "*EXC*" && r.id == c.excId) named = true;
        EXPECT_TRUE(named) << c.excId;
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(records.back().type + " " + records.back().message, c.exitText);
    }
}

/* The lock is not bound to a thread: one thread takes it, another waits to delete, a third releases it. */
TEST_F(Channels, DeleteWaitsForTheChannelLockFromAnyThread)
{
    Channel* chan = newChannel("BUSY");
    TraceCapture trace(2);
    std::thread([chan] { EXPECT_EQ(lockChannel(chan), 0); }).join();

    std::atomic<bool> finished{false};
    Channel* token = chan;
    std::packaged_task<int()> deletion([&token, &finished] {
        int rc = ECI_deleteChannel(&token);
        finished = true;
        return rc;
    });
    std::future<int> deleted = deletion.get_future();
    std::thread deleter(std::move(deletion));

    ASSERT_TRUE(pollUntil([&trace] { return trace.hasId(1463); }, 5)) << "the deleting thread never waited";
    EXPECT_EQ(onlyRecord(trace, 1463), "EVENT clapi_channel.lockChannel() Waiting for channel \"BUSY\" (" + pointerText(chan) + ")");
    EXPECT_EQ(deleted.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_FALSE(finished);
    EXPECT_EQ(recordTexts(trace, 1422).size(), 0u);

    std::thread([chan] { EXPECT_EQ(unlockChannel(chan), 0); }).join();
    ASSERT_EQ(deleted.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    deleter.join();
    EXPECT_EQ(deleted.get(), 0);
    EXPECT_EQ(token, nullptr);
    EXPECT_EQ(onlyRecord(trace, 1468),
              "EVENT clapi_channel.lockChannel() Finished waiting for channel \"BUSY\" (" + pointerText(chan) + ")");
    EXPECT_EQ(onlyRecord(trace, 1422), "EVENT API.ECI_deleteChannel() Deleted channel \"BUSY\" (" + pointerText(chan) + ")");
    EXPECT_EQ(chanList, nullptr);
}

/* A waiter writes "Finished waiting" only once it owns the channel: after arming the event, never before. */
TEST_F(Channels, FinishedWaitingIsWrittenAfterTheEventIsArmed)
{
    Channel* chan = newChannel("ORDER");
    ASSERT_EQ(lockChannel(chan), 0);
    TraceCapture trace(4);
    std::thread waiter([chan] { EXPECT_EQ(lockChannel(chan), 0); });
    bool waiting = pollUntil([&trace] { return trace.hasId(1463); }, 5);
    EXPECT_EQ(unlockChannel(chan), 0);
    waiter.join();
    ASSERT_TRUE(waiting) << "the second locker never waited";
    EXPECT_EQ(chan->isLocked, 1);

    uint32_t waiterTid = trace.find(1463).front().tid;
    std::vector<int> ids;
    for (const TraceRecord& r : trace.records())
        if (r.tid == waiterTid && (r.id == 1463 || r.id == 3121 || r.id == 1468 || r.id == 1470)) ids.push_back(r.id);
    EXPECT_EQ(ids, (std::vector<int>{1463, 3121, 1468, 1470}));
    EXPECT_EQ(unlockChannel(chan), 0);
}

/* Every waiter is woken by one release and exactly one of them holds the channel at a time. */
TEST_F(Channels, WaitersTakeTheChannelOneAtATime)
{
    const int threads = 4;
    const int rounds = 50;
    Channel* chan = newChannel("SHARED");
    TraceCapture trace(2);
    ASSERT_EQ(lockChannel(chan), 0);
    int counter = 0;   /* plain on purpose: only the channel lock keeps the increments apart */
    std::atomic<int> done{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; i++) {
        waiters.emplace_back([&] {
            char name[17];
            for (int round = 0; round < rounds; round++) {
                ASSERT_EQ(lockChannel(chan), 0);
                EXPECT_EQ(__atomic_load_n(&chan->isLocked, __ATOMIC_RELAXED), 1);
                int seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                EXPECT_EQ(unlockChannel(chan), 0);
                EXPECT_EQ(ECI_getChannelName(chan, name), 0);
            }
            ++done;
        });
    }
    bool allWaiting = pollUntil([&trace] { return trace.find(1463).size() == (size_t)threads; },
                                5);
    EXPECT_EQ(unlockChannel(chan), 0);
    bool allDone = pollUntil([&done] { return done.load() == threads; });
    for (std::thread& t : waiters) t.join();
    EXPECT_TRUE(allWaiting) << trace.find(1463).size() << " of " << threads << " lockers waited";
    ASSERT_TRUE(allDone) << done.load() << " of " << threads << " waiters finished";
    EXPECT_EQ(counter, threads * rounds);
    EXPECT_EQ(chan->isLocked, 0);
}

/* What the entry records are given: a channel with one container, and the caller's buffers. */
struct EntryFixture {
    Channel*      chan;
    Channel*      spare;
    ContainerInfo info;
    char          buffer[17];
    unsigned long count;
    int           ccsid;
};

struct EntryCase {
    const char* label;
    int         id;
    void (*call)(EntryFixture& f);
    std::string (*expected)(EntryFixture& f);
};

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* pattern, ...)
{
    char text[512];
    va_list args;
    va_start(args, pattern);
    vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

#define ENTRY_CALL(expr) [](EntryFixture& f) { (void)f; (void)(expr); }
#define ENTRY_TEXT(...) [](EntryFixture& f) { (void)f; return format(__VA_ARGS__); }

/* Lengths above 2^31 show that unsigned longs are printed unsigned. */
const EntryCase entryCases[] = {
    {"createChannelNullName", 1300, ENTRY_CALL(ECI_createChannel(NULL, &f.spare)),
     ENTRY_TEXT("API.ECI_createChannel(name=NULL, tokPtr=%p)", (void*)&f.spare)},
    {"createChannel", 1300, ENTRY_CALL(ECI_createChannel("NEWCHAN", &f.spare)),
     ENTRY_TEXT("API.ECI_createChannel(name=NEWCHAN, tokPtr=%p)", (void*)&f.spare)},
    {"getChannelName", 1320, ENTRY_CALL(ECI_getChannelName(f.chan, f.buffer)),
     ENTRY_TEXT("API.ECI_getChannelName(chanTok=%p, nameBuffer=%p)", (void*)f.chan, (void*)f.buffer)},
    {"createContainerNullName", 1325, ENTRY_CALL(ECI_createContainer(f.chan, NULL, 2, 1208, NULL, 3000000000UL)),
     ENTRY_TEXT("API.ECI_createContainer(chanTok=%p, name=NULL, type=2, ccsid=1208, data=(nil), dataLength=3000000000)",
                (void*)f.chan)},
    {"createContainer", 1325, ENTRY_CALL(ECI_createContainer(f.chan, "NEW", 1, -5, f.buffer, 4)),
     ENTRY_TEXT("API.ECI_createContainer(chanTok=%p, name=NEW, type=1, ccsid=-5, data=%p, dataLength=4)",
                (void*)f.chan, (void*)f.buffer)},
    {"deleteContainerNullName", 1338, ENTRY_CALL(ECI_deleteContainer(f.chan, NULL)),
     ENTRY_TEXT("API.ECI_deleteContainer(chanTok=%p, name=NULL)", (void*)f.chan)},
    {"getContainerDataNullName", 1347,
     ENTRY_CALL(ECI_getContainerData(f.chan, NULL, f.buffer, 3000000000UL, 4000000000UL, &f.count)),
     ENTRY_TEXT("API.ECI_getContainerData(chanTok=%p, name=NULL, buffer=%p, length=3000000000, offset=4000000000, "
                "bytesReadPtr=%p)",
                (void*)f.chan, (void*)f.buffer, (void*)&f.count)},
    {"getContainerData", 1347, ENTRY_CALL(ECI_getContainerData(f.chan, "DATA", f.buffer, 8, 1, NULL)),
     ENTRY_TEXT("API.ECI_getContainerData(chanTok=%p, name=DATA, buffer=%p, length=8, offset=1, bytesReadPtr=(nil))",
                (void*)f.chan, (void*)f.buffer)},
    {"setContainerDataNullName", 1355, ENTRY_CALL(ECI_setContainerData(f.chan, NULL, f.buffer, 3000000000UL)),
     ENTRY_TEXT("API.ECI_setContainerData(chanTok=%p, name=NULL, data=%p, dataLength=3000000000)", (void*)f.chan,
                (void*)f.buffer)},
    {"getContainerInfoNullName", 1364, ENTRY_CALL(ECI_getContainerInfo(f.chan, NULL, &f.info)),
     ENTRY_TEXT("API.ECI_getContainerInfo(chanTok=%p, name=NULL, infoPtr=%p)", (void*)f.chan, (void*)&f.info)},
    {"getFirstContainer", 1370, ENTRY_CALL(ECI_getFirstContainer(f.chan, &f.info)),
     ENTRY_TEXT("API.ECI_getFirstContainer(chanTok=%p, infoPtr=%p)", (void*)f.chan, (void*)&f.info)},
    {"getNextContainer", 1377, ENTRY_CALL(ECI_getNextContainer(f.chan, NULL)),
     ENTRY_TEXT("API.ECI_getNextContainer(chanTok=%p, infoPtr=(nil))", (void*)f.chan)},
    {"getCurrentCcsid", 1435, ENTRY_CALL(getCurrentCcsid(&f.ccsid)),
     ENTRY_TEXT("clapi_channel.getCurrentCcsid(ccsidPtr=%p)", (void*)&f.ccsid)},
    {"dumpChannels", 1410, ENTRY_CALL(ZEP_ECI_dumpChannels()), ENTRY_TEXT("API.ZEP_ECI_dumpChannels()")},
    {"deleteChannel", 1310, ENTRY_CALL(ECI_deleteChannel(&f.spare)),
     ENTRY_TEXT("API.ECI_deleteChannel(tokPtr=%p)", (void*)&f.spare)},
    {"deleteAllChannels", 1425, ENTRY_CALL(ECI_deleteAllChannels()), ENTRY_TEXT("API.ECI_deleteAllChannels()")},
};

}  // namespace
