// What the C++ interface costs over the C call: synchronous ECHO calls with a 64-byte COMMAREA on one
// connection to zepgw, made in alternating rounds through ZEP_ECI_Execute and through zep::Connection::call,
// so that both see the same machine load. Prints one line for scripts/bench.sh: both rates and the ratio
// C++/C (the goal is 0.98 or more), as the median of the rounds and over all calls.
//
//     cpp_overhead [--port P] [rounds] [calls per round]     (without --port it starts a zepgw of its own)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "zepclient.hpp"
#include "zepgw_process.h"

namespace {

using Clock = std::chrono::steady_clock;

bool callC(GatewayToken* token, char (&area)[64])
{
    EciParms parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = 6;
    parms.eci_call_type = ECI_SYNC;
    std::memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    return ZEP_ECI_Execute(token, &parms) == 0;
}

bool callCpp(zep::Connection& conn, const char (&area)[64])
{
    return conn.call("ECHO", std::string_view(area, sizeof area)).data().size() == sizeof area;
}

// Seconds that `calls` calls of `one` take; false calls are counted in `failures`.
template <class Call>
double timeCalls(long calls, long& failures, Call one)
{
    const auto start = Clock::now();
    for (long i = 0; i < calls; ++i)
        if (!one()) ++failures;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv)
{
    int port = 0;
    if (argc > 2 && std::strcmp(argv[1], "--port") == 0) {
        port = std::atoi(argv[2]);
        argv += 2;
        argc -= 2;
    }
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 21;
    const long calls = argc > 2 ? std::max(1L, std::atol(argv[2])) : 2000;
    ZepgwProcess gw;
    if (port == 0) {
        if (!gw.start()) {
            std::fprintf(stderr, "cpp_overhead: zepgw did not start\n");
            return 1;
        }
        port = gw.port();
    }
    try {
        zep::Connection conn{"127.0.0.1", port};
        char area[64];
        std::memset(area, 'b', sizeof area);
        long failures = 0;
        double cSeconds = 0, cppSeconds = 0;
        std::vector<double> ratios;
        timeCalls(calls / 10, failures, [&] { return callC(conn.native(), area); });  // warm up
        for (int round = 0; round < rounds; ++round) {
            const double c = timeCalls(calls, failures, [&] { return callC(conn.native(), area); });
            const double cpp = timeCalls(calls, failures, [&] { return callCpp(conn, area); });
            cSeconds += c;
            cppSeconds += cpp;
            ratios.push_back(c / cpp);
        }
        const double total = static_cast<double>(calls) * rounds;
        std::printf("cpp_overhead rounds=%d calls=%ld c_rate=%.0f cpp_rate=%.0f ratio=%.3f ratio_all=%.3f\n", rounds,
                    calls, total / cSeconds, total / cppSeconds, median(ratios), cSeconds / cppSeconds);
        if (failures != 0) {
            std::fprintf(stderr, "cpp_overhead: %ld calls failed\n", failures);
            return 1;
        }
    } catch (const zep::Error& e) {
        std::fprintf(stderr, "cpp_overhead: %s\n", e.what());
        return 1;
    }
    return 0;
}
