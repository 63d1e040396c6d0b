// The commands of zepcall; each returns the process's exit status.
#pragma once

#include "args.h"
#include "failure.h"

namespace zepcall {

FailureContext contextFor(const Invocation& inv);

int runCall(const Invocation& inv);
int runSystems(const Invocation& inv);
int runPasswordCommand(const Invocation& inv);  // verify and change
int runBench(const Invocation& inv);

}  // namespace zepcall
