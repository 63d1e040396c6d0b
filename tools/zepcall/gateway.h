// The one place where zepcall calls the zepclient library. Everything else in the tool works with the
// plain C++ types below, so that moving onto another binding of the library touches only this file
// and gateway.cpp.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

struct GatewayToken;
struct Channel;

namespace zepcall {

// A library call that failed outside the normal reply of a request (opening, channel building, tracing).
class LibraryError : public std::runtime_error {
public:
    LibraryError(int rc, const std::string& what) : std::runtime_error(what), rc_(rc) {}
    int rc() const { return rc_; }

private:
    int rc_;
};

std::string rcName(int rc);
std::string libraryVersion();  // "9.1.0.4 (API 2.3.0.0)"
void setTrace(int level, const std::string& file);  // level -1 and an empty file leave a setting alone

struct Endpoint {
    std::string host = "127.0.0.1";
    int port = -1;
    unsigned connectTimeout = 10;
    std::string applid;
    std::string qualifier;
};

// What an ECI request names besides its data. The password is wiped by whoever owns it.
struct EciTarget {
    std::string program;
    std::string transid;
    std::string system;
    std::string user;
    std::string password;
    int timeout = 0;
};

struct EciOutcome {
    int rc = 0;
    std::string abendCode;
    int32_t luwToken = 0;
};

struct ContainerContent {
    std::string name;
    bool character = false;
    int ccsid = 0;
    std::string data;
};

struct SystemEntry {
    std::string name;
    std::string description;
};

struct CalendarTime {
    bool set = false;   // an unset time has year 0
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int weekday = 0;    // 0 Sunday
};

struct UserDetails {
    CalendarTime times[3];
    int count = 0;
};

// A channel of containers, owned by the library until this object goes.
class ChannelData {
public:
    explicit ChannelData(const std::string& name);  // throws LibraryError
    ~ChannelData();
    ChannelData(const ChannelData&) = delete;
    ChannelData& operator=(const ChannelData&) = delete;

    void put(const std::string& name, bool character, const std::string& data);  // throws LibraryError
    std::vector<ContainerContent> contents() const;                               // newest first

private:
    friend class Connection;
    Channel* channel_ = nullptr;
};

// One Gateway connection; any number of threads may use one at the same time.
class Connection {
public:
    explicit Connection(const Endpoint& endpoint);  // throws LibraryError
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // A synchronous call; the reply lands in `commarea`, of which the first `sendLength` bytes go out.
    EciOutcome call(const EciTarget& target, std::vector<unsigned char>& commarea, size_t sendLength);
    EciOutcome call(const EciTarget& target, ChannelData& channel);

    // An asynchronous call and the collection of its reply by message qualifier.
    int start(const EciTarget& target, std::vector<unsigned char>& commarea, uint32_t& qualifier);
    int collect(uint32_t qualifier, std::vector<unsigned char>& commarea);

    int listSystems(std::vector<SystemEntry>& systems);
    int verifyPassword(const std::string& user, const std::string& password, const std::string& system,
                       UserDetails& details);
    int changePassword(const std::string& user, const std::string& oldPassword,
                       const std::string& newPassword, const std::string& system, UserDetails& details);

private:
    GatewayToken* token_ = nullptr;
};

}  // namespace zepcall
