// Helpers for the connection tests: opening a token on a running zepgw, ECI calls that run on a thread of
// their own so that a test can act while they wait, and looks at a token's table under its own lock.
#ifndef ZEP_CONN_TEST_SUPPORT_H
#define ZEP_CONN_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_lock.h"
#include "zepclient.h"
#include "zepgw_process.h"

namespace conntest {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Polls `done` until it holds or `seconds` have passed; true when it held.
inline bool pollUntil(const std::function<bool()>& done, double seconds = 10)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    while (!done()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline int openGateway(const ZepgwProcess& gw, GatewayToken** tok, const char* applid = "",
                       unsigned int connTimeout = 10)
{
    return ZEP_openRemoteGatewayConnectionApplid("127.0.0.1", gw.port(), tok, connTimeout, applid, "");
}

inline std::string pointerText(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

// Slots of the token in `state`, counted under the table lock.
inline int slotsInState(GatewayToken* tok, int state)
{
    ClapiLockGuard guard(&tok->tableLock);
    int count = 0;
    for (RequestSlot* slot = tok->requestTable; slot != nullptr; slot = slot->nextSlot)
        if (slot->slotState == state) count++;
    return count;
}

// Slots in the whole chain of the token, counted under the table lock.
inline int chainLength(GatewayToken* tok)
{
    ClapiLockGuard guard(&tok->tableLock);
    int count = 0;
    for (RequestSlot* slot = tok->requestTable; slot != nullptr; slot = slot->nextSlot) count++;
    return count;
}

inline int connStatusOf(GatewayToken* tok)
{
    return __atomic_load_n(&tok->connStatus, __ATOMIC_RELAXED);
}

// Tokens in the list, counted under gtlLock.
inline int listedTokens()
{
    ClapiLockGuard guard(&gtlLock);
    int count = 0;
    for (GatewayToken* tok = gtListHeadPtr; tok != nullptr; tok = tok->nextGwyTokPtr) count++;
    return count;
}

// A parameter block for a call of `program` (blank-padded) of `callType`, version 6, every other field 0.
inline EciParms eciCall(int callType, const char* program)
{
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_call_type = static_cast<short>(callType);
    parms.eci_version = 6;
    memset(parms.eci_program_name, ' ', sizeof parms.eci_program_name);
    memcpy(parms.eci_program_name, program, strlen(program));
    return parms;
}

// ECI requests for `program` that zepgw (started with -v) has read, counted in its log.
inline int requestsLogged(const ZepgwProcess& gw, const char* program)
{
    const std::string log = gw.log();
    const std::string needle = std::string(" program ") + program + " in ";
    int count = 0;
    for (size_t at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1)) count++;
    return count;
}

// A slot is marked sent before its request waits for the send lock: only zepgw's log proves the request was
// written. Waits until zepgw has read `count` requests for `program`.
inline bool awaitRequestsLogged(const ZepgwProcess& gw, const char* program, int count, double seconds = 10)
{
    return pollUntil([&] { return requestsLogged(gw, program) >= count; }, seconds);
}

// A synchronous COMMAREA call of `program` on a thread of its own. The COMMAREA starts with `data`.
class BackgroundCall {
public:
    BackgroundCall(GatewayToken* tok, const char* program, const char* data = "")
    {
        memset(area_, 0, sizeof area_);
        snprintf(area_, sizeof area_, "%s", data);
        parms_ = eciCall(ECI_SYNC, program);
        parms_.eci_commarea = area_;
        parms_.eci_commarea_length = sizeof area_;
        result_ = std::async(std::launch::async, [this, tok] { return ZEP_ECI_Execute(tok, &parms_); });
    }

    // The call's result, or `timedOut` when it has not returned within `seconds`.
    int result(double seconds = 20, int timedOut = 999999)
    {
        if (result_.wait_for(std::chrono::milliseconds(static_cast<long>(seconds * 1000))) !=
            std::future_status::ready)
            return timedOut;
        return result_.get();
    }

    const char* area() const { return area_; }

private:
    EciParms parms_;
    char area_[64];
    std::future<int> result_;
};

// A synchronous call made on the calling thread.
inline int callProgram(GatewayToken* tok, const char* program, char* area, short length)
{
    EciParms parms = eciCall(ECI_SYNC, program);
    parms.eci_commarea = area;
    parms.eci_commarea_length = length;
    return ZEP_ECI_Execute(tok, &parms);
}

}  // namespace conntest

#endif
