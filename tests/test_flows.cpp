/* Message headers, the handshake and the close request, byte for byte over a socket pair. */
#include "library_support.h"

#include <thread>

namespace {

const Bytes LOCALE = {0x00, 0x02, 0x65, 0x6E, 0x00, 0x02, 0x47, 0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

TEST(CloseFlow, IsTheThirtyThreeByteBaseHeaderAlone)
{
    SocketPair pair;
    EXPECT_EQ(0, clapiFlowCloseRequest(pair.lib));
    Bytes expected = {0x47, 0x61, 0x74, 0x65, 0x10, 0x90, 0x10, 0x00, 0x00, 0x00, 0x00, 0x0A,
                      0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04,
                      'B',  'A',  'S',  'E',  0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(toHex(expected), toHex(pair.drain()));
}

TEST(CloseFlow, LostConnectionIsReported)
{
    SocketPair pair;
    pair.closePeer();
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiFlowCloseRequest(pair.lib));
}

TEST(HandshakeFlow, CarriesTheLocaleBlockAndTheNamesInUtf8)
{
    struct Case {
        const char* applid;
        const char* qualifier;
        Bytes applidUtf8;
        Bytes qualifierUtf8;
    } cases[] = {
        {"APPL1", "", {'A', 'P', 'P', 'L', '1'}, {}},
        {"APPL1", NULL, {'A', 'P', 'P', 'L', '1'}, {}},
        {"", "QUAL", {}, {'Q', 'U', 'A', 'L'}},
        {"\xE9\xA3", "A\xFF\x80", {0xC3, 0xA9, 0xC2, 0xA3}, {'A', 0xC3, 0xBF, 0xC2, 0x80}},
        {"\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9", "ABCDEFGH", Bytes(8 * 2, 0), {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}},
    };
    for (size_t i = 0; i < 8; i++) {
        cases[4].applidUtf8[2 * i] = 0xC3;
        cases[4].applidUtf8[2 * i + 1] = 0xA9;
    }
    for (const Case& c : cases) {
        SocketPair pair;
        EXPECT_EQ(0, clapiFlowHandshakeRequest(pair.lib, c.applid, c.qualifier));
        int32_t payload = 22 + (int32_t)c.applidUtf8.size() + (int32_t)c.qualifierUtf8.size();
        Wire expected;
        expected.header(5, -2, "BASE", payload).raw(LOCALE);
        expected.i16((int32_t)c.applidUtf8.size()).raw(c.applidUtf8);
        expected.i16((int32_t)c.qualifierUtf8.size()).raw(c.qualifierUtf8);
        EXPECT_EQ(toHex(expected.b), toHex(pair.drain())) << c.applid;
    }
}

TEST(WriteHeader, WritesEveryFieldAsTheCallerSetIt)
{
    SocketPair pair;
    FlowHeader header;
    memset(&header, 0, sizeof header);
    header.eyecatcher = FLOW_EYECATCHER;
    header.version = FLOW_VERSION;
    header.flowType = FLOW_REQUEST;
    header.messageId = 12;
    header.returnCode = 0;
    header.requestTypeLength = 3;
    memcpy(header.requestType, "ESI", 3);
    header.payloadLength = 0x01020304;
    WriteBuffer out(pair.lib, 32);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeHeader(&sb, &header);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));
    EXPECT_EQ(toHex(Wire().header(1, 12, "ESI", 0x01020304).b), toHex(pair.drain()));
}

/* Feeds `bytes`, reads one header and returns its rc. */
int readHeaderFrom(SocketPair& pair, const Bytes& bytes, SocketBuffer* sb, FlowHeader* header)
{
    pair.feed(bytes);
    memset(header, 0x5A, sizeof *header);
    sb->socketDesc = pair.lib;
    return clapiReadHeader(sb, header);
}

TEST(ReadHeader, ThreeLetterHeaderIsReadFromTheFirstThirtyTwoBytes)
{
    SocketPair pair;
    ReadBuffer in(pair.lib, 33000);
    FlowHeader header;
    ASSERT_EQ(0, readHeaderFrom(pair, Wire().header(3, 7, "ECI", 4, -9).i32(99).b, &in.sb, &header));
    EXPECT_EQ(FLOW_EYECATCHER, header.eyecatcher);
    EXPECT_EQ(FLOW_VERSION, header.version);
    EXPECT_EQ(3, header.flowType);
    EXPECT_EQ(7, header.messageId);
    EXPECT_EQ(-9, header.returnCode);
    EXPECT_EQ(3, header.requestTypeLength);
    EXPECT_EQ(0, memcmp(header.requestType, "ECI\0\0\0", 6));
    EXPECT_EQ(0, header.flags);
    EXPECT_EQ(4, header.payloadLength);
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
    in.sb.bytesRemaining += 4;
    EXPECT_EQ(0, fillBuffer(&in.sb));
    EXPECT_EQ(99, readInt(&in.sb));
}

