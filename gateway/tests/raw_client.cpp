#include "raw_client.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace gwtest {

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
    const timeval limit{5, 0};
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return false;
    Bytes answer;
    return applid.empty() || (call(handshake(applid), answer) && wordAt(answer, 8) == 5);
}

bool RawClient::send(const Bytes& bytes)
{
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool RawClient::waitClosed(Bytes* rest)
{
    uint8_t buf[4096];
    ssize_t r;
    while ((r = ::recv(fd_, buf, sizeof buf, 0)) > 0)
        if (rest != nullptr) rest->insert(rest->end(), buf, buf + r);
    // A reset counts as closed too; only the time-out does not.
    return r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
}

}  // namespace gwtest
