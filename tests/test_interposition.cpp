// An application may define functions whose names the library also exports for its own use. The
// library's calls must still reach its own code: here the program defines closeSocket.
#include <gtest/gtest.h>

#include "zepclient.h"
#include "zepgw_process.h"

static int namesakeCalls = 0;

// A namesake that would break the library if it called it: it closes nothing.
extern "C" int closeSocket(int) {
    ++namesakeCalls;
    return 0;
}

TEST(Interposition, TheLibraryCallsItsOwnFunctions) {
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    GatewayToken* token = nullptr;
    ASSERT_EQ(ZEP_OK, ZEP_openRemoteGatewayConnection("127.0.0.1", gw.port(), &token, 5));
    ASSERT_EQ(ZEP_OK, ZEP_closeGatewayConnection(&token));
    // Every call of a namesake counts, whatever it returns; test_close sees that a close frees the descriptor.
    EXPECT_EQ(0, namesakeCalls);
}
