#include "bench_support.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

const Option* findOption(const std::vector<Option>& options, std::string_view name)
{
    for (const Option& o : options) {
        if (o.name == name)
            return &o;
    }
    return nullptr;
}

void printHelp(const std::vector<Option>& options, std::string_view synopsis)
{
    std::printf("%.*s\n\noptions:\n", int(synopsis.size()), synopsis.data());
    for (const Option& o : options) {
        const std::string left = std::string(o.name) +
                                 (o.valueName.empty() ? "" : " " + std::string(o.valueName));
        std::printf("  %-22s %.*s\n", left.c_str(), int(o.help.size()), o.help.data());
    }
    std::printf("  %-22s %s\n", "--help", "this text");
}

}  // namespace

bool parseOptions(int argc, char** argv, const std::vector<Option>& options,
                  std::string_view synopsis)
{
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printHelp(options, synopsis);
            return false;
        }
        std::string_view value;
        bool inlineValue = false;
        const size_t eq = arg.find('=');
        if (arg.substr(0, 2) == "--" && eq != std::string_view::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            inlineValue = true;
        }
        const Option* o = findOption(options, arg);
        if (o == nullptr)
            throw UsageError("unknown option '" + std::string(argv[i]) + "'");
        if (o->valueName.empty()) {
            if (inlineValue)
                throw UsageError(std::string(arg) + " takes no value");
        } else if (!inlineValue) {
            if (i + 1 >= argc)
                throw UsageError(std::string(arg) + " needs a value (" +
                                 std::string(o->valueName) + ")");
            value = argv[++i];
        }
        o->apply(value);
    }
    return true;
}

long parseLong(std::string_view option, std::string_view text, long min, long max)
{
    const std::string s(text);
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || errno == ERANGE || v < min || v > max)
        throw UsageError(std::string(option) + " wants a whole number from " +
                         std::to_string(min) + " to " + std::to_string(max) + ", not '" + s +
                         "'");
    return v;
}

double parseSeconds(std::string_view option, std::string_view text)
{
    const std::string s(text);
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || !std::isfinite(v) || v <= 0 || v > 3600)
        throw UsageError(std::string(option) + " wants seconds above 0 and at most 3600, not '" +
                         s + "'");
    return v;
}

void Latencies::merge(const Latencies& other)
{
    samples_.insert(samples_.end(), other.samples_.begin(), other.samples_.end());
    sorted_ = false;
}

double Latencies::percentile(double p)
{
    if (samples_.empty())
        return 0;
    if (!sorted_) {
        std::sort(samples_.begin(), samples_.end());
        sorted_ = true;
    }
    const size_t index = std::min(samples_.size() - 1, size_t(p / 100.0 * samples_.size()));
    return samples_[index];
}

void printResult(std::string_view workload, long calls, double seconds, Latencies* latencies)
{
    std::printf("result workload=%.*s calls=%ld seconds=%.3f rate=%.0f", int(workload.size()),
                workload.data(), calls, seconds, calls / seconds);
    if (latencies != nullptr && !latencies->empty())
        std::printf(" p50_us=%.1f p99_us=%.1f", latencies->percentile(50),
                    latencies->percentile(99));
    std::printf("\n");
    std::fflush(stdout);
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int runMain(const char* program, const std::function<int()>& body)
{
    try {
        return body();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "%s: %s (see %s --help)\n", program, e.what(), program);
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return 1;
    }
}

}  // namespace bench
