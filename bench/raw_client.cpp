// The yardstick: the smallest client of the Gateway protocol that can carry
// ECHO calls, written from the wire layouts alone and sharing no code with the
// library or with zepgw. It shows the most one connection to a Gateway can carry.
//
//     raw_client --port N [--host H] [--workload sync|pipeline] [--size B]
//                [--depth K] [--writes each|one] [--seconds S]
//
// sync: one request on the wire at a time; the line has p50/p99 latencies.
// pipeline: K requests go out back to back, each in its own write as a client
// making individual calls must send them (--writes one: all K in one write),
// then the K replies are read.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <vector>

#include "bench_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kEyecatcher = 0x47617465;  // "Gate"
constexpr uint32_t kVersion = 0x10901000;
constexpr int32_t kFlowRequest = 1;
constexpr int32_t kFlowReply = 3;
constexpr int32_t kFlowHandshake = 5;
constexpr int32_t kHandshakeId = -2;
constexpr size_t kFixedHeader = 24;  // the six ints before the request type name

struct Settings {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string workload = "sync";
    long size = 64;
    long depth = 1000;
    bool oneWrite = false;
    double seconds = 1.0;
};

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

void putInt(Bytes& out, int32_t v)
{
    const uint32_t u = static_cast<uint32_t>(v);
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(u >> shift));
}

void putText(Bytes& out, const char* text, size_t n)
{
    out.insert(out.end(), text, text + n);
}

int32_t getInt(const uint8_t* p)
{
    return static_cast<int32_t>((uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) |
                                (uint32_t(p[2]) << 8) | uint32_t(p[3]));
}

void putHeader(Bytes& out, int32_t flowType, int32_t messageId, const char* requestType,
               size_t payloadLength)
{
    putInt(out, static_cast<int32_t>(kEyecatcher));
    putInt(out, static_cast<int32_t>(kVersion));
    putInt(out, flowType);
    putInt(out, messageId);
    putInt(out, 0);
    const size_t typeLength = std::strlen(requestType);
    putInt(out, static_cast<int32_t>(typeLength));
    putText(out, requestType, typeLength);
    out.push_back(0);  // flags
    putInt(out, static_cast<int32_t>(payloadLength));
}

// Handshake with an empty APPLID and qualifier: the locale block and two zero lengths.
Bytes handshake()
{
    static const uint8_t locale[18] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};
    Bytes out;
    putHeader(out, kFlowHandshake, kHandshakeId, "BASE", sizeof locale + 4);
    out.insert(out.end(), locale, locale + sizeof locale);
    putInt(out, 0);  // two 2-byte lengths of 0
    return out;
}

// ECI request kind 1 for program ECHO on the first system, no user, `size` bytes of COMMAREA.
void appendEchoRequest(Bytes& out, int32_t messageId, size_t size)
{
    putHeader(out, kFlowRequest, messageId, "ECI", 15 + 68 + size);
    putInt(out, 1);                 // kind
    putInt(out, 0);                 // extend mode
    putInt(out, 0);                 // LUW token
    putInt(out, 0);                 // reserved
    out.push_back(0);               // reserved
    putInt(out, 8);                 // system name length
    putText(out, "        ", 8);    // blanks: the Gateway's first system
    out.insert(out.end(), 16, 0);   // user id
    putInt(out, 0);                 // password length
    putText(out, "ECHO    ", 8);
    out.insert(out.end(), 4, 0);    // transaction id
    putInt(out, 0);                 // extra length
    putInt(out, static_cast<int32_t>(size));
    out.push_back(0);               // no outbound length
    out.push_back(0);               // no inbound length
    out.insert(out.end(), size, 'b');
    out.push_back(0);               // no channel
    out.push_back(0);               // time-out
    out.push_back(0);
    out.push_back(0);               // reserved
    putInt(out, -1);                // no optional strings
    putInt(out, messageId);         // correlator
}

