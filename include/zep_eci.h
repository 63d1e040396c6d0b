/**
 * \file zep_eci.h
 * \brief The ECI parameter block and the calls that run programs on a server.
 */
#ifndef ZEP_ECI_H
#define ZEP_ECI_H

#include <stdint.h>
#include "zep_gateway.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * \name Call types
 * Values of EciParms::eci_call_type.
 * @{
 */
#define ECI_SYNC                     1   /**< run the program and wait for its reply */
#define ECI_ASYNC                    2   /**< send the request and return; collect the reply with a reply call type */
#define ECI_GET_REPLY                3   /**< take the oldest reply of any asynchronous request, if one is there */
#define ECI_GET_REPLY_WAIT           4   /**< take the oldest reply of any asynchronous request, waiting for one */
#define ECI_GET_SPECIFIC_REPLY       5   /**< take the reply to EciParms::eci_message_qualifier, if it is there */
#define ECI_GET_SPECIFIC_REPLY_WAIT  6   /**< take the reply to EciParms::eci_message_qualifier, waiting for it */
/** @} */

/**
 * \name ECI version levels
 * Values of EciParms::eci_version: the level of the block the caller filled in.
 * @{
 */
#define ECI_VERSION_MIN_COMMAREA     3   /**< the lowest level ZEP_ECI_Execute() accepts */
#define ECI_VERSION_MIN_CHANNEL      4   /**< the lowest level ZEP_ECI_Execute_Channel() accepts */
#define ECI_VERSION_CREDENTIAL_PTRS  5   /**< from this level the user id and password come from eci_userid_ptr and eci_password_ptr */
#define ECI_VERSION_ASYNC            6   /**< required by every call type but ::ECI_SYNC */
#define ECI_VERSION_MAX              6   /**< the highest level accepted */
/** @} */

/** \cond */
#ifndef ZEP_CHANNEL_TOKEN_DEFINED
#define ZEP_CHANNEL_TOKEN_DEFINED
typedef struct Channel Channel;             /* opaque: the channel token */
#endif
/** \endcond */

/**
 * \brief One ECI call: filled by the caller, read by the library, results written back into it.
 *
 * Byte-packed, 98 bytes on i386 and 114 on x86-64. Zero it, then fill what the call needs. Its layout is
 * part of the binary interface.
 */
#pragma pack(push, 1)
typedef struct EciParms {
    int16_t  eci_call_type;              /**< what the call does: ::ECI_SYNC, ::ECI_ASYNC or a reply call type */
    char     eci_program_name[8];        /**< the program to run, blank- or NUL-padded, not terminated */
    char     eci_userid[16];             /**< the user id, blank- or NUL-padded; used below ::ECI_VERSION_CREDENTIAL_PTRS */
    char     eci_password[16];           /**< the password, blank- or NUL-padded; used below ::ECI_VERSION_CREDENTIAL_PTRS; never traced */
    char     eci_transid[4];             /**< the transaction id the program runs under */
    char     eci_abend_code[4];          /**< out: the abend code of the reply */
    void*    eci_commarea;               /**< the caller's COMMAREA, or NULL (then eci_commarea_length is 0); the reply data is written here */
    int16_t  eci_commarea_length;        /**< the COMMAREA's length in bytes, 0 to 32767 */
    int16_t  eci_timeout;                /**< seconds the Gateway may take to run the request, 0 for none; passed to the Gateway, not a limit of the library's wait */
    int16_t  eci_extend_mode;            /**< unit of work: 0 a plain call, 1 call and keep the unit open, 2 commit, 4 back out (2 and 4 send no data) */
    int32_t  eci_luw_token;              /**< in: the unit of work to continue, 0 for a new one; out: the unit's token */
    int16_t  eci_version;                /**< the level of this block (see the ECI version levels), at most ::ECI_VERSION_MAX */
    char     eci_system_name[8];         /**< the server to run on, blank- or NUL-padded; all blanks for the Gateway's default */
    char     eci_alt_transid[4];         /**< when any byte is not 0, replaces eci_transid in the request */
    int16_t  commarea_outbound_length;   /**< bytes of the COMMAREA to send; 0 sends eci_commarea_length bytes */
    int16_t  commarea_inbound_length;    /**< in: the reply bytes wanted, 0 for eci_commarea_length; out: the reply bytes received */
    Channel* eci_channel;                /**< the channel for ZEP_ECI_Execute_Channel(), else NULL */
    char*    eci_userid_ptr;             /**< the user id, NUL-terminated; used from ::ECI_VERSION_CREDENTIAL_PTRS */
    char*    eci_password_ptr;           /**< the password, NUL-terminated; used from ::ECI_VERSION_CREDENTIAL_PTRS; never traced */
    uint32_t eci_message_qualifier;      /**< out of ::ECI_ASYNC: the request's qualifier; in for the specific reply call types */
} EciParms;                                  /* 98 bytes on i386, 114 on x86-64 */
#pragma pack(pop)

/**
 * \brief Runs a program with a COMMAREA, or collects the reply of an asynchronous call.
 *
 * ::ECI_SYNC blocks until the reply comes or the connection ends: the library sets no time limit of its
 * own (EciParms::eci_timeout goes to the Gateway). ::ECI_ASYNC returns once the request is sent and puts
 * its qualifier in EciParms::eci_message_qualifier. ::ECI_GET_REPLY and ::ECI_GET_SPECIFIC_REPLY never
 * wait; ::ECI_GET_REPLY_WAIT and ::ECI_GET_SPECIFIC_REPLY_WAIT wait without a limit until a matching reply
 * comes, the connection ends or it is closed. Any number of threads may call this on one token at once.
 * Every call type but ::ECI_SYNC needs an eci_version of ::ECI_VERSION_ASYNC.
 * \param gwTok an open connection
 * \param parms the call; eci_version at least ::ECI_VERSION_MIN_COMMAREA
 * \return ::ECI_NO_ERROR, an ECI return code (the block's checks or the server's result), or a general
 *         return code (::ZEP_ERR_LOSTGWCON, ::ZEP_ERR_GWTOK_CLOSED, ...)
 */
int   ZEP_ECI_Execute(GatewayToken* gwTok, EciParms* parms);
/**
 * \brief Runs a program with a channel of containers instead of a COMMAREA, or collects a reply.
 *
 * As ZEP_ECI_Execute(), with EciParms::eci_channel set and eci_commarea NULL. The channel is the call's
 * until the reply is in (::ECI_SYNC) or collected (::ECI_ASYNC): container calls on it from other threads
 * wait until then. The reply's changes, deletions and new containers are applied to the channel.
 * \param gwTok an open connection
 * \param parms the call; eci_version at least ::ECI_VERSION_MIN_CHANNEL
 * \return as ZEP_ECI_Execute(), also ::ECI_ERR_INVALID_CHANNEL and ::ECI_ERR_COMMAREA_AND_CHANNEL
 */
int   ZEP_ECI_Execute_Channel(GatewayToken* gwTok, EciParms* parms);

#ifdef __cplusplus
}
#endif

#endif
