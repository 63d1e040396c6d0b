// Encoding of what zepgw sends: ECI replies (with their channel section),
// the system list, ESI replies, and the error, exception and handshake flows.
// Every function returns the whole message, header included.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "requests.h"
#include "wire.h"

namespace zepgw {

struct EciReply {
    int32_t kind = kKindProgram;
    int32_t luwToken = 0;
    int32_t returnCode = 0;
    std::string abendCode = "    ";
    int32_t commareaLength = 0;
    Bytes data;
    bool announceLength = false;  // send the data length even when it equals the COMMAREA length
    bool hasChannel = false;
    Channel channel;
};

struct SystemEntry {
    std::string name;         // up to 9 bytes
    std::string description;  // up to 61 bytes
};

constexpr size_t kSystemNameWidth = 9;
constexpr size_t kSystemDescriptionWidth = 61;

struct EsiTime {
    int32_t year, month, day, hour, minute, second, reserved;
};

struct EsiDetails {
    EsiTime time1, time2, time3;
    int32_t count;
};

Bytes encodeEciReply(int32_t messageId, const EciReply& reply);
Bytes encodeSystemList(int32_t messageId, const std::vector<SystemEntry>& entries,
                       int32_t returnCode);
Bytes encodeEsiFailure(int32_t messageId, int32_t returnCode);
Bytes encodeEsiSuccess(int32_t messageId, const EsiDetails& details);
Bytes encodeError(int32_t messageId, const std::string& requestType, int32_t returnCode);
Bytes encodeException(int32_t messageId, const std::string& requestType,
                      const std::string& text);
Bytes encodeHandshakeReply();

}  // namespace zepgw
