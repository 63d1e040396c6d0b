// ECHO calls through the library over one connection, the same workloads as
// raw_client carries by hand, plus what the library costs in memory.
//
//     zepbench [--host H --port N] [--workload NAME] [--seconds S] ...
//
// Without --port it starts the zepgw of the same build. Each workload prints
// one "result" (or "memory") line; scripts/bench.sh puts them side by side.
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "zepclient.h"
#include "zepgw_process.h"

namespace {

struct Settings {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: start our own zepgw
    std::vector<std::string> workloads;
    double seconds = 1.0;
    long connections = 200;
    long calls = 1000000;
};

// The connection a workload runs on; closed however the workload ends.
class Connection {
public:
    Connection(const Settings& s)
    {
        const int rc = ZEP_openRemoteGatewayConnection(s.host.c_str(), s.port, &token_, 10);
        if (rc != ZEP_OK)
            throw std::runtime_error("open " + s.host + ":" + std::to_string(s.port) +
                                     " failed: " + rcName(rc));
    }
    ~Connection()
    {
        if (token_ != nullptr)
            ZEP_closeGatewayConnection(&token_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    GatewayToken* token() const { return token_; }

    static std::string rcName(int rc)
    {
        char name[64] = "";
        ZEP_getRcString(rc, name);
        return std::to_string(rc) + " (" + name + ")";
    }

private:
    GatewayToken* token_ = nullptr;
};

void prepare(EciParms& parms, short callType, std::vector<char>& commarea)
{
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = 6;  // asynchronous calls want the newest block layout
    parms.eci_call_type = callType;
    std::memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = commarea.data();
    parms.eci_commarea_length = static_cast<int16_t>(commarea.size());
}

void execute(GatewayToken* token, EciParms& parms, const char* what)
{
    const int rc = ZEP_ECI_Execute(token, &parms);
    if (rc != ZEP_OK)
        throw std::runtime_error(std::string(what) + " failed: " + Connection::rcName(rc));
}

bench::Clock::time_point deadlineAfter(double seconds)
{
    return bench::Clock::now() + std::chrono::duration_cast<bench::Clock::duration>(
                                     std::chrono::duration<double>(seconds));
}

// `threads` callers share one connection, each making synchronous calls of `size` bytes.
void runSync(const Settings& s, const char* name, int threads, size_t size)
{
    Connection c(s);
    std::vector<bench::Latencies> latencies(static_cast<size_t>(threads));
    std::vector<long> calls(size_t(threads), 0);
    std::atomic<bool> failed{false};
    std::string failure;
    const auto start = bench::Clock::now();
    const auto deadline = deadlineAfter(s.seconds);
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&, t] {
            std::vector<char> commarea(size, 'b');
            EciParms parms;
            latencies[size_t(t)].reserve(1 << 18);
            auto now = bench::Clock::now();
            while (now < deadline && !failed) {
                prepare(parms, ECI_SYNC, commarea);
                const int rc = ZEP_ECI_Execute(c.token(), &parms);
                if (rc != ZEP_OK && !failed.exchange(true))
                    failure = "ECI_SYNC failed: " + Connection::rcName(rc);
                const auto done = bench::Clock::now();
                latencies[size_t(t)].add(done - now);
                ++calls[size_t(t)];
                now = done;
            }
        });
    }
    for (std::thread& t : callers)
        t.join();
    const double elapsed = bench::secondsSince(start);
    if (failed)
        throw std::runtime_error(failure);
    long total = 0;
    for (int t = 0; t < threads; ++t) {
        total += calls[size_t(t)];
        if (t > 0)
            latencies[0].merge(latencies[size_t(t)]);
    }
    bench::printResult(name, total, elapsed, &latencies[0]);
}

// Batches of `depth` ECI_ASYNC calls, each batch then collected with ECI_GET_REPLY_WAIT.
void runAsync(const Settings& s, const char* name, int depth, size_t size)
{
    Connection c(s);
    std::vector<char> commarea(size, 'b');
    EciParms parms;
    long calls = 0;
    const auto start = bench::Clock::now();
    const auto deadline = deadlineAfter(s.seconds);
    while (bench::Clock::now() < deadline) {
        for (int i = 0; i < depth; ++i) {
            prepare(parms, ECI_ASYNC, commarea);
            execute(c.token(), parms, "ECI_ASYNC");
        }
        for (int i = 0; i < depth; ++i) {
            prepare(parms, ECI_GET_REPLY_WAIT, commarea);
            execute(c.token(), parms, "ECI_GET_REPLY_WAIT");
        }
        calls += depth;
    }
    bench::printResult(name, calls, bench::secondsSince(start), nullptr);
}

// Bytes the process holds in malloc'd blocks (all arenas, mmapped blocks included).
long heapInUse()
{
    const struct mallinfo2 m = mallinfo2();
    return long(m.uordblks + m.hblkhd);
}

// Resident set size in bytes, from /proc/self/status.
long residentBytes()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long kb = 0;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> kb;
            return kb * 1024;
        }
        status.ignore(1 << 16, '\n');
    }
    return 0;
}

void printMemory(const char* what, long count, long rss, long heap)
{
    std::printf("memory %s count=%ld rss_bytes=%ld heap_bytes=%ld\n", what, count, rss, heap);
    std::fflush(stdout);
}

