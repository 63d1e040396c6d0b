// A bare protocol client for the zepgw tests: it sends byte strings written by hand and reads back whole
// messages, knowing only where the header keeps its lengths. Every read gives up after 5 s.
#pragma once

#include <cstdint>
#include <string>

#include "bytes.h"

namespace gwtest {

inline Bytes hex(const std::string& digits) { return hexBytes(digits); }
inline Bytes ascii(const std::string& text) { return Bytes(text.begin(), text.end()); }
inline Bytes be32(int32_t value) { return Wire().i32(value).b; }
inline Bytes name16(const std::string& name) { return Wire().field(name, 16).b; }
// A whole message: header for `payload`, then the payload.
inline Bytes message(int32_t flowType, int32_t messageId, const std::string& type, const Bytes& payload)
{
    return cat({Wire().header(flowType, messageId, type, static_cast<int32_t>(payload.size())).b, payload});
}
// The handshake request with this APPLID.
inline Bytes handshake(const std::string& applid)
{
    return message(5, -2, "BASE", cat({hex("0002656E 00024742 00000000 00000000 0000"),
                                       Wire().i16(int32_t(applid.size())).text(applid).i16(0).b}));
}

// An ECI request payload of kind 1 as the client library lays it out; program and system are the 8 bytes sent,
// channel a whole channel section or none.
inline Bytes eciPayload(const std::string& program, const std::string& commarea, int32_t extendMode = 0,
                        int32_t luwToken = 0, const std::string& system = "        ", const Bytes& channel = {})
{
    Wire w;
    w.i32(1).i32(extendMode).i32(luwToken).i32(0).u8(0).i32(8).text(system).field("USER1", 16);
    w.i32(2).scrambled("ab").text(program).text("TRN1");
    w.i32(0).i32(static_cast<int32_t>(commarea.size())).u8(0).u8(0).text(commarea);
    if (channel.empty()) w.u8(0); else w.u8(0xFF).raw(channel);
    return w.i16(0).u8(0).i32(-1).i32(7).b;
}
inline Bytes eciMessage(int32_t messageId, const std::string& program, const std::string& commarea)
{
    return message(1, messageId, "ECI", eciPayload(program, commarea));
}

class RawClient {
public:
    RawClient() = default;
    ~RawClient() { close(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Connects to zepgw, and exchanges a handshake unless applid is empty.
    bool connect(int port, const std::string& applid = "TESTAPP");
    bool send(const Bytes& bytes);
    // One whole message; false on a time-out or the end.
    bool read(Bytes& message) { return readMessage(fd_, message); }
    // A request and its one answer.
    bool call(const Bytes& request, Bytes& answer) { return send(request) && read(answer); }
    // Reads until the peer closes; true when it did before a read timed out. What arrived first is added to *rest.
    bool waitClosed(Bytes* rest = nullptr);
    // Ends the sending side only, as a client that stops in mid-message.
    void endSending();
    void close();

private:
    int fd_ = -1;
};

}  // namespace gwtest
