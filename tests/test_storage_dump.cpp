// Storage dumps: the truncation line, the limit and the offset, and the exact layout of a dump line.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

// The address part of a dump line as the library prints it.
std::string addressOf(const uint8_t* address) {
    char text[32];
    snprintf(text, sizeof text, "0x%8.8lX: ", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address)));
    return text;
}

struct Dump {
    uint32_t shown;
    std::vector<std::string> lines;
};

Dump dump(const TraceCapture& trace, const uint8_t* data, unsigned long length) {
    trace.clear();
    Dump result;
    result.shown = clapiTraceOutStorage(data, length, 0, 16, 1);
    result.lines = trace.lines();
    return result;
}

std::vector<uint8_t> counting(size_t length) {
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(i);
    return bytes;
}

}  // namespace

// A dump is written whatever the level; the trace only has to point at the file.
TEST(StorageDump, ThreeHundredBytesAtTheDefaults) {
    TraceCapture trace(0);
    std::vector<uint8_t> area = counting(300);
    Dump result = dump(trace, area.data(), area.size());

    EXPECT_EQ(128u, result.shown);
    ASSERT_EQ(9u, result.lines.size());
    EXPECT_EQ("Data truncation size=128, offset=0", result.lines[0]);
    for (size_t line = 0; line < 8; ++line)
        EXPECT_EQ(addressOf(area.data() + 16 * line), result.lines[line + 1].substr(0, addressOf(area.data()).size()))
            << line;
    EXPECT_EQ(addressOf(area.data() + 112) + "70717273 74757677 78797A7B 7C7D7E7F : pqrstuvwxyz{|}~.", result.lines[8]);
}

TEST(StorageDump, FullLineLayout) {
    TraceCapture trace(0);
    const uint8_t area[] = "0123456789ABCDEF";
    Dump result = dump(trace, area, 16);
    ASSERT_EQ(2u, result.lines.size());
    const std::string& line = result.lines[1];
    EXPECT_EQ(addressOf(area) + "30313233 34353637 38394142 43444546 : 0123456789ABCDEF", line);

    // Address and colon, then 35 characters of hex, 3 of separator, 16 characters.
    const std::string afterAddress = line.substr(line.find(": ") + 2);
    EXPECT_EQ(35u + 3u + 16u, afterAddress.size());
    if (sizeof(void*) == 4) {
        EXPECT_EQ(12u + 35u + 3u + 16u, line.size());
    }
}

// How single bytes show: upper-case hex, and the character itself only when printable in the C locale.
TEST(StorageDump, ByteRendering) {
    struct Case { uint8_t byte; const char* hex; char shown; };
    const Case cases[] = {
        {0x41, "41", 'A'}, {0x0A, "0A", '.'}, {0x00, "00", '.'}, {0x20, "20", ' '}, {0x7E, "7E", '~'},
        {0x7F, "7F", '.'}, {0x80, "80", '.'}, {0xE9, "E9", '.'}, {0xFF, "FF", '.'}, {0x2A, "2A", '*'},
    };
    TraceCapture trace(0);
    for (const Case& c : cases) {
        Dump result = dump(trace, &c.byte, 1);
        ASSERT_EQ(2u, result.lines.size());
        std::string expected = addressOf(&c.byte) + c.hex + std::string(33, ' ') + " : " + c.shown;
        EXPECT_EQ(expected, result.lines[1]) << static_cast<int>(c.byte);
    }
}

// The limit and the offset: which bytes a dump shows and where it starts.
TEST(StorageDump, LimitAndOffset) {
    struct Case {
        unsigned long limit, offset, length;
        uint32_t shown;
        size_t dumpLines;
        const char* header;
    };
    const Case cases[] = {
        {0, 0, 300, 300, 19, "Data truncation size=0, offset=0"},
        {0, 10, 300, 290, 19, "Data truncation size=0, offset=10"},
        {128, 10, 40, 30, 2, "Data truncation size=128, offset=10"},
        {20, 10, 100, 20, 2, "Data truncation size=20, offset=10"},
        {16, 0, 17, 16, 1, "Data truncation size=16, offset=0"},
        {128, 40, 40, 0, 0, "Data truncation size=128, offset=40"},
        {128, 41, 40, 0, 0, "Data truncation size=128, offset=41"},
        {0, 1000, 40, 0, 0, "Data truncation size=0, offset=1000"},
        {128, 0, 0, 0, 0, "Data truncation size=128, offset=0"},
    };
    TraceCapture trace(0);
    std::vector<uint8_t> area = counting(300);
    for (const Case& c : cases) {
        ASSERT_EQ(0, ZEP_setAPITraceDataLength(c.limit));
        ASSERT_EQ(0, ZEP_setAPITraceDataOffset(c.offset));
        Dump result = dump(trace, area.data(), c.length);
        SCOPED_TRACE(c.header);
        EXPECT_EQ(c.shown, result.shown);
        ASSERT_EQ(c.dumpLines + 1, result.lines.size());
        EXPECT_EQ(c.header, result.lines[0]);
        if (c.dumpLines == 0) continue;
        // The first line starts at the offset, showing the byte there.
        char firstByte[3];
        snprintf(firstByte, sizeof firstByte, "%2.2X", area[c.offset]);
        EXPECT_EQ(addressOf(area.data() + c.offset) + firstByte, result.lines[1].substr(0, addressOf(area.data()).size() + 2));
        // The last line holds what is left after the full lines.
        size_t lastCount = c.shown - 16 * (c.dumpLines - 1);
        const std::string& last = result.lines.back();
        EXPECT_EQ(lastCount, last.size() - (last.find(" : ") + 3));
    }
}
