// Trace record layout, level gating per record type, and the banner at the top of a trace file.
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "clapi_internal.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

std::string format(const char* fmt, const void* pointer) {
    char text[128];
    snprintf(text, sizeof text, fmt, pointer);
    return text;
}

uint32_t ownTid() { return static_cast<uint32_t>(static_cast<uintptr_t>(pthread_self())); }

// Seconds between a record's "dd/mm/yy hh:mm:ss:mmm" and now, or a large number if it does not parse.
double secondsFromNow(const std::string& stamp) {
    struct tm local = {};
    int milliseconds = -1;
    if (sscanf(stamp.c_str(), "%2d/%2d/%2d %2d:%2d:%2d:%3d", &local.tm_mday, &local.tm_mon, &local.tm_year,
               &local.tm_hour, &local.tm_min, &local.tm_sec, &milliseconds) != 7)
        return 1e9;
    local.tm_mon -= 1;
    local.tm_year += 100;
    local.tm_isdst = -1;
    return difftime(time(nullptr), mktime(&local));
}

std::string today() {
    char text[16];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(text, sizeof text, "%d/%m/%y", &local);
    return text;
}

// The two banner lines at the top of `lines`.
void expectBanner(const std::vector<std::string>& lines, int level, const std::string& destination) {
    EXPECT_EQ("*** " + today() +
                  " QUILLON ZEPClient DLL trace V9.1.0.4 API Version 2.3.0.0 Build Level k910-20231012-1355 ***",
              lines[0]);
    EXPECT_EQ("*** Trace Level = " + std::to_string(level) + ", Trace File = " + destination + ", " +
                  std::to_string(ZEP_FLAVOUR_BITS) + "-bit ***",
              lines[1]);
}

}  // namespace

TEST(TraceRecordLayout, FieldsOfAnEntryRecord) {
    TraceCapture trace(3);
    char* version = nullptr;
    ASSERT_EQ(0, ZEP_getDLLVersion(&version));

    std::vector<TraceRecord> entries = trace.find(1032);
    ASSERT_EQ(1u, entries.size());
    const TraceRecord& entry = entries[0];
    EXPECT_EQ(static_cast<uint32_t>(getpid()), entry.pid);
    EXPECT_EQ(ownTid(), entry.tid);
    EXPECT_EQ("ENTRY", entry.type);
    EXPECT_EQ(format("API.ZEP_getDLLVersion(dllVersPtr=%p)", &version), entry.message);
    EXPECT_LT(std::abs(secondsFromNow(entry.timestamp)), 5.0) << entry.timestamp;

    // The raw line: 21-character timestamp, ids as 8 upper-case hex digits, the id in four digits,
    // the type padded to six characters and one blank before the message.
    char expected[256];
    snprintf(expected, sizeof expected, "%s [0x%8.8X,0x%8.8X] [1032] ENTRY  %s", entry.timestamp.c_str(),
             static_cast<unsigned>(getpid()), ownTid(), entry.message.c_str());
    EXPECT_EQ(expected, trace.lines()[entry.line]);
    EXPECT_EQ(21u, entry.timestamp.size());
}

TEST(TraceRecordLayout, TypeTextIsPaddedToSixCharacters) {
    TraceCapture trace(4);
    ASSERT_EQ(ZEP_ERR_NULLPTR, ZEP_getDLLVersion(nullptr));
    ASSERT_EQ(0, ZEP_setAPITraceDataLength(64));
    uint8_t area[4] = {1, 2, 3, 4};
    TRACE_DATA(9002, area, sizeof area, "data=%p len=%lu stopword=%8.8X\n", static_cast<void*>(area), 4ul, 0u);

    struct Case { int id; const char* typeAndBlank; };
    const Case cases[] = {
        {1032, "] ENTRY  API."}, {1033, "] *EXC*  API."}, {1034, "] EXIT   API."},
        {1049, "] DEBUG  API."}, {9002, "] DATA   data="},
    };
    std::vector<std::string> lines = trace.lines();
    for (const Case& c : cases) {
        std::vector<TraceRecord> found = trace.find(c.id);
        ASSERT_EQ(1u, found.size()) << c.id;
        EXPECT_NE(std::string::npos, lines[found[0].line].find(c.typeAndBlank)) << lines[found[0].line];
    }
    EXPECT_EQ("*EXC*", trace.find(1033)[0].type);
    EXPECT_EQ(format("API.ZEP_getDLLVersion() Supplied pointer is NULL, dllVersPtr=%p", nullptr),
              trace.find(1033)[0].message);
}

