// Byte-level building blocks of the Gateway protocol as zepgw speaks it:
// big-endian readers and writers over byte vectors, the message header,
// and the password unscramble.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zepgw {

using Bytes = std::vector<uint8_t>;

constexpr int32_t kEyecatcher = 0x47617465;       // "Gate"
constexpr int32_t kBadEyecatcher = 0x42616421;    // "Bad!"
constexpr int32_t kVersion = 0x10901000;

constexpr int32_t kFlowRequest = 1;
constexpr int32_t kFlowReply = 3;
constexpr int32_t kFlowError = 4;
constexpr int32_t kFlowHandshake = 5;
constexpr int32_t kFlowException = 6;
constexpr int32_t kFlowPing = 7;
constexpr int32_t kFlowClose = 10;

constexpr int32_t kHandshakeMessageId = -2;
constexpr int32_t kCloseMessageId = -1;

// Limits beyond which a client's header is taken as garbage.
constexpr int32_t kMaxPayload = 16 * 1024 * 1024;
constexpr int32_t kMaxRequestTypeLength = 16;

// Header fields up to and including the request type length; the rest of the
// header (type name, flags, payload length) follows them.
constexpr size_t kHeaderFixedPart = 24;

struct Header {
    int32_t eyecatcher = kEyecatcher;
    int32_t version = kVersion;
    int32_t flowType = 0;
    int32_t messageId = 0;
    int32_t returnCode = 0;
    std::string requestType;
    uint8_t flags = 0;
    int32_t payloadLength = 0;
};

class ByteWriter {
public:
    void u8(uint8_t v) { out_.push_back(v); }
    void i16(int32_t v);
    void i32(int32_t v);
    void bytes(const void* data, size_t n);
    void bytes(const Bytes& b) { bytes(b.data(), b.size()); }
    void text(const std::string& s) { bytes(s.data(), s.size()); }
    void fill(uint8_t v, size_t n) { out_.insert(out_.end(), n, v); }
    // Room for n more bytes, so that a message is built without reallocations.
    void reserve(size_t n) { out_.reserve(out_.size() + n); }
    size_t size() const { return out_.size(); }
    Bytes take() { return std::move(out_); }

private:
    Bytes out_;
};

// Reads from a byte range; any read beyond the end marks the reader failed
// and yields zeros, so a decoder checks ok() once at the end.
class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : p_(data), size_(size) {}
    explicit ByteReader(const Bytes& b) : ByteReader(b.data(), b.size()) {}

    uint8_t u8();
    int32_t i16();
    uint16_t u16() { return static_cast<uint16_t>(i16()); }
    int32_t i32();
    bool bytes(void* dest, size_t n);
    bool bytes(Bytes& dest, size_t n);
    bool skip(size_t n);

    bool ok() const { return !failed_; }
    bool atEnd() const { return pos_ == size_; }
    size_t remaining() const { return size_ - pos_; }
    size_t position() const { return pos_; }
    void fail() { failed_ = true; }

private:
    bool take(size_t n);

    const uint8_t* p_;
    size_t size_;
    size_t pos_ = 0;
    bool failed_ = false;
};

// A whole message: header (with payloadLength set from the payload) then payload.
Bytes encodeMessage(Header header, const Bytes& payload);

// Header of a control flow: request type "BASE", no payload.
Bytes encodeControl(int32_t flowType, int32_t messageId);

// in[0] = NOT out[0], in[i] = out[i] XOR in[i-1].
std::string unscramble(const uint8_t* wire, size_t n);

// Bytes of a fixed-width name field up to the trailing padding (blanks and NULs).
std::string trimField(const uint8_t* field, size_t width);
std::string trimField(const std::string& field);

// A text as a fixed-width field, cut or padded with the given byte.
std::string padField(const std::string& s, size_t width, char pad);

// Name fields and programs as printable text for log lines.
std::string printable(const std::string& s);

}  // namespace zepgw
