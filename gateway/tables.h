// The systems zepgw pretends to reach and the users it knows, built in or
// loaded from files at start.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "replies.h"

namespace zepgw {

// Gateway return codes of ECI and ESI replies.
constexpr int32_t kRcUnknownServer = -22;
constexpr int32_t kRcMoreSystems = -25;
constexpr int32_t kRcNoSystems = -26;
constexpr int32_t kRcPasswordExpired = -105;
constexpr int32_t kRcPasswordInvalid = -106;
constexpr int32_t kRcPasswordRejected = -107;
constexpr int32_t kRcUseridInvalid = -108;
constexpr int32_t kRcEsiSystemError = -9;

class SystemTable {
public:
    SystemTable();  // the built-in systems
    bool load(const std::string& path, std::string& error);

    const std::vector<SystemEntry>& entries() const { return entries_; }
    // An 8-byte system name field: all blanks or all NULs names the first system.
    bool knows(const std::string& nameField) const;

private:
    std::vector<SystemEntry> entries_;
};

struct EsiOutcome {
    int32_t returnCode = 0;
    EsiDetails details{};
};

class UserTable {
public:
    UserTable();  // the built-in users
    bool load(const std::string& path, std::string& error);

    EsiOutcome verify(const std::string& userid, const std::string& password);
    EsiOutcome change(const std::string& userid, const std::string& oldPassword,
                      const std::string& newPassword);

private:
    struct User {
        std::string userid;
        std::string password;
        bool expired = false;
        int32_t verifications = 0;
    };

    User* find(const std::string& userid);  // Table mutex held on entry.
    // The user when the password is right, else null with the return code set.
    User* authenticate(const std::string& userid, const std::string& password,
                       EsiOutcome& out);  // Table mutex held on entry.
    EsiDetails detailsOf(const User& user) const;  // Table mutex held on entry.

    std::mutex mutex_;
    std::vector<User> users_;
};

}  // namespace zepgw
