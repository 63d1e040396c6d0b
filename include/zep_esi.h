/* zepclient: password verification and change, and ESI time conversion. */
#ifndef ZEP_ESI_H
#define ZEP_ESI_H

#include <stdint.h>
#include <time.h>
#include "zep_gateway.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct EsiTime {                     /* seven signed 32-bit words */
    int32_t year, month, day, hour, minute, second, reserved;
} EsiTime;

typedef struct EsiDetails {                  /* 22 words, 88 bytes */
    EsiTime esiTime1;
    EsiTime esiTime2;
    EsiTime esiTime3;
    int32_t esiCount;
} EsiDetails;

int   ZEP_ESI_verifyPassword(GatewayToken* gwTok, const char* userid,
          const char* password, const char* server, EsiDetails* esiDetailsPtr);
int   ZEP_ESI_changePassword(GatewayToken* gwTok, const char* userid,
          const char* oldPassword, const char* newPassword, const char* server,
          EsiDetails* esiDetailsPtr);
struct tm* ZEP_ESI_convertTime(const EsiTime* esiTime, struct tm* result);

#ifdef __cplusplus
}
#endif

#endif
