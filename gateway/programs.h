// The built-in back-end programs and the fault modes chosen by program name.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "replies.h"
#include "requests.h"

namespace zepgw {

constexpr int32_t kRcTransactionAbend = -7;
constexpr int32_t kRcLuwToken = -8;
constexpr int32_t kRcRolledBack = -30;
constexpr int32_t kRcWorkWasRefused = 61445;

// What the connection does with a request once a program has looked at it.
enum class Action {
    Reply,          // send reply now
    Delay,          // send reply after delayMs
    Hang,           // send nothing, ever
    Error,          // FLOW_ERROR with errorCode
    Exception,      // FLOW_EXCEPTION
    Stray,          // send reply under message id + 1000
    BadEyecatcher,  // send reply with a broken header
    Drop,           // close the connection, send nothing
    DropMid,        // send half of reply, then close
    GatewayClose,   // send a close flow, then close
};

struct Outcome {
    Action action = Action::Reply;
    EciReply reply;
    int delayMs = 0;
    int32_t errorCode = 0;
};

// Extended units of work of one connection. Used by its reader thread only.
class LuwTable {
public:
    int32_t start();                       // a new token, no calls yet
    bool known(int32_t token) const { return calls_.count(token) != 0; }
    int32_t addCall(int32_t token) { return ++calls_[token]; }
    void end(int32_t token) { calls_.erase(token); }

private:
    std::map<int32_t, int32_t> calls_;
    int32_t next_ = 1;
};

// Runs the program named in an ECI request of kind 1 or 12 whose system
// name has already been accepted.
Outcome runProgram(const EciRequest& q, LuwTable& luw);

// The text a FLOW_EXCEPTION carries for a program.
std::string exceptionText(const std::string& program);

}  // namespace zepgw
