/* The socket buffer against real sockets: the bytes that cross, the sends they take, and the failures. */
#include "library_support.h"

#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

/* Writes through a fresh write buffer of `length` bytes, flushes, frees, and returns what went over. */
template <typename Writer>
Bytes written(uint32_t length, Writer write)
{
    SocketPair pair;
    WriteBuffer out(pair.lib, length);
    EXPECT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    write(&sb);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0u, sb.bytesRemaining);
    EXPECT_EQ(0, freeBuffer(&sb));
    return pair.drain();
}

TEST(SocketBufferWrite, ValuesGoOutBigEndianWithOnlyTheirLowBits)
{
    struct Case {
        const char* name;
        void (*write)(SocketBuffer*);
        uint32_t length;
        Bytes expected;
    } cases[] = {
        {"int", [](SocketBuffer* sb) { writeInt(sb, 0x01020304); }, 4, {0x01, 0x02, 0x03, 0x04}},
        {"negative int", [](SocketBuffer* sb) { writeInt(sb, -2); }, 4, {0xFF, 0xFF, 0xFF, 0xFE}},
        {"short", [](SocketBuffer* sb) { writeShort(sb, 0x12345678); }, 2, {0x56, 0x78}},
        {"byte", [](SocketBuffer* sb) { writeByte(sb, 0x1FF); }, 1, {0xFF}},
        {"padded cut", [](SocketBuffer* sb) { writePaddedBytes(sb, "ABCDEFGHIJ", 10, 8); }, 8,
         {0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48}},
        {"padded filled", [](SocketBuffer* sb) { writePaddedBytes(sb, "ABC", 3, 8); }, 8,
         {0x41, 0x42, 0x43, 0, 0, 0, 0, 0}},
        {"masked", [](SocketBuffer* sb) { writeBytesMasked(sb, "AB", 2); }, 2, {0xBE, 0x03}},
        {"masked one byte", [](SocketBuffer* sb) { writeBytesMasked(sb, "\x0F", 1); }, 1, {0xF0}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(toHex(c.expected), toHex(written(c.length, c.write))) << c.name;
    }
}

TEST(SocketBufferWrite, PaddedMaskedFieldLeavesThePaddingAsTheBlockHeldIt)
{
    SocketPair pair;
    WriteBuffer out(pair.lib, 8);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeBytes(&sb, "\x55\x56\x57\x58\x59\x5A\x5B\x5C", 8);
    ASSERT_EQ(0, flushBuffer(&sb));
    ASSERT_EQ(0, initWriteBuffer(&sb, pair.lib, 8));   /* reuses the block and its old bytes */
    writePaddedBytesMasked(&sb, "ABCDEFGHIJ", 2, 6);
    writeShort(&sb, 0x0102);
    ASSERT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));
    Bytes wire = pair.drain();
    EXPECT_EQ("55565758595A5B5CBE035758595A0102", toHex(wire));
}

TEST(SocketBufferWrite, OneByteMoreFlushesInTheMiddle)
{
    SocketPair pair(SOCK_SEQPACKET);
    TraceCapture trace(4);
    WriteBuffer out(pair.lib, 33001);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    EXPECT_EQ(33000u, sb.bufferSize);
    writeByte(&sb, 7);
    for (int i = 0; i < 33000 / 4; i++) writeInt(&sb, i);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0u, sb.bytesRemaining);
    EXPECT_EQ(0, freeBuffer(&sb));
    EXPECT_EQ(std::vector<size_t>({32997, 4}), pair.records());
    EXPECT_EQ(std::vector<std::string>({"DEBUG Insufficient space in buffer " + pointerText(&sb) + " to write 8249"}),
              recordTexts(trace, 2552));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Sent 32997 bytes, 4 bytes remaining",
                                        "DEBUG Sent 4 bytes, 0 bytes remaining"}),
              recordTexts(trace, 2527));
}

