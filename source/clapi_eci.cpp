/*
 * ECI calls: the checks on the caller's parameter block, the two entry points, the worker that sends one
 * request through a request slot, and the collection of asynchronous replies.
 */
#include "clapi_eci.h"

#include <stdlib.h>
#include <string.h>

#include "clapi_channel.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_lock.h"
#include "clapi_socketcomms.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_eci);
}

#define ECI_CREDENTIAL_LEN    16
#define ECI_EXTEND_LUW        1
#define ECI_EXTEND_COMMIT     2
#define ECI_EXTEND_BACKOUT    4

/* ---------------------------------------------------------------- small helpers */

/* Library copies of caller secrets are overwritten so that no compiler elides it. */
static void wipe(void* area, size_t length, char filler)
{
    volatile char* bytes = (volatile char*)area;
    for (size_t i = 0; i < length; i++) bytes[i] = filler;
}

static int32_t connStatusOf(GatewayToken* gwTok)
{
    return __atomic_load_n(&gwTok->connStatus, __ATOMIC_RELAXED);
}

static bool isClosing(GatewayToken* gwTok)
{
    return __atomic_load_n(&gwTok->closing, __ATOMIC_RELAXED) != 0;
}

/* The result of a request that finds its connection no longer open. */
static int connectionEndedRc(int32_t status)
{
    return status == CONN_LOST ? ZEP_ERR_LOSTGWCON : ZEP_ERR_GATEWAY_CLOSED;
}

static bool sendsRequest(int callType)
{
    return callType == ECI_SYNC || callType == ECI_ASYNC;
}

/* Extend modes 2 and 4 end a unit of work and carry neither COMMAREA nor channel. */
static bool carriesNoData(int extendMode)
{
    return extendMode == ECI_EXTEND_COMMIT || extendMode == ECI_EXTEND_BACKOUT;
}

/* ---------------------------------------------------------------- the parameter block */

static const char* const callTypeNames[] = {
    "ECI_SYNC", "ECI_ASYNC", "ECI_GET_REPLY", "ECI_GET_REPLY_WAIT",
    "ECI_GET_SPECIFIC_REPLY", "ECI_GET_SPECIFIC_REPLY_WAIT",
};

const char* getCallTypeString(int callType)
{
    if (callType < ECI_SYNC || callType > ECI_GET_SPECIFIC_REPLY_WAIT) return "UNKNOWN";
    return callTypeNames[callType - ECI_SYNC];
}

