/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_eci.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

extern "C" { CLAPI_MODULE_VERSION(clapi_eci); }
int verifyEciParms(EciParms* parms, int minVersion) { return 0; }
const char* getCallTypeString(int callType) { return 0; }
int performEciExecute(GatewayToken* gwTok, EciParms* parms, bool useChannel) { return 0; }
int getAsyncReply(GatewayToken* gwTok, EciParms* parms) { return 0; }
int ZEP_ECI_Execute(GatewayToken* gwTok, EciParms* parms) { return 0; }
int ZEP_ECI_Execute_Channel(GatewayToken* gwTok, EciParms* parms) { return 0; }
