/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_channel.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

Channel* chanList;
extern "C" { CLAPI_MODULE_VERSION(clapi_channel); }
int validateName(const char* name) { return 0; }
int getCurrentCcsid(int* ccsidPtr) { return 0; }
int lockChannel(Channel* chanTok) { return 0; }
int unlockChannel(Channel* chanTok) { return 0; }
int ECI_createChannel(const char* name, Channel** tokPtr) { return 0; }
int ECI_deleteChannel(Channel** tokPtr) { return 0; }
int ECI_deleteAllChannels(void) { return 0; }
int ECI_getChannelName(Channel* chanTok, char* nameBuffer) { return 0; }
int ZEP_ECI_dumpChannels(void) { return 0; }
int ECI_createContainer(Channel* chanTok, const char* name, int type, int ccsid, const void* data, unsigned long dataLength) { return 0; }
int ECI_deleteContainer(Channel* chanTok, const char* name) { return 0; }
int ECI_getContainerData(Channel* chanTok, const char* name, void* buffer, unsigned long length, unsigned long offset, unsigned long* bytesReadPtr) { return 0; }
int ECI_setContainerData(Channel* chanTok, const char* name, const void* data, unsigned long dataLength) { return 0; }
int ECI_getContainerInfo(Channel* chanTok, const char* name, ContainerInfo* infoPtr) { return 0; }
int ECI_getFirstContainer(Channel* chanTok, ContainerInfo* infoPtr) { return 0; }
int ECI_getNextContainer(Channel* chanTok, ContainerInfo* infoPtr) { return 0; }