/* The shape of the call: version, call type, version of non-synchronous calls, extend mode. */
static int checkCallShape(const EciParms* parms, int minVersion)
{
    const void* block = parms;
    int version = parms->eci_version;
    if (minVersion > version || version > ECI_VERSION_MAX) {
        TRACE_EXC(1549, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n", block, version);
        return ECI_ERR_INVALID_VERSION;
    }
    int callType = (uint16_t)parms->eci_call_type;
    if (callType < ECI_SYNC || callType > ECI_GET_SPECIFIC_REPLY_WAIT) {
        TRACE_EXC(1550, "clapi_eci.verifyEciParms() Invalid Call Type, EciParms=%p, eci_call_type=%d\n", block, callType);
        return ECI_ERR_INVALID_CALL_TYPE;
    }
    TRACE_DEBUG(1551, "clapi_eci.verifyEciParms() Call type is %s\n", getCallTypeString(callType));
    /* Asynchronous work is offered to version-6 blocks only. */
    if (callType != ECI_SYNC && version < ECI_VERSION_ASYNC) {
        TRACE_EXC(1552, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n", block, version);
        return ECI_ERR_INVALID_VERSION;
    }
    int extendMode = (uint16_t)parms->eci_extend_mode;
    if (sendsRequest(callType) && extendMode > ECI_EXTEND_COMMIT && extendMode != ECI_EXTEND_BACKOUT) {
        TRACE_EXC(1553, "clapi_eci.verifyEciParms() Invalid Extend Mode, EciParms=%p, eci_extend_mode=%d\n", block,
                  extendMode);
        return ECI_ERR_INVALID_EXTEND_MODE;
    }
    return ECI_NO_ERROR;
}

/* For every call type, the reply calls too: lengths, the data area and the time-out. */
static int checkDataArea(const EciParms* parms)
{
    const void* block = parms;
    if (parms->eci_commarea_length < 0) {
        TRACE_EXC(1554, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, eci_commarea_length=%d\n", block,
                  parms->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (parms->commarea_inbound_length < 0) {
        TRACE_EXC(1555, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_inbound_length=%d\n",
                  block, parms->commarea_inbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (parms->commarea_outbound_length < 0) {
        TRACE_EXC(1556, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_outbound_length=%d\n",
                  block, parms->commarea_outbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (parms->eci_commarea == NULL && parms->eci_commarea_length != 0) {
        TRACE_EXC(1557, "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea NULL but eci_commarea_length=%d \n",
                  block, parms->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    if (parms->eci_commarea != NULL && parms->eci_commarea_length == 0) {
        TRACE_EXC(1558, "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea not NULL but eci_commarea_length=0\n",
                  block);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    /* A bad time-out is reported with the time-out code, not as a parameter error. */
    if (parms->eci_timeout < 0) {
        TRACE_EXC(1559, "clapi_eci.verifyEciParms() Invalid Timeout, EciParms=%p, eci_timeout=%d\n", block,
                  parms->eci_timeout);
        return ECI_ERR_REQUEST_TIMEOUT;
    }
    return ECI_NO_ERROR;
}

int verifyEciParms(EciParms* parms, int minVersion)
{
    TRACE_ENTRY(1548, "clapi_eci.verifyEciParms(EciParms=%p, minVersion=%d)\n", (void*)parms, minVersion);
    int rc = checkCallShape(parms, minVersion);
    if (rc == ECI_NO_ERROR) rc = checkDataArea(parms);
    TRACE_EXIT(1560, "clapi_eci.verifyEciParms() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

/* ---------------------------------------------------------------- slots */

/* Table lock not held on entry. Unchecked, for the paths that already failed. */
static void discardSlot(GatewayToken* gwTok, RequestSlot* slot)
{
    clapiRequestLock(&gwTok->tableLock);
    slotFree(gwTok->requestTable, slot);
    clapiReleaseLock(&gwTok->tableLock);
}

/*
 * Table lock held on entry. The caller's block goes into the slot while the lock is held, so that reply
 * collectors who look at the slot's copy never see it half written.
 */
static void saveRequest(RequestSlot* slot, const EciParms* parms)
{
    static uint32_t lastSerial = 0;
    memcpy(&slot->request, parms, sizeof(EciParms));
    slot->request.eci_channel = NULL;
    /* A slot last used for ESI must not hand a faulty "ESI" reply the pointer of that earlier caller. */
    slot->esiDetailsPtr = NULL;
    uint32_t serial;   /* never 0, which stands for no request seen yet */
    while ((serial = __atomic_add_fetch(&lastSerial, 1, __ATOMIC_RELAXED)) == 0) {}
    slot->requestSerial = serial;
    /* An asynchronous reply is matched by the qualifier in the copy. */
    if (parms->eci_call_type == ECI_ASYNC) slot->request.eci_message_qualifier = (uint32_t)slot->slotNumber;
}

/* Table lock not held on entry. A free slot, or the one kept for the LUW, with the caller's block saved in it. */
static int reserveSlot(GatewayToken* gwTok, const EciParms* parms, RequestSlot** slotPP)
{
    *slotPP = NULL;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1518, "clapi_eci.performEciExecute() Failed to lock slot table\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int32_t status = connStatusOf(gwTok);
    int rc = status == CONN_OPEN ? slotFind(gwTok->requestTable, parms->eci_luw_token, slotPP)
                                 : connectionEndedRc(status);
    if (rc == 0 && *slotPP != NULL) saveRequest(*slotPP, parms);
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1519, "clapi_eci.performEciExecute() Failed to unlock slot table\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/*
 * Table lock not held on entry. Marks the slot sent, and counts an asynchronous request, in one hold of the
 * table lock, after checking that the connection is still open: the receiver fails every sent slot under the
 * same lock when the connection ends, so a slot marked here is either failed by it or refused here.
 */
static int markSlotSent(GatewayToken* gwTok, RequestSlot* slot, bool isAsync)
{
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        if (isAsync) TRACE_EXC(1525, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
        else TRACE_EXC(1518, "clapi_eci.performEciExecute() Failed to lock slot table\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int32_t status = connStatusOf(gwTok);
    int rc = status == CONN_OPEN ? 0 : connectionEndedRc(status);
    if (rc == 0) {
        slot->slotState = SLOT_SENT;
        if (isAsync) {
            gwTok->asyncRequests++;
            TRACE_DEBUG(1526, "clapi_eci.performEciExecute() Async requests=%d on gwTok=%p\n", gwTok->asyncRequests,
                        (void*)gwTok);
        }
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        if (isAsync) TRACE_EXC(1527, "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
        else TRACE_EXC(1519, "clapi_eci.performEciExecute() Failed to unlock slot table\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Table lock held on entry. A reply collected, or a request withdrawn, is no longer outstanding. */
static void lowerAsyncCount(GatewayToken* gwTok, int id, const char* function)
{
    if (gwTok->asyncRequests > 0) gwTok->asyncRequests--;
    TRACE_DEBUG(id, "clapi_eci.%s() Async requests=%d on gwTok=%p\n", function, gwTok->asyncRequests, (void*)gwTok);
}

/* Table lock held on entry. Takes the slot out of the reply queue; prev is its predecessor, or NULL. */
static void unlinkReply(GatewayToken* gwTok, RequestSlot* slot, RequestSlot* prev)
{
    RequestSlot* next = slot->nextAsyncReply;
    if (prev != NULL) prev->nextAsyncReply = next;
    else gwTok->asyncReplyHead = next;
    if (next == NULL) gwTok->asyncReplyTail = prev;
    slot->nextAsyncReply = NULL;
}

/* Table lock held on entry. True when the slot is queued; prevPP gets its predecessor. */
static bool findInReplyQueue(GatewayToken* gwTok, const RequestSlot* slot, RequestSlot** prevPP)
{
    *prevPP = NULL;
    for (RequestSlot* queued = gwTok->asyncReplyHead; queued != NULL; queued = queued->nextAsyncReply) {
        if (queued == slot) return true;
        *prevPP = queued;
    }
    return false;
}

/* ---------------------------------------------------------------- building and sending a request */

/* The user id and password as NUL-terminated texts, copied from the fixed fields of older blocks. */
typedef struct EciCredentials {
    char userid[ECI_CREDENTIAL_LEN + 1];
    char password[ECI_CREDENTIAL_LEN + 1];
} EciCredentials;

static void fillHeader(FlowHeader* header, int32_t messageId)
{
    memset(header, 0, sizeof *header);
    header->eyecatcher = FLOW_EYECATCHER;
    header->version = FLOW_VERSION;
    header->flowType = FLOW_REQUEST;
    header->messageId = messageId;
    size_t nameLength = strnlen(ECI_REQUEST_NAME, REQUEST_TYPE_AREA);
    memcpy(header->requestType, ECI_REQUEST_NAME, nameLength);
    header->requestTypeLength = (int32_t)nameLength;
}

static bool hasAltTransid(const EciParms* parms)
{
    for (size_t i = 0; i < sizeof parms->eci_alt_transid; i++)
        if (parms->eci_alt_transid[i] != 0) return true;
    return false;
}

static void fillRequest(EciRequest* request, const EciParms* parms)
{
    memset(request, 0, sizeof *request);
    bool alt = hasAltTransid(parms);
    request->requestKind = alt ? ECI_KIND_ALT_TRANSID : ECI_KIND_PROGRAM;
    request->extendMode = parms->eci_extend_mode;
    request->luwToken = parms->eci_luw_token;
    request->timeout = (uint16_t)parms->eci_timeout;
    request->optionalMarker = -1;
    request->correlator = (int32_t)getNextCorrelator();
    memcpy(request->systemName, parms->eci_system_name, sizeof request->systemName);
    memcpy(request->programName, parms->eci_program_name, sizeof request->programName);
    memcpy(request->transid, alt ? parms->eci_alt_transid : parms->eci_transid, sizeof request->transid);
}

/* Version 5 switched the credentials from the fixed fields to the pointer fields. */
static void chooseCredentials(EciRequest* request, const EciParms* parms, EciCredentials* copies)
{
    if (parms->eci_version >= ECI_VERSION_CREDENTIAL_PTRS) {
        TRACE_DEBUG(1521, "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid_ptr and eci_password_ptr\n",
                    parms->eci_version);
        request->userid = parms->eci_userid_ptr;
        request->password = parms->eci_password_ptr;
        return;
    }
    TRACE_DEBUG(1520, "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid and eci_password\n",
                parms->eci_version);
    memcpy(copies->userid, parms->eci_userid, ECI_CREDENTIAL_LEN);
    memcpy(copies->password, parms->eci_password, ECI_CREDENTIAL_LEN);
    copies->userid[ECI_CREDENTIAL_LEN] = '\0';
    copies->password[ECI_CREDENTIAL_LEN] = '\0';
    request->userid = copies->userid;
    request->password = copies->password;
}

/* A length the caller asks for counts when above 0, and never beyond the COMMAREA. */
static int32_t effectiveLength(int16_t wanted, int16_t commareaLength)
{
    if (wanted <= 0) return 0;
    return wanted < commareaLength ? wanted : commareaLength;
}

/* What goes out with the request: the channel, the COMMAREA, or nothing (extend modes 2 and 4). */
static void attachData(EciRequest* request, const EciParms* parms, bool useChannel, RequestSlot* slot)
{
    slot->replyAreaLength = 0;
    if (carriesNoData(parms->eci_extend_mode)) return;
    if (useChannel) {
        request->channel = parms->eci_channel;
        slot->request.eci_channel = parms->eci_channel;
        return;
    }
    request->commarea = parms->eci_commarea;
    request->commareaLength = parms->eci_commarea_length;
    request->inboundLength = effectiveLength(parms->commarea_inbound_length, parms->eci_commarea_length);
    request->outboundLength = effectiveLength(parms->commarea_outbound_length, parms->eci_commarea_length);
    slot->replyAreaLength = (uint32_t)parms->eci_commarea_length;
}

/* The reply of an asynchronous COMMAREA call lands in a buffer of the library's until it is collected. */
static int allocateAsyncCommarea(const EciParms* parms, const EciRequest* request, RequestSlot* slot)
{
    int32_t size = request->inboundLength > 0 ? request->inboundLength : parms->eci_commarea_length;
    void* buffer = calloc(1, size > 0 ? (size_t)size : 1);
    if (buffer == NULL) {
        TRACE_EXC(1522, "clapi_eci.performEciExecute() Failed to allocate %d bytes for async commarea\n", size);
        return ECI_ERR_RESOURCE_SHORTAGE;
    }
    TRACE_DEBUG(1523, "clapi_eci.performEciExecute() Allocated %d bytes for async commarea=%p\n", size, buffer);
    slot->request.eci_commarea = buffer;
    slot->replyAreaLength = (uint32_t)size;
    return 0;
}

/* Releases the library's reply buffer of an asynchronous COMMAREA call, if the slot holds one. */
static void freeAsyncCommarea(RequestSlot* slot)
{
    void* buffer = slot->request.eci_commarea;
    if (buffer == NULL) return;
    TRACE_DEBUG(1544, "clapi_eci.getAsyncReply() Freeing async commarea=%p\n", buffer);
    clapiZeroFree(buffer, slot->replyAreaLength);
    slot->request.eci_commarea = NULL;
    slot->replyAreaLength = 0;
}

/* No lock held on entry; takes the send lock for the whole message. */
static int writeRequest(GatewayToken* gwTok, FlowHeader* header, EciRequest* request)
{
    if (clapiRequestLock(&gwTok->sendLock) != 0) {
        TRACE_EXC(1528, "clapi_eci.performEciExecute() Failed to acquire send lock\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int rc = clapiFlowECIRequest(gwTok->socket, header, request);
    if (clapiReleaseLock(&gwTok->sendLock) != 0) {
        TRACE_EXC(1529, "clapi_eci.performEciExecute() Failed to release send lock\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/*
 * Table lock not held on entry. An asynchronous request whose write failed after it was marked sent. Meanwhile
 * the receiver may have failed and queued it, and a collector may even have consumed it: freed its buffer and
 * slot, lowered the count and unlocked its channel. So everything is decided in one hold of the table lock.
 * True when a collector had consumed it already, or its channel was released: then no channel is left to unlock.
 */
static bool withdrawAsyncRequest(GatewayToken* gwTok, RequestSlot* slot, uint32_t serial)
{
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1530, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
        return false;
    }
    bool ours = slotInTable(gwTok->requestTable, slot) && slot->requestSerial == serial &&
                slot->request.eci_call_type == ECI_ASYNC;
    RequestSlot* prev = NULL;
    bool queued = ours && slot->slotState == SLOT_REPLIED && findInReplyQueue(gwTok, slot, &prev);
    ours = ours && (slot->slotState == SLOT_SENT || queued);
    /* A close of the ended connection may have unlocked the request's channel already. */
    bool channelGone = !ours || slot->request.eci_channel == NULL;
    if (ours) {
        if (queued) unlinkReply(gwTok, slot, prev);
        lowerAsyncCount(gwTok, 1531, "performEciExecute");
        freeAsyncCommarea(slot);
        slotFree(gwTok->requestTable, slot);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0)
        TRACE_EXC(1532, "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
    return channelGone;
}

/* What is left to the caller of a request that could not be sent. */
typedef enum UnsentRequest {
    UNSENT_SLOT_HELD,         /* the slot is still the caller's to free */
    UNSENT_WITHDRAWN,         /* slot and buffer are released; a channel is still the caller's to unlock */
    UNSENT_COLLECTED,         /* everything is released, the channel lock included (by a collector or a close) */
} UnsentRequest;

/*
 * No lock held on entry. Builds the request from the caller's block and writes it. 0 means sent; otherwise
 * *unsent tells what is left to release.
 */
static int sendRequest(GatewayToken* gwTok, const EciParms* parms, bool useChannel, RequestSlot* slot,
                       UnsentRequest* unsent)
{
    bool isAsync = parms->eci_call_type == ECI_ASYNC;
    FlowHeader header;
    EciRequest request;
    EciCredentials copies;
    fillHeader(&header, slot->slotNumber);
    fillRequest(&request, parms);
    chooseCredentials(&request, parms, &copies);
    attachData(&request, parms, useChannel, slot);

    int rc = 0;
    if (isAsync && !useChannel) {
        slot->request.eci_commarea = NULL;
        rc = allocateAsyncCommarea(parms, &request, slot);
    }
    if (rc == 0 && clapiSetEvent(&slot->event) != 0) {
        TRACE_EXC(1524, "clapi_eci.performEciExecute() Failed to set request event in slot\n");
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    *unsent = UNSENT_SLOT_HELD;
    uint32_t serial = slot->requestSerial;
    bool marked = rc == 0 && (rc = markSlotSent(gwTok, slot, isAsync)) == 0;
    if (marked) rc = writeRequest(gwTok, &header, &request);
    if (rc != 0 && marked && isAsync)
        *unsent = withdrawAsyncRequest(gwTok, slot, serial) ? UNSENT_COLLECTED : UNSENT_WITHDRAWN;
    else if (rc != 0 && isAsync && !useChannel)
        freeAsyncCommarea(slot);
    wipe(&copies, sizeof copies, 0);
    return rc;
}

/* ---------------------------------------------------------------- the worker */

/* Table lock not held on entry. The synchronous reply is in: hand back its results, keep or free the slot. */
static int finishSyncCall(GatewayToken* gwTok, EciParms* parms, RequestSlot* slot)
{
    memcpy(parms->eci_abend_code, slot->request.eci_abend_code, sizeof parms->eci_abend_code);
    parms->eci_luw_token = slot->request.eci_luw_token;
    int rc = slot->flowRc != 0 ? slot->flowRc : slot->replyRc;
    bool keep = parms->eci_extend_mode == ECI_EXTEND_LUW && parms->eci_luw_token != 0;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1533, "clapi_eci.performEciExecute() Failed to lock slot table to free slot\n");
        return rc != 0 ? rc : ECI_ERR_SYSTEM_ERROR;
    }
    if (keep) slot->slotState = SLOT_LUW_KEPT;
    else slotFree(gwTok->requestTable, slot);
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1534, "clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* *channelReleased tells a failed asynchronous channel call that a reply collector already unlocked its channel. */
static int executeRequest(GatewayToken* gwTok, EciParms* parms, bool useChannel, bool* channelReleased)
{
    TRACE_ENTRY(1517, "clapi_eci.performEciExecute(gwTok=%p, EciParms=%p, useChannel=%s)\n", (void*)gwTok,
                (void*)parms, TRACE_BOOL(useChannel));
    *channelReleased = false;
    RequestSlot* slot = NULL;
    int rc = reserveSlot(gwTok, parms, &slot);
    if (slot != NULL) {
        bool isSync = parms->eci_call_type == ECI_SYNC;
        uint32_t qualifier = (uint32_t)slot->slotNumber;   /* a withdrawn slot may be gone with its block */
        UnsentRequest unsent = UNSENT_SLOT_HELD;
        if (rc == 0) rc = sendRequest(gwTok, parms, useChannel, slot, &unsent);
        if (rc == 0 && isSync) {
            /* No time limit of our own: the time-out travels to the Gateway, a lost connection fails the slot. */
            rc = clapiWaitEvent(&slot->event);
            if (rc == 0) rc = finishSyncCall(gwTok, parms, slot);
            else discardSlot(gwTok, slot);
        } else {
            if (!isSync) parms->eci_message_qualifier = qualifier;
            if (rc != 0 && unsent == UNSENT_SLOT_HELD) discardSlot(gwTok, slot);
            *channelReleased = unsent == UNSENT_COLLECTED;
        }
    }
    TRACE_EXIT(1535, "clapi_eci.performEciExecute() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

int performEciExecute(GatewayToken* gwTok, EciParms* parms, bool useChannel)
{
    bool channelReleased;
    return executeRequest(gwTok, parms, useChannel, &channelReleased);
}

/* ---------------------------------------------------------------- asynchronous replies */

/*
 * Table lock held on entry. The qualifier must name a slot that carries an asynchronous request. *serial is 0
 * on the first check and receives the request found; a later check also refuses a slot that another request
 * has taken since (the reply was collected by another call).
 */
static int checkQualifier(GatewayToken* gwTok, uint32_t qualifier, uint32_t* serial)
{
    RequestSlot* match = qualifier <= INT32_MAX ? slotNumbered(gwTok->requestTable, (int32_t)qualifier) : NULL;
    if (match == NULL || match->slotState == SLOT_FREE || match->request.eci_call_type != ECI_ASYNC)
        return ECI_ERR_INVALID_MSG_QUAL;
    if (*serial != 0 && match->requestSerial != *serial) return ECI_ERR_INVALID_MSG_QUAL;
    *serial = match->requestSerial;
    if (match->slotState != SLOT_SENT && match->slotState != SLOT_REPLIED) return ECI_ERR_NO_REPLY;
    return 0;
}

/* Table lock held on entry. The oldest queued reply, or the one of the qualifier; prevPP gets its predecessor. */
static RequestSlot* findQueuedReply(GatewayToken* gwTok, bool specific, uint32_t qualifier, RequestSlot** prevPP)
{
    *prevPP = NULL;
    for (RequestSlot* slot = gwTok->asyncReplyHead; slot != NULL; slot = slot->nextAsyncReply) {
        if (!specific || slot->request.eci_message_qualifier == qualifier) return slot;
        *prevPP = slot;
    }
    return NULL;
}

/*
 * Table lock held on entry; *locked tells whether it is still held on return. Finds the reply, waiting for
 * it when the call type says so.
 */
static int awaitQueuedReply(GatewayToken* gwTok, int callType, uint32_t qualifier, RequestSlot** slotPP,
                            RequestSlot** prevPP, bool* locked)
{
    bool specific = callType == ECI_GET_SPECIFIC_REPLY || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    bool wait = callType == ECI_GET_REPLY_WAIT || callType == ECI_GET_SPECIFIC_REPLY_WAIT;
    uint32_t serial = 0;
    for (;;) {
        /* Checked again after every wake: another call may have taken this reply meanwhile. */
        int rc = specific ? checkQualifier(gwTok, qualifier, &serial) : 0;
        if (rc != 0) return rc;
        if (isClosing(gwTok) && gwTok->asyncRequests == 0) return ZEP_ERR_GWTOK_CLOSED;
        *slotPP = findQueuedReply(gwTok, specific, qualifier, prevPP);
        if (*slotPP != NULL) return 0;
        if (!wait) return ECI_ERR_NO_REPLY;
        int32_t status = connStatusOf(gwTok);
        if (status != CONN_OPEN) {
            TRACE_EXC(1562, "clapi_eci.getAsyncReply() Connection status not open\n");
            return connectionEndedRc(status);
        }
        if (clapiSetEvent(&gwTok->asyncReplyEvent) != 0) {
            TRACE_EXC(1541, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
            return ECI_ERR_SYSTEM_ERROR;
        }
        *locked = false;
        if (clapiReleaseLock(&gwTok->tableLock) != 0) {
            TRACE_EXC(1540, "clapi_eci.getAsyncReply() Failed to unlock slot table before waiting\n");
            return ECI_ERR_SYSTEM_ERROR;
        }
        if (clapiWaitEvent(&gwTok->asyncReplyEvent) != 0) {
            TRACE_EXC(1539, "clapi_eci.getAsyncReply() Failed to wait on asyncReplyEvent\n");
            return ECI_ERR_SYSTEM_ERROR;
        }
        if (clapiRequestLock(&gwTok->tableLock) != 0) {
            TRACE_EXC(1538, "clapi_eci.getAsyncReply() Failed to lock slot table after waiting\n");
            return ECI_ERR_SYSTEM_ERROR;
        }
        *locked = true;
    }
}

/* Table lock held on entry. The caller's block and COMMAREA receive the reply. */
static int deliverReply(EciParms* parms, RequestSlot* slot)
{
    void* callerArea = parms->eci_commarea;
    int16_t callerLength = parms->eci_commarea_length;
    memcpy(parms, &slot->request, sizeof(EciParms));
    parms->eci_commarea = callerArea;
    parms->eci_commarea_length = callerLength;
    if (slot->flowRc != 0) return 0;

    int16_t replyLength = slot->request.commarea_inbound_length;
    if (callerLength < replyLength && slot->replyRc == 0) {
        TRACE_EXC(1543, "clapi_eci.getAsyncReply() Caller commarea len=%d is smaller than inbound commarea len=%d\n",
                  callerLength, replyLength);
        /* The reply stays queued so that the caller can ask again with an area of this length. */
        parms->eci_commarea_length = replyLength;
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    void* buffer = slot->request.eci_commarea;
    if (slot->replyRc == 0 && !carriesNoData(slot->request.eci_extend_mode) && buffer != NULL && replyLength > 0)
        memcpy(callerArea, buffer, (size_t)replyLength);
    return 0;
}

/* Table lock held on entry. The reply is consumed: release what the request held. */
static int releaseReply(GatewayToken* gwTok, const EciParms* parms, RequestSlot* slot, RequestSlot* prev)
{
    freeAsyncCommarea(slot);
    lowerAsyncCount(gwTok, 1545, "getAsyncReply");
    unlinkReply(gwTok, slot, prev);

    int rc = slot->flowRc != 0 ? slot->flowRc : slot->replyRc;
    /* Unlike the synchronous path, any LUW token that is not negative keeps the slot. */
    if (slot->flowRc == 0 && parms->eci_extend_mode == ECI_EXTEND_LUW && parms->eci_luw_token >= 0) {
        slot->slotState = SLOT_LUW_KEPT;
        /* The channel is unlocked below and may then be deleted; the kept slot must not point at it. */
        slot->request.eci_channel = NULL;
    } else {
        slotFree(gwTok->requestTable, slot);
    }

    if (parms->eci_channel != NULL && unlockChannel(parms->eci_channel) != 0) {
        TRACE_EXC(1566, "clapi_eci.getAsyncReply() Unlock channel failed\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    /*
     * Every other waiter wakes and looks again: one may wait for exactly this reply and must learn that it is
     * gone, or the token may be closing with nothing left outstanding. Waiters arm the event before they sleep.
     * This call is registered, so the token and its events outlive it.
     */
    if (clapiClearEventOutsideMutex(&gwTok->asyncReplyEvent) != 0) {
        TRACE_EXC(1546, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Table lock held on entry; *locked tells whether it is still held on return. */
static int collectReply(GatewayToken* gwTok, EciParms* parms, bool* locked)
{
    RequestSlot* slot = NULL;
    RequestSlot* prev = NULL;
    int rc = awaitQueuedReply(gwTok, parms->eci_call_type, parms->eci_message_qualifier, &slot, &prev, locked);
    if (rc != 0) return rc;
    TRACE_EVENT(1542, "clapi_eci.getAsyncReply() Async reply found, msg qual=%d\n", slot->slotNumber);
    rc = deliverReply(parms, slot);
    if (rc != 0) return rc;
    return releaseReply(gwTok, parms, slot, prev);
}

int getAsyncReply(GatewayToken* gwTok, EciParms* parms)
{
    TRACE_ENTRY(1536, "clapi_eci.getAsyncReply(gwTok=%p, EciParms=%p)\n", (void*)gwTok, (void*)parms);
    int rc;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1537, "clapi_eci.getAsyncReply() Failed to lock slot table\n");
        rc = ECI_ERR_SYSTEM_ERROR;
    } else {
        bool locked = true;
        rc = collectReply(gwTok, parms, &locked);
        if (locked) clapiReleaseLock(&gwTok->tableLock);
    }
    TRACE_EXIT(1547, "clapi_eci.getAsyncReply() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

/* ---------------------------------------------------------------- the entry points */

/* The trace points and differences of the two entry points, which otherwise share one frame. */
typedef struct EciEntryPoint {
    const char* name;
    int         minVersion;
    bool        useChannel;
    int         idEntry, idNullToken, idNullParms, idClosing, idDumpBefore, idUnregister, idDumpAfter, idExit;
    const char* dumpBeforeFormat;
    const char* dumpAfterFormat;
} EciEntryPoint;

static const EciEntryPoint commareaEntry = {
    "ZEP_ECI_Execute", ECI_VERSION_MIN_COMMAREA, false, 1500, 1501, 1502, 1503, 1504, 1563, 1505, 1506,
    "API.ZEP_ECI_Execute() EciParms=%p len=%d stopword=%8.8X\n",
    "API.ZEP_ECI_Execute EciParms=%p len=%d stopword=%8.8X\n",
};

static const EciEntryPoint channelEntry = {
    "ZEP_ECI_Execute_Channel", ECI_VERSION_MIN_CHANNEL, true, 1507, 1508, 1509, 1512, 1513, 1565, 1515, 1516,
    "API.ZEP_ECI_Execute_Channel() EciParms=%p len=%d stopword=%8.8X\n",
    "API.ZEP_ECI_Execute_Channel() EciParms=%p len=%d stopword=%8.8X\n",
};

/* The block is dumped in place with its password field masked, and the saved password is then overwritten. */
static void dumpEciParms(int id, const char* format, EciParms* parms)
{
    if (TRACE_LEVEL() < 4) return;
    char password[sizeof parms->eci_password];
    memcpy(password, parms->eci_password, sizeof password);
    memset(parms->eci_password, '*', sizeof password);
    clapiTraceData(id, parms, sizeof(EciParms), format, (void*)parms, (int)sizeof(EciParms), 0u);
    memcpy(parms->eci_password, password, sizeof password);
    wipe(password, sizeof password, '*');
}

static void dumpCommarea(const EciParms* parms)
{
    if (parms->eci_commarea_length > 0 && parms->eci_commarea != NULL)
        TRACE_DATA(1561, parms->eci_commarea, (unsigned long)parms->eci_commarea_length,
                   "API.ZEP_ECI_Execute() Commarea=%p len=%d stopword=%8.8X\n", parms->eci_commarea,
                   parms->eci_commarea_length, 0u);
}

/* A channel call names a channel and no COMMAREA. */
static int checkChannelArea(const EciParms* parms)
{
    if (parms->eci_channel == NULL) {
        TRACE_EXC(1510, "API.ZEP_ECI_Execute_Channel() NULL channel, channel=%p\n", (void*)parms->eci_channel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (parms->eci_commarea != NULL) {
        TRACE_EXC(1511, "API.ZEP_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, channel=%p, eci_commarea=%p\n",
                  (void*)parms->eci_channel, parms->eci_commarea);
        return ECI_ERR_COMMAREA_AND_CHANNEL;
    }
    return 0;
}

/* The channel is locked by its owner: character data goes out in the locale's code page unless set. */
static int setChannelCcsid(Channel* channel)
{
    if (channel->ccsid != CCSID_UNSET) return 0;
    int ccsid = CCSID_UNSET;
    int rc = getCurrentCcsid(&ccsid);
    if (rc != 0) return rc;
    clapiRequestLock(&channel->serlock);   /* a dump may be reading the channel */
    channel->ccsid = ccsid;
    clapiReleaseLock(&channel->serlock);
    TRACE_EVENT(1514, "API.ZEP_ECI_Execute_Channel() Channel \"%.16s\" CCSID set to %d\n", channel->name, ccsid);
    return 0;
}

/*
 * The channel belongs to the call from before the request is sent until the reply is in it: a synchronous
 * call releases it here, a sent asynchronous one when its reply is collected.
 */
static int executeWithChannel(GatewayToken* gwTok, EciParms* parms)
{
    Channel* channel = parms->eci_channel;
    bool owns = !carriesNoData(parms->eci_extend_mode);
    int rc = owns ? lockChannel(channel) : 0;
    if (rc != 0) return rc;
    /* Without data the channel is neither sent nor ours: another call may be writing its reply into it. */
    if (owns) rc = setChannelCcsid(channel);
    bool released = false;
    if (rc == 0) rc = executeRequest(gwTok, parms, true, &released);
    if (owns && !released && (parms->eci_call_type == ECI_SYNC || rc != 0) && unlockChannel(channel) != 0) {
        TRACE_EXC(1564, "API.ZEP_ECI_Execute_Channel() Unlock channel failed\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Registered on entry. Checks the block and serves the call. */
static int serveEciCall(const EciEntryPoint* entry, GatewayToken* gwTok, EciParms* parms)
{
    int rc = verifyEciParms(parms, entry->minVersion);
    bool request = sendsRequest(parms->eci_call_type);
    if (rc == 0 && request && entry->useChannel) rc = checkChannelArea(parms);
    if (rc == 0 && request && isClosing(gwTok)) {
        rc = ZEP_ERR_GWTOK_CLOSED;
        TRACE_EXC(entry->idClosing, "API.%s() %s call attempted while connection is closing\n", entry->name,
                  getCallTypeString(parms->eci_call_type));
    }
    dumpEciParms(entry->idDumpBefore, entry->dumpBeforeFormat, parms);
    if (!entry->useChannel) dumpCommarea(parms);
    if (rc != 0) return rc;
    if (!request) return getAsyncReply(gwTok, parms);
    return entry->useChannel ? executeWithChannel(gwTok, parms) : performEciExecute(gwTok, parms, false);
}

static int runEciEntryPoint(const EciEntryPoint* entry, GatewayToken* gwTok, EciParms* parms)
{
    if (gwTok == NULL) {
        TRACE_EXC(entry->idNullToken, "API.%s() NULL gateway token, gwTok=%p\n", entry->name, (void*)gwTok);
        return ZEP_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(gwTok);
    if (rc != 0) return rc;
    if (parms == NULL) {
        TRACE_EXC(entry->idNullParms, "API.%s() NULL Eci Parameter, EciParms=%p\n", entry->name, (void*)parms);
        rc = ZEP_ERR_NULLECIPOINTER;
    } else {
        rc = serveEciCall(entry, gwTok, parms);
    }
    if (clapiUnregisterRequest(gwTok) != 0) {
        TRACE_EXC(entry->idUnregister, "API.%s() Unregister request failed\n", entry->name);
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    if (parms != NULL) dumpEciParms(entry->idDumpAfter, entry->dumpAfterFormat, parms);
    return rc;
}

static int eciFrame(const EciEntryPoint* entry, GatewayToken* gwTok, EciParms* parms)
{
    int rc = clapiInit();
    TRACE_ENTRY(entry->idEntry, "API.%s(gwTok=%p, EciParms=%p)\n", entry->name, (void*)gwTok, (void*)parms);
    if (rc == 0) rc = runEciEntryPoint(entry, gwTok, parms);
    TRACE_EXIT(entry->idExit, "API.%s() rc=%d (%s)\n", entry->name, rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_ECI_Execute(GatewayToken* gwTok, EciParms* parms)
{
    return eciFrame(&commareaEntry, gwTok, parms);
}

int ZEP_ECI_Execute_Channel(GatewayToken* gwTok, EciParms* parms)
{
    return eciFrame(&channelEntry, gwTok, parms);
}
