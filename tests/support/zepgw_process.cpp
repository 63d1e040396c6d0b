#include "zepgw_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "test_support.h"

extern char** environ;

namespace {

// Polls until waitpid reports the child (its exit, or also a stop with WUNTRACED) or `seconds` have passed.
bool reap(pid_t pid, double seconds, int* status, int options = 0)
{
    return pollUntil([&] { return ::waitpid(pid, status, options | WNOHANG) == pid; }, seconds);
}

void closeFd(int& fd)
{
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Reads into `line` until a newline has come; false when none came within `seconds` or the stream ended first.
bool readLine(int fd, std::string& line, double seconds)
{
    const Clock::time_point start = Clock::now();
    while (line.find('\n') == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        const int left = static_cast<int>(1000 * (seconds - secondsSince(start)));
        const int ready = ::poll(&p, 1, left < 0 ? 0 : left);
        if (ready < 0 && errno == EINTR) continue;
        char buf[4096];
        const ssize_t n = ready > 0 ? ::read(fd, buf, sizeof buf) : 0;
        if (n <= 0) return false;
        line.append(buf, static_cast<size_t>(n));
    }
    return true;
}

}  // namespace

const char* ZepgwProcess::path() { return ZEPGW_PATH; }

ZepgwProcess::~ZepgwProcess()
{
    if (pid_ > 0 && !exited_) stop();
    closeFds();
    // Shown by the test runner when a test fails.
    std::fputs(log().c_str(), stderr);
    closeFd(logFd_);
}

bool ZepgwProcess::start(std::vector<std::string> extraArgs)
{
    if (pid_ > 0) return false;
    closeFd(logFd_);
    logFd_ = ::memfd_create("zepgw-log", MFD_CLOEXEC);
    extraArgs.insert(extraArgs.begin(), {path(), "--port", "0", "--exit-on-stdin-eof"});
    std::vector<char*> argv;
    for (std::string& a : extraArgs) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    // Pipes (close-on-exec here) become its standard input and output.
    int inPipe[2] = {-1, -1}, outPipe[2] = {-1, -1};
    if (::pipe2(inPipe, O_CLOEXEC) == 0 && ::pipe2(outPipe, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
        posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
        posix_spawn_file_actions_adddup2(&actions, logFd_ >= 0 ? logFd_ : 2, 2);
        const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            std::fprintf(stderr, "cannot start %s: %s\n", argv[0], std::strerror(rc));
            pid_ = -1;
        }
    }
    closeFd(inPipe[0]);
    closeFd(outPipe[1]);
    stdinFd_ = inPipe[1];
    stdoutFd_ = outPipe[0];
    exited_ = false;
    std::string line;
    char* end = nullptr;
    if (pid_ > 0 && readLine(stdoutFd_, line, 10)) port_ = static_cast<int>(std::strtol(line.c_str(), &end, 10));
    if (end != nullptr && end != line.c_str() && *end == '\n' && port_ > 0 && port_ <= 65535) return true;
    if (pid_ > 0) stop();
    pid_ = -1;
    closeFds();
    return false;
}

void ZepgwProcess::closeFds()
{
    closeFd(stdinFd_);
    closeFd(stdoutFd_);
}

void ZepgwProcess::closeInput() { closeFd(stdinFd_); }

bool ZepgwProcess::signal(int sig)
{
    if (pid_ <= 0 || exited_ || ::kill(pid_, sig) != 0) return false;
    if (sig == SIGSTOP || sig == SIGCONT) paused_ = sig == SIGSTOP;
    return true;
}

bool ZepgwProcess::pause()
{
    int st = 0;
    if (!signal(SIGSTOP) || !reap(pid_, 10, &st, WUNTRACED)) return false;
    if (WIFSTOPPED(st)) return true;
    exited_ = true;
    status_ = st;
    return false;
}

bool ZepgwProcess::resume() { return signal(SIGCONT); }

bool ZepgwProcess::waitExit(double seconds, int* status)
{
    if (pid_ <= 0) return false;
    if (!exited_) exited_ = reap(pid_, seconds, &status_);
    if (exited_ && status != nullptr) *status = status_;
    return exited_;
}

bool ZepgwProcess::stop()
{
    if (pid_ <= 0) return false;
    if (!exited_) {
        ::kill(pid_, SIGTERM);
        // A paused zepgw acts on the SIGTERM only once continued. Only then: a late SIGCONT would cancel the
        // stop a sanitizer's exit-time tracer asks for.
        if (paused_) resume();
        if (!waitExit(10)) {
            std::fprintf(stderr, "zepgw %d did not stop within 10 s; killing it\n", static_cast<int>(pid_));
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
    char buf[4096];
    for (ssize_t n; logFd_ >= 0 && (n = ::pread(logFd_, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

TempFile::TempFile(const std::string& content)
{
    const char* dir = std::getenv("TMPDIR");
    path_ = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/zepgw-test-XXXXXX";
    const int fd = ::mkstemp(&path_[0]);
    if (fd < 0) path_.clear();
    if (fd >= 0 && ::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        std::perror("TempFile");
    if (fd >= 0) ::close(fd);
}

TempFile::~TempFile() { if (!path_.empty()) ::unlink(path_.c_str()); }
