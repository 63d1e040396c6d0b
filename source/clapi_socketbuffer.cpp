/* The buffered, big-endian reader and writer through which every byte of the Gateway protocol passes. */
#include "clapi_socketbuffer.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

extern "C" {
CLAPI_MODULE_VERSION(clapi_socketbuffer);
}

static const uint8_t MASK_FILL = 0x2A;   /* '*' */

static unsigned long ul(uint32_t value)
{
    return (unsigned long)value;
}

/* The text of an errno value; strerror's own buffer is not safe across the receiver and the senders. */
static const char* errorText(int code, char* buffer, size_t size)
{
    return strerror_r(code, buffer, size);
}

/* A peer that closes leaves errno untouched; the buffer still has to fail for good. */
static int socketError(ssize_t result)
{
    if (result == 0 || errno == 0) return ECONNRESET;
    return errno;
}

/*
 * Bytes read ahead belong to the next messages: a new message keeps them where they lie, or copies them into a
 * new block. Moving them to the start of the block for every message would cost a copy of the whole read-ahead
 * per message; a fill moves them only when it needs the room.
 */
static int initBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen, int excId, int debugId)
{
    uint32_t wanted = dataLen < SOCKET_BUFFER_MAX ? dataLen : SOCKET_BUFFER_MAX;
    uint32_t ahead = sb->bytesAhead;
    uint8_t* aheadAt = ahead > 0 ? sb->cursor + sb->bytesInBuffer : NULL;
    uint32_t readAhead = sb->readAhead;
    uint8_t* block = sb->buffer;
    uint32_t size = sb->bufferSize;
    if (block == NULL || size < wanted) {
        uint8_t* fresh = (uint8_t*)malloc(wanted > 0 ? wanted : 1);
        if (fresh != NULL && ahead > 0) memcpy(fresh, aheadAt, ahead);
        aheadAt = fresh;
        if (block != NULL) {
            clapiZeroFree(block, size);
            /* The old block is gone: a later freeBuffer must not release it a second time. */
            sb->buffer = NULL;
            sb->bufferSize = 0;
            sb->bytesAhead = 0;
        }
        if (fresh == NULL) {
            TRACE_EXC(excId, "Failed to allocate %lu bytes for buffer\n", ul(wanted));
            return ZEP_ERR_MALLOCFAIL;
        }
        block = fresh;
        size = wanted;
        TRACE_DEBUG(debugId, "Allocated new buffer of %lu bytes\n", ul(size));
    } else {
        TRACE_DEBUG(debugId + 1, "Reusing existing buffer of %lu bytes\n", ul(size));
    }
    memset(sb, 0, sizeof *sb);
    memcpy(sb->eyecatcher, EYE_SCKBF, EYE_LEN);
    sb->socketDesc = socketDesc;
    sb->buffer = block;
    sb->bufferSize = size;
    sb->bytesRemaining = dataLen;
    sb->readAhead = readAhead;
    sb->bytesAhead = ahead;
    if (ahead > 0) sb->cursor = aheadAt;
    return 0;
}

int initReadBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen)
{
    TRACE_ENTRY(2510, "clapi_socketbuffer.initReadBuffer(sb=%p, socketDesc=%d, dataLen=%lu)\n",
                (void*)sb, socketDesc, ul(dataLen));
    int rc = initBuffer(sb, socketDesc, dataLen, 2511, 2512);
    TRACE_EXIT(2515, "clapi_socketbuffer.initReadBuffer() rc=%d\n", rc);
    return rc;
}

int initWriteBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen)
{
    TRACE_ENTRY(2500, "clapi_socketbuffer.initWriteBuffer(sb=%p, socketDesc=%d, dataLen=%lu)\n",
                (void*)sb, socketDesc, ul(dataLen));
    int rc = initBuffer(sb, socketDesc, dataLen, 2501, 2502);
    if (rc == 0) sb->cursor = sb->buffer;
    TRACE_EXIT(2509, "clapi_socketbuffer.initWriteBuffer() rc=%d\n", rc);
    return rc;
}

/*
 * Moves at least `least` and at most `most` bytes between `data` and the socket; stops at the first failure,
 * which it makes sticky.
 */