TEST(SocketBufferWrite, DataLargerThanTheBufferGoStraightFromTheCallersArea)
{
    SocketPair pair(SOCK_SEQPACKET);
    TraceCapture trace(4);
    Bytes data(40000);
    for (size_t i = 0; i < data.size(); i++) data[i] = (uint8_t)(i * 7);
    WriteBuffer out(pair.lib, 8 + 40000);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeInt(&sb, 1);
    writeInt(&sb, 2);
    writeBytes(&sb, data.data(), (uint32_t)data.size());
    EXPECT_EQ(0u, sb.bytesInBuffer);
    EXPECT_EQ(0u, sb.bytesRemaining);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));
    EXPECT_EQ(std::vector<size_t>({8, 40000}), pair.records());
    EXPECT_EQ(std::vector<std::string>({"DEBUG Insufficient space in buffer " + pointerText(&sb) +
                                        " to write 40000 bytes"}),
              recordTexts(trace, 2561));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Data too large for buffer " + pointerText(&sb) + ", writing to socket " +
                                        std::to_string(pair.lib)}),
              recordTexts(trace, 2562));
    EXPECT_EQ(std::vector<std::string>({"DATA data=" + pointerText(data.data()) + " len=40000 stopword=00000000"}),
              recordTexts(trace, 2563));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Sent 40000 bytes, 0 bytes remaining"}), recordTexts(trace, 2564));
}

TEST(SocketBufferWrite, DataTraceShowsAsterisksWhereThePasswordLiesWhileTheWireCarriesItScrambled)
{
    SocketPair pair;
    TraceCapture trace(4);
    WriteBuffer out(pair.lib, 14);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeInt(&sb, 1);
    writeBytesMasked(&sb, "secret", 6);
    writePaddedBytesMasked(&sb, "pw", 2, 4);
    uint8_t* buffer = sb.buffer;
    ASSERT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));

    Bytes wire = pair.drain();
    ASSERT_EQ(14u, wire.size());
    EXPECT_EQ(toHex(Wire().i32(1).raw(Wire().scrambled("secret").b).raw(Wire().scrambled("pw").b).b), toHex(Bytes(wire.begin(), wire.end() - 2)));

    std::vector<TraceRecord> data = trace.find(2526);
    ASSERT_EQ(1u, data.size());
    EXPECT_EQ("data=" + pointerText(buffer) + " len=14 stopword=00000000", data[0].message);
    std::vector<std::string> dump = trace.linesAfter(data[0]);
    ASSERT_EQ(2u, dump.size());
    EXPECT_EQ("Data truncation size=128, offset=0", dump[0]);
    EXPECT_NE(std::string::npos, dump[1].find(": 00000001 2A2A2A2A 2A2A2A2A 2A2A     : ....**********"))
        << dump[1];
}

TEST(SocketBufferWrite, MaskedFieldLargerThanTheBufferGoesOutScrambledInBufferSizedPieces)
{
    SocketPair pair(SOCK_SEQPACKET);
    TraceCapture trace(4);
    ZEP_setAPITraceDataLength(0);
    std::string password = varied(70001);
    WriteBuffer out(pair.lib, 4 + 70001 + 4);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeInt(&sb, 1);
    writeBytesMasked(&sb, password.data(), (uint32_t)password.size());
    writeInt(&sb, 2);
    EXPECT_EQ(0, flushBuffer(&sb));
    EXPECT_EQ(0, sb.errorCode);
    EXPECT_EQ(0u, sb.bytesRemaining);
    EXPECT_EQ(0, freeBuffer(&sb));
    ZEP_setAPITraceDataLength(128);

    EXPECT_EQ(std::vector<size_t>({4, 33000, 33000, 4005}), pair.records());
    EXPECT_EQ(std::vector<std::string>({"DEBUG Insufficient space in buffer " + pointerText(&sb) +
                                        " to write 70001 bytes"}),
              recordTexts(trace, 2570));
    std::vector<Bytes> dumps;
    for (const TraceRecord& r : trace.find(2526)) dumps.push_back(dumpedBytes(trace.linesAfter(r)));
    ASSERT_EQ(4u, dumps.size());
    EXPECT_EQ(toHex(Wire().i32(1).b), toHex(dumps[0]));
    EXPECT_EQ(toHex(Bytes(33000, 0x2A)), toHex(dumps[1]));
    EXPECT_EQ(toHex(Bytes(33000, 0x2A)), toHex(dumps[2]));
    EXPECT_EQ(toHex(Wire().fill(4001, 0x2A).i32(2).b), toHex(dumps[3]));
}

