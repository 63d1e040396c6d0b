// One feeder for every fuzz target: the input reaches the library through a socketpair, as a Gateway's bytes
// would, either whole, one byte at a time or in random pieces. The first input byte chooses how.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "clapi_impl.h"
#include "clapi_internal.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "zepclient.h"

using Bytes = std::string;

inline Bytes be32(int32_t v)
{
    Bytes out;
    for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(static_cast<uint32_t>(v) >> shift);
    return out;
}

// A whole message as a Gateway frames it around `payload`.
inline Bytes message(int32_t flowType, int32_t messageId, const Bytes& type, const Bytes& payload)
{
    return be32(FLOW_EYECATCHER) + be32(FLOW_VERSION) + be32(flowType) + be32(messageId) + be32(0) +
           be32(static_cast<int32_t>(type.size())) + type + Bytes(1, '\0') +
           be32(static_cast<int32_t>(payload.size())) + payload;
}

class Feed {
public:
    Feed(uint8_t how, Bytes bytes) : bytes_(std::move(bytes))
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) abort();
        writer_ = std::thread([this, how] { write(how); });
    }
    // The reading end goes first, so that a writer blocked on a reader that stopped early fails and ends.
    ~Feed()
    {
        close(fds_[0]);
        writer_.join();
        close(fds_[1]);
    }
    int fd() const { return fds_[0]; }

private:
    void write(uint8_t how)
    {
        std::minstd_rand pieces(how);
        for (size_t at = 0; at < bytes_.size();) {
            size_t piece = how % 3 == 0 ? bytes_.size() - at : how % 3 == 1 ? 1 : 1 + pieces() % 64;
            ssize_t sent = send(fds_[1], bytes_.data() + at, std::min(piece, bytes_.size() - at), MSG_NOSIGNAL);
            if (sent <= 0) break;
            at += static_cast<size_t>(sent);
        }
        shutdown(fds_[1], SHUT_WR);
    }

    Bytes bytes_;
    int fds_[2] = {-1, -1};
    std::thread writer_;
};

// The receiver's read buffer on the feed, positioned at the payload of its first message; false when the
// header or the payload could not be read.
struct Reader {
    explicit Reader(int fd)
    {
        clapiInit();
        ok = initReadBuffer(&sb, fd, 33000) == 0 && clapiReadHeader(&sb, &header) == 0;
        if (ok) sb.bytesRemaining += static_cast<uint32_t>(header.payloadLength) - sb.bytesInBuffer;
        ok = ok && fillBuffer(&sb) == 0;
    }
    ~Reader() { freeBuffer(&sb); }
    SocketBuffer sb{};
    FlowHeader header{};
    bool ok = false;
};

// The fuzz input as the feeder's choice and the rest.
struct Input {
    Input(const uint8_t* data, size_t size)
        : how(size > 0 ? data[0] : 0), rest(size > 0 ? Bytes(reinterpret_cast<const char*>(data) + 1, size - 1) : "")
    {
    }
    uint8_t how;
    Bytes rest;
};
