#include "args.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zepcall {

namespace {

enum Scope : unsigned {
    kCall = 1u << static_cast<int>(Command::Call),
    kSystems = 1u << static_cast<int>(Command::Systems),
    kVerify = 1u << static_cast<int>(Command::Verify),
    kChange = 1u << static_cast<int>(Command::Change),
    kBench = 1u << static_cast<int>(Command::Bench),
    kGlobal = ~0u,
};

long parseNumber(const std::string& option, const std::string& text, long low, long high)
{
    errno = 0;
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value < low || value > high)
        throw UsageError("bad value for " + option + ": '" + text + "' (" + std::to_string(low) + " to " +
                         std::to_string(high) + ")");
    return value;
}

int parseInt(const std::string& option, const std::string& text, int low, int high)
{
    return static_cast<int>(parseNumber(option, text, low, high));
}

Put parsePut(Put::Kind kind, const std::string& option, const std::string& value)
{
    size_t eq = value.find('=');
    if (eq == std::string::npos || eq == 0)
        throw UsageError(option + " needs NAME=VALUE, not '" + value + "'");
    return Put{kind, value.substr(0, eq), value.substr(eq + 1)};
}

struct OptionRule {
    const char* name;
    bool takesValue;
    unsigned scope;
    void (*apply)(Invocation&, const std::string& option, const std::string& value);
};

const OptionRule kOptions[] = {
    {"--help", false, kGlobal, [](Invocation& i, auto&, auto&) { i.help = true; }},
    {"-h", false, kGlobal, [](Invocation& i, auto&, auto&) { i.help = true; }},
    {"--version", false, kGlobal, [](Invocation& i, auto&, auto&) { i.version = true; }},
    {"--json", false, kGlobal, [](Invocation& i, auto&, auto&) { i.json = true; }},
    {"-v", false, kGlobal, [](Invocation& i, auto&, auto&) { i.verbose = true; }},
    {"--host", true, kGlobal, [](Invocation& i, auto&, auto& v) { i.endpoint.host = v; }},
    {"--port", true, kGlobal, [](Invocation& i, auto& o, auto& v) { i.endpoint.port = parseInt(o, v, 1, 65535); }},
    {"--connect-timeout", true, kGlobal,
     [](Invocation& i, auto& o, auto& v) { i.endpoint.connectTimeout = parseInt(o, v, 0, 3600); }},
    {"--applid", true, kGlobal, [](Invocation& i, auto&, auto& v) { i.endpoint.applid = v; }},
    {"--qualifier", true, kGlobal, [](Invocation& i, auto&, auto& v) { i.endpoint.qualifier = v; }},
    {"--trace", true, kGlobal, [](Invocation& i, auto& o, auto& v) { i.traceLevel = parseInt(o, v, 0, 5); }},
    {"--trace-file", true, kGlobal, [](Invocation& i, auto&, auto& v) { i.traceFile = v; }},
    {"--file", true, kCall, [](Invocation& i, auto&, auto& v) { i.call.file = v; }},
    {"--hex", false, kCall, [](Invocation& i, auto&, auto&) { i.call.hex = true; }},
    {"--length", true, kCall, [](Invocation& i, auto& o, auto& v) { i.call.length = parseInt(o, v, 1, 32767); }},
    {"--transid", true, kCall, [](Invocation& i, auto&, auto& v) { i.call.transid = v; }},
    {"--system", true, kCall | kVerify | kChange, [](Invocation& i, auto&, auto& v) { i.call.system = v; }},
    {"--user", true, kCall, [](Invocation& i, auto&, auto& v) { i.call.user = v; }},
    {"--timeout", true, kCall | kBench,
     [](Invocation& i, auto& o, auto& v) { i.call.timeout = parseInt(o, v, 0, 32767); }},
    {"--channel", true, kCall, [](Invocation& i, auto&, auto& v) { i.call.channel = v; }},
    {"--put", true, kCall, [](Invocation& i, auto& o, auto& v) { i.call.puts.push_back(parsePut(Put::Text, o, v)); }},
    {"--put-file", true, kCall,
     [](Invocation& i, auto& o, auto& v) { i.call.puts.push_back(parsePut(Put::File, o, v)); }},
    {"--put-hex", true, kCall,
     [](Invocation& i, auto& o, auto& v) { i.call.puts.push_back(parsePut(Put::Hex, o, v)); }},
    {"-c", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.connections = parseInt(o, v, 1, 256); }},
    {"-t", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.threads = parseInt(o, v, 1, 256); }},
    {"-n", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.calls = parseNumber(o, v, 1, 1000000000); }},
    {"-d", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.duration = parseInt(o, v, 1, 86400); }},
    {"--async", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.async = parseInt(o, v, 1, 1000); }},
    {"--size", true, kBench, [](Invocation& i, auto& o, auto& v) { i.bench.size = parseInt(o, v, 0, 32767); }},
    {"--program", true, kBench, [](Invocation& i, auto&, auto& v) { i.bench.program = v; }},
};

const OptionRule* findOption(const std::string& name)
{
    for (const OptionRule& rule : kOptions)
        if (name == rule.name)
            return &rule;
    return nullptr;
}

struct GivenOption {
    const OptionRule* rule;
    std::string name;
    std::string value;
};

