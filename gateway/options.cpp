#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zepgw {

namespace {

const char kHelp[] =
    "Usage: zepgw [options]\n"
    "\n"
    "zepgw emulates a Gateway for zepclient applications: it accepts their\n"
    "connections, answers handshakes, ECI and ESI requests and the system list\n"
    "from built-in programs and tables, and can inject faults on request.\n"
    "\n"
    "Options:\n"
    "  --port N            TCP port to listen on (default 0). With 0 a free port\n"
    "                      is chosen and printed as the first line on standard\n"
    "                      output, just the number.\n"
    "  --host H            address to listen on (default 127.0.0.1).\n"
    "  --idle-exit S       exit (status 0) once no client has been connected for\n"
    "                      S seconds.\n"
    "  --ping S            send a ping flow to every connected client every S\n"
    "                      seconds.\n"
    "  --systems FILE      system table: one system a line, the name (at most 9\n"
    "                      bytes, may be empty or end in blanks), a TAB, the\n"
    "                      description (at most 61 bytes). Empty lines are\n"
    "                      skipped; an empty file means no systems.\n"
    "  --users FILE        user table: one user a line, 'userid password' or\n"
    "                      'userid password expired'; lines starting with # and\n"
    "                      empty lines are skipped.\n"
    "  --exit-on-stdin-eof exit (status 0) when standard input reaches its end, so\n"
    "                      that zepgw ends with the process that feeds it.\n"
    "  --jitter MS         hold every ECI reply that would go out at once for a\n"
    "                      random 0 to MS milliseconds, so that replies overtake\n"
    "                      one another (for stress tests).\n"
    "  -v                  log one line per request on standard error.\n"
    "  -h, --help          show this text.\n"
    "  --version           show zepgw's version.\n"
    "Options take their value as the next argument or after '='.\n"
    "SIGTERM and SIGINT close the listener and every connection; zepgw then\n"
    "exits with status 0.\n"
    "\n"
    "Built-in systems (without --systems): ZEPSYS1 (the default), ZEPSYS2, TEST.\n"
    "An ECI or ESI request whose system name is all blanks or all NULs goes to\n"
    "the first system; a name not in the table gets return code -22.\n"
    "The system list answers with as many entries as the request has room for:\n"
    "return code -25 when some did not fit, -26 when the table is empty.\n"
    "\n"
    "Built-in users (without --users): ZEPUSER/ZEPPASS1, ALICE/WONDER11 and\n"
    "EXPIRED/OLDPASS1, whose password has expired.\n"
    "ESI verify and change return: -108 unknown user, -106 wrong password,\n"
    "-105 expired password (verify only), -107 new password shorter than 4\n"
    "characters or equal to the old one, -22 unknown server. A change is kept\n"
    "until zepgw ends. On success the details hold, for the user in position k\n"
    "of the table (from 0) and time t (1, 2, 3): year 2020+t, month k%12,\n"
    "day 1+k%28, hour 8+t, minute 5k%60, second 10t+k%10, 0; the count is the\n"
    "number of successful verifications of the user since zepgw started.\n"
    "\n"
    "Programs (the ECI program name, blank- or NUL-padded):\n"
    "  ECHO      the COMMAREA as received (the inbound length when one is asked).\n"
    "  REVERSE   the COMMAREA bytes in reverse order.\n"
    "  UPPER     the COMMAREA with ASCII letters upper-cased.\n"
    "  SHORT     only the first 20 bytes come back; COMMAREA length unchanged.\n"
    "  ABEND     return code -7, abend code ZA01, data echoed.\n"
    "  FAIL      return code -30, data echoed.\n"
    "  DELAY     waits the number of milliseconds written in decimal at the\n"
    "            start of the COMMAREA (at most 600000), then echoes; other\n"
    "            requests are answered meanwhile.\n"
    "  HANG      never replies.\n"
    "  LUW       extended units of work: extend mode 1 with token 0 starts one\n"
    "            and replies with a new token, with a known token continues it;\n"
    "            modes 2 (commit) and 4 (backout) end it with token 0; mode 0\n"
    "            is a plain call (with a known token, the last call of the\n"
    "            unit). An unknown token gives -8. The first 4 bytes of the\n"
    "            echoed data carry the big-endian count of calls in the unit.\n"
    "  CHANNEL   containers named DEL* come back DELETED, MOD* MODIFIED with\n"
    "            their data reversed, GROW* MODIFIED with their data doubled,\n"
    "            others UNCHANGED; then an ADDED container RESULT (type 2, the\n"
    "            channel's CCSID) with the text containers=N.\n"
    "  CHANBAD   a DELETED record for NOSUCH, then an ADDED record LATE.\n"
    "            CHANNEL and CHANBAD without a channel: -7, abend code ZNCH.\n"
    "  OVERSIZE  100 bytes more than the COMMAREA come back, and the COMMAREA\n"
    "            length in the reply is 100 more too.\n"
    "  WHO       the text 'user=U password=P transid=T system=S kind=K\n"
    "            timeout=N' of the request, NUL-padded to the COMMAREA length.\n"
    "  any other name: return code -7, abend code ZUNK, data echoed.\n"
    "Programs that do not use channels answer a channel with every container\n"
    "UNCHANGED. Extend modes 2 (commit) and 4 (backout) are answered with no\n"
    "data and no channel; ECHO, REVERSE, UPPER, SHORT, CHANNEL, CHANBAD,\n"
    "OVERSIZE and WHO do not run then and answer return code 0 with LUW token\n"
    "0. Extend modes other than 0, 1, 2 and 4 get -2. Other programs than LUW\n"
    "return the LUW token of the request.\n"
    "\n"
    "Fault modes per request (program name):\n"
    "  FERROR    an error flow for the request; its return code is the decimal\n"
    "            number at the start of the COMMAREA, else 61445.\n"
    "  FEXCEPT   an exception flow for the request, text 'zepgw exception for\n"
    "            program FEXCEPT'.\n"
    "  STRAY     the reply goes out under message id + 1000.\n"
    "  BADEYE    the reply header begins with 'Bad!'.\n"
    "  DROP      the connection is closed without a reply.\n"
    "  DROPMID   the first half of the reply is sent, then the connection closes.\n"
    "  GWCLOSE   a close flow is sent and the connection closed.\n"
    "Fault modes per connection (APPLID of the handshake):\n"
    "  NOHS      the handshake is never answered.\n"
    "  HSERR     the handshake is answered with an error flow, return code 61445.\n"
    "  HSBADEYE  the handshake reply header begins with 'Bad!'.\n"
    "  PINGY     a ping flow goes out before every reply to a request.\n"
    "\n"
    "A client that sends a bad eyecatcher, an impossible length, a truncated\n"
    "message, a payload that does not match its request or an unknown request\n"
    "type is disconnected, with the reason on standard error.\n";

bool parseNumber(const std::string& text, int low, int high, int& value)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high)
        return false;
    value = static_cast<int>(v);
    return true;
}

