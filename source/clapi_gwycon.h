/* Connecting to a Gateway, the receiver thread, and the close flow. */
#ifndef CLAPI_GWYCON_H
#define CLAPI_GWYCON_H

#include <netdb.h>
#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

extern int sockOptOn;
extern int sockOptOff;

int   clapiConnectToGateway(int port, const char* ipAddr, GatewayToken* gwTokPtr,
                            const char* applid, const char* applidQualifier);
int   getHostInfo(const char* address, int port, struct addrinfo** hostInfo);
int   waitForConnection(int* socketDescriptorPtr, int* sockError, int connTimeout);
int   closeSocket(int socket);
void* receiverThread(void* conn);
int   clapiCloseConnection(GatewayToken* conn);

#ifdef __cplusplus
}
#endif

#endif
