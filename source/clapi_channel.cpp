/*
 * Channels and their containers: the channel list, the channel lock that an ECI call holds across its
 * reply, the container calls, the rule for names and the code page of character data.
 */
#include "clapi_channel.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "clapi_diag.h"
#include "clapi_impl.h"
#include "clapi_lock.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_channel);

Channel* chanList;
}

/* ---------------------------------------------------------------- names and code pages */

static const char nameChars[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789<>$@#/%&?!:|\"=';.-_";
static_assert(sizeof nameChars - 1 == 81, "81 characters may stand in a name");

struct CodeSet {
    const char* prefix;
    int         ccsid;
};

/* The first row whose prefix begins LANG wins, so the longer Chinese prefixes stand before "zh". */
static constexpr CodeSet CodeSetTable[] = {
    {"ar", 1089}, {"bu", 915}, {"cs", 912}, {"el", 813}, {"hr", 912}, {"hu", 912}, {"iw", 916},
    {"ja", 5050}, {"ji", 916}, {"ko", 970}, {"lv", 912}, {"mk", 915}, {"pl", 912}, {"ro", 912},
    {"ru", 915},  {"sh", 912}, {"sl", 912}, {"sk", 912}, {"sr", 915}, {"tr", 920},
    {"zh_TW.big5", 950}, {"zh_TW", 964}, {"zh_CN", 1383}, {"zh", 1383},
    {"big5", 950}, {"tchinese", 964},
    {"", 0},
};

static int checkName(const char* name)
{
    if (name == NULL) {
        TRACE_EXC(1401, "clapi_channel.validateName() name is NULL\n");
        return ECI_ERR_INVALID_NAME;
    }
    if (name[0] == '\0') {
        TRACE_EXC(1407, "clapi_channel.validateName() name is zero length\n");
        return ECI_ERR_INVALID_NAME;
    }
    /* Character by character, so an invalid character among the first 16 is named even in a long name. */
    for (size_t i = 0; name[i] != '\0'; i++) {
        if (i == CHANNEL_NAME_LEN) {
            TRACE_EXC(1402, "clapi_channel.validateName() name length exceeds %d\n", CHANNEL_NAME_LEN);
            return ECI_ERR_INVALID_NAME;
        }
        if (strchr(nameChars, name[i]) == NULL) {
            TRACE_EXC(1403, "clapi_channel.validateName() name contains invalid character '%c'\n", name[i]);
            return ECI_ERR_INVALID_NAME;
        }
    }
    return ECI_NO_ERROR;
}

int validateName(const char* name)
{
    TRACE_ENTRY(1400, "clapi_channel.validateName(name=%s)\n", TRACE_STR(name));
    int rc = checkName(name);
    TRACE_EXIT(1404, "clapi_channel.validateName() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

static int ccsidForLang(const char* lang)
{
    for (const CodeSet* row = CodeSetTable; row->ccsid != 0; row++) {
        if (strncmp(lang, row->prefix, strlen(row->prefix)) == 0) {
            TRACE_DEBUG(1438, "clapi_channel.getCurrentCcsid() Mapped codeset %s to CCSID %d\n", lang, row->ccsid);
            return row->ccsid;
        }
    }
    TRACE_EXC(1439, "clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset %s\n", lang);
    return CCSID_DEFAULT;
}

/* Only LANG is read. The process locale is left as the application set it: switching it from a library
   call would race with every other thread's use of the locale. */
int getCurrentCcsid(int* ccsidPtr)
{
    TRACE_ENTRY(1435, "clapi_channel.getCurrentCcsid(ccsidPtr=%p)\n", (void*)ccsidPtr);
    const char* lang = getenv("LANG");
    int ccsid = CCSID_DEFAULT;
    if (lang == NULL || lang[0] == '\0') {
        TRACE_DEBUG(1437, "clapi_channel.getCurrentCcsid() LANG environment variable not set, defaulting to CCSID %d\n",
                    ccsid);
    } else {
        ccsid = ccsidForLang(lang);
    }
    if (ccsidPtr != NULL) *ccsidPtr = ccsid;
    TRACE_EXIT(1441, "clapi_channel.getCurrentCcsid() rc=%d, *ccsidPtr=%d\n", 0, ccsid);
    return 0;
}

/* ---------------------------------------------------------------- the channel lock */

static int32_t isHeld(Channel* chan)
{
    return __atomic_load_n(&chan->isLocked, __ATOMIC_RELAXED);
}

static void setHeld(Channel* chan, int32_t held)
{
    __atomic_store_n(&chan->isLocked, held, __ATOMIC_RELAXED);
}

/* serlock held on entry; still held on a 0 result, released on any other. */
static int waitUntilFree(Channel* chan, bool* waitedPtr)
{
    while (isHeld(chan)) {
        if (!*waitedPtr) {
            TRACE_EVENT(1463, "clapi_channel.lockChannel() Waiting for channel \"%.16s\" (%p)\n", chan->name, (void*)chan);
            *waitedPtr = true;
        }
        if (clapiReleaseLock(&chan->serlock) != 0) {
            TRACE_EXC(1464, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n", (void*)chan);
            return ECI_ERR_SYSTEM_ERROR;
        }
        if (clapiWaitEvent(&chan->unlockEvent) != 0) {
            TRACE_EXC(1465, "clapi_channel.lockChannel() Failed to wait on unlockEvent for channel (%p)\n", (void*)chan);
            return ECI_ERR_SYSTEM_ERROR;
        }
        if (clapiRequestLock(&chan->serlock) != 0) {
            TRACE_EXC(1466, "clapi_channel.lockChannel() Failed to acquire lock for channel (%p)\n", (void*)chan);
            return ECI_ERR_SYSTEM_ERROR;
        }
    }
    return ECI_NO_ERROR;
}

/* Only a live serlock tells a channel from any other pointer. */
static int takeSerlock(Channel* chan, const char* function, int nullId, int notChannelId)
{
    if (chan == NULL) {
        TRACE_EXC(nullId, "clapi_channel.%s() chanTok is NULL\n", function);
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (clapiRequestLock(&chan->serlock) != 0) {
        TRACE_EXC(notChannelId, "clapi_channel.%s() chanTok (%p) is not a channel\n", function, (void*)chan);
        return ECI_ERR_INVALID_CHANNEL;
    }
    return ECI_NO_ERROR;
}

/* serlock held on entry. The waiter reports the end of its wait only once it owns the channel. */
static int markHeld(Channel* chan, bool waited)
{
    if (clapiSetEvent(&chan->unlockEvent) != 0) {
        TRACE_EXC(1467, "clapi_channel.lockChannel() Failed to set unlockEvent for channel (%p)\n", (void*)chan);
        return ECI_ERR_SYSTEM_ERROR;
    }
    setHeld(chan, 1);
    if (waited) TRACE_EVENT(1468, "clapi_channel.lockChannel() Finished waiting for channel \"%.16s\" (%p)\n",
                            chan->name, (void*)chan);
    return ECI_NO_ERROR;
}

static int takeChannel(Channel* chan)
{
    int rc = takeSerlock(chan, "lockChannel", 1461, 1462);
    if (rc != ECI_NO_ERROR) return rc;
    bool waited = false;
    rc = waitUntilFree(chan, &waited);
    if (rc != ECI_NO_ERROR) return rc;
    rc = markHeld(chan, waited);
    if (clapiReleaseLock(&chan->serlock) != 0) {
        TRACE_EXC(1469, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n", (void*)chan);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Ownership is not bound to a thread: an asynchronous reply's collector releases what its sender took. */
int lockChannel(Channel* chanTok)
{
    TRACE_ENTRY(1460, "clapi_channel.lockChannel(chanTok=%p)\n", (void*)chanTok);
    int rc = takeChannel(chanTok);
    TRACE_EXIT(1470, "clapi_channel.lockChannel() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

static int releaseChannel(Channel* chan)
{
    int rc = takeSerlock(chan, "unlockChannel", 1472, 1473);
    if (rc != ECI_NO_ERROR) return rc;
    if (clapiClearEvent(&chan->unlockEvent) != 0) {
        TRACE_EXC(1474, "clapi_channel.unlockChannel() Failed to clear unlockEvent for channel (%p)\n", (void*)chan);
        rc = ECI_ERR_SYSTEM_ERROR;
    } else {
        setHeld(chan, 0);
    }
    if (clapiReleaseLock(&chan->serlock) != 0) {
        TRACE_EXC(1475, "clapi_channel.unlockChannel() Failed to release channel lock (%p)\n", (void*)chan);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

int unlockChannel(Channel* chanTok)
{
    TRACE_ENTRY(1471, "clapi_channel.unlockChannel(chanTok=%p)\n", (void*)chanTok);
    int rc = releaseChannel(chanTok);
    TRACE_EXIT(1476, "clapi_channel.unlockChannel() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* ---------------------------------------------------------------- records */

/* Names are stored in 16 bytes, NUL-padded when shorter and not terminated when 16 long. */
static void copyName(char* field, const char* name)
{
    memcpy(field, name, strnlen(name, CHANNEL_NAME_LEN));
}

static void releaseData(Container* cont, const char* api, int freeingId)
{
    if (cont->dataPtr != NULL) {
        TRACE_DEBUG(freeingId, "API.%s() Freeing %lu bytes of container data (%p)\n", api, cont->dataLength,
                    (void*)cont->dataPtr);
        clapiZeroFree(cont->dataPtr, cont->dataLength);
    }
    cont->dataPtr = NULL;
    cont->dataLength = 0;
}

/* Data and record are overwritten with zeros before they are released. */
static void freeContainer(Container* cont, const char* api, int freeingId, int deletedId)
{
    releaseData(cont, api, freeingId);
    TRACE_EVENT(deletedId, "API.%s() Deleted container \"%.16s\" (%p)\n", api, cont->name, (void*)cont);
    clapiZeroFree(cont, sizeof *cont);
}

static void freeContainers(Channel* chan, const char* api, int freeingId, int deletedId)
{
    while (chan->firstCont != NULL) {
        Container* cont = chan->firstCont;
        chan->firstCont = cont->nextCont;
        freeContainer(cont, api, freeingId, deletedId);
    }
    chan->currentCont = NULL;
    chan->numContainers = 0;
}

static void discardChannel(Channel* chan)
{
    clapiZeroFree(chan, sizeof *chan);
}

static void freeChannel(Channel* chan, const char* api, int deletedId)
{
    TRACE_EVENT(deletedId, "API.%s() Deleted channel \"%.16s\" (%p)\n", api, chan->name, (void*)chan);
    discardChannel(chan);
}

/* Copies the caller's data into the container, reusing a block of the same size. */
static int storeData(Container* cont, const void* data, unsigned long dataLength, const char* api, int failId,
                     int dataId)
{
    if (cont->dataPtr == NULL) cont->dataPtr = (uint8_t*)malloc(dataLength);
    if (cont->dataPtr == NULL) {
        TRACE_EXC(failId, "API.%s() Failed to allocate %lu bytes for container data\n", api, dataLength);
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    memcpy(cont->dataPtr, data, dataLength);
    cont->dataLength = dataLength;
    TRACE_DATA(dataId, cont->dataPtr, dataLength, "API.%s() data=%p len=%lu stopword=%8.8X\n", api,
               (void*)cont->dataPtr, dataLength, 0u);
    return ECI_NO_ERROR;
}

/* ---------------------------------------------------------------- channels */

static int newChannel(const char* name, Channel** tokPtr)
{
    if (tokPtr == NULL) {
        TRACE_EXC(1301, "API.ECI_createChannel() tokPtr is NULL\n");
        return ECI_ERR_NULLCHANNELPTR;
    }
    int rc = validateName(name);
    if (rc != ECI_NO_ERROR) return rc;
    Channel* chan = (Channel*)calloc(1, sizeof *chan);
    if (chan == NULL) {
        TRACE_EXC(1302, "API.ECI_createChannel() Failed to allocate %d bytes for channel\n", (int)sizeof *chan);
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    memcpy(chan->eyecatcher, EYE_CHANN, EYE_LEN);
    copyName(chan->name, name);
    chan->ccsid = CCSID_UNSET;
    if (clapiInitializeLock(&chan->serlock) != 0) {
        TRACE_EXC(1303, "API.ECI_createChannel() Failed to initialize serial lock\n");
        discardChannel(chan);
        return ECI_ERR_CHANNELLOCKFAIL;
    }
    if (clapiCreateEvent(&chan->unlockEvent) != 0) {
        TRACE_EXC(1304, "API.ECI_createChannel() Failed to create channel unlocked event\n");
        clapiDestroyLock(&chan->serlock);
        discardChannel(chan);
        return ECI_ERR_CHANNELLOCKFAIL;
    }
    TRACE_EVENT(1305, "API.ECI_createChannel() New channel \"%.16s\" created (%p)\n", chan->name, (void*)chan);
    clapiRequestLock(&chanListLock);
    chan->nextChannel = chanList;
    chanList = chan;
    clapiReleaseLock(&chanListLock);
    *tokPtr = chan;
    return ECI_NO_ERROR;
}

int ECI_createChannel(const char* name, Channel** tokPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1300, "API.ECI_createChannel(name=%s, tokPtr=%p)\n", TRACE_STR(name), (void*)tokPtr);
    if (rc == 0) rc = newChannel(name, tokPtr);
    TRACE_EXIT(1309, "API.ECI_createChannel() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

static void unlinkChannel(Channel* chan)
{
    clapiRequestLock(&chanListLock);
    Channel** link = &chanList;
    while (*link != NULL && *link != chan) link = &(*link)->nextChannel;
    if (*link == chan) *link = chan->nextChannel;
    clapiReleaseLock(&chanListLock);
}

static int deleteChannel(Channel** tokPtr)
{
    if (tokPtr == NULL) {
        TRACE_EXC(1311, "API.ECI_deleteChannel() tokPtr is NULL\n");
        return ECI_ERR_NULLCHANNELPTR;
    }
    Channel* chan = *tokPtr;
    if (chan == NULL) {
        TRACE_EXC(1312, "API.ECI_deleteChannel() *tokPtr is NULL\n");
        return ECI_ERR_INVALID_CHANNEL;
    }
    int rc = lockChannel(chan);   /* waits for an ECI call that holds the channel */
    if (rc != ECI_NO_ERROR) return rc;
    unlinkChannel(chan);
    freeContainers(chan, "ECI_deleteChannel", 1420, 1421);
    if (unlockChannel(chan) != ECI_NO_ERROR) {
        TRACE_EXC(1308, "API.ECI_deleteChannel() Failed to unlock channel\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    TRACE_DEBUG(1423, "API.ECI_deleteChannel() Released lock for channel %p, now deleting\n", (void*)chan);
    clapiDeleteEvent(&chan->unlockEvent);
    clapiDestroyLock(&chan->serlock);
    freeChannel(chan, "ECI_deleteChannel", 1422);
    *tokPtr = NULL;
    return ECI_NO_ERROR;
}

int ECI_deleteChannel(Channel** tokPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1310, "API.ECI_deleteChannel(tokPtr=%p)\n", (void*)tokPtr);
    if (rc == 0) rc = deleteChannel(tokPtr);
    TRACE_EXIT(1314, "API.ECI_deleteChannel() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* For shutdown: takes no channel lock and waits for no call in flight. */
static void deleteAllChannels(void)
{
    clapiRequestLock(&chanListLock);
    while (chanList != NULL) {
        Channel* chan = chanList;
        TRACE_DEBUG(1426, "API.ECI_deleteAllChannels() Destroying event and lock for channel \"%.16s\" (%p)\n",
                    chan->name, (void*)chan);
        clapiDeleteEvent(&chan->unlockEvent);
        clapiDestroyLock(&chan->serlock);
        freeContainers(chan, "ECI_deleteAllChannels", 1427, 1317);
        chanList = chan->nextChannel;
        freeChannel(chan, "ECI_deleteAllChannels", 1429);
    }
    clapiReleaseLock(&chanListLock);
}

int ECI_deleteAllChannels(void)
{
    int rc = clapiInit();
    TRACE_ENTRY(1425, "API.ECI_deleteAllChannels()\n");
    if (rc == 0) deleteAllChannels();
    TRACE_EXIT(1430, "API.ECI_deleteAllChannels() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

static int channelName(Channel* chanTok, char* nameBuffer)
{
    if (chanTok == NULL) {
        TRACE_EXC(1321, "API.ECI_getChannelName() chanTok is NULL\n");
        return ECI_ERR_INVALID_CHANNEL;
    }
    if (nameBuffer == NULL) {
        TRACE_EXC(1322, "API.ECI_getChannelName() nameBuffer is NULL\n");
        return ECI_ERR_NULLPTR;
    }
    int rc = lockChannel(chanTok);
    if (rc != ECI_NO_ERROR) return rc;
    memset(nameBuffer, 0, CHANNEL_NAME_LEN + 1);
    memcpy(nameBuffer, chanTok->name, CHANNEL_NAME_LEN);
    return unlockChannel(chanTok);
}

int ECI_getChannelName(Channel* chanTok, char* nameBuffer)
{
    int rc = clapiInit();
    TRACE_ENTRY(1320, "API.ECI_getChannelName(chanTok=%p, nameBuffer=%p)\n", (void*)chanTok, (void*)nameBuffer);
    if (rc == 0) rc = channelName(chanTok, nameBuffer);
    TRACE_EXIT(1324, "API.ECI_getChannelName() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* ---------------------------------------------------------------- the channel dump */

static void writeRule(FILE* out)
{
    for (int i = 0; i < 80; i++) fputc('-', out);
    fputc('\n', out);
}

static void dumpContainers(FILE* out, Channel* chan, int channelNumber)
{
    int number = 0;
    for (Container* cont = chan->firstCont; cont != NULL; cont = cont->nextCont) {
        fprintf(out, "   Container list entry -%4.4d/%4.4d- : ", channelNumber, ++number);
        fprintf(out, "Container(%p): eyecatcher(%8.8s) name(%16.16s) type(%d) ccsid(%d) dataLength(%lu) dataPtr(%p) "
                     "nextCont(%p)\n",
                (void*)cont, cont->eyecatcher, cont->name, cont->type, cont->ccsid, cont->dataLength,
                (void*)cont->dataPtr, (void*)cont->nextCont);
    }
}

/*
 * chanListLock held on entry. A channel's containers change only under its serlock (container calls, replies
 * written into it, its CCSID being set), so the dump holds every serlock while it walks. Taken before the trace
 * lock and in list order; only a dump holds more than one, and dumps take chanListLock first.
 */
static void holdAllChannels(bool hold)
{
    for (Channel* chan = chanList; chan != NULL; chan = chan->nextChannel) {
        if (hold) clapiRequestLock(&chan->serlock);
        else clapiReleaseLock(&chan->serlock);
    }
}

/* chanListLock, every channel's serlock and the trace lock held on entry. */
static void dumpChannelList(FILE* out)
{
    if (chanList == NULL) {
        fputs("The channel list is EMPTY\n", out);
        return;
    }
    int number = 0;
    for (Channel* chan = chanList; chan != NULL; chan = chan->nextChannel) {
        fprintf(out, "Channel list entry -%4.4d- : ", ++number);
        fprintf(out, "Channel(%p): eyecatcher(%8.8s) name(%16.16s) serlock(%p) unlockEvent(%p) isLocked(%d) ccsid(%d) "
                     "numContainers(%d) nextChannel(%p) firstCont(%p) currentCont(%p)\n",
                (void*)chan, chan->eyecatcher, chan->name, (void*)&chan->serlock, (void*)&chan->unlockEvent,
                (int)isHeld(chan), chan->ccsid, chan->numContainers, (void*)chan->nextChannel,
                (void*)chan->firstCont, (void*)chan->currentCont);
        dumpContainers(out, chan, number);
    }
    fprintf(out, "Total number of channels=%d\n", number);
}

/* Written at any trace level, in one piece. */
int ZEP_ECI_dumpChannels(void)
{
    int rc = clapiInit();
    TRACE_ENTRY(1410, "API.ZEP_ECI_dumpChannels()\n");
    if (rc == 0) {
        clapiRequestLock(&chanListLock);
        holdAllChannels(true);
        clapiRequestLock(&traceLock);
        FILE* out = clientAPITraceHandle;
        fputs("Channel and container dump\n", out);
        writeRule(out);
        dumpChannelList(out);
        writeRule(out);
        fflush(out);
        clapiReleaseLock(&traceLock);
        holdAllChannels(false);
        clapiReleaseLock(&chanListLock);
    }
    TRACE_EXIT(1419, "API.ZEP_ECI_dumpChannels() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* ---------------------------------------------------------------- containers */

/* The records that every container call writes in its own name. */
struct ContainerCall {
    const char* api;
    int         nullChannelId;
    int         notFoundId;
    int         unlockFailedId;
    const char* unlockFailedText;
};

static const ContainerCall createCall = {"ECI_createContainer", 1326, 0, 1336,
                                         "API.ECI_createContainer() Failed to unlock channnel\n"};
static const ContainerCall deleteCall = {"ECI_deleteContainer", 1339, 1340, 1345,
                                         "API.ECI_deleteContainer() Failed to unlock channel\n"};
static const ContainerCall getDataCall = {"ECI_getContainerData", 1348, 1350, 1353,
                                          "API.ECI_getContainerData() Failed to unlock channel\n"};
static const ContainerCall setDataCall = {"ECI_setContainerData", 1356, 1358, 1362,
                                          "API.ECI_setContainerData() Failed to unlock channel\n"};
static const ContainerCall infoCall = {"ECI_getContainerInfo", 1365, 1367, 1368,
                                       "API.ECI_getContainerInfo() Failed to unlock channel\n"};
static const ContainerCall firstCall = {"ECI_getFirstContainer", 1371, 0, 1375,
                                        "API.ECI_getFirstContainer() Failed to unlock channel\n"};
static const ContainerCall nextCall = {"ECI_getNextContainer", 1378, 0, 1384,
                                       "API.ECI_getNextContainer() Failed to unlock channel\n"};

static int nullChannel(const ContainerCall& call)
{
    TRACE_EXC(call.nullChannelId, "API.%s() chanTok is NULL\n", call.api);
    return ECI_ERR_INVALID_CHANNEL;
}

/* A container's length goes on the wire in 32 bits; only a 64-bit unsigned long can exceed that. */
static int checkLength(const ContainerCall& call, int id, unsigned long dataLength)
{
#if ULONG_MAX > UINT32_MAX
    if (dataLength > UINT32_MAX) {
        TRACE_EXC(id, "API.%s() dataLength %lu exceeds the largest container length %lu\n", call.api, dataLength,
                  (unsigned long)UINT32_MAX);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
#else
    (void)call;
    (void)id;
    (void)dataLength;
#endif
    return ECI_NO_ERROR;
}

/* Takes the channel, and its serlock for the length of the call, so that a dump never walks a change half made. */
static int takeForCall(Channel* chan)
{
    int rc = lockChannel(chan);
    if (rc == ECI_NO_ERROR) clapiRequestLock(&chan->serlock);
    return rc;
}

/* Checks the name and takes the channel. */
static int openContainerCall(Channel* chan, const char* name)
{
    int rc = validateName(name);
    return rc != ECI_NO_ERROR ? rc : takeForCall(chan);
}

/* Channel and its serlock held on entry; released here whatever the result, and a failed release decides it. */
static int closeContainerCall(const ContainerCall& call, Channel* chan, int rc)
{
    clapiReleaseLock(&chan->serlock);
    if (unlockChannel(chan) != ECI_NO_ERROR) {
        TRACE_EXC(call.unlockFailedId, "%s", call.unlockFailedText);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Channel held on entry. Names compare over at most 16 characters. */
static Container* findContainer(Channel* chan, const char* name, Container** prevPtr)
{
    Container* prev = NULL;
    Container* cont = chan->firstCont;
    while (cont != NULL && strncmp(cont->name, name, CHANNEL_NAME_LEN) != 0) {
        prev = cont;
        cont = cont->nextCont;
    }
    if (prevPtr != NULL) *prevPtr = prev;
    return cont;
}

/* Channel held on entry. */
static Container* findNamed(const ContainerCall& call, Channel* chan, const char* name, Container** prevPtr)
{
    Container* cont = findContainer(chan, name, prevPtr);
    if (cont == NULL)
        TRACE_EXC(call.notFoundId, "API.%s() Container \"%.16s\" does not exist in channel \"%.16s\"\n", call.api,
                  name, chan->name);
    return cont;
}

static void fillInfo(const Container* cont, ContainerInfo* infoPtr)
{
    memset(infoPtr, 0, sizeof *infoPtr);
    memcpy(infoPtr->name, cont->name, CHANNEL_NAME_LEN);
    infoPtr->type = cont->type;
    infoPtr->ccsid = cont->type == ECI_CHAR ? cont->ccsid : 0;
    infoPtr->dataLength = (uint32_t)cont->dataLength;
}

/* Channel held on entry. The first character container fixes the channel's CCSID. */
static int chooseCcsid(Channel* chan, int ccsid)
{
    if (ccsid == 0) {
        if (chan->ccsid == CCSID_UNSET) {
            getCurrentCcsid(&chan->ccsid);
            TRACE_EVENT(1330, "API.ECI_createContainer() Channel CCSID set to %d from locale\n", chan->ccsid);
        }
        ccsid = chan->ccsid;
    } else if (chan->ccsid == CCSID_UNSET) {
        chan->ccsid = ccsid;
        TRACE_EVENT(1331, "API.ECI_createContainer() Channel CCSID set to %d from Container\n", ccsid);
    }
    TRACE_EVENT(1332, "API.ECI_createContainer() Container CCSID set to %d\n", ccsid);
    return ccsid;
}

/* Channel held on entry. */
static int addNewContainer(Channel* chan, const char* name, int type, int ccsid, const void* data,
                           unsigned long dataLength)
{
    if (findContainer(chan, name, NULL) != NULL) {
        TRACE_EXC(1328, "API.ECI_createContainer() Container \"%.16s\" already exists in channel \"%.16s\"\n", name,
                  chan->name);
        return ECI_ERR_CONTAINER_EXISTS;
    }
    Container* cont = (Container*)calloc(1, sizeof *cont);
    if (cont == NULL) {
        TRACE_EXC(1329, "API.ECI_createContainer() Failed to allocate %d bytes for container\n", (int)sizeof *cont);
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    memcpy(cont->eyecatcher, EYE_CONTA, EYE_LEN);
    copyName(cont->name, name);
    cont->type = type;
    if (type == ECI_CHAR) cont->ccsid = chooseCcsid(chan, ccsid);
    if (dataLength != 0 && storeData(cont, data, dataLength, createCall.api, 1333, 1334) != ECI_NO_ERROR) {
        clapiZeroFree(cont, sizeof *cont);
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    cont->nextCont = chan->firstCont;
    chan->firstCont = cont;
    chan->numContainers++;
    TRACE_EVENT(1335, "API.ECI_createContainer() Created container \"%.16s\" (%p) in channel \"%.16s\" (%p)\n",
                cont->name, (void*)cont, chan->name, (void*)chan);
    return ECI_NO_ERROR;
}

static int createContainer(Channel* chanTok, const char* name, int type, int ccsid, const void* data,
                           unsigned long dataLength)
{
    if (chanTok == NULL) return nullChannel(createCall);
    if (type < ECI_BIT || type > ECI_CHAR) {
        TRACE_EXC(1327, "API.ECI_createContainer() type is invalid (%d)\n", type);
        return ECI_ERR_INVALID_TYPE;
    }
    if (data == NULL && dataLength != 0) return ECI_ERR_INVALID_DATA_LENGTH;
    int rc = checkLength(createCall, 1386, dataLength);
    if (rc != ECI_NO_ERROR) return rc;
    rc = openContainerCall(chanTok, name);
    if (rc != ECI_NO_ERROR) return rc;
    rc = addNewContainer(chanTok, name, type, ccsid, data, dataLength);
    return closeContainerCall(createCall, chanTok, rc);
}

int ECI_createContainer(Channel* chanTok, const char* name, int type, int ccsid, const void* data,
                        unsigned long dataLength)
{
    int rc = clapiInit();
    TRACE_ENTRY(1325, "API.ECI_createContainer(chanTok=%p, name=%s, type=%d, ccsid=%d, data=%p, dataLength=%lu)\n",
                (void*)chanTok, TRACE_STR(name), type, ccsid, data, dataLength);
    if (rc == 0) rc = createContainer(chanTok, name, type, ccsid, data, dataLength);
    TRACE_EXIT(1337, "API.ECI_createContainer() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* Channel held on entry. A following ECI_getNextContainer continues after the deleted container. */
static void removeContainer(Channel* chan, Container* cont, Container* prev)
{
    if (prev != NULL) prev->nextCont = cont->nextCont;
    else chan->firstCont = cont->nextCont;
    if (chan->currentCont == cont) {
        chan->currentCont = prev;
        if (prev != NULL)
            TRACE_DEBUG(1341, "API.ECI_deleteContainer() Current container is now \"%.16s\"\n", prev->name);
        else
            TRACE_DEBUG(1342, "API.ECI_deleteContainer() Current container is now NULL\n");
    }
    freeContainer(cont, deleteCall.api, 1343, 1344);
    chan->numContainers--;
}

static int dropContainer(Channel* chanTok, const char* name)
{
    if (chanTok == NULL) return nullChannel(deleteCall);
    int rc = openContainerCall(chanTok, name);
    if (rc != ECI_NO_ERROR) return rc;
    Container* prev = NULL;
    Container* cont = findNamed(deleteCall, chanTok, name, &prev);
    if (cont != NULL) removeContainer(chanTok, cont, prev);
    else rc = ECI_ERR_CONTAINER_NOTFOUND;
    return closeContainerCall(deleteCall, chanTok, rc);
}

int ECI_deleteContainer(Channel* chanTok, const char* name)
{
    int rc = clapiInit();
    TRACE_ENTRY(1338, "API.ECI_deleteContainer(chanTok=%p, name=%s)\n", (void*)chanTok, TRACE_STR(name));
    if (rc == 0) rc = dropContainer(chanTok, name);
    TRACE_EXIT(1346, "API.ECI_deleteContainer() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* Channel held on entry. Written so that no offset or length can wrap around. */
static unsigned long copyData(const Container* cont, void* buffer, unsigned long length, unsigned long offset)
{
    unsigned long count = 0;
    if (offset < cont->dataLength) {
        unsigned long available = cont->dataLength - offset;
        count = length < available ? length : available;
    }
    if (count == 0) {
        TRACE_DEBUG(1352, "API.ECI_getContainerData() No data to copy\n");
        return 0;
    }
    memcpy(buffer, cont->dataPtr + offset, count);
    TRACE_DEBUG(1351, "API.ECI_getContainerData() Copied %lu bytes into %p\n", count, buffer);
    return count;
}

static int getContainerData(Channel* chanTok, const char* name, void* buffer, unsigned long length,
                            unsigned long offset, unsigned long* bytesReadPtr)
{
    if (chanTok == NULL) return nullChannel(getDataCall);
    if (buffer == NULL) {
        TRACE_EXC(1349, "API.ECI_getContainerData() buffer is NULL\n");
        return ECI_ERR_NULLPTR;
    }
    int rc = openContainerCall(chanTok, name);
    if (rc != ECI_NO_ERROR) return rc;
    Container* cont = findNamed(getDataCall, chanTok, name, NULL);
    if (cont != NULL) {
        unsigned long count = copyData(cont, buffer, length, offset);
        if (bytesReadPtr != NULL) *bytesReadPtr = count;
    } else {
        rc = ECI_ERR_CONTAINER_NOTFOUND;
    }
    return closeContainerCall(getDataCall, chanTok, rc);
}

int ECI_getContainerData(Channel* chanTok, const char* name, void* buffer, unsigned long length,
                         unsigned long offset, unsigned long* bytesReadPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1347, "API.ECI_getContainerData(chanTok=%p, name=%s, buffer=%p, length=%lu, offset=%lu, "
                      "bytesReadPtr=%p)\n",
                (void*)chanTok, TRACE_STR(name), buffer, length, offset, (void*)bytesReadPtr);
    if (rc == 0) rc = getContainerData(chanTok, name, buffer, length, offset, bytesReadPtr);
    TRACE_EXIT(1354, "API.ECI_getContainerData() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* Channel held on entry. A block of the old size is reused; any other is released first. */
static int replaceData(Container* cont, const void* data, unsigned long dataLength)
{
    if (dataLength != cont->dataLength) releaseData(cont, setDataCall.api, 1359);
    if (dataLength == 0) return ECI_NO_ERROR;
    return storeData(cont, data, dataLength, setDataCall.api, 1361, 1360);
}

static int setContainerData(Channel* chanTok, const char* name, const void* data, unsigned long dataLength)
{
    if (chanTok == NULL) return nullChannel(setDataCall);
    if (data == NULL && dataLength != 0) {
        TRACE_EXC(1357, "API.ECI_setContainerData() data is NULL when dataLength is %lu\n", dataLength);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    int rc = checkLength(setDataCall, 1387, dataLength);
    if (rc != ECI_NO_ERROR) return rc;
    rc = openContainerCall(chanTok, name);
    if (rc != ECI_NO_ERROR) return rc;
    Container* cont = findNamed(setDataCall, chanTok, name, NULL);
    rc = cont != NULL ? replaceData(cont, data, dataLength) : ECI_ERR_CONTAINER_NOTFOUND;
    return closeContainerCall(setDataCall, chanTok, rc);
}

int ECI_setContainerData(Channel* chanTok, const char* name, const void* data, unsigned long dataLength)
{
    int rc = clapiInit();
    TRACE_ENTRY(1355, "API.ECI_setContainerData(chanTok=%p, name=%s, data=%p, dataLength=%lu)\n", (void*)chanTok,
                TRACE_STR(name), data, dataLength);
    if (rc == 0) rc = setContainerData(chanTok, name, data, dataLength);
    TRACE_EXIT(1363, "API.ECI_setContainerData() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

static int rejectNullInfo(const ContainerCall& call, int id)
{
    TRACE_EXC(id, "API.%s() infoPtr is NULL\n", call.api);
    return ECI_ERR_NULLINFOPTR;
}

static int getContainerInfo(Channel* chanTok, const char* name, ContainerInfo* infoPtr)
{
    if (chanTok == NULL) return nullChannel(infoCall);
    if (infoPtr == NULL) return rejectNullInfo(infoCall, 1366);
    int rc = openContainerCall(chanTok, name);
    if (rc != ECI_NO_ERROR) return rc;
    Container* cont = findNamed(infoCall, chanTok, name, NULL);
    if (cont != NULL) fillInfo(cont, infoPtr);
    else rc = ECI_ERR_CONTAINER_NOTFOUND;
    return closeContainerCall(infoCall, chanTok, rc);
}

int ECI_getContainerInfo(Channel* chanTok, const char* name, ContainerInfo* infoPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1364, "API.ECI_getContainerInfo(chanTok=%p, name=%s, infoPtr=%p)\n", (void*)chanTok,
                TRACE_STR(name), (void*)infoPtr);
    if (rc == 0) rc = getContainerInfo(chanTok, name, infoPtr);
    TRACE_EXIT(1369, "API.ECI_getContainerInfo() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

/* Channel held on entry. */
static int firstContainer(Channel* chan, ContainerInfo* infoPtr)
{
    if (chan->firstCont == NULL) {
        TRACE_DEBUG(1373, "API.ECI_getFirstContainer() Channel \"%.16s\" has no containers\n", chan->name);
        return ECI_ERR_ENDOFCONTAINERS;
    }
    chan->currentCont = chan->firstCont;
    TRACE_DEBUG(1374, "API.ECI_getFirstContainer() Current container is \"%.16s\"\n", chan->currentCont->name);
    fillInfo(chan->currentCont, infoPtr);
    return ECI_NO_ERROR;
}

/* Channel held on entry. After the end has been reported the next call starts from the first again. */
static int nextContainer(Channel* chan, ContainerInfo* infoPtr)
{
    if (chan->currentCont != NULL) {
        chan->currentCont = chan->currentCont->nextCont;
        if (chan->currentCont == NULL) {
            TRACE_DEBUG(1380, "API.ECI_getNextContainer() No more containers in channel \"%.16s\"\n", chan->name);
            return ECI_ERR_ENDOFCONTAINERS;
        }
    } else {
        TRACE_DEBUG(1381, "API.ECI_getNextContainer() Current container is NULL, retrieving first container\n");
        if (chan->firstCont == NULL) {
            TRACE_DEBUG(1382, "API.ECI_getNextContainer() Channel \"%.16s\" has no containers\n", chan->name);
            return ECI_ERR_ENDOFCONTAINERS;
        }
        chan->currentCont = chan->firstCont;
    }
    TRACE_DEBUG(1383, "API.ECI_getNextContainer() Current container is \"%.16s\"\n", chan->currentCont->name);
    fillInfo(chan->currentCont, infoPtr);
    return ECI_NO_ERROR;
}

typedef int (*BrowseStep)(Channel* chan, ContainerInfo* infoPtr);

static int browse(const ContainerCall& call, int nullInfoId, Channel* chanTok, ContainerInfo* infoPtr,
                  BrowseStep step)
{
    if (chanTok == NULL) return nullChannel(call);
    if (infoPtr == NULL) return rejectNullInfo(call, nullInfoId);
    int rc = takeForCall(chanTok);
    if (rc != ECI_NO_ERROR) return rc;
    rc = step(chanTok, infoPtr);
    return closeContainerCall(call, chanTok, rc);
}

int ECI_getFirstContainer(Channel* chanTok, ContainerInfo* infoPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1370, "API.ECI_getFirstContainer(chanTok=%p, infoPtr=%p)\n", (void*)chanTok, (void*)infoPtr);
    if (rc == 0) rc = browse(firstCall, 1372, chanTok, infoPtr, firstContainer);
    TRACE_EXIT(1376, "API.ECI_getFirstContainer() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}

int ECI_getNextContainer(Channel* chanTok, ContainerInfo* infoPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(1377, "API.ECI_getNextContainer(chanTok=%p, infoPtr=%p)\n", (void*)chanTok, (void*)infoPtr);
    if (rc == 0) rc = browse(nextCall, 1379, chanTok, infoPtr, nextContainer);
    TRACE_EXIT(1385, "API.ECI_getNextContainer() rc=%d (%s)\n", rc, clapiGetRcStringChannel(rc));
    return rc;
}
