/* ECI calls: parameter block checks, execution, asynchronous reply collection. */
#ifndef CLAPI_ECI_H
#define CLAPI_ECI_H

#include <stdbool.h>
#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

int         verifyEciParms(EciParms* parms, int minVersion);
const char* getCallTypeString(int callType);
int         performEciExecute(GatewayToken* gwTok, EciParms* parms, bool useChannel);
int         getAsyncReply(GatewayToken* gwTok, EciParms* parms);

#ifdef __cplusplus
}
#endif

#endif
