#include "raw_client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace gwtest {

namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

Clock::time_point after(double seconds)
{
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// One recv once data are there: the count, 0 at the end of the stream,
// -1 on an error or when the deadline passes first.
ssize_t recvBefore(int fd, uint8_t* into, size_t n, Clock::time_point deadline)
{
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, msLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return -1;
        const ssize_t r = ::recv(fd, into, n, 0);
        if (r >= 0 || errno != EINTR)
            return r < 0 ? -1 : r;
    }
}

}  // namespace

Bytes handshakePayload(const std::string& applid, const std::string& qualifier)
{
    return cat({hex("0002656E 00024742 00000000 00000000 0000"),
                Bytes{0, uint8_t(applid.size())}, ascii(applid),
                Bytes{0, uint8_t(qualifier.size())}, ascii(qualifier)});
}

Bytes name16(const std::string& name)
{
    Bytes b = ascii(name);
    b.resize(16, 0);
    return b;
}

Bytes eciPayload(const EciCall& c)
{
    const int32_t length =
        c.commareaLength >= 0 ? c.commareaLength : static_cast<int32_t>(c.commarea.size());
    Bytes userid = ascii(c.userid);
    userid.resize(16, 0);
    Bytes out = cat({be32(c.kind), be32(c.extendMode), be32(c.luwToken), be32(0), hex("00"),
                     be32(8), ascii(c.system), userid,
                     be32(static_cast<int32_t>(c.password.size())), Wire().scrambled(c.password).b,
                     ascii(c.program), ascii(c.transid), be32(0), be32(length)});
    out = cat({out, c.outboundLength > 0 ? cat({hex("FF"), be32(c.outboundLength)}) : hex("00"),
               c.inboundLength > 0 ? cat({hex("FF"), be32(c.inboundLength)}) : hex("00"),
               c.commarea});
    out = cat({out, c.channel.empty() ? hex("00") : cat({hex("FF"), c.channel}),
               Bytes{uint8_t(c.timeout >> 8), uint8_t(c.timeout)}, hex("00"), hex("FFFFFFFF"),
               be32(c.correlator)});
    return out;
}

Bytes eciMessage(int32_t messageId, const EciCall& call)
{
    const Bytes p = eciPayload(call);
    return cat({header(1, messageId, "ECI", p.size()), p});
}

Bytes channelSection(const std::string& name, int32_t ccsid,
                     std::initializer_list<Bytes> containers)
{
    Bytes out = cat({name16(name), be32(ccsid), be32(static_cast<int32_t>(containers.size()))});
    for (const Bytes& c : containers)
        out.insert(out.end(), c.begin(), c.end());
    return out;
}

Bytes containerRecord(const std::string& name, uint8_t type, int32_t ccsid, const Bytes& data)
{
    return cat({name16(name), Bytes{1, 0, 0, type}, be32(ccsid),
                be32(static_cast<int32_t>(data.size())), data});
}

int32_t flowType(const Bytes& message) { return wordAt(message, 8); }
int32_t messageId(const Bytes& message) { return wordAt(message, 12); }
int32_t headerReturnCode(const Bytes& message) { return wordAt(message, 16); }

std::string requestType(const Bytes& message)
{
    const int32_t n = wordAt(message, 20);
    if (n < 0 || message.size() < 24 + size_t(n))
        return std::string();
    return std::string(message.begin() + 24, message.begin() + 24 + n);
}

Bytes payload(const Bytes& message)
{
    const size_t start = 24 + requestType(message).size() + 5;
    if (message.size() < start)
        return Bytes();
    return Bytes(message.begin() + start, message.end());
}

RawClient::~RawClient() { close(); }

void RawClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

void RawClient::endSending()
{
    ::shutdown(fd_, SHUT_WR);
}

bool RawClient::connect(int port)
{
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

bool RawClient::send(const Bytes& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool RawClient::readExactly(uint8_t* into, size_t n, double seconds)
{
    const Clock::time_point deadline = after(seconds);
    size_t got = 0;
    while (got < n) {
        const ssize_t r = recvBefore(fd_, into + got, n - got, deadline);
        if (r <= 0)
            return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool RawClient::read(Bytes& message, double seconds)
{
    message.assign(24, 0);
    if (!readExactly(message.data(), 24, seconds))
        return false;
    const int32_t typeLength = wordAt(message, 20);
    if (typeLength < 0 || typeLength > 64)
        return false;
    message.resize(24 + typeLength + 5);
    if (!readExactly(message.data() + 24, typeLength + 5, seconds))
        return false;
    const int32_t length = wordAt(message, 24 + typeLength + 1);
    if (length < 0 || length > (1 << 24))
        return false;
    const size_t start = message.size();
    message.resize(start + length);
    return readExactly(message.data() + start, length, seconds);
}

bool RawClient::waitClosed(double seconds, Bytes* rest)
{
    const Clock::time_point deadline = after(seconds);
    uint8_t buf[4096];
    ssize_t r;
    while ((r = recvBefore(fd_, buf, sizeof buf, deadline)) > 0) {
        if (rest != nullptr)
            rest->insert(rest->end(), buf, buf + r);
    }
    // A reset counts as closed too; only the deadline does not.
    return r == 0 || Clock::now() < deadline;
}

bool RawClient::handshake(const std::string& applid)
{
    const Bytes hs = handshakePayload(applid);
    Bytes answer;
    return send(cat({header(5, -2, "BASE", hs.size()), hs})) && read(answer) &&
           flowType(answer) == 5;
}

bool RawClient::call(const Bytes& request, Bytes& answer, double seconds)
{
    return send(request) && read(answer, seconds);
}

Bytes exchange(RawClient& client, const std::string& type, int32_t id, const Bytes& p,
               std::string& problem)
{
    Bytes answer;
    if (!client.call(cat({header(1, id, type, p.size()), p}), answer)) {
        problem = "no answer";
        return Bytes();
    }
    problem.clear();
    if (flowType(answer) != 3)
        problem += " flow type " + std::to_string(flowType(answer));
    if (messageId(answer) != id)
        problem += " message id " + std::to_string(messageId(answer));
    if (headerReturnCode(answer) != 0)
        problem += " return code " + std::to_string(headerReturnCode(answer));
    if (requestType(answer) != type)
        problem += " request type " + requestType(answer);
    return payload(answer);
}

}  // namespace gwtest
