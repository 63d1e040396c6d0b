// Command line of zepgw.
#pragma once

#include <string>

namespace zepgw {

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int idleExitSeconds = 0;  // 0: never
    int pingSeconds = 0;      // 0: no pings
    std::string systemsFile;
    std::string usersFile;
    bool verbose = false;
    bool exitOnStdinEof = false;
    int jitterMs = 0;         // 0: replies go out at once
};

enum class ParseResult { Run, Help, Version, Error };

ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error);

const char* helpText();
const char* versionText();

}  // namespace zepgw
