/* Message headers, the handshake and the close request, byte for byte over a socket pair. */
#include "library_support.h"

#include <tuple>

namespace {

TEST(Flows, CloseRequestIsTheThirtyThreeByteBaseHeaderAlone)
{
    SocketPair pair;
    EXPECT_EQ(0, clapiFlowCloseRequest(pair.lib));
    EXPECT_EQ(toHex(hexBytes("47617465 10901000 0000000A FFFFFFFF 00000000 00000004 42415345 00 00000000")),
              toHex(pair.drain()));
    pair.closePeer();
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, clapiFlowCloseRequest(pair.lib));
}

TEST(Flows, HandshakeCarriesTheLocaleBlockAndTheNamesInUtf8)
{
    const struct { const char* applid; const char* qualifier; std::string applidUtf8, qualifierUtf8; } cases[] = {
        {"APPL1", "", "APPL1", ""},
        {"APPL1", NULL, "APPL1", ""},
        {"", "QUAL", "", "QUAL"},
        {"\xE9\xA3", "A\xFF\x80", "\xC3\xA9\xC2\xA3", "A\xC3\xBF\xC2\x80"},
        {"\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9", "ABCDEFGH", "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9",
         "ABCDEFGH"},
    };
    for (const auto& c : cases) {
        SocketPair pair;
        EXPECT_EQ(0, clapiFlowHandshakeRequest(pair.lib, c.applid, c.qualifier));
        Wire expected;
        expected.header(5, -2, "BASE", static_cast<int32_t>(22 + c.applidUtf8.size() + c.qualifierUtf8.size()));
        expected.hex("0002 656E 0002 4742").fill(10, 0);
        expected.i16(static_cast<int32_t>(c.applidUtf8.size())).text(c.applidUtf8);
        expected.i16(static_cast<int32_t>(c.qualifierUtf8.size())).text(c.qualifierUtf8);
        EXPECT_EQ(toHex(expected.b), toHex(pair.drain())) << c.applid;
    }
}

// A header is read whole, its request type kept to five letters, and the next message is read in step; what cannot
// be a header is refused with one record. record: "" for a header read whole; NULL: three bytes, then the peer closes.
TEST(Flows, ReadHeaderKeepsTheStreamInStepOrRefusesWhatCannotBeAHeader)
{
    const struct { int32_t eyecatcher, typeLength, payloadLength; int rc; const char* record; } cases[] = {
        {FLOW_EYECATCHER, 3, 4, 0, ""}, {FLOW_EYECATCHER, 4, 4, 0, ""}, {FLOW_EYECATCHER, 5, 4, 0, ""},
        {FLOW_EYECATCHER, 6, 4, 0, ""}, {FLOW_EYECATCHER, 1024, 4, 0, ""},
        {0x41424344, 3, 0, ZEP_ERR_SYSTEM_ERROR, "*EXC* Bad eyecatcher! Expected=0x47617465, actual=0x41424344"},
        {FLOW_EYECATCHER, -1, 0, ZEP_ERR_SYSTEM_ERROR, "*EXC* Bad request type length -1"},
        {FLOW_EYECATCHER, 1025, 0, ZEP_ERR_SYSTEM_ERROR, "*EXC* Bad request type length 1025"},
        {FLOW_EYECATCHER, INT32_MIN, 0, ZEP_ERR_SYSTEM_ERROR, "*EXC* Bad request type length -2147483648"},
        {FLOW_EYECATCHER, 3, -5, ZEP_ERR_SYSTEM_ERROR, "*EXC* Bad payload length -5"},
        {FLOW_EYECATCHER, 0, 2, ZEP_ERR_SYSTEM_ERROR, "*EXC* Message of 31 bytes is shorter than the first read of a header"},
        {FLOW_EYECATCHER, -2, 0, ZEP_ERR_LOSTGWCON, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.typeLength);
        SocketPair pair;
        TraceCapture trace(1);
        ReadBuffer in(pair.lib, 33000);
        FlowHeader header;
        memset(&header, 0x5A, sizeof header);
        Wire message;
        message.i32(c.eyecatcher).i32(0x10901000).i32(3).i32(4).i32(-9).i32(c.typeLength);
        if (c.typeLength > 0 && c.typeLength <= 1024) message.fill(static_cast<size_t>(c.typeLength), 'E');
        message.u8(0).i32(c.payloadLength).i32(0x11223344).raw(Wire().header(7, 5, "ECI", 0).b);
        if (c.record == nullptr) message.b.resize(3);
        pair.feed(message.b);
        pair.closePeer();   // a read past what was sent ends instead of waiting
        EXPECT_EQ(c.rc, clapiReadHeader(&in.sb, &header));
        EXPECT_EQ(c.record && *c.record ? std::vector<std::string>{c.record} : std::vector<std::string>{},
                  recordTexts(trace, 3213));
        if (c.rc != 0) continue;
        EXPECT_EQ(std::make_tuple(FLOW_EYECATCHER, FLOW_VERSION, 3, 4, -9, c.typeLength, 0, 4),
                  std::make_tuple(header.eyecatcher, header.version, header.flowType, header.messageId,
                                  header.returnCode, header.requestTypeLength, int(header.flags), header.payloadLength));
        const size_t stored = std::min<size_t>(static_cast<size_t>(c.typeLength), 5);
        EXPECT_EQ(std::string(stored, 'E') + '\0', std::string(header.requestType, stored + 1));
        if (c.typeLength == 3) { EXPECT_EQ(0u, in.sb.bytesRemaining + in.sb.bytesInBuffer) << "read as 32 bytes"; }
        in.sb.bytesRemaining += static_cast<uint32_t>(header.payloadLength) - in.sb.bytesInBuffer;
        EXPECT_EQ(0, fillBuffer(&in.sb));
        EXPECT_EQ(0x11223344, readInt(&in.sb));
        EXPECT_EQ(0, clapiReadHeader(&in.sb, &header));
        EXPECT_EQ(std::make_pair(7, 5), std::make_pair(header.flowType, header.messageId));
    }
}

}  // namespace