Command commandNamed(const std::string& name)
{
    for (Command c : {Command::Call, Command::Systems, Command::Verify, Command::Change, Command::Bench})
        if (name == commandName(c))
            return c;
    throw UsageError("unknown command '" + name + "'");
}

// ZEP_GATEWAY=host:port fills what --host and --port left open.
void applyGatewayVariable(const char* variable, bool hostGiven, Endpoint& endpoint)
{
    if (variable == nullptr || *variable == '\0' || endpoint.port != -1)
        return;
    std::string text = variable;
    size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    endpoint.port = parseInt("ZEP_GATEWAY", colon == std::string::npos ? text : text.substr(colon + 1), 1, 65535);
    if (!hostGiven && !host.empty())
        endpoint.host = host;
}

void takePositionals(Invocation& inv, const std::vector<std::string>& positionals)
{
    size_t wanted = 0;
    switch (inv.command) {
    case Command::Call:
        if (positionals.size() < 2)
            throw UsageError("call needs a PROGRAM");
        inv.call.program = positionals[1];
        inv.call.data.assign(positionals.begin() + 2, positionals.end());
        wanted = 3;
        break;
    case Command::Verify:
    case Command::Change:
        if (positionals.size() < 2)
            throw UsageError(std::string(commandName(inv.command)) + " needs a USER");
        inv.user = positionals[1];
        wanted = 2;
        break;
    default:
        wanted = 1;
    }
    if (positionals.size() > wanted)
        throw UsageError("unexpected argument '" + positionals[wanted] + "'");
}

void checkCall(const CallOptions& call)
{
    if (call.program.empty() || call.program.size() > 8)
        throw UsageError("a program name has 1 to 8 characters, not '" + call.program + "'");
    if (call.transid.size() > 4)
        throw UsageError("a transaction id has at most 4 characters, not '" + call.transid + "'");
    if (call.system.size() > 8)
        throw UsageError("a system name has at most 8 characters, not '" + call.system + "'");
    if (!call.data.empty() && !call.file.empty())
        throw UsageError("give the data as an argument or with --file, not both");
    if (!call.channel.empty() && (!call.data.empty() || !call.file.empty() || call.hex || call.length != -1))
        throw UsageError("a channel call sends no COMMAREA: DATA, --file, --hex and --length do not apply");
    if (call.channel.empty() && !call.puts.empty())
        throw UsageError("containers go into a channel: give --channel NAME");
}

void checkEndpoint(const Endpoint& endpoint)
{
    if (endpoint.port == -1)
        throw UsageError("no Gateway given: use --port (and --host) or set ZEP_GATEWAY=host:port");
    if (endpoint.applid.size() > 8 || endpoint.qualifier.size() > 8)
        throw UsageError("an APPLID and its qualifier have at most 8 characters each");
}

}  // namespace

const char* commandName(Command command)
{
    switch (command) {
    case Command::Call: return "call";
    case Command::Systems: return "systems";
    case Command::Verify: return "verify";
    case Command::Change: return "change";
    case Command::Bench: return "bench";
    case Command::None: break;
    }
    return "";
}

void parseArguments(int argc, char** argv, const char* gatewayVariable, Invocation& inv)
{
    std::vector<std::string> positionals;
    std::vector<GivenOption> given;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
            positionals.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        size_t eq = arg.find('=');
        std::string name = arg.substr(0, eq);
        const OptionRule* rule = findOption(name);
        if (rule == nullptr)
            throw UsageError("unknown option '" + name + "'");
        std::string value;
        if (rule->takesValue && eq != std::string::npos)
            value = arg.substr(eq + 1);
        else if (rule->takesValue && i + 1 < argc)
            value = argv[++i];
        else if (rule->takesValue)
            throw UsageError("missing value for " + name);
        else if (eq != std::string::npos)
            throw UsageError(name + " takes no value");
        given.push_back({rule, name, value});
    }
    if (!positionals.empty())
        inv.command = commandNamed(positionals[0]);
    bool hostGiven = false;
    for (const GivenOption& option : given) {
        if ((option.rule->scope & (1u << static_cast<int>(inv.command))) == 0)
            throw UsageError(option.name + " is not an option of " +
                             (inv.command == Command::None ? std::string("zepcall without a command")
                                                           : commandName(inv.command)));
        option.rule->apply(inv, option.name, option.value);
        hostGiven = hostGiven || option.name == "--host";
    }
    if (inv.help || inv.version)
        return;
    if (inv.command == Command::None)
        throw UsageError("no command given");
    takePositionals(inv, positionals);
    applyGatewayVariable(gatewayVariable, hostGiven, inv.endpoint);
    checkEndpoint(inv.endpoint);
    if (inv.command == Command::Call)
        checkCall(inv.call);
    if (inv.bench.calls > 0 && inv.bench.duration > 0)
        throw UsageError("give -n or -d, not both");
    if (inv.json && (inv.command == Command::Verify || inv.command == Command::Change))
        throw UsageError("--json is offered for call, systems and bench");
    if (inv.bench.program.empty() || inv.bench.program.size() > 8)
        throw UsageError("a program name has 1 to 8 characters, not '" + inv.bench.program + "'");
}

}  // namespace zepcall
