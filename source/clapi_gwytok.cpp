/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_gwytok.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

GatewayToken* gtListHeadPtr;
GatewayToken* gtListTailPtr;
extern "C" { CLAPI_MODULE_VERSION(clapi_gwytok); }
int findGatewayToken(GatewayToken* targetToken, GatewayToken** parentTokenPtrPtr) { return 0; }
int clapiRegisterRequest(GatewayToken* gwTokPtr) { return 0; }
int clapiUnregisterRequest(GatewayToken* gwTokPtr) { return 0; }
int clapiFormatGatewayToken(GatewayToken* gwTokPtr, char* buffer) { return 0; }
int clapiDumpGatewayTokens(void) { return 0; }
int slotFind(RequestSlot* requestTableP, int32_t luwToken, RequestSlot** requestSlotPP) { return 0; }
int slotLookup(RequestSlot* requestTableP, int32_t messageId, RequestSlot** slotPP) { return 0; }
void slotFree(RequestSlot* requestTableP, RequestSlot* slotP) {  }
int clapiCloseGatewayToken(GatewayToken* gwTokPtr, int lockRequired) { return 0; }
int clapiDeleteGatewayToken(GatewayToken** gwTokPtr, int closeTimeout, int lockRequired) { return 0; }
int quiesceConnection(GatewayToken* gwToken, int closeTimeout) { return 0; }
int clapiDeleteGatewayTokens(void) { return 0; }
int clapiCreateGatewayToken(GatewayToken** gwTokPtr, const char* ipAddr, int port, unsigned int connTimeout, const char* applid, const char* applidQualifier) { return 0; }
int chainGatewayToken(GatewayToken* newToken) { return 0; }
int openClientSocket(GatewayToken* gwTokPtr, const char* ipAddr, const char* applid, const char* applidQualifier) { return 0; }
