/*
 * The library frame: the once-only initialisation that the first exported call runs, the version and
 * level queries, correlators, return-code names, and the trace settings from the environment and the API.
 */
#include "clapi_impl.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include "clapi_diag.h"
#include "clapi_lock.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_impl);

uint32_t   clapiState;
int32_t    clapiInitRc;
ClapiLock  gtlLock;
ClapiLock  chanListLock;
ClapiLock  correlatorLock;
uint32_t   nextCorrelator;
char       clapiVersion[8];
char       cldllVersion[8];
const char UNKNOWN_RC_STR[] = "UNKNOWN";
}

static pthread_once_t initState = PTHREAD_ONCE_INIT;

/* ---------------------------------------------------------------- return-code names */

struct RcName {
    int         rc;
    const char* name;
};

/* A table indexed by rc - Low, filled at compile time; a code outside the pairs' range will not compile. */
template <int Low, int High>
struct DenseRcTable {
    const char* names[High - Low + 1];

    template <size_t N>
    constexpr explicit DenseRcTable(const RcName (&pairs)[N]) : names()
    {
        for (size_t i = 0; i < N; i++) names[pairs[i].rc - Low] = pairs[i].name;
    }
    const char* lookup(int rc) const
    {
        if (rc < Low || rc > High || names[rc - Low] == nullptr) return UNKNOWN_RC_STR;
        return names[rc - Low];
    }
};

static constexpr RcName generalNames[] = {
    {ZEP_OK, "ZEP_OK"},
    {ZEP_ERR_SYSTEM_ERROR, "ZEP_ERR_SYSTEM_ERROR"},
    {ZEP_ERR_MORE_SYSTEMS, "ZEP_ERR_MORE_SYSTEMS"},
    {ZEP_ERR_NO_SYSTEMS, "ZEP_ERR_NO_SYSTEMS"},
    {ZEP_ERR_NULLGWTOK, "ZEP_ERR_NULLGWTOK"},
    {ZEP_ERR_BADGWTOK, "ZEP_ERR_BADGWTOK"},
    {ZEP_ERR_LOSTGWCON, "ZEP_ERR_LOSTGWCON"},
    {ZEP_ERR_NULLPARM, "ZEP_ERR_NULLPARM"},
    {ZEP_ERR_TRACELEVEL, "ZEP_ERR_TRACELEVEL"},
    {ZEP_ERR_BADPORT, "ZEP_ERR_BADPORT"},
    {ZEP_ERR_NULLGWTOKPTR, "ZEP_ERR_NULLGWTOKPTR"},
    {ZEP_ERR_NULLPTR, "ZEP_ERR_NULLPTR"},
    {ZEP_ERR_MALLOCFAIL, "ZEP_ERR_MALLOCFAIL"},
    {ZEP_ERR_CONNECTFAILED, "ZEP_ERR_CONNECTFAILED"},
    {ZEP_ERR_TRACEFILE, "ZEP_ERR_TRACEFILE"},
    {ZEP_ERR_BADHOST, "ZEP_ERR_BADHOST"},
    {ZEP_ERR_NULLADDRESS, "ZEP_ERR_NULLADDRESS"},
    {ZEP_ERR_CONNECTTIMEOUT, "ZEP_ERR_CONNECTTIMEOUT"},
    {ZEP_ERR_NULLECIPOINTER, "ZEP_ERR_NULLECIPOINTER"},
    {ZEP_ERR_INVALIDTIMEOUTPARM, "ZEP_ERR_INVALIDTIMEOUTPARM"},
    {ZEP_ERR_APPLIDTOOLONG, "ZEP_ERR_APPLIDTOOLONG"},
    {ZEP_ERR_GWTOK_CLOSED, "ZEP_ERR_GWTOK_CLOSED"},
    {ZEP_ERR_GATEWAY_CLOSED, "ZEP_ERR_GATEWAY_CLOSED"},
    {ZEP_ERR_WORK_WAS_REFUSED, "ZEP_ERR_WORK_WAS_REFUSED"},
    {ZEP_ERR_GATEWAY_EXCEPTION, "ZEP_ERR_GATEWAY_EXCEPTION"},
    {ZEP_ERR_GATEWAY_BACK_LEVEL, "ZEP_ERR_GATEWAY_BACK_LEVEL"},
    {ZEP_ERR_INVALID_REQUEST_TYPE, "ZEP_ERR_INVALID_REQUEST_TYPE"},
};

