// What the library suites share: a zepgw with an open token, ECI parameter blocks, calls on threads of their
// own, looks at a token's table under its own lock, trace readings, the channel fixture, and the socket pairs
// and buffers the wire suites drive the library's codec with.
#ifndef ZEP_LIBRARY_SUPPORT_H
#define ZEP_LIBRARY_SUPPORT_H

#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "bytes.h"
#include "clapi_channel.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_internal.h"
#include "clapi_lock.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "scripted_gateway.h"
#include "test_support.h"
#include "trace_capture.h"
#include "zepclient.h"
#include "zepgw_process.h"

// A version-6 block for one call of `program` (blank-padded) with the given COMMAREA, extend mode and LUW token,
// every other field 0.
inline EciParms eciBlock(int callType, const char* program, void* commarea = nullptr, int length = 0,
                         int extendMode = 0, int32_t luw = 0)
{
    EciParms parms = {};
    parms.eci_version = 6;
    parms.eci_call_type = static_cast<int16_t>(callType);
    memset(parms.eci_program_name, ' ', sizeof parms.eci_program_name);
    memcpy(parms.eci_program_name, program, std::min<size_t>(strlen(program), 8));
    parms.eci_commarea = commarea;
    parms.eci_commarea_length = static_cast<int16_t>(length);
    parms.eci_extend_mode = static_cast<int16_t>(extendMode);
    parms.eci_luw_token = luw;
    return parms;
}

// One call on a block of its own, through the channel entry point when the block names a channel; its code.
inline int exec(GatewayToken* tok, EciParms parms)
{
    return parms.eci_channel != nullptr ? ZEP_ECI_Execute_Channel(tok, &parms) : ZEP_ECI_Execute(tok, &parms);
}

// A call that must succeed; its block, with what the call filled in.
inline EciParms called(GatewayToken* tok, EciParms parms)
{
    EXPECT_EQ(0, ZEP_ECI_Execute(tok, &parms));
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
T copyOf(T value) { return value; }

inline int openGateway(const ZepgwProcess& gw, GatewayToken** tok, const char* applid = "",
                       unsigned int connTimeout = 10)
{
    return ZEP_openRemoteGatewayConnectionApplid("127.0.0.1", gw.port(), tok, connTimeout, applid, "");
}

// A zepgw child and one open token on it; both end with the object.
class GatewayConnection {
public:
    explicit GatewayConnection(std::vector<std::string> zepgwArgs = {})
    {
        if (!gw_.start(zepgwArgs)) {
            ADD_FAILURE() << "zepgw did not start";
            return;
        }
        EXPECT_EQ(0, openGateway(gw_, &token_));
    }
    ~GatewayConnection() { if (token_ != nullptr) ZEP_closeGatewayConnection(&token_); }
    GatewayConnection(const GatewayConnection&) = delete;
    GatewayConnection& operator=(const GatewayConnection&) = delete;

    bool ok() const { return token_ != nullptr; }
    GatewayToken* token() const { return token_; }
    GatewayToken** tokenPtr() { return &token_; }
    ZepgwProcess& zepgw() { return gw_; }

private:
    ZepgwProcess gw_;
    GatewayToken* token_ = nullptr;
};

// Slots of the token in `state` (any state when negative), counted under the table lock.
inline int slotsInState(GatewayToken* tok, int state = -1)
{
    ClapiLockGuard guard(&tok->tableLock);
    int count = 0;
    for (RequestSlot* slot = tok->requestTable; slot != nullptr; slot = slot->nextSlot)
        if (state < 0 || slot->slotState == state) count++;
    return count;
}

inline int connStatusOf(GatewayToken* tok) { return __atomic_load_n(&tok->connStatus, __ATOMIC_RELAXED); }

// Tokens in the list, counted under gtlLock.
inline int listedTokens()
{
    ClapiLockGuard guard(&gtlLock);
    int count = 0;
    for (GatewayToken* tok = gtListHeadPtr; tok != nullptr; tok = tok->nextGwyTokPtr) count++;
    return count;
}

// A slot is marked sent before its request waits for the send lock: only zepgw's log (-v) proves the request
// was written. Waits until zepgw has read `count` requests for `program`.
inline bool awaitRequestsLogged(const ZepgwProcess& gw, const char* program, int count, double seconds = 10)
{
    const std::string needle = std::string(" program ") + program + " in ";
    return pollUntil([&] {
        const std::string log = gw.log();
        int seen = 0;
        for (size_t at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1)) seen++;
        return seen >= count;
    }, seconds);
}

// A synchronous COMMAREA call of `program` on a thread of its own. The COMMAREA starts with `data`.
class BackgroundCall {
public:
    BackgroundCall(GatewayToken* tok, const char* program, const char* data = "")
    {
        snprintf(area_, sizeof area_, "%s", data);
        parms_ = eciBlock(ECI_SYNC, program, area_, sizeof area_);
        result_ = std::async(std::launch::async, [this, tok] { return ZEP_ECI_Execute(tok, &parms_); });
    }