TEST(ReadHeader, BadEyecatcherIsAProtocolError)
{
    SocketPair pair;
    TraceCapture trace(1);
    ReadBuffer in(pair.lib, 33000);
    FlowHeader header;
    Bytes message = Wire().header(3, 1, "ECI", 0).b;
    memcpy(message.data(), "ABCD", 4);
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, readHeaderFrom(pair, message, &in.sb, &header));
    EXPECT_EQ(std::vector<std::string>({"*EXC* Bad eyecatcher! Expected=0x47617465, actual=0x41424344"}),
              recordTexts(trace, 3213));
}

TEST(ReadHeader, LongRequestTypesAreCutAndTheStreamStaysInStep)
{
    struct Case {
        std::string type;
        const char* stored;
    } cases[] = {
        {"ECIX", "ECIX"},
        {"ABCDE", "ABCDE"},
        {"ABCDEF", "ABCDE"},
        {"LONGREQUESTTYPE", "LONGR"},
        {std::string(1024, 'Q'), "QQQQQ"},
    };
    for (const Case& c : cases) {
        SocketPair pair;
        ReadBuffer in(pair.lib, 33000);
        FlowHeader header;
        Bytes message = Wire().header(3, 4, c.type, 4).i32(0x11223344).b;
        Bytes next = Wire().header(7, 5, "ECI", 0).b;
        std::thread writer([&] { pair.feed(message); pair.feed(next); });
        EXPECT_EQ(0, clapiReadHeader(&in.sb, &header)) << c.type.size();
        EXPECT_EQ((int32_t)c.type.size(), header.requestTypeLength);
        EXPECT_EQ(0, memcmp(header.requestType, c.stored, strlen(c.stored) + 1)) << c.type.size();
        EXPECT_EQ(0, header.requestType[5]);
        EXPECT_EQ(4, header.payloadLength) << c.type.size();
        in.sb.bytesRemaining += (uint32_t)header.payloadLength - in.sb.bytesInBuffer;
        EXPECT_EQ(0, fillBuffer(&in.sb));
        EXPECT_EQ(0x11223344, readInt(&in.sb)) << c.type.size();
        writer.join();
        EXPECT_EQ(0, clapiReadHeader(&in.sb, &header));
        EXPECT_EQ(7, header.flowType);
        EXPECT_EQ(5, header.messageId);
    }
}

TEST(ReadHeader, ImpossibleLengthsAreProtocolErrors)
{
    struct Case {
        int32_t typeLength;
        int32_t payloadLength;
        const char* record;
    } cases[] = {
        {-1, 0, "*EXC* Bad request type length -1"},
        {1025, 0, "*EXC* Bad request type length 1025"},
        {(int32_t)0x80000000, 0, "*EXC* Bad request type length -2147483648"},
        {3, -5, "*EXC* Bad payload length -5"},
        {0, 2, "*EXC* Message of 31 bytes is shorter than the first read of a header"},
    };
    for (const Case& c : cases) {
        SocketPair pair;
        TraceCapture trace(1);
        ReadBuffer in(pair.lib, 33000);
        FlowHeader header;
        Wire message;
        message.i32(0x47617465).i32(0x10901000).i32(3).i32(1).i32(0).i32(c.typeLength);
        if (c.typeLength > 0 && c.typeLength <= 1024) message.fill((size_t)c.typeLength, 'E');
        message.u8(0).i32(c.payloadLength).fill(8, 0);
        pair.feed(message.b);
        EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, clapiReadHeader(&in.sb, &header)) << c.record;
        EXPECT_EQ(std::vector<std::string>({c.record}), recordTexts(trace, 3213));
    }
}

TEST(ReadHeader, PeerClosingBeforeAWholeHeaderIsALostConnection)
{
    SocketPair pair;
    ReadBuffer in(pair.lib, 33000);
    FlowHeader header;
    pair.feed({0x47, 0x61, 0x74});
    pair.closePeer();
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiReadHeader(&in.sb, &header));
}

}  // namespace
