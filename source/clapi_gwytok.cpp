/*
 * Gateway tokens and the token list, the request slot table of each token, and the creation, closing
 * and deletion of tokens.
 */
#include "clapi_gwytok.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "clapi_channel.h"
#include "clapi_diag.h"
#include "clapi_gwycon.h"
#include "clapi_impl.h"
#include "clapi_lock.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_gwytok);

GatewayToken* gtListHeadPtr;
GatewayToken* gtListTailPtr;
}

static const char RULE_LINE[] =
    "--------------------------------------------------------------------------------\n";

/* ---------------------------------------------------------------- fields shared with the receiver thread */

static int32_t loadConnStatus(GatewayToken* tok)
{
    return __atomic_load_n(&tok->connStatus, __ATOMIC_RELAXED);
}

static int32_t loadClosing(GatewayToken* tok)
{
    return __atomic_load_n(&tok->closing, __ATOMIC_RELAXED);
}

static void storeClosing(GatewayToken* tok, int32_t value)
{
    __atomic_store_n(&tok->closing, value, __ATOMIC_RELAXED);
}

/* apiCalls changes under gtlLock, but the quiesce reads it while holding only the table lock. */
static int32_t loadApiCalls(GatewayToken* tok)
{
    return __atomic_load_n(&tok->apiCalls, __ATOMIC_RELAXED);
}

static void storeApiCalls(GatewayToken* tok, int32_t value)
{
    __atomic_store_n(&tok->apiCalls, value, __ATOMIC_RELAXED);
}

/* False once the receiver thread has failed every waiting request: no reply can arrive any more. */
static bool receiverRuns(GatewayToken* tok)
{
    int32_t status = loadConnStatus(tok);
    return status == CONN_CONNECTING || status == CONN_OPEN;
}

/* Takes and releases the table lock; the caller holds no lock or only gtlLock. */
static int32_t readAsyncRequests(GatewayToken* tok)
{
    clapiRequestLock(&tok->tableLock);
    int32_t count = tok->asyncRequests;
    clapiReleaseLock(&tok->tableLock);
    return count;
}

/* ---------------------------------------------------------------- the token list */

