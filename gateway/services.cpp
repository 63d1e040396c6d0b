#include "services.h"

#include <algorithm>

namespace zepgw {

Bytes answerSystemList(int32_t messageId, const EciRequest& q, const SystemTable& systems)
{
    const std::vector<SystemEntry>& all = systems.entries();
    const size_t room = static_cast<size_t>(std::max(q.capacity, 0));
    int32_t rc = 0;
    if (all.empty())
        rc = kRcNoSystems;
    else if (room < all.size())
        rc = kRcMoreSystems;
    const std::vector<SystemEntry> sent(all.begin(), all.begin() + std::min(room, all.size()));
    return encodeSystemList(messageId, sent, rc);
}

Bytes answerEsi(int32_t messageId, const EsiRequest& q, const SystemTable& systems,
                UserTable& users, int32_t& returnCode)
{
    EsiOutcome out;
    if (!systems.knows(q.server))
        out.returnCode = kRcUnknownServer;
    else if (q.kind == kEsiVerify)
        out = users.verify(q.userid, q.password);
    else if (q.kind == kEsiChange)
        out = users.change(q.userid, q.password, q.newPassword);
    else
        out.returnCode = kRcEsiSystemError;
    returnCode = out.returnCode;
    if (out.returnCode != 0)
        return encodeEsiFailure(messageId, out.returnCode);
    return encodeEsiSuccess(messageId, out.details);
}

Outcome unknownServer(const EciRequest& q)
{
    Outcome o;
    o.reply.kind = q.kind;
    o.reply.commareaLength = q.commareaLength;
    o.reply.returnCode = kRcUnknownServer;
    return o;
}

}  // namespace zepgw
