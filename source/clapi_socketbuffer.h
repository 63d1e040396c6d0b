/* The buffered, big-endian reader and writer through which every byte of the Gateway protocol passes. */
#ifndef CLAPI_SOCKETBUFFER_H
#define CLAPI_SOCKETBUFFER_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

int      initReadBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen);
int      initWriteBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen);
int      fillBuffer(SocketBuffer* sb);
int32_t  readInt(SocketBuffer* sb);
int16_t  readShort(SocketBuffer* sb);
uint8_t  readByte(SocketBuffer* sb);
void     readBytes(SocketBuffer* sb, void* destination, uint32_t dataLen);
/* Reads and drops dataLen bytes of the current message, so the stream stays in step. */
void     skipBytes(SocketBuffer* sb, uint32_t dataLen);
void     writeInt(SocketBuffer* sb, int32_t value);
void     writeShort(SocketBuffer* sb, int32_t value);
void     writeByte(SocketBuffer* sb, int32_t value);
void     writeBytes(SocketBuffer* sb, const void* data, uint32_t dataLen);
void     writePaddedBytes(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen);
void     writeBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen);
void     writePaddedBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen);
int      flushBuffer(SocketBuffer* sb);
int      freeBuffer(SocketBuffer* sb);
int      waitForResponse(SocketBuffer* sb, int timeout);
void     freeMaskArea(MaskArea* area);

#ifdef __cplusplus
}
#endif

#endif