    // The call's result, or `timedOut` when it has not returned within `seconds`.
    int result(double seconds = 20, int timedOut = 999999)
    {
        if (result_.wait_for(std::chrono::duration<double>(seconds)) != std::future_status::ready) return timedOut;
        return result_.get();
    }
    const char* area() const { return area_; }

private:
    EciParms parms_;
    char area_[64] = {};
    std::future<int> result_;
};

// A synchronous call made on the calling thread.
inline int callProgram(GatewayToken* tok, const char* program, char* area, short length)
{
    EciParms parms = eciBlock(ECI_SYNC, program, area, length);
    return ZEP_ECI_Execute(tok, &parms);
}

// "TYPE message" of every record with this id, in order.
inline std::vector<std::string> recordTexts(const TraceCapture& trace, int id)
{
    std::vector<std::string> result;
    for (const TraceRecord& r : trace.find(id)) result.push_back(r.type + " " + r.message);
    return result;
}

// "TYPE message" of the one record with this id; a text saying otherwise when there is not exactly one.
inline std::string onlyRecord(const TraceCapture& trace, int id)
{
    std::vector<std::string> found = recordTexts(trace, id);
    if (found.size() == 1) return found[0];
    return "<" + std::to_string(found.size()) + " records with id " + std::to_string(id) + ">";
}

// Every channel test starts from an empty channel list and leaves it empty.
class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ECI_deleteAllChannels(), 0); }
    void TearDown() override { ECI_deleteAllChannels(); }

    Channel* newChannel(const char* name)
    {
        Channel* chan = NULL;
        EXPECT_EQ(ECI_createChannel(name, &chan), 0) << name;
        return chan;
    }
};

// Two connected sockets; `lib` is handed to the library, the test plays the Gateway on `peer`.
class SocketPair {
public:
    explicit SocketPair(int type = SOCK_STREAM)
    {
        signal(SIGPIPE, SIG_IGN);
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, type, 0, fds));
        lib = fds[0];
        peer = fds[1];
    }
    ~SocketPair()
    {
        closePeer();
        if (lib >= 0) close(lib);
    }
    void closePeer()
    {
        if (peer >= 0) close(peer);
        peer = -1;
    }
    void feed(const Bytes& bytes) const
    {
        for (size_t sent = 0; sent < bytes.size();) {
            ssize_t n = send(peer, bytes.data() + sent, bytes.size() - sent, 0);
            ASSERT_GT(n, 0) << strerror(errno);
            sent += static_cast<size_t>(n);
        }
    }
    // Everything already sent to the peer, without waiting for more.
    Bytes drain() const
    {
        Bytes out;
        uint8_t chunk[65536];
        for (ssize_t got; (got = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;)
            out.insert(out.end(), chunk, chunk + got);
        return out;
    }
    int lib = -1;
    int peer = -1;
};

// A read or write buffer on the library side, set up for a message of `length` bytes.
template <bool reading>
struct TestBuffer {
    TestBuffer(int fd, uint32_t length)
        : rc(reading ? initReadBuffer(&sb, fd, length) : initWriteBuffer(&sb, fd, length)) {}
    ~TestBuffer() { if (sb.buffer != NULL) freeBuffer(&sb); }
    SocketBuffer sb = {};
    int rc;
};
using ReadBuffer = TestBuffer<true>;
using WriteBuffer = TestBuffer<false>;

// The header a request writer is handed: FLOW_REQUEST, its message id and request type name.
inline FlowHeader requestHeader(int32_t messageId, const char* requestType)
{
    FlowHeader header = {};
    header.eyecatcher = FLOW_EYECATCHER;
    header.version = FLOW_VERSION;
    header.flowType = FLOW_REQUEST;
    header.messageId = messageId;
    header.requestTypeLength = static_cast<int32_t>(strlen(requestType));
    memcpy(header.requestType, requestType, strlen(requestType));
    return header;
}

// The bytes a storage dump shows: the lines after a DATA record, the truncation line first.
inline Bytes dumpedBytes(const std::vector<std::string>& lines)
{
    Wire out;
    for (size_t i = 1; i < lines.size(); i++) {
        const size_t at = lines[i].find(": ");
        if (at != std::string::npos) out.hex(lines[i].substr(at + 2, 35));
    }
    return out.b;
}

// A NUL-free text of `length` bytes that changes from byte to byte.
inline std::string varied(size_t length, int seed = 7)
{
    std::string text(length, ' ');
    for (size_t i = 0; i < length; i++) text[i] = static_cast<char>(1 + (i * static_cast<size_t>(seed)) % 251);
    return text;
}

#endif