static constexpr RcName eciNames[] = {
    {ECI_ERR_INVALID_DATA_LENGTH, "ECI_ERR_INVALID_DATA_LENGTH"},
    {ECI_ERR_INVALID_EXTEND_MODE, "ECI_ERR_INVALID_EXTEND_MODE"},
    {ECI_ERR_NO_VANT, "ECI_ERR_NO_VANT"},
    {ECI_ERR_VANT_DIED, "ECI_ERR_VANT_DIED"},
    {ECI_ERR_REQUEST_TIMEOUT, "ECI_ERR_REQUEST_TIMEOUT"},
    {ECI_ERR_RESPONSE_TIMEOUT, "ECI_ERR_RESPONSE_TIMEOUT"},
    {ECI_ERR_TRANSACTION_ABEND, "ECI_ERR_TRANSACTION_ABEND"},
    {ECI_ERR_LUW_TOKEN, "ECI_ERR_LUW_TOKEN"},
    {ECI_ERR_SYSTEM_ERROR, "ECI_ERR_SYSTEM_ERROR"},
    {ECI_ERR_INVALID_CALL_TYPE, "ECI_ERR_INVALID_CALL_TYPE"},
    {ECI_ERR_ALREADY_ACTIVE, "ECI_ERR_ALREADY_ACTIVE"},
    {ECI_ERR_RESOURCE_SHORTAGE, "ECI_ERR_RESOURCE_SHORTAGE"},
    {ECI_ERR_NO_SESSIONS, "ECI_ERR_NO_SESSIONS"},
    {ECI_ERR_INVALID_DATA_AREA, "ECI_ERR_INVALID_DATA_AREA"},
    {ECI_ERR_INVALID_VERSION, "ECI_ERR_INVALID_VERSION"},
    {ECI_ERR_UNKNOWN_SERVER, "ECI_ERR_UNKNOWN_SERVER"},
    {ECI_ERR_SECURITY_ERROR, "ECI_ERR_SECURITY_ERROR"},
    {ECI_ERR_MAX_SYSTEMS, "ECI_ERR_MAX_SYSTEMS"},
    {ECI_ERR_MAX_SESSIONS, "ECI_ERR_MAX_SESSIONS"},
    {ECI_ERR_ROLLEDBACK, "ECI_ERR_ROLLEDBACK"},
    {ECI_ERR_NO_REPLY, "ECI_ERR_NO_REPLY"},
    {ECI_ERR_INVALID_MSG_QUAL, "ECI_ERR_INVALID_MSG_QUAL"},
};

static constexpr RcName channelNames[] = {
    {ECI_NO_ERROR, "ECI_NO_ERROR"},
    {ECI_ERR_INVALID_DATA_LENGTH, "ECI_ERR_INVALID_DATA_LENGTH"},
    {ECI_ERR_SYSTEM_ERROR, "ECI_ERR_SYSTEM_ERROR"},
    {ECI_ERR_INVALID_CHANNEL, "ECI_ERR_INVALID_CHANNEL"},
    {ECI_ERR_INVALID_NAME, "ECI_ERR_INVALID_NAME"},
    {ECI_ERR_NULLCHANNELPTR, "ECI_ERR_NULLCHANNELPTR"},
    {ECI_ERR_CHANNELLOCKFAIL, "ECI_ERR_CHANNELLOCKFAIL"},
    {ECI_ERR_ENDOFCONTAINERS, "ECI_ERR_ENDOFCONTAINERS"},
    {ECI_ERR_NULLINFOPTR, "ECI_ERR_NULLINFOPTR"},
    {ECI_ERR_INVALID_TYPE, "ECI_ERR_INVALID_TYPE"},
    {ECI_ERR_CONTAINER_NOTFOUND, "ECI_ERR_CONTAINER_NOTFOUND"},
    {ECI_ERR_CONTAINER_EXISTS, "ECI_ERR_CONTAINER_EXISTS"},
    {ECI_ERR_COMMAREA_AND_CHANNEL, "ECI_ERR_COMMAREA_AND_CHANNEL"},
    {ECI_ERR_NULLPTR, "ECI_ERR_NULLPTR"},
    {ECI_ERR_MEMORY_SHORTAGE, "ECI_ERR_MEMORY_SHORTAGE"},
    {ECI_ERR_LOCKFAIL, "ECI_ERR_LOCKFAIL"},
};

/* Each ESI condition has its own code and the code the Gateway reports for it; both read the same. */
static constexpr RcName esiNames[] = {
    {ESI_ERR_USERID_INVALID, "ESI_ERR_USERID_INVALID"},       {-108, "ESI_ERR_USERID_INVALID"},
    {ESI_ERR_NULL_USERID, "ESI_ERR_NULL_USERID"},             {-100, "ESI_ERR_NULL_USERID"},
    {ESI_ERR_PASSWORD_INVALID, "ESI_ERR_PASSWORD_INVALID"},   {-106, "ESI_ERR_PASSWORD_INVALID"},
    {ESI_ERR_NULL_PASSWORD, "ESI_ERR_NULL_PASSWORD"},         {-101, "ESI_ERR_NULL_PASSWORD"},
    {ESI_ERR_PEM_NOT_SUPPORTED, "ESI_ERR_PEM_NOT_SUPPORTED"}, {-103, "ESI_ERR_PEM_NOT_SUPPORTED"},
    {ESI_ERR_PEM_NOT_ACTIVE, "ESI_ERR_PEM_NOT_ACTIVE"},       {-104, "ESI_ERR_PEM_NOT_ACTIVE"},
    {ESI_ERR_PASSWORD_EXPIRED, "ESI_ERR_PASSWORD_EXPIRED"},   {-105, "ESI_ERR_PASSWORD_EXPIRED"},
    {ESI_ERR_SECURITY_ERROR, "ESI_ERR_SECURITY_ERROR"},       {-27, "ESI_ERR_SECURITY_ERROR"},
    {ESI_ERR_RESOURCE_SHORTAGE, "ESI_ERR_RESOURCE_SHORTAGE"}, {-16, "ESI_ERR_RESOURCE_SHORTAGE"},
    {ESI_ERR_NO_SESSIONS, "ESI_ERR_NO_SESSIONS"},             {-17, "ESI_ERR_NO_SESSIONS"},
    {ESI_ERR_NO_VANT, "ESI_ERR_NO_VANT"},                     {-3, "ESI_ERR_NO_VANT"},
    {ESI_ERR_VANT_DIED, "ESI_ERR_VANT_DIED"},                 {-4, "ESI_ERR_VANT_DIED"},
    {ESI_ERR_UNKNOWN_SERVER, "ESI_ERR_UNKNOWN_SERVER"},       {-22, "ESI_ERR_UNKNOWN_SERVER"},
    {ESI_ERR_SYSTEM_ERROR, "ESI_ERR_SYSTEM_ERROR"},           {-9, "ESI_ERR_SYSTEM_ERROR"},
    {ESI_ERR_NULL_NEW_PASSWORD, "ESI_ERR_NULL_NEW_PASSWORD"}, {-102, "ESI_ERR_NULL_NEW_PASSWORD"},
    {ESI_ERR_PASSWORD_REJECTED, "ESI_ERR_PASSWORD_REJECTED"}, {-107, "ESI_ERR_PASSWORD_REJECTED"},
    {-28, "ESI_ERR_MAX_SYSTEMS"},
    {-29, "ESI_ERR_MAX_SESSIONS"},
};

