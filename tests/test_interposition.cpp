// An application may define functions whose names the library also exports for its own use. The
// library's calls must still reach its own code: here the program defines closeSocket and isLeapYear.
#include <dirent.h>

#include <gtest/gtest.h>

#include "zepclient.h"
#include "zepgw_process.h"

namespace {
int namesakeCalls = 0;

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) ++count;
    if (dir != nullptr) closedir(dir);
    return count;
}
}  // namespace

// Namesakes that would break the library if it called them: one closes nothing, one inverts leap years.
extern "C" int closeSocket(int) {
    ++namesakeCalls;
    return 0;
}

extern "C" int isLeapYear(int year) {
    ++namesakeCalls;
    return year % 4 != 0;
}

TEST(Interposition, TheLibraryCallsItsOwnFunctions) {
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    const int before = openDescriptors();
    GatewayToken* token = nullptr;
    ASSERT_EQ(ZEP_OK, ZEP_openRemoteGatewayConnection("127.0.0.1", gw.port(), &token, 5));
    ASSERT_EQ(ZEP_OK, ZEP_closeGatewayConnection(&token));
    EXPECT_EQ(before, openDescriptors()) << "closing a connection closes its socket";
    struct Case { int32_t year; int dayOfYear; } cases[] = {{2024, 61}, {2023, 60}, {2000, 61}, {1900, 60}};
    for (const Case& c : cases) {
        const EsiTime march1 = {c.year, 2, 1, 12, 0, 0, 0};
        struct tm result = {};
        ASSERT_EQ(&result, ZEP_ESI_convertTime(&march1, &result));
        EXPECT_EQ(c.dayOfYear, result.tm_yday) << c.year;
    }
    EXPECT_EQ(0, namesakeCalls);
}
