/* zepclient: channels, containers and their calls. */
#ifndef ZEP_CHANNEL_H
#define ZEP_CHANNEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ECI_BIT   1
#define ECI_CHAR  2

#ifndef ZEP_CHANNEL_TOKEN_DEFINED
#define ZEP_CHANNEL_TOKEN_DEFINED
typedef struct Channel Channel;             /* opaque: the channel token */
#endif

#pragma pack(push, 1)
typedef struct ContainerInfo {
    char     name[17];
    int32_t  type;
    int32_t  ccsid;
    uint32_t dataLength;
} ContainerInfo;                             /* 29 bytes */
#pragma pack(pop)

int   ECI_createChannel(const char* name, Channel** tokPtr);
int   ECI_deleteChannel(Channel** tokPtr);
int   ECI_deleteAllChannels(void);
int   ECI_getChannelName(Channel* chanTok, char* nameBuffer);   /* 17 bytes */
int   ZEP_ECI_dumpChannels(void);
int   ECI_createContainer(Channel* chanTok, const char* name, int type, int ccsid,
          const void* data, unsigned long dataLength);
int   ECI_deleteContainer(Channel* chanTok, const char* name);
int   ECI_getContainerData(Channel* chanTok, const char* name, void* buffer,
          unsigned long length, unsigned long offset, unsigned long* bytesReadPtr);
int   ECI_setContainerData(Channel* chanTok, const char* name, const void* data,
          unsigned long dataLength);
int   ECI_getContainerInfo(Channel* chanTok, const char* name, ContainerInfo* infoPtr);
int   ECI_getFirstContainer(Channel* chanTok, ContainerInfo* infoPtr);
int   ECI_getNextContainer(Channel* chanTok, ContainerInfo* infoPtr);

#ifdef __cplusplus
}
#endif

#endif
