/*
 * zepclient internals shared by every module: the trace record macros, the eyecatchers,
 * the records that more than one module works on, and the public return codes.
 * Nothing here is part of the application interface.
 */
#ifndef CLAPI_INTERNAL_H
#define CLAPI_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "zepclient.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Eyecatchers: 8 characters, no terminator, written at creation. ---- */
#define EYE_GWTOK   "ZEPGWTOK"
#define EYE_RSLOT   "ZEPRSLOT"
#define EYE_SCKBF   "ZEPSCKBF"
#define EYE_CHANN   "ZEPCHANN"
#define EYE_CONTA   "ZEPCONTA"
#define EYE_LEN     8

/* ---- Versions. ---- */
#define CLAPI_VERSION_TEXT  "2.3.0.0"
#define CLDLL_VERSION_TEXT  "9.1.0.4"
#define CLAPI_BUILD_LEVEL   "k910-20231012-1355"

/* Every module carries its version and build level as a named text object that no code reads. */
#define CLAPI_MODULE_VERSION(module) \
    extern const char version4##module[]; \
    const char version4##module[] = "zepclient " #module " " CLDLL_VERSION_TEXT " " CLAPI_BUILD_LEVEL

/* Library memory that held caller data is wiped before it goes back. explicit_bzero, because a plain
   memset right before free is a dead store the compiler may drop. */
static inline void clapiZeroFree(void* block, size_t length)
{
    if (block == NULL) return;
    explicit_bzero(block, length);
    free(block);
}

/* ---- Trace levels and record writers (clapi_diag). ---- */
extern int32_t clientAPITrace;

#define TRACE_LEVEL() __atomic_load_n(&clientAPITrace, __ATOMIC_RELAXED)

