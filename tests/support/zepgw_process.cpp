#include "zepgw_process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point deadlineAfter(double seconds)
{
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(seconds));
}

int msUntil(Clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// Polls until waitpid reports the child (its exit, or also a stop with
// WUNTRACED in options) or the deadline passes.
bool reap(pid_t pid, Clock::time_point deadline, int* status, int options = 0)
{
    for (;;) {
        const pid_t r = ::waitpid(pid, status, options | WNOHANG);
        if (r == pid)
            return true;
        if (r < 0 && errno != EINTR)
            return false;
        if (Clock::now() >= deadline)
            return false;
        const timespec pause{0, 2 * 1000 * 1000};
        ::nanosleep(&pause, nullptr);
    }
}

void closeFd(int& fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

// The pipes for zepgw's standard input and output, close-on-exec here.
bool openPipes(int in[2], int out[2])
{
    if (::pipe2(in, O_CLOEXEC) != 0)
        return false;
    if (::pipe2(out, O_CLOEXEC) == 0)
        return true;
    ::close(in[0]);
    ::close(in[1]);
    return false;
}

// Spawns zepgw with the three descriptors as its standard streams.
pid_t spawn(const std::vector<std::string>& args, int in, int out, int err)
{
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(ZepgwProcess::path()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        std::fprintf(stderr, "cannot start %s: %s\n", argv[0], std::strerror(rc));
        return -1;
    }
    return pid;
}

// Reads what is available into text until the deadline or the end of the
// stream; stops early when stopAtNewline and a newline has come.
bool readUntil(int fd, std::string& text, Clock::time_point deadline, bool stopAtNewline)
{
    for (;;) {
        if (stopAtNewline && text.find('\n') != std::string::npos)
            return true;
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, msUntil(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        char buf[4096];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return !stopAtNewline;
        text.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace

const char* ZepgwProcess::path()
{
    return ZEPGW_PATH;
}

ZepgwProcess::~ZepgwProcess()
{
    if (pid_ > 0 && !exited_)
        stop();
    closeFds();
    // Shown by the test runner when a test fails.
    const std::string text = log();
    if (!text.empty())
        std::fputs(text.c_str(), stderr);
    closeFd(logFd_);
}

bool ZepgwProcess::start(std::vector<std::string> extraArgs)
{
    if (pid_ > 0)
        return false;
    closeFd(logFd_);
    int in[2], out[2];
    if (!openPipes(in, out))
        return false;
    logFd_ = ::memfd_create("zepgw-log", MFD_CLOEXEC);
    std::vector<std::string> args = {"--port", "0", "--exit-on-stdin-eof"};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    pid_ = spawn(args, in[0], out[1], logFd_ >= 0 ? logFd_ : 2);
    ::close(in[0]);
    ::close(out[1]);
    stdinFd_ = in[1];
    stdoutFd_ = out[0];
    exited_ = false;
    if (pid_ > 0 && readPortLine(10))
        return true;
    if (pid_ > 0)
        stop();
    pid_ = -1;
    closeFds();
    return false;
}

bool ZepgwProcess::readPortLine(double seconds)
{
    std::string line;
    if (!readUntil(stdoutFd_, line, deadlineAfter(seconds), true))
        return false;
    char* end = nullptr;
    const long p = std::strtol(line.c_str(), &end, 10);
    if (end == line.c_str() || *end != '\n' || p <= 0 || p > 65535)
        return false;
    port_ = static_cast<int>(p);
    return true;
}

void ZepgwProcess::closeFds()
{
    closeFd(stdinFd_);
    closeFd(stdoutFd_);
}

void ZepgwProcess::closeInput()
{
    closeFd(stdinFd_);
}

bool ZepgwProcess::signal(int sig)
{
    if (pid_ <= 0 || exited_ || ::kill(pid_, sig) != 0)
        return false;
    if (sig == SIGSTOP || sig == SIGCONT)
        paused_ = sig == SIGSTOP;
    return true;
}

bool ZepgwProcess::pause()
{
    int st = 0;
    if (!signal(SIGSTOP) || !reap(pid_, deadlineAfter(10), &st, WUNTRACED))
        return false;
    if (WIFSTOPPED(st))
        return true;
    exited_ = true;
    status_ = st;
    return false;
}

bool ZepgwProcess::resume()
{
    return signal(SIGCONT);
}

bool ZepgwProcess::waitExit(double seconds, int* status)
{
    if (pid_ <= 0)
        return false;
    if (!exited_)
        exited_ = reap(pid_, deadlineAfter(seconds), &status_);
    if (exited_ && status != nullptr)
        *status = status_;
    return exited_;
}

bool ZepgwProcess::stop()
{
    if (pid_ <= 0)
        return false;
    if (!exited_) {
        ::kill(pid_, SIGTERM);
        // A paused zepgw acts on the SIGTERM only once continued. Only then: a
        // late SIGCONT would cancel the stop a sanitizer's exit-time tracer asks for.
        if (paused_)
            resume();
        if (!waitExit(10)) {
            std::fprintf(stderr, "zepgw %d did not stop within 10 s; killing it\n",
                         static_cast<int>(pid_));
            ::kill(pid_, SIGKILL);
            exited_ = ::waitpid(pid_, &status_, 0) == pid_;
            status_ = -1;
        }
    }
    closeFds();
    return exited_ && WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
}

std::string ZepgwProcess::log() const
{
    std::string text;
    if (logFd_ < 0)
        return text;
    char buf[4096];
    off_t at = 0;
    ssize_t n;
    while ((n = ::pread(logFd_, buf, sizeof buf, at)) > 0) {
        text.append(buf, static_cast<size_t>(n));
        at += n;
    }
    return text;
}

bool ZepgwProcess::run(const std::vector<std::string>& args, std::string* out, int* status,
                       double seconds)
{
    int in[2], pipeOut[2];
    if (!openPipes(in, pipeOut))
        return false;
    const pid_t pid = spawn(args, in[0], pipeOut[1], 2);
    ::close(in[0]);
    ::close(pipeOut[1]);
    std::string text;
    const Clock::time_point deadline = deadlineAfter(seconds);
    if (pid > 0)
        readUntil(pipeOut[0], text, deadline, false);
    ::close(pipeOut[0]);
    int st = 0;
    bool ended = pid > 0 && reap(pid, deadline, &st);
    if (pid > 0 && !ended) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &st, 0);
    }
    ::close(in[1]);
    if (out != nullptr)
        *out = text;
    if (status != nullptr)
        *status = st;
    return ended;
}

TempFile::TempFile(const std::string& content)
{
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
                          "/zepgw-test-XXXXXX";
    const int fd = ::mkstemp(&pattern[0]);
    if (fd < 0)
        return;
    path_ = pattern;
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

TempFile::~TempFile()
{
    if (!path_.empty())
        ::unlink(path_.c_str());
}
