// Message headers, one after another, as the receiver reads them from the stream.
#include "feed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Feed feed(data, size);
    clapiInit();
    SocketBuffer sb{};
    if (initReadBuffer(&sb, feed.fd(), 33000) != 0) abort();
    FlowHeader header{};
    while (clapiReadHeader(&sb, &header) == 0) {
        if (header.requestType[REQUEST_TYPE_AREA - 1] != '\0') abort();   // the name stays terminated
        sb.bytesRemaining += static_cast<uint32_t>(header.payloadLength) - sb.bytesInBuffer;
        if (fillBuffer(&sb) != 0) break;
        skipBytes(&sb, sb.bytesInBuffer + sb.bytesRemaining);
    }
    freeBuffer(&sb);
    return 0;
}
