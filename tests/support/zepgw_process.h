// Runs the zepgw Gateway emulator of the same build as a child process, for tests that talk to it over loopback.
// zepgw is started with --port 0 and --exit-on-stdin-eof, its standard input being a pipe that only this process
// holds: whatever way the test process ends, zepgw ends with it. Its standard error goes to an anonymous file.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

extern char** environ;

class ZepgwProcess {
public:
    ZepgwProcess() = default;
    // Stops zepgw if it still runs.
    ~ZepgwProcess()
    {
        if (pid_ > 0 && !exited_) stop();
        closeInput();
        // Shown by the test runner when a test fails.
        std::fputs(log().c_str(), stderr);
        closeFd(logFd_);
    }
    ZepgwProcess(const ZepgwProcess&) = delete;
    ZepgwProcess& operator=(const ZepgwProcess&) = delete;

    // Starts zepgw with extraArgs after --port 0; false (and no process left) without a port line within 10 s.
    bool start(std::vector<std::string> extraArgs = {})
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
    int port() const { return port_; }

    // SIGTERM, then at most 10 s for the exit, SIGKILL after that. True when zepgw exited with status 0.
    bool stop()
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
    bool signal(int sig)
    {
        if (pid_ <= 0 || exited_ || ::kill(pid_, sig) != 0) return false;
        if (sig == SIGSTOP || sig == SIGCONT) paused_ = sig == SIGSTOP;
        return true;
    }
    // SIGSTOP, then at most 10 s until every thread of zepgw has stopped: from the return on it answers nothing
    // until resume().
    bool pause()
    {
        int st = 0;
        if (!signal(SIGSTOP) || !reap(10, &st, WUNTRACED)) return false;
        if (WIFSTOPPED(st)) return true;
        exited_ = true;
        status_ = st;
        return false;
    }
    bool resume() { return signal(SIGCONT); }
    // Waits at most `seconds` for zepgw to exit by itself; true when it did, with its waitpid status in *status.
    bool waitExit(double seconds, int* status = nullptr)
    {
        if (pid_ <= 0) return false;
        if (!exited_) exited_ = reap(seconds, &status_);
        if (exited_ && status != nullptr) *status = status_;
        return exited_;
    }
    // As the end of the test process would.
    void closeInput() { closeFd(stdinFd_); }
    // What zepgw wrote to its standard error so far.
    std::string log() const
    {
        std::string text;
        char buf[4096];
        for (ssize_t n; logFd_ >= 0 && (n = ::pread(logFd_, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;)
            text.append(buf, static_cast<size_t>(n));
        return text;
    }

    // The zepgw binary of this build.
    static const char* path() { return ZEPGW_PATH; }

private:
    // Polls until waitpid reports zepgw (its exit, or also a stop with WUNTRACED) or `seconds` have passed.
    bool reap(double seconds, int* status, int options = 0) const
    {
        return pollUntil([&] { return ::waitpid(pid_, status, options | WNOHANG) == pid_; }, seconds);
    }
    static void closeFd(int& fd)
    {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

    pid_t pid_ = -1;
    int port_ = -1;
    int stdinFd_ = -1;   // write end of zepgw's standard input
    int logFd_ = -1;     // zepgw's standard error
    bool exited_ = false;
    bool paused_ = false;
    int status_ = 0;
};

// A file with the given content in the temporary directory, removed when the object goes; for --users and
// --systems.
class TempFile {
public:
    explicit TempFile(const std::string& content)
    {
        const char* dir = std::getenv("TMPDIR");
        path_ = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/zepgw-test-XXXXXX";
        const int fd = ::mkstemp(&path_[0]);
        if (fd < 0) path_.clear();
        if (fd >= 0 && ::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            std::perror("TempFile");
        if (fd >= 0) ::close(fd);
    }
    ~TempFile()
    {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};
