/* What the wire tests share: socket pairs, byte builders and reads with a deadline. */
#ifndef WIRE_TEST_SUPPORT_H
#define WIRE_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "trace_capture.h"
#include "zepgw_process.h"
#include "zepclient.h"

/* A failed huge allocation must come back as NULL under the sanitizers too. */
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((used, visibility("default"))) const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

typedef std::vector<uint8_t> Bytes;

/* Big-endian builder for the bytes a test expects or feeds. */
class Wire {
public:
    Wire& i32(int32_t v)
    {
        for (int shift = 24; shift >= 0; shift -= 8) b.push_back((uint8_t)((uint32_t)v >> shift));
        return *this;
    }
    Wire& i16(int32_t v)
    {
        b.push_back((uint8_t)((uint32_t)v >> 8));
        b.push_back((uint8_t)v);
        return *this;
    }
    Wire& u8(int v)
    {
        b.push_back((uint8_t)v);
        return *this;
    }
    Wire& text(const std::string& s)
    {
        b.insert(b.end(), s.begin(), s.end());
        return *this;
    }
    /* s cut or padded with 00 to width bytes. */
    Wire& field(const std::string& s, size_t width)
    {
        std::string f = s.substr(0, width);
        f.resize(width, '\0');
        return text(f);
    }
    Wire& raw(const Bytes& more)
    {
        b.insert(b.end(), more.begin(), more.end());
        return *this;
    }
    Wire& fill(size_t n, uint8_t v)
    {
        b.insert(b.end(), n, v);
        return *this;
    }
    /* A header as the Gateway sends it, for a payload of `payload` bytes. */
    Wire& header(int32_t flowType, int32_t messageId, const std::string& type, int32_t payload, int32_t rc = 0)
    {
        i32(0x47617465).i32(0x10901000).i32(flowType).i32(messageId).i32(rc);
        i32((int32_t)type.size()).text(type).u8(0).i32(payload);
        return *this;
    }
    Bytes b;
};

inline Bytes scrambled(const std::string& clear)
{
    Bytes out(clear.size());
    for (size_t i = clear.size(); i-- > 1;) out[i] = (uint8_t)(clear[i] ^ clear[i - 1]);
    if (!clear.empty()) out[0] = (uint8_t)~clear[0];
    return out;
}

/* Two connected sockets; `lib` is handed to the library, the test plays the Gateway on `peer`. */
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
        size_t sent = 0;
        while (sent < bytes.size()) {
            ssize_t n = send(peer, bytes.data() + sent, bytes.size() - sent, 0);
            ASSERT_GT(n, 0) << strerror(errno);
            sent += (size_t)n;
        }
    }
    /* Reads exactly n bytes from the peer side, giving up after the deadline. */
    Bytes take(size_t n, int timeoutMs = 5000) const
    {
        Bytes out;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (out.size() < n) {
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(
                           end - std::chrono::steady_clock::now()).count();
            struct pollfd p = {peer, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, left) <= 0) break;
            uint8_t chunk[65536];
            size_t want = n - out.size() < sizeof chunk ? n - out.size() : sizeof chunk;
            ssize_t got = recv(peer, chunk, want, 0);
            if (got <= 0) break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    /* Reads from the peer side until the library side shuts down its sending, giving up after the deadline. */
    Bytes takeUntilEnd(int timeoutMs = 5000) const
    {
        Bytes out;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(
                           end - std::chrono::steady_clock::now()).count();
            struct pollfd p = {peer, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, left) <= 0) {
                ADD_FAILURE() << "the library side did not end its sending within " << timeoutMs << " ms";
                break;
            }
            uint8_t chunk[65536];
            ssize_t got = recv(peer, chunk, sizeof chunk, 0);
            if (got <= 0) break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    /* Everything already sent to the peer, without waiting for more. */
    Bytes drain() const
    {
        Bytes out;
        uint8_t chunk[65536];
        for (;;) {
            ssize_t got = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT);
            if (got <= 0) break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    /* Sizes of the records already sent over a SOCK_SEQPACKET pair, one per send. */
    std::vector<size_t> records() const
    {
        std::vector<size_t> sizes;
        static uint8_t chunk[70000];
        for (;;) {
            ssize_t got = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT);
            if (got <= 0) break;
            sizes.push_back((size_t)got);
        }
        return sizes;
    }
    int lib = -1;
    int peer = -1;
};