TEST(SocketBufferWrite, MaskedFieldLargerThanTheBufferCarriesOnTheScramblingAcrossPieces)
{
    SocketPair pair;
    std::string password = varied(70001);
    Bytes wire;
    std::thread reader([&] { wire = pair.take(); });
    WriteBuffer out(pair.lib, 4 + 70001 + 4);
    ASSERT_EQ(0, out.rc);
    writeInt(&out.sb, 1);
    writeBytesMasked(&out.sb, password.data(), (uint32_t)password.size());
    writeInt(&out.sb, 2);
    EXPECT_EQ(0, flushBuffer(&out.sb));
    shutdown(pair.lib, SHUT_WR);
    reader.join();
    ASSERT_EQ(4u + 70001u + 4u, wire.size());
    EXPECT_EQ("00000001", toHex(Bytes(wire.begin(), wire.begin() + 4)));
    EXPECT_TRUE(Wire().scrambled(password).b == Bytes(wire.begin() + 4, wire.end() - 4));
    EXPECT_EQ("00000002", toHex(Bytes(wire.end() - 4, wire.end())));
}

TEST(SocketBufferWrite, FailedSendIsStickyAndLaterWritesAreDropped)
{
    SocketPair pair;
    TraceCapture trace(1);
    pair.closePeer();
    WriteBuffer out(pair.lib, 8);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    writeInt(&sb, 1);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, flushBuffer(&sb));
    EXPECT_EQ(EPIPE, sb.errorCode);
    writeInt(&sb, 2);
    EXPECT_EQ(4u, sb.bytesInBuffer);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, flushBuffer(&sb));
    EXPECT_EQ(0, freeBuffer(&sb));
    EXPECT_EQ(std::vector<std::string>({"*EXC* Unable to send data to Gateway: " + std::string(strerror(EPIPE)) + " (" +
                                        std::to_string(EPIPE) + ")"}),
              recordTexts(trace, 2528));
}

TEST(SocketBufferInit, BlockIsAllocatedOnceAndReusedWhileLargeEnough)
{
    SocketPair pair;
    TraceCapture trace(4);
    WriteBuffer out(pair.lib, 100);
    ASSERT_EQ(0, out.rc);
    SocketBuffer& sb = out.sb;
    uint8_t* first = sb.buffer;
    EXPECT_EQ(0, memcmp(sb.eyecatcher, "ZEPSCKBF", 8));
    EXPECT_EQ(first, sb.cursor);
    ASSERT_EQ(0, initReadBuffer(&sb, pair.lib, 50));
    EXPECT_EQ(first, sb.buffer);
    EXPECT_EQ(100u, sb.bufferSize);
    EXPECT_EQ(50u, sb.bytesRemaining);
    EXPECT_EQ(nullptr, sb.cursor);
    ASSERT_EQ(0, initWriteBuffer(&sb, pair.lib, 40000));
    EXPECT_EQ(33000u, sb.bufferSize);
    EXPECT_EQ(40000u, sb.bytesRemaining);
    EXPECT_EQ(0, freeBuffer(&sb));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Allocated new buffer of 100 bytes",
                                        "DEBUG Allocated new buffer of 33000 bytes"}),
              recordTexts(trace, 2502));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Reusing existing buffer of 100 bytes"}), recordTexts(trace, 2513));
}

