// call, systems, verify and change.
#include "commands.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <cstdio>
#include <iostream>

#include <zepclient.h>  // return-code values only: the calls are in gateway.cpp

#include "gateway.h"
#include "output.h"
#include "terminal.h"

namespace zepcall {

namespace {

constexpr size_t kMaxCommarea = 32767;

// Wipes the secrets of a target when the command is done with it.
struct TargetGuard {
    EciTarget target;
    ~TargetGuard() { wipe(target.password); }
};

void targetFor(const Invocation& inv, EciTarget& target)
{
    target.program = inv.call.program;
    target.transid = inv.call.transid;
    target.system = inv.call.system;
    target.timeout = inv.call.timeout;
    target.user = inv.call.user;
    if (!target.user.empty())
        target.password = password("ZEP_PASSWORD", "Password for " + target.user + ": ");
}

std::string commareaData(const CallOptions& call)
{
    std::string data;
    if (!call.file.empty())
        data = readFile(call.file);
    else if (!call.data.empty())
        data = call.data[0] == "-" ? readStandardInput() : call.data[0];
    if (call.hex)
        data = parseHex(data, "the data");
    if (data.size() > kMaxCommarea)
        throw UsageError("the data has " + std::to_string(data.size()) + " bytes; a COMMAREA holds at most 32767");
    if (call.length != -1 && static_cast<size_t>(call.length) < data.size())
        throw UsageError("--length " + std::to_string(call.length) + " is shorter than the data (" +
                         std::to_string(data.size()) + " bytes)");
    return data;
}

void putContainers(const CallOptions& call, ChannelData& channel)
{
    for (const Put& put : call.puts) {
        switch (put.kind) {
        case Put::Text: channel.put(put.name, true, put.value); break;
        case Put::File: channel.put(put.name, false, readFile(put.value)); break;
        case Put::Hex: channel.put(put.name, false, parseHex(put.value, "--put-hex " + put.name)); break;
        }
    }
}

// How data is shown: a COMMAREA as text without its trailing NULs, a container as all of its bytes,
// either as hex when it is not printable text; with --hex always as hex.
enum class Shown { Commarea, Container, Hex };

bool asText(std::string_view bytes, Shown shown, std::string& text)
{
    return shown != Shown::Hex && printableText(bytes, text, shown == Shown::Commarea);
}

std::string jsonData(std::string_view bytes, Shown shown)
{
    std::string text;
    if (asText(bytes, shown, text))
        return "\"data\":" + jsonString(text);
    return "\"data_hex\":\"" + hexString(bytes) + "\"";
}

std::string shownData(std::string_view bytes, Shown shown, std::string_view dumpIndent)
{
    std::string text;
    if (asText(bytes, shown, text))
        return text.empty() || text.back() == '\n' ? text : text + "\n";
    return hexDump(bytes, dumpIndent);
}

std::string containersText(const std::vector<ContainerContent>& containers)
{
    std::string out = "CONTAINER         TYPE  CCSID  LENGTH  DATA\n";
    char line[80];
    for (const ContainerContent& c : containers) {
        std::snprintf(line, sizeof line, "%-16s  %-4s  %5d  %6zu  ", c.name.c_str(), c.character ? "CHAR" : "BIT",
                      c.ccsid, c.data.size());
        std::string data = shownData(c.data, Shown::Container, "    ");
        std::string row = line;
        if (data.empty() || data.rfind("    0x", 0) == 0)  // nothing, or a dump on the lines below
            row.erase(row.find_last_not_of(' ') + 1).append("\n");
        out += row + data;
    }
    return out;
}

std::string containersJson(const std::vector<ContainerContent>& containers)
{
    std::string out = "[";
    for (const ContainerContent& c : containers) {
        out += (out.size() > 1 ? "," : "") + std::string("{\"name\":") + jsonString(c.name) + ",\"type\":\"" +
               (c.character ? "CHAR" : "BIT") + "\",\"ccsid\":" + std::to_string(c.ccsid) +
               ",\"length\":" + std::to_string(c.data.size()) + "," + jsonData(c.data, Shown::Container) + "}";
    }
    return out + "]";
}

std::string threeDecimals(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

// One JSON object: the outcome, then `data` (the COMMAREA's or the channel's members).
std::string callJson(const CallOptions& options, const EciOutcome& outcome, double milliseconds,
                     const std::string& data)
{
    return "{\"program\":" + jsonString(options.program) + ",\"rc\":" + std::to_string(outcome.rc) +
           ",\"rc_name\":" + jsonString(rcName(outcome.rc)) + ",\"abend_code\":" + jsonString(outcome.abendCode) +
           ",\"luw_token\":" + std::to_string(outcome.luwToken) + ",\"time_ms\":" + threeDecimals(milliseconds) +
           data + "}\n";
}

void reportVerbose(const EciOutcome& outcome, double milliseconds)
{
    std::fprintf(stderr, "abend code: %s\nLUW token:  %ld\ntime:       %.3f ms\n",
                 outcome.abendCode.empty() ? "(none)" : outcome.abendCode.c_str(),
                 static_cast<long>(outcome.luwToken), milliseconds);
}

std::string calendarText(const CalendarTime& t)
{
    static const char* const kDays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    if (!t.set)
        return "(not set)";
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d %s", t.year, t.month, t.day, t.hour, t.minute,
                  t.second, t.weekday >= 0 && t.weekday < 7 ? kDays[t.weekday] : "");
    return text;
}

}  // namespace

FailureContext contextFor(const Invocation& inv)
{
    FailureContext context;
    context.where = inv.endpoint.host + ":" + std::to_string(inv.endpoint.port);
    context.program = inv.command == Command::Bench ? inv.bench.program : inv.call.program;
    context.system = inv.call.system;
    context.user = inv.command == Command::Call ? inv.call.user : inv.user;
    return context;
}

int runCall(const Invocation& inv)
{
    const CallOptions& options = inv.call;
    const bool channelCall = !options.channel.empty();
    std::string data = channelCall ? std::string() : commareaData(options);
    std::vector<unsigned char> commarea(data.begin(), data.end());
    if (options.length != -1)
        commarea.resize(static_cast<size_t>(options.length));
    std::unique_ptr<ChannelData> channel;
    if (channelCall) {
        channel = std::make_unique<ChannelData>(options.channel);
        putContainers(options, *channel);
    }
    TargetGuard guard;
    targetFor(inv, guard.target);

    Connection connection(inv.endpoint);
    auto started = std::chrono::steady_clock::now();
    EciOutcome outcome = channelCall ? connection.call(guard.target, *channel)
                                     : connection.call(guard.target, commarea, data.size());
    double milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();

    const Shown commareaShown = options.hex ? Shown::Hex : Shown::Commarea;
    std::string_view reply(reinterpret_cast<const char*>(commarea.data()), commarea.size());
    if (inv.json)
        std::cout << callJson(options, outcome, milliseconds,
                              channelCall ? ",\"channel\":" + jsonString(options.channel) +
                                                ",\"containers\":" + containersJson(channel->contents())
                                          : ",\"length\":" + std::to_string(reply.size()) + "," +
                                                jsonData(reply, commareaShown));
    else if (outcome.rc == 0)
        std::cout << (channelCall ? containersText(channel->contents()) : shownData(reply, commareaShown, ""));
    std::cout.flush();
    if (inv.verbose)
        reportVerbose(outcome, milliseconds);
    if (outcome.rc != 0) {
        FailureContext context = contextFor(inv);
        context.abendCode = outcome.abendCode;
        std::fprintf(stderr, "%s\n", failureMessage(outcome.rc, context).c_str());
    }
    return exitStatusFor(outcome.rc);
}

int runSystems(const Invocation& inv)
{
    Connection connection(inv.endpoint);
    std::vector<SystemEntry> systems;
    int rc = connection.listSystems(systems);
    if (rc != 0 && rc != ZEP_ERR_NO_SYSTEMS && rc != ZEP_ERR_MORE_SYSTEMS) {
        std::fprintf(stderr, "%s\n", failureMessage(rc, contextFor(inv)).c_str());
        return exitStatusFor(rc);
    }
    if (inv.json) {
        std::cout << "[";
        for (size_t i = 0; i < systems.size(); ++i)
            std::cout << (i ? "," : "") << "{\"name\":" << jsonString(systems[i].name)
                      << ",\"description\":" << jsonString(systems[i].description) << "}";
        std::cout << "]\n";
    } else {
        std::printf("%-9s  %s\n", "SYSTEM", "DESCRIPTION");
        for (const SystemEntry& system : systems)
            std::printf("%-9s  %s\n", system.name.c_str(), system.description.c_str());
    }
    std::fflush(stdout);
    if (rc == ZEP_ERR_MORE_SYSTEMS)
        std::fprintf(stderr, "%s\n", failureMessage(rc, contextFor(inv)).c_str());
    return kExitOk;
}

int runPasswordCommand(const Invocation& inv)
{
    const bool change = inv.command == Command::Change;
    struct Secrets {
        std::string old, fresh, again;
        ~Secrets() { wipe(old), wipe(fresh), wipe(again); }
    } secrets;
    secrets.old = password("ZEP_PASSWORD", (change ? "Old password for " : "Password for ") + inv.user + ": ");
    if (change) {
        secrets.fresh = password("ZEP_NEW_PASSWORD", "New password for " + inv.user + ": ");
        if (std::getenv("ZEP_NEW_PASSWORD") == nullptr) {
            secrets.again = password("ZEP_NEW_PASSWORD", "Repeat the new password: ");
            if (secrets.again != secrets.fresh)
                throw LocalError("the two new passwords differ; nothing was changed");
        }
    }
    Connection connection(inv.endpoint);
    UserDetails details;
    int rc = change ? connection.changePassword(inv.user, secrets.old, secrets.fresh, inv.call.system, details)
                    : connection.verifyPassword(inv.user, secrets.old, inv.call.system, details);
    if (rc != 0) {
        std::fprintf(stderr, "%s\n", failureMessage(rc, contextFor(inv)).c_str());
        return exitStatusFor(rc);
    }
    std::printf("password of %s %s\n", inv.user.c_str(), change ? "changed" : "accepted");
    static const char* const kLabels[] = {"first time:", "second time:", "third time:"};
    for (int i = 0; i < 3; ++i)
        std::printf("%-15s %s\n", kLabels[i], calendarText(details.times[i]).c_str());
    std::printf("%-15s %d\n", "verifications:", details.count);
    return kExitOk;
}

}  // namespace zepcall
