/* ECI requests and replies byte for byte over a socket pair, and reading ahead. */
#include "library_support.h"

#include <climits>
#include <thread>

namespace {

/* Bytes first, first + 1, ... */
Bytes counting(size_t n, uint8_t first = 1)
{
    Bytes b(n);
    for (size_t i = 0; i < n; i++) b[i] = static_cast<uint8_t>(first + i);
    return b;
}

/* A program call of PROG1 at SYS1 with a COMMAREA of `length` bytes 0, 1, 2, ... */
struct ProgramCall {
    explicit ProgramCall(int32_t length) : commarea(counting(static_cast<size_t>(length), 0))
    {
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
    EciRequest request = {};
};

/* Sends the request; returns the whole message, whose header must announce the payload that follows. The
   largest request fits the socket pair's buffer, so the write never waits for a reader. */
Bytes sent(EciRequest* request)
{
    SocketPair pair;
    FlowHeader header = requestHeader(3, ECI_REQUEST_NAME);
    EXPECT_EQ(0, clapiFlowECIRequest(pair.lib, &header, request));
    const Bytes wire = pair.drain();
    const int32_t payload = static_cast<int32_t>(wire.size()) - 32;
    EXPECT_EQ(toHex(Wire().header(1, 3, "ECI", payload).b), toHex(Bytes(wire.begin(), wire.begin() + std::min<size_t>(wire.size(), 32))));
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
    expected.i32(2).scrambled("pw").text("PROG1   ").text("TRN1").i32(0);
    expected.i32(100).u8(0).u8(0).raw(call.commarea).u8(0).i16(30).u8(0).i32(-1).i32(5);
    EXPECT_EQ(toHex(expected.b), toHex(wire));
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
        const int32_t length = lengths[n / 16 % 3];
        const bool optionals = n / 288 % 2;
        ProgramCall call(length);
        call.request.requestKind = kinds[n % 4];
        call.request.extendMode = modes[n / 4 % 4];
        call.request.password = passwords[n / 48 % 3];
        call.request.channel = n / 144 % 2 ? channel : NULL;
        call.request.outboundLength = n % 3 == 0 ? length / 2 : 0;
        call.request.inboundLength = n % 2 == 0 ? length : 0;
        call.request.optionalMarker = optionals ? 1 : -1;
        call.request.optional1Length = optionals ? 4 : 0;
        call.request.optional1 = optional;
        call.request.optional2Length = optionals ? 2 : 0;
        call.request.optional2 = optional;
        Bytes wire = sent(&call.request);
        ASSERT_EQ(static_cast<size_t>(calculateECIRequestSize(&call.request)) + 32, wire.size()) << "combination " << n;
        EXPECT_EQ("00000005", toHex(Bytes(wire.end() - 4, wire.end()))) << "combination " << n;
    }
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

/* ---- Replies ---- */

constexpr int32_t NO_DATA_LENGTH = INT32_MIN; /* the reply carries no separate data length */

/* A program reply: COMMAREA length, an optional data length, `sent` data bytes 1, 2, 3, ... and no channel. */
Bytes programReply(int32_t commareaLength, int32_t dataLength, size_t sent)
{
    Wire w;
    w.i32(ECI_KIND_PROGRAM).i32(0x10203040).i32(0).i32(-7).text("AB12").i32(commareaLength);
    if (dataLength == NO_DATA_LENGTH) w.u8(0);
    else w.u8(0xFF).u8(0).i32(dataLength);
    return w.raw(counting(sent)).u8(0).b;
}

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

/* inbound: the data bytes stored, the rest of the area being zero; untouched: the area keeps its 0xAA bytes;
   trace: the *EXC* record 3249, empty when none; cutShort: the Gateway closes the connection after the payload. */
struct ReplyCase {
    uint32_t capacity;
    int32_t extendMode;
    Bytes payload;
    int rc;
    int32_t commareaLength, inbound;
    bool untouched;
    std::string trace;
    bool cutShort;
};

const ReplyCase replyCases[] = {
    {100, 0, programReply(100, 20, 20), 0, 100, 20, false, "", false},
    {10, 2, programReply(10, NO_DATA_LENGTH, 10), 0, 10, 0, true, "", false},
    {10, 4, programReply(10, 10, 10), 0, 10, 0, true, "", false},
    {10, 0, programReply(30, NO_DATA_LENGTH, 30), 0, 30, 10, false, dropped(30, 10), false},
    {10, 0, programReply(5, 40000, 40000), 0, 5, 10, false, dropped(40000, 10), false},
    {0, 0, programReply(50000, NO_DATA_LENGTH, 50000), 0, 50000, 0, false, dropped(50000, 0), false},
    {10, 0, programReply(50, 5, 5), 0, 50, 5, false, "", false},
    {6, 0, Wire().i32(9).i32(2).i32(0).i32(6).raw(counting(6)).b, 0, 6, 6, false, "", false},   /* system list */
    {10, 0, programReply(-1, NO_DATA_LENGTH, 0), ZEP_ERR_SYSTEM_ERROR, -1, 0, true, badLength(-1, -1), false},
    {10, 0, programReply(10, -1, 0), ZEP_ERR_SYSTEM_ERROR, 10, 0, true, badLength(10, -1), false},
    {10, 0, programReply(INT32_MIN, NO_DATA_LENGTH, 0), ZEP_ERR_SYSTEM_ERROR, INT32_MIN, 0, true, badLength(INT32_MIN, INT32_MIN), false},
    {10, 0, programReply(10, NO_DATA_LENGTH, 3), ZEP_ERR_LOSTGWCON, 10, 0, true, "", true},
};

TEST(EciReply, DecodingTable)
{
    for (const ReplyCase& c : replyCases) {
        SCOPED_TRACE(&c - replyCases);
        SocketPair pair;
        TraceCapture trace(1);
        Bytes area(c.capacity + 1, 0xAA);
        area[c.capacity] = 0x5A; /* the byte after the area */
        EciRequest request = {};
        request.commarea = area.data();
        request.commareaCapacity = c.capacity;
        request.extendMode = c.extendMode;
        Bytes payload(c.payload.begin(), c.payload.end() - (c.cutShort ? 1 : 0));
        std::thread writer([&] {
            pair.feed(payload);
            if (c.cutShort) pair.closePeer();
        });
        ReadBuffer in(pair.lib, static_cast<uint32_t>(payload.size()) + (c.cutShort ? 8 : 0));
        EXPECT_EQ(c.rc, clapiReadECIResponse(&in.sb, &request));
        writer.join();
        Bytes expected = c.untouched ? Bytes(c.capacity, 0xAA) : counting(static_cast<size_t>(c.inbound));
        expected.resize(c.capacity, 0);
        expected.push_back(0x5A);
        EXPECT_EQ(toHex(expected), toHex(area));
        EXPECT_EQ(c.trace.empty() ? std::vector<std::string>() : std::vector<std::string>{c.trace}, recordTexts(trace, 3249));
        if (c.rc != 0) continue;
        EXPECT_EQ(c.commareaLength, request.commareaLength);
        EXPECT_EQ(c.inbound, request.inboundLength);
        EXPECT_EQ(c.payload[3], request.requestKind);
        const bool program = request.requestKind == ECI_KIND_PROGRAM;
        EXPECT_EQ(program ? 0x10203040 : 0, request.luwToken);
        EXPECT_EQ(program ? -7 : 0, request.returnCode);
        EXPECT_EQ(program ? "AB12" : std::string(4, '\0'), std::string(request.abendCode, 4));
        EXPECT_EQ(program ? 0 : 2, request.replyToken);
        /* Every byte of the reply was read, the skipped ones too: the next message starts in step. */
        EXPECT_EQ(0u, in.sb.bytesRemaining);
        EXPECT_EQ(0u, in.sb.bytesInBuffer);
    }
}

/* One recv takes what has arrived, and every message still comes out whole and in order. */
TEST(ReadAhead, MessagesReadAheadKeepTheirOrderAndALongOneStillFillsTheCallersArea)
{
    SocketPair pair;
    ReadBuffer in(pair.lib, 33000);
    ASSERT_EQ(0, in.rc);
    in.sb.readAhead = 1;
    Bytes stream(10 + 40000 + 5);
    for (size_t i = 0; i < stream.size(); i++) stream[i] = static_cast<uint8_t>(i * 7 + i / 251);
    pair.feed(stream);
    Bytes got(stream.size(), 0);
    size_t at = 0;
    for (uint32_t length : {10u, 40000u, 5u}) {
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, length));
        readBytes(&in.sb, got.data() + at, length);
        at += length;
    }
    EXPECT_EQ(0, in.sb.errorCode);
    EXPECT_EQ(0u, in.sb.bytesAhead);
    EXPECT_EQ(toHex(stream), toHex(got));
}

}  // namespace