static constexpr DenseRcTable<-33, -1> eciTable(eciNames);
static constexpr DenseRcTable<-121, 0> channelTable(channelNames);
static constexpr DenseRcTable<-315, -3> esiTable(esiNames);

const char* clapiGetRcStringChannel(int rc)
{
    return channelTable.lookup(rc);
}

const char* clapiGetRcStringECI(int rc)
{
    const char* name = eciTable.lookup(rc);
    return name != UNKNOWN_RC_STR ? name : clapiGetRcStringChannel(rc);
}

const char* clapiGetRcStringESI(int rc)
{
    return esiTable.lookup(rc);
}

/* General names shadow the ECI and channel names, which shadow the ESI names. */
const char* clapiGetRcString(int rc)
{
    for (const RcName& entry : generalNames)
        if (entry.rc == rc) return entry.name;
    const char* name = clapiGetRcStringECI(rc);
    return name != UNKNOWN_RC_STR ? name : clapiGetRcStringESI(rc);
}

char* ZEP_getRcString(int rc, char* rcString)
{
    TRACE_ENTRY(1062, "API.ZEP_getRcString(rc=%d, rcString=%p)\n", rc, (void*)rcString);
    if (rcString != NULL) strncpy(rcString, clapiGetRcString(rc), RC_STRING_LEN);
    TRACE_EXIT(1063, "API.ZEP_getRcString() rcString=%s\n", TRACE_STR(rcString));
    return rcString;
}

/* ---------------------------------------------------------------- initialisation */

static void setTraceLevel(int32_t level)
{
    __atomic_store_n(&clientAPITrace, level, __ATOMIC_RELAXED);
}

