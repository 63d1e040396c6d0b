/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_socketcomms.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

const char ECI_REQUEST_NAME[] = "";
const char ESI_REQUEST_NAME[] = "";
const char HANDSHAKE_REQUEST_NAME[] = "";
extern "C" { CLAPI_MODULE_VERSION(clapi_socketcomms); }
void writeHeader(SocketBuffer* sb, FlowHeader* header) {  }
int clapiReadHeader(SocketBuffer* sb, FlowHeader* header) { return 0; }
void makeUtf8(const char* source, char* destination) {  }
int clapiFlowHandshakeRequest(int socketDesc, const char* applid, const char* applidQualifier) { return 0; }
int clapiFlowCloseRequest(int socketDesc) { return 0; }
int clapiFlowECIRequest(int socketDesc, FlowHeader* header, EciRequest* request) { return 0; }
int32_t calculateECIRequestSize(EciRequest* request) { return 0; }
int clapiReadECIResponse(SocketBuffer* sb, EciRequest* request) { return 0; }
void writeChannel(SocketBuffer* sb, Channel* channel) {  }
int readChannel(SocketBuffer* sb, Channel* channel) { return 0; }
int addContainer(SocketBuffer* sb, Channel* channel, Container* record) { return 0; }
int modifyContainer(SocketBuffer* sb, Channel* channel, Container* record) { return 0; }
int deleteContainer(Channel* channel, Container* record) { return 0; }
const char* getContainerTypeString(int type) { return 0; }
int clapiFlowESIRequest(int socketDesc, FlowHeader* header, EsiRequest* request) { return 0; }
int32_t calculateESIRequestSize(EsiRequest* request) { return 0; }
int clapiReadESIResponse(SocketBuffer* sb, EsiReply* reply) { return 0; }
