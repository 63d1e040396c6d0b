// Runs a shell command and collects what it writes to standard output.
#ifndef ZEP_RUN_COMMAND_H
#define ZEP_RUN_COMMAND_H

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct CommandResult {
    int status;          // the exit status, or -1 when the command could not run or was killed
    std::string output;
};

inline CommandResult runCommand(const std::string& command)
{
    CommandResult result{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.output.append(buffer, got);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

#endif
