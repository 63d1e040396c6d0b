// Trace records: level gating per record type, the fields of a record, and the layout of storage dumps.
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <cstring>

#include "clapi_diag.h"
#include "test_support.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

// A dump line: the address, the hex padded to its 35 columns, then " : " and the characters.
std::string dumpLine(const void* address, const char* text)
{
    char start[32];
    snprintf(start, sizeof start, "0x%8.8lX: ", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
    std::string hex(text, strstr(text, " : ") - text);
    hex.resize(35, ' ');
    return start + hex + strstr(text, " : ");
}

// Each level writes the record types at or below it: *EXC* 1, EVENT 2, ENTRY/EXIT 3, DEBUG/DATA 4. A record names
// the caller's process and thread, and an entry record the call's arguments.
TEST(TraceLevelGating, RecordTypesPerLevel)
{
    const struct { const char* type; int id; int lowestLevel; } emitters[] = {
        {"*EXC*", 1033, 1}, {"EVENT", 1015, 2}, {"ENTRY", 1029, 3}, {"EXIT", 1031, 3}, {"DEBUG", 1049, 4}, {"DATA", 1334, 4},
    };
    TraceCapture trace(-1);
    char* version = nullptr;
    for (int level = 0; level <= 5; ++level) {
        ASSERT_EQ(0, ZEP_setAPITraceLevel(level));
        trace.clear();
        ZEP_getDLLVersion(nullptr);                   // *EXC* 1033
        ZEP_closeAllGatewayConnections();             // EVENT 1015
        ZEP_getAPIVersion(&version);                  // ENTRY 1029, EXIT 1031
        ZEP_setAPITraceDataLength(128);               // DEBUG 1049
        Channel* channel = nullptr;
        ASSERT_EQ(0, ECI_createChannel("GATING", &channel));
        ASSERT_EQ(0, ECI_createContainer(channel, "AREA", ECI_BIT, 0, "AB", 2));   // DATA 1334
        ASSERT_EQ(0, ECI_deleteChannel(&channel));
        for (const auto& emitter : emitters) {
            std::vector<TraceRecord> found = trace.find(emitter.id);
            EXPECT_EQ(level >= emitter.lowestLevel ? 1u : 0u, found.size()) << emitter.type << " at level " << level;
            EXPECT_EQ(found.empty() ? "" : emitter.type, found.empty() ? "" : found[0].type);
        }
        EXPECT_EQ(level == 0, trace.text().empty());
        if (level != 3) continue;
        const TraceRecord entry = trace.find(1029).at(0);
        EXPECT_EQ(std::make_pair(static_cast<uint32_t>(getpid()), static_cast<uint32_t>(uintptr_t(pthread_self()))),
                  std::make_pair(entry.pid, entry.tid));
        EXPECT_EQ("API.ZEP_getAPIVersion(apiVersPtr=" + pointerText(&version) + ")", entry.message);
    }
}

// A dump is written whatever the level. Its first line names the limit and the offset in force; each line after
// shows up to 16 bytes from the offset on, in upper-case hex and as characters printable in the C locale.
TEST(StorageDump, LimitOffsetAndLineLayout)
{
    const struct {
        unsigned long limit, offset, length;
        uint32_t shown;
        size_t lines;
        const char* first;   // what follows the address on the first and on the last line
        const char* last;
    } cases[] = {
        {128, 0, 300, 128, 8, "00010203 04050607 08090A0B 0C0D0E0F : ................",
         "70717273 74757677 78797A7B 7C7D7E7F : pqrstuvwxyz{|}~."},
        {0, 10, 300, 290, 19, "0A0B0C0D 0E0F1011 12131415 16171819 : ................",
         "2A2B : *+"},
        {20, 32, 100, 20, 2, "20212223 24252627 28292A2B 2C2D2E2F :  !\"#$%&'()*+,-./", "30313233 : 0123"},
        {16, 0, 17, 16, 1, "00010203 04050607 08090A0B 0C0D0E0F : ................", nullptr},
        {128, 248, 256, 8, 1, "F8F9FAFB FCFDFEFF : ........", nullptr},
        {128, 65, 66, 1, 1, "41 : A", nullptr},
        {128, 40, 40, 0, 0, nullptr, nullptr},
        {128, 41, 40, 0, 0, nullptr, nullptr},
        {0, 1000, 40, 0, 0, nullptr, nullptr},
        {128, 0, 0, 0, 0, nullptr, nullptr},
    };
    TraceCapture trace(0);
    uint8_t area[300];
    for (size_t i = 0; i < sizeof area; ++i) area[i] = static_cast<uint8_t>(i);
    for (const auto& c : cases) {
        ASSERT_EQ(0, ZEP_setAPITraceDataLength(c.limit));
        ASSERT_EQ(0, ZEP_setAPITraceDataOffset(c.offset));
        trace.clear();
        const std::string header = "Data truncation size=" + std::to_string(c.limit) + ", offset=" + std::to_string(c.offset);
        SCOPED_TRACE(header);
        EXPECT_EQ(c.shown, clapiTraceOutStorage(area, c.length, 0, 16, 1));
        std::vector<std::string> lines = trace.lines();
        ASSERT_EQ(c.lines + 1, lines.size());
        EXPECT_EQ(header, lines[0]);
        if (c.first != nullptr) { EXPECT_EQ(dumpLine(area + c.offset, c.first), lines[1]); }
        if (c.last != nullptr) { EXPECT_EQ(dumpLine(area + c.offset + 16 * (c.lines - 1), c.last), lines.back()); }
    }
}

}  // namespace
