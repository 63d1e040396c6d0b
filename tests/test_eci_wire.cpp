/* ECI requests and replies, byte for byte over a socket pair. */
#include "library_support.h"

#include <climits>
#include <functional>
#include <thread>

namespace {

/* A program call with a COMMAREA of `length` bytes 0, 1, 2, ... */
struct ProgramCall {
    explicit ProgramCall(int32_t length) : commarea((size_t)length)
    {
        for (size_t i = 0; i < commarea.size(); i++) commarea[i] = (uint8_t)i;
        memset(&request, 0, sizeof request);
        request.requestKind = ECI_KIND_PROGRAM;
        memcpy(request.systemName, "SYS1\0\0\0\0", 8);
        request.userid = "USER1";
        request.password = "pw";
        memcpy(request.programName, "PROG1   ", 8);
        memcpy(request.transid, "TRN1", 4);
        request.commareaLength = length;
        request.commarea = commarea.data();
        request.timeout = 30;
        request.optionalMarker = -1;
        request.correlator = 5;
    }
    Bytes commarea;
    EciRequest request;
};

/* Sends the request; returns the whole message, whose header must announce the payload that follows. */
Bytes sent(EciRequest* request)
{
    SocketPair pair;
    FlowHeader header = requestHeader(3, ECI_REQUEST_NAME);
    Bytes wire;
    std::thread reader([&] { wire = pair.take(); });
    EXPECT_EQ(0, clapiFlowECIRequest(pair.lib, &header, request));
    shutdown(pair.lib, SHUT_WR);
    reader.join();
    if (wire.size() < 32) return Bytes();
    const int32_t payload = (int32_t)wire.size() - 32;
    EXPECT_EQ(toHex(Wire().header(1, 3, "ECI", payload).b), toHex(Bytes(wire.begin(), wire.begin() + 32)));
    EXPECT_EQ(payload, header.payloadLength);
    return wire;
}

TEST(EciRequestFlow, HundredByteCommareaGivesTheGoldenPayloadAndTheDumpHidesThePassword)
{
    TraceCapture trace(4);
    ProgramCall call(100);
    Bytes wire = sent(&call.request);
    Wire expected = Wire().header(1, 3, "ECI", 185);
    expected.i32(1).i32(0).i32(0).i32(0).u8(0).i32(8).field("SYS1", 8).field("USER1", 16);
    expected.i32(2).raw(Wire().scrambled("pw").b).text("PROG1   ").text("TRN1").i32(0);
    expected.i32(100).u8(0).u8(0).raw(call.commarea).u8(0).i16(30).u8(0).i32(-1).i32(5);
    EXPECT_EQ(toHex(expected.b), toHex(wire));
    EXPECT_EQ(std::vector<std::string>({"EXIT calculateECIRequestSize() requestSize=185"}), recordTexts(trace, 3203));
    /* The data dump shows the first 128 bytes, the two password bytes (after 32 + 49 bytes) as asterisks. */
    std::vector<TraceRecord> data = trace.find(2526);
    ASSERT_EQ(1u, data.size());
    Bytes shown(wire.begin(), wire.begin() + 128);
    shown[81] = shown[82] = 0x2A;
    EXPECT_EQ(toHex(shown), toHex(dumpedBytes(trace.linesAfter(data[0]))));
}

TEST(EciRequestFlow, SizeEqualsTheBytesWrittenForEveryCombination)
{
    Channel* channel = NULL;
    ASSERT_EQ(0, ECI_createChannel("SIZECHANNEL", &channel));
    ASSERT_EQ(0, ECI_createContainer(channel, "FIVE", ECI_BIT, 0, "12345", 5));
    ASSERT_EQ(0, ECI_createContainer(channel, "EMPTY", ECI_BIT, 0, NULL, 0));
    const uint8_t optional[4] = {1, 2, 3, 4};
    const int32_t kinds[] = {1, 12, 9, 5}, modes[] = {0, 1, 2, 4}, lengths[] = {0, 7, 40000};
    const char* passwords[] = {NULL, "", "secret"};
    for (int n = 0; n < 4 * 4 * 3 * 3 * 2 * 2; n++) {
        const int32_t length = lengths[n / 16 % 3], marker = n / 288 % 2 ? 1 : -1;
        ProgramCall call(length);
        call.request.requestKind = kinds[n % 4];
        call.request.extendMode = modes[n / 4 % 4];
        call.request.password = passwords[n / 48 % 3];
        call.request.channel = n / 144 % 2 ? channel : NULL;
        call.request.outboundLength = n % 3 == 0 ? length / 2 : 0;
        call.request.inboundLength = n % 2 == 0 ? length : 0;
        call.request.optionalMarker = marker;
        call.request.optional1Length = marker == -1 ? 0 : 4;
        call.request.optional1 = optional;
        call.request.optional2Length = marker == -1 ? 0 : 2;
        call.request.optional2 = optional;
        Bytes wire = sent(&call.request);
        ASSERT_EQ((size_t)calculateECIRequestSize(&call.request) + 32, wire.size()) << "combination " << n;
        EXPECT_EQ("00000005", toHex(Bytes(wire.end() - 4, wire.end()))) << "combination " << n;
    }
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
    SocketPair pair;
    pair.closePeer();
    ProgramCall call(10);
    FlowHeader header = requestHeader(1, ECI_REQUEST_NAME);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiFlowECIRequest(pair.lib, &header, &call.request));
}

