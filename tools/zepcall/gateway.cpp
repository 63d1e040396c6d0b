#include "gateway.h"

#include <algorithm>
#include <cstring>

#include <zepclient.h>

namespace zepcall {

namespace {

constexpr int16_t kEciVersion = 6;  // the level that offers asynchronous calls and credential pointers

// Fixed-width name fields travel blank-padded.
template <size_t N>
void setField(char (&field)[N], const std::string& text)
{
    std::memset(field, ' ', N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

EciParms parmsFor(const EciTarget& target, int16_t callType)
{
    EciParms parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = kEciVersion;
    parms.eci_call_type = callType;
    setField(parms.eci_program_name, target.program);
    if (!target.transid.empty())
        setField(parms.eci_transid, target.transid);
    if (!target.system.empty())
        setField(parms.eci_system_name, target.system);
    parms.eci_timeout = static_cast<int16_t>(target.timeout);
    // The library only reads through these; the pointers are not const in the C block.
    if (!target.user.empty()) {
        parms.eci_userid_ptr = const_cast<char*>(target.user.c_str());
        parms.eci_password_ptr = const_cast<char*>(target.password.c_str());
    }
    return parms;
}

void setCommarea(EciParms& parms, std::vector<unsigned char>& commarea, size_t sendLength)
{
    if (commarea.empty())
        return;
    parms.eci_commarea = commarea.data();
    parms.eci_commarea_length = static_cast<int16_t>(commarea.size());
    parms.commarea_outbound_length = static_cast<int16_t>(sendLength);
}

EciOutcome outcomeOf(int rc, const EciParms& parms)
{
    EciOutcome outcome;
    outcome.rc = rc;
    outcome.abendCode.assign(parms.eci_abend_code, sizeof parms.eci_abend_code);
    outcome.abendCode.erase(outcome.abendCode.find_last_not_of(std::string(" \0", 2)) + 1);
    outcome.luwToken = parms.eci_luw_token;
    return outcome;
}

const char* orNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

CalendarTime calendarTime(const EsiTime& time)
{
    CalendarTime result;
    struct tm converted = {};
    if (time.year == 0 || ZEP_ESI_convertTime(&time, &converted) == nullptr)
        return result;
    result.set = true;
    result.year = converted.tm_year + 1900;
    result.month = converted.tm_mon + 1;
    result.day = converted.tm_mday;
    result.hour = converted.tm_hour;
    result.minute = converted.tm_min;
    result.second = converted.tm_sec;
    result.weekday = converted.tm_wday;
    return result;
}

UserDetails detailsOf(const EsiDetails& details)
{
    UserDetails result;
    result.times[0] = calendarTime(details.esiTime1);
    result.times[1] = calendarTime(details.esiTime2);
    result.times[2] = calendarTime(details.esiTime3);
    result.count = details.esiCount;
    return result;
}

}  // namespace

std::string rcName(int rc)
{
    char name[40];
    return ZEP_getRcString(rc, name);
}

std::string libraryVersion()
{
    char* dll = nullptr;
    char* api = nullptr;
    if (ZEP_getDLLVersion(&dll) != ZEP_OK || ZEP_getAPIVersion(&api) != ZEP_OK)
        return "unknown";
    return std::string(dll) + " (API " + api + ")";
}

void setTrace(int level, const std::string& file)
{
    if (!file.empty()) {
        int rc = ZEP_setAPITraceFile(file.c_str());
        if (rc != ZEP_OK)
            throw LibraryError(rc, "trace file " + file + " could not be opened for appending");
    }
    if (level >= 0) {
        int rc = ZEP_setAPITraceLevel(level);
        if (rc != ZEP_OK)
            throw LibraryError(rc, "trace level " + std::to_string(level) + " was refused");
    }
}

ChannelData::ChannelData(const std::string& name)
{
    int rc = ECI_createChannel(name.c_str(), &channel_);
    if (rc != ECI_NO_ERROR)
        throw LibraryError(rc, "channel name '" + name + "' was refused");
}

ChannelData::~ChannelData()
{
    if (channel_ != nullptr)
        ECI_deleteChannel(&channel_);
}

void ChannelData::put(const std::string& name, bool character, const std::string& data)
{
    int rc = ECI_createContainer(channel_, name.c_str(), character ? ECI_CHAR : ECI_BIT, 0, data.data(),
                                 data.size());
    if (rc != ECI_NO_ERROR)
        throw LibraryError(rc, "container '" + name + "' could not be created");
}

std::vector<ContainerContent> ChannelData::contents() const
{
    std::vector<ContainerContent> contents;
    ContainerInfo info;
    for (int rc = ECI_getFirstContainer(channel_, &info); rc == ECI_NO_ERROR;
         rc = ECI_getNextContainer(channel_, &info)) {
        ContainerContent content;
        content.name = info.name;
        content.character = info.type == ECI_CHAR;
        content.ccsid = info.ccsid;
        content.data.resize(info.dataLength);
        unsigned long got = 0;
        if (info.dataLength > 0)
            ECI_getContainerData(channel_, info.name, &content.data[0], info.dataLength, 0, &got);
        content.data.resize(got);
        contents.push_back(std::move(content));
    }
    return contents;
}

Connection::Connection(const Endpoint& endpoint)
{
    int rc = ZEP_openRemoteGatewayConnectionApplid(endpoint.host.c_str(), endpoint.port, &token_,
                                                   endpoint.connectTimeout, endpoint.applid.c_str(),
                                                   endpoint.qualifier.c_str());
    if (rc != ZEP_OK)
        throw LibraryError(rc, "open");
}

Connection::~Connection()
{
    if (token_ != nullptr)
        ZEP_closeGatewayConnection(&token_);
}

EciOutcome Connection::call(const EciTarget& target, std::vector<unsigned char>& commarea, size_t sendLength)
{
    EciParms parms = parmsFor(target, ECI_SYNC);
    setCommarea(parms, commarea, sendLength);
    return outcomeOf(ZEP_ECI_Execute(token_, &parms), parms);
}

EciOutcome Connection::call(const EciTarget& target, ChannelData& channel)
{
    EciParms parms = parmsFor(target, ECI_SYNC);
    parms.eci_channel = channel.channel_;
    return outcomeOf(ZEP_ECI_Execute_Channel(token_, &parms), parms);
}

int Connection::start(const EciTarget& target, std::vector<unsigned char>& commarea, uint32_t& qualifier)
{
    EciParms parms = parmsFor(target, ECI_ASYNC);
    setCommarea(parms, commarea, commarea.size());
    int rc = ZEP_ECI_Execute(token_, &parms);
    qualifier = parms.eci_message_qualifier;
    return rc;
}

int Connection::collect(uint32_t qualifier, std::vector<unsigned char>& commarea)
{
    EciParms parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = kEciVersion;
    parms.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    parms.eci_message_qualifier = qualifier;
    setCommarea(parms, commarea, 0);
    return ZEP_ECI_Execute(token_, &parms);
}

int Connection::listSystems(std::vector<SystemEntry>& systems)
{
    // The system list answers as many entries as there is room for; this many is more than any Gateway knows.
    std::vector<SystemInfo> list(1024);
    unsigned short count = static_cast<unsigned short>(list.size());
    int rc = ZEP_listSystems(token_, &count, list.data());
    systems.clear();
    if (rc != ZEP_OK && rc != ZEP_ERR_MORE_SYSTEMS)
        return rc;
    for (unsigned short i = 0; i < count && i < list.size(); ++i) {
        const SystemInfo& entry = list[i];
        systems.push_back({std::string(entry.name, strnlen(entry.name, sizeof entry.name)),
                           std::string(entry.description, strnlen(entry.description, sizeof entry.description))});
    }
    return rc;
}

int Connection::verifyPassword(const std::string& user, const std::string& password, const std::string& system,
                               UserDetails& details)
{
    EsiDetails raw = {};
    int rc = ZEP_ESI_verifyPassword(token_, user.c_str(), password.c_str(), orNull(system), &raw);
    details = detailsOf(raw);
    return rc;
}

int Connection::changePassword(const std::string& user, const std::string& oldPassword,
                               const std::string& newPassword, const std::string& system, UserDetails& details)
{
    EsiDetails raw = {};
    int rc = ZEP_ESI_changePassword(token_, user.c_str(), oldPassword.c_str(), newPassword.c_str(),
                                    orNull(system), &raw);
    details = detailsOf(raw);
    return rc;
}

}  // namespace zepcall
