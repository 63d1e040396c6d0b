// A bare protocol client for the zepgw tests: it sends byte strings written by hand and reads back whole
// messages, knowing only where the header keeps its lengths.
#pragma once

#include <cstdint>
#include <string>

#include "bytes.h"

namespace gwtest {

inline Bytes hex(const std::string& digits) { return hexBytes(digits); }
inline Bytes ascii(const std::string& text) { return Bytes(text.begin(), text.end()); }
inline Bytes be32(int32_t value) { return Wire().i32(value).b; }
// A whole message: header for `payload`, then the payload.
inline Bytes message(int32_t flowType, int32_t messageId, const std::string& type, const Bytes& payload)
{
    return cat({Wire().header(flowType, messageId, type, static_cast<int32_t>(payload.size())).b, payload});
}
// The handshake request with this APPLID.
Bytes handshake(const std::string& applid);
// What follows the header of a message.
Bytes payload(const Bytes& message);

// An ECI request of kind 1 as the client library lays it out.
struct EciCall {
    std::string program = "ECHO    ";  // the 8 bytes sent
    std::string commarea;
    int32_t extendMode = 0;
    int32_t luwToken = 0;
    std::string system = "        ";   // the 8 bytes sent
    std::string userid = "USER1";
    std::string password = "ab";
    std::string transid = "TRN1";
    int32_t commareaLength = -1;       // -1: the size of commarea
    Bytes channel;                     // a whole channel section, or none
    uint16_t timeout = 0;
};
Bytes eciPayload(const EciCall& call);
inline Bytes eciMessage(int32_t messageId, const EciCall& call) { return message(1, messageId, "ECI", eciPayload(call)); }
// A name as a 16-byte NUL-padded field.
inline Bytes name16(const std::string& name) { return Wire().field(name, 16).b; }

class RawClient {
public:
    RawClient() = default;
    ~RawClient() { close(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Connects to zepgw, and exchanges a handshake unless applid is empty.
    bool connect(int port, const std::string& applid = "TESTAPP");
    bool send(const Bytes& bytes);
    // One whole message within the time limit; false on timeout or end.
    bool read(Bytes& message, double seconds = 5);
    // A request and its one answer.
    bool call(const Bytes& request, Bytes& answer) { return send(request) && read(answer); }
    // Reads until the peer closes; true when it did within the limit. What arrived first is added to *rest.
    bool waitClosed(double seconds = 5, Bytes* rest = nullptr);
    // Ends the sending side only, as a client that stops in mid-message.
    void endSending();
    void close();

private:
    bool readExactly(uint8_t* into, size_t n, double seconds);
    int fd_ = -1;
};

}  // namespace gwtest
