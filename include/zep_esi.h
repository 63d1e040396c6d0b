/**
 * \file zep_esi.h
 * \brief Verifying and changing a user's password on a server, and converting the times it reports.
 */
#ifndef ZEP_ESI_H
#define ZEP_ESI_H

#include <stdint.h>
#include <time.h>
#include "zep_gateway.h"

#ifdef __cplusplus
extern "C" {
#endif

/** \brief A time the server reports about a user; all zero when unset. */
typedef struct EsiTime {                     /* seven signed 32-bit words */
    int32_t year,       /**< the year, for example 2024 */
            month,      /**< the month, 0 (January) to 11 */
            day,        /**< the day of the month, 1 to 31 */
            hour,       /**< the hour, 0 to 23 */
            minute,     /**< the minute, 0 to 59 */
            second,     /**< the second, 0 to 59 */
            reserved;   /**< not used */
} EsiTime;

/** \brief What the server reports about a user after a successful verification or change. */
typedef struct EsiDetails {                  /* 22 words, 88 bytes */
    EsiTime esiTime1;   /**< the first of the server's times for the user (the last verification, say) */
    EsiTime esiTime2;   /**< the second time */
    EsiTime esiTime3;   /**< the third time */
    int32_t esiCount;   /**< the server's count for the user (its verifications, say) */
} EsiDetails;

/**
 * \brief Asks a server whether a user's password is right.
 *
 * Blocks until the Gateway answers or the connection ends, with no time limit of the library's own;
 * other requests on the connection go on meanwhile.
 * \param gwTok an open connection
 * \param userid the user id, NUL-terminated
 * \param password the password, NUL-terminated; never traced
 * \param server the server's name, or NULL or "" for the Gateway's default
 * \param esiDetailsPtr receives the user's details when the password is right; may be NULL
 * \return ::ZEP_OK, an ESI return code, or a general return code for a failed connection
 */
int   ZEP_ESI_verifyPassword(GatewayToken* gwTok, const char* userid,
          const char* password, const char* server, EsiDetails* esiDetailsPtr);
/**
 * \brief Changes a user's password on a server.
 *
 * Blocks as ZEP_ESI_verifyPassword() does.
 * \param gwTok an open connection
 * \param userid the user id, NUL-terminated
 * \param oldPassword the current password; never traced
 * \param newPassword the new password; never traced
 * \param server the server's name, or NULL or "" for the Gateway's default
 * \param esiDetailsPtr receives the user's details when the change worked; may be NULL
 * \return ::ZEP_OK, an ESI return code, or a general return code for a failed connection
 */
int   ZEP_ESI_changePassword(GatewayToken* gwTok, const char* userid,
          const char* oldPassword, const char* newPassword, const char* server,
          EsiDetails* esiDetailsPtr);
/**
 * \brief Converts an EsiTime into a `struct tm`, without time zones.
 *
 * Sets tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year (years since 1900), tm_wday (0 Sunday), tm_yday
 * and tm_isdst (-1); other fields are left as they were. Unlike the C library's convention, **tm_yday is
 * one-based**: 1 January is day 1. An unset time (year 0) gives an all-zero result; a month outside 0 to
 * 11 leaves `result` as it was. Needs no connection and works from any thread.
 * \param esiTime the time to convert
 * \param result receives the calendar time
 * \return `result` (left as it was when `esiTime` is NULL)
 */
struct tm* ZEP_ESI_convertTime(const EsiTime* esiTime, struct tm* result);

#ifdef __cplusplus
}
#endif

#endif