TEST(SocketBufferRead, ValuesComeInBigEndianAndSignExtended)
{
    SocketPair pair;
    Bytes message = Wire().i32(-2).i16(-3).u8(0xFE).i32(0x7F010203).i16(0x7FFF).b;
    pair.feed(message);
    ReadBuffer in(pair.lib, (uint32_t)message.size());
    ASSERT_EQ(0, in.rc);
    EXPECT_EQ(-2, readInt(&in.sb));
    EXPECT_EQ(-3, readShort(&in.sb));
    EXPECT_EQ(0xFE, readByte(&in.sb));
    EXPECT_EQ(0x7F010203, readInt(&in.sb));
    EXPECT_EQ(0x7FFF, readShort(&in.sb));
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
}

TEST(SocketBufferRead, BytesLargerThanTheBufferComeStraightIntoTheCallersArea)
{
    SocketPair pair;
    Bytes data(70000);
    for (size_t i = 0; i < data.size(); i++) data[i] = (uint8_t)(i * 13 + 1);
    Bytes message = Wire().i32(42).raw(data).i32(43).b;
    std::thread writer([&] { pair.feed(message); });
    ReadBuffer in(pair.lib, (uint32_t)message.size());
    ASSERT_EQ(0, in.rc);
    EXPECT_EQ(42, readInt(&in.sb));
    Bytes got(data.size());
    readBytes(&in.sb, got.data(), (uint32_t)got.size());
    EXPECT_EQ(0, in.sb.errorCode);
    EXPECT_TRUE(got == data);
    EXPECT_EQ(43, readInt(&in.sb));
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    writer.join();
}

TEST(SocketBufferRead, ValueSplitAcrossTwoFillsIsJoinedAfterTheUnreadBytesMove)
{
    SocketPair pair;
    TraceCapture trace(4);
    Bytes message = Wire().fill(32998, 0x11).i32(0x0A0B0C0D).i32(0x01020304).b;
    std::thread writer([&] { pair.feed(message); });
    ReadBuffer in(pair.lib, (uint32_t)message.size());
    ASSERT_EQ(0, in.rc);
    Bytes head(32998);
    readBytes(&in.sb, head.data(), (uint32_t)head.size());
    EXPECT_EQ(2u, in.sb.bytesInBuffer);
    EXPECT_EQ(0x0A0B0C0D, readInt(&in.sb));
    EXPECT_EQ(0x01020304, readInt(&in.sb));
    writer.join();
    EXPECT_EQ(0, in.sb.errorCode);
    EXPECT_EQ(0u, in.sb.bytesRemaining);
    EXPECT_EQ(0u, in.sb.bytesInBuffer);
    EXPECT_EQ(std::vector<std::string>({"DEBUG Moving 2 unread bytes to the start of buffer " +
                                        pointerText(in.sb.buffer)}),
              recordTexts(trace, 2541));
    EXPECT_EQ(std::vector<std::string>({"DEBUG Received 33000 bytes, 6 bytes remaining",
                                        "DEBUG Received 6 bytes, 0 bytes remaining"}),
              recordTexts(trace, 2545));
}

TEST(SocketBufferRead, SkippedBytesKeepTheStreamInStep)
{
    struct Case {
        uint32_t skipped;
    } cases[] = {{0}, {1}, {100}, {33000}, {70001}};
    for (const Case& c : cases) {
        SocketPair pair;
        Bytes message = Wire().i32(1).fill(c.skipped, 0xEE).i32(2).b;
        Bytes next = Wire().i32(3).b;
        std::thread writer([&] { pair.feed(message); pair.feed(next); });
        ReadBuffer in(pair.lib, (uint32_t)message.size());
        EXPECT_EQ(1, readInt(&in.sb)) << c.skipped;
        skipBytes(&in.sb, c.skipped);
        EXPECT_EQ(2, readInt(&in.sb)) << c.skipped;
        EXPECT_EQ(0, in.sb.errorCode);
        writer.join();
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
        EXPECT_EQ(3, readInt(&in.sb)) << c.skipped;
    }
}

