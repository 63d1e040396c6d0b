/*
 * ESI calls: verifying and changing a user's password through a request slot of the connection, and turning
 * the times of the user's details into calendar time.
 */
#include "clapi_esi.h"

#include <string.h>
#include <time.h>

#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_lock.h"
#include "clapi_socketcomms.h"

extern "C" {
CLAPI_MODULE_VERSION(clapi_esi);
}

/* ---------------------------------------------------------------- return codes */

/* The Gateway's -28 and -29 become -316 and -317, which have no name of their own; kept so on purpose. */
int mapGwyRc(int rc)
{
    switch (rc) {
    case -108: return ESI_ERR_USERID_INVALID;
    case -107: return ESI_ERR_PASSWORD_REJECTED;
    case -106: return ESI_ERR_PASSWORD_INVALID;
    case -105: return ESI_ERR_PASSWORD_EXPIRED;
    case -104: return ESI_ERR_PEM_NOT_ACTIVE;
    case -103: return ESI_ERR_PEM_NOT_SUPPORTED;
    case -102: return ESI_ERR_NULL_NEW_PASSWORD;
    case -101: return ESI_ERR_NULL_PASSWORD;
    case -100: return ESI_ERR_NULL_USERID;
    case -29:  return -317;
    case -28:  return -316;
    case -27:  return ESI_ERR_SECURITY_ERROR;
    case -22:  return ESI_ERR_UNKNOWN_SERVER;
    case -17:  return ESI_ERR_NO_SESSIONS;
    case -16:  return ESI_ERR_RESOURCE_SHORTAGE;
    case -9:   return ESI_ERR_SYSTEM_ERROR;
    case -4:   return ESI_ERR_VANT_DIED;
    case -3:   return ESI_ERR_NO_VANT;
    default:   return rc;
    }
}

/* ---------------------------------------------------------------- the request flow */

/* Table lock not held on entry. A fresh slot for one ESI request, prepared while the lock is held. */
static int reserveEsiSlot(GatewayToken* gwTok, EsiDetails* esiDetails, RequestSlot** slotPP)
{
    *slotPP = NULL;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1817, "clapi_esi.performEsiFlow() Failed to lock slot table\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = slotFind(gwTok->requestTable, 0, slotPP);
    if (rc == 0 && *slotPP != NULL) {
        memset(&(*slotPP)->request, 0, sizeof(*slotPP)->request);
        (*slotPP)->esiDetailsPtr = esiDetails;
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1818, "clapi_esi.performEsiFlow() Failed to unlock slot table\n");
        if (*slotPP != NULL) {
            slotFree(gwTok->requestTable, *slotPP);
            *slotPP = NULL;
            rc = ZEP_ERR_SYSTEM_ERROR;
        }
    }
    return rc;
}

static void fillEsiHeader(FlowHeader* header, int32_t messageId)
{
    memset(header, 0, sizeof *header);
    header->eyecatcher = FLOW_EYECATCHER;
    header->version = FLOW_VERSION;
    header->flowType = FLOW_REQUEST;
    header->messageId = messageId;
    size_t nameLength = strnlen(ESI_REQUEST_NAME, REQUEST_TYPE_AREA);
    memcpy(header->requestType, ESI_REQUEST_NAME, nameLength);
    header->requestTypeLength = (int32_t)nameLength;
}

/*
 * Table lock not held on entry. The slot is marked sent only while the connection is open, under the lock
 * under which the receiver fails every sent slot when the connection ends, so that no wait is left behind.
 */
static int markEsiSlotSent(GatewayToken* gwTok, RequestSlot* slot)
{
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1817, "clapi_esi.performEsiFlow() Failed to lock slot table\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int32_t status = __atomic_load_n(&gwTok->connStatus, __ATOMIC_RELAXED);
    int rc = 0;
    if (status == CONN_OPEN) slot->slotState = SLOT_SENT;
    else rc = status == CONN_LOST ? ZEP_ERR_LOSTGWCON : ZEP_ERR_GATEWAY_CLOSED;
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1818, "clapi_esi.performEsiFlow() Failed to unlock slot table\n");
        if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* No lock held on entry. The request goes out in one hold of the send lock. */
