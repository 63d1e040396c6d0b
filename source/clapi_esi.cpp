/* Placeholder so the library links while this module is written; replaced by its owner. */
#include "clapi_esi.h"
#include <time.h>
#pragma GCC diagnostic ignored "-Wunused-parameter"

extern "C" { CLAPI_MODULE_VERSION(clapi_esi); }
int performEsiFlow(GatewayToken* gwTok, EsiRequest* esiRequest, EsiDetails* esiDetails) { return 0; }
int mapGwyRc(int rc) { return 0; }
int isLeapYear(int year) { return 0; }
int ZEP_ESI_verifyPassword(GatewayToken* gwTok, const char* userid, const char* password, const char* server, EsiDetails* esiDetailsPtr) { return 0; }
int ZEP_ESI_changePassword(GatewayToken* gwTok, const char* userid, const char* oldPassword, const char* newPassword, const char* server, EsiDetails* esiDetailsPtr) { return 0; }
struct tm* ZEP_ESI_convertTime(const EsiTime* esiTime, struct tm* result) { return 0; }
