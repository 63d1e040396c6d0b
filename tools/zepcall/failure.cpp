#include "failure.h"

#include <zepclient.hpp>

namespace zepcall {

namespace {

bool isConnectionFailure(int rc)
{
    switch (rc) {
    case ZEP_ERR_LOSTGWCON:
    case ZEP_ERR_CONNECTFAILED:
    case ZEP_ERR_BADHOST:
    case ZEP_ERR_CONNECTTIMEOUT:
    case ZEP_ERR_GWTOK_CLOSED:
    case ZEP_ERR_GATEWAY_CLOSED:
    case ZEP_ERR_WORK_WAS_REFUSED:
    case ZEP_ERR_GATEWAY_EXCEPTION:
    case ZEP_ERR_GATEWAY_BACK_LEVEL:
        return true;
    default:
        return false;
    }
}

std::string systemName(const FailureContext& context)
{
    return context.system.empty() ? "the default system" : "system " + context.system;
}

std::string explanation(int rc, const FailureContext& c)
{
    switch (rc) {
    case ZEP_ERR_CONNECTFAILED: return "nothing accepted the connection at " + c.where;
    case ZEP_ERR_BADHOST: return "the host of " + c.where + " could not be resolved";
    case ZEP_ERR_CONNECTTIMEOUT: return "the Gateway at " + c.where + " did not answer within the connect time-out";
    case ZEP_ERR_LOSTGWCON: return "the connection to the Gateway at " + c.where + " was lost";
    case ZEP_ERR_GATEWAY_CLOSED: return "the Gateway at " + c.where + " closed the connection";
    case ZEP_ERR_WORK_WAS_REFUSED: return "the Gateway at " + c.where + " refused the work";
    case ZEP_ERR_GATEWAY_EXCEPTION: return "the Gateway at " + c.where + " reported an exception";
    case ZEP_ERR_APPLIDTOOLONG: return "the APPLID or its qualifier (ZEP_APPLID, ZEP_APPLIDQUALIFIER) is longer than 8";
    case ZEP_ERR_TRACEFILE: return "the trace file could not be opened for appending";
    case ZEP_ERR_MORE_SYSTEMS: return "the Gateway knows more systems than were listed";
    case ECI_ERR_TRANSACTION_ABEND:
        return "program " + c.program + " ended abnormally" +
               (c.abendCode.empty() ? std::string() : ", abend code " + c.abendCode);
    case ECI_ERR_NO_VANT: return systemName(c) + " is not available";
    case ECI_ERR_VANT_DIED: return systemName(c) + " ended while it ran the program";
    case ECI_ERR_UNKNOWN_SERVER: return "the Gateway does not know " + systemName(c);
    case ECI_ERR_REQUEST_TIMEOUT:
    case ECI_ERR_RESPONSE_TIMEOUT: return "the call of " + c.program + " timed out";
    case ECI_ERR_SECURITY_ERROR: return "the user or password was not accepted for program " + c.program;
    case ECI_ERR_ROLLEDBACK: return "program " + c.program + " rolled its work back";
    case ECI_ERR_LUW_TOKEN: return "the unit of work is not known to the Gateway";
    case ECI_ERR_INVALID_NAME: return "a channel or container name has 1 to 16 letters, digits or <>$@#/%&?!:|\"=';.-_";
    case ECI_ERR_CONTAINER_EXISTS: return "two containers of one name";
    case ESI_ERR_USERID_INVALID: return "user " + c.user + " is not known";
    case ESI_ERR_PASSWORD_INVALID: return "the password of " + c.user + " is wrong";
    case ESI_ERR_PASSWORD_EXPIRED: return "the password of " + c.user + " has expired; change it with zepcall change";
    case ESI_ERR_PASSWORD_REJECTED: return "the new password was rejected: too short, or the same as the old one";
    case ESI_ERR_UNKNOWN_SERVER: return "the Gateway does not know " + systemName(c);
    case ESI_ERR_NULL_PASSWORD:
    case ESI_ERR_NULL_NEW_PASSWORD: return "a password may not be empty";
    case ESI_ERR_NULL_USERID: return "the user id may not be empty";
    default: break;
    }
    if (isConnectionFailure(rc))
        return "the connection to the Gateway at " + c.where + " failed";
    return c.program.empty() ? "the request failed" : "the call of " + c.program + " failed";
}

}  // namespace

int exitStatusFor(int rc)
{
    if (rc == ZEP_OK)
        return kExitOk;
    if (isConnectionFailure(rc))
        return kExitConnection;
    if (rc == ZEP_ERR_APPLIDTOOLONG)
        return kExitUsage;
    if (rc == ZEP_ERR_TRACEFILE)
        return kExitLocal;
    switch (rc) {
    case ECI_ERR_SECURITY_ERROR:
    case ESI_ERR_USERID_INVALID:
    case ESI_ERR_PASSWORD_INVALID:
    case ESI_ERR_PASSWORD_EXPIRED:
    case ESI_ERR_SECURITY_ERROR:
    case ESI_ERR_PASSWORD_REJECTED:
        return kExitSecurity;
    default:
        return kExitCallError;
    }
}

std::string failureMessage(int rc, const FailureContext& context)
{
    return zep::category().message(rc) + " (" + std::to_string(rc) + "): " + explanation(rc, context);
}

}  // namespace zepcall