/* A read buffer on the library side, set up for a message of `length` bytes. */
struct ReadBuffer {
    ReadBuffer(int fd, uint32_t length)
    {
        memset(&sb, 0, sizeof sb);
        rc = initReadBuffer(&sb, fd, length);
    }
    ~ReadBuffer() { freeBuffer(&sb); }
    SocketBuffer sb;
    int rc;
};

/* A write buffer on the library side, set up for a message of `length` bytes. */
struct WriteBuffer {
    WriteBuffer(int fd, uint32_t length)
    {
        memset(&sb, 0, sizeof sb);
        rc = initWriteBuffer(&sb, fd, length);
    }
    ~WriteBuffer()
    {
        if (sb.buffer != NULL) freeBuffer(&sb);
    }
    SocketBuffer sb;
    int rc;
};

/* The header a request writer is handed: FLOW_REQUEST, its message id and request type name. */
inline FlowHeader requestHeader(int32_t messageId, const char* requestType)
{
    FlowHeader header;
    memset(&header, 0, sizeof header);
    header.eyecatcher = FLOW_EYECATCHER;
    header.version = FLOW_VERSION;
    header.flowType = FLOW_REQUEST;
    header.messageId = messageId;
    header.requestTypeLength = (int32_t)strlen(requestType);
    memcpy(header.requestType, requestType, strlen(requestType));
    return header;
}

/* A raw loopback connection to zepgw, read the way the receiver thread reads it. */
class GatewayLink {
public:
    GatewayLink() { memset(&in, 0, sizeof in); }
    ~GatewayLink()
    {
        if (in.buffer != NULL) freeBuffer(&in);
        if (fd >= 0) close(fd);
    }
    /* Starts zepgw, connects and sends the handshake; true once the handshake reply is in. */
    bool open()
    {
        signal(SIGPIPE, SIG_IGN);
        if (!gw.start()) return false;
        fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in address;
        memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_port = htons((uint16_t)gw.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, (struct sockaddr*)&address, sizeof address) != 0) return false;
        if (initReadBuffer(&in, fd, SOCKET_BUFFER_MAX) != 0) return false;
        if (clapiFlowHandshakeRequest(fd, "WIRETEST", "") != 0) return false;
        FlowHeader header;
        return next(&header) == 0 && header.flowType == FLOW_HANDSHAKE && header.messageId == MSGID_HANDSHAKE;
    }
    /* Reads the next header and its payload into `in`, waiting at most 5 s. */
    int next(FlowHeader* header)
    {
        int rc = waitForResponse(&in, 5);
        if (rc == 0) rc = clapiReadHeader(&in, header);
        if (rc != 0) return rc;
        in.bytesRemaining += (uint32_t)header->payloadLength - in.bytesInBuffer;
        return fillBuffer(&in);
    }
    ZepgwProcess gw;
    int fd = -1;
    SocketBuffer in;
};

/* The message after the record prefix, for comparing whole texts. */
inline std::vector<std::string> messages(const TraceCapture& trace, int id)
{
    std::vector<std::string> texts;
    for (const TraceRecord& r : trace.find(id)) texts.push_back(r.type + " " + r.message);
    return texts;
}

/* The bytes a storage dump shows: the lines after a DATA record, the truncation line first. */
inline Bytes dumpedBytes(const std::vector<std::string>& lines)
{
    Bytes out;
    for (size_t i = 1; i < lines.size(); i++) {
        size_t at = lines[i].find(": ");
        if (at == std::string::npos) continue;
        std::string half = lines[i].substr(at + 2, 35);
        for (size_t k = 0; k + 1 < half.size(); k++) {
            if (half[k] == ' ') continue;
            out.push_back((uint8_t)strtoul(half.substr(k, 2).c_str(), NULL, 16));
            k++;
        }
    }
    return out;
}

/* Undoes the scrambling of a masked field. */
inline std::string unscrambled(const Bytes& wire)
{
    std::string clear(wire.size(), '\0');
    for (size_t i = 0; i < wire.size(); i++) {
        clear[i] = (char)(i == 0 ? (uint8_t)~wire[0] : (uint8_t)(wire[i] ^ (uint8_t)clear[i - 1]));
    }
    return clear;
}

/* A NUL-free text of `length` bytes that changes from byte to byte. */
inline std::string varied(size_t length, int seed = 7)
{
    std::string text(length, ' ');
    for (size_t i = 0; i < length; i++) text[i] = (char)(1 + (i * (size_t)seed) % 251);
    return text;
}

inline std::string hex(const Bytes& bytes)
{
    std::string out;
    char two[4];
    for (uint8_t byte : bytes) {
        snprintf(two, sizeof two, "%02X ", byte);
        out += two;
    }
    return out;
}

#endif