TEST(SocketBufferRead, PeerClosingInTheMiddleOfAFillFailsForGood)
{
    SocketPair pair;
    TraceCapture trace(1);
    ReadBuffer in(pair.lib, 8);
    pair.feed({0x00, 0x00, 0x01});
    pair.closePeer();
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&in.sb));
    EXPECT_EQ(ECONNRESET, in.sb.errorCode);
    EXPECT_EQ(3u, in.sb.bytesInBuffer);
    EXPECT_EQ(5u, in.sb.bytesRemaining);
    EXPECT_EQ(0, readInt(&in.sb));
    EXPECT_EQ(0, readByte(&in.sb));
    EXPECT_EQ(0, readShort(&in.sb));
    uint8_t untouched[2] = {0x11, 0x22};
    readBytes(&in.sb, untouched, 2);
    EXPECT_EQ(0x11, untouched[0]);
    EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&in.sb));
    EXPECT_EQ(std::vector<std::string>({"*EXC* recv returned an error code: " + std::string(strerror(ECONNRESET)) +
                                        " (" + std::to_string(ECONNRESET) + ")"}),
              recordTexts(trace, 2543));
}

TEST(SocketBufferRead, MessageShorterThanItsReadsNeverTakesTheNextMessagesBytes)
{
    SocketPair pair;
    TraceCapture trace(1);
    pair.feed({0x01, 0x02, 0x00, 0x00, 0x00, 0x09});
    ReadBuffer in(pair.lib, 2);
    EXPECT_EQ(0, readInt(&in.sb));
    EXPECT_EQ(EPROTO, in.sb.errorCode);
    EXPECT_EQ(std::vector<std::string>({"*EXC* Message ends early: 4 bytes wanted, 2 bytes left"}), recordTexts(trace, 2546));
    ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, 4));
    EXPECT_EQ(9, readInt(&in.sb));
}

TEST(SocketBufferWait, TimesOutAfterTheGivenSecondsAndStaysUsable)
{
    SocketPair pair;
    TraceCapture trace(1);
    ReadBuffer in(pair.lib, 4);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZEP_ERR_CONNECTTIMEOUT, waitForResponse(&in.sb, 1));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(std::vector<std::string>({"*EXC* Timed out waiting for handshake response"}), recordTexts(trace, 2504));
    EXPECT_EQ(0, in.sb.errorCode);
    pair.feed(Wire().i32(77).b);
    EXPECT_EQ(0, waitForResponse(&in.sb, 1));
    EXPECT_EQ(77, readInt(&in.sb));
}

TEST(SocketBufferWait, DescriptorThatIsNotOpenFailsTheWaitAndTheBuffer)
{
    /* High enough that the trace file, opened afterwards, cannot take the number. */
    int unused = 1000;
    while (fcntl(unused, F_GETFD) != -1) unused++;
    for (int fd : {unused, -1}) {
        TraceCapture trace(1);
        SocketBuffer sb;
        memset(&sb, 0, sizeof sb);
        ASSERT_EQ(0, initReadBuffer(&sb, fd, 4));
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, waitForResponse(&sb, 1)) << fd;
        EXPECT_EQ(EBADF, sb.errorCode) << fd;
        EXPECT_EQ(std::vector<std::string>({"*EXC* select failed: " + std::string(strerror(EBADF)) + " (" +
                                            std::to_string(EBADF) + ")"}),
                  recordTexts(trace, 2523))
            << fd;
        EXPECT_EQ(ZEP_ERR_LOSTGWCON, fillBuffer(&sb)) << fd;
        EXPECT_EQ(0, freeBuffer(&sb));
    }
}

}  // namespace

TEST(SocketBufferInit, FreeingAZeroedBufferIsRefused)
{
    TraceCapture trace(1);
    SocketBuffer sb;
    memset(&sb, 0, sizeof sb);
    EXPECT_EQ(ZEP_ERR_SYSTEM_ERROR, freeBuffer(&sb));
    EXPECT_EQ(std::vector<std::string>({"*EXC* Buffer not initialized: " + pointerText(&sb)}), recordTexts(trace, 2517));
}
