/* ESI requests and replies, byte for byte over a socket pair. */
#include "library_support.h"

#include <thread>

namespace {

FlowHeader esiHeader(int32_t messageId)
{
    return requestHeader(messageId, ESI_REQUEST_NAME);
}

EsiRequest esiRequest(int32_t kind, const char* userid, const char* password, const char* newPassword,
                      const char* server)
{
    EsiRequest request;
    memset(&request, 0, sizeof request);
    request.esiKind = kind;
    request.userid = userid;
    request.password = password;
    request.newPassword = newPassword;
    strncpy(request.server, server, sizeof request.server);
    return request;
}

TEST(EsiRequestFlow, VerifyingCarriesTheThirtyThreeBytePayloadWithTheMaskedPassword)
{
    SocketPair pair;
    TraceCapture trace(3);
    FlowHeader header = esiHeader(4);
    EsiRequest request = esiRequest(ESI_KIND_VERIFY, "USER1", "PASSWD7", "IGNORED", "SRV1");
    EXPECT_EQ(0, clapiFlowESIRequest(pair.lib, &header, &request));
    EXPECT_EQ(33, header.payloadLength);
    Wire expected;
    expected.header(1, 4, "ESI", 33);
    expected.i32(0).field("USER1", 10).i32(7).raw(Wire().scrambled("PASSWD7").b).field("SRV1", 8);
    EXPECT_EQ(toHex(expected.b), toHex(pair.drain()));
    EXPECT_EQ(std::vector<std::string>({"EXIT calculateESIRequestSize() size=33"}), recordTexts(trace, 3238));
}

TEST(EsiRequestFlow, ChangingAddsTheNewPasswordMasked)
{
    SocketPair pair;
    FlowHeader header = esiHeader(9);
    EsiRequest request = esiRequest(ESI_KIND_CHANGE, "A_LONG_USER_ID", "OLD", "NEWPASS", "");
    EXPECT_EQ(0, clapiFlowESIRequest(pair.lib, &header, &request));
    EXPECT_EQ(3 + 26 + 4 + 7, header.payloadLength);
    Wire expected;
    expected.header(1, 9, "ESI", 40);
    expected.i32(1).field("A_LONG_USER_ID", 10).i32(3).raw(Wire().scrambled("OLD").b).fill(8, 0);
    expected.i32(7).raw(Wire().scrambled("NEWPASS").b);
    EXPECT_EQ(toHex(expected.b), toHex(pair.drain()));
}

TEST(EsiRequestFlow, PasswordsAppearInTheDataDumpOnlyAsAsterisks)
{
    SocketPair pair;
    TraceCapture trace(4);
    FlowHeader header = esiHeader(2);
    EsiRequest request = esiRequest(ESI_KIND_CHANGE, "U", "ABCD", "EFGH", "S");
    EXPECT_EQ(0, clapiFlowESIRequest(pair.lib, &header, &request));
    std::vector<TraceRecord> data = trace.find(2526);
    ASSERT_EQ(1u, data.size());
    std::vector<std::string> dump = trace.linesAfter(data[0]);
    ASSERT_EQ(6u, dump.size());
    /* Message bytes 48 to 63 and 64 to 69: each password behind its length 00 00 00 04. */
    EXPECT_NE(std::string::npos, dump[4].find(": 00042A2A 2A2A5300 00000000 00000000 : ..****S.........")) << dump[4];
    EXPECT_NE(std::string::npos, dump[5].find(": 00042A2A 2A2A                       : ..****")) << dump[5];
    Bytes wire = pair.drain();
    ASSERT_EQ(32u + 38u, wire.size());
    EXPECT_EQ(toHex(Wire().scrambled("ABCD").b), toHex(Bytes(wire.begin() + 50, wire.begin() + 54)));
    EXPECT_EQ(toHex(Wire().scrambled("EFGH").b), toHex(Bytes(wire.end() - 4, wire.end())));
    Wire shown;
    shown.raw(Bytes(wire.begin(), wire.begin() + 50)).fill(4, 0x2A).raw(Bytes(wire.begin() + 54, wire.begin() + 66));
    shown.fill(4, 0x2A);
    EXPECT_EQ(toHex(shown.b), toHex(dumpedBytes(dump)));
}

TEST(EsiReply, ReplyCutShortIsAFailureNotAVerifiedPassword)
{
    struct Case {
        uint32_t payload;
        bool closed;
        int32_t rc;
    } cases[] = {
        {0, false, ZEP_ERR_SYSTEM_ERROR}, {4, false, ZEP_ERR_SYSTEM_ERROR}, {40, false, ZEP_ERR_SYSTEM_ERROR},
        {40, true, ZEP_ERR_LOSTGWCON},
    };
    for (const Case& c : cases) {
        SocketPair pair;
        Wire sent;
        sent.i32(0);
        for (int32_t word = 1; word <= 22; word++) sent.i32(word);
        sent.b.resize(c.payload);
        pair.feed(sent.b);
        /* A closed connection loses the rest of the reply; otherwise the next message follows at once. */
        if (c.closed) pair.closePeer();
        else pair.feed(Wire().i32(0x47617465).b);
        ReadBuffer in(pair.lib, c.closed ? 22 * 4 + 4 : c.payload);
        EsiReply reply;
        memset(&reply, 0, sizeof reply);
        EXPECT_EQ(c.rc, clapiReadESIResponse(&in.sb, &reply)) << c.payload;
        EXPECT_EQ(c.rc, reply.returnCode) << c.payload;
        if (c.closed) continue;
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
        EXPECT_EQ(0x47617465, readInt(&in.sb)) << c.payload;
    }
}

TEST(EsiReply, SecondAndThirdTimeArriveInSwappedOrder)
{
    SocketPair pair;
    Wire payload;
    payload.i32(0);
    for (int32_t word = 1; word <= 22; word++) payload.i32(word * 100);
    pair.feed(payload.b);
    ReadBuffer in(pair.lib, (uint32_t)payload.b.size());
    EsiReply reply;
    memset(&reply, 0, sizeof reply);
    EXPECT_EQ(2200, clapiReadESIResponse(&in.sb, &reply));
    EXPECT_EQ(0, reply.returnCode);
    const EsiTime* times[3] = {&reply.details.esiTime1, &reply.details.esiTime3, &reply.details.esiTime2};
    for (int t = 0; t < 3; t++) {
        const int32_t* words = &times[t]->year;
        for (int w = 0; w < 7; w++) EXPECT_EQ((t * 7 + w + 1) * 100, words[w]) << t << "," << w;
    }
    EXPECT_EQ(2200, reply.details.esiCount);
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
}

}  // namespace