static int sendEsiRequest(GatewayToken* gwTok, EsiRequest* esiRequest, RequestSlot* slot)
{
    FlowHeader header;
    fillEsiHeader(&header, slot->slotNumber);
    if (clapiSetEvent(&slot->event) != 0) {
        TRACE_EXC(1819, "clapi_esi.performEsiFlow() Failed to set request event\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    int rc = markEsiSlotSent(gwTok, slot);
    if (rc != 0) return rc;
    if (clapiRequestLock(&gwTok->sendLock) != 0) {
        TRACE_EXC(1820, "clapi_esi.performEsiFlow() Failed to acquire send lock\n");
        return ZEP_ERR_SYSTEM_ERROR;
    }
    rc = clapiFlowESIRequest(gwTok->socket, &header, esiRequest);
    if (clapiReleaseLock(&gwTok->sendLock) != 0) {
        TRACE_EXC(1821, "clapi_esi.performEsiFlow() Failed to release send lock\n");
        if (rc == 0) rc = ZEP_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* Table lock not held on entry. */
static int releaseEsiSlot(GatewayToken* gwTok, RequestSlot* slot, int rc)
{
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1822, "clapi_esi.performEsiFlow() Failed to lock slot table to free slot\n");
        return rc != 0 ? rc : ESI_ERR_SYSTEM_ERROR;
    }
    slotFree(gwTok->requestTable, slot);
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        TRACE_EXC(1823, "clapi_esi.performEsiFlow() Failed to unlock slot table after freeing slot\n");
        if (rc == 0) rc = ESI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

/* The slot's own rc tells of a failed connection or an error flow; otherwise the reply's code counts. */
static int esiResult(const RequestSlot* slot)
{
    if (slot->flowRc != 0) return slot->flowRc;
    int rc = mapGwyRc(slot->replyRc);
    TRACE_DEBUG(1825, "clapi_esi.performEsiFlow() Mapped rc=%d to newRc=%d\n", slot->replyRc, rc);
    return rc;
}

int performEsiFlow(GatewayToken* gwTok, EsiRequest* esiRequest, EsiDetails* esiDetails)
{
    TRACE_ENTRY(1816, "clapi_esi.performEsiFlow(gwTok=%p, esiRequest=%p, esiDetails=%p)\n", (void*)gwTok,
                (void*)esiRequest, (void*)esiDetails);
    RequestSlot* slot = NULL;
    int rc = reserveEsiSlot(gwTok, esiDetails, &slot);
    if (rc == 0) {
        rc = sendEsiRequest(gwTok, esiRequest, slot);
        /* No time limit: the receiver signals the reply, an error flow or the end of the connection. */
        if (rc == 0) rc = clapiWaitEvent(&slot->event);
        if (rc == 0) {
            rc = releaseEsiSlot(gwTok, slot, esiResult(slot));
        } else {
            clapiRequestLock(&gwTok->tableLock);
            slotFree(gwTok->requestTable, slot);
            clapiReleaseLock(&gwTok->tableLock);
        }
    }
    TRACE_EXIT(1824, "clapi_esi.performEsiFlow() rc=%d (%s)\n", rc, clapiGetRcString(rc));
    return rc;
}

/* ---------------------------------------------------------------- the entry points */

/* The trace points and texts of the two entry points, which otherwise share one frame. */
typedef struct EsiEntryPoint {
    const char* name;
    int32_t     kind;
    int         idEntry, idNullToken, idNullUserid, idNullPassword, idNullNewPassword, idEvent, idExit, idUnregister;
    const char* passwordText;
    const char* actionText;
} EsiEntryPoint;

static const EsiEntryPoint verifyEntry = {
    "ZEP_ESI_verifyPassword", ESI_KIND_VERIFY, 1800, 1801, 1802, 1803, 0, 1804, 1805, 1826,
    "NULL password, password", "Verifying",
};

static const EsiEntryPoint changeEntry = {
    "ZEP_ESI_changePassword", ESI_KIND_CHANGE, 1806, 1807, 1808, 1809, 1810, 1811, 1812, 1827,
    "NULL old password, oldPassword", "Changing",
};

static bool isEmpty(const char* text)
{
    return text == NULL || text[0] == '\0';
}

/* Registered on entry. The texts must be there before anything is sent. */
static int checkEsiTexts(const EsiEntryPoint* entry, const EsiRequest* request)
{
    if (isEmpty(request->userid)) {
        TRACE_EXC(entry->idNullUserid, "API.%s() NULL user id, userid=%p\n", entry->name, (const void*)request->userid);
        return ESI_ERR_NULL_USERID;
    }
    if (isEmpty(request->password)) {
        TRACE_EXC(entry->idNullPassword, "API.%s() %s=%p\n", entry->name, entry->passwordText,
                  (const void*)request->password);
        return ESI_ERR_NULL_PASSWORD;
    }
    if (entry->kind == ESI_KIND_CHANGE && isEmpty(request->newPassword)) {
        TRACE_EXC(entry->idNullNewPassword, "API.%s() NULL new password, newPassword=%p\n", entry->name,
                  (const void*)request->newPassword);
        return ESI_ERR_NULL_NEW_PASSWORD;
    }
    return 0;
}

static int runEsiEntryPoint(const EsiEntryPoint* entry, GatewayToken* gwTok, EsiRequest* request,
                            const char* server, EsiDetails* esiDetailsPtr)
{
    if (gwTok == NULL) {
        TRACE_EXC(entry->idNullToken, "API.%s() NULL gateway token, gwTok=%p\n", entry->name, (void*)gwTok);
        return ZEP_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(gwTok);
    if (rc != 0) return rc;
    rc = checkEsiTexts(entry, request);
    /* As for ECI requests: a closing connection sends nothing more, so that its close flow is the last. */
    if (rc == 0 && __atomic_load_n(&gwTok->closing, __ATOMIC_RELAXED)) rc = ZEP_ERR_GWTOK_CLOSED;
    if (rc == 0) {
        TRACE_EVENT(entry->idEvent, "API.%s() %s password for userid=%s on server=%s\n", entry->name,
                    entry->actionText, request->userid, TRACE_STR(server));
        rc = performEsiFlow(gwTok, request, esiDetailsPtr);
    }
    if (clapiUnregisterRequest(gwTok) != 0) {
        TRACE_EXC(entry->idUnregister, "API.%s() Unregister request failed\n", entry->name);
        if (rc == 0) rc = ESI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

static int esiFrame(const EsiEntryPoint* entry, GatewayToken* gwTok, EsiRequest* request, const char* server,
                    EsiDetails* esiDetailsPtr)
{
    int rc = clapiInit();
    TRACE_ENTRY(entry->idEntry, "API.%s(gwTok=%p, userid=%s, server=%s, esiDetailsPtr=%p)\n", entry->name,
                (void*)gwTok, TRACE_STR(request->userid), TRACE_STR(server), (void*)esiDetailsPtr);
    if (server != NULL) memcpy(request->server, server, strnlen(server, sizeof request->server));
    if (rc == 0) rc = runEsiEntryPoint(entry, gwTok, request, server, esiDetailsPtr);
    TRACE_EXIT(entry->idExit, "API.%s() rc=%d (%s)\n", entry->name, rc, clapiGetRcString(rc));
    return rc;
}

int ZEP_ESI_verifyPassword(GatewayToken* gwTok, const char* userid, const char* password, const char* server,
                           EsiDetails* esiDetailsPtr)
{
    EsiRequest request;
    memset(&request, 0, sizeof request);
    request.esiKind = ESI_KIND_VERIFY;
    request.userid = userid;
    request.password = password;
    return esiFrame(&verifyEntry, gwTok, &request, server, esiDetailsPtr);
}

int ZEP_ESI_changePassword(GatewayToken* gwTok, const char* userid, const char* oldPassword,
                           const char* newPassword, const char* server, EsiDetails* esiDetailsPtr)
{
    EsiRequest request;
    memset(&request, 0, sizeof request);
    request.esiKind = ESI_KIND_CHANGE;
    request.userid = userid;
    request.password = oldPassword;
    request.newPassword = newPassword;
    return esiFrame(&changeEntry, gwTok, &request, server, esiDetailsPtr);
}

/* ---------------------------------------------------------------- time conversion */

static const int32_t leapMonthMods[12] = {6, 2, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};
static const int32_t monthMods[12] = {0, 3, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};
static const int32_t daysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

int isLeapYear(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0;
}

/*
 * The weekday from century, year and month terms. The terms of 2100 count it as a leap year although
 * isLeapYear says otherwise; the weekdays after February 2100 follow the terms.
 */
static int32_t weekday(int32_t year, int32_t month, int32_t day)
{
    int32_t yearTerm = year - 1900;
    int32_t centuryTerm = 0;
    if (year > 2100) {
        yearTerm = year - 2100;
        centuryTerm = 4;
    } else if (year > 2000) {
        yearTerm = year - 2000;
        centuryTerm = 6;
    }
    int32_t monthTerm = isLeapYear(year) ? leapMonthMods[month] : monthMods[month];
    return (centuryTerm + yearTerm + day + yearTerm / 4 + monthTerm) % 7;
}

/* Counts 1 January as day 1, one more than the struct tm convention. */
static int32_t dayOfYear(int32_t year, int32_t month, int32_t day)
{
    int32_t days = day;
    for (int32_t m = 0; m < month; m++) days += m == 1 && isLeapYear(year) ? 29 : daysInMonth[m];
    return days;
}

struct tm* ZEP_ESI_convertTime(const EsiTime* esiTime, struct tm* result)
{
    TRACE_ENTRY(1813, "API.ZEP_ESI_convertTime(esiTime=%p, result=%p)\n", (const void*)esiTime, (void*)result);
    if (esiTime != NULL && result != NULL) {
        if (esiTime->year == 0) {
            memset(result, 0, sizeof *result);   /* an unset time */
        } else if (esiTime->month < 0 || esiTime->month > 11) {
            /* The month indexes the tables: outside them the result is left as it was. */
            TRACE_EXC(1828, "API.ZEP_ESI_convertTime() Invalid month, month=%d\n", esiTime->month);
        } else {
            result->tm_wday = weekday(esiTime->year, esiTime->month, esiTime->day);
            result->tm_yday = dayOfYear(esiTime->year, esiTime->month, esiTime->day);
            result->tm_isdst = -1;
            result->tm_year = esiTime->year - 1900;
            result->tm_mon = esiTime->month;
            result->tm_mday = esiTime->day;
            result->tm_hour = esiTime->hour;
            result->tm_min = esiTime->minute;
            result->tm_sec = esiTime->second;
            TRACE_DEBUG(1814, "API.ZEP_ESI_convertTime() tm members year=%d, month=%d, day=%d, hour=%d, min=%d, sec=%d, wday=%d, yday=%d\n",
                        result->tm_year, result->tm_mon, result->tm_mday, result->tm_hour, result->tm_min,
                        result->tm_sec, result->tm_wday, result->tm_yday);
        }
    }
    TRACE_EXIT(1815, "API.ZEP_ESI_convertTime() result=%p\n", (void*)result);
    return result;
}
