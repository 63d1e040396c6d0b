#include "tables.h"

#include <cstdio>
#include <sstream>

namespace zepgw {

namespace {

bool readLines(const std::string& path, std::vector<std::string>& lines, std::string& error)
{
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        error = "cannot open " + path;
        return false;
    }
    std::string line;
    int c;
    while ((c = std::fgetc(f)) != EOF) {
        if (c != '\n') {
            line += static_cast<char>(c);
            continue;
        }
        lines.push_back(line);
        line.clear();
    }
    if (!line.empty())
        lines.push_back(line);
    std::fclose(f);
    for (std::string& l : lines) {
        if (!l.empty() && l.back() == '\r')
            l.pop_back();
    }
    return true;
}

std::string lineError(const std::string& path, size_t index, const std::string& what)
{
    return path + " line " + std::to_string(index + 1) + ": " + what;
}

EsiTime userTime(int32_t userIndex, int32_t which)
{
    return EsiTime{2020 + which,           userIndex % 12,
                   1 + userIndex % 28,     8 + which,
                   (5 * userIndex) % 60,   10 * which + userIndex % 10,
                   0};
}

}  // namespace

SystemTable::SystemTable()
    : entries_{{"ZEPSYS1", "zepgw default system"},
               {"ZEPSYS2", "zepgw second system"},
               {"TEST", "zepgw test system"}}
{
}

bool SystemTable::load(const std::string& path, std::string& error)
{
    std::vector<std::string> lines;
    if (!readLines(path, lines, error))
        return false;
    entries_.clear();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].empty())
            continue;
        const size_t tab = lines[i].find('\t');
        SystemEntry e;
        e.name = lines[i].substr(0, tab);
        if (tab != std::string::npos)
            e.description = lines[i].substr(tab + 1);
        if (e.name.size() > kSystemNameWidth) {
            error = lineError(path, i, "system name longer than 9 bytes");
            return false;
        }
        if (e.description.size() > kSystemDescriptionWidth) {
            error = lineError(path, i, "description longer than 61 bytes");
            return false;
        }
        entries_.push_back(e);
    }
    return true;
}

bool SystemTable::knows(const std::string& nameField) const
{
    const std::string wanted = trimField(nameField);
    if (entries_.empty())
        return false;
    if (wanted.empty())
        return true;
    for (const SystemEntry& e : entries_) {
        if (trimField(e.name) == wanted)
            return true;
    }
    return false;
}

UserTable::UserTable()
    : users_{{"ZEPUSER", "ZEPPASS1", false, 0},
             {"ALICE", "WONDER11", false, 0},
             {"EXPIRED", "OLDPASS1", true, 0}}
{
}

bool UserTable::load(const std::string& path, std::string& error)
{
    std::vector<std::string> lines;
    if (!readLines(path, lines, error))
        return false;
    std::vector<User> loaded;
    for (size_t i = 0; i < lines.size(); ++i) {
        std::istringstream words(lines[i]);
        std::vector<std::string> w;
        std::string word;
        while (words >> word)
            w.push_back(word);
        if (w.empty() || w[0][0] == '#')
            continue;
        const bool expired = w.size() == 3 && w[2] == "expired";
        if (w.size() < 2 || (w.size() == 3 && !expired) || w.size() > 3) {
            error = lineError(path, i, "expected: userid password [expired]");
            return false;
        }
        if (w[0].size() > 10) {
            error = lineError(path, i, "user id longer than 10 characters");
            return false;
        }
        loaded.push_back(User{w[0], w[1], expired, 0});
    }
    users_ = loaded;
    return true;
}

UserTable::User* UserTable::find(const std::string& userid)
{
    for (User& u : users_) {
        if (u.userid == userid)
            return &u;
    }
    return nullptr;
}

EsiDetails UserTable::detailsOf(const User& user) const
{
    const int32_t index = static_cast<int32_t>(&user - users_.data());
    return EsiDetails{userTime(index, 1), userTime(index, 2), userTime(index, 3),
                      user.verifications};
}

// Table mutex held on entry.
UserTable::User* UserTable::authenticate(const std::string& userid, const std::string& password,
                                         EsiOutcome& out)
{
    User* u = find(userid);
    if (u == nullptr)
        out.returnCode = kRcUseridInvalid;
    else if (u->password != password)
        out.returnCode = kRcPasswordInvalid;
    return out.returnCode == 0 ? u : nullptr;
}

EsiOutcome UserTable::verify(const std::string& userid, const std::string& password)
{
    std::lock_guard<std::mutex> lock(mutex_);
    EsiOutcome out;
    User* u = authenticate(userid, password, out);
    if (u == nullptr)
        return out;
    if (u->expired) {
        out.returnCode = kRcPasswordExpired;
        return out;
    }
    ++u->verifications;
    out.details = detailsOf(*u);
    return out;
}

EsiOutcome UserTable::change(const std::string& userid, const std::string& oldPassword,
                             const std::string& newPassword)
{
    std::lock_guard<std::mutex> lock(mutex_);
    EsiOutcome out;
    User* u = authenticate(userid, oldPassword, out);
    if (u == nullptr)
        return out;
    if (newPassword.size() < 4 || newPassword == oldPassword) {
        out.returnCode = kRcPasswordRejected;
        return out;
    }
    u->password = newPassword;
    u->expired = false;
    out.details = detailsOf(*u);
    return out;
}

}  // namespace zepgw
