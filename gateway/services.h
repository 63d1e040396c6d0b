// Requests that zepgw answers from its tables rather than by running a
// program: the system list and the ESI password requests.
#pragma once

#include "programs.h"
#include "requests.h"
#include "tables.h"
#include "wire.h"

namespace zepgw {

Bytes answerSystemList(int32_t messageId, const EciRequest& q, const SystemTable& systems);
Bytes answerEsi(int32_t messageId, const EsiRequest& q, const SystemTable& systems,
                UserTable& users, int32_t& returnCode);

// An ECI program call for a system that is not in the table.
Outcome unknownServer(const EciRequest& q);

}  // namespace zepgw
