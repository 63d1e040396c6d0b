// bench: many threads over a few connections call one program as fast as the Gateway answers.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "commands.h"
#include "gateway.h"
#include "latency.h"
#include "terminal.h"

namespace zepcall {

namespace {

using Clock = std::chrono::steady_clock;

// What all threads share: the work left, and what went wrong first.
class Run {
public:
    Run(long calls, double seconds)
        : remaining_(calls), timed_(seconds > 0),
          deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)))
    {
    }

    // One more call may be made.
    bool claim()
    {
        if (stopped_.load(std::memory_order_relaxed))
            return false;
        return timed_ ? Clock::now() < deadline_ : remaining_.fetch_sub(1) > 0;
    }

    void record(int rc)
    {
        done_.fetch_add(1, std::memory_order_relaxed);
        if (rc == 0)
            return;
        errors_.fetch_add(1, std::memory_order_relaxed);
        int none = 0;
        firstError_.compare_exchange_strong(none, rc);
        if (exitStatusFor(rc) == kExitConnection)
            stopped_ = true;  // every later call on a failed connection would fail at once
    }

    void threadEnded()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++endedThreads_;
        ended_.notify_all();
    }

    // Waits until `threads` threads have ended or `period` has passed; true when they have ended.
    bool waitForThreads(int threads, std::chrono::milliseconds period)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return ended_.wait_for(lock, period, [&] { return endedThreads_ == threads; });
    }

    long done() const { return done_.load(); }
    long errors() const { return errors_.load(); }
    int firstError() const { return firstError_.load(); }

private:
    std::atomic<long> remaining_;
    const bool timed_;
    const Clock::time_point deadline_;
    std::atomic<bool> stopped_{false};
    std::atomic<long> done_{0};
    std::atomic<long> errors_{0};
    std::atomic<int> firstError_{0};
    std::mutex mutex_;
    std::condition_variable ended_;
    int endedThreads_ = 0;
};

uint64_t nanosecondsSince(Clock::time_point start)
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
}

