// Runs a shell command and collects what it writes to standard output.
#ifndef ZEP_RUN_COMMAND_H
#define ZEP_RUN_COMMAND_H

#include <string>

struct CommandResult {
    int status;          // the exit status, or -1 when the command could not run or was killed
    std::string output;
};

CommandResult runCommand(const std::string& command);

#endif
