// Synchronous ECI calls per second on one connection to zepgw, with 1, 4 and 16 calling threads.
//
//     bench_eci_sync [seconds per row]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "zepclient.h"
#include "zepgw_process.h"

namespace {

// Calls ECHO with a 64-byte COMMAREA until `stop`; returns the calls that worked, counts the others in `failed`.
long callUntil(GatewayToken* tok, const std::atomic<bool>& stop, std::atomic<long>& failed)
{
    long calls = 0;
    char area[64];
    memset(area, 'b', sizeof area);
    while (!stop.load(std::memory_order_relaxed)) {
        EciParms parms;
        memset(&parms, 0, sizeof parms);
        parms.eci_version = 6;
        parms.eci_call_type = ECI_SYNC;
        memcpy(parms.eci_program_name, "ECHO    ", 8);
        parms.eci_commarea = area;
        parms.eci_commarea_length = sizeof area;
        if (ZEP_ECI_Execute(tok, &parms) == 0) ++calls;
        else ++failed;
    }
    return calls;
}

double callsPerSecond(GatewayToken* tok, int threads, double seconds, long* failures)
{
    std::atomic<bool> stop{false};
    std::atomic<long> total{0};
    std::atomic<long> failed{0};
    std::vector<std::thread> callers;
    const auto start = std::chrono::steady_clock::now();
    for (int t = 0; t < threads; ++t)
        callers.emplace_back([&] { total += callUntil(tok, stop, failed); });
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread& t : callers) t.join();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    *failures = failed.load();
    return total.load() / elapsed;
}

}  // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? atof(argv[1]) : 2.0;
    ZepgwProcess gw;
    if (!gw.start()) {
        fprintf(stderr, "bench_eci_sync: zepgw did not start\n");
        return 1;
    }
    GatewayToken* tok = nullptr;
    int rc = ZEP_openRemoteGatewayConnection("127.0.0.1", gw.port(), &tok, 10);
    if (rc != 0) {
        fprintf(stderr, "bench_eci_sync: open failed rc=%d\n", rc);
        return 1;
    }
    printf("synchronous ECHO calls, 64-byte COMMAREA, one connection, %.1f s per row\n", seconds);
    printf("%8s %14s %10s\n", "threads", "calls/second", "failures");
    int status = 0;
    for (int threads : {1, 4, 16}) {
        long failures = 0;
        const double rate = callsPerSecond(tok, threads, seconds, &failures);
        printf("%8d %14.0f %10ld\n", threads, rate, failures);
        if (failures != 0) status = 1;
    }
    ZEP_closeGatewayConnection(&tok);
    return status;
}
