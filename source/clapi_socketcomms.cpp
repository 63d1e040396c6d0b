/* Message encodings: header, handshake, close, ECI with channels, ESI. */
#include "clapi_socketcomms.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "clapi_socketbuffer.h"

extern "C" {
const char ECI_REQUEST_NAME[] = "ECI";
const char ESI_REQUEST_NAME[] = "ESI";
const char HANDSHAKE_REQUEST_NAME[] = "BASE";
CLAPI_MODULE_VERSION(clapi_socketcomms);
}

/* Fixed part of a header: six ints, the flags byte and the payload length. */
static const int32_t HEADER_FIXED = 29;
/* The first read of a header assumes a three-letter request type. */
static const uint32_t HEADER_FIRST_READ = 32;
static const int32_t REQUEST_TYPE_MAX = 1024;
static const uint8_t LOCALE_BLOCK[18] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B'};
/* Channel section head (name, CCSID, count) and container record head on the wire. */
static const int32_t CHANNEL_SECTION = 24;
static const int32_t CONTAINER_RECORD = 28;

#define CONTAINER_ADDED     1
#define CONTAINER_DELETED   2
#define CONTAINER_MODIFIED  3
#define CONTAINER_UNCHANGED 4

/* Room for a converted APPLID or qualifier of up to 8 characters and its terminator. */
static const size_t UTF8_AREA = 17;

static int32_t textLength(const char* text)
{
    return text != NULL ? (int32_t)strlen(text) : 0;
}

static uint32_t nonNegative(int32_t length)
{
    return length > 0 ? (uint32_t)length : 0;
}

/* ---- Header ---- */

static void buildHeader(FlowHeader* header, int32_t flowType, int32_t messageId, const char* requestType)
{
    memset(header, 0, sizeof *header);
    header->eyecatcher = FLOW_EYECATCHER;
    header->version = FLOW_VERSION;
    header->flowType = flowType;
    header->messageId = messageId;
    header->requestTypeLength = (int32_t)strlen(requestType);
    memcpy(header->requestType, requestType, (size_t)header->requestTypeLength);
}

void writeHeader(SocketBuffer* sb, FlowHeader* header)
{
    TRACE_ENTRY(3210, "clapi_socketcomms.writeHeader(sockBuffer=%p, header=%p)\n", (void*)sb, (void*)header);
    uint32_t nameLength = nonNegative(header->requestTypeLength);
    uint32_t stored = nameLength < REQUEST_TYPE_AREA ? nameLength : REQUEST_TYPE_AREA;
    writeInt(sb, header->eyecatcher);
    writeInt(sb, header->version);
    writeInt(sb, header->flowType);
    writeInt(sb, header->messageId);
    writeInt(sb, header->returnCode);
    writeInt(sb, header->requestTypeLength);
    writePaddedBytes(sb, header->requestType, stored, nameLength);
    writeByte(sb, header->flags);
    writeInt(sb, header->payloadLength);
    TRACE_EXIT(3211, "clapi_socketcomms.writeHeader()\n");
}

