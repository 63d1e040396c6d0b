/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_gwycon.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

int sockOptOn;
int sockOptOff;
extern "C" { CLAPI_MODULE_VERSION(clapi_gwycon); }
int clapiConnectToGateway(int port, const char* ipAddr, GatewayToken* gwTokPtr, const char* applid, const char* applidQualifier) { return 0; }
int getHostInfo(const char* address, int port, struct addrinfo** hostInfo) { return 0; }
int waitForConnection(int* socketDescriptorPtr, int* sockError, int connTimeout) { return 0; }
int closeSocket(int socket) { return 0; }
void* receiverThread(void* conn) { return 0; }
int clapiCloseConnection(GatewayToken* conn) { return 0; }
