/* Gateway tokens, the token list, request slots, closing and creating connections. */
#ifndef CLAPI_GWYTOK_H
#define CLAPI_GWYTOK_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define FIND_TOKEN_NULL     1002
#define FIND_TOKEN_MISSING  1003
#define FIND_TOKEN_FOUND    1004
#define GWTOK_FORMAT_LEN    512

extern GatewayToken* gtListHeadPtr;
extern GatewayToken* gtListTailPtr;

int  findGatewayToken(GatewayToken* targetToken, GatewayToken** parentTokenPtrPtr);
int  clapiRegisterRequest(GatewayToken* gwTokPtr);
int  clapiUnregisterRequest(GatewayToken* gwTokPtr);
int  clapiFormatGatewayToken(GatewayToken* gwTokPtr, char* buffer);
int  clapiDumpGatewayTokens(void);

int  slotFind(RequestSlot* requestTableP, int32_t luwToken, RequestSlot** requestSlotPP);
int  slotLookup(RequestSlot* requestTableP, int32_t messageId, RequestSlot** slotPP);
void slotFree(RequestSlot* requestTableP, RequestSlot* slotP);
RequestSlot* slotNumbered(RequestSlot* requestTableP, int32_t number);
bool slotInTable(RequestSlot* requestTableP, const RequestSlot* slotP);

int  clapiCloseGatewayToken(GatewayToken* gwTokPtr, int lockRequired);
int  clapiDeleteGatewayToken(GatewayToken** gwTokPtr, int closeTimeout, int lockRequired);
int  quiesceConnection(GatewayToken* gwToken, int closeTimeout);
int  clapiDeleteGatewayTokens(void);

int  clapiCreateGatewayToken(GatewayToken** gwTokPtr, const char* ipAddr, int port, unsigned int connTimeout,
                             const char* applid, const char* applidQualifier);
int  chainGatewayToken(GatewayToken* newToken);
int  openClientSocket(GatewayToken* gwTokPtr, const char* ipAddr, const char* applid, const char* applidQualifier);

#ifdef __cplusplus
}
#endif

#endif
