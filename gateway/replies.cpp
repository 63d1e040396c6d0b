#include "replies.h"

namespace zepgw {

namespace {

// The same locale block that clients send in their handshake.
const uint8_t kLocaleBlock[18] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};

Header replyHeader(int32_t messageId, const std::string& requestType)
{
    Header h;
    h.flowType = kFlowReply;
    h.messageId = messageId;
    h.requestType = requestType;
    return h;
}

bool carriesData(uint8_t mark)
{
    return mark == kMarkAdded || mark == kMarkModified;
}

void writeChannel(ByteWriter& w, const Channel& ch)
{
    w.text(padField(ch.name, 16, '\0'));
    w.i32(ch.ccsid);
    w.i32(static_cast<int32_t>(ch.containers.size()));
    for (const Container& c : ch.containers) {
        w.text(padField(c.name, 16, '\0'));
        w.u8(c.mark);
        w.u8(0);
        w.u8(0);
        w.u8(c.type);
        w.i32(c.ccsid);
        w.i32(c.dataLength);
        if (carriesData(c.mark))
            w.bytes(c.data);
    }
}

void writeTime(ByteWriter& w, const EsiTime& t)
{
    for (int32_t v : {t.year, t.month, t.day, t.hour, t.minute, t.second, t.reserved})
        w.i32(v);
}

}  // namespace

Bytes encodeEciReply(int32_t messageId, const EciReply& reply)
{
    ByteWriter w;
    w.reserve(31 + reply.data.size());  // all but a channel
    w.i32(reply.kind);
    w.i32(reply.luwToken);
    w.i32(0);
    w.i32(reply.returnCode);
    w.text(padField(reply.abendCode, 4, ' '));
    w.i32(reply.commareaLength);
    const int32_t dataLength = static_cast<int32_t>(reply.data.size());
    if (reply.announceLength || dataLength != reply.commareaLength) {
        w.u8(0xFF);
        w.u8(0);
        w.i32(dataLength);
    } else {
        w.u8(0);
    }
    w.bytes(reply.data);
    w.u8(reply.hasChannel ? 0xFF : 0);
    if (reply.hasChannel)
        writeChannel(w, reply.channel);
    return encodeMessage(replyHeader(messageId, "ECI"), w.take());
}

Bytes encodeSystemList(int32_t messageId, const std::vector<SystemEntry>& entries,
                       int32_t returnCode)
{
    ByteWriter w;
    w.i32(kKindListSystems);
    w.i32(static_cast<int32_t>(entries.size()));
    w.i32(returnCode);
    w.i32(static_cast<int32_t>(entries.size() * (kSystemNameWidth + kSystemDescriptionWidth)));
    for (const SystemEntry& e : entries) {
        w.text(padField(e.name, kSystemNameWidth, ' '));
        w.text(padField(e.description, kSystemDescriptionWidth, '\0'));
    }
    return encodeMessage(replyHeader(messageId, "ECI"), w.take());
}

Bytes encodeEsiFailure(int32_t messageId, int32_t returnCode)
{
    ByteWriter w;
    w.i32(returnCode);
    return encodeMessage(replyHeader(messageId, "ESI"), w.take());
}

Bytes encodeEsiSuccess(int32_t messageId, const EsiDetails& details)
{
    ByteWriter w;
    w.i32(0);
    // The second and third time travel in swapped order.
    writeTime(w, details.time1);
    writeTime(w, details.time3);
    writeTime(w, details.time2);
    w.i32(details.count);
    return encodeMessage(replyHeader(messageId, "ESI"), w.take());
}

Bytes encodeError(int32_t messageId, const std::string& requestType, int32_t returnCode)
{
    Header h;
    h.flowType = kFlowError;
    h.messageId = messageId;
    h.returnCode = returnCode;
    h.requestType = requestType;
    return encodeMessage(h, Bytes());
}

Bytes encodeException(int32_t messageId, const std::string& requestType,
                      const std::string& text)
{
    Header h;
    h.flowType = kFlowException;
    h.messageId = messageId;
    h.requestType = requestType;
    ByteWriter w;
    w.u8(0);
    w.i16(static_cast<int32_t>(text.size()));
    w.text(text);
    return encodeMessage(h, w.take());
}

Bytes encodeHandshakeReply()
{
    Header h;
    h.flowType = kFlowHandshake;
    h.messageId = kHandshakeMessageId;
    h.requestType = "BASE";
    return encodeMessage(h, Bytes(kLocaleBlock, kLocaleBlock + sizeof kLocaleBlock));
}

}  // namespace zepgw
