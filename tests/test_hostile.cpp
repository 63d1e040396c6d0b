// Replies a Gateway should never send: nothing lands outside the caller's area, and no cut reply passes for whole.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "scripted_gateway.h"
#include "zepclient.h"

namespace {

using Bytes = std::string;
constexpr int32_t NO_DATA_LENGTH = INT32_MIN;   // the reply carries no separate data length
constexpr size_t GUARD = 32;
constexpr char GUARD_BYTE = static_cast<char>(0xEE);

Bytes be32(int32_t v) { return ScriptedGateway::be32(v); }

// An ECI program reply: COMMAREA length, an optional data length, the data bytes and an optional channel.
Bytes eciReply(int32_t commareaLength, int32_t dataLength, size_t sent, const Bytes& channel = "")
{
    Bytes out = be32(1) + be32(0) + be32(0) + be32(0) + "    " + be32(commareaLength);
    out += dataLength == NO_DATA_LENGTH ? Bytes(1, '\0') : Bytes("\xFF\x00", 2) + be32(dataLength);
    for (size_t i = 0; i < sent; ++i) out += static_cast<char>('A' + i % 26);
    out += channel.empty() ? Bytes(1, '\0') : "\xFF" + channel;
    return out;
}

Bytes replyMessage(int32_t id, const Bytes& payload)
{
    return ScriptedGateway::header(FLOW_REPLY, id, "ECI", static_cast<int32_t>(payload.size()), 0) + payload;
}

EciParms block(int callType, void* area, int length)
{
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_version = 6;
    parms.eci_call_type = static_cast<int16_t>(callType);
    memcpy(parms.eci_program_name, "HOSTILE ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = static_cast<int16_t>(length);
    return parms;
}

// A caller's area of `length` bytes between two guards; every byte starts as GUARD_BYTE.
struct GuardedArea {
    explicit GuardedArea(size_t length) : bytes(length + 2 * GUARD, GUARD_BYTE), length(length) {}
    char* area() { return bytes.data() + GUARD; }
    bool guardsIntact() const
    {
        for (size_t i = 0; i < GUARD; ++i)
            if (bytes[i] != GUARD_BYTE || bytes[GUARD + length + i] != GUARD_BYTE) return false;
        return true;
    }
    std::vector<char> bytes;
    size_t length;
};

// One synchronous call answered with `payload`; its return code.
int syncCall(ScriptedGateway& gw, GatewayToken* tok, EciParms parms, Channel* channel, const Bytes& payload)
{
    parms.eci_channel = channel;
    auto call = std::async(std::launch::async, [&] {
        return channel != nullptr ? ZEP_ECI_Execute_Channel(tok, &parms) : ZEP_ECI_Execute(tok, &parms);
    });
    int32_t id = gw.nextRequest();
    EXPECT_NE(0, id);
    gw.send(replyMessage(id, payload));
    EXPECT_EQ(std::future_status::ready, call.wait_for(std::chrono::seconds(10)));
    return call.get();
}

Bytes channelSection(int32_t count, const Bytes& records)
{
    return Bytes("HOSTILECHANNEL  ", 16) + be32(1208) + be32(count) + records;
}

Bytes addedRecord(int32_t dataLength, size_t sent)
{
    return Bytes("NEWONE          ", 16) + Bytes("\x01\x00\x00\x01", 4) + be32(0) + be32(dataLength) + Bytes(sent, 'd');
}

struct SyncCase {
    const char* what;
    int32_t commareaLength;
    int32_t dataLength;
    size_t sent;            // data bytes that really follow
    Bytes channel;          // a channel section: the call is a channel call
    int rc;
    int dataBytes;          // leading area bytes that must hold the data; -1: not checked
    size_t zeroBytes;       // area bytes after them that must be zero
};

const SyncCase syncCases[] = {
    {"a reply that fits", 16, NO_DATA_LENGTH, 16, "", 0, 16, 0},
    {"data beyond the area", 40, NO_DATA_LENGTH, 40, "", ECI_ERR_INVALID_DATA_LENGTH, 16, 0},
    {"separate data length beyond the area", 16, 40, 40, "", ECI_ERR_INVALID_DATA_LENGTH, 16, 0},
    {"COMMAREA length beyond the area", 40, 8, 8, "", ECI_ERR_INVALID_DATA_LENGTH, 8, 8},
    {"negative COMMAREA length", -5, NO_DATA_LENGTH, 0, "", ZEP_ERR_LOSTGWCON, 0, 16},
    {"negative data length", 16, -1, 0, "", ZEP_ERR_LOSTGWCON, 0, 16},
    {"data length beyond the message", 16, 1000, 16, "", ZEP_ERR_LOSTGWCON, -1, 0},
    {"container count beyond the message", 0, NO_DATA_LENGTH, 0, channelSection(1000, ""), ZEP_ERR_LOSTGWCON, -1, 0},
    {"container data beyond the message", 0, NO_DATA_LENGTH, 0, channelSection(1, addedRecord(5000, 10)),
     ZEP_ERR_LOSTGWCON, -1, 0},
    {"negative container data length", 0, NO_DATA_LENGTH, 0, channelSection(1, addedRecord(-2, 0)), ZEP_ERR_LOSTGWCON,
     -1, 0},
};

TEST(Hostile, SynchronousRepliesNeverWriteOutsideTheCallersArea)
{
    for (const SyncCase& c : syncCases) {
        SCOPED_TRACE(c.what);
        ScriptedGateway gw;
        GatewayToken* tok = gw.open();
        ASSERT_NE(nullptr, tok);
        GuardedArea guarded(16);
        Channel* channel = nullptr;
        if (!c.channel.empty()) {
            ASSERT_EQ(0, ECI_createChannel("HOSTILECHANNEL", &channel));
        }
        EciParms parms = block(ECI_SYNC, channel ? nullptr : guarded.area(), channel ? 0 : 16);
        EXPECT_EQ(c.rc, syncCall(gw, tok, parms, channel, eciReply(c.commareaLength, c.dataLength, c.sent, c.channel)));
        EXPECT_TRUE(guarded.guardsIntact());
        for (int i = 0; i < c.dataBytes; ++i) ASSERT_EQ(static_cast<char>('A' + i % 26), guarded.area()[i]) << i;
        for (size_t i = 0; c.dataBytes >= 0 && i < c.zeroBytes; ++i)
            ASSERT_EQ(c.rc == ZEP_ERR_LOSTGWCON ? GUARD_BYTE : 0, guarded.area()[c.dataBytes + i]) << i;
        if (c.rc != ZEP_ERR_LOSTGWCON) {
            // The stream is still in step: the next reply reaches the next call whole.
            EXPECT_EQ(0, syncCall(gw, tok, block(ECI_SYNC, guarded.area(), 16), nullptr,
                                  eciReply(4, NO_DATA_LENGTH, 4)));
            EXPECT_EQ(0, memcmp("ABCD", guarded.area(), 4));
        }
        gw.hangUp();
        EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
        if (channel != nullptr) {
            EXPECT_EQ(0, ECI_deleteChannel(&channel));
        }
    }
}

struct AsyncCase {
    const char* what;
    int32_t replyBytes;
    int firstArea;          // the area of the first collection
    int firstRc;
    int told;               // the length the first collection reports
    int secondArea;         // 0: no second collection
    int secondRc;
};

const AsyncCase asyncCases[] = {
    {"a longer reply waits for an area that fits", 40, 16, ECI_ERR_INVALID_DATA_LENGTH, 40, 40, 0},
    {"the longest COMMAREA is kept whole", 32767, 100, ECI_ERR_INVALID_DATA_LENGTH, 32767, 32767, 0},
    {"a reply longer than any COMMAREA is refused", 40000, 32767, ECI_ERR_INVALID_DATA_LENGTH, 32767, 0, 0},
};

TEST(Hostile, AsynchronousRepliesAreKeptWholeUntilAnAreaFits)
{
    for (const AsyncCase& c : asyncCases) {
        SCOPED_TRACE(c.what);
        ScriptedGateway gw;
        GatewayToken* tok = gw.open();
        ASSERT_NE(nullptr, tok);
        char request[16] = "sixteen bytes..";
        EciParms send = block(ECI_ASYNC, request, sizeof request);
        ASSERT_EQ(0, ZEP_ECI_Execute(tok, &send));
        int32_t id = gw.nextRequest();
        ASSERT_NE(0, id);
        gw.send(replyMessage(id, eciReply(c.replyBytes, NO_DATA_LENGTH, static_cast<size_t>(c.replyBytes))));

        GuardedArea first(static_cast<size_t>(c.firstArea));
        EciParms collect = block(ECI_GET_REPLY_WAIT, first.area(), c.firstArea);
        EXPECT_EQ(c.firstRc, ZEP_ECI_Execute(tok, &collect));
        EXPECT_TRUE(first.guardsIntact());
        EXPECT_EQ(GUARD_BYTE, first.area()[0]);   // a reply that did not fit writes nothing
        EXPECT_EQ(c.told, c.firstRc == ECI_ERR_INVALID_DATA_LENGTH && c.secondArea != 0
                              ? static_cast<int>(collect.eci_commarea_length)
                              : static_cast<int>(collect.commarea_inbound_length));
        if (c.secondArea != 0) {
            GuardedArea second(static_cast<size_t>(c.secondArea));
            EciParms again = block(ECI_GET_REPLY, second.area(), c.secondArea);
            EXPECT_EQ(c.secondRc, ZEP_ECI_Execute(tok, &again));
            EXPECT_TRUE(second.guardsIntact());
            for (int i = 0; i < c.replyBytes; ++i) ASSERT_EQ(static_cast<char>('A' + i % 26), second.area()[i]) << i;
        }
        EciParms none = block(ECI_GET_REPLY, first.area(), c.firstArea);
        EXPECT_EQ(ECI_ERR_NO_REPLY, ZEP_ECI_Execute(tok, &none));   // nothing left queued
        gw.hangUp();
        EXPECT_EQ(0, ZEP_closeGatewayConnection(&tok));
    }
}

}  // namespace
