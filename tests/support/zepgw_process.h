// Runs the zepgw Gateway emulator of the same build as a child process, for tests that talk to it over loopback.
// zepgw is started with --port 0 and --exit-on-stdin-eof, its standard input being a pipe that only this process
// holds: whatever way the test process ends, zepgw ends with it. Its standard error goes to an anonymous file.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class ZepgwProcess {
public:
    ZepgwProcess() = default;
    ~ZepgwProcess();  // stops zepgw if it still runs
    ZepgwProcess(const ZepgwProcess&) = delete;
    ZepgwProcess& operator=(const ZepgwProcess&) = delete;

    // Starts zepgw with extraArgs after --port 0; false (and no process left) without a port line within 10 s.
    bool start(std::vector<std::string> extraArgs = {});
    int port() const { return port_; }
    // SIGTERM, then at most 10 s for the exit, SIGKILL after that. True when zepgw exited with status 0.
    bool stop();
    bool signal(int sig);
    // SIGSTOP, then at most 10 s until every thread of zepgw has stopped: from the return on it answers nothing
    // until resume().
    bool pause();
    bool resume();
    // Waits at most `seconds` for zepgw to exit by itself; true when it did, with its waitpid status in *status.
    bool waitExit(double seconds, int* status = nullptr);
    void closeInput();       // as the end of the test process would
    std::string log() const; // what zepgw wrote to its standard error so far

    static const char* path();   // the zepgw binary of this build

private:
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
    explicit TempFile(const std::string& content);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};
