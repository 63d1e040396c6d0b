#include "zepgw_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace

const char* ZepgwProcess::path() { return ZEPGW_PATH; }

ZepgwProcess::~ZepgwProcess()
{
    if (pid_ > 0 && !exited_) stop();
    closeInput();
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
    exited_ = false;
    // zepgw writes its port line in one write as soon as it listens, and nothing else to its standard output.
    char line[32] = {};
    char* end = nullptr;
    pollfd ready{outPipe[0], POLLIN, 0};
    if (pid_ > 0 && ::poll(&ready, 1, 10000) == 1 && ::read(outPipe[0], line, sizeof line - 1) > 0)
        port_ = static_cast<int>(std::strtol(line, &end, 10));
    closeFd(outPipe[0]);
    if (end != nullptr && end != line && *end == '\n' && port_ > 0 && port_ <= 65535) return true;
    if (pid_ > 0) stop();
    pid_ = -1;
    closeInput();
    return false;
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
    closeInput();
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
