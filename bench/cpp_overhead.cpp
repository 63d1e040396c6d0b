// What the C++ interface costs over the C call: synchronous ECHO calls with a 64-byte COMMAREA on one
// connection to zepgw, made in alternating rounds through ZEP_ECI_Execute and through zep::Connection::call,
// so that both see the same machine load. Prints both rates and the ratio C++/C (the goal is 0.98 or more).
//
//     cpp_overhead [rounds] [calls per round]
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
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 21;
    const long calls = argc > 2 ? std::max(1L, std::atol(argv[2])) : 2000;
    ZepgwProcess gw;
    if (!gw.start()) {
        std::fprintf(stderr, "cpp_overhead: zepgw did not start\n");
        return 1;
    }
    try {
        zep::Connection conn{"127.0.0.1", gw.port()};
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
        std::printf("synchronous ECHO calls, 64-byte COMMAREA, one connection, %d alternating rounds of %ld calls\n",
                    rounds, calls);
        std::printf("  C   ZEP_ECI_Execute       %10.0f calls/second\n", total / cSeconds);
        std::printf("  C++ zep::Connection::call %10.0f calls/second\n", total / cppSeconds);
        std::printf("  ratio C++/C: %.3f (median of the rounds), %.3f (all calls); goal >= 0.98\n", median(ratios),
                    cSeconds / cppSeconds);
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