/* Reads the request type name; a name longer than the area is cut and its excess read and dropped. */
static int readRequestType(SocketBuffer* sb, FlowHeader* header)
{
    int32_t nameLength = header->requestTypeLength;
    if (nameLength < 0 || nameLength > REQUEST_TYPE_MAX) {
        TRACE_EXC(3213, "Bad request type length %d\n", nameLength);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    memset(header->requestType, 0, REQUEST_TYPE_AREA);
    if (nameLength > 3) sb->bytesRemaining += (uint32_t)nameLength - 3;
    uint32_t stored = nameLength < REQUEST_TYPE_AREA - 1 ? (uint32_t)nameLength : REQUEST_TYPE_AREA - 1;
    readBytes(sb, header->requestType, stored);
    skipBytes(sb, (uint32_t)nameLength - stored);
    return 0;
}

// Runs on the receiver thread.
int clapiReadHeader(SocketBuffer* sb, FlowHeader* header)
{
    TRACE_ENTRY(3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=%p, header=%p)\n", (void*)sb, (void*)header);
    int rc = initReadBuffer(sb, sb->socketDesc, HEADER_FIRST_READ);
    if (rc == 0) rc = fillBuffer(sb);
    if (rc == 0) {
        header->eyecatcher = readInt(sb);
        if (header->eyecatcher != FLOW_EYECATCHER) {
            TRACE_EXC(3213, "Bad eyecatcher! Expected=0x%x, actual=0x%x\n", (unsigned)FLOW_EYECATCHER,
                      (unsigned)header->eyecatcher);
            rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    if (rc == 0) {
        header->version = readInt(sb);
        header->flowType = readInt(sb);
        header->messageId = readInt(sb);
        header->returnCode = readInt(sb);
        header->requestTypeLength = readInt(sb);
        rc = readRequestType(sb, header);
    }
    if (rc == 0) {
        header->flags = readByte(sb);
        header->payloadLength = readInt(sb);
        if (sb->errorCode != 0) {
            rc = ZEP_ERR_LOSTGWCON;
        } else if (header->payloadLength < 0) {
            TRACE_EXC(3213, "Bad payload length %d\n", header->payloadLength);
            rc = ZEP_ERR_SYSTEM_ERROR;
        } else if (header->requestTypeLength < 3 && header->payloadLength < 3 - header->requestTypeLength) {
            /* The first read took bytes that belong to the next message. */
            TRACE_EXC(3213, "Message of %d bytes is shorter than the first read of a header\n",
                      HEADER_FIXED + header->requestTypeLength + header->payloadLength);
            rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    TRACE_EXIT(3214, "clapi_socketcomms.clapiReadHeader() rc=%d\n", rc);
    return rc;
}

/* ---- Sending one whole message ---- */

typedef void (*PayloadWriter)(SocketBuffer* sb, const void* payload);

/*
 * Writes the header and its payload through one write buffer sized for both, flushes, and releases the
 * buffer whether or not the flush worked; a failed flush is the result.
 */
static int sendMessage(int socketDesc, FlowHeader* header, PayloadWriter writePayload, const void* payload)
{
    SocketBuffer sb;
    memset(&sb, 0, sizeof sb);
    uint32_t total = (uint32_t)HEADER_FIXED + nonNegative(header->requestTypeLength) +
                     nonNegative(header->payloadLength);
    int rc = initWriteBuffer(&sb, socketDesc, total);
    if (rc != 0) {
        if (sb.buffer != NULL) freeBuffer(&sb);
        return rc;
    }
    writeHeader(&sb, header);
    if (writePayload != NULL) writePayload(&sb, payload);
    int flushRc = flushBuffer(&sb);
    int freeRc = freeBuffer(&sb);
    return flushRc != 0 ? flushRc : freeRc;
}

/* ---- Handshake and close ---- */

/* Latin-1 to UTF-8; stops before a character that would not fit with the terminator. */
static void utf8Into(const char* source, char* destination, size_t capacity)
{
    size_t used = 0;
    for (const uint8_t* in = (const uint8_t*)source; *in != 0; in++) {
        size_t width = *in < 0x80 ? 1 : 2;
        if (capacity != 0 && used + width >= capacity) break;
        if (*in < 0x80) {
            destination[used++] = (char)*in;
        } else if (*in < 0xC0) {
            destination[used++] = (char)0xC2;
            destination[used++] = (char)*in;
        } else {
            destination[used++] = (char)0xC3;
            destination[used++] = (char)((*in & 0x3F) | 0x80);
        }
    }
    destination[used] = '\0';
}

void makeUtf8(const char* source, char* destination)
{
    utf8Into(source, destination, 0);
}

static void writeCountedText(SocketBuffer* sb, const char* text)
{
    int32_t length = textLength(text);
    writeShort(sb, length);
    writeBytes(sb, text, (uint32_t)length);
}

/* The payload is the two converted names, APPLID first. */
static void writeHandshakePayload(SocketBuffer* sb, const void* payload)
{
    const char* const* names = (const char* const*)payload;
    writeBytes(sb, LOCALE_BLOCK, sizeof LOCALE_BLOCK);
    writeCountedText(sb, names[0]);
    writeCountedText(sb, names[1]);
}

int clapiFlowHandshakeRequest(int socketDesc, const char* applid, const char* applidQualifier)
{
    TRACE_ENTRY(3200, "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=%d, applid=%s, applidQualifier=%s)\n",
                socketDesc, TRACE_STR(applid), TRACE_STR(applidQualifier));
    char applidUtf8[UTF8_AREA] = {0};
    char qualifierUtf8[UTF8_AREA] = {0};
    utf8Into(applid != NULL ? applid : "", applidUtf8, UTF8_AREA);
    utf8Into(applidQualifier != NULL ? applidQualifier : "", qualifierUtf8, UTF8_AREA);
    FlowHeader header;
    buildHeader(&header, FLOW_HANDSHAKE, MSGID_HANDSHAKE, HANDSHAKE_REQUEST_NAME);
    header.payloadLength = (int32_t)(sizeof LOCALE_BLOCK) + 4 + textLength(applidUtf8) + textLength(qualifierUtf8);
    const char* names[2] = {applidUtf8, qualifierUtf8};
    int rc = sendMessage(socketDesc, &header, writeHandshakePayload, names);
    TRACE_EXIT(3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=%d\n", rc);
    return rc;
}

// Send lock held on entry.
int clapiFlowCloseRequest(int socketDesc)
{
    TRACE_ENTRY(3208, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=%d)\n", socketDesc);
    FlowHeader header;
    buildHeader(&header, FLOW_CLOSE, MSGID_CLOSE, HANDSHAKE_REQUEST_NAME);
    int rc = sendMessage(socketDesc, &header, NULL, NULL);
    TRACE_EXIT(3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=%d\n", rc);
    return rc;
}

/* ---- Channels ---- */

const char* getContainerTypeString(int type)
{
    if (type == ECI_BIT) return "ECI_BIT";
    if (type == ECI_CHAR) return "ECI_CHAR";
    return "UNKNOWN";
}

/* Writes `length` bytes of `data`, or zero bytes where the caller gave no area. */
static void writeData(SocketBuffer* sb, const void* data, uint32_t length)
{
    static const uint8_t zeros[256] = {0};
    if (data != NULL) {
        writeBytes(sb, data, length);
        return;
    }
    while (length > 0 && sb->errorCode == 0) {
        uint32_t piece = length < sizeof zeros ? length : (uint32_t)sizeof zeros;
        writeBytes(sb, zeros, piece);
        length -= piece;
    }
}

static void writeContainer(SocketBuffer* sb, const Container* container)
{
    TRACE_EVENT(3246, "Writing container \"%.16s\", type=%s, CCSID=%d, data length=%lu\n", container->name,
                getContainerTypeString(container->type), container->ccsid, container->dataLength);
    writeBytes(sb, container->name, CHANNEL_NAME_LEN);
    writeByte(sb, CONTAINER_ADDED);
    writeByte(sb, 0);
    writeByte(sb, 0);
    writeByte(sb, container->type);
    writeInt(sb, container->ccsid);
    writeInt(sb, (int32_t)container->dataLength);
    TRACE_DATA(3247, container->dataPtr, container->dataLength, "data=%p len=%lu stopword=%8.8X\n",
               (void*)container->dataPtr, container->dataLength, 0u);
    writeData(sb, container->dataPtr, (uint32_t)container->dataLength);
}

void writeChannel(SocketBuffer* sb, Channel* channel)
{
    TRACE_ENTRY(3215, "clapi_socketcomms.writeChannel(sockBuffer=%p, channel=%p)\n", (void*)sb, (void*)channel);
    TRACE_EVENT(3245, "Writing channel \"%.16s\", CCSID=%d, num containers=%d\n", channel->name, channel->ccsid,
                channel->numContainers);
    writeBytes(sb, channel->name, CHANNEL_NAME_LEN);
    writeInt(sb, channel->ccsid);
    writeInt(sb, channel->numContainers);
    for (Container* container = channel->firstCont; container != NULL; container = container->nextCont) {
        writeContainer(sb, container);
    }
    TRACE_EXIT(3216, "clapi_socketcomms.writeChannel()\n");
}

static int32_t channelSize(const Channel* channel)
{
    int32_t size = CHANNEL_SECTION;
    for (const Container* container = channel->firstCont; container != NULL; container = container->nextCont) {
        size += CONTAINER_RECORD + (int32_t)container->dataLength;
    }
    return size;
}

/* 0 while the read buffer is sound; a message shorter than its fields is a protocol error. */
static int readFailure(const SocketBuffer* sb)
{
    if (sb->errorCode == 0) return 0;
    return sb->errorCode == EPROTO ? ZEP_ERR_SYSTEM_ERROR : ZEP_ERR_LOSTGWCON;
}

static Container* findContainer(Channel* channel, const char* name, Container** previous)
{
    Container* before = NULL;
    for (Container* container = channel->firstCont; container != NULL; container = container->nextCont) {
        if (memcmp(container->name, name, CHANNEL_NAME_LEN) == 0) {
            if (previous != NULL) *previous = before;
            return container;
        }
        before = container;
    }
    return NULL;
}

/* A data length that the rest of the message cannot hold is refused before anything is allocated for it. */
static int checkDataFits(const SocketBuffer* sb, unsigned long length, int excId)
{
    unsigned long long left = (unsigned long long)sb->bytesInBuffer + sb->bytesRemaining;
    if (length <= left) return 0;
    TRACE_EXC(excId, "Container data length %lu exceeds the %llu bytes left in the message\n", length, left);
    return ZEP_ERR_SYSTEM_ERROR;
}

/* Reads container data into `block`; on failure whatever arrived is wiped. */
static int readContainerData(SocketBuffer* sb, uint8_t* block, unsigned long length, int dataId)
{
    readBytes(sb, block, (uint32_t)length);
    int rc = readFailure(sb);
    if (rc != 0) {
        explicit_bzero(block, length);
        return rc;
    }
    TRACE_DATA(dataId, block, length, "data=%p len=%lu stopword=%8.8X\n", (void*)block, length, 0u);
    return 0;
}

// Runs on the receiver thread.
int addContainer(SocketBuffer* sb, Channel* channel, Container* record)
{
    TRACE_ENTRY(3223, "clapi_socketcomms.addContainer(sockBuffer=%p, channel=%p, record=%p)\n", (void*)sb,
                (void*)channel, (void*)record);
    int rc = checkDataFits(sb, record->dataLength, 3224);
    uint8_t* data = NULL;
    if (rc == 0 && record->dataLength != 0) {
        data = (uint8_t*)malloc(record->dataLength);
        if (data == NULL) {
            TRACE_EXC(3224, "Failed to allocate %lu bytes for container data\n", record->dataLength);
            rc = ZEP_ERR_MALLOCFAIL;
        } else {
            rc = readContainerData(sb, data, record->dataLength, 3225);
            if (rc != 0) free(data);   /* readContainerData has wiped whatever arrived */
        }
    }
    if (rc == 0) {
        Container* container = (Container*)malloc(sizeof(Container));
        if (container == NULL) {
            TRACE_EXC(3224, "Failed to allocate %lu bytes for new container\n", (unsigned long)sizeof(Container));
            clapiZeroFree(data, record->dataLength);
            rc = ZEP_ERR_MALLOCFAIL;
        } else {
            *container = *record;
            container->dataPtr = data;
            container->nextCont = channel->firstCont;
            channel->firstCont = container;
            channel->numContainers++;
        }
    }
    TRACE_EXIT(3226, "clapi_socketcomms.addContainer() rc=%d\n", rc);
    return rc;
}

// Runs on the receiver thread.
int deleteContainer(Channel* channel, Container* record)
{
    TRACE_ENTRY(3227, "clapi_socketcomms.deleteContainer(channel=%p, record=%p)\n", (void*)channel, (void*)record);
    Container* previous = NULL;
    Container* container = findContainer(channel, record->name, &previous);
    int rc = 0;
    if (container == NULL) {
        TRACE_EXC(3228, "Container \"%.16s\" not found in channel \"%.16s\"\n", record->name, channel->name);
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        if (previous == NULL) {
            channel->firstCont = container->nextCont;
        } else {
            previous->nextCont = container->nextCont;
        }
        if (channel->currentCont == container) {
            channel->currentCont = previous;
            if (previous != NULL) {
                TRACE_DEBUG(3229, "Current container is now \"%.16s\"\n", previous->name);
            } else {
                TRACE_DEBUG(3230, "Current container is now NULL\n");
            }
        }
        clapiZeroFree(container->dataPtr, container->dataLength);
        clapiZeroFree(container, sizeof *container);
        channel->numContainers--;
    }
    TRACE_EXIT(3231, "clapi_socketcomms.deleteContainer() rc=%d\n", rc);
    return rc;
}

/* Gives the container a data block of `length` bytes, keeping the old one when the length is unchanged. */
static int resizeContainerData(Container* container, unsigned long length)
{
    if (length == container->dataLength) return 0;
    if (container->dataPtr != NULL) {
        TRACE_DEBUG(3234, "Freeing %lu bytes of container data (%p)\n", container->dataLength,
                    (void*)container->dataPtr);
        clapiZeroFree(container->dataPtr, container->dataLength);
    }
    container->dataPtr = NULL;
    container->dataLength = 0;
    if (length == 0) return 0;
    container->dataPtr = (uint8_t*)malloc(length);
    if (container->dataPtr == NULL) {
        TRACE_EXC(3233, "Failed to allocate %lu bytes for container data\n", length);
        return ZEP_ERR_MALLOCFAIL;
    }
    container->dataLength = length;
    return 0;
}

// Runs on the receiver thread.
int modifyContainer(SocketBuffer* sb, Channel* channel, Container* record)
{
    TRACE_ENTRY(3232, "clapi_socketcomms.modifyContainer(sockBuffer=%p, channel=%p, record=%p)\n", (void*)sb,
                (void*)channel, (void*)record);
    Container* container = findContainer(channel, record->name, NULL);
    int rc = 0;
    if (container == NULL) {
        TRACE_EXC(3233, "Container \"%.16s\" not found in channel \"%.16s\"\n", record->name, channel->name);
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        bool keepsOldData = record->dataLength == container->dataLength;
        rc = checkDataFits(sb, record->dataLength, 3233);
        if (rc == 0) {
            rc = resizeContainerData(container, record->dataLength);
        } else {
            resizeContainerData(container, 0);   /* the old data go, wiped, as for any failed change */
        }
        if (rc == 0 && record->dataLength != 0) {
            rc = readContainerData(sb, container->dataPtr, record->dataLength, 3235);
            if (rc != 0) {
                /* A reused block still holds the old data; a new one only what readContainerData wiped. */
                if (keepsOldData) {
                    clapiZeroFree(container->dataPtr, container->dataLength);
                } else {
                    free(container->dataPtr);
                }
                container->dataPtr = NULL;
                container->dataLength = 0;
            }
        }
        if (rc == 0) {
            container->type = record->type;
            container->ccsid = record->ccsid;
        }
    }
    TRACE_EXIT(3236, "clapi_socketcomms.modifyContainer() rc=%d\n", rc);
    return rc;
}

/* Reads one container record and applies its change mark. */
static int readContainerRecord(SocketBuffer* sb, Channel* channel)
{
    Container record;
    memset(&record, 0, sizeof record);
    memcpy(record.eyecatcher, EYE_CONTA, EYE_LEN);
    readBytes(sb, record.name, CHANNEL_NAME_LEN);
    uint8_t mark = readByte(sb);
    readByte(sb);
    readByte(sb);
    record.type = readByte(sb);
    record.ccsid = readInt(sb);
    record.dataLength = (uint32_t)readInt(sb);
    int rc = readFailure(sb);
    if (rc != 0) return rc;
    switch (mark) {
    case CONTAINER_ADDED:
        TRACE_EVENT(3219, "Container \"%.16s\" ADDED in VANT, type=%s, CCSID=%d, data length=%lu\n", record.name,
                    getContainerTypeString(record.type), record.ccsid, record.dataLength);
        return addContainer(sb, channel, &record);
    case CONTAINER_DELETED:
        TRACE_EVENT(3220, "Container \"%.16s\" DELETED in VANT\n", record.name);
        return deleteContainer(channel, &record);
    case CONTAINER_MODIFIED:
        TRACE_EVENT(3221, "Container \"%.16s\" MODIFIED in VANT, new length=%lu\n", record.name, record.dataLength);
        return modifyContainer(sb, channel, &record);
    case CONTAINER_UNCHANGED:
        TRACE_EVENT(3222, "Container \"%.16s\" is UNCHANGED\n", record.name);
        return 0;
    default:
        return 0;
    }
}

// Runs on the receiver thread.
int readChannel(SocketBuffer* sb, Channel* channel)
{
    TRACE_ENTRY(3217, "clapi_socketcomms.readChannel(sockBuffer=%p, channel=%p)\n", (void*)sb, (void*)channel);
    readBytes(sb, channel->name, CHANNEL_NAME_LEN);
    channel->ccsid = readInt(sb);
    int32_t count = readInt(sb);
    TRACE_DEBUG(3218, "Return flow contains %d containers in channel \"%.16s\"\n", count, channel->name);
    int rc = readFailure(sb);
    for (int32_t i = 0; i < count && rc == 0; i++) {
        rc = readContainerRecord(sb, channel);
    }
    TRACE_EXIT(3248, "clapi_socketcomms.readChannel() rc=%d\n", rc);
    return rc;
}

/* A reply may carry a channel the request did not send; it is read into a scratch channel and dropped. */
static int readReplyChannel(SocketBuffer* sb, Channel* channel)
{
    if (channel != NULL) return readChannel(sb, channel);
    Channel* scratch = (Channel*)calloc(1, sizeof(Channel));
    if (scratch == NULL) return ZEP_ERR_MALLOCFAIL;
    memcpy(scratch->eyecatcher, EYE_CHANN, EYE_LEN);
    int rc = readChannel(sb, scratch);
    while (scratch->firstCont != NULL) {
        Container* container = scratch->firstCont;
        scratch->firstCont = container->nextCont;
        clapiZeroFree(container->dataPtr, container->dataLength);
        clapiZeroFree(container, sizeof *container);
    }
    clapiZeroFree(scratch, sizeof *scratch);
    return rc;
}

/* ---- ECI ---- */

static bool isDataless(int32_t extendMode)
{
    return extendMode == 2 || extendMode == 4;
}

static uint32_t commareaBytesOut(const EciRequest* request)
{
    if (isDataless(request->extendMode)) return 0;
    return request->outboundLength > 0 ? (uint32_t)request->outboundLength : nonNegative(request->commareaLength);
}

static bool isProgramCall(int32_t kind)
{
    return kind == ECI_KIND_PROGRAM || kind == ECI_KIND_ALT_TRANSID;
}

static int32_t programCallSize(const EciRequest* request)
{
    int32_t size = 68 + (int32_t)nonNegative(request->extraLength) + textLength(request->password);
    if (request->inboundLength > 0) size += 4;
    if (request->outboundLength > 0) size += 4;
    size += (int32_t)commareaBytesOut(request);
    if (request->channel != NULL) size += channelSize(request->channel);
    return size;
}

int32_t calculateECIRequestSize(EciRequest* request)
{
    TRACE_ENTRY(3202, "clapi_socketcomms.calculateECIRequestSize(request=%p)\n", (void*)request);
    int32_t size = 15;
    if (request->optionalMarker != -1) {
        size = 23 + (int32_t)nonNegative(request->optional1Length) + (int32_t)nonNegative(request->optional2Length);
    }
    if (request->requestKind == ECI_KIND_SYSTEMS) {
        size += 4;
    } else if (isProgramCall(request->requestKind)) {
        size += programCallSize(request);
    }
    TRACE_EXIT(3203, "calculateECIRequestSize() requestSize=%d\n", size);
    return size;
}

/* A length announced by a flag byte: FF and the length when above 0, else 00 alone. */
static void writeOptionalLength(SocketBuffer* sb, int32_t length)
{
    writeByte(sb, length > 0 ? 0xFF : 0x00);
    if (length > 0) writeInt(sb, length);
}

static void writeCommarea(SocketBuffer* sb, const EciRequest* request)
{
    if (isDataless(request->extendMode)) return;
    uint32_t length = commareaBytesOut(request);
    if (request->outboundLength > 0) {
        TRACE_DATA(3243, request->commarea, length, "Commarea=%p len=%d stopword=%8.8X\n", request->commarea,
                   (int)length, 0u);
    } else {
        TRACE_DATA(3244, request->commarea, length, "Commarea=%p len=%d stopword=%8.8X\n", request->commarea,
                   (int)length, 0u);
    }
    if (length > 0) writeData(sb, request->commarea, length);
}

static void writeProgramCall(SocketBuffer* sb, const EciRequest* request)
{
    writeInt(sb, request->extendMode);
    writeInt(sb, request->luwToken);
    writeInt(sb, request->reserved1);
    writeByte(sb, request->reserved2);
    writeInt(sb, (int32_t)sizeof request->systemName);
    writeBytes(sb, request->systemName, sizeof request->systemName);
    writePaddedBytes(sb, request->userid, (uint32_t)textLength(request->userid), 16);
    int32_t passwordLength = textLength(request->password);
    writeInt(sb, passwordLength);
    if (passwordLength > 0) writeBytesMasked(sb, request->password, (uint32_t)passwordLength);
    writeBytes(sb, request->programName, sizeof request->programName);
    writeBytes(sb, request->transid, sizeof request->transid);
    writeInt(sb, request->extraLength);
    if (request->extraLength > 0) writeData(sb, request->extraData, (uint32_t)request->extraLength);
    writeInt(sb, request->commareaLength);
    writeOptionalLength(sb, request->outboundLength);
    writeOptionalLength(sb, request->inboundLength);
    writeCommarea(sb, request);
    writeByte(sb, request->channel != NULL ? 0xFF : 0x00);
    if (request->channel != NULL) writeChannel(sb, request->channel);
}

static void writeCountedBytes(SocketBuffer* sb, const uint8_t* data, int32_t length)
{
    writeInt(sb, length);
    if (length > 0) writeData(sb, data, (uint32_t)length);
}

static void writeEciTrailer(SocketBuffer* sb, const EciRequest* request)
{
    writeShort(sb, request->timeout);
    writeByte(sb, request->reserved3);
    writeInt(sb, request->optionalMarker);
    if (request->optionalMarker != -1) {
        writeCountedBytes(sb, request->optional1, request->optional1Length);
        writeCountedBytes(sb, request->optional2, request->optional2Length);
    }
    writeInt(sb, request->correlator);
}

static void writeEciPayload(SocketBuffer* sb, const void* payload)
{
    const EciRequest* request = (const EciRequest*)payload;
    writeInt(sb, request->requestKind);
    if (request->requestKind == ECI_KIND_SYSTEMS) {
        writeInt(sb, request->replyToken);
    } else if (isProgramCall(request->requestKind)) {
        writeProgramCall(sb, request);
    }
    writeEciTrailer(sb, request);
}

// Send lock held on entry.
int clapiFlowECIRequest(int socketDesc, FlowHeader* header, EciRequest* request)
{
    TRACE_ENTRY(3204, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=%d, header=%p, request=%p)\n", socketDesc,
                (void*)header, (void*)request);
    header->payloadLength = calculateECIRequestSize(request);
    int rc = sendMessage(socketDesc, header, writeEciPayload, request);
    TRACE_EXIT(3205, "clapi_socketcomms.clapiFlowECIRequest() rc=%d\n", rc);
    return rc;
}

/* The most a COMMAREA length can say; a library reply buffer never grows beyond it. */
static const uint32_t REPLY_AREA_MAX = 32767;

/*
 * A library-owned reply area takes a longer reply whole, up to REPLY_AREA_MAX, so that the caller can be told
 * its length and ask again. When the larger block cannot be had the old one stays and the excess is dropped.
 */
static void growReplyArea(EciRequest* request, uint32_t wanted)
{
    uint32_t size = wanted < REPLY_AREA_MAX ? wanted : REPLY_AREA_MAX;
    if (!request->growableArea || request->commarea == NULL || size <= request->commareaCapacity) return;
    void* larger = calloc(1, size);
    if (larger == NULL) {
        TRACE_EXC(3249, "Failed to allocate %lu bytes for a reply of %lu bytes\n", (unsigned long)size,
                  (unsigned long)wanted);
        return;
    }
    clapiZeroFree(request->commarea, request->commareaCapacity);
    request->commarea = larger;
    request->commareaCapacity = size;
}

/*
 * Reads dataLength reply bytes into the reply area, never past its capacity, and zero-fills the area up to
 * fillTo. What does not fit is read and dropped so that the stream stays in step. True when the reply did not
 * fit: data or zero fill beyond the capacity of a caller's area, or data beyond what a library buffer can hold.
 */
static bool readReplyData(SocketBuffer* sb, EciRequest* request, int32_t dataLength, int32_t fillTo)
{
    uint32_t wanted = (uint32_t)dataLength;
    growReplyArea(request, wanted);
    uint8_t* area = (uint8_t*)request->commarea;
    uint32_t capacity = area != NULL ? request->commareaCapacity : 0;
    uint32_t stored = wanted < capacity ? wanted : capacity;
    if (stored > 0) readBytes(sb, area, stored);
    if (wanted > stored) {
        TRACE_EXC(3249, "Reply data of %d bytes exceed the reply area of %lu bytes; the excess is dropped\n",
                  dataLength, (unsigned long)capacity);
        skipBytes(sb, wanted - stored);
    }
    uint32_t fillEnd = nonNegative(fillTo) < capacity ? nonNegative(fillTo) : capacity;
    if (fillEnd > stored) memset(area + stored, 0, fillEnd - stored);
    request->inboundLength = (int32_t)stored;
    return wanted > stored || (!request->growableArea && nonNegative(fillTo) > capacity);
}

static int badReplyLength(int32_t commareaLength, int32_t dataLength)
{
    TRACE_EXC(3249, "Bad length in ECI reply: COMMAREA length %d, data length %d\n", commareaLength, dataLength);
    return ZEP_ERR_SYSTEM_ERROR;
}

static int readProgramReply(SocketBuffer* sb, EciRequest* request)
{
    request->luwToken = readInt(sb);
    request->reserved1 = readInt(sb);
    request->returnCode = readInt(sb);
    readBytes(sb, request->abendCode, sizeof request->abendCode);
    request->commareaLength = readInt(sb);
    int32_t dataLength = request->commareaLength;
    if (readByte(sb) != 0) {
        readByte(sb);
        dataLength = readInt(sb);
    }
    int rc = readFailure(sb);
    if (rc != 0) return rc;
    if (request->commareaLength < 0 || dataLength < 0) return badReplyLength(request->commareaLength, dataLength);
    request->inboundLength = 0;
    /* Without a COMMAREA to fill the data bytes are still on the wire, ahead of the channel flag. */
    if (isDataless(request->extendMode)) {
        skipBytes(sb, (uint32_t)dataLength);
    } else {
        bool overflowed = readReplyData(sb, request, dataLength, request->commareaLength);
        /* Part of a reply is not a reply: the caller must not take a cut area for a whole one. */
        if (overflowed && request->returnCode == 0) request->returnCode = ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (readByte(sb) != 0) rc = readReplyChannel(sb, request->channel);
    return rc;
}

static int readSystemsReply(SocketBuffer* sb, EciRequest* request)
{
    request->replyToken = readInt(sb);
    request->returnCode = readInt(sb);
    request->commareaLength = readInt(sb);
    int rc = readFailure(sb);
    if (rc != 0) return rc;
    if (request->commareaLength < 0) return badReplyLength(request->commareaLength, request->commareaLength);
    (void)readReplyData(sb, request, request->commareaLength, 0);
    return 0;
}

// Runs on the receiver thread.
int clapiReadECIResponse(SocketBuffer* sb, EciRequest* request)
{
    TRACE_ENTRY(3206, "clapi_socketcomms.clapiReadECIResponse(sockBuffer=%p, request=%p)\n", (void*)sb,
                (void*)request);
    request->requestKind = readInt(sb);
    int rc = 0;
    if (isProgramCall(request->requestKind)) {
        rc = readProgramReply(sb, request);
    } else if (request->requestKind == ECI_KIND_SYSTEMS) {
        rc = readSystemsReply(sb, request);
    }
    if (rc == 0) rc = readFailure(sb);
    TRACE_EXIT(3207, "clapi_socketcomms.clapiReadECIResponse() rc=%d\n", rc);
    return rc;
}

/* ---- ESI ---- */

int32_t calculateESIRequestSize(EsiRequest* request)
{
    TRACE_ENTRY(3237, "clapi_socketcomms.calculateESIRequestSize(request=%p)\n", (void*)request);
    int32_t size = textLength(request->password) + 26;
    if (request->esiKind == ESI_KIND_CHANGE) size += textLength(request->newPassword) + 4;
    TRACE_EXIT(3238, "calculateESIRequestSize() size=%d\n", size);
    return size;
}

static void writeMaskedText(SocketBuffer* sb, const char* text)
{
    int32_t length = textLength(text);
    writeInt(sb, length);
    if (length > 0) writeBytesMasked(sb, text, (uint32_t)length);
}

static void writeEsiPayload(SocketBuffer* sb, const void* payload)
{
    const EsiRequest* request = (const EsiRequest*)payload;
    writeInt(sb, request->esiKind);
    writePaddedBytes(sb, request->userid, (uint32_t)textLength(request->userid), 10);
    writeMaskedText(sb, request->password);
    writeBytes(sb, request->server, sizeof request->server);
    if (request->esiKind == ESI_KIND_CHANGE) writeMaskedText(sb, request->newPassword);
}

// Send lock held on entry.
int clapiFlowESIRequest(int socketDesc, FlowHeader* header, EsiRequest* request)
{
    TRACE_ENTRY(3239, "clapi_socketcomms.clapiFlowESIRequest(socketDesc=%d, header=%p, request=%p)\n", socketDesc,
                (void*)header, (void*)request);
    header->payloadLength = calculateESIRequestSize(request);
    int rc = sendMessage(socketDesc, header, writeEsiPayload, request);
    TRACE_EXIT(3240, "clapi_socketcomms.clapiFlowESIRequest() rc=%d\n", rc);
    return rc;
}

static void readEsiTime(SocketBuffer* sb, EsiTime* time)
{
    time->year = readInt(sb);
    time->month = readInt(sb);
    time->day = readInt(sb);
    time->hour = readInt(sb);
    time->minute = readInt(sb);
    time->second = readInt(sb);
    time->reserved = readInt(sb);
}

// Runs on the receiver thread.
int clapiReadESIResponse(SocketBuffer* sb, EsiReply* reply)
{
    TRACE_ENTRY(3241, "clapi_socketcomms.clapiReadESIResponse(sockBuffer=%p, reply=%p)\n", (void*)sb, (void*)reply);
    reply->returnCode = readInt(sb);
    int rc = reply->returnCode;
    if (rc == 0) {
        /* The second and third time travel in the opposite order to the one they have in memory. */
        readEsiTime(sb, &reply->details.esiTime1);
        readEsiTime(sb, &reply->details.esiTime3);
        readEsiTime(sb, &reply->details.esiTime2);
        reply->details.esiCount = readInt(sb);
        rc = reply->details.esiCount;
    }
    /* A reply cut short must not pass for a verified password. */
    int failed = readFailure(sb);
    if (failed != 0) {
        reply->returnCode = failed;
        rc = failed;
    }
    TRACE_EXIT(3242, "clapi_socketcomms.clapiReadESIResponse() rc=%d\n", rc);
    return rc;
}
