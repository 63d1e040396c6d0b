/* The library frame: once-only initialisation, versions, correlators, return-code names, trace settings. */
#ifndef CLAPI_IMPL_H
#define CLAPI_IMPL_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RC_STRING_LEN       ZEP_RC_STRING_LENGTH   /* the caller's name buffer */

extern uint32_t  clapiState;
extern int32_t   clapiInitRc;
extern ClapiLock gtlLock;
extern ClapiLock chanListLock;
extern ClapiLock correlatorLock;
extern uint32_t  nextCorrelator;
extern char      clapiVersion[8];
extern char      cldllVersion[8];
extern const char UNKNOWN_RC_STR[];

int         clapiInit(void);
void        clapiInitFunc(void);
uint32_t    getNextCorrelator(void);

const char* clapiGetRcString(int rc);
const char* clapiGetRcStringECI(int rc);
const char* clapiGetRcStringChannel(int rc);
const char* clapiGetRcStringESI(int rc);

void        clapiSetAPITraceLevelFromEnv(void);
void        clapiSetAPITraceFileFromEnv(void);
void        clapiSetAPITraceParamsFromEnv(void);

#ifdef __cplusplus
}
#endif

#endif