/* ---- Replies ---- */

constexpr int32_t NO_DATA_LENGTH = INT32_MIN;   /* the reply carries no separate data length */

Bytes counting(size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = (uint8_t)(i + 1);
    return b;
}

/* A program reply: COMMAREA length, an optional data length, `sent` data bytes 1, 2, 3, ... and no channel. */
Bytes programReply(int32_t commareaLength, int32_t dataLength, size_t sent)
{
    Wire w;
    w.i32(ECI_KIND_PROGRAM).i32(0x10203040).i32(0).i32(-7).text("AB12").i32(commareaLength);
    if (dataLength == NO_DATA_LENGTH) w.u8(0);
    else w.u8(0xFF).u8(0).i32(dataLength);
    return w.raw(counting(sent)).u8(0).b;
}

struct ReplyCase {
    const char* what;
    uint32_t capacity;
    int32_t extendMode;
    Bytes payload;
    int rc;
    int32_t commareaLength;
    int32_t inbound;        /* data bytes stored; the rest of the area is zero */
    bool untouched;         /* the area keeps its 0xAA bytes */
    std::string trace;      /* the *EXC* record 3249, empty when none */
    bool cutShort = false;  /* the Gateway closes the connection after the payload */
};

std::string dropped(int data, int area)
{
    return "*EXC* Reply data of " + std::to_string(data) + " bytes exceed the reply area of " + std::to_string(area) +
           " bytes; the excess is dropped";
}

std::string badLength(int commarea, int data)
{
    return "*EXC* Bad length in ECI reply: COMMAREA length " + std::to_string(commarea) + ", data length " +
           std::to_string(data);
}