struct ValueOption {
    const char* name;
    std::string Options::*text;
    int Options::*number;
    int low, high;
};

const ValueOption kValueOptions[] = {
    {"--port", nullptr, &Options::port, 0, 65535},
    {"--host", &Options::host, nullptr, 0, 0},
    {"--idle-exit", nullptr, &Options::idleExitSeconds, 1, 86400},
    {"--ping", nullptr, &Options::pingSeconds, 1, 86400},
    {"--systems", &Options::systemsFile, nullptr, 0, 0},
    {"--users", &Options::usersFile, nullptr, 0, 0},
    {"--jitter", nullptr, &Options::jitterMs, 0, 10000},
};

const ValueOption* findValueOption(const std::string& name)
{
    for (const ValueOption& o : kValueOptions) {
        if (name == o.name)
            return &o;
    }
    return nullptr;
}

bool setValue(const ValueOption& o, const std::string& value, Options& options,
              std::string& error)
{
    if (o.text != nullptr) {
        options.*o.text = value;
        return true;
    }
    if (parseNumber(value, o.low, o.high, options.*o.number))
        return true;
    error = std::string("bad value for ") + o.name + ": '" + value + "'";
    return false;
}

}  // namespace

ParseResult parseOptions(int argc, char** argv, Options& options, std::string& error)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return ParseResult::Help;
        if (arg == "--version")
            return ParseResult::Version;
        if (arg == "-v") {
            options.verbose = true;
            continue;
        }
        if (arg == "--exit-on-stdin-eof") {
            options.exitOnStdinEof = true;
            continue;
        }
        const size_t eq = arg.find('=');
        const ValueOption* o = findValueOption(arg.substr(0, eq));
        if (o == nullptr) {
            error = "unknown option '" + arg + "'";
            return ParseResult::Error;
        }
        std::string value;
        if (eq != std::string::npos) {
            value = arg.substr(eq + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            error = std::string("missing value for ") + o->name;
            return ParseResult::Error;
        }
        if (!setValue(*o, value, options, error))
            return ParseResult::Error;
    }
    return ParseResult::Run;
}

const char* helpText() { return kHelp; }

const char* versionText() { return "zepgw 1.0.0\n"; }

}  // namespace zepgw
