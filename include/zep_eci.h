/* zepclient: the ECI parameter block and the ECI calls. */
#ifndef ZEP_ECI_H
#define ZEP_ECI_H

#include <stdint.h>
#include "zep_gateway.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ECI_SYNC                     1
#define ECI_ASYNC                    2
#define ECI_GET_REPLY                3
#define ECI_GET_REPLY_WAIT           4
#define ECI_GET_SPECIFIC_REPLY       5
#define ECI_GET_SPECIFIC_REPLY_WAIT  6

#ifndef ZEP_CHANNEL_TOKEN_DEFINED
#define ZEP_CHANNEL_TOKEN_DEFINED
typedef struct Channel Channel;             /* opaque: the channel token */
#endif

#pragma pack(push, 1)
typedef struct EciParms {
    int16_t  eci_call_type;
    char     eci_program_name[8];
    char     eci_userid[16];
    char     eci_password[16];
    char     eci_transid[4];
    char     eci_abend_code[4];
    void*    eci_commarea;
    int16_t  eci_commarea_length;
    int16_t  eci_timeout;
    int16_t  eci_extend_mode;
    int32_t  eci_luw_token;
    int16_t  eci_version;
    char     eci_system_name[8];
    char     eci_alt_transid[4];
    int16_t  commarea_outbound_length;
    int16_t  commarea_inbound_length;
    Channel* eci_channel;
    char*    eci_userid_ptr;
    char*    eci_password_ptr;
    uint32_t eci_message_qualifier;
} EciParms;                                  /* 98 bytes on i386, 114 on x86-64 */
#pragma pack(pop)

int   ZEP_ECI_Execute(GatewayToken* gwTok, EciParms* parms);
int   ZEP_ECI_Execute_Channel(GatewayToken* gwTok, EciParms* parms);

#ifdef __cplusplus
}
#endif

#endif