const ReplyCase replyCases[] = {
    {"short data fill the area, the rest is zeroed", 100, 0, programReply(100, 20, 20), 0, 100, 20, false, ""},
    {"extend mode 2 skips the data", 10, 2, programReply(10, NO_DATA_LENGTH, 10), 0, 10, 0, true, ""},
    {"extend mode 2 skips flagged data", 10, 2, programReply(10, 10, 10), 0, 10, 0, true, ""},
    {"extend mode 4 skips the data", 10, 4, programReply(10, NO_DATA_LENGTH, 10), 0, 10, 0, true, ""},
    {"extend mode 4 skips flagged data", 10, 4, programReply(10, 10, 10), 0, 10, 0, true, ""},
    {"data beyond the area", 10, 0, programReply(30, NO_DATA_LENGTH, 30), 0, 30, 10, false, dropped(30, 10)},
    {"flagged data beyond the area", 10, 0, programReply(30, 30, 30), 0, 30, 10, false, dropped(30, 10)},
    {"long data beyond a short COMMAREA", 10, 0, programReply(5, 40000, 40000), 0, 5, 10, false, dropped(40000, 10)},
    {"no area at all", 0, 0, programReply(50000, NO_DATA_LENGTH, 50000), 0, 50000, 0, false, dropped(50000, 0)},
    {"less data than the COMMAREA", 10, 0, programReply(50, 5, 5), 0, 50, 5, false, ""},
    {"system list", 6, 0, Wire().i32(9).i32(2).i32(0).i32(6).raw(counting(6)).b, 0, 6, 6, false, ""},
    {"negative COMMAREA length", 10, 0, programReply(-1, NO_DATA_LENGTH, 0), ZEP_ERR_SYSTEM_ERROR, -1, 0, true,
     badLength(-1, -1)},
    {"negative data length", 10, 0, programReply(10, -1, 0), ZEP_ERR_SYSTEM_ERROR, 10, 0, true, badLength(10, -1)},
    {"both negative", 10, 0, programReply(-5, 3, 0), ZEP_ERR_SYSTEM_ERROR, -5, 0, true, badLength(-5, 3)},
    {"lowest COMMAREA length", 10, 0, programReply(INT32_MIN, NO_DATA_LENGTH, 0), ZEP_ERR_SYSTEM_ERROR, INT32_MIN, 0,
     true, badLength(INT32_MIN, INT32_MIN)},
    {"reply cut short by the Gateway", 10, 0, Bytes(programReply(10, NO_DATA_LENGTH, 3)), ZEP_ERR_LOSTGWCON, 10, 0,
     true, "", true},
};

TEST(EciReply, DecodingTable)
{
    for (const ReplyCase& c : replyCases) {
        SCOPED_TRACE(c.what);
        SocketPair pair;
        TraceCapture trace(1);
        Bytes area(c.capacity + 1, 0xAA);
        area[c.capacity] = 0x5A;   /* the byte after the area */
        EciRequest request;
        memset(&request, 0, sizeof request);
        request.commarea = area.data();
        request.commareaCapacity = c.capacity;
        request.extendMode = c.extendMode;
        Bytes payload = c.payload;
        if (c.cutShort) payload.pop_back();
        std::thread writer([&] {
            pair.feed(payload);
            if (c.cutShort) pair.closePeer();
        });
        ReadBuffer in(pair.lib, (uint32_t)payload.size() + (c.cutShort ? 8 : 0));
        EXPECT_EQ(c.rc, clapiReadECIResponse(&in.sb, &request));
        writer.join();
        Bytes expected = c.untouched ? Bytes(c.capacity, 0xAA) : counting((size_t)c.inbound);
        expected.resize(c.capacity, 0);
        expected.push_back(0x5A);
        EXPECT_EQ(toHex(expected), toHex(area));
        EXPECT_EQ(c.trace.empty() ? std::vector<std::string>() : std::vector<std::string>{c.trace},
                  recordTexts(trace, 3249));
        if (c.rc != 0) continue;
        EXPECT_EQ(c.commareaLength, request.commareaLength);
        EXPECT_EQ(c.inbound, request.inboundLength);
        EXPECT_EQ(c.payload[3], request.requestKind);
        if (request.requestKind == ECI_KIND_PROGRAM) {
            EXPECT_EQ(0x10203040, request.luwToken);
            EXPECT_EQ(-7, request.returnCode);
            EXPECT_EQ(0, memcmp(request.abendCode, "AB12", 4));
        } else {
            EXPECT_EQ(2, request.replyToken);
        }
        /* Every byte of the reply was read, the skipped ones too: the next message starts in step. */
        EXPECT_EQ(0u, in.sb.bytesRemaining);
        EXPECT_EQ(0u, in.sb.bytesInBuffer);
    }
}

}  // namespace
