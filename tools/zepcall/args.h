// zepcall's command line: global options, one command, its options and arguments.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "gateway.h"

namespace zepcall {

// A command line that cannot be run; the text says what is wrong with it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Command { None, Call, Systems, Verify, Change, Bench };

struct Put {
    enum Kind { Text, File, Hex } kind;
    std::string name;
    std::string value;
};

struct CallOptions {
    std::string program;
    std::vector<std::string> data;  // the DATA argument, if any
    std::string file;               // --file
    bool hex = false;
    int length = -1;                // --length, -1: the data's length
    std::string transid;
    std::string system;
    std::string user;
    int timeout = 0;
    std::string channel;
    std::vector<Put> puts;
};

struct BenchOptions {
    int connections = 1;
    int threads = 1;
    long calls = 0;      // -n; 0 with no duration means 1000
    double duration = 0; // -d seconds
    int async = 0;       // requests in flight per thread; 0: synchronous calls
    int size = 100;
    std::string program = "ECHO";
};

struct Invocation {
    Command command = Command::None;
    bool help = false;
    bool version = false;
    bool json = false;
    bool verbose = false;
    int traceLevel = -1;
    std::string traceFile;
    Endpoint endpoint;
    CallOptions call;
    BenchOptions bench;
    std::string user;    // verify and change (their system is call.system)
};

// Reads argv into `inv`; `gatewayVariable` is the value of ZEP_GATEWAY (or null). Throws UsageError, with
// inv.command set as soon as the command is known, so that the message can point to its help.
void parseArguments(int argc, char** argv, const char* gatewayVariable, Invocation& inv);

const char* commandName(Command command);
const char* helpText(Command command);  // Command::None: the overview

}  // namespace zepcall
