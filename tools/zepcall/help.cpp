// The --help texts, one per command.
#include "args.h"

namespace zepcall {

namespace {

const char kOverview[] =
    "Usage: zepcall [global options] COMMAND [options] [arguments]\n"
    "\n"
    "A command-line client for a Gateway: call programs, list systems, check\n"
    "passwords and measure the Gateway under load.\n"
    "\n"
    "Commands:\n"
    "  call PROGRAM [DATA]   call a program with a COMMAREA or a channel\n"
    "  systems               list the systems the Gateway knows\n"
    "  verify USER           verify a user's password\n"
    "  change USER           change a user's password\n"
    "  bench                 load the Gateway with calls and measure them\n"
    "\n"
    "Global options:\n"
    "  --host H              the Gateway's host (default 127.0.0.1)\n"
    "  --port N              the Gateway's port\n"
    "                        (both default from ZEP_GATEWAY=host:port)\n"
    "  --connect-timeout S   seconds for the connect and the handshake (default\n"
    "                        10, 0 for no limit, at most 3600)\n"
    "  --applid A            the APPLID of the connection (at most 8 characters)\n"
    "  --qualifier Q         the APPLID qualifier (at most 8 characters)\n"
    "  --trace LEVEL         trace the library at LEVEL 0 to 5\n"
    "  --trace-file F        append the trace to F instead of standard error\n"
    "  --json                JSON output (call, systems and bench)\n"
    "  -v                    more detail (call: abend code, LUW token, time)\n"
    "  --help                this text; COMMAND --help for the command's\n"
    "  --version             the versions of zepcall and of the library\n"
    "Options take their value as the next argument or after '='.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  a local failure: a file or the terminal could not be read, the trace\n"
    "     file could not be opened\n"
    "  2  a bad command line\n"
    "  3  the connection failed: not made, refused, timed out or lost\n"
    "  4  the call or request returned an error\n"
    "  5  a user or password was not accepted\n"
    "A failure prints the return code's name, its value and what it means on\n"
    "standard error.\n";

const char kCall[] =
    "Usage: zepcall [global options] call PROGRAM [DATA] [options]\n"
    "       zepcall [global options] call PROGRAM --channel NAME [--put ...]\n"
    "\n"
    "Calls PROGRAM synchronously. The COMMAREA is DATA, the contents of --file,\n"
    "or standard input when DATA is '-'; without any, no COMMAREA is sent.\n"
    "The reply is written to standard output: as text when it is printable\n"
    "(trailing NULs dropped), else as a hex dump of the whole COMMAREA.\n"
    "\n"
    "Options:\n"
    "  --file F              the COMMAREA is the contents of F\n"
    "  --hex                 the data is given in hex (blanks allowed), and the\n"
    "                        reply is always shown as a hex dump\n"
    "  --length N            the COMMAREA length (1 to 32767): room for a reply\n"
    "                        longer than the data sent (default: the data's)\n"
    "  --transid T           the transaction id (at most 4 characters)\n"
    "  --system S            the system to route the call to\n"
    "  --user U              the user id; the password comes from ZEP_PASSWORD\n"
    "                        or is asked for on the terminal, without echo\n"
    "  --timeout S           the time-out the Gateway applies (0 to 32767)\n"
    "  --channel NAME        a channel call instead of a COMMAREA call\n"
    "  --put NAME=TEXT       a character container with TEXT\n"
    "  --put-file NAME=FILE  a binary container with the contents of FILE\n"
    "  --put-hex NAME=HEX    a binary container with the bytes HEX\n"
    "After a channel call every container is shown: name, type, CCSID, length\n"
    "and data. With -v the abend code, LUW token and time taken follow on\n"
    "standard error; --json writes one JSON object instead.\n";

const char kSystems[] =
    "Usage: zepcall [global options] systems\n"
    "\n"
    "Lists the systems the Gateway knows, as a table of name and description\n"
    "(--json: an array of objects).\n";

const char kVerify[] =
    "Usage: zepcall [global options] verify USER [--system S]\n"
    "\n"
    "Verifies USER's password, from ZEP_PASSWORD or asked for on the terminal\n"
    "without echo, and shows the user's details: the three times the Gateway\n"
    "reports and the count of verifications. Exit status 5 when the user or the\n"
    "password is not accepted.\n";

const char kChange[] =
    "Usage: zepcall [global options] change USER [--system S]\n"
    "\n"
    "Changes USER's password. The old password comes from ZEP_PASSWORD, the new\n"
    "one from ZEP_NEW_PASSWORD; either, when unset, is asked for on the terminal\n"
    "without echo (the new one twice). Shows the user's details as verify does.\n";

const char kBench[] =
    "Usage: zepcall [global options] bench [options]\n"
    "\n"
    "Calls a program over and over from many threads and reports the calls per\n"
    "second and the latency percentiles. A progress line is shown on standard\n"
    "error when it is a terminal.\n"
    "\n"
    "Options:\n"
    "  -c N          connections (default 1)\n"
    "  -t N          threads per connection (default 1)\n"
    "  -n N          calls in all (default 1000)\n"
    "  -d S          run for S seconds instead of a number of calls\n"
    "  --async N     N asynchronous requests in flight per thread (default:\n"
    "                synchronous calls)\n"
    "  --size N      bytes of COMMAREA per call (default 100)\n"
    "  --program P   the program to call (default ECHO)\n"
    "  --timeout S   the time-out the Gateway applies to each call\n"
    "Exit status 4 when any call failed, 3 when a connection failed.\n";

}  // namespace

const char* helpText(Command command)
{
    switch (command) {
    case Command::Call: return kCall;
    case Command::Systems: return kSystems;
    case Command::Verify: return kVerify;
    case Command::Change: return kChange;
    case Command::Bench: return kBench;
    case Command::None: break;
    }
    return kOverview;
}

}  // namespace zepcall
