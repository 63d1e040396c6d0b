/* ECI requests and replies, byte for byte over a socket pair. */
#include "library_support.h"

#include <thread>

namespace {

FlowHeader eciHeader(int32_t messageId)
{
    return requestHeader(messageId, ECI_REQUEST_NAME);
}

/* A synchronous program call with a COMMAREA of `length` bytes 0, 1, 2, ... */
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

/*
 * Sends the request and returns every payload byte that went over; the header on the wire and the header
 * handed back must both announce exactly that many bytes.
 */
Bytes sentPayload(EciRequest* request, int32_t messageId = 3)
{
    SocketPair pair;
    FlowHeader header = eciHeader(messageId);
    Bytes wire;
    std::thread reader([&] { wire = pair.take(); });
    EXPECT_EQ(0, clapiFlowECIRequest(pair.lib, &header, request));
    shutdown(pair.lib, SHUT_WR);
    reader.join();
    if (wire.size() < 32) {
        ADD_FAILURE() << "only " << wire.size() << " bytes went over";
        return Bytes();
    }
    Bytes payload(wire.begin() + 32, wire.end());
    EXPECT_EQ(toHex(Wire().header(1, messageId, "ECI", (int32_t)payload.size()).b),
              toHex(Bytes(wire.begin(), wire.begin() + 32)));
    EXPECT_EQ((int32_t)payload.size(), header.payloadLength);
    return payload;
}

/* Fields 1 to 14 of a program call with the ProgramCall defaults. */
Wire programCallHead(int32_t kind = 1, int32_t extendMode = 0)
{
    Wire w;
    w.i32(kind).i32(extendMode).i32(0).i32(0).u8(0).i32(8).field("SYS1", 8).field("USER1", 16);
    w.i32(2).raw(Wire().scrambled("pw").b).text("PROG1   ").text("TRN1").i32(0);
    return w;
}

Wire& trailer(Wire& w, int32_t timeout = 30, int32_t correlator = 5)
{
    return w.i16(timeout).u8(0).i32(-1).i32(correlator);
}

TEST(EciRequestFlow, HundredByteCommareaGivesTheHundredEightyFiveBytePayload)
{
    TraceCapture trace(3);
    ProgramCall call(100);
    Bytes payload = sentPayload(&call.request);
    Wire expected = programCallHead();
    expected.i32(100).u8(0).u8(0).raw(call.commarea).u8(0);
    trailer(expected);
    EXPECT_EQ(185u, payload.size());
    EXPECT_EQ(toHex(expected.b), toHex(payload));
    EXPECT_EQ(std::vector<std::string>({"EXIT calculateECIRequestSize() requestSize=185"}), recordTexts(trace, 3203));
}

TEST(EciRequestFlow, DataTraceShowsThePasswordAsAsterisks)
{
    TraceCapture trace(4);
    ProgramCall call(10);
    call.request.password = "pw";
    Bytes payload = sentPayload(&call.request);
    ASSERT_EQ(15u + 68u + 2u + 10u, payload.size());
    std::vector<TraceRecord> data = trace.find(2526);
    ASSERT_EQ(1u, data.size());
    /* Header 32 bytes, then fields 1 to 9 take 49 bytes before the password. */
    Wire shown = Wire().header(1, 3, "ECI", (int32_t)payload.size());
    shown.raw(Bytes(payload.begin(), payload.begin() + 49)).fill(2, 0x2A);
    shown.raw(Bytes(payload.begin() + 51, payload.end()));
    EXPECT_EQ(toHex(shown.b), toHex(dumpedBytes(trace.linesAfter(data[0]))));
    EXPECT_EQ(toHex(Wire().scrambled("pw").b), toHex(Bytes(payload.begin() + 49, payload.begin() + 51)));
}

TEST(EciRequestFlow, SizeEqualsTheBytesWrittenForEveryCombination)
{
    Channel* channel = NULL;
    ASSERT_EQ(0, ECI_createChannel("SIZECHANNEL", &channel));
    ASSERT_EQ(0, ECI_createContainer(channel, "FIVE", ECI_BIT, 0, "12345", 5));
    ASSERT_EQ(0, ECI_createContainer(channel, "EMPTY", ECI_BIT, 0, NULL, 0));
    const uint8_t optional[4] = {1, 2, 3, 4};
    int combinations = 0;
    for (int32_t kind : {1, 12, 9, 5}) {
        for (int32_t mode : {0, 1, 2, 4}) {
            for (int32_t length : {0, 7, 40000}) {
                for (const char* password : {(const char*)NULL, "", "secret"}) {
                    for (bool withChannel : {false, true}) {
                        for (int32_t marker : {-1, 1}) {
                            ProgramCall call(length);
                            call.request.requestKind = kind;
                            call.request.extendMode = mode;
                            call.request.password = password;
                            call.request.outboundLength = combinations % 3 == 0 ? length / 2 : 0;
                            call.request.inboundLength = combinations % 2 == 0 ? length : 0;
                            call.request.channel = withChannel ? channel : NULL;
                            call.request.optionalMarker = marker;
                            call.request.optional1Length = marker == -1 ? 0 : 4;
                            call.request.optional1 = optional;
                            call.request.optional2Length = marker == -1 ? 0 : 2;
                            call.request.optional2 = optional;
                            Bytes payload = sentPayload(&call.request);
                            EXPECT_EQ((size_t)calculateECIRequestSize(&call.request), payload.size())
                                << kind << " " << mode << " " << length << " " << (password ? password : "NULL") << " "
                                << withChannel << " " << marker;
                            ASSERT_GE(payload.size(), 4u);
                            EXPECT_EQ("00000005", toHex(Bytes(payload.end() - 4, payload.end())));
                            combinations++;
                        }
                    }
                }
            }
        }
    }
    EXPECT_EQ(4 * 4 * 3 * 3 * 2 * 2, combinations);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

TEST(EciRequestFlow, LostConnectionIsReported)
{
    SocketPair pair;
    pair.closePeer();
    ProgramCall call(10);
    FlowHeader header = eciHeader(1);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiFlowECIRequest(pair.lib, &header, &call.request));
}

/* ---- Replies ---- */

/* The reply record as the receiver prepares it: where data go and how much room there is. */
struct ReplyTarget {
    ReplyTarget(uint32_t capacity, int32_t extendMode = 0) : area(capacity + 1, 0xAA)
    {
        area[capacity] = 0x5A;   /* the byte after the area */
        memset(&request, 0, sizeof request);
        request.commarea = area.data();
        request.commareaCapacity = capacity;
        request.extendMode = extendMode;
    }
    Bytes area;
    EciRequest request;
};

int decode(SocketPair& pair, const Bytes& payload, EciRequest* request)
{
    std::thread writer([&] { pair.feed(payload); });
    ReadBuffer in(pair.lib, (uint32_t)payload.size());
    int rc = clapiReadECIResponse(&in.sb, request);
    writer.join();
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
    return rc;
}

Wire programReply(int32_t commareaLength, int32_t kind = ECI_KIND_PROGRAM)
{
    Wire w;
    w.i32(kind).i32(0x10203040).i32(0).i32(-7).text("AB12").i32(commareaLength);
    return w;
}

TEST(EciReply, ShortDataFillTheAreaAndZeroTheRestOfTheCommarea)
{
    SocketPair pair;
    ReplyTarget target(100);
    Bytes data(20, 0x33);
    Bytes payload = programReply(100).u8(0xFF).u8(0).i32(20).raw(data).u8(0).b;
    EXPECT_EQ(0, decode(pair, payload, &target.request));
    EXPECT_EQ(1, target.request.requestKind);
    EXPECT_EQ(0x10203040, target.request.luwToken);
    EXPECT_EQ(-7, target.request.returnCode);
    EXPECT_EQ(0, memcmp(target.request.abendCode, "AB12", 4));
    EXPECT_EQ(100, target.request.commareaLength);
    EXPECT_EQ(20, target.request.inboundLength);
    EXPECT_EQ(toHex(data), toHex(Bytes(target.area.begin(), target.area.begin() + 20)));
    EXPECT_EQ(toHex(Bytes(80, 0)), toHex(Bytes(target.area.begin() + 20, target.area.begin() + 100)));
    EXPECT_EQ(0x5A, target.area[100]);
}

TEST(EciReply, ExtendModesTwoAndFourSkipDataBytesAndTheNextMessageStillDecodes)
{
    for (int32_t mode : {2, 4}) {
        for (bool flag : {false, true}) {
            SocketPair pair;
            ReplyTarget target(10, mode);
            Wire reply = programReply(10);
            if (flag) reply.u8(0xFF).u8(0).i32(10);
            else reply.u8(0);
            reply.fill(10, 0x41).u8(0);
            EXPECT_EQ(0, decode(pair, reply.b, &target.request)) << mode << " " << flag;
            EXPECT_EQ(toHex(Bytes(10, 0xAA)), toHex(Bytes(target.area.begin(), target.area.begin() + 10))) << mode;
            EXPECT_EQ(0, target.request.inboundLength);
            EXPECT_EQ(-7, target.request.returnCode);

            ReplyTarget next(4);
            EXPECT_EQ(0, decode(pair, programReply(4).u8(0).raw({9, 8, 7, 6}).u8(0).b, &next.request));
            EXPECT_EQ("090807065A", toHex(next.area));
        }
    }
}

TEST(EciReply, DataBeyondTheAreaAreDroppedAndTheNextMessageStillDecodes)
{
    struct Case {
        uint32_t capacity;
        int32_t commareaLength;
        int32_t dataLength;
        bool flag;
    } cases[] = {
        {10, 30, 30, false}, {10, 30, 30, true}, {10, 5, 40000, true}, {0, 50000, 50000, false}, {10, 50, 5, true},
    };
    for (const Case& c : cases) {
        SocketPair pair;
        TraceCapture trace(1);
        ReplyTarget target(c.capacity);
        Bytes data((size_t)c.dataLength);
        for (size_t i = 0; i < data.size(); i++) data[i] = (uint8_t)(i + 1);
        Wire reply = programReply(c.commareaLength);
        if (c.flag) reply.u8(0xFF).u8(0).i32(c.dataLength);
        else reply.u8(0);
        reply.raw(data).u8(0);
        EXPECT_EQ(0, decode(pair, reply.b, &target.request)) << c.dataLength;
        uint32_t stored = std::min(c.capacity, (uint32_t)c.dataLength);
        EXPECT_EQ((int32_t)stored, target.request.inboundLength);
        EXPECT_EQ(c.commareaLength, target.request.commareaLength);
        EXPECT_EQ(toHex(Bytes(data.begin(), data.begin() + stored)),
                  toHex(Bytes(target.area.begin(), target.area.begin() + stored)));
        EXPECT_EQ(toHex(Bytes(c.capacity - stored, 0)), toHex(Bytes(target.area.begin() + stored, target.area.end() - 1)));
        EXPECT_EQ(0x5A, target.area[c.capacity]);
        std::vector<std::string> expected;
        if ((uint32_t)c.dataLength > c.capacity) {
            expected.push_back("*EXC* Reply data of " + std::to_string(c.dataLength) + " bytes exceed the reply area of " +
                               std::to_string(c.capacity) + " bytes; the excess is dropped");
        }
        EXPECT_EQ(expected, recordTexts(trace, 3249));

        ReplyTarget next(4);
        EXPECT_EQ(0, decode(pair, programReply(4).u8(0).raw({9, 8, 7, 6}).u8(0).b, &next.request));
        EXPECT_EQ("090807065A", toHex(next.area));
    }
}

TEST(EciReply, NegativeLengthsAreProtocolErrors)
{
    struct Case {
        int32_t commareaLength;
        bool flag;
        int32_t dataLength;
    } cases[] = {{-1, false, 0}, {10, true, -1}, {-5, true, 3}, {(int32_t)0x80000000, false, 0}};
    for (const Case& c : cases) {
        SocketPair pair;
        TraceCapture trace(1);
        ReplyTarget target(10);
        Wire reply = programReply(c.commareaLength);
        if (c.flag) reply.u8(0xFF).u8(0).i32(c.dataLength);
        else reply.u8(0);
        EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, decode(pair, reply.b, &target.request));
        int32_t shownData = c.flag ? c.dataLength : c.commareaLength;
        EXPECT_EQ(std::vector<std::string>({"*EXC* Bad length in ECI reply: COMMAREA length " +
                                            std::to_string(c.commareaLength) + ", data length " +
                                            std::to_string(shownData)}),
                  recordTexts(trace, 3249));
        EXPECT_EQ(toHex(Bytes(10, 0xAA)), toHex(Bytes(target.area.begin(), target.area.begin() + 10)));
    }
}

TEST(EciReply, SystemListLandsInTheCallersList)
{
    SocketPair pair;
    ReplyTarget target(6);
    Bytes payload = Wire().i32(9).i32(2).i32(0).i32(6).text("SYSTEM").b;
    EXPECT_EQ(0, decode(pair, payload, &target.request));
    EXPECT_EQ(9, target.request.requestKind);
    EXPECT_EQ(2, target.request.replyToken);
    EXPECT_EQ(0, target.request.returnCode);
    EXPECT_EQ(6, target.request.commareaLength);
    EXPECT_EQ(6, target.request.inboundLength);
    EXPECT_EQ("SYSTEM", std::string(target.area.begin(), target.area.begin() + 6));
}

TEST(EciReply, ReplyCutShortByTheGatewayIsALostConnection)
{
    SocketPair pair;
    ReplyTarget target(10);
    Bytes payload = programReply(10).u8(0).raw({1, 2, 3}).b;
    pair.feed(payload);
    pair.closePeer();
    ReadBuffer in(pair.lib, (uint32_t)payload.size() + 8);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiReadECIResponse(&in.sb, &target.request));
}

/* ---- Against the Gateway emulator ---- */

}  // namespace
