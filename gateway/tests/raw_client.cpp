#include "raw_client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace gwtest {

namespace {

using Clock = std::chrono::steady_clock;

// One recv once data are there: the count, 0 at the end of the stream, -1 on an error or after the deadline.
ssize_t recvBefore(int fd, uint8_t* into, size_t n, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, left < 0 ? 0 : static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return -1;
        const ssize_t r = ::recv(fd, into, n, 0);
        if (r >= 0 || errno != EINTR) return r < 0 ? -1 : r;
    }
}

Clock::time_point after(double seconds)
{
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

Bytes handshake(const std::string& applid)
{
    return message(5, -2, "BASE", cat({hex("0002656E 00024742 00000000 00000000 0000"), Wire().i16(int32_t(applid.size())).b,
                                       ascii(applid), hex("0000")}));
}

Bytes payload(const Bytes& message)
{
    const size_t start = 24 + static_cast<size_t>(wordAt(message, 20)) + 5;
    return message.size() < start ? Bytes() : Bytes(message.begin() + static_cast<long>(start), message.end());
}

Bytes eciPayload(const EciCall& c)
{
    const int32_t length = c.commareaLength >= 0 ? c.commareaLength : static_cast<int32_t>(c.commarea.size());
    Wire w;
    w.i32(1).i32(c.extendMode).i32(c.luwToken).i32(0).u8(0).i32(8).text(c.system).field(c.userid, 16);
    w.i32(static_cast<int32_t>(c.password.size())).scrambled(c.password).text(c.program).text(c.transid);
    w.i32(0).i32(length).u8(0).u8(0).text(c.commarea);
    if (c.channel.empty()) w.u8(0); else w.u8(0xFF).raw(c.channel);
    return w.i16(c.timeout).u8(0).i32(-1).i32(7).b;
}

void RawClient::close()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void RawClient::endSending() { ::shutdown(fd_, SHUT_WR); }

bool RawClient::connect(int port, const std::string& applid)
{
    close();
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int on = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return false;
    Bytes answer;
    return applid.empty() || (call(handshake(applid), answer) && wordAt(answer, 8) == 5);
}

bool RawClient::send(const Bytes& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool RawClient::readExactly(uint8_t* into, size_t n, double seconds)
{
    const Clock::time_point deadline = after(seconds);
    for (size_t got = 0; got < n;) {
        const ssize_t r = recvBefore(fd_, into + got, n - got, deadline);
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool RawClient::read(Bytes& message, double seconds)
{
    message.assign(24, 0);
    if (!readExactly(message.data(), 24, seconds)) return false;
    const int32_t typeLength = wordAt(message, 20);
    if (typeLength < 0 || typeLength > 64) return false;
    message.resize(24 + static_cast<size_t>(typeLength) + 5);
    if (!readExactly(message.data() + 24, static_cast<size_t>(typeLength) + 5, seconds)) return false;
    const int32_t length = wordAt(message, 24 + static_cast<size_t>(typeLength) + 1);
    if (length < 0 || length > (1 << 24)) return false;
    const size_t start = message.size();
    message.resize(start + static_cast<size_t>(length));
    return readExactly(message.data() + start, static_cast<size_t>(length), seconds);
}

bool RawClient::waitClosed(double seconds, Bytes* rest)
{
    const Clock::time_point deadline = after(seconds);
    uint8_t buf[4096];
    ssize_t r;
    while ((r = recvBefore(fd_, buf, sizeof buf, deadline)) > 0)
        if (rest != nullptr) rest->insert(rest->end(), buf, buf + r);
    // A reset counts as closed too; only the deadline does not.
    return r == 0 || Clock::now() < deadline;
}

}  // namespace gwtest
