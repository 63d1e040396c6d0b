/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_socketbuffer.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

extern "C" { CLAPI_MODULE_VERSION(clapi_socketbuffer); }
int initReadBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen) { return 0; }
int initWriteBuffer(SocketBuffer* sb, int socketDesc, uint32_t dataLen) { return 0; }
int fillBuffer(SocketBuffer* sb) { return 0; }
int32_t readInt(SocketBuffer* sb) { return 0; }
int16_t readShort(SocketBuffer* sb) { return 0; }
uint8_t readByte(SocketBuffer* sb) { return 0; }
void readBytes(SocketBuffer* sb, void* destination, uint32_t dataLen) {  }
void skipBytes(SocketBuffer* sb, uint32_t dataLen) {  }
void writeInt(SocketBuffer* sb, int32_t value) {  }
void writeShort(SocketBuffer* sb, int32_t value) {  }
void writeByte(SocketBuffer* sb, int32_t value) {  }
void writeBytes(SocketBuffer* sb, const void* data, uint32_t dataLen) {  }
void writePaddedBytes(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen) {  }
void writeBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen) {  }
void writePaddedBytesMasked(SocketBuffer* sb, const void* data, uint32_t dataLen, uint32_t fieldLen) {  }
int flushBuffer(SocketBuffer* sb) { return 0; }
int freeBuffer(SocketBuffer* sb) { return 0; }
int waitForResponse(SocketBuffer* sb, int timeout) { return 0; }
void freeMaskArea(MaskArea* area) {  }