void clapiTraceRecord(int id, const char* type, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
void clapiTraceRecordNoLock(int id, const char* type, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
void clapiTraceData(int id, const void* data, unsigned long length, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* A record whose level test fails costs one comparison; nothing is formatted. */
#define CLAPI_TRACE(minLevel, id, type, ...) \
    do { if (TRACE_LEVEL() > (minLevel) - 1) clapiTraceRecord((id), (type), __VA_ARGS__); } while (0)

#define TRACE_EXC(id, ...)   CLAPI_TRACE(1, id, "*EXC*", __VA_ARGS__)
#define TRACE_EVENT(id, ...) CLAPI_TRACE(2, id, "EVENT", __VA_ARGS__)
#define TRACE_ENTRY(id, ...) CLAPI_TRACE(3, id, "ENTRY", __VA_ARGS__)
#define TRACE_EXIT(id, ...)  CLAPI_TRACE(3, id, "EXIT", __VA_ARGS__)
#define TRACE_DEBUG(id, ...) CLAPI_TRACE(4, id, "DEBUG", __VA_ARGS__)

/* A DATA record names an area and is followed by its dump, both under one trace lock hold. */
#define TRACE_DATA(id, data, length, ...) \
    do { if (TRACE_LEVEL() > 3) clapiTraceData((id), (data), (length), __VA_ARGS__); } while (0)

/* The lock module's failures may concern the trace lock itself, so they are written without it. */
#define TRACE_EXC_NOLOCK(id, ...) \
    do { if (TRACE_LEVEL() > 0) clapiTraceRecordNoLock((id), "*EXC*", __VA_ARGS__); } while (0)

#define TRACE_STR(s) ((s) != NULL ? (s) : "NULL")
#define TRACE_BOOL(b) ((b) ? "TRUE" : "FALSE")

/* ---- Locks and events (clapi_lock). ---- */
#define CLAPI_LOCK_LIVE      0xFFEEDDCCu
#define CLAPI_LOCK_DESTROYED 0xCCDDEEFFu

typedef struct ClapiLock {
    pthread_mutex_t lock;
    uint32_t        initialized;
} ClapiLock;

/* A manual-reset event: signalled (clapiClearEvent) until reset (clapiSetEvent). */
typedef struct ClapiEvent {
    uint32_t        flag;
    pthread_mutex_t mutex;
    pthread_cond_t  cond;
    uint32_t        counter;
} ClapiEvent;

/* ---- Socket buffer (clapi_socketbuffer). ---- */
#define SOCKET_BUFFER_MAX 33000u

typedef struct MaskArea {
    uint8_t*         bufferPos;
    uint32_t         length;
    uint8_t*         saveArea;
    struct MaskArea* next;
} MaskArea;

typedef struct SocketBuffer {
    char      eyecatcher[EYE_LEN];
    int       socketDesc;
    int       errorCode;
    uint8_t*  buffer;
    uint32_t  bufferSize;
    uint8_t*  cursor;
    uint32_t  bytesInBuffer;
    uint32_t  bytesRemaining;
    MaskArea* maskList;
    /* Reading ahead: bytes received past the end of the current message, right behind its unread bytes. */
    uint32_t  bytesAhead;
    uint32_t  readAhead;   /* non-zero: a fill takes whatever the socket has, up to the free space */
} SocketBuffer;

/* ---- Messages (clapi_socketcomms). ---- */
#define FLOW_EYECATCHER   0x47617465   /* "Gate" */
#define FLOW_VERSION      0x10901000

#define FLOW_REQUEST      1
#define FLOW_REPLY        3
#define FLOW_ERROR        4
#define FLOW_HANDSHAKE    5
#define FLOW_EXCEPTION    6
#define FLOW_PING         7
#define FLOW_CLOSE        10

#define MSGID_CLOSE      -1
#define MSGID_HANDSHAKE  -2

#define REQUEST_TYPE_AREA 6

typedef struct FlowHeader {
    int32_t eyecatcher;
    int32_t version;
    int32_t flowType;
    int32_t messageId;
    int32_t returnCode;
    int32_t requestTypeLength;
    char    requestType[REQUEST_TYPE_AREA];
    uint8_t flags;
    int32_t payloadLength;
} FlowHeader;

#define ECI_KIND_PROGRAM      1
#define ECI_KIND_ALT_TRANSID 12
#define ECI_KIND_SYSTEMS      9

typedef struct EciRequest {
    int32_t        requestKind;
    int32_t        extendMode;
    int32_t        luwToken;
    int32_t        reserved1;
    uint8_t        reserved2;
    char           systemName[8];
    const char*    userid;
    const char*    password;
    char           programName[8];
    char           transid[4];
    char           abendCode[4];
    int32_t        extraLength;
    const uint8_t* extraData;
    int32_t        commareaLength;
    void*          commarea;
    int32_t        inboundLength;
    int32_t        outboundLength;
    Channel*       channel;
    uint16_t       timeout;
    uint8_t        reserved3;
    int32_t        optionalMarker;
    int32_t        optional1Length;
    const uint8_t* optional1;
    int32_t        optional2Length;
    const uint8_t* optional2;
    int32_t        correlator;
    int32_t        replyToken;
    int32_t        returnCode;
    /* Reply decoding only: bytes that reply data may occupy at `commarea`; what does not fit is dropped. */
    uint32_t       commareaCapacity;
    /* Reply decoding only: `commarea` is the library's own buffer, which grows to hold a longer reply. */
    bool           growableArea;
} EciRequest;

#define ESI_KIND_VERIFY 0
#define ESI_KIND_CHANGE 1

typedef struct EsiRequest {
    int32_t     esiKind;
    const char* userid;
    const char* password;
    const char* newPassword;
    char        server[8];
} EsiRequest;

typedef struct EsiReply {
    int32_t    returnCode;
    EsiDetails details;
} EsiReply;

/* ---- Request slots and gateway tokens (clapi_gwytok, clapi_gwycon). ---- */
#define SLOTS_PER_TABLE 16

#define SLOT_FREE      0
#define SLOT_ALLOCATED 1
#define SLOT_SENT      2
#define SLOT_REPLIED   3
#define SLOT_LUW_KEPT  4

struct SlotIndex;

typedef struct RequestSlot {
    char                eyecatcher[EYE_LEN];
    struct RequestSlot* nextSlot;
    struct RequestSlot* nextAsyncReply;
    int32_t             slotState;
    int32_t             slotNumber;
    int32_t             flowRc;
    int32_t             replyRc;
    ClapiEvent          event;
    EciParms            request;
    EsiDetails*         esiDetailsPtr;
    /* Bytes that reply data may occupy at request.eci_commarea (caller's area, async buffer or system list). */
    uint32_t            replyAreaLength;
    /* Which ECI request holds the slot, so that a reused slot is told from the request that held it before. */
    uint32_t            requestSerial;
    /* In a block's first slot: how many of the block's slots are not free. */
    int32_t             blockSlotsInUse;
    /* In a table's first slot: its blocks by position once it has more than one, else NULL. */
    struct SlotIndex*   tableIndex;
} RequestSlot;

#define CONN_CONNECTING 0
#define CONN_OPEN       1
#define CONN_FAILED     2
#define CONN_LOST       3
#define CONN_CLOSED     4

typedef struct GatewayToken {
    char                 eyecatcher[EYE_LEN];
    struct GatewayToken* nextGwyTokPtr;
    int32_t              port;
    int32_t              connStatus;
    int32_t              connTimeout;
    int32_t              connRc;
    int32_t              closing;
    int32_t              socket;
    RequestSlot          requestTable[SLOTS_PER_TABLE];
    ClapiLock            tableLock;
    ClapiLock            sendLock;
    RequestSlot*         asyncReplyHead;
    RequestSlot*         asyncReplyTail;
    int32_t              asyncRequests;
    ClapiEvent           asyncReplyEvent;
    ClapiEvent           connEvent;
    ClapiEvent           recvThreadEndedEvent;
    ClapiEvent           requestsEnded;
    int32_t              apiCalls;
    char                 applid[9];
    char                 applidQual[9];
    int32_t              handedOut;   /* under gtlLock: the open returned the token; close all may take it */
} GatewayToken;

/* ---- Channels and containers (clapi_channel). ---- */
#define CHANNEL_NAME_LEN 16
#define CCSID_UNSET      -1

typedef struct Container {
    char              eyecatcher[EYE_LEN];
    char              name[CHANNEL_NAME_LEN];
    int32_t           ccsid;
    int32_t           type;
    uint8_t*          dataPtr;
    unsigned long     dataLength;
    struct Container* nextCont;
} Container;

struct Channel {
    char       eyecatcher[EYE_LEN];
    char       name[CHANNEL_NAME_LEN];
    int32_t    ccsid;
    int32_t    numContainers;
    ClapiLock  serlock;
    ClapiEvent unlockEvent;
    int32_t    isLocked;
    Container* firstCont;
    Container* currentCont;
    Channel*   nextChannel;
};

#ifdef __cplusplus
}
#endif

/* ---- The binary interface callers are compiled against. ---- */
#ifdef __cplusplus
static_assert(offsetof(EciParms, eci_call_type) == 0, "EciParms layout");
static_assert(offsetof(EciParms, eci_program_name) == 2, "EciParms layout");
static_assert(offsetof(EciParms, eci_userid) == 10, "EciParms layout");
static_assert(offsetof(EciParms, eci_password) == 26, "EciParms layout");
static_assert(offsetof(EciParms, eci_transid) == 42, "EciParms layout");
static_assert(offsetof(EciParms, eci_abend_code) == 46, "EciParms layout");
static_assert(offsetof(EciParms, eci_commarea) == 50, "EciParms layout");
static_assert(offsetof(EciParms, eci_commarea_length) == 50 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_timeout) == 52 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_extend_mode) == 54 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_luw_token) == 56 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_version) == 60 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_system_name) == 62 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_alt_transid) == 70 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, commarea_outbound_length) == 74 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, commarea_inbound_length) == 76 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_channel) == 78 + sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_userid_ptr) == 78 + 2 * sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_password_ptr) == 78 + 3 * sizeof(void*), "EciParms layout");
static_assert(offsetof(EciParms, eci_message_qualifier) == 78 + 4 * sizeof(void*), "EciParms layout");
static_assert(sizeof(EciParms) == 82 + 4 * sizeof(void*), "EciParms is 98 bytes on i386, 114 on x86-64");
static_assert(sizeof(void*) != 4 || sizeof(EciParms) == 98, "EciParms is 98 bytes on i386");
static_assert(offsetof(ContainerInfo, name) == 0, "ContainerInfo layout");
static_assert(offsetof(ContainerInfo, type) == 17, "ContainerInfo layout");
static_assert(offsetof(ContainerInfo, ccsid) == 21, "ContainerInfo layout");
static_assert(offsetof(ContainerInfo, dataLength) == 25, "ContainerInfo layout");
static_assert(sizeof(ContainerInfo) == 29, "ContainerInfo is 29 bytes");
static_assert(sizeof(SystemInfo) == 70, "SystemInfo is 70 bytes");
static_assert(sizeof(EsiDetails) == 88, "EsiDetails is 22 words");
#endif

#endif
