/* The socket buffer against real sockets: the bytes that cross, the sends they take, and the failures. */
#include "library_support.h"

#include <fcntl.h>

#include <thread>

namespace {

const std::string data40k = varied(40000), data70k = varied(70000), password = varied(70001);

Bytes counted(int from, int to)
{
    Wire w;
    for (int i = from; i < to; i++) w.i32(i);
    return w.b;
}

struct WriteCase {
    const char* name;
    uint32_t length;
    void (*write)(SocketBuffer*);
    Bytes wire;
    std::vector<size_t> sizes;   /* of each send */
    std::vector<Bytes> dumps = {};   /* of each send, when looked at: where a masked field lies they show asterisks */
};

/* The block holds just what was announced; a field that exactly fills what is left goes out in the same send. An
   int, and a text padded or cut to its field, are in every golden image of test_esi and test_eci_wire. */
TEST(SocketBufferWrite, EachCaseSendsItsBytesInItsSends)
{
    const WriteCase cases[] = {
        {"short keeps its low bits", 2, [](SocketBuffer* sb) { writeShort(sb, 0x12345678); }, Wire().hex("5678").b, {2}},
        {"byte keeps its low bits", 1, [](SocketBuffer* sb) { writeByte(sb, 0x1FF); }, Wire().hex("FF").b, {1}},
        {"masked", 2, [](SocketBuffer* sb) { writeBytesMasked(sb, "AB", 2); }, Wire().hex("BE03").b, {2}},
        {"values fill the block", 8,
         [](SocketBuffer* sb) { writeInt(sb, 1); writeShort(sb, 2); writeByte(sb, 3); writeByte(sb, 4); },
         Wire().hex("00000001 0002 03 04").b, {8}},
        {"bytes fill the block", 8, [](SocketBuffer* sb) { writeInt(sb, 1); writeBytes(sb, "ABCD", 4); },
         Wire().hex("00000001").text("ABCD").b, {8}},
        {"padding of a masked field is left as the block held it", 8,
         [](SocketBuffer* sb) {
             writeBytes(sb, "\x55\x56\x57\x58\x59\x5A\x5B\x5C", 8);
             EXPECT_EQ(0, flushBuffer(sb));
             EXPECT_EQ(0, initWriteBuffer(sb, sb->socketDesc, 8));   /* reuses the block and its old bytes */
             writePaddedBytesMasked(sb, "ABCDEFGHIJ", 2, 6);
             writeShort(sb, 0x0102);
         },
         Wire().hex("55565758595A5B5C BE035758595A 0102").b, {8, 8}},
        {"one byte more flushes in the middle", 33001,
         [](SocketBuffer* sb) { writeByte(sb, 7); for (int i = 0; i < 8250; i++) writeInt(sb, i); },
         Wire().u8(7).raw(counted(0, 8250)).b, {32997, 4}},
        {"padded field behind a nearly full block", 32998 + 6,
         [](SocketBuffer* sb) { writeBytes(sb, data40k.data(), 32998); writePaddedBytes(sb, "AB", 2, 6); },
         Wire().text(data40k.substr(0, 32998)).field("AB", 6).b, {32998, 6}},
        {"bytes larger than the block go straight from the caller's area", 8 + 40000,
         [](SocketBuffer* sb) { writeInt(sb, 1); writeInt(sb, 2); writeBytes(sb, data40k.data(), 40000); },
         Wire().i32(1).i32(2).text(data40k).b, {8, 40000}},
        {"masked field larger than the block goes out scrambled in block-sized pieces", 4 + 70001 + 4,
         [](SocketBuffer* sb) { writeInt(sb, 1); writeBytesMasked(sb, password.data(), 70001); writeInt(sb, 2); },
         Wire().i32(1).scrambled(password).i32(2).b, {4, 33000, 33000, 4005},
         {Wire().i32(1).b, Bytes(33000, 0x2A), Bytes(33000, 0x2A), Wire().fill(4001, 0x2A).i32(2).b}},
    };
    for (const WriteCase& c : cases) {
        SCOPED_TRACE(c.name);
        SocketPair pair(SOCK_SEQPACKET);
        TraceCapture trace(4);   /* each path writes its record of the lack of space as well */
        ZEP_setAPITraceDataLength(0);
        WriteBuffer out(pair.lib, c.length);
        ASSERT_EQ(0, out.rc);
        c.write(&out.sb);
        EXPECT_EQ(0, flushBuffer(&out.sb));
        EXPECT_EQ(0u, out.sb.bytesRemaining);
        /* What crossed the SOCK_SEQPACKET pair, and the size of each send. */
        Bytes wire;
        std::vector<size_t> sizes;
        static uint8_t chunk[70000];
        for (ssize_t got; (got = recv(pair.peer, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;) {
            wire.insert(wire.end(), chunk, chunk + got);
            sizes.push_back((size_t)got);
        }
        EXPECT_EQ(c.sizes, sizes);
        EXPECT_TRUE(c.wire == wire) << toHex(c.wire).substr(0, 64) << " != " << toHex(wire).substr(0, 64);
        std::vector<Bytes> dumps;
        for (const TraceRecord& r : trace.find(2526)) dumps.push_back(dumpedBytes(trace.linesAfter(r)));
        if (!c.dumps.empty()) { EXPECT_TRUE(c.dumps == dumps); }
    }
    ZEP_setAPITraceDataLength(128);
}

/* The values read; a braced list is evaluated left to right, so the reads happen in order. */
using Values = std::vector<long>;

struct ReadCase {
    const char* name;
    Bytes message;
    Values (*read)(SocketBuffer*);
    Values values;
    int errorCode = 0;
};

/* The value before `n` skipped bytes and the one after them. */
template <uint32_t n>
Values aroundSkip(SocketBuffer* sb)
{
    const long first = readInt(sb);
    skipBytes(sb, n);
    return Values{first, readInt(sb)};
}

/* Each message is followed by the next; reading one never takes the next one's bytes. */
TEST(SocketBufferRead, EachCaseReadsItsValuesAndLeavesTheNextMessage)
{
    const ReadCase cases[] = {
        {"big-endian and sign-extended", Wire().i32(-2).i16(-3).u8(0xFE).i32(0x7F010203).i16(0x7FFF).b,
         [](SocketBuffer* sb) { return Values{readInt(sb), readShort(sb), readByte(sb), readInt(sb), readShort(sb)}; },
         {-2, -3, 254, 0x7F010203, 0x7FFF}},
        {"bytes larger than the block come straight into the caller's area", Wire().i32(42).text(data70k).i32(43).b,
         [](SocketBuffer* sb) {
             const long before = readInt(sb);
             std::string got(70000, '\0');
             readBytes(sb, &got[0], 70000);
             return Values{before, got == data70k, readInt(sb)};
         },
         {42, 1, 43}},
        {"value split across two fills", Wire().fill(32998, 0x11).i32(0x0A0B0C0D).i32(0x01020304).b,
         [](SocketBuffer* sb) {
             std::string head(32998, '\0');
             readBytes(sb, &head[0], 32998);
             return Values{readInt(sb), readInt(sb)};
         },
         {0x0A0B0C0D, 0x01020304}},
        {"skip one", Wire().i32(1).fill(1, 0xEE).i32(2).b, aroundSkip<1>, {1, 2}},
        {"skip two blocks", Wire().i32(1).fill(70001, 0xEE).i32(2).b, aroundSkip<70001>, {1, 2}},
        {"message shorter than its reads", Wire().hex("0102").b, [](SocketBuffer* sb) { return Values{readInt(sb)}; },
         {0}, EPROTO},
    };
    for (const ReadCase& c : cases) {
        SCOPED_TRACE(c.name);
        SocketPair pair;
        TraceCapture trace(4);   /* the records of the reads are written as well */
        std::thread writer([&] { pair.feed(c.message); pair.feed(Wire().i32(0x0BADF00D).b); });
        ReadBuffer in(pair.lib, (uint32_t)c.message.size());
        ASSERT_EQ(0, in.rc);
        EXPECT_EQ(c.values, c.read(&in.sb));
        EXPECT_EQ(c.errorCode, in.sb.errorCode);
        if (c.errorCode == 0) { EXPECT_EQ(0u, in.sb.bytesRemaining + in.sb.bytesInBuffer); }
        writer.join();
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
        EXPECT_EQ(0x0BADF00D, readInt(&in.sb));
    }
}

/* Once a send or a receive failed, the buffer writes, sends and reads nothing more. */
TEST(SocketBufferFailure, FailedSendOrReceiveIsSticky)
{
    SocketPair pair;
    TraceCapture trace(1);   /* the record of each failure is written as well */
    pair.feed({0x00, 0x00, 0x01});
    ReadBuffer in(pair.lib, 8);
    pair.closePeer();
    WriteBuffer out(pair.lib, 8);
    writeInt(&out.sb, 1);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, flushBuffer(&out.sb));
    EXPECT_EQ(EPIPE, out.sb.errorCode);
    writeInt(&out.sb, 2);
    EXPECT_EQ(4u, out.sb.bytesInBuffer);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, flushBuffer(&out.sb));

    EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&in.sb));
    EXPECT_EQ(ECONNRESET, in.sb.errorCode);
    EXPECT_EQ(3u, in.sb.bytesInBuffer);
    EXPECT_EQ(5u, in.sb.bytesRemaining);
    EXPECT_EQ(0, readInt(&in.sb) + readByte(&in.sb) + readShort(&in.sb));
    uint8_t untouched[2] = {0x11, 0x22};
    readBytes(&in.sb, untouched, 2);
    EXPECT_EQ(0x11, untouched[0]);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&in.sb));
}

