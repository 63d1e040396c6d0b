#include "wire.h"

#include <cstring>

namespace zepgw {

void ByteWriter::i16(int32_t v)
{
    const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    bytes(b, sizeof b);
}

void ByteWriter::i32(int32_t v)
{
    const uint32_t u = static_cast<uint32_t>(v);
    const uint8_t b[4] = {static_cast<uint8_t>(u >> 24), static_cast<uint8_t>(u >> 16),
                          static_cast<uint8_t>(u >> 8), static_cast<uint8_t>(u)};
    bytes(b, sizeof b);
}

void ByteWriter::bytes(const void* data, size_t n)
{
    const uint8_t* b = static_cast<const uint8_t*>(data);
    out_.insert(out_.end(), b, b + n);
}

bool ByteReader::take(size_t n)
{
    if (failed_ || n > size_ - pos_) {
        failed_ = true;
        return false;
    }
    return true;
}

uint8_t ByteReader::u8()
{
    if (!take(1))
        return 0;
    return p_[pos_++];
}

int32_t ByteReader::i16()
{
    if (!take(2))
        return 0;
    const int16_t v = static_cast<int16_t>((p_[pos_] << 8) | p_[pos_ + 1]);
    pos_ += 2;
    return v;
}

int32_t ByteReader::i32()
{
    if (!take(4))
        return 0;
    const uint32_t v = (uint32_t(p_[pos_]) << 24) | (uint32_t(p_[pos_ + 1]) << 16) |
                       (uint32_t(p_[pos_ + 2]) << 8) | uint32_t(p_[pos_ + 3]);
    pos_ += 4;
    return static_cast<int32_t>(v);
}

bool ByteReader::bytes(void* dest, size_t n)
{
    if (!take(n))
        return false;
    if (n > 0)
        std::memcpy(dest, p_ + pos_, n);
    pos_ += n;
    return true;
}

bool ByteReader::bytes(Bytes& dest, size_t n)
{
    if (!take(n))
        return false;
    dest.assign(p_ + pos_, p_ + pos_ + n);
    pos_ += n;
    return true;
}

bool ByteReader::skip(size_t n)
{
    if (!take(n))
        return false;
    pos_ += n;
    return true;
}

Bytes encodeMessage(Header header, const Bytes& payload)
{
    ByteWriter w;
    w.reserve(kHeaderFixedPart + header.requestType.size() + 5 + payload.size());
    w.i32(header.eyecatcher);
    w.i32(header.version);
    w.i32(header.flowType);
    w.i32(header.messageId);
    w.i32(header.returnCode);
    w.i32(static_cast<int32_t>(header.requestType.size()));
    w.text(header.requestType);
    w.u8(header.flags);
    w.i32(static_cast<int32_t>(payload.size()));
    w.bytes(payload);
    return w.take();
}

Bytes encodeControl(int32_t flowType, int32_t messageId)
{
    Header h;
    h.flowType = flowType;
    h.messageId = messageId;
    h.requestType = "BASE";
    return encodeMessage(h, Bytes());
}

std::string unscramble(const uint8_t* wire, size_t n)
{
    std::string clear(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        const uint8_t previous = i == 0 ? 0xFF : static_cast<uint8_t>(clear[i - 1]);
        clear[i] = static_cast<char>(wire[i] ^ previous);
    }
    return clear;
}

std::string trimField(const uint8_t* field, size_t width)
{
    size_t n = width;
    while (n > 0 && (field[n - 1] == ' ' || field[n - 1] == '\0'))
        --n;
    return std::string(reinterpret_cast<const char*>(field), n);
}

std::string trimField(const std::string& field)
{
    return trimField(reinterpret_cast<const uint8_t*>(field.data()), field.size());
}

std::string padField(const std::string& s, size_t width, char pad)
{
    std::string f = s.substr(0, width);
    f.resize(width, pad);
    return f;
}

std::string printable(const std::string& s)
{
    std::string out;
    for (unsigned char c : s)
        out += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
    return out;
}

}  // namespace zepgw
