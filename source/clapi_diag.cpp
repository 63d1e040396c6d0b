/* Trace records, timestamps, process and thread ids, and storage dumps. */
#include "clapi_diag.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "clapi_lock.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_diag);

int32_t    clientAPITrace;
FILE*      clientAPITraceHandle;
char*      clientAPITraceFilename;
uint32_t   clientAPIDataTrunc = 128;
uint32_t   clientAPIDataOffset;
ClapiLock  traceLock;
uint32_t   traceHeaderWrite;
const char defaultTraceFilename[] = "stderr";
}

static FILE* traceStream(void)
{
    return clientAPITraceHandle != NULL ? clientAPITraceHandle : stderr;
}

/* Trace lock held on entry (or deliberately not, for the lock module's own failures). */
static void writeRecord(int id, const char* type, const char* fmt, va_list args)
{
    char timeStamp[24];
    uint32_t pid = 0, tid = 0;
    clapiGetTimestamp(timeStamp);
    clapiGetPidTid(&pid, &tid);
    FILE* out = traceStream();
    fprintf(out, "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s ", timeStamp, pid, tid, id, type);
    vfprintf(out, fmt, args);
    fflush(out);
}

void clapiTraceRecord(int id, const char* type, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    clapiRequestLock(&traceLock);
    writeRecord(id, type, fmt, args);
    clapiReleaseLock(&traceLock);
    va_end(args);
}

void clapiTraceRecordNoLock(int id, const char* type, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    writeRecord(id, type, fmt, args);
    va_end(args);
}

void clapiTraceData(int id, const void* data, unsigned long length, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    clapiRequestLock(&traceLock);
    writeRecord(id, "DATA", fmt, args);
    clapiTraceOutStorage(data, length, 0, 16, 1);
    clapiReleaseLock(&traceLock);
    va_end(args);
}

int clapiInitTrace(void)
{
    clientAPITraceHandle = stderr;
    int lockRc = clapiInitializeLock(&traceLock);
    if (lockRc == 1) return 0;
    if (lockRc != 0) return ZEP_ERR_SYSTEM_ERROR;
    clientAPITraceFilename = (char*)malloc(TRACE_FILENAME_LEN);
    if (clientAPITraceFilename == NULL) return ZEP_ERR_MALLOCFAIL;
    strcpy(clientAPITraceFilename, defaultTraceFilename);
    return 0;
}

char* clapiGetTimestamp(char* buf)
{
    struct timespec now;
    struct tm local;
    char text[24];
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    size_t used = strftime(text, sizeof text, "%d/%m/%y %H:%M:%S:", &local);
    snprintf(text + used, sizeof text - used, "%.3d", (int)(now.tv_nsec / 1000000));
    strcpy(buf, text);
    return buf;
}

char* clapiGetDate(char* buf)
{
    time_t now = time(NULL);
    struct tm local;
    localtime_r(&now, &local);
    strftime(buf, 10, "%d/%m/%y", &local);
    return buf;
}

void clapiGetPidTid(uint32_t* pid, uint32_t* tid)
{
    if (pid != NULL) *pid = (uint32_t)getpid();
    if (tid != NULL) *tid = (uint32_t)(uintptr_t)pthread_self();
}

int clapiCompareTids(uint32_t a, uint32_t b)
{
    return a == b ? 1 : 0;
}

/* Printable in the C locale, whatever locale the application has set since. */
static bool isPrintableByte(uint8_t byte)
{
    return byte >= 0x20 && byte < 0x7F;
}

void clapiWriteStorageLineHex(const uint8_t* address, uint32_t bytesPerLine, uint32_t shown)
{
    FILE* out = traceStream();
    for (uint32_t i = 0; i < bytesPerLine; i++) {
        if (i < shown) fprintf(out, "%2.2X", address[i]);
        else fputs("  ", out);
        if (i % 4 == 3 && i + 1 < bytesPerLine) fputc(' ', out);
    }
}

void clapiWriteStorageLineChar(const uint8_t* address, uint32_t shown)
{
    FILE* out = traceStream();
    for (uint32_t i = 0; i < shown; i++)
        fputc(isPrintableByte(address[i]) ? address[i] : '.', out);
}

/* Bytes to show on one line: up to a full line, or up to a stopword when one is given. */
static uint32_t lineLength(const uint8_t* address, uint32_t bytesPerLine, unsigned long remaining, uint32_t stopword)
{
    uint32_t shown = remaining < bytesPerLine ? (uint32_t)remaining : bytesPerLine;
    if (stopword == 0) return shown;
    for (uint32_t i = 0; i + sizeof(uint32_t) <= remaining && i < shown; i++) {
        uint32_t word;
        memcpy(&word, address + i, sizeof word);
        if (word == stopword) return i;
    }
    return shown;
}

uint32_t clapiWriteStorageLineDual(const uint8_t* address, uint32_t bytesPerLine, unsigned long remaining,
                                   uint32_t stopword, int flag)
{
    (void)flag;   /* handed down by every caller; it does not change the line */
    uint32_t shown = lineLength(address, bytesPerLine, remaining, stopword);
    FILE* out = traceStream();
    clapiWriteStorageLineHex(address, bytesPerLine, shown);
    fputs(" : ", out);
    clapiWriteStorageLineChar(address, shown);
    fputc('\n', out);
    return shown;
}

uint32_t clapiTraceOutStorage(const void* data, unsigned long length, uint32_t stopword,
                              uint32_t bytesPerLine, int flag)
{
    FILE* out = traceStream();
    fprintf(out, "Data truncation size=%lu, offset=%lu\n",
            (unsigned long)clientAPIDataTrunc, (unsigned long)clientAPIDataOffset);
    /* An offset at or past the end of the area shows nothing rather than reading beyond it. */
    if (data == NULL || length <= clientAPIDataOffset) {
        fflush(out);
        return 0;
    }
    unsigned long remaining = length - clientAPIDataOffset;
    if (clientAPIDataTrunc != 0 && remaining > clientAPIDataTrunc) remaining = clientAPIDataTrunc;
    const uint8_t* address = (const uint8_t*)data + clientAPIDataOffset;
    uint32_t total = 0;
    while (remaining > 0) {
        fprintf(out, "0x%8.8lX: ", (unsigned long)(uintptr_t)address);
        uint32_t shown = clapiWriteStorageLineDual(address, bytesPerLine, remaining, stopword, flag);
        if (shown == 0) break;   /* a stopword ended the dump */
        remaining -= shown;
        address += shown;
        total += shown;
    }
    fflush(out);
    return total;
}

void clapiWriteTraceBanner(void)
{
    char dateBuf[10];
    FILE* out = traceStream();
    fprintf(out, "*** %s QUILLON ZEPClient DLL trace V%s API Version %s Build Level %s ***\n",
            clapiGetDate(dateBuf), CLDLL_VERSION_TEXT, CLAPI_VERSION_TEXT, CLAPI_BUILD_LEVEL);
    fprintf(out, "*** Trace Level = %d, Trace File = %s, %d-bit ***\n", (int)TRACE_LEVEL(),
            clientAPITraceFilename != NULL ? clientAPITraceFilename : defaultTraceFilename,
            (int)(sizeof(void*) * 8));
    fflush(out);
}