// gtlLock held on entry.
int findGatewayToken(GatewayToken* targetToken, GatewayToken** parentTokenPtrPtr)
{
    if (targetToken == NULL) {
        TRACE_EXC(2048, "clapi_gwytok.findGatewayToken() Token null\n");
        return FIND_TOKEN_NULL;
    }
    if (gtListHeadPtr == NULL) {
        TRACE_DEBUG(2047, "clapi_gwytok.findGatewayToken() GTL is EMPTY\n");
        return FIND_TOKEN_MISSING;
    }
    /* The entry number counts the steps taken past the second token. */
    int entry = 0;
    GatewayToken* previous = NULL;
    GatewayToken* token = gtListHeadPtr;
    while (token != NULL && token != targetToken) {
        if (previous != NULL) entry++;
        previous = token;
        token = token->nextGwyTokPtr;
    }
    if (token == NULL) {
        TRACE_DEBUG(2045, "clapi_gwytok.findGatewayToken() Token not found. GTL entries(%d) head(%p) last(%p)\n", entry,
                    (void*)gtListHeadPtr, (void*)gtListTailPtr);
        return FIND_TOKEN_MISSING;
    }
    TRACE_DEBUG(2046, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(%d)\n", entry);
    if (parentTokenPtrPtr != NULL) *parentTokenPtrPtr = previous;
    return FIND_TOKEN_FOUND;
}

int clapiRegisterRequest(GatewayToken* gwTokPtr)
{
    TRACE_ENTRY(2020, "clapi_gwytok.clapiRegisterRequest(gwTokPtr=%p)\n", (void*)gwTokPtr);
    int rc = 0;
    if (clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2021, "clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        int findRc = findGatewayToken(gwTokPtr, NULL);
        if (findRc == FIND_TOKEN_FOUND && loadClosing(gwTokPtr) && !receiverRuns(gwTokPtr)) {
            /* Its close only waits for the calls in progress before it frees the token: no new call may begin. */
            rc = ZEP_ERR_GWTOK_CLOSED;
        } else if (findRc == FIND_TOKEN_FOUND) {
            storeApiCalls(gwTokPtr, loadApiCalls(gwTokPtr) + 1);
            TRACE_EVENT(2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n",
                        loadApiCalls(gwTokPtr), (void*)gwTokPtr);
        } else {
            TRACE_EXC(2022, "clapi_gwytok.clapiRegisterRequest() Gateway token=%p not found, findRc=%d\n",
                      (void*)gwTokPtr, findRc);
            rc = ZEP_ERR_BADGWTOK;
        }
        clapiReleaseLock(&gtlLock);
    }
    TRACE_EXIT(2024, "clapi_gwytok.clapiRegisterRequest() rc=%d\n", rc);
    return rc;
}

int clapiUnregisterRequest(GatewayToken* gwTokPtr)
{
    TRACE_ENTRY(2025, "clapi_gwytok.clapiUnregisterRequest(gwTokPtr=%p)\n", (void*)gwTokPtr);
    int rc = 0;
    if (clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2026, "clapi_gwytok.clapiUnregisterRequest() Failed to lock Gateway token list\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        int32_t calls = loadApiCalls(gwTokPtr) - 1;
        storeApiCalls(gwTokPtr, calls);
        if (calls == 0 && readAsyncRequests(gwTokPtr) == 0) clapiClearEvent(&gwTokPtr->requestsEnded);
        TRACE_EVENT(2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n", calls,
                    (void*)gwTokPtr);
        clapiReleaseLock(&gtlLock);
    }
    TRACE_EXIT(2028, "clapi_gwytok.clapiUnregisterRequest() rc=%d\n", rc);
    return rc;
}

int clapiFormatGatewayToken(GatewayToken* gwTokPtr, char* buffer)
{
    if (buffer == NULL) return ZEP_ERR_NULLPARM;
    if (gwTokPtr == NULL) {
        strcpy(buffer, "GatwayToken(NULL)");
        return 0;
    }
    sprintf(buffer,
            "GatwayToken(%p) eyecatcher(%8.8s) port(%d) connStatus(%d) socket(%d) applid(%s) applidQual(%s) "
            "nextGwyTokPtr(%p)",
            (void*)gwTokPtr, gwTokPtr->eyecatcher, gwTokPtr->port, loadConnStatus(gwTokPtr),
            __atomic_load_n(&gwTokPtr->socket, __ATOMIC_RELAXED), gwTokPtr->applid, gwTokPtr->applidQual,
            (void*)gwTokPtr->nextGwyTokPtr);
    return 0;
}

// gtlLock and the trace lock held on entry. Returns the number of tokens listed.
static int writeTokenList(void)
{
    FILE* out = clientAPITraceHandle;
    char line[GWTOK_FORMAT_LEN];
    int count = 0;
    fprintf(out, "Gateway Token List dump\n%s", RULE_LINE);
    for (GatewayToken* token = gtListHeadPtr; token != NULL; token = token->nextGwyTokPtr) {
        clapiFormatGatewayToken(token, line);
        fprintf(out, "Gateway Token List entry -%4.4d- : %s\n", ++count, line);
    }
    if (count > 0)
        fprintf(out, "Total number of Gateway Token List entries=%d\n", count);
    else
        fprintf(out, "The Gateway Token List is EMPTY\n");
    fputs(RULE_LINE, out);
    fflush(out);
    return count;
}

int clapiDumpGatewayTokens(void)
{
    TRACE_ENTRY(2038, "clapi_gwytok.clapiDumpGatewayTokens()\n");
    clapiRequestLock(&gtlLock);
    clapiRequestLock(&traceLock);
    int count = writeTokenList();
    clapiReleaseLock(&traceLock);
    int rc = clapiReleaseLock(&gtlLock);
    TRACE_EXIT(2039, "clapi_gwytok.clapiDumpGatewayTokens() List length=%d\n", count);
    return rc;
}

/* ---------------------------------------------------------------- the request slot table */

static RequestSlot* blockStart(RequestSlot* slot)
{
    return slot - (slot->slotNumber - 1) % SLOTS_PER_TABLE;
}

static int32_t blockOf(int32_t slotNumber)
{
    return (slotNumber - 1) / SLOTS_PER_TABLE;
}

/*
 * A table that has grown past its first block lists its blocks by position, so that a reply's slot is reached
 * at once and a new request starts at the first block that may have a free slot, however many are in flight.
 */
struct SlotIndex {
    RequestSlot** blocks;      /* blocks[0] is the table's first block */
    int32_t       count;
    int32_t       capacity;
    int32_t       firstOpen;   /* every block before this one is full */
};

static int32_t blockCount(RequestSlot* requestTableP)
{
    return requestTableP->tableIndex != NULL ? requestTableP->tableIndex->count : 1;
}

/* A table without an index has only its first block, at position 0. */
static RequestSlot* blockAt(RequestSlot* requestTableP, int32_t position)
{
    return requestTableP->tableIndex != NULL ? requestTableP->tableIndex->blocks[position] : requestTableP;
}

static void releaseIndex(RequestSlot* requestTableP)
{
    SlotIndex* index = requestTableP->tableIndex;
    if (index == NULL) return;
    free(index->blocks);
    free(index);
    requestTableP->tableIndex = NULL;
}

// Table lock held on entry. Lists `block` after the table's last one; false when no memory is left.
static bool indexBlock(RequestSlot* requestTableP, RequestSlot* block)
{
    SlotIndex* index = requestTableP->tableIndex;
    if (index == NULL) {
        if ((index = (SlotIndex*)calloc(1, sizeof *index)) == NULL) return false;
        index->count = 1;
        requestTableP->tableIndex = index;
    }
    if (index->count >= index->capacity) {
        int32_t capacity = index->capacity > 0 ? 2 * index->capacity : 8;
        RequestSlot** blocks = (RequestSlot**)realloc(index->blocks, (size_t)capacity * sizeof *blocks);
        if (blocks == NULL) {
            if (index->count == 1) releaseIndex(requestTableP);
            return false;
        }
        blocks[0] = requestTableP;
        index->blocks = blocks;
        index->capacity = capacity;
    }
    index->blocks[index->count] = block;
    index->firstOpen = index->count++;
    return true;
}

// Table lock held on entry. Forgets the last block; a table back to one block needs no index.
static void unindexLastBlock(RequestSlot* requestTableP)
{
    SlotIndex* index = requestTableP->tableIndex;
    if (--index->count == 1) {
        releaseIndex(requestTableP);
    } else if (index->firstOpen >= index->count) {
        index->firstOpen = index->count - 1;
    }
}

/* Numbers and links a block of free slots that continues the chain after `previous` (NULL for the first). */
static void initSlotBlock(RequestSlot* block, RequestSlot* previous)
{
    int32_t number = previous != NULL ? previous->slotNumber : 0;
    for (int i = 0; i < SLOTS_PER_TABLE; i++) {
        memcpy(block[i].eyecatcher, EYE_RSLOT, EYE_LEN);
        block[i].slotState = SLOT_FREE;
        block[i].slotNumber = ++number;
        block[i].nextSlot = i + 1 < SLOTS_PER_TABLE ? &block[i + 1] : NULL;
    }
    if (previous != NULL) previous->nextSlot = block;
}

// Table lock held on entry. Returns the first slot of a new block chained after the last one, or NULL.
static RequestSlot* addSlotBlock(RequestSlot* requestTableP)
{
    RequestSlot* block = (RequestSlot*)calloc(SLOTS_PER_TABLE, sizeof(RequestSlot));
    if (block == NULL || !indexBlock(requestTableP, block)) {
        free(block);
        TRACE_EXC(2054, "clapi_gwytok.slotFind() Failed to create new slot table\n");
        return NULL;
    }
    int32_t count = blockCount(requestTableP);
    initSlotBlock(block, &blockAt(requestTableP, count - 2)[SLOTS_PER_TABLE - 1]);
    TRACE_DEBUG(2053, "clapi_gwytok.slotFind() Created new slot table at slotP=%p, first=%d, last=%d\n", (void*)block,
                block[0].slotNumber, block[SLOTS_PER_TABLE - 1].slotNumber);
    return block;
}

/* Table lock held on entry. The lowest free slot, from a new block when every block is full; NULL for no memory. */
static RequestSlot* lowestFreeSlot(RequestSlot* requestTableP)
{
    SlotIndex* index = requestTableP->tableIndex;
    for (int32_t position = index != NULL ? index->firstOpen : 0; position < blockCount(requestTableP); position++) {
        RequestSlot* block = blockAt(requestTableP, position);
        if (block->blockSlotsInUse == SLOTS_PER_TABLE) continue;
        if (index != NULL) index->firstOpen = position;
        for (int i = 0; i < SLOTS_PER_TABLE; i++)
            if (block[i].slotState == SLOT_FREE) return &block[i];
    }
    return addSlotBlock(requestTableP);
}

// Table lock held on entry.
static int allocateSlot(RequestSlot* requestTableP, RequestSlot** requestSlotPP)
{
    RequestSlot* slot = lowestFreeSlot(requestTableP);
    if (slot == NULL) return ZEP_ERR_MALLOCFAIL;
    TRACE_DEBUG(2055, "clapi_gwytok.slotFind() Allocated slot %d for request\n", slot->slotNumber);
    if (clapiCreateEvent(&slot->event) != 0) {
        TRACE_EXC(2065, "clapi_gwytok.slotFind() Create event failed\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    slot->slotState = SLOT_ALLOCATED;
    blockStart(slot)->blockSlotsInUse++;
    *requestSlotPP = slot;
    return 0;
}

// Table lock held on entry.
static int resumeLuwSlot(RequestSlot* requestTableP, int32_t luwToken, RequestSlot** requestSlotPP)
{
    RequestSlot* slot = requestTableP;
    while (slot != NULL && slot->request.eci_luw_token != luwToken) slot = slot->nextSlot;
    if (slot == NULL || slot->slotState == SLOT_FREE) return ECI_ERR_LUW_TOKEN;
    if (slot->slotState != SLOT_LUW_KEPT) return ECI_ERR_ALREADY_ACTIVE;
    TRACE_DEBUG(2056, "clapi_gwytok.slotFind() Found existing slot %d for request\n", slot->slotNumber);
    slot->slotState = SLOT_ALLOCATED;
    *requestSlotPP = slot;
    return 0;
}

// Table lock held on entry.
int slotFind(RequestSlot* requestTableP, int32_t luwToken, RequestSlot** requestSlotPP)
{
    TRACE_ENTRY(2052, "clapi_gwytok.slotFind(requestTableP=%p, luwToken=%d, requestSlotPP=%p)\n", (void*)requestTableP,
                luwToken, (void*)requestSlotPP);
    *requestSlotPP = NULL;
    int rc = luwToken == 0 ? allocateSlot(requestTableP, requestSlotPP)
                           : resumeLuwSlot(requestTableP, luwToken, requestSlotPP);
    TRACE_EXIT(2057, "clapi_gwytok.slotFind() rc=%d\n", rc);
    return rc;
}

// Table lock held on entry. Blocks hold consecutive numbers from 1, so the number says which block it is in.
RequestSlot* slotNumbered(RequestSlot* requestTableP, int32_t number)
{
    if (number < 1 || blockOf(number) >= blockCount(requestTableP)) return NULL;
    return &blockAt(requestTableP, blockOf(number))[(number - 1) % SLOTS_PER_TABLE];
}

/* The block chained after `block`, or NULL: a block's last slot links to the next block's first. */
static RequestSlot* nextBlock(RequestSlot* block)
{
    return block[SLOTS_PER_TABLE - 1].nextSlot;
}

// Table lock held on entry. Compares addresses only: `slotP` may be a slot of a block trimmed meanwhile.
bool slotInTable(RequestSlot* requestTableP, const RequestSlot* slotP)
{
    for (RequestSlot* block = requestTableP; block != NULL; block = nextBlock(block))
        for (int i = 0; i < SLOTS_PER_TABLE; i++)
            if (&block[i] == slotP) return true;
    return false;
}

// Table lock held on entry.
int slotLookup(RequestSlot* requestTableP, int32_t messageId, RequestSlot** slotPP)
{
    TRACE_ENTRY(2061, "clapi_gwytok.slotLookup(requestTableP=%p, messageId=%d, slotPP=%p)\n", (void*)requestTableP,
                messageId, (void*)slotPP);
    RequestSlot* slot = slotNumbered(requestTableP, messageId);
    *slotPP = slot;
    int rc = 0;
    if (slot != NULL && slot->slotState == SLOT_SENT) {
        TRACE_DEBUG(2063, "clapi_gwytok.slotLookup() Found slot %d for request\n", messageId);
    } else {
        TRACE_EXC(2062, "clapi_gwytok.slotLookup() Failed to find slot %d for request\n", messageId);
        rc = ZEP_ERR_SYSTEM_ERROR;
    }
    TRACE_EXIT(2064, "clapi_gwytok.slotLookup() rc=%d\n", rc);
    return rc;
}

// Table lock held on entry.
static void trimFreeBlocks(RequestSlot* requestTableP)
{
    for (int32_t count = blockCount(requestTableP); count > 1; count--) {
        RequestSlot* block = blockAt(requestTableP, count - 1);
        if (block->blockSlotsInUse != 0) return;
        TRACE_DEBUG(2059, "clapi_gwytok.slotFree() Freeing slot table at slotP=%p, first=%d, last=%d\n", (void*)block,
                    block[0].slotNumber, block[SLOTS_PER_TABLE - 1].slotNumber);
        clapiZeroFree((void*)block, SLOTS_PER_TABLE * sizeof(RequestSlot));
        blockAt(requestTableP, count - 2)[SLOTS_PER_TABLE - 1].nextSlot = NULL;
        unindexLastBlock(requestTableP);
    }
}

// Table lock held on entry (except for the final frees of a token whose receiver thread has ended).
void slotFree(RequestSlot* requestTableP, RequestSlot* slotP)
{
    TRACE_ENTRY(2058, "clapi_gwytok.slotFree(requestTableP=%p, slotP=%p)\n", (void*)requestTableP, (void*)slotP);
    int32_t position = blockOf(slotP->slotNumber);
    if (slotP->slotState != SLOT_FREE) {
        slotP->slotState = SLOT_FREE;
        blockStart(slotP)->blockSlotsInUse--;
        SlotIndex* index = requestTableP->tableIndex;
        if (index != NULL && position < index->firstOpen) index->firstOpen = position;
        clapiDeleteEvent(&slotP->event);
        memset((void*)&slotP->request, 0, sizeof slotP->request);
        slotP->replyAreaLength = 0;
    }
    /* Only a free in the last block trims; trailing free blocks wait for one of their own slots. */
    if (position > 0 && position == blockCount(requestTableP) - 1) trimFreeBlocks(requestTableP);
    TRACE_EXIT(2060, "clapi_gwytok.slotFree()\n");
}

/* ---------------------------------------------------------------- closing and deleting */

int clapiCloseGatewayToken(GatewayToken* gwTokPtr, int lockRequired)
{
    TRACE_ENTRY(2015, "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=%p, lockRequired=%s)\n", (void*)gwTokPtr,
                TRACE_BOOL(lockRequired));
    int rc = 0;
    if (lockRequired && clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2016, "clapi_gwytok.clapiCloseGatewayToken() Failed to lock Gateway token list\n");
        TRACE_EXIT(2019, "clapi_gwytok.clapiCloseGatewayToken() rc=%d\n", ZEP_ERR_SYSTEM_ERROR);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    /* Only a listed token may be read: an unlisted address may be storage that was freed long ago. */
    int findRc = findGatewayToken(gwTokPtr, NULL);
    if (findRc != FIND_TOKEN_FOUND) {
        TRACE_EXC(2018, "clapi_gwytok.clapiCloseGatewayToken() Gateway token=%p not found, findRc=%d\n",
                  (void*)gwTokPtr, findRc);
        rc = ZEP_ERR_BADGWTOK;
    } else if (loadClosing(gwTokPtr)) {
        rc = ZEP_ERR_GWTOK_CLOSED;
    } else {
        storeClosing(gwTokPtr, 1);
        int32_t apiCalls = loadApiCalls(gwTokPtr);
        int32_t asyncRequests = readAsyncRequests(gwTokPtr);
        TRACE_DEBUG(2065, "clapi_gwytok.clapiCloseGatewayToken() There are %d API calls and %d async requests outstanding\n",
                    apiCalls, asyncRequests);
        if ((apiCalls > 0 || asyncRequests > 0) && clapiSetEvent(&gwTokPtr->requestsEnded) != 0) {
            TRACE_EXC(2017, "clapi_gwytok.clapiCloseGatewayToken() Failed to set event\n");
            storeClosing(gwTokPtr, 0);
            rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    if (lockRequired) clapiReleaseLock(&gtlLock);
    TRACE_EXIT(2019, "clapi_gwytok.clapiCloseGatewayToken() rc=%d\n", rc);
    return rc;
}

/*
 * gtlLock held on entry. Counts the work a close waits for: API calls in progress and, while the receiver runs,
 * asynchronous requests. When there is some, `requestsEnded` is reset and the work counted again, so that a
 * signal left from earlier calls never lets the wait pass, and one given after the count is never missed.
 */
static bool workOutstanding(GatewayToken* tok, int32_t* apiCalls, int32_t* asyncRequests)
{
    for (bool reset = false;; reset = true) {
        *apiCalls = loadApiCalls(tok);
        *asyncRequests = readAsyncRequests(tok);
        bool waiting = *apiCalls > 0 || (*asyncRequests > 0 && receiverRuns(tok));
        if (!waiting || reset) return waiting;
        clapiSetEvent(&tok->requestsEnded);
    }
}

static int secondsUntil(const struct timespec* deadline)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long nanos = (deadline->tv_sec - now.tv_sec) * 1000000000LL + (deadline->tv_nsec - now.tv_nsec);
    return nanos <= 0 ? 0 : (int)((nanos + 999999999LL) / 1000000000LL);
}

/* Waits until the work that a close waits for has ended, as the close's time limit allows. No lock held on entry. */
static int waitForOutstandingWork(GatewayToken* gwToken, int closeTimeout)
{
    if (closeTimeout != -1 && closeTimeout <= 0) return 0;
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += closeTimeout > 0 ? closeTimeout : 0;
    for (bool announced = false;; announced = true) {
        int32_t apiCalls, asyncRequests;
        clapiRequestLock(&gtlLock);
        bool waiting = workOutstanding(gwToken, &apiCalls, &asyncRequests);
        clapiReleaseLock(&gtlLock);
        if (!waiting) return 0;
        if (closeTimeout == -1) {
            if (!announced)
                TRACE_EVENT(2069, "clapi_gwytok.quiesceConnection() Waiting for %d API calls and %d async requests to complete\n",
                            apiCalls, asyncRequests);
            if (clapiWaitEvent(&gwToken->requestsEnded) != 0) {
                TRACE_EXC(2070, "clapi_gwytok.quiesceConnection() Failed to wait (indefinitely) for work to complete\n");
                return ZEP_ERR_SYSTEM_ERROR;
            }
            continue;
        }
        if (!announced)
            TRACE_EVENT(2071, "clapi_gwytok.quiesceConnection() Waiting %d seconds for %d API calls and %d async requests to complete\n",
                        closeTimeout, apiCalls, asyncRequests);
        int left = secondsUntil(&deadline);
        int expired = 0;
        if (left > 0 && clapiTimedWaitEvent(&gwToken->requestsEnded, left, &expired) != 0) {
            TRACE_EXC(2072, "clapi_gwytok.quiesceConnection() Failed to wait (for %d seconds) for work to complete\n",
                      closeTimeout);
            return ZEP_ERR_SYSTEM_ERROR;
        }
        /* Running out of time is no error: the close goes ahead with the work still outstanding. */
        if (left <= 0 || expired) return 0;
    }
}

/* Wakes threads that wait for any asynchronous reply, so that they see the closing token. No lock held on entry. */
static int releaseReplyWaiters(GatewayToken* gwToken)
{
    if (clapiRequestLock(&gwToken->tableLock) != 0) {
        TRACE_EXC(2066, "clapi_gwytok.quiesceConnection() Failed to lock slot table\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = 0;
    if (gwToken->asyncRequests == 0 && clapiClearEvent(&gwToken->asyncReplyEvent) != 0) {
        TRACE_EXC(2067, "clapi_gwytok.quiesceConnection() Failed to clear event to release waiting get reply calls\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    }
    if (clapiReleaseLock(&gwToken->tableLock) != 0) {
        TRACE_EXC(2068, "clapi_gwytok.quiesceConnection() Failed to unlock slot table\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/*
 * Waits until no API call is in progress. Reset and test happen under gtlLock, where unregistering
 * signals, so a call that ends in between is not missed and a stale signal never lets the wait pass early.
 * No lock held on entry.
 */
static int waitForApiCalls(GatewayToken* gwToken)
{
    bool announced = false;
    for (;;) {
        clapiRequestLock(&gtlLock);
        int32_t apiCalls = loadApiCalls(gwToken);
        if (apiCalls > 0) clapiSetEvent(&gwToken->requestsEnded);
        clapiReleaseLock(&gtlLock);
        if (apiCalls <= 0) return 0;
        if (!announced) {
            TRACE_EVENT(2075, "clapi_gwytok.quiesceConnection() Waiting for %d API calls to complete\n", apiCalls);
            announced = true;
        }
        if (clapiWaitEvent(&gwToken->requestsEnded) != 0) {
            TRACE_EXC(2076, "clapi_gwytok.quiesceConnection() Failed to wait for API calls to complete\n");
            return ZEP_ERR_SYSTEM_ERROR;
        }
    }
}

// Table lock held on entry.
static void unlockAbandonedChannels(GatewayToken* gwToken)
{
    for (RequestSlot* slot = gwToken->requestTable; slot != NULL; slot = slot->nextSlot) {
        /* Only an uncollected request still holds its channel; a kept or collected one has unlocked it. */
        if (slot->slotState != SLOT_SENT && slot->slotState != SLOT_REPLIED) continue;
        if (slot->request.eci_call_type != ECI_ASYNC) continue;
        if (slot->request.eci_channel == NULL) continue;
        unlockChannel(slot->request.eci_channel);
        slot->request.eci_channel = NULL;
    }
}

/*
 * After the receiver thread has ended: abandons uncollected replies and frees their channels, then waits for the
 * calls still in progress. The channels go first: a call may be waiting for one of them. No lock held on entry.
 */
static int abandonOutstandingWork(GatewayToken* gwToken)
{
    if (clapiRequestLock(&gwToken->tableLock) != 0) {
        TRACE_EXC(2073, "clapi_gwytok.quiesceConnection() Failed to lock slot table after close\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    gwToken->asyncRequests = 0;
    unlockAbandonedChannels(gwToken);
    if (clapiReleaseLock(&gwToken->tableLock) != 0) {
        TRACE_EXC(2078, "clapi_gwytok.quiesceConnection() Failed to unlock slot table\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    return waitForApiCalls(gwToken);
}

// No lock held on entry.
int quiesceConnection(GatewayToken* gwToken, int closeTimeout)
{
    TRACE_ENTRY(2065, "clapi_gwytok.quiesceConnection(gwToken=%p, closeTimeout=%d)\n", (void*)gwToken, closeTimeout);
    int rc = releaseReplyWaiters(gwToken);
    if (rc == 0) rc = waitForOutstandingWork(gwToken, closeTimeout);
    bool closeFlowFailed = false;
    if (rc == 0 && loadConnStatus(gwToken) == CONN_OPEN) {
        rc = clapiCloseConnection(gwToken);
        closeFlowFailed = rc != 0;
    }
    /* The receiver thread fails every waiting request as it ends; nothing may be freed before that. */
    if (clapiWaitEvent(&gwToken->recvThreadEndedEvent) != 0)
        TRACE_EXC(2082, "clapi_gwytok.quiesceConnection() Failed to wait on recvThreadEndedEvent\n");
    /* The connection ended on its own while the close flow went out: there is nothing left to close. The receiver
       marks that end only as it fails the waiting requests, so the status is read once it has ended. */
    if (closeFlowFailed && loadConnStatus(gwToken) != CONN_OPEN) rc = 0;
    if (rc == 0) rc = abandonOutstandingWork(gwToken);
    TRACE_EXIT(2079, "clapi_gwytok.quiesceConnection() rc=%d\n", rc);
    return rc;
}

/* An uncollected asynchronous COMMAREA reply lives in a library buffer that only its collection would free. */
static void releaseAsyncBuffer(RequestSlot* slot)
{
    if (slot->request.eci_call_type != ECI_ASYNC || slot->request.eci_commarea == NULL) return;
    clapiZeroFree(slot->request.eci_commarea, slot->replyAreaLength);
    slot->request.eci_commarea = NULL;
}

/* Frees every slot in use, then any trailing block that the trim rule left behind. */
static void freeAllSlots(GatewayToken* gwToken)
{
    RequestSlot* table = gwToken->requestTable;
    RequestSlot* slot = table;
    while (slot != NULL) {
        if (slot->slotState != SLOT_FREE) {
            releaseAsyncBuffer(slot);
            slotFree(table, slot);
            slot = table;   /* a free may have released the block the walk was in */
        } else {
            slot = slot->nextSlot;
        }
    }
    RequestSlot* block = table[SLOTS_PER_TABLE - 1].nextSlot;
    table[SLOTS_PER_TABLE - 1].nextSlot = NULL;
    while (block != NULL) {
        RequestSlot* next = block[SLOTS_PER_TABLE - 1].nextSlot;
        clapiZeroFree((void*)block, SLOTS_PER_TABLE * sizeof(RequestSlot));
        block = next;
    }
    releaseIndex(table);
}

static void destroyTokenResources(GatewayToken* gwToken)
{
    clapiDeleteEvent(&gwToken->asyncReplyEvent);
    clapiDeleteEvent(&gwToken->requestsEnded);
    clapiDeleteEvent(&gwToken->connEvent);
    clapiDestroyLock(&gwToken->sendLock);
    clapiDestroyLock(&gwToken->tableLock);
}

// gtlLock held on entry. Unlinks the token; `parent` is the token before it, or NULL at the head.
static void unlinkGatewayToken(GatewayToken* gwToken, GatewayToken* parent)
{
    if (parent != NULL) {
        parent->nextGwyTokPtr = gwToken->nextGwyTokPtr;
        if (gtListTailPtr == gwToken) gtListTailPtr = parent;
    } else {
        /* The tail may be left pointing at the freed token; chaining tests the head first. */
        gtListHeadPtr = gwToken->nextGwyTokPtr;
    }
}

// gtlLock held on entry; released by the time this returns.
static int freeQuiescedToken(GatewayToken** gwTokPtr)
{
    GatewayToken* gwToken = *gwTokPtr;
    GatewayToken* parent = NULL;
    int findRc = findGatewayToken(gwToken, &parent);
    if (findRc != FIND_TOKEN_FOUND) {
        TRACE_EXC(2031, "clapi_gwytok.clapiDeleteGatewayToken() Gateway token=%p not found, findRc=%d\n",
                  (void*)gwToken, findRc);
        clapiReleaseLock(&gtlLock);
        return ZEP_ERR_BADGWTOK;
    }
    freeAllSlots(gwToken);
    destroyTokenResources(gwToken);
    /* The receiver only shuts the socket down: until now a late sender could not reach a reused descriptor. */
    if (gwToken->socket != -1) closeSocket(gwToken->socket);
    unlinkGatewayToken(gwToken, parent);
    TRACE_DEBUG(2032, "clapi_gwytok.clapiDeleteGatewayToken() Free gateway token=%p\n", (void*)gwToken);
    clapiZeroFree((void*)gwToken, sizeof *gwToken);
    *gwTokPtr = NULL;
    clapiReleaseLock(&gtlLock);
    return 0;
}

/* With lockRequired false the caller holds gtlLock; past the NULL checks it is released before this returns. */
int clapiDeleteGatewayToken(GatewayToken** gwTokPtr, int closeTimeout, int lockRequired)
{
    TRACE_ENTRY(2029, "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=%p, closeTimeout=%d, lockRequired=%s)\n",
                (void*)gwTokPtr, closeTimeout, TRACE_BOOL(lockRequired));
    int rc = 0;
    if (gwTokPtr == NULL) {
        rc = ZEP_ERR_NULLGWTOKPTR;
    } else if (*gwTokPtr == NULL) {
        rc = ZEP_ERR_NULLGWTOK;
    } else if (lockRequired && clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2030, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else if (lockRequired && findGatewayToken(*gwTokPtr, NULL) != FIND_TOKEN_FOUND) {
        clapiReleaseLock(&gtlLock);
        rc = ZEP_ERR_BADGWTOK;
    } else if (clapiReleaseLock(&gtlLock) != 0) {
        TRACE_EXC(2050, "clapi_gwytok.clapiDeleteGatewayToken() Release lock failed\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else if ((rc = quiesceConnection(*gwTokPtr, closeTimeout)) != 0) {
        /* The token stays listed and closing; a later delete may try again. */
    } else if (clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2081, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list after quiesce\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        rc = freeQuiescedToken(gwTokPtr);
    }
    TRACE_EXIT(2033, "clapi_gwytok.clapiDeleteGatewayToken() rc=%d\n", rc);
    return rc;
}

// gtlLock held on entry.
static int listLength(void)
{
    int count = 0;
    for (GatewayToken* token = gtListHeadPtr; token != NULL; token = token->nextGwyTokPtr) count++;
    return count;
}

/*
 * gtlLock held on entry. The first token that close all may take: one the application holds and nobody is
 * closing. A token still being opened belongs to its opener, one being closed to its closer; a token whose
 * delete failed stays closing and is not tried again.
 */
static GatewayToken* nextTokenToClose(void)
{
    for (GatewayToken* token = gtListHeadPtr; token != NULL; token = token->nextGwyTokPtr)
        if (token->handedOut && !loadClosing(token)) return token;
    return NULL;
}

/*
 * Each delete releases gtlLock, and other threads may unlink tokens meanwhile, so every round looks again
 * from the head. The list's length at the start bounds the rounds.
 */
int clapiDeleteGatewayTokens(void)
{
    TRACE_ENTRY(2034, "clapi_gwytok.clapiDeleteGatewayTokens()\n");
    int count = 0;
    clapiRequestLock(&gtlLock);
    int rounds = listLength();
    if (rounds == 0) TRACE_EVENT(2036, "clapi_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY\n");
    for (; rounds > 0; rounds--) {
        GatewayToken* token = nextTokenToClose();
        if (token == NULL) break;
        count++;
        if (TRACE_LEVEL() > 1) {
            char line[GWTOK_FORMAT_LEN];
            clapiFormatGatewayToken(token, line);
            TRACE_EVENT(2035, "clapi_gwytok.clapiDeleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n",
                        (void*)token, count, line);
        }
        GatewayToken* doomed = token;
        if (clapiCloseGatewayToken(doomed, 0) != 0) continue;
        clapiDeleteGatewayToken(&doomed, 0, 0);
        clapiRequestLock(&gtlLock);
    }
    clapiReleaseLock(&gtlLock);
    TRACE_EXIT(2037, "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=%d, rc=%d\n", count, 0);
    return 0;
}

/* ---------------------------------------------------------------- creating */

int chainGatewayToken(GatewayToken* newToken)
{
    TRACE_ENTRY(2040, "clapi_gwytok.chainGatewayToken(newToken=%p)\n", (void*)newToken);
    int rc = 0;
    if (newToken == NULL) {
        TRACE_EXC(2042, "clapi_gwytok.chainGatewayToken() Chain request was for null token\n");
        rc = ZEP_ERR_NULLGWTOKPTR;
    } else if (clapiRequestLock(&gtlLock) != 0) {
        TRACE_EXC(2051, "clapi_gwytok.chainGatewayToken() Release lock failed\n");
        rc = ZEP_ERR_SYSTEM_ERROR;
    } else {
        if (gtListHeadPtr == NULL) {
            gtListHeadPtr = newToken;
            gtListTailPtr = newToken;
        } else if (gtListTailPtr == NULL) {
            TRACE_EXC(2041, "clapi_gwytok.chainGatewayToken() GTL state corrupt - head(%p) tail (%p)\n",
                      (void*)gtListHeadPtr, (void*)gtListTailPtr);
            rc = ZEP_ERR_SYSTEM_ERROR;
        } else {
            gtListTailPtr->nextGwyTokPtr = newToken;
            gtListTailPtr = newToken;
        }
        clapiReleaseLock(&gtlLock);
    }
    TRACE_EXIT(2043, "clapi_gwytok.chainGatewayToken() rc=%d\n", rc);
    return rc;
}

int openClientSocket(GatewayToken* gwTokPtr, const char* ipAddr, const char* applid, const char* applidQualifier)
{
    TRACE_ENTRY(2011, "clapi_gwytok.openClientSocket(gwTokPtr=%p) Attempting to connect to %s:%d connTimeout=%d\n",
                (void*)gwTokPtr, ipAddr, gwTokPtr->port, gwTokPtr->connTimeout);
    int rc = clapiConnectToGateway(gwTokPtr->port, ipAddr, gwTokPtr, applid, applidQualifier);
    if (rc == 0) {
        TRACE_EVENT(2012, "clapi_gwytok.openClientSocket() Connected to Gateway %s:%u - socketDescriptor(%lu)\n",
                    ipAddr, (unsigned)gwTokPtr->port, (unsigned long)gwTokPtr->socket);
    } else {
        TRACE_EXC(2013, "clapi_gwytok.openClientSocket() Failed to connect to Gateway %s:%u\n", ipAddr,
                  (unsigned)gwTokPtr->port);
    }
    TRACE_EXIT(2014, "clapi_gwytok.openClientSocket() rc=%d\n", rc);
    return rc;
}

static void destroyTokenSync(GatewayToken* tok, int created)
{
    /* Undo in reverse order of creation: table lock, send lock, connEvent, recvThreadEnded, requestsEnded. */
    if (created > 4) clapiDeleteEvent(&tok->requestsEnded);
    if (created > 3) clapiDeleteEvent(&tok->recvThreadEndedEvent);
    if (created > 2) clapiDeleteEvent(&tok->connEvent);
    if (created > 1) clapiDestroyLock(&tok->sendLock);
    if (created > 0) clapiDestroyLock(&tok->tableLock);
}

/* Creates the token's locks and events in order; returns 0 or the failure's code, with nothing left created. */
static int createTokenSync(GatewayToken* tok)
{
    if (clapiInitializeLock(&tok->tableLock) != 0) {
        TRACE_EXC(2008, "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    if (clapiInitializeLock(&tok->sendLock) != 0) {
        TRACE_EXC(2007, "clapi_gwytok.clapiCreateGatewayToken() Failed to create send lock\n");
        destroyTokenSync(tok, 1);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    if (clapiCreateEvent(&tok->connEvent) != 0) {
        TRACE_EXC(2006, "clapi_gwytok.clapiCreateGatewayToken() Failed to create connEvent\n");
        destroyTokenSync(tok, 2);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    if (clapiCreateEvent(&tok->recvThreadEndedEvent) != 0) {
        TRACE_EXC(2080, "clapi_gwytok.clapiCreateGatewayToken() Failed to create recvThreadEndedEvent\n");
        destroyTokenSync(tok, 3);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    if (clapiCreateEvent(&tok->requestsEnded) != 0) {
        TRACE_EXC(2005, "clapi_gwytok.clapiCreateGatewayToken() Failed to create requestsEnded event\n");
        destroyTokenSync(tok, 4);
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = clapiCreateEvent(&tok->asyncReplyEvent);
    if (rc != 0) {
        TRACE_EXC(2004, "clapi_gwytok.clapiCreateGatewayToken() Failed to create asyncReplyEvent\n");
        destroyTokenSync(tok, 5);
        return rc;
    }
    /* No receiver thread runs yet: signalled until one does. */
    if ((rc = clapiClearEvent(&tok->recvThreadEndedEvent)) != 0) {
        clapiDeleteEvent(&tok->asyncReplyEvent);
        destroyTokenSync(tok, 5);
    }
    return rc;
}

/* Allocates and initialises a token, unlisted and unconnected; NULL with the code in *rcPtr on failure. */
static GatewayToken* newGatewayToken(int port, unsigned int connTimeout, const char* applid,
                                     const char* applidQualifier, int* rcPtr)
{
    GatewayToken* tok = (GatewayToken*)malloc(sizeof(GatewayToken));
    TRACE_DEBUG(2001, "clapi_gwytok.clapiCreateGatewayToken() Called malloc for %d bytes. new token address=%p\n",
                (int)sizeof(GatewayToken), (void*)tok);
    if (tok == NULL) {
        TRACE_EXC(2002, "clapi_gwytok.clapiCreateGatewayToken() Failed to allocate %d bytes\n", (int)sizeof(GatewayToken));
        TRACE_EXC(2008, "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock\n");
        *rcPtr = ZEP_ERR_SYSTEM_ERROR;
        return NULL;
    }
    memset((void*)tok, 0, sizeof *tok);
    memcpy(tok->eyecatcher, EYE_GWTOK, EYE_LEN);
    tok->socket = -1;
    tok->connTimeout = (int32_t)connTimeout;
    tok->port = port;
    strncpy(tok->applid, applid, sizeof tok->applid - 1);
    strncpy(tok->applidQual, applidQualifier, sizeof tok->applidQual - 1);
    initSlotBlock(tok->requestTable, NULL);
    TRACE_DEBUG(2003, "clapi_gwytok.clapiCreateGatewayToken() Initialized slot table, first slot=%d, last slot=%d\n", 1,
                SLOTS_PER_TABLE);
    if ((*rcPtr = createTokenSync(tok)) != 0) {
        free(tok);
        return NULL;
    }
    return tok;
}

/*
 * From here on close all may take the token. A connected token is announced; formatting reads its next-token
 * field, which another open may be setting as it chains behind it.
 */
static void handOut(GatewayToken* tok, bool connected)
{
    clapiRequestLock(&gtlLock);
    if (connected && TRACE_LEVEL() > 1) {
        char line[GWTOK_FORMAT_LEN];
        clapiFormatGatewayToken(tok, line);
        TRACE_EVENT(2009, "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=%p) %s\n", (void*)tok, line);
    }
    tok->handedOut = 1;
    clapiReleaseLock(&gtlLock);
}

int clapiCreateGatewayToken(GatewayToken** gwTokPtr, const char* ipAddr, int port, unsigned int connTimeout,
                            const char* applid, const char* applidQualifier)
{
    TRACE_ENTRY(2000, "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=%p, ipAddr=%s, port=%d, connTimeout=%d, applid=%s, applidQualifier=%s)\n",
                (void*)gwTokPtr, TRACE_STR(ipAddr), port, (int)connTimeout, TRACE_STR(applid),
                TRACE_STR(applidQualifier));
    int rc = 0;
    GatewayToken* tok = newGatewayToken(port, connTimeout, applid, applidQualifier, &rc);
    if (tok == NULL) return rc;
    if ((rc = chainGatewayToken(tok)) != 0) {
        clapiDeleteEvent(&tok->asyncReplyEvent);
        destroyTokenSync(tok, 5);
        free(tok);
        return rc;
    }
    if ((rc = openClientSocket(tok, ipAddr, applid, applidQualifier)) != 0) {
        /* Listed, perhaps with a receiver thread: the full delete takes it down; the connect's code is the result. */
        GatewayToken* doomed = tok;
        if (clapiDeleteGatewayToken(&doomed, 0, 1) != 0) handOut(tok, false);   /* left for close all to remove */
        return rc;
    }
    handOut(tok, true);
    *gwTokPtr = tok;
    return 0;
}
