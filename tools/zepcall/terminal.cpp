#include "terminal.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace zepcall {

namespace {

// The terminal whose echo is off, so that a signal during the prompt can turn it back on.
int echoOffFd = -1;
struct termios savedTerminal;

extern "C" void restoreEchoAndDie(int sig)
{
    if (echoOffFd >= 0)
        tcsetattr(echoOffFd, TCSAFLUSH, &savedTerminal);
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

// Turns echo off on `fd` for its lifetime; echo is off before anything is prompted for.
class EchoOff {
public:
    explicit EchoOff(int fd)
    {
        if (tcgetattr(fd, &savedTerminal) != 0)
            throw LocalError("the terminal could not be set up for a password");
        echoOffFd = fd;
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            std::signal(sig, restoreEchoAndDie);
        struct termios quiet = savedTerminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
        quiet.c_lflag |= ICANON;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    ~EchoOff()
    {
        tcsetattr(echoOffFd, TCSAFLUSH, &savedTerminal);
        echoOffFd = -1;
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            std::signal(sig, SIG_DFL);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
};

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { if (fd_ >= 0) close(fd_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string readLine(int fd)
{
    std::string line;
    line.reserve(256);  // a typed password is not left behind in regrown buffers
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n')
        line += c;
    return line;
}

}  // namespace

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw LocalError(path + ": " + std::strerror(errno));
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        throw LocalError(path + ": could not be read");
    return content.str();
}

std::string readStandardInput()
{
    std::string content;
    char buffer[4096];
    ssize_t got;
    while ((got = read(STDIN_FILENO, buffer, sizeof buffer)) > 0)
        content.append(buffer, static_cast<size_t>(got));
    if (got < 0)
        throw LocalError(std::string("standard input: ") + std::strerror(errno));
    return content;
}

std::string password(const char* variable, const std::string& prompt)
{
    if (const char* value = std::getenv(variable))
        return value;
    Descriptor tty(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (tty.get() < 0)
        throw LocalError(std::string("no password: set ") + variable + " or run zepcall on a terminal");
    std::string secret;
    {
        EchoOff quiet(tty.get());
        if (write(tty.get(), prompt.data(), prompt.size()) < 0)
            throw LocalError("the terminal could not be written");
        secret = readLine(tty.get());
    }
    if (write(tty.get(), "\n", 1) < 0)
        throw LocalError("the terminal could not be written");
    return secret;
}

bool standardErrorIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void wipe(std::string& secret)
{
    volatile char* p = secret.empty() ? nullptr : &secret[0];
    for (size_t i = 0; i < secret.size(); ++i)
        p[i] = 0;
    secret.clear();
}

}  // namespace zepcall
