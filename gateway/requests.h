// Decoding of what clients send: the handshake, ECI requests (with their
// channels) and ESI requests. Each decoder takes the whole payload and fails
// unless it consumes exactly all of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wire.h"

namespace zepgw {

constexpr uint8_t kMarkAdded = 1;
constexpr uint8_t kMarkDeleted = 2;
constexpr uint8_t kMarkModified = 3;
constexpr uint8_t kMarkUnchanged = 4;

constexpr int32_t kContainerChar = 2;

struct Container {
    std::string name;        // the 16 bytes of the name field
    uint8_t mark = kMarkAdded;
    uint8_t type = 0;
    int32_t ccsid = 0;
    int32_t dataLength = 0;  // sent even where the data are not
    Bytes data;
};

struct Channel {
    std::string name;        // the 16 bytes of the name field
    int32_t ccsid = 0;
    std::vector<Container> containers;
};

struct Handshake {
    std::string applid;
    std::string qualifier;
};

constexpr int32_t kKindProgram = 1;
constexpr int32_t kKindProgramAltTransid = 12;
constexpr int32_t kKindListSystems = 9;

struct EciRequest {
    int32_t kind = 0;
    int32_t extendMode = 0;
    int32_t luwToken = 0;
    std::string systemName;  // 8 bytes
    std::string userid;      // up to the first NUL of the 16-byte field
    std::string password;    // unscrambled
    std::string program;     // 8 bytes
    std::string transid;     // 4 bytes
    int32_t commareaLength = 0;
    int32_t outboundLength = 0;
    bool hasInbound = false;
    int32_t inboundLength = 0;
    Bytes data;              // the COMMAREA bytes that came
    bool hasChannel = false;
    Channel channel;
    uint16_t timeout = 0;
    int32_t correlator = 0;
    int32_t capacity = 0;    // kind 9: entries the client has room for
};

constexpr int32_t kEsiVerify = 0;
constexpr int32_t kEsiChange = 1;

struct EsiRequest {
    int32_t kind = 0;
    std::string userid;
    std::string password;
    std::string server;      // 8 bytes
    std::string newPassword;
};

bool decodeHandshake(const Bytes& payload, Handshake& out);
bool decodeEciRequest(const Bytes& payload, EciRequest& out);
bool decodeEsiRequest(const Bytes& payload, EsiRequest& out);

// Extend modes 2 (commit) and 4 (backout) carry no data either way.
inline bool isDatalessMode(int32_t extendMode)
{
    return extendMode == 2 || extendMode == 4;
}

}  // namespace zepgw
