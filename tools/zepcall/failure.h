// zepcall's exit statuses and the one-line messages of failed library calls.
#pragma once

#include <string>

namespace zepcall {

enum ExitStatus {
    kExitOk = 0,
    kExitLocal = 1,       // a file or the terminal could not be read, the trace file not opened
    kExitUsage = 2,       // a bad command line
    kExitConnection = 3,  // the connection was not made, refused, timed out or lost
    kExitCallError = 4,   // the call or request returned an error
    kExitSecurity = 5,    // a user or password was not accepted
};

// What a failure message may name.
struct FailureContext {
    std::string where;    // host:port
    std::string program;
    std::string system;
    std::string user;
    std::string abendCode;
};

int exitStatusFor(int rc);

// "NAME (rc): what it means" for standard error.
std::string failureMessage(int rc, const FailureContext& context);

}  // namespace zepcall