// Opens --connections connections that do nothing and reports what each added.
void runIdleConnections(const Settings& s, const char*, int, size_t)
{
    std::optional<Connection> first(std::in_place, s);  // the library's one-time set-up
    const long rss = residentBytes(), heap = heapInUse();
    std::vector<std::optional<Connection>> open(size_t(s.connections - 1));
    for (std::optional<Connection>& c : open)
        c.emplace(s);
    const long n = s.connections - 1;
    printMemory("per-idle-connection", s.connections, (residentBytes() - rss) / n,
                (heapInUse() - heap) / n);
}

// Heap and resident size after --calls synchronous calls, against after a warm-up of 10,000.
void runHeapGrowth(const Settings& s, const char*, int, size_t size)
{
    Connection c(s);
    std::vector<char> commarea(size, 'b');
    EciParms parms;
    auto call = [&] {
        prepare(parms, ECI_SYNC, commarea);
        execute(c.token(), parms, "ECI_SYNC");
    };
    for (int i = 0; i < 10000; ++i)
        call();
    const long rss = residentBytes(), heap = heapInUse();
    for (long i = 0; i < s.calls; ++i)
        call();
    printMemory("growth-over-calls", s.calls, residentBytes() - rss, heapInUse() - heap);
}

// One row of the benchmark. A new way of calling (another interface, another
// call pattern) is one more entry here and one more line in scripts/bench.sh.
struct Workload {
    const char* name;
    const char* description;
    void (*run)(const Settings&, const char* name, int parallel, size_t size);
    int parallel;  // calling threads, or calls per asynchronous batch
    size_t size;   // COMMAREA bytes
};

const Workload kWorkloads[] = {
    {"sync64", "ECI_SYNC, 64 B, 1 thread", runSync, 1, 64},
    {"sync64x8", "ECI_SYNC, 64 B, 8 threads on one connection", runSync, 8, 64},
    {"sync64x32", "ECI_SYNC, 64 B, 32 threads on one connection", runSync, 32, 64},
    {"async1000", "1000 ECI_ASYNC, then 1000 ECI_GET_REPLY_WAIT, 64 B", runAsync, 1000, 64},
    {"sync32000", "ECI_SYNC, 32000 B, 1 thread", runSync, 1, 32000},
    {"idle", "resident and heap bytes per idle connection (--connections)", runIdleConnections, 0, 0},
    {"growth", "heap and resident growth over --calls ECI_SYNC calls of 64 B", runHeapGrowth, 1, 64},
};

const Workload* findWorkload(std::string_view name)
{
    for (const Workload& w : kWorkloads) {
        if (name == w.name)
            return &w;
    }
    return nullptr;
}

std::string workloadList()
{
    std::string list;
    for (const Workload& w : kWorkloads)
        list += std::string("  ") + w.name + std::string(12 - std::strlen(w.name), ' ') +
                w.description + "\n";
    return list;
}

Settings parse(int argc, char** argv, bool& run)
{
    Settings s;
    bool hostGiven = false;
    const std::vector<bench::Option> options = {
        {"--host", "H", "the Gateway's address (with --port; default 127.0.0.1)",
         [&](std::string_view v) { s.host = std::string(v); hostGiven = true; }},
        {"--port", "N", "an external Gateway's port; without it zepgw of this build is started",
         [&](std::string_view v) { s.port = int(bench::parseLong("--port", v, 1, 65535)); }},
        {"--workload", "W", "run only this workload (repeatable; default: the call rows)",
         [&](std::string_view v) {
             if (findWorkload(v) == nullptr)
                 throw bench::UsageError("unknown workload '" + std::string(v) +
                                         "'; the workloads are:\n" + workloadList());
             s.workloads.emplace_back(v);
         }},
        {"--seconds", "S", "how long each call row runs (default 1)",
         [&](std::string_view v) { s.seconds = bench::parseSeconds("--seconds", v); }},
        {"--connections", "N", "connections the idle workload opens, 2 to 5000 (default 200)",
         [&](std::string_view v) {
             s.connections = bench::parseLong("--connections", v, 2, 5000);
         }},
        {"--calls", "N", "calls the growth workload makes (default 1000000)",
         [&](std::string_view v) { s.calls = bench::parseLong("--calls", v, 1, 1000000000); }},
    };
    const std::string synopsis =
        "zepbench: ECHO calls through the library over one connection\n"
        "usage: zepbench [options]\n\nworkloads:\n" + workloadList();
    run = bench::parseOptions(argc, argv, options, synopsis);
    if (hostGiven && s.port == 0)
        throw bench::UsageError("--host needs --port");
    if (s.workloads.empty()) {
        for (const char* name : {"sync64", "sync64x8", "sync64x32", "async1000", "sync32000"})
            s.workloads.emplace_back(name);
    }
    return s;
}

}  // namespace

int main(int argc, char** argv)
{
    return bench::runMain("zepbench", [&] {
        bool run = false;
        Settings s = parse(argc, argv, run);
        if (!run)
            return 0;
        ZepgwProcess gateway;
        if (s.port == 0) {
            if (!gateway.start())
                throw std::runtime_error(std::string("zepgw (") + ZepgwProcess::path() +
                                         ") did not start");
            s.port = gateway.port();
        }
        for (const std::string& name : s.workloads) {
            const Workload* w = findWorkload(name);
            w->run(s, w->name, w->parallel, w->size);
        }
        return 0;
    });
}
