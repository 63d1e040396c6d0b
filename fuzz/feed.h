// One feeder for every fuzz target: the input reaches the library through a socketpair, as a Gateway's bytes
// would, either whole, one byte at a time or in random pieces. The first input byte chooses how.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "bytes.h"
#include "clapi_impl.h"
#include "clapi_internal.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"
#include "zepclient.h"

class Feed {
public:
    // The input after its first byte and `skip` more is fed as it is, or as the payload of message 1 of
    // `flowType` and `type` framed as a Gateway frames it.
    Feed(const uint8_t* data, size_t size, int32_t flowType = 0, const char* type = nullptr, size_t skip = 0)
        : rest(data + std::min(size, 1 + skip), data + size)
    {
        const int32_t length = static_cast<int32_t>(rest.size());
        bytes_ = type == nullptr ? rest : Wire().header(flowType, 1, type, length).raw(rest).b;
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) abort();
        writer_ = std::thread([this, how = size > 0 ? data[0] : 0] { write(how); });
    }
    // The reading end goes first, so that a writer blocked on a reader that stopped early fails and ends.
    ~Feed()
    {
        close(fds_[0]);
        writer_.join();
        close(fds_[1]);
    }
    int fd() const { return fds_[0]; }
    Bytes rest;

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

// The receiver's read buffer on a feed of one reply of `type`, positioned at its payload; aborts when the
// header or the payload could not be read, as ours are always whole.
struct Reader {
    Reader(const uint8_t* data, size_t size, const char* type, size_t skip = 0)
        : feed(data, size, FLOW_REPLY, type, skip)
    {
        clapiInit();
        bool ok = initReadBuffer(&sb, feed.fd(), 33000) == 0 && clapiReadHeader(&sb, &header) == 0;
        if (ok) sb.bytesRemaining += static_cast<uint32_t>(header.payloadLength) - sb.bytesInBuffer;
        if (!ok || fillBuffer(&sb) != 0) abort();
    }
    ~Reader() { freeBuffer(&sb); }
    Feed feed;
    SocketBuffer sb{};
    FlowHeader header{};
};