static uint32_t transfer(SocketBuffer* sb, uint8_t* data, uint32_t least, uint32_t most, bool sending, int excId)
{
    uint32_t moved = 0;
    while (moved < least) {
        errno = 0;
        ssize_t n = sending ? send(sb->socketDesc, data + moved, most - moved, 0)
                            : recv(sb->socketDesc, data + moved, most - moved, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            sb->errorCode = socketError(n);
            char text[128];
            const char* reason = errorText(sb->errorCode, text, sizeof text);
            if (sending) {
                TRACE_EXC(excId, "Unable to send data to Gateway: %s (%d)\n", reason, sb->errorCode);
            } else {
                TRACE_EXC(excId, "recv returned an error code: %s (%d)\n", reason, sb->errorCode);
            }
            break;
        }
        moved += (uint32_t)n;
    }
    return moved;
}

/*
 * Brings `amount` bytes of the current message behind its unread ones: first those read ahead, then from the
 * socket. Reading ahead, one recv takes whatever has arrived up to the free space, and what lies past the
 * message stays ahead; otherwise no byte past the message is read.
 */
static uint32_t receiveMessageBytes(SocketBuffer* sb, uint32_t amount)
{
    uint32_t received = sb->bytesAhead < amount ? sb->bytesAhead : amount;
    sb->bytesAhead -= received;
    if (received == amount) return received;
    uint8_t* into = sb->buffer + sb->bytesInBuffer + received;
    uint32_t most = sb->readAhead != 0 ? sb->bufferSize - sb->bytesInBuffer - received : amount - received;
    received += transfer(sb, into, amount - received, most, false, 2543);
    if (received > amount) {
        sb->bytesAhead = received - amount;
        received = amount;
    }
    return received;
}

