// A bare protocol client for the zepgw tests: it sends byte strings written
// by hand and reads back whole messages, knowing only where the header keeps
// its lengths.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "bytes.h"

namespace gwtest {

// Short names for the shared builder, as the zepgw tests write their byte strings.
inline Bytes hex(const std::string& digits) { return hexBytes(digits); }
inline Bytes ascii(const std::string& text) { return Bytes(text.begin(), text.end()); }
inline Bytes be32(int32_t value) { return Wire().i32(value).b; }
inline Bytes repeat(uint8_t value, size_t count) { return Bytes(count, value); }
inline Bytes header(int32_t flowType, int32_t messageId, const std::string& requestType, size_t payloadLength)
{
    return Wire().header(flowType, messageId, requestType, static_cast<int32_t>(payloadLength)).b;
}
// The 22-byte-plus-names handshake payload.
Bytes handshakePayload(const std::string& applid, const std::string& qualifier = "");

// Parts of a received message.
int32_t flowType(const Bytes& message);
int32_t messageId(const Bytes& message);
int32_t headerReturnCode(const Bytes& message);
std::string requestType(const Bytes& message);
Bytes payload(const Bytes& message);

// An ECI request of kind 1 or 12 as the client library lays it out.
struct EciCall {
    int32_t kind = 1;
    int32_t extendMode = 0;
    int32_t luwToken = 0;
    std::string system = "        ";   // the 8 bytes sent
    std::string userid = "USER1";
    std::string password = "ab";
    std::string program = "ECHO    ";  // the 8 bytes sent
    std::string transid = "TRN1";
    Bytes commarea;                    // what is sent of it
    int32_t commareaLength = -1;       // -1: the size of commarea
    int32_t outboundLength = 0;        // 0: no outbound length field
    int32_t inboundLength = 0;         // 0: no inbound length field
    Bytes channel;                     // a whole channel section, or none
    uint16_t timeout = 0;
    int32_t correlator = 7;
};

Bytes eciPayload(const EciCall& call);
Bytes eciMessage(int32_t messageId, const EciCall& call);
// A channel section: name (NUL-padded to 16), CCSID, then the records.
Bytes channelSection(const std::string& name, int32_t ccsid,
                     std::initializer_list<Bytes> containers);
// An outgoing container record (change mark 1) with its data.
Bytes containerRecord(const std::string& name, uint8_t type, int32_t ccsid, const Bytes& data);
// A name as a 16-byte NUL-padded field.
Bytes name16(const std::string& name);

class RawClient {
public:
    RawClient() = default;
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connect(int port);
    bool send(const Bytes& bytes);
    // One whole message within the time limit; false on timeout or end.
    bool read(Bytes& message, double seconds = 5);
    // Reads until the peer closes; true when it did within the limit.
    // Whatever arrived before the end is left in *rest.
    bool waitClosed(double seconds = 5, Bytes* rest = nullptr);
    // Sends a handshake with this APPLID and reads the handshake reply.
    bool handshake(const std::string& applid = "TESTAPP");
    // A request and its one answer.
    bool call(const Bytes& request, Bytes& answer, double seconds = 5);
    // Ends the sending side only, as a client that stops in mid-message.
    void endSending();
    void close();

private:
    bool readExactly(uint8_t* into, size_t n, double seconds);

    int fd_ = -1;
};

// Sends a request of the type as message `id` and returns the payload of
// the answer. `problem` says what was wrong with the answer's header: empty
// for a FLOW_REPLY of that type and id with return code 0.
Bytes exchange(RawClient& client, const std::string& type, int32_t id, const Bytes& payload,
               std::string& problem);

}  // namespace gwtest