/* Steps 3 to 7 of initialisation; the result becomes clapiInitRc. */
static int initialiseGlobals(void)
{
    int rc = clapiInitTrace();
    if (rc != 0) {
        fprintf(stderr, "clapi_impl.clapiInitFunc() Init of zepclient API trace failed rc=%d\n", rc);
        return rc;
    }
    if ((rc = clapiInitializeLock(&gtlLock)) != 0) {
        TRACE_EXC(1076, "clapi_impl.clapiInitFunc() Init of Gateway Token List lock failed rc=%d\n", rc);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    if ((rc = clapiInitializeLock(&chanListLock)) != 0) {
        TRACE_EXC(1078, "clapi_impl.clapiInitFunc() Init of channel list lock failed rc=%d\n", rc);
        clapiDestroyLock(&gtlLock);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    if ((rc = clapiInitializeLock(&correlatorLock)) != 0) {
        TRACE_EXC(1079, "clapi_impl.clapiInitFunc() Init of correlator lock  failed rc=%d\n", rc);
        clapiDestroyLock(&chanListLock);
        clapiDestroyLock(&gtlLock);
        clapiDestroyLock(&traceLock);
        return rc;
    }
    memcpy(clapiVersion, CLAPI_VERSION_TEXT, sizeof clapiVersion);
    memcpy(cldllVersion, CLDLL_VERSION_TEXT, sizeof cldllVersion);
    /* A Gateway that drops the connection must not end the application through a write. */
    signal(SIGPIPE, SIG_IGN);
    clapiState = 1;
    setTraceLevel(0);
    return 0;
}

void clapiInitFunc(void)
{
    if (clapiState != 0) {
        clapiInitRc = 0;
        return;
    }
    setTraceLevel(1);   /* exception records raised while initialising reach standard error */
    int rc = initialiseGlobals();
    clapiSetAPITraceLevelFromEnv();
    clapiSetAPITraceFileFromEnv();
    clapiSetAPITraceParamsFromEnv();
    clapiInitRc = rc;
}

int clapiInit(void)
{
    if (pthread_once(&initState, clapiInitFunc) != 0) return ZEP_ERR_SYSTEM_ERROR;
    return clapiInitRc;
}

uint32_t getNextCorrelator(void)
{
    TRACE_ENTRY(1064, "clapi_impl.getNextCorrelator()\n");
    clapiRequestLock(&correlatorLock);
    if (nextCorrelator == 0) nextCorrelator = 1;   /* 0 is never handed out, also after the wrap */
    uint32_t correlator = nextCorrelator++;
    clapiReleaseLock(&correlatorLock);
    TRACE_EXIT(1065, "clapi_impl.getNextCorrelator() correlator=%d\n", (int)correlator);
    return correlator;
}

/* ---------------------------------------------------------------- version and level queries */

int ZEP_getDLLVersion(char** dllVersPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1032, "API.ZEP_getDLLVersion(dllVersPtr=%p)\n", (void*)dllVersPtr);
    if (rc == 0) {
        if (dllVersPtr == NULL) {
            rc = ZEP_ERR_NULLPTR;
            TRACE_EXC(1033, "API.ZEP_getDLLVersion() Supplied pointer is NULL, dllVersPtr=%p\n", (void*)dllVersPtr);
        } else {
            *dllVersPtr = cldllVersion;
        }
    }
    TRACE_EXIT(1034, "API.ZEP_getDLLVersion() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_getAPIVersion(char** apiVersPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1029, "API.ZEP_getAPIVersion(apiVersPtr=%p)\n", (void*)apiVersPtr);
    if (rc == 0) {
        if (apiVersPtr == NULL) {
            rc = ZEP_ERR_NULLPTR;
            TRACE_EXC(1030, "API.ZEP_getAPIVersion() Supplied pointer is NULL, apiVersPtr=%p\n", (void*)apiVersPtr);
        } else {
            *apiVersPtr = clapiVersion;
        }
    }
    TRACE_EXIT(1031, "API.ZEP_getAPIVersion() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_getAPITraceLevel(int* traceStatePtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1035, "API.ZEP_getAPITraceLevel(traceStatePtr=%p)\n", (void*)traceStatePtr);
    if (rc == 0) {
        if (traceStatePtr == NULL) {
            rc = ZEP_ERR_NULLPTR;
            TRACE_EXC(1036, "API.ZEP_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=%p\n",
                      (void*)traceStatePtr);
        } else {
            *traceStatePtr = TRACE_LEVEL();
        }
    }
    TRACE_EXIT(1037, "API.ZEP_getAPITraceLevel() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

/* ---------------------------------------------------------------- trace settings */

/* Trace lock held on entry. The banner goes once to each new destination while tracing is on. */
static void writeBannerIfDue(void)
{
    if (TRACE_LEVEL() > 0 && traceHeaderWrite == 0) {
        clapiWriteTraceBanner();
        traceHeaderWrite = 1;
    }
}

static void copyTraceFilename(const char* name)
{
    if (clientAPITraceFilename == NULL) return;   /* the trace set-up failed to allocate it */
    strncpy(clientAPITraceFilename, name, TRACE_FILENAME_LEN - 1);
    clientAPITraceFilename[TRACE_FILENAME_LEN - 1] = '\0';
}

void clapiSetAPITraceLevelFromEnv(void)
{
    const char* value = getenv("ZEP_CLIENT_TRACE_LEVEL");
    if (value == NULL) return;
    if (strlen(value) == 1 && value[0] >= '0' && value[0] <= '5') {
        clapiRequestLock(&traceLock);
        setTraceLevel(value[0] - '0');
        clapiReleaseLock(&traceLock);
        return;
    }
    setTraceLevel(1);
    TRACE_EXC(1075, "clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value %s was invalid\n", value);
    setTraceLevel(0);
}

void clapiSetAPITraceFileFromEnv(void)
{
    const char* value = getenv("ZEP_CLIENT_TRACE_FILE");
    if (value != NULL && value[0] == '\0') return;
    clapiRequestLock(&traceLock);
    FILE* file = NULL;
    int openErrno = 0;
    if (value != NULL) {
        file = fopen(value, "a");
        openErrno = errno;
    }
    if (file != NULL) {
        copyTraceFilename(value);
        clientAPITraceHandle = file;   /* standard error, the stream before, stays open */
        traceHeaderWrite = 0;
    }
    writeBannerIfDue();
    clapiReleaseLock(&traceLock);
    if (value == NULL) return;
    if (file != NULL) {
        TRACE_DEBUG(1072, "clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. Filename=%s\n",
                    clientAPITraceFilename);
    } else {
        TRACE_EXC(1074, "clapi_impl.clapiSetAPITraceFileFromEnv(%s) file append failed with errno=%d. Trace file destination is unchanged. Filename=%s\n",
                  value, openErrno, TRACE_STR(clientAPITraceFilename));
    }
}

/* A limit counts when its first character is a digit; its value is the number at its start. */
static void applyLimitFromEnv(const char* variable, uint32_t* limit, int valueId, int setId, const char* setText)
{
    const char* value = getenv(variable);
    if (value == NULL) return;
    TRACE_DEBUG(valueId, "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable %s=%s\n", variable, value);
    if (value[0] < '0' || value[0] > '9') return;
    *limit = (uint32_t)strtoul(value, NULL, 10);
    TRACE_DEBUG(setId, "clapi_impl.clapiSetAPITraceParamsFromEnv() %s set to %d\n", setText, (int)*limit);
}

void clapiSetAPITraceParamsFromEnv(void)
{
    TRACE_ENTRY(1066, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
    applyLimitFromEnv("ZEP_CLIENT_DATA_LENGTH", &clientAPIDataTrunc, 1067, 1068, "Data truncation length");
    applyLimitFromEnv("ZEP_CLIENT_DATA_OFFSET", &clientAPIDataOffset, 1069, 1070, "Data offset");
    TRACE_EXIT(1071, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
}

int ZEP_setAPITraceLevel(int traceState)
{
    int rc = clapiInit();
    TRACE_ENTRY(1038, "API.ZEP_setAPITraceLevel(traceState=%d) Current trace level=%d\n", traceState, (int)TRACE_LEVEL());
    if (rc == 0) {
        if (traceState < 0 || traceState > 5) {
            rc = ZEP_ERR_TRACELEVEL;
            TRACE_EXC(1039, "API.ZEP_setAPITraceLevel() Supplied trace state value %d was invalid\n", traceState);
        } else {
            clapiRequestLock(&traceLock);
            /* traceHeaderWrite stays as it is: each switch up from 0 repeats the banner until a file call writes it. */
            if (traceHeaderWrite == 0 && TRACE_LEVEL() == 0 && traceState > 0) clapiWriteTraceBanner();
            setTraceLevel(traceState);
            clapiReleaseLock(&traceLock);
        }
    }
    TRACE_EXIT(1040, "API.ZEP_setAPITraceLevel() rc=%d (%s) New trace level=%d\n", rc, clapiGetRcString(rc),
               (int)TRACE_LEVEL());
    return rc;
}

/* Trace lock held on entry. Returns 1 when the destination changed, 0 when not, -1 when the file failed. */
static int switchTraceDestination(const char* traceFile, int* openErrno)
{
    bool onFile = clientAPITraceHandle != NULL && clientAPITraceHandle != stderr;
    if (traceFile == NULL) {
        if (!onFile) return 0;
        fclose(clientAPITraceHandle);
        clientAPITraceHandle = stderr;
        copyTraceFilename(defaultTraceFilename);
        traceHeaderWrite = 0;
        return 1;
    }
    FILE* file = fopen(traceFile, "a");
    if (file == NULL) {
        *openErrno = errno;
        return -1;
    }
    if (onFile) fclose(clientAPITraceHandle);
    copyTraceFilename(traceFile);
    clientAPITraceHandle = file;
    traceHeaderWrite = 0;
    return 1;
}

int ZEP_setAPITraceFile(const char* traceFile)
{
    int rc = clapiInit();
    TRACE_ENTRY(1041, "API.ZEP_setAPITraceFile(traceFile=%s) Current trace destination=%s\n", TRACE_STR(traceFile),
                TRACE_STR(clientAPITraceFilename));
    if (rc == 0) {
        int openErrno = 0;
        clapiRequestLock(&traceLock);
        int switched = switchTraceDestination(traceFile, &openErrno);
        writeBannerIfDue();
        clapiReleaseLock(&traceLock);
        if (switched < 0) {
            rc = ZEP_ERR_TRACEFILE;
            TRACE_EXC(1044, "API.ZEP_setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is unchanged. Filename=%s\n",
                      traceFile, openErrno, clientAPITraceFilename);
        } else if (switched > 0) {
            TRACE_DEBUG(1042, "API.ZEP_setAPITraceFile() Trace file switched to new destination. Filename=%s\n",
                        clientAPITraceFilename);
        } else {
            TRACE_DEBUG(1043, "API.ZEP_setAPITraceFile() Trace file destination is unchanged. Filename=%s\n",
                        clientAPITraceFilename);
        }
    }
    TRACE_EXIT(1045, "API.ZEP_setAPITraceFile() rc=%d (%s) New trace destination=%s\n", rc, clapiGetRcString(rc),
               TRACE_STR(clientAPITraceFilename));
    return rc;
}

/* The data limits apply even when initialisation failed, and always report success. */
static void setDataLimit(uint32_t* limit, unsigned long value, int debugId, const char* text)
{
    clapiRequestLock(&traceLock);
    unsigned long old = *limit;
    *limit = (uint32_t)value;
    clapiReleaseLock(&traceLock);
    TRACE_DEBUG(debugId, text, old, value);
}

int ZEP_setAPITraceDataLength(unsigned long dataLength)
{
    clapiInit();
    TRACE_ENTRY(1048, "API.ZEP_setAPITraceDataLength(dataLength=%lu)\n", dataLength);
    setDataLimit(&clientAPIDataTrunc, dataLength, 1049,
                 "API.ZEP_setAPITraceDataLength() Trace data truncation length changed from %lu to %lu\n");
    TRACE_EXIT(1050, "API.ZEP_setAPITraceDataLength()\n");
    return 0;
}

int ZEP_setAPITraceDataOffset(unsigned long dataOffset)
{
    clapiInit();
    TRACE_ENTRY(1051, "API.ZEP_setAPITraceDataOffset(dataOffset=%lu)\n", dataOffset);
    setDataLimit(&clientAPIDataOffset, dataOffset, 1052,
                 "API.ZEP_setAPITraceDataOffset() Trace data offset changed from %lu to %lu\n");
    TRACE_EXIT(1053, "API.ZEP_setAPITraceDataOffset()\n");
    return 0;
}

/* ---------------------------------------------------------------- connection entry points */

#include "clapi_gwytok.h"
#include "clapi_socketcomms.h"

#define APPLID_MAX      8
#define APPLID_ENV_MAX 16

/* An environment variable that is set, even to an empty value, replaces the argument, cut to 16 characters. */
static const char* applidFromEnv(const char* variable, char* copy, const char* argument)
{
    const char* value = getenv(variable);
    copy[0] = '\0';
    if (value == NULL) return argument;
    strncat(copy, value, APPLID_ENV_MAX);
    return copy;
}

/* The argument checks of an open, in argument order; the first failure wins. */
static int checkOpenArguments(const char* hostname, int port, GatewayToken** gwTokPtr, unsigned int connTimeout,
                              const char* applid, const char* applidQualifier)
{
    if (port < 1 || port > 65535) {
        TRACE_EXC(1001, "API.ZEP_openRemoteGatewayConnectionApplid() Port value out of range, port=%d\n", port);
        return ZEP_ERR_BADPORT;
    }
    if (gwTokPtr == NULL) {
        TRACE_EXC(1002, "API.ZEP_openRemoteGatewayConnectionApplid() NULL gateway token pointer, gwTokPtr=%p\n",
                  (void*)gwTokPtr);
        return ZEP_ERR_NULLGWTOKPTR;
    }
    if (connTimeout > 3600) {
        TRACE_EXC(1003, "API.ZEP_openRemoteGatewayConnectionApplid() Timeout value out of range, connTimeout=%d\n",
                  (int)connTimeout);
        return ZEP_ERR_INVALIDTIMEOUTPARM;
    }
    if (hostname == NULL) {
        TRACE_EXC(1004, "API.ZEP_openRemoteGatewayConnectionApplid() NULL host name, hostname=%p\n", (void*)hostname);
        return ZEP_ERR_NULLADDRESS;
    }
    if (applid == NULL) {
        TRACE_EXC(1005, "API.ZEP_openRemoteGatewayConnectionApplid() NULL applid, applid=%p\n", (void*)applid);
        return ZEP_ERR_NULLPARM;
    }
    if (applidQualifier == NULL) {
        TRACE_EXC(1006, "API.ZEP_openRemoteGatewayConnectionApplid() NULL applid qualifier, applidQualifier=%p\n",
                  (void*)applidQualifier);
        return ZEP_ERR_NULLPARM;
    }
    return 0;
}

int ZEP_openRemoteGatewayConnectionApplid(const char* hostname, int port, GatewayToken** gwTokPtr,
                                          unsigned int connTimeout, const char* applid, const char* applidQualifier)
{
    int rc = clapiInit();
    TRACE_ENTRY(1000, "API.ZEP_openRemoteGatewayConnectionApplid(hostname=%s, port=%d, &gwTokPtr=%p, connTimeout=%d, applid=%s, applidQualifier=%s\n",
                TRACE_STR(hostname), port, (void*)gwTokPtr, (int)connTimeout, TRACE_STR(applid),
                TRACE_STR(applidQualifier));
    if (rc == 0) rc = checkOpenArguments(hostname, port, gwTokPtr, connTimeout, applid, applidQualifier);
    if (rc == 0) {
        char applidEnv[APPLID_ENV_MAX + 1];
        char qualifierEnv[APPLID_ENV_MAX + 1];
        applid = applidFromEnv("ZEP_APPLID", applidEnv, applid);
        applidQualifier = applidFromEnv("ZEP_APPLIDQUALIFIER", qualifierEnv, applidQualifier);
        TRACE_DEBUG(1007, "API.ZEP_openRemoteGatewayConnectionApplid() Environment variables: applidEnv=%s and applidQualifierEnv=%s\n",
                    applidEnv, qualifierEnv);
        /* Deliberately without an exception record: only the exit record shows it. */
        if (strlen(applid) > APPLID_MAX || strlen(applidQualifier) > APPLID_MAX)
            rc = ZEP_ERR_APPLIDTOOLONG;
        else
            rc = clapiCreateGatewayToken(gwTokPtr, hostname, port, connTimeout, applid, applidQualifier);
    }
    TRACE_EXIT(1008, "API.ZEP_openRemoteGatewayConnectionApplid() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr, unsigned int connTimeout)
{
    return ZEP_openRemoteGatewayConnectionApplid(hostname, port, gwTokPtr, connTimeout, "", "");
}

/* Close and purge share their checks and work; the texts differ only in the function name and ids. */
struct CloseTexts {
    const char* name;
    int         nullPtrId;
    int         nullTokId;
    int         closedId;
};

/* A purge passes its time limit, checked here; a close waits without limit (-1) and has none to check. */
static int closeConnection(GatewayToken** gwTokPtr, bool purge, unsigned int closeTimeout, int initRc,
                           const CloseTexts& t)
{
    if (gwTokPtr == NULL) {
        TRACE_EXC(t.nullPtrId, "API.%s() NULL gateway token pointer, gwTokPtr=%p\n", t.name, (void*)gwTokPtr);
        return ZEP_ERR_NULLGWTOKPTR;
    }
    if (*gwTokPtr == NULL) {
        TRACE_EXC(t.nullTokId, "API.%s() NULL gateway token, *gwTokPtr=%p\n", t.name, (void*)*gwTokPtr);
        return ZEP_ERR_NULLGWTOK;
    }
    if (purge && closeTimeout > 3600) {
        TRACE_EXC(1083, "API.ZEP_purgeGatewayConnection() Timeout value out of range, closeTimeout=%d\n",
                  (int)closeTimeout);
        return ZEP_ERR_INVALIDTIMEOUTPARM;
    }
    if (initRc != 0) return initRc;
    int rc = clapiCloseGatewayToken(*gwTokPtr, 1);
    if (rc == 0) {
        rc = clapiDeleteGatewayToken(gwTokPtr, purge ? (int)closeTimeout : -1, 1);
        TRACE_EVENT(t.closedId, "API.%s() Closed Gateway connection for token %p\n", t.name, (void*)gwTokPtr);
    }
    return rc;
}

int ZEP_closeGatewayConnection(GatewayToken** gwTokPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1009, "API.ZEP_closeGatewayConnection(gwTokPtr=%p)\n", (void*)gwTokPtr);
    static const CloseTexts texts = {"ZEP_closeGatewayConnection", 1010, 1011, 1012};
    rc = closeConnection(gwTokPtr, false, 0, rc, texts);
    TRACE_EXIT(1013, "API.ZEP_closeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n", (void*)gwTokPtr, rc,
               clapiGetRcString(rc));
    return rc;
}

int ZEP_purgeGatewayConnection(GatewayToken** gwTokPtr, unsigned int closeTimeout)
{
    int rc = clapiInit();
    TRACE_ENTRY(1080, "API.ZEP_purgeGatewayConnection(gwTokPtr=%p, closeTimeout=%d)\n", (void*)gwTokPtr,
                (int)closeTimeout);
    static const CloseTexts texts = {"ZEP_purgeGatewayConnection", 1081, 1082, 1084};
    rc = closeConnection(gwTokPtr, true, closeTimeout, rc, texts);
    TRACE_EXIT(1085, "API.ZEP_purgeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n", (void*)gwTokPtr, rc,
               clapiGetRcString(rc));
    return rc;
}

int ZEP_closeAllGatewayConnections(void)
{
    int rc = clapiInit();
    TRACE_ENTRY(1014, "API.ZEP_closeAllGatewayConnections()\n");
    if (rc == 0) {
        rc = clapiDeleteGatewayTokens();
        TRACE_EVENT(1015, "API.ZEP_closeAllGatewayConnections() Closed all Gateway connections\n");
    }
    TRACE_EXIT(1016, "API.ZEP_closeAllGatewayConnections() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

/* The APPLID and qualifier queries differ only in their texts, ids and the field they hand out. */
struct TextQuery {
    const char* name;
    const char* outName;
    int         entryId;
    int         nullTokId;
    int         nullPtrId;
    int         exitId;
};

static int queryTokenText(GatewayToken* gwTok, char** out, bool qualifier, const TextQuery& q)
{
    int rc = clapiInit();
    TRACE_ENTRY(q.entryId, "API.%s(gwTok=%p, %s=%p)\n", q.name, (void*)gwTok, q.outName, (void*)out);
    if (rc == 0 && gwTok == NULL) {
        TRACE_EXC(q.nullTokId, "API.%s() NULL gateway token, gwTok=%p\n", q.name, (void*)gwTok);
        rc = ZEP_ERR_NULLGWTOK;
    } else if (rc == 0 && out == NULL) {
        TRACE_EXC(q.nullPtrId, "API.%s() Supplied pointer is NULL, %s=%p\n", q.name, q.outName, (void*)out);
        rc = ZEP_ERR_NULLPTR;
    } else if (rc == 0 && (rc = clapiRegisterRequest(gwTok)) == 0) {
        /* The token's own field, valid while the connection exists. */
        *out = qualifier ? gwTok->applidQual : gwTok->applid;
        rc = clapiUnregisterRequest(gwTok);
    }
    TRACE_EXIT(q.exitId, "API.%s() rc=%d (%s)\n", q.name, rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_getApplid(GatewayToken* gwTok, char** applid)
{
    static const TextQuery query = {"ZEP_getApplid", "applid", 1054, 1055, 1056, 1057};
    return queryTokenText(gwTok, applid, false, query);
}

int ZEP_getApplidQualifier(GatewayToken* gwTok, char** applidQualifier)
{
    static const TextQuery query = {"ZEP_getApplidQualifier", "applidQualifier", 1058, 1059, 1060, 1061};
    return queryTokenText(gwTok, applidQualifier, true, query);
}

/* The code for a request on a connection that is not open: lost, or closed in any other way. */
static int notOpenRc(int32_t status)
{
    return status == CONN_LOST ? ZEP_ERR_LOSTGWCON : ZEP_ERR_GATEWAY_CLOSED;
}

/*
 * Reserves a slot for the system list and arms it, in one table lock hold, so that the receiver's sweep at
 * the end of a connection either sees the request waiting or sees no open connection here.
 */
static int reserveSystemsSlot(GatewayToken* gwTok, unsigned short capacity, SystemInfo* list, RequestSlot** slotPtr)
{
    *slotPtr = NULL;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1021, "API.ZEP_listSystems() Failed to lock slot table\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int32_t status = __atomic_load_n(&gwTok->connStatus, __ATOMIC_RELAXED);
    int rc = status == CONN_OPEN ? slotFind(gwTok->requestTable, 0, slotPtr) : notOpenRc(status);
    RequestSlot* slot = *slotPtr;
    if (rc == 0) {
        slot->request.eci_commarea = list;
        slot->replyAreaLength = (uint32_t)capacity * sizeof(SystemInfo);
        slot->esiDetailsPtr = NULL;   /* an earlier ESI use of the slot must not receive details now */
        slot->flowRc = 0;
        slot->replyRc = 0;
        if (clapiSetEvent(&slot->event) != 0) {
            TRACE_EXC(1023, "API.ZEP_listSystems() Failed to set request event\n");
            rc = ZEP_ERR_SYSTEM_ERROR;
        } else {
            slot->slotState = SLOT_SENT;
        }
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1022, "API.ZEP_listSystems() Failed to unlock slot table\n");
        if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
    }
    return rc;
}

static int sendSystemsRequest(GatewayToken* gwTok, RequestSlot* slot, unsigned short capacity, SystemInfo* list)
{
    FlowHeader header;
    memset(&header, 0, sizeof header);
    header.eyecatcher = FLOW_EYECATCHER;
    header.version = FLOW_VERSION;
    header.flowType = FLOW_REQUEST;
    header.messageId = slot->slotNumber;
    header.requestTypeLength = (int32_t)strlen(ECI_REQUEST_NAME);
    strcpy(header.requestType, ECI_REQUEST_NAME);
    EciRequest request;
    memset(&request, 0, sizeof request);
    request.requestKind = ECI_KIND_SYSTEMS;
    request.replyToken = capacity;
    request.commarea = list;
    request.optionalMarker = -1;
    request.correlator = (int32_t)getNextCorrelator();
    if (clapiRequestLock(&gwTok->sendLock) != 0) {
        TRACE_EXC(1024, "API.ZEP_listSystems() Failed to acquire send lock\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = clapiFlowECIRequest(gwTok->socket, &header, &request);
    if (clapiReleaseLock(&gwTok->sendLock) != 0) TRACE_EXC(1025, "API.ZEP_listSystems() Failed to release send lock\n");
    return rc;
}

/* Clears trailing blanks and NULs from the 9th byte of the name back to the 2nd; the 1st always stays. */
static void trimSystemName(SystemInfo* entry)
{
    for (int i = (int)sizeof entry->name - 1; i > 0; i--) {
        if (entry->name[i] != ' ' && entry->name[i] != '\0') break;
        entry->name[i] = '\0';
    }
}

static int collectSystems(RequestSlot* slot, unsigned short* Systems, SystemInfo* List)
{
    if (clapiWaitEvent(&slot->event) != 0) return ZEP_ERR_SYSTEM_ERROR;
    if (slot->flowRc != 0) return slot->flowRc;
    int32_t count = slot->request.eci_luw_token;   /* the entry count of the reply */
    if (count < 0) count = 0;
    if (count > *Systems) count = *Systems;
    *Systems = (unsigned short)count;
    for (int32_t i = 0; i < count; i++) trimSystemName(&List[i]);
    return slot->replyRc;
}

static int releaseSystemsSlot(GatewayToken* gwTok, RequestSlot* slot)
{
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1026, "API.ZEP_listSystems() Failed to lock slot table to free slot\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    slotFree(gwTok->requestTable, slot);
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1027, "API.ZEP_listSystems() Failed to unlock slot table after freeing slot\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    return 0;
}

// The token is registered on entry.
static int listSystemsRegistered(GatewayToken* gwTok, unsigned short* Systems, SystemInfo* List)
{
    if (Systems == NULL) {
        TRACE_EXC(1019, "API.ZEP_listSystems() NULL Systems Parameter, Systems=%p\n", (void*)Systems);
        return ZEP_ERR_NULLPTR;
    }
    if (List == NULL) {
        TRACE_EXC(1020, "API.ZEP_listSystems() NULL List Parameter, List=%p\n", (void*)List);
        return ZEP_ERR_NULLPTR;
    }
    /* As for ECI requests: a closing connection sends nothing more, so that its close flow is the last. */
    if (__atomic_load_n(&gwTok->closing, __ATOMIC_RELAXED)) return ZEP_ERR_GWTOK_CLOSED;
    RequestSlot* slot = NULL;
    int rc = reserveSystemsSlot(gwTok, *Systems, List, &slot);
    if (rc == 0) rc = sendSystemsRequest(gwTok, slot, *Systems, List);
    if (rc == 0) rc = collectSystems(slot, Systems, List);
    if (slot != NULL && releaseSystemsSlot(gwTok, slot) != 0) rc = ZEP_ERR_SYSTEM_ERROR;
    return rc;
}

int ZEP_listSystems(GatewayToken* gwTok, unsigned short* Systems, SystemInfo* List)
{
    int rc = clapiInit();
    TRACE_ENTRY(1017, "API.ZEP_listSystems(gwTok=%p, Systems=%p, List=%p)\n", (void*)gwTok, (void*)Systems,
                (void*)List);
    if (rc == 0 && gwTok == NULL) {
        TRACE_EXC(1018, "API.ZEP_listSystems() NULL gateway token, gwTok=%p\n", (void*)gwTok);
        rc = ZEP_ERR_NULLGWTOK;
    } else if (rc == 0 && (rc = clapiRegisterRequest(gwTok)) == 0) {
        rc = listSystemsRegistered(gwTok, Systems, List);
        if (clapiUnregisterRequest(gwTok) != 0) {
            TRACE_EXC(1080, "API.ZEP_listSystems() Unregister request failed\n");
            if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    TRACE_EXIT(1028, "API.ZEP_listSystems() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_dumpState(void)
{
    int rc = clapiInit();
    TRACE_ENTRY(1046, "API.ZEP_dumpState()\n");
    if (rc == 0) {
        /* Written at any trace level, without the record prefix. */
        fprintf(clientAPITraceHandle, "zepclient state dump: DLL Version=%s Trace Level=%d clientAPITraceFile=%s\n",
                cldllVersion, (int)TRACE_LEVEL(), clientAPITraceFilename);
        fflush(clientAPITraceHandle);
        clapiDumpGatewayTokens();
        ZEP_ECI_dumpChannels();
    }
    TRACE_EXIT(1047, "API.ZEP_dumpState() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}
