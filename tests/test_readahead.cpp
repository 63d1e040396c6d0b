/* Reading ahead: one recv takes what has arrived, and every message still comes out whole and in order. */
#include "library_support.h"

namespace {

TEST(ReadAhead, MessagesReadAheadKeepTheirOrderAndALongOneStillFillsTheCallersArea)
{
    SocketPair pair;
    ReadBuffer in(pair.lib, 33000);
    ASSERT_EQ(0, in.rc);
    in.sb.readAhead = 1;
    Bytes stream(10 + 40000 + 5);
    for (size_t i = 0; i < stream.size(); i++) stream[i] = static_cast<uint8_t>(i * 7 + i / 251);
    pair.feed(stream);
    Bytes got(stream.size(), 0);
    size_t at = 0;
    for (uint32_t length : {10u, 40000u, 5u}) {
        ASSERT_EQ(0, initReadBuffer(&in.sb, pair.lib, length));
        readBytes(&in.sb, got.data() + at, length);
        at += length;
    }
    EXPECT_EQ(0, in.sb.errorCode);
    EXPECT_EQ(0u, in.sb.bytesAhead);
    EXPECT_EQ(toHex(stream), toHex(got));
}

}  // namespace
