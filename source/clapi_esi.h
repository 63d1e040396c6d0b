/* Password verification and change, and ESI time conversion. */
#ifndef CLAPI_ESI_H
#define CLAPI_ESI_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

int performEsiFlow(GatewayToken* gwTok, EsiRequest* esiRequest, EsiDetails* esiDetails);
int mapGwyRc(int rc);
int isLeapYear(int year);

#ifdef __cplusplus
}
#endif

#endif