int fillBuffer(SocketBuffer* sb)
{
    TRACE_ENTRY(2540, "clapi_socketbuffer.fillBuffer(sb=%p)\n", (void*)sb);
    if (sb->errorCode != 0) {
        TRACE_EXIT(2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", ZEP_ERR_LOSTGWCON);
        return ZEP_ERR_LOSTGWCON;
    }
    uint32_t amount = sb->bufferSize - sb->bytesInBuffer;
    if (amount > sb->bytesRemaining) amount = sb->bytesRemaining;
    if (amount == 0) {
        TRACE_EXIT(2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", 0);
        return 0;
    }
    if (sb->bytesAhead >= amount) {
        /* Read ahead already, right behind the unread bytes: nothing to move, nothing to receive. */
        sb->bytesAhead -= amount;
        sb->bytesInBuffer += amount;
        sb->bytesRemaining -= amount;
        TRACE_EXIT(2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", 0);
        return 0;
    }
    uint32_t unread = sb->bytesInBuffer + sb->bytesAhead;
    if (unread > 0 && sb->cursor != sb->buffer) {
        if (sb->bytesInBuffer > 0)
            TRACE_DEBUG(2541, "Moving %lu unread bytes to the start of buffer %p\n", ul(sb->bytesInBuffer),
                        (void*)sb->buffer);
        memmove(sb->buffer, sb->cursor, unread);
        sb->cursor = sb->buffer;
    }
    TRACE_DEBUG(2542, "Reading %lu bytes from socket %d\n", ul(amount), sb->socketDesc);
    uint32_t received = receiveMessageBytes(sb, amount);
    int rc = sb->errorCode != 0 ? ZEP_ERR_LOSTGWCON : 0;
    if (received > 0) {
        TRACE_DATA(2544, sb->buffer, received, "data=%p len=%lu stopword=%8.8X\n", (void*)sb->buffer,
                   ul(received), 0u);
        sb->cursor = sb->buffer;
        sb->bytesInBuffer += received;
        sb->bytesRemaining -= received;
        TRACE_DEBUG(2545, "Received %lu bytes, %lu bytes remaining\n", ul(received), ul(sb->bytesRemaining));
    }
    TRACE_EXIT(2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", rc);
    return rc;
}

/* A message that ends before its decoder does: later reads yield 0 instead of stale or foreign bytes. */
static void failShortMessage(SocketBuffer* sb, uint32_t wanted)
{
    sb->errorCode = EPROTO;
    TRACE_EXC(2546, "Message ends early: %lu bytes wanted, %lu bytes left\n", ul(wanted),
              ul(sb->bytesInBuffer + sb->bytesRemaining));
}

/* Makes `width` bytes readable at the cursor; false when the buffer has failed. debugId 0: no record. */
static bool haveBytes(SocketBuffer* sb, uint32_t width, int debugId)
{
    if (sb->errorCode != 0) return false;
    if (sb->bytesInBuffer >= width) return true;
    if (debugId != 0) TRACE_DEBUG(debugId, "Insufficient data in buffer %p\n", (void*)sb);
    fillBuffer(sb);
    if (sb->errorCode != 0) return false;
    if (sb->bytesInBuffer < width) {
        failShortMessage(sb, width);
        return false;
    }
    return true;
}

/* Inlined into each reader: the common case, a field already in the buffer, costs a compare and the loads. */
static inline __attribute__((always_inline)) uint32_t readValue(SocketBuffer* sb, uint32_t width, int debugId)
{
    bool buffered = sb->errorCode == 0 && sb->bytesInBuffer >= width;
    if (!buffered && !haveBytes(sb, width, debugId)) return 0;
    uint32_t value = 0;
    for (uint32_t i = 0; i < width; i++) value = (value << 8) | sb->cursor[i];
    sb->cursor += width;
    sb->bytesInBuffer -= width;
    return value;
}

int32_t readInt(SocketBuffer* sb)
{
    return (int32_t)readValue(sb, 4, 2582);
}

int16_t readShort(SocketBuffer* sb)
{
    return (int16_t)readValue(sb, 2, 2581);
}

uint8_t readByte(SocketBuffer* sb)
{
    return (uint8_t)readValue(sb, 1, 2580);
}

static void takeFromBuffer(SocketBuffer* sb, uint8_t* destination, uint32_t dataLen)
{
    if (dataLen == 0) return;
    if (destination != NULL) memcpy(destination, sb->cursor, dataLen);
    sb->cursor += dataLen;
    sb->bytesInBuffer -= dataLen;
}

/* Data larger than the buffer go straight into the caller's area: those read ahead first, then the socket's. */
static void readDirect(SocketBuffer* sb, uint8_t* destination, uint32_t need)
{
    uint32_t early = sb->bytesAhead < sb->bytesRemaining ? sb->bytesAhead : sb->bytesRemaining;
    if (early > need) early = need;
    if (early > 0) {
        memcpy(destination, sb->cursor + sb->bytesInBuffer, early);
        sb->cursor += early;
        sb->bytesAhead -= early;
        sb->bytesRemaining -= early;
        destination += early;
        need -= early;
    }
    uint32_t allowed = need <= sb->bytesRemaining ? need : sb->bytesRemaining;
    TRACE_DEBUG(2533, "Reading %lu bytes from socket %d straight into %p\n", ul(allowed), sb->socketDesc,
                (void*)destination);
    uint32_t received = transfer(sb, destination, allowed, allowed, false, 2531);
    if (received > 0) {
        TRACE_DATA(2532, destination, received, "data=%p len=%lu stopword=%8.8X\n", (void*)destination,
                   ul(received), 0u);
        sb->cursor = sb->buffer;
        sb->bytesInBuffer = 0;
        sb->bytesRemaining -= received;
        TRACE_DEBUG(2534, "Received %lu bytes, %lu bytes remaining\n", ul(received), ul(sb->bytesRemaining));
    }
    if (sb->errorCode == 0 && allowed < need) failShortMessage(sb, need);
}

void readBytes(SocketBuffer* sb, void* destination, uint32_t dataLen)
{
    TRACE_ENTRY(2530, "clapi_socketbuffer.readBytes(sb=%p, destination=%p, dataLen=%lu)\n", (void*)sb,
                destination, ul(dataLen));
    uint8_t* into = (uint8_t*)destination;
    if (sb->errorCode == 0) {
        if (dataLen <= sb->bytesInBuffer) {
            takeFromBuffer(sb, into, dataLen);
        } else {
            uint32_t copied = sb->bytesInBuffer;
            takeFromBuffer(sb, into, copied);
            uint32_t need = dataLen - copied;
            if (need <= sb->bufferSize) {
                if (haveBytes(sb, need, 0)) takeFromBuffer(sb, into + copied, need);
            } else {
                readDirect(sb, into + copied, need);
            }
        }
    }
    TRACE_EXIT(2539, "clapi_socketbuffer.readBytes()\n");
}

void skipBytes(SocketBuffer* sb, uint32_t dataLen)
{
    while (dataLen > 0 && haveBytes(sb, 1, 0)) {
        uint32_t take = dataLen < sb->bytesInBuffer ? dataLen : sb->bytesInBuffer;
        takeFromBuffer(sb, NULL, take);
        dataLen -= take;
    }
}

static int sendAll(SocketBuffer* sb, const uint8_t* data, uint32_t dataLen, int excId)
{
    transfer(sb, (uint8_t*)data, dataLen, dataLen, true, excId);
    return sb->errorCode != 0 ? ZEP_ERR_LOSTGWCON : 0;
}

/* Makes room for a field of `width` bytes, flushing what is buffered; false when nothing may be written. */
static bool makeRoom(SocketBuffer* sb, uint32_t width)
{
    if (sb->errorCode != 0) return false;
    if (sb->bufferSize - sb->bytesInBuffer < width) flushBuffer(sb);
    if (sb->errorCode != 0) return false;
    if (sb->bufferSize - sb->bytesInBuffer < width) {
        /* Only a message longer than its announced length gets here; never write past the block. */
        sb->errorCode = EMSGSIZE;
        TRACE_EXC(2554, "Field of %lu bytes does not fit buffer %p of %lu bytes\n", ul(width), (void*)sb,
                  ul(sb->bufferSize));
        return false;
    }
    return true;
}

/* Inlined into each writer: the common case, room in the buffer, costs a compare and the stores. */
static inline __attribute__((always_inline)) void writeValue(SocketBuffer* sb, uint32_t value, uint32_t width,
                                                              int debugId)
{
    if (sb->errorCode != 0 || sb->bufferSize - sb->bytesInBuffer < width) {
        if (sb->errorCode == 0)
            TRACE_DEBUG(debugId, "Insufficient space in buffer %p to write %d\n", (void*)sb, (int)value);
        if (!makeRoom(sb, width)) return;
    }
    for (uint32_t i = 0; i < width; i++) sb->cursor[i] = (uint8_t)(value >> (8 * (width - 1 - i)));
    sb->cursor += width;
    sb->bytesInBuffer += width;
}

void writeInt(SocketBuffer* sb, int32_t value)
{
    writeValue(sb, (uint32_t)value, 4, 2552);
}

void writeShort(SocketBuffer* sb, int32_t value)
{
    writeValue(sb, (uint32_t)value & 0xFFFFu, 2, 2551);
}

void writeByte(SocketBuffer* sb, int32_t value)
{
    writeValue(sb, (uint32_t)value & 0xFFu, 1, 2550);
}

/* Flushes first when a field of `fieldLen` bytes does not fit behind what is buffered. */
static bool roomForField(SocketBuffer* sb, uint32_t fieldLen, int debugId)
{
    if (sb->errorCode == 0 && sb->bufferSize - sb->bytesInBuffer < fieldLen) {
        TRACE_DEBUG(debugId, "Insufficient space in buffer %p to write %lu bytes\n", (void*)sb, ul(fieldLen));
    }
    return makeRoom(sb, fieldLen);
}

static void putBytes(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen)
{
    if (dataLen > 0) memcpy(sb->cursor, data, dataLen);
    if (fieldLen > dataLen) memset(sb->cursor + dataLen, 0, fieldLen - dataLen);
    sb->cursor += fieldLen;
    sb->bytesInBuffer += fieldLen;
}

static void writeDirect(SocketBuffer* sb, const void* data, uint32_t dataLen)
{
    TRACE_DEBUG(2562, "Data too large for buffer %p, writing to socket %d\n", (void*)sb, sb->socketDesc);
    TRACE_DATA(2563, data, dataLen, "data=%p len=%lu stopword=%8.8X\n", data, ul(dataLen), 0u);
    if (sendAll(sb, (const uint8_t*)data, dataLen, 2565) != 0) return;
    sb->bytesRemaining -= dataLen;
    TRACE_DEBUG(2564, "Sent %u bytes, %lu bytes remaining\n", dataLen, ul(sb->bytesRemaining));
}

void writeBytes(SocketBuffer* sb, const void* data, uint32_t dataLen)
{
    TRACE_ENTRY(2560, "clapi_socketbuffer.writeBytes(sb=%p, data=%p, dataLen=%lu)\n", (void*)sb, data,
                ul(dataLen));
    if (sb->errorCode == 0 && dataLen > sb->bufferSize - sb->bytesInBuffer) {
        TRACE_DEBUG(2561, "Insufficient space in buffer %p to write %lu bytes\n", (void*)sb, ul(dataLen));
        flushBuffer(sb);
    }
    if (sb->errorCode == 0) {
        if (dataLen <= sb->bufferSize) {
            putBytes(sb, data, dataLen, dataLen);
        } else {
            writeDirect(sb, data, dataLen);
        }
    }
    TRACE_EXIT(2569, "clapi_socketbuffer.writeBytes()\n");
}

void writePaddedBytes(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen)
{
    if (!roomForField(sb, fieldLen, 2572)) return;
    putBytes(sb, data, dataLen < fieldLen ? dataLen : fieldLen, fieldLen);
}

/*
 * Scrambles the clear bytes [from, from + n) of a field into `out`. Every output byte is computed from clear
 * bytes only (itself and the one before), so a field can be scrambled piece by piece; the receiver undoes it
 * front to back.
 */
static void scramble(uint8_t* out, const uint8_t* clear, uint32_t from, uint32_t n)
{
    for (uint32_t i = 0; i < n; i++) {
        uint32_t at = from + i;
        out[i] = at == 0 ? (uint8_t)~clear[0] : (uint8_t)(clear[at] ^ clear[at - 1]);
    }
}

/* Puts bytes [from, from + width) of a masked field at the cursor and notes where they lie for the DATA dump. */
static bool putMaskedPiece(SocketBuffer* sb, const uint8_t* clear, uint32_t dataLen, uint32_t from, uint32_t width)
{
    MaskArea* area = (MaskArea*)malloc(sizeof(MaskArea) + width);
    if (area == NULL) {
        sb->errorCode = ENOMEM;
        TRACE_EXC(2573, "Failed to allocate %lu bytes for masked field\n", ul(width));
        return false;
    }
    area->bufferPos = sb->cursor;
    area->length = width;
    area->saveArea = (uint8_t*)(area + 1);
    area->next = sb->maskList;
    sb->maskList = area;
    uint32_t n = from < dataLen ? dataLen - from : 0;
    if (n > width) n = width;
    if (n > 0) scramble(sb->cursor, clear, from, n);
    /* The padding bytes are left as the block held them. */
    sb->cursor += width;
    sb->bytesInBuffer += width;
    return true;
}

/*
 * A field that does not fit behind what is buffered is written after a flush; one larger than the whole
 * buffer goes out in buffer-sized pieces, so the message still carries every byte it announced.
 */
static void writeMasked(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen, int debugId)
{
    if (sb->errorCode == 0 && sb->bufferSize - sb->bytesInBuffer < fieldLen) {
        TRACE_DEBUG(debugId, "Insufficient space in buffer %p to write %lu bytes\n", (void*)sb, ul(fieldLen));
        flushBuffer(sb);
    }
    const uint8_t* clear = (const uint8_t*)data;
    uint32_t n = dataLen < fieldLen ? dataLen : fieldLen;
    uint32_t from = 0;
    while (from < fieldLen && makeRoom(sb, 1)) {
        uint32_t room = sb->bufferSize - sb->bytesInBuffer;
        uint32_t width = fieldLen - from < room ? fieldLen - from : room;
        if (!putMaskedPiece(sb, clear, n, from, width)) return;
        from += width;
    }
}

void writeBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen)
{
    writeMasked(sb, data, dataLen, dataLen, 2570);
}

void writePaddedBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen)
{
    writeMasked(sb, data, dataLen, fieldLen, 2571);
}

/* Shows the buffer with every masked field as asterisks; the buffer itself is left as it goes on the wire. */
static void traceMaskedBuffer(SocketBuffer* sb)
{
    for (MaskArea* area = sb->maskList; area != NULL; area = area->next) {
        memcpy(area->saveArea, area->bufferPos, area->length);
        memset(area->bufferPos, MASK_FILL, area->length);
    }
    clapiTraceData(2526, sb->buffer, sb->bytesInBuffer, "data=%p len=%lu stopword=%8.8X\n", (void*)sb->buffer,
                   ul(sb->bytesInBuffer), 0u);
    for (MaskArea* area = sb->maskList; area != NULL; area = area->next) {
        memcpy(area->bufferPos, area->saveArea, area->length);
        memset(area->saveArea, MASK_FILL, area->length);
    }
}

int flushBuffer(SocketBuffer* sb)
{
    TRACE_ENTRY(2525, "clapi_socketbuffer.flushBuffer(sb=%p)\n", (void*)sb);
    int rc = 0;
    if (sb->errorCode != 0) {
        rc = ZEP_ERR_LOSTGWCON;
    } else if (sb->bytesInBuffer > 0) {
        if (TRACE_LEVEL() > 3) traceMaskedBuffer(sb);
        rc = sendAll(sb, sb->buffer, sb->bytesInBuffer, 2528);
        if (rc == 0) {
            sb->bytesRemaining -= sb->bytesInBuffer;
            TRACE_DEBUG(2527, "Sent %d bytes, %lu bytes remaining\n", (int)sb->bytesInBuffer,
                        ul(sb->bytesRemaining));
            sb->bytesInBuffer = 0;
            sb->cursor = sb->buffer;
            freeMaskArea(sb->maskList);
            sb->maskList = NULL;
        }
    }
    TRACE_EXIT(2529, "clapi_socketbuffer.flushBuffer() rc=%d\n", rc);
    return rc;
}

int freeBuffer(SocketBuffer* sb)
{
    TRACE_ENTRY(2516, "clapi_socketbuffer.freeBuffer(sb=%p)\n", (void*)sb);
    int rc = 0;
    if (sb->buffer != NULL) {
        clapiZeroFree(sb->buffer, sb->bufferSize);
        freeMaskArea(sb->maskList);
    } else {
        TRACE_EXC(2517, "Buffer not initialized: %p\n", (void*)sb);
        rc = ZEP_ERR_SYSTEM_ERROR;
    }
    memset(sb, 0, sizeof *sb);
    TRACE_EXIT(2518, "clapi_socketbuffer.freeBuffer() rc=%d\n", rc);
    return rc;
}

/* Readiness as select reports it: a descriptor that is not open is an error (EBADF), never a ready one. */
static int pollReadable(int socketDesc, int waitMs)
{
    if (socketDesc < 0) {
        errno = EBADF;
        return -1;
    }
    struct pollfd readable;
    readable.fd = socketDesc;
    readable.events = POLLIN;
    readable.revents = 0;
    int ready;
    do {
        ready = poll(&readable, 1, waitMs);
    } while (ready < 0 && errno == EINTR);
    if (ready > 0 && (readable.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

int waitForResponse(SocketBuffer* sb, int timeout)
{
    TRACE_ENTRY(2522, "clapi_socketbuffer.waitForResponse(sb=%p, timeout=%d)\n", (void*)sb, timeout);
    int waitMs = timeout <= 0 ? -1 : timeout > 2000000 ? 2000000000 : timeout * 1000;
    int ready = pollReadable(sb->socketDesc, waitMs);
    int rc = 0;
    if (ready == 0) {
        TRACE_EXC(2504, "Timed out waiting for handshake response\n");
        rc = ZEP_ERR_CONNECTTIMEOUT;
    } else if (ready < 0) {
        sb->errorCode = errno;
        char text[128];
        TRACE_EXC(2523, "select failed: %s (%d)\n", errorText(sb->errorCode, text, sizeof text), sb->errorCode);
        rc = ZEP_ERR_LOSTGWCON;
    }
    TRACE_EXIT(2524, "clapi_socketbuffer.waitForResponse() rc=%d\n", rc);
    return rc;
}

void freeMaskArea(MaskArea* area)
{
    while (area != NULL) {
        MaskArea* next = area->next;
        clapiZeroFree(area, sizeof(MaskArea) + area->length);
        area = next;
    }
}
