/**
 * \file zepclient.h
 * \brief The one header an application includes: it brings in the four below.
 *
 * \mainpage zepclient
 *
 * zepclient lets an application reach a Gateway over TCP: run programs on its servers (zep_eci.h) with a
 * COMMAREA or a channel of containers (zep_channel.h), verify and change passwords (zep_esi.h), and list
 * the servers (zep_gateway.h). Every call returns a code of zep_gateway.h; ZEP_getRcString() names it.
 * The library starts itself at the first call; if that fails, every call returns the same failure.
 *
 * \section threading Threads, blocking and time limits
 *
 * - Every function may be called from any thread, at any time. Any number of threads may share one
 *   connection (GatewayToken) and any channel; their requests go out one whole message at a time and each
 *   caller gets its own reply.
 * - Each connection has one receiver thread of its own, started by the open call and ended with the
 *   connection. It reads every reply and wakes the caller waiting for it. The library calls back into
 *   the application from no thread.
 * - Calls that block, and for how long:
 *   - ZEP_openRemoteGatewayConnection() and ZEP_openRemoteGatewayConnectionApplid(): the TCP connect and,
 *     separately, the handshake, each at most `connTimeout` seconds (0: no limit of the library's own).
 *   - A synchronous call (ZEP_ECI_Execute() or ZEP_ECI_Execute_Channel() with ::ECI_SYNC,
 *     ZEP_ESI_verifyPassword(), ZEP_ESI_changePassword(), ZEP_listSystems()) waits **without a limit**
 *     until the reply comes or the connection ends. EciParms::eci_timeout is sent to the Gateway, which
 *     enforces it; the library does not. A Gateway that never answers holds the caller until the
 *     connection fails or another thread purges it (ZEP_purgeGatewayConnection()).
 *   - ::ECI_GET_REPLY_WAIT and ::ECI_GET_SPECIFIC_REPLY_WAIT wait without a limit for a reply, the end of
 *     the connection, or its closing.
 *   - ZEP_closeGatewayConnection() waits **without a limit** for outstanding work: every call in progress
 *     on the token, and every asynchronous reply not yet collected. ZEP_purgeGatewayConnection() bounds
 *     that wait (0 to 3600 seconds), then abandons uncollected replies; it still waits for calls in
 *     progress to return. Both then wait for the Gateway to acknowledge the close or the socket to fail.
 *     ZEP_closeAllGatewayConnections() does not wait for work.
 *   - Channel and container calls on a channel that an ECI call holds wait until that call's reply is in
 *     (synchronous) or collected (asynchronous).
 *   - Everything else returns at once (the trace calls take the trace lock for one record's time).
 * - A closing connection refuses new requests with ::ZEP_ERR_GWTOK_CLOSED but still hands out replies of
 *   asynchronous calls. A lost connection ends every waiting call with ::ZEP_ERR_LOSTGWCON or
 *   ::ZEP_ERR_GATEWAY_CLOSED.
 * - Do not use a token after any thread closed it; the close call sets the caller's variable to NULL.
 * - The library ignores SIGPIPE for the whole process, so that a write to a dropped connection returns
 *   an error instead of ending the process.
 *
 * \section tracing Tracing
 *
 * ZEP_setAPITraceLevel() (or ZEP_CLIENT_TRACE_LEVEL) turns the trace on: 1 exceptions, 2 events, 3 entry
 * and exit of every call, 4 and 5 debug records and data dumps. It goes to standard error or to the file
 * of ZEP_setAPITraceFile() (ZEP_CLIENT_TRACE_FILE). Passwords never appear in it.
 */
#ifndef ZEPCLIENT_H
#define ZEPCLIENT_H

#include "zep_gateway.h"
#include "zep_eci.h"
#include "zep_channel.h"
#include "zep_esi.h"

#endif
