#include "requests.h"

#include <cstring>

namespace zepgw {

namespace {

std::string readField(ByteReader& r, size_t width)
{
    std::string s(width, '\0');
    r.bytes(&s[0], width);
    return s;
}

// A length-prefixed field whose length must be sane for the bytes left.
bool readCounted(ByteReader& r, int32_t length, Bytes& out)
{
    if (length < 0 || static_cast<size_t>(length) > r.remaining()) {
        r.fail();
        return false;
    }
    return r.bytes(out, static_cast<size_t>(length));
}

std::string readPassword(ByteReader& r, int32_t length)
{
    Bytes scrambled;
    if (!readCounted(r, length, scrambled))
        return std::string();
    return unscramble(scrambled.data(), scrambled.size());
}

bool readContainer(ByteReader& r, Container& c)
{
    c.name = readField(r, 16);
    c.mark = r.u8();
    r.skip(2);
    c.type = r.u8();
    c.ccsid = r.i32();
    c.dataLength = r.i32();
    return readCounted(r, c.dataLength, c.data);
}

bool readChannel(ByteReader& r, Channel& ch)
{
    ch.name = readField(r, 16);
    ch.ccsid = r.i32();
    const int32_t count = r.i32();
    // Every record takes at least 28 bytes, which bounds a hostile count.
    if (count < 0 || static_cast<size_t>(count) > r.remaining() / 28) {
        r.fail();
        return false;
    }
    ch.containers.resize(static_cast<size_t>(count));
    for (Container& c : ch.containers) {
        if (!readContainer(r, c))
            return false;
    }
    return r.ok();
}

void readOptionalFlag(ByteReader& r, bool& present, int32_t& value)
{
    present = r.u8() != 0;
    value = present ? r.i32() : 0;
}

void readProgramCall(ByteReader& r, EciRequest& q)
{
    q.extendMode = r.i32();
    q.luwToken = r.i32();
    r.skip(4 + 1);
    const int32_t systemLength = r.i32();
    if (systemLength != 8) {
        r.fail();
        return;
    }
    q.systemName = readField(r, 8);
    char userid[16] = {};  // on the stack: most requests carry no user at all
    r.bytes(userid, sizeof userid);
    q.userid.assign(userid, strnlen(userid, sizeof userid));
    q.password = readPassword(r, r.i32());
    q.program = readField(r, 8);
    q.transid = readField(r, 4);
    Bytes extra;
    readCounted(r, r.i32(), extra);
    q.commareaLength = r.i32();
    bool hasOutbound = false;
    readOptionalFlag(r, hasOutbound, q.outboundLength);
    readOptionalFlag(r, q.hasInbound, q.inboundLength);
    if (q.commareaLength < 0 || q.outboundLength < 0 || q.inboundLength < 0) {
        r.fail();
        return;
    }
    if (!isDatalessMode(q.extendMode))
        readCounted(r, hasOutbound ? q.outboundLength : q.commareaLength, q.data);
    q.hasChannel = r.u8() != 0;
    if (q.hasChannel)
        readChannel(r, q.channel);
}

void readTrailer(ByteReader& r, EciRequest& q)
{
    q.timeout = r.u16();
    r.skip(1);
    const int32_t marker = r.i32();
    if (marker != -1) {
        Bytes ignored;
        readCounted(r, r.i32(), ignored);
        readCounted(r, r.i32(), ignored);
    }
    q.correlator = r.i32();
}

}  // namespace

bool decodeHandshake(const Bytes& payload, Handshake& out)
{
    ByteReader r(payload);
    r.skip(18);
    Bytes applid, qualifier;
    readCounted(r, r.u16(), applid);
    readCounted(r, r.u16(), qualifier);
    out.applid.assign(applid.begin(), applid.end());
    out.qualifier.assign(qualifier.begin(), qualifier.end());
    return r.ok() && r.atEnd();
}

bool decodeEciRequest(const Bytes& payload, EciRequest& out)
{
    ByteReader r(payload);
    out.kind = r.i32();
    if (out.kind == kKindProgram || out.kind == kKindProgramAltTransid)
        readProgramCall(r, out);
    else if (out.kind == kKindListSystems)
        out.capacity = r.i32();
    readTrailer(r, out);
    return r.ok() && r.atEnd();
}

bool decodeEsiRequest(const Bytes& payload, EsiRequest& out)
{
    ByteReader r(payload);
    out.kind = r.i32();
    out.userid = trimField(readField(r, 10));
    out.password = readPassword(r, r.i32());
    out.server = readField(r, 8);
    if (out.kind == kEsiChange)
        out.newPassword = readPassword(r, r.i32());
    return r.ok() && r.atEnd();
}

}  // namespace zepgw