TEST(TraceRecordLayout, EachThreadShowsItsOwnId) {
    TraceCapture trace(3);
    uint32_t otherTid = 0;
    std::thread other([&otherTid] {
        otherTid = ownTid();
        int level = 0;
        ZEP_getAPITraceLevel(&level);
    });
    other.join();
    int level = 0;
    ASSERT_EQ(0, ZEP_getAPITraceLevel(&level));

    std::vector<TraceRecord> entries = trace.find(1035);
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(otherTid, entries[0].tid);
    EXPECT_EQ(ownTid(), entries[1].tid);
    EXPECT_NE(entries[0].tid, entries[1].tid);
    EXPECT_EQ(entries[0].pid, entries[1].pid);
}

// Each level writes the record types at or below it: *EXC* 1, EVENT 2, ENTRY/EXIT 3, DEBUG/DATA 4.
TEST(TraceLevelGating, RecordTypesPerLevel) {
    struct Emitter { const char* type; int id; int lowestLevel; };
    const Emitter emitters[] = {
        {"*EXC*", 1033, 1}, {"EVENT", 1015, 2}, {"ENTRY", 1029, 3},
        {"EXIT", 1031, 3}, {"DEBUG", 1049, 4}, {"DATA", 1334, 4},
    };
    TraceCapture trace(-1);
    for (int level = 0; level <= 5; ++level) {
        ASSERT_EQ(0, ZEP_setAPITraceLevel(level));
        trace.clear();

        ZEP_getDLLVersion(nullptr);                   // *EXC* 1033
        ZEP_closeAllGatewayConnections();             // EVENT 1015
        char* version = nullptr;
        ZEP_getAPIVersion(&version);                  // ENTRY 1029, EXIT 1031
        ZEP_setAPITraceDataLength(128);               // DEBUG 1049
        Channel* channel = nullptr;
        ASSERT_EQ(0, ECI_createChannel("GATING", &channel));
        const uint8_t area[2] = {0x41, 0x42};
        ASSERT_EQ(0, ECI_createContainer(channel, "AREA", ECI_BIT, 0, area, sizeof area));   // DATA 1334
        ASSERT_EQ(0, ECI_deleteChannel(&channel));

        for (const Emitter& emitter : emitters) {
            std::vector<TraceRecord> found = trace.find(emitter.id);
            bool expected = level >= emitter.lowestLevel;
            EXPECT_EQ(expected ? 1u : 0u, found.size()) << emitter.type << " at level " << level;
            if (!found.empty()) {
                EXPECT_EQ(emitter.type, found[0].type);
            }
        }
        if (level == 0) {
            EXPECT_EQ("", trace.text());
        }
    }
}

// A DATA record is followed by its dump, and the dump is not a record.
TEST(TraceLevelGating, DataRecordIsFollowedByItsDump) {
    TraceCapture trace(4);
    uint8_t area[3] = {0x41, 0x00, 0x7A};
    TRACE_DATA(9002, area, sizeof area, "data=%p len=%lu stopword=%8.8X\n", static_cast<void*>(area), 3ul, 0u);
    std::vector<TraceRecord> data = trace.find(9002);
    ASSERT_EQ(1u, data.size());
    EXPECT_EQ(format("data=%p len=3 stopword=00000000", area), data[0].message);
    std::vector<std::string> dump = trace.linesAfter(data[0]);
    ASSERT_EQ(2u, dump.size());
    EXPECT_EQ("Data truncation size=128, offset=0", dump[0]);
    EXPECT_EQ(": 41007A" + std::string(29, ' ') + " : A.z", dump[1].substr(dump[1].find(':')));
}

// Switching to a file at level 0 writes nothing; raising the level writes the banner first, showing the
// level as it was before the change.
TEST(TraceBanner, RaisingTheLevelWritesTheBannerAtTheTop) {
    TraceCapture trace(-1);
    EXPECT_EQ("", trace.text());
    ASSERT_EQ(0, ZEP_setAPITraceLevel(3));

    std::vector<std::string> lines = trace.lines();
    ASSERT_GE(lines.size(), 3u);
    expectBanner(lines, 0, trace.path());
    EXPECT_TRUE(trace.has(1040, "API.ZEP_setAPITraceLevel() rc=0 (ZEP_OK) New trace level=3"));
    EXPECT_EQ(1u, trace.records().size());
}

// Switching to a file while tracing is on writes the banner with the level in force.
TEST(TraceBanner, NewFileAtLevelThreeBeginsWithTheBanner) {
    ASSERT_EQ(0, ZEP_setAPITraceLevel(3));
    TraceCapture trace(-1);

    std::vector<std::string> lines = trace.lines();
    ASSERT_GE(lines.size(), 3u);
    expectBanner(lines, 3, trace.path());
    TraceRecord exit;
    ASSERT_TRUE(TraceCapture::parseRecord(lines[2], &exit));
    EXPECT_EQ(1045, exit.id);
    EXPECT_EQ("API.ZEP_setAPITraceFile() rc=0 (ZEP_OK) New trace destination=" + trace.path(), exit.message);
}
