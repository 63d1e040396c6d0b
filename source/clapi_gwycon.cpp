/* Connecting to a Gateway, the receiver thread that reads every message of a connection, and the close flow. */
#include "clapi_gwycon.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_lock.h"
#include "clapi_socketbuffer.h"
#include "clapi_socketcomms.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_gwycon);

int sockOptOn = 1;
int sockOptOff = 0;
}

static const uint32_t RECEIVE_BUFFER_SIZE = 33000;

/* ---------------------------------------------------------------- connecting */

int closeSocket(int socket)
{
    TRACE_ENTRY(3016, "clapi_gwycon.closeSocket(socket=%lu)\n", (unsigned long)socket);
    int rc = close(socket);
    if (rc != 0) rc = errno;
    TRACE_EXIT(3019, "clapi_gwycon.closeSocket() rc=%d\n", rc);
    return rc;
}

int getHostInfo(const char* address, int port, struct addrinfo** hostInfo)
{
    TRACE_ENTRY(3021, "clapi_gwycon.getHostInfo(address=%s, port=%d, hostInfo=%p)\n", address, port, (void*)hostInfo);
    char service[16];
    snprintf(service, sizeof service, "%d", port);
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_ALL | AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;
    int rc = 0;
    int gaiRc = getaddrinfo(address, service, &hints, hostInfo);
    if (gaiRc != 0) {
        *hostInfo = NULL;
        TRACE_EXC(3023, "clapi_gwycon.getHostInfo() Unable to resolve host (%s:%s): %s (%d)\n", address, service,
                  gai_strerror(gaiRc), gaiRc);
        rc = ZEP_ERR_BADHOST;
    }
    TRACE_EXIT(3024, "clapi_gwycon.getHostInfo() rc=%d\n", rc);
    return rc;
}

/* Whole seconds since `start`, for the retry of a wait that a signal interrupted. */
static int secondsSince(time_t start)
{
    return (int)difftime(time(NULL), start);
}

int waitForConnection(int* socketDescriptorPtr, int* sockError, int connTimeout)
{
    TRACE_ENTRY(3025, "clapi_gwycon.waitForConnection(socketDescriptorPtr=%p, sockError=%p, connTimeout=%d)\n",
                (void*)socketDescriptorPtr, (void*)sockError, connTimeout);
    int sock = *socketDescriptorPtr;
    fd_set writeSet, exceptSet;
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock, &writeSet);
    FD_SET(sock, &exceptSet);
    struct timeval limit = {connTimeout, 0};
    time_t start = time(NULL);
    int rc = 0;
    int ready;
    for (;;) {
        TRACE_DEBUG(3026, "clapi_gwycon.waitForConnection() Calling select() on socketdescriptor %lu\n",
                    (unsigned long)sock);
        ready = select(sock + 1, NULL, &writeSet, &exceptSet, &limit);
        if (ready >= 0 || errno != EINTR) break;
        int elapsed = secondsSince(start);
        limit.tv_sec = elapsed > 0 && elapsed < connTimeout ? connTimeout - elapsed : 1;
        limit.tv_usec = 0;
    }
    if (ready < 0) {
        *sockError = errno;
        TRACE_EXC(3029, "clapi_gwycon.waitForConnection() select call failed: %s (%d)\n", strerror(*sockError),
                  *sockError);
        rc = ZEP_ERR_CONNECTFAILED;
    } else if (ready == 0) {
        TRACE_EXC(3028, "clapi_gwycon.waitForConnection() socket %lu connect timed out\n", (unsigned long)sock);
        rc = ZEP_ERR_CONNECTTIMEOUT;
    } else if (FD_ISSET(sock, &writeSet)) {
        int32_t pending = 0;
        socklen_t length = sizeof pending;
        getsockopt(sock, SOL_SOCKET, SO_ERROR, &pending, &length);
        if (pending != 0) {
            *sockError = pending;
            TRACE_EXC(3027, "clapi_gwycon.waitForConnection() socket %lu connect() failed error: %s (%d)\n",
                      (unsigned long)sock, strerror(pending), pending);
            rc = ZEP_ERR_CONNECTFAILED;
        }
    }
    TRACE_EXIT(3030, "clapi_gwycon.waitForConnection() rc=%d\n", rc);
    return rc;
}

