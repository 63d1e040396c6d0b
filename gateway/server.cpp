#include "server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"

namespace zepgw {

namespace {

constexpr char kWakeSignal = 'S';
constexpr char kWakeEnded = 'E';

// A client that stops reading for this long loses its connection.
constexpr int kSendTimeoutSeconds = 20;

int wakeFd = -1;  // for the signal handler

extern "C" void onStopSignal(int)
{
    const int saved = errno;
    const char c = kWakeSignal;
    if (::write(wakeFd, &c, 1) < 0) {
        // Nothing to do: a full pipe already holds a wake-up.
    }
    errno = saved;
}

void installSignals()
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int boundPort(int fd)
{
    sockaddr_storage addr;
    socklen_t len = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return -1;
    if (addr.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
}

void setOption(int fd, int level, int name, const void* value, socklen_t size)
{
    if (::setsockopt(fd, level, name, value, size) != 0)
        logLine("setsockopt %d/%d: %s", level, name, std::strerror(errno));
}

}  // namespace

Server::Server(const Options& options, const SystemTable& systems, UserTable& users)
    : options_(options),
      context_{options, systems, users, scheduler_, [this] {
                   const char c = kWakeEnded;
                   if (::write(wakeWrite_, &c, 1) < 0) {
                       // The pipe is full of wake-ups already.
                   }
               }},
      idleSince_(std::chrono::steady_clock::now())
{
}

Server::~Server()
{
    for (int fd : {listenFd_, wakeRead_, wakeWrite_}) {
        if (fd >= 0)
            ::close(fd);
    }
}

bool Server::listen()
{
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(options_.port);
    const int rc = ::getaddrinfo(options_.host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0) {
        logLine("cannot resolve %s: %s", options_.host.c_str(), gai_strerror(rc));
        return false;
    }
    listenFd_ = ::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
    const int on = 1;
    if (listenFd_ >= 0)
        setOption(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const bool ok = listenFd_ >= 0 && ::bind(listenFd_, found->ai_addr, found->ai_addrlen) == 0 &&
                    ::listen(listenFd_, 128) == 0;
    if (!ok)
        logLine("cannot listen on %s port %d: %s", options_.host.c_str(), options_.port,
                std::strerror(errno));
    ::freeaddrinfo(found);
    return ok;
}

int Server::run()
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        logLine("pipe: %s", std::strerror(errno));
        return 1;
    }
    wakeRead_ = pipeFds[0];
    wakeWrite_ = wakeFd = pipeFds[1];
    installSignals();
    if (!listen())
        return 1;
    const int port = boundPort(listenFd_);
    if (options_.port == 0) {
        std::printf("%d\n", port);
        std::fflush(stdout);
    }
    logLine("listening on %s port %d", options_.host.c_str(), port);
    scheduler_.start();
    if (options_.pingSeconds > 0)
        scheduler_.every(std::chrono::seconds(options_.pingSeconds), [this] { pingAll(); });
    serve();
    stopAll();
    logLine("stopped");
    return 0;
}

void Server::serve()
{
    pollfd fds[3] = {{wakeRead_, POLLIN, 0}, {listenFd_, POLLIN, 0}, {0, POLLIN, 0}};
    const nfds_t count = options_.exitOnStdinEof ? 3 : 2;
    for (;;) {
        const int timeout = pollTimeout();
        if (timeout == 0) {
            logLine("no client for %d seconds", options_.idleExitSeconds);
            return;
        }
        const int ready = ::poll(fds, count, timeout);
        if (ready < 0 && errno != EINTR) {
            logLine("poll: %s", std::strerror(errno));
            return;
        }
        if (ready <= 0)
            continue;
        if (fds[0].revents != 0 && !handleWake())
            return;
        if (count == 3 && fds[2].revents != 0) {
            char sink[256];
            if (::read(0, sink, sizeof sink) <= 0) {
                logLine("end of standard input");
                return;
            }
        }
        if (fds[1].revents != 0)
            accept();
    }
}

bool Server::handleWake()
{
    char wakes[64];
    const ssize_t n = ::read(wakeRead_, wakes, sizeof wakes);
    for (ssize_t i = 0; i < n; ++i) {
        if (wakes[i] == kWakeSignal) {
            logLine("stop signal");
            return false;
        }
    }
    reapEnded();
    return true;
}

// Milliseconds until the idle limit is reached, -1 for no limit.
int Server::pollTimeout() const
{
    if (options_.idleExitSeconds == 0 || !clients_.empty())
        return -1;
    const auto limit = idleSince_ + std::chrono::seconds(options_.idleExitSeconds);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        limit - std::chrono::steady_clock::now());
    return left.count() <= 0 ? 0 : static_cast<int>(left.count()) + 1;
}

void Server::accept()
{
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED)
            logLine("accept: %s", std::strerror(errno));
        return;
    }
    const int on = 1;
    setOption(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval sendLimit{kSendTimeoutSeconds, 0};
    setOption(fd, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
    auto connection = std::make_shared<Connection>(fd, nextNumber_++, context_);
    std::lock_guard<std::mutex> lock(clientsMutex_);
    clients_.push_back(Client{connection, std::thread(&Connection::run, connection)});
}

void Server::reapEnded()
{
    std::vector<Client> ended;
    {
        std::lock_guard<std::mutex> lock(clientsMutex_);
        for (auto it = clients_.begin(); it != clients_.end();) {
            if (it->connection->ended()) {
                ended.push_back(std::move(*it));
                it = clients_.erase(it);
            } else {
                ++it;
            }
        }
        if (clients_.empty())
            idleSince_ = std::chrono::steady_clock::now();
    }
    for (Client& c : ended)
        c.thread.join();
}

void Server::stopAll()
{
    ::close(listenFd_);
    listenFd_ = -1;
    std::vector<Client> all;
    {
        std::lock_guard<std::mutex> lock(clientsMutex_);
        all.swap(clients_);
    }
    for (Client& c : all)
        c.connection->abort();
    // Pending delayed replies hold connections; drop them before the joins.
    scheduler_.stop();
    for (Client& c : all)
        c.thread.join();
}

// Runs on the scheduler thread.
void Server::pingAll()
{
    std::vector<std::shared_ptr<Connection>> targets;
    {
        std::lock_guard<std::mutex> lock(clientsMutex_);
        for (const Client& c : clients_)
            targets.push_back(c.connection);
    }
    for (const auto& c : targets)
        c->ping();
}

}  // namespace zepgw
