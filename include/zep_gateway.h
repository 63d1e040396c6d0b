/* zepclient: return codes, versions, tracing, Gateway connections and the system list. */
#ifndef ZEP_GATEWAY_H
#define ZEP_GATEWAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* General codes. */
#define ZEP_OK                          0
#define ZEP_ERR_SYSTEM_ERROR           -9
#define ZEP_ERR_MORE_SYSTEMS          -25
#define ZEP_ERR_NO_SYSTEMS            -26
#define ZEP_ERR_NULLGWTOK            -100
#define ZEP_ERR_BADGWTOK             -101
#define ZEP_ERR_LOSTGWCON            -102
#define ZEP_ERR_NULLPARM             -103
#define ZEP_ERR_TRACELEVEL           -104
#define ZEP_ERR_BADPORT              -107
#define ZEP_ERR_NULLGWTOKPTR         -108
#define ZEP_ERR_NULLPTR              -109
#define ZEP_ERR_MALLOCFAIL           -111
#define ZEP_ERR_CONNECTFAILED        -118
#define ZEP_ERR_TRACEFILE            -130
#define ZEP_ERR_BADHOST              -132
#define ZEP_ERR_NULLADDRESS          -133
#define ZEP_ERR_CONNECTTIMEOUT       -134
#define ZEP_ERR_NULLECIPOINTER       -137
#define ZEP_ERR_INVALIDTIMEOUTPARM   -138
#define ZEP_ERR_APPLIDTOOLONG        -139
#define ZEP_ERR_GWTOK_CLOSED         -140
#define ZEP_ERR_GATEWAY_CLOSED       61444
#define ZEP_ERR_WORK_WAS_REFUSED     61445
#define ZEP_ERR_GATEWAY_EXCEPTION    61446
#define ZEP_ERR_GATEWAY_BACK_LEVEL   61450
#define ZEP_ERR_INVALID_REQUEST_TYPE 61451

/* ECI call codes. */
#define ECI_NO_ERROR                    0
#define ECI_ERR_INVALID_DATA_LENGTH    -1
#define ECI_ERR_INVALID_EXTEND_MODE    -2
#define ECI_ERR_NO_VANT                -3
#define ECI_ERR_VANT_DIED              -4
#define ECI_ERR_REQUEST_TIMEOUT        -5
#define ECI_ERR_RESPONSE_TIMEOUT       -6
#define ECI_ERR_TRANSACTION_ABEND      -7
#define ECI_ERR_LUW_TOKEN              -8
#define ECI_ERR_SYSTEM_ERROR           -9
#define ECI_ERR_INVALID_CALL_TYPE     -14
#define ECI_ERR_ALREADY_ACTIVE        -15
#define ECI_ERR_RESOURCE_SHORTAGE     -16
#define ECI_ERR_NO_SESSIONS           -17
#define ECI_ERR_INVALID_DATA_AREA     -19
#define ECI_ERR_INVALID_VERSION       -21
#define ECI_ERR_UNKNOWN_SERVER        -22
#define ECI_ERR_SECURITY_ERROR        -27
#define ECI_ERR_MAX_SYSTEMS           -28
#define ECI_ERR_MAX_SESSIONS          -29
#define ECI_ERR_ROLLEDBACK            -30
#define ECI_ERR_NO_REPLY              -32
#define ECI_ERR_INVALID_MSG_QUAL      -33

/* Channel and container codes. */
#define ECI_ERR_INVALID_CHANNEL       -50
#define ECI_ERR_INVALID_NAME          -51
#define ECI_ERR_NULLCHANNELPTR        -52
#define ECI_ERR_CHANNELLOCKFAIL       -53
#define ECI_ERR_ENDOFCONTAINERS       -54
#define ECI_ERR_NULLINFOPTR           -55
#define ECI_ERR_INVALID_TYPE          -56
#define ECI_ERR_CONTAINER_NOTFOUND    -58
#define ECI_ERR_CONTAINER_EXISTS      -59
#define ECI_ERR_COMMAREA_AND_CHANNEL  -60
#define ECI_ERR_NULLPTR              -109
#define ECI_ERR_MEMORY_SHORTAGE      -111
#define ECI_ERR_LOCKFAIL             -121

/* ESI codes. */
#define ESI_ERR_USERID_INVALID       -300
#define ESI_ERR_NULL_USERID          -301
#define ESI_ERR_PASSWORD_INVALID     -302
#define ESI_ERR_NULL_PASSWORD        -303
#define ESI_ERR_PEM_NOT_SUPPORTED    -304
#define ESI_ERR_PEM_NOT_ACTIVE       -305
#define ESI_ERR_PASSWORD_EXPIRED     -306
#define ESI_ERR_SECURITY_ERROR       -307
#define ESI_ERR_RESOURCE_SHORTAGE    -308
#define ESI_ERR_NO_SESSIONS          -309
#define ESI_ERR_NO_VANT              -310
#define ESI_ERR_VANT_DIED            -311
#define ESI_ERR_UNKNOWN_SERVER       -312
#define ESI_ERR_SYSTEM_ERROR         -313
#define ESI_ERR_NULL_NEW_PASSWORD    -314
#define ESI_ERR_PASSWORD_REJECTED    -315

typedef struct GatewayToken GatewayToken;   /* opaque: applications hold GatewayToken* */

typedef struct SystemInfo {                  /* one entry of ZEP_listSystems: 70 bytes */
    char name[9];
    char description[61];
} SystemInfo;

int   ZEP_getDLLVersion(char** dllVersPtr);
int   ZEP_getAPIVersion(char** apiVersPtr);
int   ZEP_getAPITraceLevel(int* traceStatePtr);
char* ZEP_getRcString(int rc, char* rcString);           /* rcString: 40 bytes */
int   ZEP_setAPITraceLevel(int traceState);
int   ZEP_setAPITraceFile(const char* traceFile);
int   ZEP_setAPITraceDataLength(unsigned long dataLength);
int   ZEP_setAPITraceDataOffset(unsigned long dataOffset);
int   ZEP_dumpState(void);
int   ZEP_openRemoteGatewayConnection(const char* hostname, int port,
          GatewayToken** gwTokPtr, unsigned int connTimeout);
int   ZEP_openRemoteGatewayConnectionApplid(const char* hostname, int port,
          GatewayToken** gwTokPtr, unsigned int connTimeout,
          const char* applid, const char* applidQualifier);
int   ZEP_closeGatewayConnection(GatewayToken** gwTokPtr);
int   ZEP_purgeGatewayConnection(GatewayToken** gwTokPtr, unsigned int closeTimeout);
int   ZEP_closeAllGatewayConnections(void);
int   ZEP_getApplid(GatewayToken* gwTok, char** applid);
int   ZEP_getApplidQualifier(GatewayToken* gwTok, char** applidQualifier);
int   ZEP_listSystems(GatewayToken* gwTok, unsigned short* Systems, SystemInfo* List);

#ifdef __cplusplus
}
#endif

#endif
