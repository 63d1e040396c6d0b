// Replies a Gateway should never send: nothing lands outside the caller's area, and no cut reply passes for whole.
#include <climits>
#include <memory>

#include "library_support.h"

namespace {

using Text = std::string;
constexpr int32_t NO_DATA_LENGTH = INT32_MIN;   // the reply carries no separate data length
constexpr char GUARD_BYTE = static_cast<char>(0xEE);

Text be32(int32_t v) { return ScriptedGateway::be32(v); }
char letter(size_t i) { return static_cast<char>('A' + i % 26); }

// An ECI program reply message: COMMAREA length, an optional data length, the data bytes and an optional channel.
Text eciReply(int32_t id, int32_t commareaLength, int32_t dataLength, size_t sent, const Text& channel = "")
{
    Text out = be32(1) + be32(0) + be32(0) + be32(0) + "    " + be32(commareaLength);
    out += dataLength == NO_DATA_LENGTH ? Text(1, '\0') : Text("\xFF\x00", 2) + be32(dataLength);
    for (size_t i = 0; i < sent; ++i) out += letter(i);
    out += channel.empty() ? Text(1, '\0') : "\xFF" + channel;
    return ScriptedGateway::header(FLOW_REPLY, id, "ECI", static_cast<int32_t>(out.size()), 0) + out;
}

// A caller's area of `length` bytes between two guards of 32 bytes; every byte starts as GUARD_BYTE.
struct GuardedArea {
    explicit GuardedArea(size_t length) : bytes(length + 64, GUARD_BYTE), length(length) {}
    char* area() { return &bytes[32]; }
    bool guardsIntact() const { return bytes.substr(0, 32) + bytes.substr(32 + length) == Text(64, GUARD_BYTE); }
    Text bytes;
    size_t length;
};

// A scripted Gateway with a token open on it; hung up and the token closed with the object.
struct Scripted : ScriptedGateway {
    GatewayToken* tok = open();
    ~Scripted()
    {
        if (tok == nullptr) return;
        hangUp();   // so that a connection wrongly left open cannot hold up the close
        EXPECT_TRUE(pollUntil([this] { return connStatusOf(tok) == CONN_LOST; }));
        EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    }
};

// A channel section of `count` containers, but only the one record that adds "NEWONE" with `sent` bytes of data.
Text channelSection(int32_t count, int32_t dataLength = 0, size_t sent = 0)
{
    const Text added = Text("NEWONE          ", 16) + Text("\x01\x00\x00\x01", 4) + be32(0) + be32(dataLength) + Text(sent, 'd');
    return Text("HOSTILECHANNEL  ", 16) + be32(1208) + be32(count) + (count == 1 ? added : "");
}

// `sent` data bytes really follow; with a channel section the call is a channel call; the first `dataBytes` of the
// area (-1: not checked) must hold the data and `zeroBytes` after them must be zero.
struct SyncCase { const char* what; int32_t commareaLength, dataLength; size_t sent; Text channel; int rc, dataBytes; size_t zeroBytes; };

const SyncCase syncCases[] = {
    {"a reply that fits", 16, NO_DATA_LENGTH, 16, "", 0, 16, 0},
    {"data beyond the area", 40, NO_DATA_LENGTH, 40, "", ECI_ERR_INVALID_DATA_LENGTH, 16, 0},
    {"separate data length beyond the area", 16, 40, 40, "", ECI_ERR_INVALID_DATA_LENGTH, 16, 0},
    {"COMMAREA length beyond the area", 40, 8, 8, "", ECI_ERR_INVALID_DATA_LENGTH, 8, 8},
    {"negative COMMAREA length", -5, NO_DATA_LENGTH, 0, "", ZEP_ERR_LOSTGWCON, 0, 16},
    {"data length beyond the message", 16, 1000, 16, "", ZEP_ERR_LOSTGWCON, -1, 0},
    {"container count beyond the message", 0, NO_DATA_LENGTH, 0, channelSection(1000), ZEP_ERR_LOSTGWCON, -1, 0},
    {"container data beyond the message", 0, NO_DATA_LENGTH, 0, channelSection(1, 5000, 10), ZEP_ERR_LOSTGWCON, -1, 0},
};

TEST(Hostile, SynchronousRepliesNeverWriteOutsideTheCallersArea)
{
    for (const SyncCase& c : syncCases) {
        SCOPED_TRACE(c.what);
        Scripted gw;
        ASSERT_NE(nullptr, gw.tok);
        GuardedArea guarded(16);
        EciParms parms = eciBlock(ECI_SYNC, "HOSTILE", guarded.area(), 16);
        Channel* channel = nullptr;   // not created in the packed block: its field is not aligned for a pointer
        if (!c.channel.empty()) {
            ASSERT_EQ(0, ECI_createChannel("HOSTILECHANNEL", &channel));
            parms = eciBlock(ECI_SYNC, "HOSTILE");
            parms.eci_channel = channel;
        }
        EXPECT_EQ(c.rc, gw.answered([&] { return exec(gw.tok, parms); }, [&](int32_t id) {
                      return eciReply(id, c.commareaLength, c.dataLength, c.sent, c.channel);
                  }));
        EXPECT_TRUE(guarded.guardsIntact());
        for (int i = 0; i < c.dataBytes; ++i) ASSERT_EQ(letter(i), guarded.area()[i]) << i;
        for (size_t i = 0; c.dataBytes >= 0 && i < c.zeroBytes; ++i)
            ASSERT_EQ(c.rc == ZEP_ERR_LOSTGWCON ? GUARD_BYTE : 0, guarded.area()[c.dataBytes + i]) << i;
        if (c.rc != ZEP_ERR_LOSTGWCON) {
            // The stream is still in step: the next reply reaches the next call whole.
            parms = eciBlock(ECI_SYNC, "HOSTILE", guarded.area(), 16);
            EXPECT_EQ(0, gw.answered([&] { return exec(gw.tok, parms); },
                                  [](int32_t id) { return eciReply(id, 4, NO_DATA_LENGTH, 4); }));
            EXPECT_EQ(0, memcmp("ABCD", guarded.area(), 4));
        }
        if (channel != nullptr) { EXPECT_EQ(0, ECI_deleteChannel(&channel)); }
    }
}

TEST(Hostile, AsynchronousRepliesAreKeptWholeUntilAnAreaFits)
{
    // The first collection, into firstArea, fails and reports `told`; a second one into secondArea (0: none) fits.
    const struct { const char* what; int32_t replyBytes; int firstArea, told, secondArea; } cases[] = {
        {"a longer reply waits for an area that fits", 40, 16, 40, 40},
        {"the longest COMMAREA is kept whole", 32767, 100, 32767, 32767},
        {"a reply longer than any COMMAREA is refused", 40000, 32767, 32767, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scripted gw;
        ASSERT_NE(nullptr, gw.tok);
        char request[16] = "sixteen bytes..";
        EciParms send = eciBlock(ECI_ASYNC, "HOSTILE", request, sizeof request);
        ASSERT_EQ(0, ZEP_ECI_Execute(gw.tok, &send));
        const int32_t id = gw.nextRequest();
        ASSERT_NE(0, id);
        gw.send(eciReply(id, c.replyBytes, NO_DATA_LENGTH, static_cast<size_t>(c.replyBytes)));

        GuardedArea first(static_cast<size_t>(c.firstArea));
        EciParms collect = eciBlock(ECI_GET_REPLY_WAIT, "HOSTILE", first.area(), c.firstArea);
        EXPECT_EQ(ECI_ERR_INVALID_DATA_LENGTH, ZEP_ECI_Execute(gw.tok, &collect));
        EXPECT_TRUE(first.guardsIntact());
        EXPECT_EQ(GUARD_BYTE, first.area()[0]);   // a reply that did not fit writes nothing
        EXPECT_EQ(c.told, c.secondArea != 0 ? copyOf(collect.eci_commarea_length)
                                            : copyOf(collect.commarea_inbound_length));
        if (c.secondArea != 0) {
            GuardedArea second(static_cast<size_t>(c.secondArea));
            EciParms again = eciBlock(ECI_GET_REPLY, "HOSTILE", second.area(), c.secondArea);
            EXPECT_EQ(0, ZEP_ECI_Execute(gw.tok, &again));
            EXPECT_TRUE(second.guardsIntact());
            for (int i = 0; i < c.replyBytes; ++i) ASSERT_EQ(letter(i), second.area()[i]) << i;
        }
        EciParms none = eciBlock(ECI_GET_REPLY, "HOSTILE", first.area(), c.firstArea);
        EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(gw.tok, &none));   // nothing left queued
    }
}

// Replies zepgw never sends, each to one call on a thread of its own, in order on one connection until a reply
// ends it: the call's code, the connection's status and code, and the ESI caller's details, which only a whole
// reply to its own request fills. -27 would be mapped if it came as the reply's ESI code; as an error flow's it is
// the result. The ESI reply to an ECI call comes on the slot the last ESI caller used.
TEST(Hostile, EachReplyEndsItsRequestOrTheConnection)
{
    const int refused = ZEP_ERR_WORK_WAS_REFUSED, anyRc = INT32_MIN;
    const auto error = [](int32_t id, const char* type, int32_t rc) {
        return ScriptedGateway::header(FLOW_ERROR, id, type, 0, rc);
    };
    Text esiReply = ScriptedGateway::header(FLOW_REPLY, 1, "ESI", 92, 0) + be32(0);
    for (int i = 0; i < 22; i++) esiReply += be32(2000 + i);
    const struct { const char* what; bool esi; Text reply; int rc, connStatus, connRc; } cases[] = {
        {"ESI error flow of a Gateway code", true, error(1, "ESI", -27), -27, CONN_OPEN, 0},
        {"ESI reply to an ECI call", false, esiReply, anyRc, CONN_OPEN, 0},
        {"unexpected request type", false, ScriptedGateway::header(FLOW_REPLY, 1, "XYZ", 0, 0), ZEP_ERR_SYSTEM_ERROR,
         CONN_OPEN, 0},
        {"BASE error flow", false, error(MSGID_HANDSHAKE, "BASE", refused), ZEP_ERR_LOSTGWCON, CONN_LOST, refused},
        // A return code of 0 and then the message ends in the middle of the first time stamp.
        {"ESI reply cut short", true, ScriptedGateway::header(FLOW_REPLY, 1, "ESI", 8, 0) + be32(0) + be32(2026),
         ZEP_ERR_LOSTGWCON, CONN_LOST, -1},
    };
    TraceCapture trace(1);
    std::unique_ptr<Scripted> gw;
    EsiDetails details;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (gw == nullptr || connStatusOf(gw->tok) != CONN_OPEN) gw.reset(new Scripted);
        ASSERT_NE(nullptr, gw->tok);
        GatewayToken* tok = gw->tok;
        memset(&details, 0xAB, sizeof details);
        char area[8] = "odd";
        const int rc = gw->answered([&] {
            return c.esi ? ZEP_ESI_verifyPassword(tok, "ZEPUSER", "ZEPPASS1", nullptr, &details)
                         : callProgram(tok, "ECHO", area, 3);
        }, [&](int32_t id) {
            EXPECT_EQ(1, id);   // every call takes the first slot
            return c.reply;
        });
        EXPECT_EQ(c.rc == anyRc ? rc : c.rc, rc);
        EXPECT_EQ(c.connStatus, connStatusOf(tok));
        const int connRc = __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED);
        EXPECT_TRUE(c.connRc < 0 ? connRc != 0 : connRc == c.connRc) << connRc;
        EXPECT_EQ(Text(sizeof details, '\xAB'), Text((char*)&details, sizeof details));
    }
    EXPECT_TRUE(trace.has(3042, "clapi_gwycon.receiverThread() Gateway returned unexpected request type XYZ"));
}

}  // namespace
