// call, systems, verify and change.
#include "commands.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>
#include <set>

#include "gateway.h"
#include "output.h"
#include "terminal.h"

namespace zepcall {

namespace {

constexpr size_t kMaxCommarea = 32767;

// A password, wiped when the command is done with it.
struct Secret {
    std::string text;
    ~Secret() { wipe(text); }
};

zep::CallOptions callOptionsFor(const CallOptions& call, const std::string& password)
{
    zep::CallOptions options;
    options.transaction = call.transid;
    options.system = call.system;
    options.user = call.user;
    options.password = password;
    options.timeout = std::chrono::seconds(call.timeout);
    options.commareaLength = call.length == -1 ? 0 : static_cast<size_t>(call.length);
    return options;
}

// What a call ended with; a failed call leaves its COMMAREA as it was sent.
struct Outcome {
    int rc = 0;
    std::string abendCode;
    std::int32_t luwToken = 0;
    std::string reply;
};

template <class Call>
Outcome outcomeOf(Call call, std::string sent)
{
    Outcome outcome;
    try {
        zep::Reply reply = call();
        outcome.abendCode = reply.abendCode();
        outcome.luwToken = reply.luwToken();
        outcome.reply = reply.data();
    } catch (const zep::Error& e) {
        outcome.rc = e.code().value();
        outcome.abendCode = e.abendCode();
        outcome.reply = std::move(sent);
    }
    return outcome;
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

// Every --put makes a container of its own: a name given twice is a mistake, not a replacement.
void putContainers(const CallOptions& call, zep::Channel& channel)
{
    std::set<std::string> names;
    for (const Put& put : call.puts) {
        if (!names.insert(put.name).second)
            throw zep::Error(ECI_ERR_CONTAINER_EXISTS, "container '" + put.name + "' was given twice");
        switch (put.kind) {
        case Put::Text: channel.putText(put.name, put.value); break;
        case Put::File: channel.put(put.name, readFile(put.value)); break;
        case Put::Hex: channel.put(put.name, parseHex(put.value, "--put-hex " + put.name)); break;
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

std::string containersText(const zep::Channel& channel)
{
    std::string out = "CONTAINER         TYPE  CCSID  LENGTH  DATA\n";
    char line[80];
    for (const zep::Container& c : channel) {
        std::snprintf(line, sizeof line, "%-16.*s  %-4s  %5d  %6zu  ", static_cast<int>(c.name().size()),
                      c.name().data(), c.isText() ? "CHAR" : "BIT", static_cast<int>(c.ccsid()), c.data().size());
        std::string data = shownData(c.data(), Shown::Container, "    ");
        std::string row = line;
        if (data.empty() || data.rfind("    0x", 0) == 0)  // nothing, or a dump on the lines below
            row.erase(row.find_last_not_of(' ') + 1).append("\n");
        out += row + data;
    }
    return out;
}

std::string containersJson(const zep::Channel& channel)
{
    std::string out = "[";
    for (const zep::Container& c : channel) {
        out += (out.size() > 1 ? "," : "") + std::string("{\"name\":") + jsonString(c.name()) + ",\"type\":\"" +
               (c.isText() ? "CHAR" : "BIT") + "\",\"ccsid\":" + std::to_string(c.ccsid()) +
               ",\"length\":" + std::to_string(c.data().size()) + "," + jsonData(c.data(), Shown::Container) + "}";
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
std::string callJson(const CallOptions& options, const Outcome& outcome, double milliseconds,
                     const std::string& data)
{
    return "{\"program\":" + jsonString(options.program) + ",\"rc\":" + std::to_string(outcome.rc) +
           ",\"rc_name\":" + jsonString(zep::category().message(outcome.rc)) +
           ",\"abend_code\":" + jsonString(outcome.abendCode) +
           ",\"luw_token\":" + std::to_string(outcome.luwToken) + ",\"time_ms\":" + threeDecimals(milliseconds) +
           data + "}\n";
}

void reportVerbose(const Outcome& outcome, double milliseconds)
{
    std::fprintf(stderr, "abend code: %s\nLUW token:  %ld\ntime:       %.3f ms\n",
                 outcome.abendCode.empty() ? "(none)" : outcome.abendCode.c_str(),
                 static_cast<long>(outcome.luwToken), milliseconds);
}

// The Gateway's times carry no zone; zepclient.hpp reads them as UTC, so they are shown as UTC.
std::string calendarText(std::chrono::system_clock::time_point time)
{
    static const char* const kDays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    struct tm t = {};
    if (time == std::chrono::system_clock::time_point{} || gmtime_r(&seconds, &t) == nullptr)
        return "(not set)";
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d %s", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                  t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday >= 0 && t.tm_wday < 7 ? kDays[t.tm_wday] : "");
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
    const std::string data = channelCall ? std::string() : commareaData(options);
    std::optional<zep::Channel> channel;
    if (channelCall) {
        channel.emplace(options.channel);
        putContainers(options, *channel);
    }
    Secret secret;
    if (!options.user.empty())
        secret.text = password("ZEP_PASSWORD", "Password for " + options.user + ": ");
    const zep::CallOptions callOptions = callOptionsFor(options, secret.text);

    zep::Connection connection = connect(inv.endpoint);
    auto started = std::chrono::steady_clock::now();
    std::string commarea = data;
    commarea.resize(std::max(data.size(), callOptions.commareaLength), '\0');
    const Outcome outcome =
        channelCall ? outcomeOf([&] { return connection.call(options.program, *channel, callOptions); }, "")
                    : outcomeOf([&] { return connection.call(options.program, data, callOptions); }, commarea);
    double milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();

    const Shown commareaShown = options.hex ? Shown::Hex : Shown::Commarea;
    const std::string& reply = outcome.reply;
    if (inv.json)
        std::cout << callJson(options, outcome, milliseconds,
                              channelCall ? ",\"channel\":" + jsonString(options.channel) +
                                                ",\"containers\":" + containersJson(*channel)
                                          : ",\"length\":" + std::to_string(reply.size()) + "," +
                                                jsonData(reply, commareaShown));
    else if (outcome.rc == 0)
        std::cout << (channelCall ? containersText(*channel) : shownData(reply, commareaShown, ""));
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

// A failure of the connection or the request ends in main(), which reports it.
int runSystems(const Invocation& inv)
{
    const std::vector<zep::System> systems = connect(inv.endpoint).systems();
    if (inv.json) {
        std::cout << "[";
        for (size_t i = 0; i < systems.size(); ++i)
            std::cout << (i ? "," : "") << "{\"name\":" << jsonString(systems[i].name)
                      << ",\"description\":" << jsonString(systems[i].description) << "}";
        std::cout << "]\n";
    } else {
        std::printf("%-9s  %s\n", "SYSTEM", "DESCRIPTION");
        for (const zep::System& system : systems)
            std::printf("%-9s  %s\n", system.name.c_str(), system.description.c_str());
    }
    return kExitOk;
}

int runPasswordCommand(const Invocation& inv)
{
    const bool change = inv.command == Command::Change;
    Secret old, fresh, again;
    old.text = password("ZEP_PASSWORD", (change ? "Old password for " : "Password for ") + inv.user + ": ");
    if (change) {
        fresh.text = password("ZEP_NEW_PASSWORD", "New password for " + inv.user + ": ");
        if (std::getenv("ZEP_NEW_PASSWORD") == nullptr) {
            again.text = password("ZEP_NEW_PASSWORD", "Repeat the new password: ");
            if (again.text != fresh.text)
                throw LocalError("the two new passwords differ; nothing was changed");
        }
    }
    zep::Connection connection = connect(inv.endpoint);
    const zep::UserDetails details = change
        ? connection.changePassword(inv.user, old.text, fresh.text, inv.call.system)
        : connection.verifyPassword(inv.user, old.text, inv.call.system);
    std::printf("password of %s %s\n", inv.user.c_str(), change ? "changed" : "accepted");
    std::printf("%-15s %s\n", "first time:", calendarText(details.time1).c_str());
    std::printf("%-15s %s\n", "second time:", calendarText(details.time2).c_str());
    std::printf("%-15s %s\n", "third time:", calendarText(details.time3).c_str());
    std::printf("%-15s %d\n", "verifications:", static_cast<int>(details.count));
    return kExitOk;
}

}  // namespace zepcall
