// Byte strings on the wire, built big-endian the way both ends write them, and whole messages read from a
// socket; shared by the library's wire suites, the scripted Gateway and the zepgw suites.
//
//     Bytes b = Wire().i32(0x47617465).text("ECI").u8(0).hex("0000 00B9").b;
#ifndef ZEP_TEST_BYTES_H
#define ZEP_TEST_BYTES_H

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Wire {
    Wire& i32(int32_t v) { return u8(static_cast<uint32_t>(v) >> 24).u8(static_cast<uint32_t>(v) >> 16).i16(v); }
    Wire& i16(int32_t v) { return u8(static_cast<uint32_t>(v) >> 8).u8(static_cast<uint32_t>(v)); }
    Wire& u8(uint32_t v) { return raw({static_cast<uint8_t>(v)}); }
    Wire& text(const std::string& s) { return raw(Bytes(s.begin(), s.end())); }
    // s cut or padded with 00 to width bytes.
    Wire& field(const std::string& s, size_t width) { return text(s.substr(0, width)).fill(width - std::min(s.size(), width), 0); }
    Wire& raw(const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); return *this; }
    Wire& fill(size_t n, uint8_t v) { return raw(Bytes(n, v)); }
    // Hex digits, blanks ignored: hex("4761 7465").
    Wire& hex(const std::string& digits)
    {
        int high = -1;
        for (char c : digits) {
            const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (v >= 0 && high < 0) high = v;
            else if (v >= 0) u8(static_cast<uint32_t>(high * 16 + v)), high = -1;
        }
        return *this;
    }
    // A password as both ends put it on the wire: the first byte inverted, each later one XORed with the one
    // before it in clear.
    Wire& scrambled(const std::string& clear)
    {
        for (size_t i = 0; i < clear.size(); i++) u8(i == 0 ? ~static_cast<uint8_t>(clear[0]) : clear[i] ^ clear[i - 1]);
        return *this;
    }
    // A message header: eyecatcher, version, flow type, message id, return code, request type, payload length.
    Wire& header(int32_t flowType, int32_t messageId, const std::string& type, int32_t payload, int32_t rc = 0)
    {
        i32(0x47617465).i32(0x10901000).i32(flowType).i32(messageId).i32(rc);
        return i32(static_cast<int32_t>(type.size())).text(type).u8(0).i32(payload);
    }
    std::string str() const { return std::string(b.begin(), b.end()); }
    Bytes b;
};

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Wire out;
    for (const Bytes& p : parts) out.raw(p);
    return out.b;
}

inline Bytes hexBytes(const std::string& digits) { return Wire().hex(digits).b; }

inline std::string toHex(const Bytes& bytes)
{
    std::string out;
    char two[4];
    for (uint8_t byte : bytes) snprintf(two, sizeof two, "%02X", byte), out += two;
    return out;
}

// The big-endian word at offset, or 0x7EEEEEEE when the bytes end first.
inline int32_t wordAt(const Bytes& bytes, size_t offset)
{
    if (bytes.size() < offset + 4) return 0x7EEEEEEE;
    return static_cast<int32_t>(uint32_t(bytes[offset]) << 24 | uint32_t(bytes[offset + 1]) << 16 |
                                uint32_t(bytes[offset + 2]) << 8 | uint32_t(bytes[offset + 3]));
}

// Reads one whole message from a stream socket, as long as its header says; false on a time-out or the end.
inline bool readMessage(int fd, Bytes& message)
{
    const auto more = [&](size_t n) {
        message.resize(message.size() + n);
        return n == 0 || recv(fd, message.data() + message.size() - n, n, MSG_WAITALL) == static_cast<ssize_t>(n);
    };
    message.clear();
    if (!more(24)) return false;
    const int32_t typeLength = wordAt(message, 20);
    if (typeLength < 0 || typeLength > 64 || !more(static_cast<size_t>(typeLength) + 5)) return false;
    const int32_t length = wordAt(message, message.size() - 4);
    return length >= 0 && length <= (1 << 24) && more(static_cast<size_t>(length));
}

#endif