static void storeSocket(GatewayToken* tok, int socket)
{
    __atomic_store_n(&tok->socket, socket, __ATOMIC_RELAXED);
}

/* The socket, its options and the bounded connect to the first address. */
static int connectSocket(GatewayToken* tok, struct addrinfo* address, const char* ipAddr, int port)
{
    TRACE_DEBUG(3001, "clapi_gwycon.clapiConnectToGateway() Creating socket for family %d, type %d, protocol %d\n",
                address->ai_family, address->ai_socktype, address->ai_protocol);
    int sock = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
    storeSocket(tok, sock);
    if (sock < 0) {
        int error = errno;
        TRACE_EXC(3002, "clapi_gwycon.clapiConnectToGateway() Unable to create a socket: %s (%d)\n", strerror(error),
                  error);
        return ZEP_ERR_BADHOST;
    }
    int32_t on = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        TRACE_EXC(3003, "clapi_gwycon.clapiConnectToGateway() Set socket to KeepAlive or NoDelay failed: %lu\n",
                  (unsigned long)sock);
        return ZEP_ERR_CONNECTFAILED;
    }
    TRACE_DEBUG(3004, "clapi_gwycon.clapiConnectToGateway() Created socket: %lu\n", (unsigned long)sock);
    int connTimeout = tok->connTimeout;
    if (connTimeout != 0) ioctl(sock, FIONBIO, &sockOptOn);
    int rc = 0;
    int pending = 0;
    if (connect(sock, address->ai_addr, address->ai_addrlen) != 0) {
        pending = errno;
        if (pending == EINPROGRESS) {
            TRACE_DEBUG(3005, "clapi_gwycon.clapiConnectToGateway() Waiting for connect to complete\n");
            rc = waitForConnection(&sock, &pending, connTimeout);
        } else {
            rc = ZEP_ERR_CONNECTFAILED;
        }
        if (rc != 0) {
            TRACE_EXC(3008, "clapi_gwycon.clapiConnectToGateway() Unable to connect to Gateway: %s (%d)\n",
                      strerror(pending), pending);
            return rc;
        }
    }
    TRACE_DEBUG(3006, "clapi_gwycon.clapiConnectToGateway() Connected to Gateway %s:%u\n", ipAddr, (unsigned)port);
    if (connTimeout != 0) ioctl(sock, FIONBIO, &sockOptOff);
    return 0;
}

