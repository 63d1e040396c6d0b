/**
 * \file zep_gateway.h
 * \brief Return codes, versions, tracing, Gateway connections and the system list.
 *
 * Every function here may be called from any thread. Only the connection calls talk to the Gateway and
 * block; see \ref threading "Threads, blocking and time limits" for how long.
 */
#ifndef ZEP_GATEWAY_H
#define ZEP_GATEWAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * \name General return codes
 * Returned by the connection, version and trace calls, and by the ECI and ESI calls for failures of the
 * connection. ZEP_getRcString() gives the name of any code.
 * @{
 */
#define ZEP_OK                          0  /**< The call did what it was asked. */
#define ZEP_ERR_SYSTEM_ERROR           -9  /**< A lock, event or thread of the library failed, or the library could not be initialised. */
#define ZEP_ERR_MORE_SYSTEMS          -25  /**< ZEP_listSystems: the Gateway knows more systems than the list had room for; the list is full. */
#define ZEP_ERR_NO_SYSTEMS            -26  /**< ZEP_listSystems: the Gateway knows no systems. */
#define ZEP_ERR_NULLGWTOK            -100  /**< The gateway token is NULL. */
#define ZEP_ERR_BADGWTOK             -101  /**< The gateway token is not an open connection of this process (never opened, or already closed). */
#define ZEP_ERR_LOSTGWCON            -102  /**< The connection to the Gateway was lost (the socket failed) before the reply came. */
#define ZEP_ERR_NULLPARM             -103  /**< A required text argument (APPLID or qualifier) is NULL. */
#define ZEP_ERR_TRACELEVEL           -104  /**< The trace level is not 0 to 5. */
#define ZEP_ERR_BADPORT              -107  /**< The port is not 1 to 65535. */
#define ZEP_ERR_NULLGWTOKPTR         -108  /**< The address of the caller's gateway token variable is NULL. */
#define ZEP_ERR_NULLPTR              -109  /**< An output pointer is NULL. */
#define ZEP_ERR_MALLOCFAIL           -111  /**< The library could not allocate memory. */
#define ZEP_ERR_CONNECTFAILED        -118  /**< The TCP connection or the handshake request failed. */
#define ZEP_ERR_TRACEFILE            -130  /**< The trace file could not be opened. */
#define ZEP_ERR_BADHOST              -132  /**< The host name could not be resolved (or no socket could be created for it). */
#define ZEP_ERR_NULLADDRESS          -133  /**< The host name is NULL. */
#define ZEP_ERR_CONNECTTIMEOUT       -134  /**< The connect or the handshake reply took longer than the connection time-out. */
#define ZEP_ERR_NULLECIPOINTER       -137  /**< The EciParms pointer is NULL. */
#define ZEP_ERR_INVALIDTIMEOUTPARM   -138  /**< A time-out argument is above 3600 seconds. */
#define ZEP_ERR_APPLIDTOOLONG        -139  /**< The APPLID or its qualifier is longer than 8 characters. */
#define ZEP_ERR_GWTOK_CLOSED         -140  /**< The connection is closing (or was closed by this process): no new work is taken. */
#define ZEP_ERR_GATEWAY_CLOSED       61444 /**< The Gateway closed the connection. */
#define ZEP_ERR_WORK_WAS_REFUSED     61445 /**< The Gateway refused the request. */
#define ZEP_ERR_GATEWAY_EXCEPTION    61446 /**< The Gateway reported an exception for the request. */
#define ZEP_ERR_GATEWAY_BACK_LEVEL   61450 /**< The Gateway is of a level that does not support the request. */
#define ZEP_ERR_INVALID_REQUEST_TYPE 61451 /**< The Gateway does not know the request type. */
/** @} */

/**
 * \name ECI return codes
 * Returned by ZEP_ECI_Execute() and ZEP_ECI_Execute_Channel(): the checks of the parameter block and the
 * results the Gateway sends for a program call.
 * @{
 */
#define ECI_NO_ERROR                    0  /**< The ECI or channel call did what it was asked. */
#define ECI_ERR_INVALID_DATA_LENGTH    -1  /**< A COMMAREA length is negative, or the caller's COMMAREA is shorter than an asynchronous reply (its length is then written back). */
#define ECI_ERR_INVALID_EXTEND_MODE    -2  /**< eci_extend_mode is not 0, 1, 2 or 4. */
#define ECI_ERR_NO_VANT                -3  /**< The server is not available. */
#define ECI_ERR_VANT_DIED              -4  /**< The server ended while it ran the request. */
#define ECI_ERR_REQUEST_TIMEOUT        -5  /**< eci_timeout is negative, or the request timed out at the Gateway. */
#define ECI_ERR_RESPONSE_TIMEOUT       -6  /**< The server did not answer within the time-out. */
#define ECI_ERR_TRANSACTION_ABEND      -7  /**< The program abended; eci_abend_code holds the abend code. */
#define ECI_ERR_LUW_TOKEN              -8  /**< eci_luw_token does not name an open unit of work. */
#define ECI_ERR_SYSTEM_ERROR           -9  /**< A lock or event of the library failed, or the server reported a system error. */
#define ECI_ERR_INVALID_CALL_TYPE     -14  /**< eci_call_type is not 1 to 6. */
#define ECI_ERR_ALREADY_ACTIVE        -15  /**< The Gateway reports the request as already active. */
#define ECI_ERR_RESOURCE_SHORTAGE     -16  /**< Memory or server resources ran short. */
#define ECI_ERR_NO_SESSIONS           -17  /**< The server has no free session. */
#define ECI_ERR_INVALID_DATA_AREA     -19  /**< eci_commarea and eci_commarea_length disagree (NULL with a length, or a buffer of length 0). */
#define ECI_ERR_INVALID_VERSION       -21  /**< eci_version is too low for the entry point or the call type, or above ECI_VERSION_MAX. */
#define ECI_ERR_UNKNOWN_SERVER        -22  /**< eci_system_name names no server the Gateway knows. */
#define ECI_ERR_SECURITY_ERROR        -27  /**< The user id or password was not accepted. */
#define ECI_ERR_MAX_SYSTEMS           -28  /**< The Gateway reached its limit of servers. */
#define ECI_ERR_MAX_SESSIONS          -29  /**< The server reached its limit of sessions. */
#define ECI_ERR_ROLLEDBACK            -30  /**< The unit of work was backed out. */
#define ECI_ERR_NO_REPLY              -32  /**< No reply is ready (the non-waiting reply call types), or the qualifier names no request that awaits one. */
#define ECI_ERR_INVALID_MSG_QUAL      -33  /**< eci_message_qualifier names no outstanding asynchronous request. */
/** @} */

/**
 * \name Channel and container return codes
 * Returned by the ECI_ channel and container calls of zep_channel.h (success is ::ECI_NO_ERROR).
 * @{
 */
#define ECI_ERR_INVALID_CHANNEL       -50  /**< The channel token is NULL or not a channel. */
#define ECI_ERR_INVALID_NAME          -51  /**< A channel or container name is not a valid name. */
#define ECI_ERR_NULLCHANNELPTR        -52  /**< The address of the caller's channel token variable is NULL. */
#define ECI_ERR_CHANNELLOCKFAIL       -53  /**< The channel's lock could not be created or taken. */
#define ECI_ERR_ENDOFCONTAINERS       -54  /**< ECI_getFirstContainer / ECI_getNextContainer: no (more) containers. */
#define ECI_ERR_NULLINFOPTR           -55  /**< The ContainerInfo pointer is NULL. */
#define ECI_ERR_INVALID_TYPE          -56  /**< The container type is not ECI_BIT or ECI_CHAR. */
#define ECI_ERR_CONTAINER_NOTFOUND    -58  /**< The channel has no container of that name. */
#define ECI_ERR_CONTAINER_EXISTS      -59  /**< The channel already has a container of that name. */
#define ECI_ERR_COMMAREA_AND_CHANNEL  -60  /**< ZEP_ECI_Execute_Channel: the block has both a channel and a COMMAREA. */
#define ECI_ERR_NULLPTR              -109  /**< A data or output pointer of a channel or container call is NULL. */
#define ECI_ERR_MEMORY_SHORTAGE      -111  /**< A channel or container call could not allocate memory. */
#define ECI_ERR_LOCKFAIL             -121  /**< The channel list lock failed. */
/** @} */

/**
 * \name ESI return codes
 * Returned by ZEP_ESI_verifyPassword() and ZEP_ESI_changePassword(): the Gateway's verdict on a user and
 * password, and the checks of their arguments.
 * @{
 */
#define ESI_ERR_USERID_INVALID       -300  /**< The user id is not known to the server. */
#define ESI_ERR_NULL_USERID          -301  /**< The user id is NULL. */
#define ESI_ERR_PASSWORD_INVALID     -302  /**< The password is wrong. */
#define ESI_ERR_NULL_PASSWORD        -303  /**< The password (the old one, for a change) is NULL. */
#define ESI_ERR_PEM_NOT_SUPPORTED    -304  /**< The server does not support password management. */
#define ESI_ERR_PEM_NOT_ACTIVE       -305  /**< Password management is not active on the server. */
#define ESI_ERR_PASSWORD_EXPIRED     -306  /**< The password is right but has expired; change it. */
#define ESI_ERR_SECURITY_ERROR       -307  /**< The server's security manager failed the request. */
#define ESI_ERR_RESOURCE_SHORTAGE    -308  /**< Memory or server resources ran short. */
#define ESI_ERR_NO_SESSIONS          -309  /**< The server has no free session. */
#define ESI_ERR_NO_VANT              -310  /**< The server is not available. */
#define ESI_ERR_VANT_DIED            -311  /**< The server ended while it ran the request. */
#define ESI_ERR_UNKNOWN_SERVER       -312  /**< The server name names no server the Gateway knows. */
#define ESI_ERR_SYSTEM_ERROR         -313  /**< The server or the Gateway reported a system error. */
#define ESI_ERR_NULL_NEW_PASSWORD    -314  /**< The new password is NULL. */
#define ESI_ERR_PASSWORD_REJECTED    -315  /**< The new password was refused (too short, or equal to the old one, say). */

/** @} */

/** The bytes ZEP_getRcString() always writes: the name of the code, then NULs up to this length. */
#define ZEP_RC_STRING_LENGTH 40

/**
 * \brief An open connection to a Gateway (opaque).
 *
 * Made by ZEP_openRemoteGatewayConnection(), ended by ZEP_closeGatewayConnection(),
 * ZEP_purgeGatewayConnection() or ZEP_closeAllGatewayConnections(). Any number of threads may use one
 * token at once; its requests share one TCP connection and one receiver thread.
 */
typedef struct GatewayToken GatewayToken;   /* opaque: applications hold GatewayToken* */

/** \brief One entry of the system list filled by ZEP_listSystems(). */
typedef struct SystemInfo {                  /* one entry of ZEP_listSystems: 70 bytes */
    char name[9];           /**< the system's name, NUL-terminated, trailing blanks removed */
    char description[61];   /**< the Gateway's description of it, NUL-padded */
} SystemInfo;

/**
 * \brief Points `*dllVersPtr` at the library's version text, "9.1.0.4".
 * \param dllVersPtr where to store the pointer; the text is the library's own: do not change or free it
 * \return ::ZEP_OK, or ::ZEP_ERR_NULLPTR when `dllVersPtr` is NULL
 */
int   ZEP_getDLLVersion(char** dllVersPtr);
/**
 * \brief Points `*apiVersPtr` at the version text of the interface, "2.3.0.0".
 * \param apiVersPtr where to store the pointer; the text is the library's own: do not change or free it
 * \return ::ZEP_OK, or ::ZEP_ERR_NULLPTR when `apiVersPtr` is NULL
 */
int   ZEP_getAPIVersion(char** apiVersPtr);
/**
 * \brief Reads the current trace level (0 off to 5).
 * \param traceStatePtr receives the level
 * \return ::ZEP_OK, or ::ZEP_ERR_NULLPTR when `traceStatePtr` is NULL
 */
int   ZEP_getAPITraceLevel(int* traceStatePtr);
/**
 * \brief Writes the name of a return code of any family, for example "ZEP_ERR_BADPORT".
 *
 * Always writes ::ZEP_RC_STRING_LENGTH (40) bytes: the name, then NULs, so the text is always terminated.
 * An unknown code gets a name saying so. Works before any other call and never fails.
 * \param rc the return code
 * \param rcString a buffer of at least ::ZEP_RC_STRING_LENGTH bytes, or NULL (then nothing is written)
 * \return `rcString`
 */
char* ZEP_getRcString(int rc, char* rcString);           /* rcString: 40 bytes */
/**
 * \brief Sets the trace level: 0 off, 1 exceptions, 2 events, 3 entry and exit, 4 and 5 debug and data dumps.
 *
 * The first change from 0 to a higher level writes the trace banner. The variable ZEP_CLIENT_TRACE_LEVEL
 * sets the level at the first call of the library.
 * \param traceState the new level, 0 to 5
 * \return ::ZEP_OK, or ::ZEP_ERR_TRACELEVEL (the level is left as it was)
 */
int   ZEP_setAPITraceLevel(int traceState);
/**
 * \brief Sends the trace to a file (appended to), or back to standard error.
 * \param traceFile the file's name; NULL sends the trace back to standard error
 * \return ::ZEP_OK, or ::ZEP_ERR_TRACEFILE when the file cannot be opened (the trace stays where it was)
 */
int   ZEP_setAPITraceFile(const char* traceFile);
/**
 * \brief Sets the most bytes one data dump of the trace shows.
 * \param dataLength the limit; 0 shows whole areas
 * \return ::ZEP_OK
 */
int   ZEP_setAPITraceDataLength(unsigned long dataLength);
/**
 * \brief Sets how many bytes at the start of every dumped area the trace skips.
 * \param dataOffset the bytes to skip
 * \return ::ZEP_OK
 */
int   ZEP_setAPITraceDataOffset(unsigned long dataOffset);
/**
 * \brief Writes the library's state (every open connection and every channel) to the trace destination,
 *        whatever the trace level.
 * \return ::ZEP_OK
 */
int   ZEP_dumpState(void);
/**
 * \brief Opens a connection to a Gateway, with an empty APPLID and qualifier.
 *
 * The same as ZEP_openRemoteGatewayConnectionApplid() with "" for both.
 * \param hostname the Gateway's host name or numeric address
 * \param port its TCP port, 1 to 65535
 * \param gwTokPtr receives the new token; left unchanged on failure
 * \param connTimeout seconds, at most 3600, that the TCP connect and, separately, the handshake may take;
 *        0 waits as long as the system lets the connect take, and for the handshake without a limit
 * \return ::ZEP_OK or a general return code (::ZEP_ERR_CONNECTFAILED, ::ZEP_ERR_CONNECTTIMEOUT, ...)
 */
int   ZEP_openRemoteGatewayConnection(const char* hostname, int port,
          GatewayToken** gwTokPtr, unsigned int connTimeout);
/**
 * \brief Opens a connection to a Gateway, naming this client with an APPLID and qualifier.
 *
 * Resolves the host, connects, starts the connection's receiver thread and exchanges the handshake;
 * blocks until the handshake reply comes or `connTimeout` runs out. The variables ZEP_APPLID and
 * ZEP_APPLIDQUALIFIER, when set, replace the two texts.
 * \param hostname the Gateway's host name or numeric address
 * \param port its TCP port, 1 to 65535
 * \param gwTokPtr receives the new token; left unchanged on failure
 * \param connTimeout seconds, at most 3600, that the TCP connect and, separately, the handshake may take;
 *        0 means no limit of the library's own
 * \param applid at most 8 characters
 * \param applidQualifier at most 8 characters
 * \return ::ZEP_OK or a general return code
 */
int   ZEP_openRemoteGatewayConnectionApplid(const char* hostname, int port,
          GatewayToken** gwTokPtr, unsigned int connTimeout,
          const char* applid, const char* applidQualifier);
/**
 * \brief Closes a connection once its outstanding work is done, and sets `*gwTokPtr` to NULL.
 *
 * New requests on the token are refused with ::ZEP_ERR_GWTOK_CLOSED at once. The call then waits, without
 * a time limit, until every call in progress on the token has returned and every asynchronous reply has
 * been collected, sends the close flow and waits for the receiver thread to end. Use
 * ZEP_purgeGatewayConnection() to bound the wait. Never call it from a thread whose own outstanding
 * work it would wait for.
 * \param gwTokPtr the address of the caller's token variable
 * \return ::ZEP_OK, ::ZEP_ERR_NULLGWTOKPTR, ::ZEP_ERR_NULLGWTOK, ::ZEP_ERR_BADGWTOK, ::ZEP_ERR_GWTOK_CLOSED
 *         (another thread is closing it) or ::ZEP_ERR_SYSTEM_ERROR
 */
int   ZEP_closeGatewayConnection(GatewayToken** gwTokPtr);
/**
 * \brief Closes a connection, waiting at most `closeTimeout` seconds for its outstanding work.
 *
 * As ZEP_closeGatewayConnection(), but when the time is up the close goes ahead: uncollected asynchronous
 * replies are abandoned, and calls still waiting for a reply end with the connection. The call still
 * waits for calls in progress to return.
 * \param gwTokPtr the address of the caller's token variable; set to NULL when the token is gone
 * \param closeTimeout seconds, 0 (do not wait for work) to 3600
 * \return as ZEP_closeGatewayConnection(), or ::ZEP_ERR_INVALIDTIMEOUTPARM
 */
int   ZEP_purgeGatewayConnection(GatewayToken** gwTokPtr, unsigned int closeTimeout);
/**
 * \brief Closes every connection of the process without waiting for outstanding work.
 *
 * Tokens that other threads still hold become invalid (::ZEP_ERR_BADGWTOK).
 * \return ::ZEP_OK
 */
int   ZEP_closeAllGatewayConnections(void);
/**
 * \brief Points `*applid` at the APPLID the connection was opened with.
 * \param gwTok an open connection
 * \param applid receives a pointer to the token's own text, valid until the connection is closed
 * \return ::ZEP_OK, ::ZEP_ERR_NULLGWTOK, ::ZEP_ERR_NULLPTR or ::ZEP_ERR_BADGWTOK
 */
int   ZEP_getApplid(GatewayToken* gwTok, char** applid);
/**
 * \brief Points `*applidQualifier` at the APPLID qualifier the connection was opened with.
 * \param gwTok an open connection
 * \param applidQualifier receives a pointer to the token's own text, valid until the connection is closed
 * \return ::ZEP_OK, ::ZEP_ERR_NULLGWTOK, ::ZEP_ERR_NULLPTR or ::ZEP_ERR_BADGWTOK
 */
int   ZEP_getApplidQualifier(GatewayToken* gwTok, char** applidQualifier);
/**
 * \brief Asks the Gateway for the systems it knows.
 *
 * Blocks until the Gateway answers or the connection ends; other requests on the connection go on
 * meanwhile.
 * \param gwTok an open connection
 * \param Systems in: the entries `List` has room for; out: the entries filled
 * \param List the caller's array of `*Systems` entries
 * \return ::ZEP_OK, ::ZEP_ERR_MORE_SYSTEMS (the list is full and more exist), ::ZEP_ERR_NO_SYSTEMS, or a
 *         general return code for bad arguments or a failed connection
 */
int   ZEP_listSystems(GatewayToken* gwTok, unsigned short* Systems, SystemInfo* List);

#ifdef __cplusplus
}
#endif

#endif
