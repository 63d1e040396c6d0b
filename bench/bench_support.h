// What the two benchmark programs share: strict option parsing, timing and
// the one result line that scripts/bench.sh reads. Nothing here touches the
// wire or the library.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

// A bad command line or an unusable setting; main prints it and exits with 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One option of a table: "--name VALUE" (or --name=VALUE), or a flag without a value.
struct Option {
    std::string_view name;
    std::string_view valueName;  // empty: a flag
    std::string_view help;
    std::function<void(std::string_view value)> apply;
};

// Applies argv to the table; throws UsageError naming the offending argument.
// Returns false when --help was given (the help text is then printed).
bool parseOptions(int argc, char** argv, const std::vector<Option>& options,
                  std::string_view synopsis);

// Whole numbers and durations, refused with a clear message when malformed or out of range.
long parseLong(std::string_view option, std::string_view text, long min, long max);
double parseSeconds(std::string_view option, std::string_view text);

// Per-call latencies in microseconds; percentile() sorts on first use.
class Latencies {
public:
    void reserve(size_t n) { samples_.reserve(n); }
    void add(Clock::duration d)
    {
        samples_.push_back(std::chrono::duration<float, std::micro>(d).count());
    }
    void merge(const Latencies& other);
    bool empty() const { return samples_.empty(); }
    double percentile(double p);

private:
    std::vector<float> samples_;
    bool sorted_ = false;
};

// Prints the line scripts/bench.sh parses:
//   result workload=NAME calls=N seconds=S rate=CALLS_PER_S [p50_us=X p99_us=Y]
void printResult(std::string_view workload, long calls, double seconds, Latencies* latencies);

double secondsSince(Clock::time_point start);

// Runs a program's body and turns what it throws into a message and an exit
// status: 2 for a UsageError ("see PROGRAM --help"), 1 for anything else.
int runMain(const char* program, const std::function<int()>& body);

}  // namespace bench