/* The receiver thread, then the handshake request. */
static int startConversation(GatewayToken* tok, const char* applid, const char* applidQualifier)
{
    TRACE_DEBUG(3009, "clapi_gwycon.clapiConnectToGateway() Creating receiver thread\n");
    /* Reset before the thread exists, so that a delete never mistakes a starting receiver for an ended one. */
    clapiSetEvent(&tok->recvThreadEndedEvent);
    pthread_t thread;
    int threadRc = pthread_create(&thread, NULL, receiverThread, tok);
    if (threadRc != 0) {
        clapiClearEvent(&tok->recvThreadEndedEvent);
        TRACE_EXC(3014, "clapi_gwycon.clapiConnectToGateway() Failed to create receiver thread, rc=%d\n", threadRc);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = clapiFlowHandshakeRequest(tok->socket, applid, applidQualifier);
    if (rc != 0) {
        TRACE_EXC(3007, "clapi_gwycon.clapiConnectToGateway() Handshake flow failed rc=%d (%s)\n", rc,
                  clapiGetRcString(rc));
        /* Wake the receiver so that it ends; the descriptor is closed when the token is freed. */
        shutdown(tok->socket, SHUT_RDWR);
        return ZEP_ERR_CONNECTFAILED;
    }
    return 0;
}

/* The receiver thread reports the handshake reply, or its own end, through connEvent. */
static int awaitHandshake(GatewayToken* tok)
{
    TRACE_DEBUG(3010, "clapi_gwycon.clapiConnectToGateway() Waiting for handshake response\n");
    int rc = clapiWaitEvent(&tok->connEvent);
    if (__atomic_load_n(&tok->connStatus, __ATOMIC_RELAXED) != CONN_OPEN) {
        rc = __atomic_load_n(&tok->connRc, __ATOMIC_RELAXED);
        TRACE_EXC(3012, "clapi_gwycon.clapiConnectToGateway() Handshake flow returned an error: %d\n", rc);
    }
    return rc;
}

int clapiConnectToGateway(int port, const char* ipAddr, GatewayToken* gwTokPtr, const char* applid,
                          const char* applidQualifier)
{
    TRACE_ENTRY(3000, "clapi_gwycon.clapiConnectToGateway(port=%d, ipAddr=%p, gwTokPtr=%p, connTimeout=%d, applid=%s, applidQualifier=%s)\n",
                port, (void*)ipAddr, (void*)gwTokPtr, gwTokPtr->connTimeout, TRACE_STR(applid),
                TRACE_STR(applidQualifier));
    struct addrinfo* hostInfo = NULL;
    int rc = getHostInfo(ipAddr, port, &hostInfo);
    if (rc == 0) {
        /* A failed connect leaves the socket with the token, whose deletion closes it. */
        rc = connectSocket(gwTokPtr, hostInfo, ipAddr, port);
        if (rc == 0) {
            rc = startConversation(gwTokPtr, applid, applidQualifier);
            if (rc == 0) rc = awaitHandshake(gwTokPtr);
        }
        freeaddrinfo(hostInfo);
    }
    TRACE_EXIT(3007, "clapi_gwycon.clapiConnectToGateway() rc=%d\n", rc);
    return rc;
}

/* ---------------------------------------------------------------- the close flow */

// No connection lock held on entry.
int clapiCloseConnection(GatewayToken* conn)
{
    TRACE_ENTRY(3015, "clapi_gwycon.clapiCloseConnection(conn=%p)\n", (void*)conn);
    int rc;
    if (clapiRequestLock(&conn->sendLock) != 0) {
        TRACE_EXC(3017, "clapi_gwycon.clapiCloseConnection() Failed to acquire send lock\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        rc = clapiFlowCloseRequest(conn->socket);
        if (clapiReleaseLock(&conn->sendLock) != 0) {
            TRACE_EXC(3018, "clapi_gwycon.clapiCloseConnection() Failed to release send lock\n");
            if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    TRACE_EXIT(3020, "clapi_gwycon.clapiCloseConnection() rc=%d\n", rc);
    return rc;
}

/* ---------------------------------------------------------------- the receiver thread */

/* What one receiver thread carries from message to message. */
struct Receiver {
    GatewayToken* tok;
    SocketBuffer  sb;
    FlowHeader    header;
    int32_t       failRc;       /* the code with which waiting requests are failed at the end */
    bool          handshaken;
    bool          closed;       /* a close flow came: the status changes when the waiting requests are failed */
};

static int32_t loadConnStatus(GatewayToken* tok)
{
    return __atomic_load_n(&tok->connStatus, __ATOMIC_RELAXED);
}

static void storeConnStatus(GatewayToken* tok, int32_t status)
{
    __atomic_store_n(&tok->connStatus, status, __ATOMIC_RELAXED);
}

// Table lock held on entry. Runs on the receiver thread.
static void deliverSlotLocked(GatewayToken* tok, RequestSlot* slot, int32_t code)
{
    bool queued = slot->slotState == SLOT_REPLIED;   /* a second failure must not queue it twice */
    slot->slotState = SLOT_REPLIED;
    slot->flowRc = code;
    if (slot->request.eci_call_type == ECI_ASYNC && !queued) {
        slot->nextAsyncReply = NULL;
        if (tok->asyncReplyTail != NULL && tok->asyncReplyHead != NULL)
            tok->asyncReplyTail->nextAsyncReply = slot;
        else
            tok->asyncReplyHead = slot;
        tok->asyncReplyTail = slot;
        /* The token's events are deleted only once this thread has ended. */
        clapiClearEventOutsideMutex(&tok->asyncReplyEvent);
    }
    /* The slot and its event are freed only under the table lock, which is held here. */
    clapiClearEventOutsideMutex(&slot->event);
}

/*
 * Runs on the receiver thread. A free slot has no event to signal and no requester; it is left alone. The reply's
 * LUW token goes into the request copy under the table lock, because slotFind matches tokens under that lock.
 */
static void deliverSlot(GatewayToken* tok, RequestSlot* slot, int32_t code, int32_t luwToken)
{
    if (slot == NULL) return;
    clapiRequestLock(&tok->tableLock);
    if (slot->slotState != SLOT_FREE) {
        slot->request.eci_luw_token = luwToken;
        deliverSlotLocked(tok, slot, code);
    }
    clapiReleaseLock(&tok->tableLock);
}

/*
 * Runs on the receiver thread. Takes the table lock and finds the request that awaits this message id; *slot is
 * NULL when none does. True when the lock is held: the caller delivers and releases with releaseWaitingSlot, so
 * that the owner cannot free the slot (and perhaps its block with it) between the lookup and the delivery.
 */
static bool holdWaitingSlot(GatewayToken* tok, int32_t messageId, RequestSlot** slot)
{
    *slot = NULL;
    if (clapiRequestLock(&tok->tableLock) != 0) {
        TRACE_EXC(3039, "clapi_gwycon.receiverThread() Failed to acquire table lock\n");
        return false;
    }
    if (slotLookup(tok->requestTable, messageId, slot) != 0) *slot = NULL;
    return true;
}

// Table lock held on entry when `held`. Runs on the receiver thread. Delivers the slot, if any, and releases.
static void releaseWaitingSlot(GatewayToken* tok, bool held, RequestSlot* slot, int32_t code)
{
    if (!held) return;
    if (slot != NULL) deliverSlotLocked(tok, slot, code);
    if (clapiReleaseLock(&tok->tableLock) != 0)
        TRACE_EXC(3040, "clapi_gwycon.receiverThread() Failed to release table lock\n");
}

// Runs on the receiver thread. Finds the slot for a message id under the table lock; returns the lookup's rc.
static int lookupSlot(GatewayToken* tok, int32_t messageId, RequestSlot** slot)
{
    if (clapiRequestLock(&tok->tableLock) != 0) {
        TRACE_EXC(3039, "clapi_gwycon.receiverThread() Failed to acquire table lock\n");
        *slot = NULL;
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = slotLookup(tok->requestTable, messageId, slot);
    if (clapiReleaseLock(&tok->tableLock) != 0) {
        TRACE_EXC(3040, "clapi_gwycon.receiverThread() Failed to release table lock\n");
        if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// Runs on the receiver thread. Decodes an ECI reply into the waiting request's own storage; *luwToken receives
// the reply's LUW token, which the delivery stores.
static int readEciReply(Receiver* r, RequestSlot* slot, int32_t* luwToken)
{
    EciRequest reply;
    memset(&reply, 0, sizeof reply);
    reply.commarea = slot->request.eci_commarea;
    reply.extendMode = slot->request.eci_extend_mode;
    reply.channel = slot->request.eci_channel;
    reply.commareaCapacity = slot->replyAreaLength;
    reply.growableArea = slot->request.eci_call_type == ECI_ASYNC;
    /* The request holds the channel; its serlock keeps a dump from walking containers the reply changes. */
    if (reply.channel != NULL) clapiRequestLock(&reply.channel->serlock);
    int rc = clapiReadECIResponse(&r->sb, &reply);
    if (reply.channel != NULL) clapiReleaseLock(&reply.channel->serlock);
    slot->request.eci_commarea = reply.commarea;   /* an asynchronous reply may have moved to a larger buffer */
    slot->replyAreaLength = reply.commareaCapacity;
    if (rc != 0) return rc;
    memcpy(slot->request.eci_abend_code, reply.abendCode, sizeof reply.abendCode);
    slot->request.commarea_inbound_length = (int16_t)reply.inboundLength;
    *luwToken = reply.requestKind == ECI_KIND_SYSTEMS ? reply.replyToken : reply.luwToken;
    slot->replyRc = reply.returnCode;
    if (reply.returnCode != 0)
        TRACE_EXC(3043, "clapi_gwycon.receiverThread() Gateway returned ECI error, rc=%d (%s)\n", reply.returnCode,
                  clapiGetRcStringECI(reply.returnCode));
    return 0;
}

// Runs on the receiver thread. A reply cut short ends the connection; nothing of it reaches the caller.
static int readEsiReply(Receiver* r, RequestSlot* slot)
{
    EsiReply reply;
    memset(&reply, 0, sizeof reply);
    int rc = clapiReadESIResponse(&r->sb, &reply);
    if (r->sb.errorCode != 0) return rc != 0 ? rc : ZEP_ERR_SYSTEM_ERROR;
    slot->replyRc = reply.returnCode;
    if (reply.returnCode != 0)
        TRACE_EXC(3044, "clapi_gwycon.receiverThread() Gateway returned ESI error, rc=%d (%s)\n", reply.returnCode,
                  clapiGetRcStringESI(reply.returnCode));
    else if (slot->esiDetailsPtr != NULL)
        memcpy(slot->esiDetailsPtr, &reply.details, sizeof(EsiDetails));
    return 0;
}

static bool requestTypeIs(const FlowHeader* header, const char* name)
{
    return strncmp(header->requestType, name, (size_t)header->requestTypeLength) == 0;
}

// Runs on the receiver thread. A reply that matches no waiting request ends the whole connection.
static int handleReply(Receiver* r)
{
    TRACE_DEBUG(3038, "clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, request type %s\n",
                r->header.requestType);
    RequestSlot* slot;
    int rc = lookupSlot(r->tok, r->header.messageId, &slot);
    if (rc != 0) return rc;
    int32_t code = r->header.returnCode;
    int32_t luwToken = slot->request.eci_luw_token;
    if (requestTypeIs(&r->header, ECI_REQUEST_NAME)) {
        if ((rc = readEciReply(r, slot, &luwToken)) != 0) return rc;
    } else if (requestTypeIs(&r->header, ESI_REQUEST_NAME)) {
        if ((rc = readEsiReply(r, slot)) != 0) return rc;
    } else {
        TRACE_EXC(3042, "clapi_gwycon.receiverThread() Gateway returned unexpected request type %s\n",
                  r->header.requestType);
        code = ZEP_ERR_SYSTEM_ERROR;
    }
    deliverSlot(r->tok, slot, code, luwToken);
    return 0;
}

// Runs on the receiver thread. Only a request that awaits its reply takes the error: one still being sent does not.
static int handleError(Receiver* r)
{
    RequestSlot* slot = NULL;
    bool held = r->header.messageId != MSGID_HANDSHAKE && holdWaitingSlot(r->tok, r->header.messageId, &slot);
    TRACE_EXC(3036, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_ERROR, rc=%d (%s)\n",
              r->header.returnCode, clapiGetRcString(r->header.returnCode));
    if (r->header.messageId == MSGID_HANDSHAKE) return r->header.returnCode;
    releaseWaitingSlot(r->tok, held, slot, r->header.returnCode);
    return 0;
}

// Runs on the receiver thread.
static int handleException(Receiver* r)
{
    TRACE_EXC(3037, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_EXCEPTION\n");
    readByte(&r->sb);
    uint16_t length = (uint16_t)readShort(&r->sb);
    char* text = (char*)malloc(length > 0 ? length : 1);
    if (text != NULL) {
        readBytes(&r->sb, text, length);
        TRACE_EXC(3046, "clapi_gwycon.receiverThread() Exception message: %.*s\n", (int)length, text);
        free(text);
    }
    RequestSlot* slot = NULL;
    bool held = holdWaitingSlot(r->tok, r->header.messageId, &slot);
    if (text == NULL) {
        releaseWaitingSlot(r->tok, held, NULL, 0);
        TRACE_EXC(3045, "clapi_gwycon.receiverThread() Failed to allocate %d bytes for exception message\n",
                  (int)length);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    releaseWaitingSlot(r->tok, held, slot, ZEP_ERR_GATEWAY_EXCEPTION);
    return 0;
}

// Runs on the receiver thread.
static int dispatchFlow(Receiver* r)
{
    switch (r->header.flowType) {
    case FLOW_REPLY:
        return handleReply(r);
    case FLOW_ERROR:
        return handleError(r);
    case FLOW_HANDSHAKE:
        TRACE_DEBUG(3034, "clapi_gwycon.receiverThread() Flow type is FLOW_HANDSHAKE\n");
        r->handshaken = true;
        storeConnStatus(r->tok, CONN_OPEN);
        clapiClearEvent(&r->tok->connEvent);
        return 0;
    case FLOW_EXCEPTION:
        return handleException(r);
    case FLOW_PING:
        TRACE_DEBUG(3033, "clapi_gwycon.receiverThread() Flow type is FLOW_PING\n");
        return 0;
    case FLOW_CLOSE:
        TRACE_DEBUG(3035, "clapi_gwycon.receiverThread() Flow type is FLOW_CLOSE\n");
        return 0;
    default:
        return 0;
    }
}

// Runs on the receiver thread.
static void noteCloseFlow(Receiver* r)
{
    bool byApi = __atomic_load_n(&r->tok->closing, __ATOMIC_RELAXED) != 0;
    r->failRc = byApi ? ZEP_ERR_GWTOK_CLOSED : ZEP_ERR_GATEWAY_CLOSED;
    TRACE_EVENT(3042, "clapi_gwycon.receiverThread() Connection closed, initiated by %s; closeRc=%d (%s)\n",
                byApi ? "API" : "Gateway", r->failRc, clapiGetRcString(r->failRc));
    r->closed = true;
}

// Runs on the receiver thread. Reads and handles one message; 0 to go on, else the code that ends the connection.
static int receiveOne(Receiver* r, int waitLimit)
{
    TRACE_DEBUG(3032, "clapi_gwycon.receiverThread() Waiting for a reply\n");
    /* Traced reads show each message's reads as they happen. Untraced, one recv takes whatever has arrived and
       the messages in it are decoded without waiting again; the handshake reply keeps its time limit. */
    r->sb.readAhead = waitLimit == 0 && TRACE_LEVEL() < 3;
    int rc = 0;
    if (r->sb.readAhead == 0 && r->sb.bytesAhead == 0) rc = waitForResponse(&r->sb, waitLimit);
    if (rc == 0) rc = clapiReadHeader(&r->sb, &r->header);
    if (rc != 0) return rc;
    if (r->header.messageId == MSGID_CLOSE) {
        noteCloseFlow(r);
        return 0;
    }
    r->sb.bytesRemaining += (uint32_t)r->header.payloadLength - r->sb.bytesInBuffer;
    if ((rc = fillBuffer(&r->sb)) != 0) return rc;
    if ((rc = dispatchFlow(r)) != 0) return rc;
    /* Whatever a handler left unread of a long message must not be taken for the next header. */
    if (r->sb.bytesRemaining > 0 && r->sb.errorCode == 0) skipBytes(&r->sb, r->sb.bytesInBuffer + r->sb.bytesRemaining);
    return 0;
}

// Runs on the receiver thread.
static int receiveLoop(Receiver* r)
{
    int waitLimit = r->tok->connTimeout;   /* only the handshake reply is awaited with a limit */
    int rc = 0;
    while (rc == 0 && !r->closed) {
        int32_t status = loadConnStatus(r->tok);
        if (status != CONN_CONNECTING && status != CONN_OPEN) break;
        rc = receiveOne(r, waitLimit);
        waitLimit = 0;
    }
    return rc;
}

// Table lock held on entry. Runs on the receiver thread.
static void failWaitingRequests(Receiver* r)
{
    for (RequestSlot* slot = r->tok->requestTable; slot != NULL; slot = slot->nextSlot)
        if (slot->slotState == SLOT_SENT) deliverSlotLocked(r->tok, slot, r->failRc);
}

/*
 * Runs on the receiver thread. Records how the connection ended and fails every request still waiting, in one
 * hold of the table lock: a reply waiter that sees the status change also finds its failed request queued.
 */
static void endConnection(Receiver* r, int loopRc)
{
    GatewayToken* tok = r->tok;
    freeBuffer(&r->sb);
    clapiRequestLock(&tok->tableLock);
    int32_t status = loadConnStatus(tok);
    if (!r->closed) {
        __atomic_store_n(&tok->connRc, loopRc, __ATOMIC_RELAXED);
        storeConnStatus(tok, status == CONN_OPEN ? CONN_LOST : CONN_FAILED);
        clapiClearEvent(&tok->connEvent);
    } else {
        storeConnStatus(tok, CONN_CLOSED);
        if (!r->handshaken) {
            /* Closed before the handshake reply: the opener must still learn of it. */
            __atomic_store_n(&tok->connRc, r->failRc, __ATOMIC_RELAXED);
            clapiClearEvent(&tok->connEvent);
        }
    }
    /* Shut the socket once the status tells of the end and before the waiting requests learn of it: a sender
       still queued for the send lock must then fail its write, whoever collects its failed request first. */
    if (tok->socket != -1) shutdown(tok->socket, SHUT_RDWR);
    if (loadConnStatus(tok) != CONN_FAILED) {
        failWaitingRequests(r);
        /* Reply collectors waiting with nothing outstanding must wake and see the connection gone. */
        clapiClearEvent(&tok->asyncReplyEvent);
        /* A close that waits for asynchronous requests must learn that no reply can arrive any more. */
        clapiClearEvent(&tok->requestsEnded);
    }
    clapiReleaseLock(&tok->tableLock);
}

void* receiverThread(void* conn)
{
    TRACE_ENTRY(3031, "clapi_gwycon.receiverThread(conn=%p)\n", conn);
    pthread_detach(pthread_self());
    Receiver r;
    memset(&r, 0, sizeof r);
    r.tok = (GatewayToken*)conn;
    r.failRc = ZEP_ERR_LOSTGWCON;
    int rc = initReadBuffer(&r.sb, r.tok->socket, RECEIVE_BUFFER_SIZE);
    if (rc != 0) {
        /* Without a read buffer there is no connection; the opener still waits to be told. */
        __atomic_store_n(&r.tok->connRc, rc, __ATOMIC_RELAXED);
        storeConnStatus(r.tok, CONN_FAILED);
        clapiClearEvent(&r.tok->connEvent);
    } else {
        endConnection(&r, receiveLoop(&r));
    }
    /* Senders may still be queued for the send lock: they must fail on this socket, not write to a descriptor
       that another connection reuses. The descriptor is closed when the token is freed. */
    if (r.tok->socket != -1) shutdown(r.tok->socket, SHUT_RDWR);
    clapiClearEvent(&r.tok->recvThreadEndedEvent);
    TRACE_EXIT(3041, "clapi_gwycon.receiverThread(conn=%p)\n", conn);
    return NULL;
}
