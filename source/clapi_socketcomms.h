/* Message encodings: header, handshake, close, ECI with channels, ESI. */
#ifndef CLAPI_SOCKETCOMMS_H
#define CLAPI_SOCKETCOMMS_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const char ECI_REQUEST_NAME[];
extern const char ESI_REQUEST_NAME[];
extern const char HANDSHAKE_REQUEST_NAME[];

void     writeHeader(SocketBuffer* sb, FlowHeader* header);
int      clapiReadHeader(SocketBuffer* sb, FlowHeader* header);
void     makeUtf8(const char* source, char* destination);
int      clapiFlowHandshakeRequest(int socketDesc, const char* applid, const char* applidQualifier);
int      clapiFlowCloseRequest(int socketDesc);

int      clapiFlowECIRequest(int socketDesc, FlowHeader* header, EciRequest* request);
int32_t  calculateECIRequestSize(EciRequest* request);
int      clapiReadECIResponse(SocketBuffer* sb, EciRequest* request);

void     writeChannel(SocketBuffer* sb, Channel* channel);
int      readChannel(SocketBuffer* sb, Channel* channel);
int      addContainer(SocketBuffer* sb, Channel* channel, Container* record);
int      modifyContainer(SocketBuffer* sb, Channel* channel, Container* record);
int      deleteContainer(Channel* channel, Container* record);
const char* getContainerTypeString(int type);

int      clapiFlowESIRequest(int socketDesc, FlowHeader* header, EsiRequest* request);
int32_t  calculateESIRequestSize(EsiRequest* request);
int      clapiReadESIResponse(SocketBuffer* sb, EsiReply* reply);

#ifdef __cplusplus
}
#endif

#endif
