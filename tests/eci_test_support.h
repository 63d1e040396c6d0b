// What the ECI and ESI tests against zepgw share: a connection to a zepgw of their own, and parameter blocks.
#ifndef ECI_TEST_SUPPORT_H
#define ECI_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "clapi_internal.h"
#include "zepclient.h"
#include "scripted_gateway.h"
#include "zepgw_process.h"

// A zepgw child and one open connection to it; both end with the object.
class GatewayConnection {
public:
    explicit GatewayConnection(std::vector<std::string> zepgwArgs = {})
    {
        if (!gw_.start(zepgwArgs)) {
            ADD_FAILURE() << "zepgw did not start";
            return;
        }
        openRc_ = ZEP_openRemoteGatewayConnection("127.0.0.1", gw_.port(), &token_, 10);
        EXPECT_EQ(0, openRc_);
    }
    ~GatewayConnection()
    {
        if (token_ != nullptr) ZEP_closeGatewayConnection(&token_);
    }
    GatewayConnection(const GatewayConnection&) = delete;
    GatewayConnection& operator=(const GatewayConnection&) = delete;

    bool ok() const { return token_ != nullptr; }
    GatewayToken* token() const { return token_; }
    GatewayToken** tokenPtr() { return &token_; }
    ZepgwProcess& zepgw() { return gw_; }

private:
    ZepgwProcess gw_;
    GatewayToken* token_ = nullptr;
    int openRc_ = -1;
};


// A version-6 block for one call of `program` with the given COMMAREA.
inline EciParms eciBlock(int callType, const char* program, void* commarea, int length)
{
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_version = 6;
    parms.eci_call_type = static_cast<int16_t>(callType);
    size_t n = strlen(program);
    memset(parms.eci_program_name, ' ', sizeof parms.eci_program_name);
    memcpy(parms.eci_program_name, program, n < 8 ? n : 8);
    parms.eci_commarea = commarea;
    parms.eci_commarea_length = static_cast<int16_t>(length);
    return parms;
}

// A reply call for the request with this qualifier (0 and any reply type for the untargeted ones).
inline EciParms replyBlock(int callType, uint32_t qualifier, void* commarea, int length)
{
    EciParms parms = eciBlock(callType, "", commarea, length);
    parms.eci_message_qualifier = qualifier;
    return parms;
}

// A field of the packed parameter block as a value: the assertion macros must not bind references to it.
template <typename T>
T copyOf(T value)
{
    return value;
}

inline std::string pointerText(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

// Polls `done` every millisecond until it holds or `seconds` pass.
template <typename Predicate>
bool eventually(Predicate done, double seconds = 5)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