std::string payload(int size)
{
    std::string data(static_cast<size_t>(size), '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>('a' + i % 26);
    return data;
}

// The return code a library call ended with.
template <class Call>
int rcOf(Call call)
{
    try {
        call();
        return 0;
    } catch (const zep::Error& e) {
        return e.code().value();
    }
}

// One thread's work: the connection it shares, and what it calls.
struct Caller {
    zep::Connection& connection;
    const std::string& program;
    const zep::CallOptions& options;
    std::string data;
};

void callSynchronously(const Caller& caller, Run& run, LatencyHistogram& latencies)
{
    while (run.claim()) {
        Clock::time_point start = Clock::now();
        int rc = rcOf([&] { caller.connection.call(caller.program, caller.data, caller.options); });
        if (rc == 0)
            latencies.add(nanosecondsSince(start));
        run.record(rc);
    }
}

// Keeps `inFlight` requests outstanding and collects each reply by its message qualifier, oldest first.
void callAsynchronously(const Caller& caller, int inFlight, Run& run, LatencyHistogram& latencies)
{
    struct Request {
        zep::PendingReply reply;
        Clock::time_point start;
    };
    std::deque<Request> outstanding;
    for (;;) {
        while (static_cast<int>(outstanding.size()) < inFlight && run.claim()) {
            Request request{{}, Clock::now()};
            int rc = rcOf([&] {
                request.reply = caller.connection.callAsync(caller.program, caller.data, caller.options);
            });
            if (rc == 0)
                outstanding.push_back(std::move(request));
            else
                run.record(rc);
        }
        if (outstanding.empty())
            return;
        Request oldest = std::move(outstanding.front());
        outstanding.pop_front();
        int rc = rcOf([&] { oldest.reply.get(); });
        if (rc == 0)
            latencies.add(nanosecondsSince(oldest.start));
        run.record(rc);
    }
}

void showProgress(const Run& run, Clock::time_point start)
{
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::fprintf(stderr, "\r%ld calls, %.0f calls/s, %ld errors ", run.done(),
                 seconds > 0 ? static_cast<double>(run.done()) / seconds : 0.0, run.errors());
}

void report(const Invocation& inv, const Run& run, const LatencyHistogram& latencies, double seconds)
{
    const BenchOptions& b = inv.bench;
    double perSecond = seconds > 0 ? static_cast<double>(run.done()) / seconds : 0;
    auto ms = [](uint64_t ns) { return static_cast<double>(ns) / 1e6; };
    double p50 = ms(latencies.percentile(0.50)), p90 = ms(latencies.percentile(0.90));
    double p99 = ms(latencies.percentile(0.99)), max = ms(latencies.max());
    if (inv.json) {
        std::printf("{\"program\":\"%s\",\"size\":%d,\"connections\":%d,\"threads\":%d,\"async\":%d,"
                    "\"calls\":%ld,\"errors\":%ld,\"seconds\":%.3f,\"calls_per_second\":%.1f,"
                    "\"latency_ms\":{\"p50\":%.3f,\"p90\":%.3f,\"p99\":%.3f,\"max\":%.3f}}\n",
                    b.program.c_str(), b.size, b.connections, b.threads, b.async, run.done(), run.errors(),
                    seconds, perSecond, p50, p90, p99, max);
        return;
    }
    std::printf("program %s, %d bytes, %d connection%s x %d thread%s, ", b.program.c_str(), b.size,
                b.connections, b.connections == 1 ? "" : "s", b.threads, b.threads == 1 ? "" : "s");
    if (b.async > 0)
        std::printf("%d asynchronous requests in flight per thread\n", b.async);
    else
        std::printf("synchronous calls\n");
    std::printf("calls:      %ld in %.2f s, %ld errors\n", run.done(), seconds, run.errors());
    std::printf("calls/s:    %.1f\n", perSecond);
    std::printf("latency ms: p50 %.3f  p90 %.3f  p99 %.3f  max %.3f\n", p50, p90, p99, max);
}

}  // namespace

int runBench(const Invocation& inv)
{
    const BenchOptions& b = inv.bench;
    std::vector<zep::Connection> connections;
    connections.reserve(static_cast<size_t>(b.connections));
    for (int i = 0; i < b.connections; ++i)
        connections.push_back(connect(inv.endpoint));
    zep::CallOptions options;
    options.timeout = std::chrono::seconds(inv.call.timeout);

    const int threadCount = b.connections * b.threads;
    Run run(b.calls == 0 && b.duration == 0 ? 1000 : b.calls, b.duration);
    std::vector<LatencyHistogram> latencies(static_cast<size_t>(threadCount));
    std::vector<std::thread> threads;
    Clock::time_point start = Clock::now();
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&, i] {
            const Caller caller{connections[static_cast<size_t>(i / b.threads)], b.program, options, payload(b.size)};
            if (b.async > 0)
                callAsynchronously(caller, b.async, run, latencies[static_cast<size_t>(i)]);
            else
                callSynchronously(caller, run, latencies[static_cast<size_t>(i)]);
            run.threadEnded();
        });
    }
    const bool progress = standardErrorIsTerminal();
    while (!run.waitForThreads(threadCount, std::chrono::milliseconds(250)))
        if (progress)
            showProgress(run, start);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (std::thread& thread : threads)
        thread.join();
    if (progress)
        std::fprintf(stderr, "\r\033[K");

    LatencyHistogram all;
    for (const LatencyHistogram& h : latencies)
        all.merge(h);
    report(inv, run, all, seconds);
    std::fflush(stdout);
    if (run.errors() == 0)
        return kExitOk;
    std::fprintf(stderr, "%ld of %ld calls failed; the first: %s\n", run.errors(), run.done(),
                 failureMessage(run.firstError(), contextFor(inv)).c_str());
    return exitStatusFor(run.firstError());
}

}  // namespace zepcall
