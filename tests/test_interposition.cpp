// An application may define functions whose names the library also exports for its own use. The
// library's calls must still reach its own code: here the program defines closeSocket and isLeapYear.
#include <gtest/gtest.h>

#include "zepclient.h"
#include "zepgw_process.h"

static int namesakeCalls = 0;

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
    GatewayToken* token = nullptr;
    ASSERT_EQ(ZEP_OK, ZEP_openRemoteGatewayConnection("127.0.0.1", gw.port(), &token, 5));
    ASSERT_EQ(ZEP_OK, ZEP_closeGatewayConnection(&token));
    const EsiTime march1 = {2024, 2, 1, 12, 0, 0, 0};
    struct tm result = {};
    ASSERT_EQ(&result, ZEP_ESI_convertTime(&march1, &result));
    EXPECT_EQ(61, result.tm_yday) << "2024 is a leap year";
    // Every call of a namesake counts, whatever it returns; test_close sees that a close frees the descriptor.
    EXPECT_EQ(0, namesakeCalls);
}