class Wire {
public:
    explicit Wire(const Settings& s) : in_(64 * 1024 + 2 * size_t(s.size))
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd_ < 0)
            throw std::system_error(errno, std::generic_category(), "socket");
        const int on = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(s.port));
        if (::inet_pton(AF_INET, s.host.c_str(), &a.sin_addr) != 1)
            fail("--host wants a numeric IPv4 address, not '" + s.host + "'");
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            throw std::system_error(errno, std::generic_category(),
                                    "connect to " + s.host + ":" + std::to_string(s.port));
    }
    ~Wire() { ::close(fd_); }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    void send(const Bytes& message)
    {
        size_t done = 0;
        while (done < message.size()) {
            const ssize_t n = ::send(fd_, message.data() + done, message.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw std::system_error(errno, std::generic_category(), "send");
            done += size_t(n);
        }
    }

    // The next whole message; checks its flow type and message id and returns its payload.
    const uint8_t* receive(int32_t flowType, int32_t messageId)
    {
        size_t length = 0;
        while ((length = completeMessage()) == 0)
            fill();
        const uint8_t* m = in_.data() + begin_;
        if (uint32_t(getInt(m)) != kEyecatcher || getInt(m + 8) != flowType ||
            getInt(m + 12) != messageId)
            fail("unexpected message: flow type " + std::to_string(getInt(m + 8)) +
                 ", message id " + std::to_string(getInt(m + 12)) + ", wanted " +
                 std::to_string(flowType) + "/" + std::to_string(messageId));
        begin_ += length;
        return m + (kFixedHeader + size_t(getInt(m + 20)) + 5);
    }

private:
    // The length of the message at begin_ when all of it is buffered, else 0.
    size_t completeMessage() const
    {
        const size_t have = end_ - begin_;
        if (have < kFixedHeader)
            return 0;
        const uint8_t* m = in_.data() + begin_;
        const size_t header = kFixedHeader + size_t(getInt(m + 20)) + 5;
        if (have < header)
            return 0;
        const size_t total = header + size_t(getInt(m + header - 4));
        return have >= total ? total : 0;
    }

    void fill()
    {
        if (begin_ == end_) {
            begin_ = end_ = 0;
        } else if (end_ == in_.size()) {
            std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        const ssize_t n = ::recv(fd_, in_.data() + end_, in_.size() - end_, 0);
        if (n < 0 && errno == EINTR)
            return;
        if (n < 0)
            throw std::system_error(errno, std::generic_category(), "recv");
        if (n == 0)
            fail("the Gateway closed the connection");
        end_ += size_t(n);
    }

    int fd_ = -1;
    Bytes in_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

void expectEchoReply(const uint8_t* payload)
{
    const int32_t rc = getInt(payload + 12);
    if (rc != 0)
        fail("ECHO answered return code " + std::to_string(rc));
}

void runSync(Wire& wire, const Settings& s)
{
    Bytes request;
    appendEchoRequest(request, 1, size_t(s.size));
    bench::Latencies latencies;
    latencies.reserve(1 << 20);
    long calls = 0;
    const auto start = bench::Clock::now();
    const auto deadline = start + std::chrono::duration_cast<bench::Clock::duration>(
                                      std::chrono::duration<double>(s.seconds));
    for (auto now = start; now < deadline; ++calls) {
        wire.send(request);
        expectEchoReply(wire.receive(kFlowReply, 1));
        const auto done = bench::Clock::now();
        latencies.add(done - now);
        now = done;
    }
    bench::printResult("sync" + std::to_string(s.size), calls, bench::secondsSince(start),
                       &latencies);
}

void runPipeline(Wire& wire, const Settings& s)
{
    std::vector<Bytes> writes(s.oneWrite ? 1 : size_t(s.depth));
    for (int32_t id = 1; id <= s.depth; ++id)
        appendEchoRequest(writes[s.oneWrite ? 0 : size_t(id - 1)], id, size_t(s.size));
    long calls = 0;
    const auto start = bench::Clock::now();
    const auto deadline = start + std::chrono::duration_cast<bench::Clock::duration>(
                                      std::chrono::duration<double>(s.seconds));
    while (bench::Clock::now() < deadline) {
        for (const Bytes& message : writes)
            wire.send(message);
        for (int32_t id = 1; id <= s.depth; ++id)
            expectEchoReply(wire.receive(kFlowReply, id));
        calls += s.depth;
    }
    bench::printResult("pipeline" + std::to_string(s.depth) + "x" + std::to_string(s.size),
                       calls, bench::secondsSince(start), nullptr);
}

Settings parse(int argc, char** argv, bool& run)
{
    Settings s;
    const std::vector<bench::Option> options = {
        {"--host", "H", "numeric IPv4 address of the Gateway (default 127.0.0.1)",
         [&](std::string_view v) { s.host = std::string(v); }},
        {"--port", "N", "the Gateway's port (required)",
         [&](std::string_view v) { s.port = int(bench::parseLong("--port", v, 1, 65535)); }},
        {"--workload", "W", "sync (default) or pipeline",
         [&](std::string_view v) {
             if (v != "sync" && v != "pipeline")
                 throw bench::UsageError("--workload wants sync or pipeline, not '" +
                                         std::string(v) + "'");
             s.workload = std::string(v);
         }},
        {"--size", "B", "COMMAREA bytes per call, 0 to 32767 (default 64)",
         [&](std::string_view v) { s.size = bench::parseLong("--size", v, 0, 32767); }},
        {"--depth", "K", "requests per pipeline batch, 1 to 10000 (default 1000)",
         [&](std::string_view v) { s.depth = bench::parseLong("--depth", v, 1, 10000); }},
        {"--writes", "W", "pipeline requests each in its own write (each, default) or all in one (one)",
         [&](std::string_view v) {
             if (v != "each" && v != "one")
                 throw bench::UsageError("--writes wants each or one, not '" + std::string(v) + "'");
             s.oneWrite = v == "one";
         }},
        {"--seconds", "S", "how long to run (default 1)",
         [&](std::string_view v) { s.seconds = bench::parseSeconds("--seconds", v); }},
    };
    run = bench::parseOptions(
        argc, argv, options,
        "raw_client: ECHO calls over one connection, written from the wire layouts alone\n"
        "usage: raw_client --port N [options]");
    if (run && s.port == 0)
        throw bench::UsageError("--port is required");
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    return bench::runMain("raw_client", [&] {
        bool run = false;
        const Settings s = parse(argc, argv, run);
        if (!run)
            return 0;
        Wire wire(s);
        wire.send(handshake());
        wire.receive(kFlowHandshake, kHandshakeId);
        if (s.workload == "sync")
            runSync(wire, s);
        else
            runPipeline(wire, s);
        return 0;
    });
}
