// zepcall: a command-line client and load generator for a Gateway.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "args.h"
#include "commands.h"
#include "gateway.h"
#include "terminal.h"

#ifndef ZEPCALL_VERSION
#define ZEPCALL_VERSION "unknown"
#endif

namespace {

using namespace zepcall;

int run(const Invocation& inv)
{
    if (inv.help) {
        std::fputs(helpText(inv.command), stdout);
        return kExitOk;
    }
    if (inv.version) {
        std::printf("zepcall %s\nzepclient library %s\n", ZEPCALL_VERSION, libraryVersion().c_str());
        return kExitOk;
    }
    if (!inv.traceFile.empty())
        zep::setTraceFile(inv.traceFile);
    if (inv.traceLevel >= 0)
        zep::setTraceLevel(inv.traceLevel);
    switch (inv.command) {
    case Command::Call: return runCall(inv);
    case Command::Systems: return runSystems(inv);
    case Command::Verify:
    case Command::Change: return runPasswordCommand(inv);
    case Command::Bench: return runBench(inv);
    case Command::None: break;
    }
    return kExitUsage;
}

void usageFailure(const char* what, Command command)
{
    std::fprintf(stderr, "zepcall: %s (see zepcall %s%s--help)\n", what, commandName(command),
                 command == Command::None ? "" : " ");
}

}  // namespace

int main(int argc, char** argv)
{
    Invocation inv;
    try {
        parseArguments(argc, argv, std::getenv("ZEP_GATEWAY"), inv);
        return run(inv);
    } catch (const UsageError& e) {
        usageFailure(e.what(), inv.command);
        return kExitUsage;
    } catch (const LocalError& e) {
        std::fprintf(stderr, "zepcall: %s\n", e.what());
        return kExitLocal;
    } catch (const zep::Error& e) {
        std::fprintf(stderr, "%s\n", failureMessage(e.code().value(), contextFor(inv)).c_str());
        return exitStatusFor(e.code().value());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zepcall: %s\n", e.what());
        return kExitLocal;
    }
}
