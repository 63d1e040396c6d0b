/* Trace records, timestamps and storage dumps. */
#ifndef CLAPI_DIAG_H
#define CLAPI_DIAG_H

#include <stdio.h>
#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TRACE_FILENAME_LEN 1024

extern FILE*     clientAPITraceHandle;
extern char*     clientAPITraceFilename;
extern uint32_t  clientAPIDataTrunc;
extern uint32_t  clientAPIDataOffset;
extern ClapiLock traceLock;
extern uint32_t  traceHeaderWrite;
extern const char defaultTraceFilename[];

int      clapiInitTrace(void);
char*    clapiGetTimestamp(char* buf);
char*    clapiGetDate(char* buf);
void     clapiGetPidTid(uint32_t* pid, uint32_t* tid);
int      clapiCompareTids(uint32_t a, uint32_t b);
uint32_t clapiTraceOutStorage(const void* data, unsigned long length, uint32_t stopword,
                              uint32_t bytesPerLine, int flag);
uint32_t clapiWriteStorageLineDual(const uint8_t* address, uint32_t bytesPerLine, unsigned long remaining,
                                   uint32_t stopword, int flag);
void     clapiWriteStorageLineHex(const uint8_t* address, uint32_t bytesPerLine, uint32_t shown);
void     clapiWriteStorageLineChar(const uint8_t* address, uint32_t shown);

/* Writes the two banner lines to the current stream. Trace lock held on entry (or tracing not yet shared). */
void     clapiWriteTraceBanner(void);

#ifdef __cplusplus
}
#endif

#endif