TEST(SocketBufferInit, BlockIsAllocatedOnceAndReusedWhileLargeEnough)
{
    SocketPair pair;
    TraceCapture trace(4);   /* the record of the refusal is written as well */
    WriteBuffer out(pair.lib, 100);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    uint8_t* first = sb.buffer;
    EXPECT_EQ(0, memcmp(sb.eyecatcher, "ZEPSCKBF", 8));
    ASSERT_EQ(0, initReadBuffer(&sb, pair.lib, 50));
    EXPECT_TRUE(first == sb.buffer && sb.cursor == nullptr && sb.bufferSize == 100 && sb.bytesRemaining == 50);
    ASSERT_EQ(0, initWriteBuffer(&sb, pair.lib, 40000));
    EXPECT_TRUE(sb.bufferSize == 33000 && sb.bytesRemaining == 40000);

    SocketBuffer zeroed = {};
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, freeBuffer(&zeroed));
}

// A descriptor that is closed or was never valid fails the wait and the buffer.
TEST(SocketBufferWait, ABadDescriptorFailsTheBuffer)
{
    TraceCapture trace(1);   /* the record of each failure is written as well */
    int unused = 1000;   /* high enough that the trace file, opened before, does not hold the number */
    while (fcntl(unused, F_GETFD) != -1) unused++;
    for (int fd : {unused, -1}) {
        ReadBuffer bad(fd, 4);
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, waitForResponse(&bad.sb, 1)) << fd;
        EXPECT_EQ(EBADF, bad.sb.errorCode) << fd;
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&bad.sb)) << fd;
    }
}

}  // namespace
