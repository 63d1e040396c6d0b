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
