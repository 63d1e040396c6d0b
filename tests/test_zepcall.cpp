// zepcall against zepgw: every command's output and exit status, bad command lines, a Gateway that is
// not there, and a password that is neither echoed nor traced.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "run_command.h"
#include "test_support.h"
#include "trace_capture.h"
#include "zepgw_process.h"

namespace {

struct Outcome { int status; std::string out, err; };

// Runs `prefix zepcall args` through the shell, the Gateway at `port` given by ZEP_GATEWAY (which `prefix` or a
// --port in `args` can override).
Outcome zepcall(int port, const std::string& args, const std::string& prefix = "")
{
    TempFile err("");
    const std::string gateway = "export ZEP_GATEWAY=127.0.0.1:" + std::to_string(port) + "; ";
    CommandResult r = runCommand(gateway + prefix + " " + ZEPCALL_PATH + " " + args + " 2>" + err.path());
    return {r.status, r.output, TraceCapture::readFile(err.path())};
}

// Environment settings or a pipe in front of zepcall, its arguments, exit status, and a part of standard output
// and of standard error each.
struct Case { const char *prefix, *args; int status; const char *out, *err; };

// In order: the user table changes on the way.
const Case kCases[] = {
    {"printf abc |", "call REVERSE -", 0, "cba\n", ""},
    {"", "call REVERSE --hex '00 01 41'", 0, "0x00000000: 410100                              : A..\n", ""},
    {"", "call ECHO --length 8 abc", 0, "abc\n", ""},
    {"", "--json call UPPER hi", 0, ",\"length\":2,\"data\":\"HI\"}\n", ""},
    {"ZEP_PASSWORD=SECRET9", "call WHO --user BOB --transid TRN1 --system ZEPSYS2 --timeout 7 --length 90", 0,
     "user=BOB password=SECRET9 transid=TRN1 system=ZEPSYS2 kind=1 timeout=7\n", ""},
    {"", "-v call ABEND xyz", 4, "", "abend code: ZA01\nLUW token:  0\ntime:       "},
    {"", "call ABEND xyz", 4, "", "ECI_ERR_TRANSACTION_ABEND (-7): program ABEND ended abnormally, abend code ZA01\n"},
    {"", "call UPPER x --system NOSYS", 4, "",
     "ECI_ERR_UNKNOWN_SERVER (-22): the Gateway does not know system NOSYS\n"},
    {"LANG=en_US.UTF-8", "call CHANNEL --channel CH --put MODTEXT=hello --put-hex BIN=0001", 0,
     "CONTAINER         TYPE  CCSID  LENGTH  DATA\n"
     "RESULT            CHAR    819      12  containers=2\n"
     "BIN               BIT       0       2\n"
     "    0x00000000: 0001                                : ..\n"
     "MODTEXT           CHAR    819       5  olleh\n", ""},
    {"", "--json call CHANNEL --channel CH --put-hex BIN=00", 0,
     "\"data\":\"containers=1\"},{\"name\":\"BIN\",\"type\":\"BIT\",\"ccsid\":0,\"length\":1,\"data_hex\":\"00\"}]}", ""},
    {"", "systems", 0,
     "SYSTEM     DESCRIPTION\nZEPSYS1    zepgw default system\nZEPSYS2    zepgw second system\nTEST       zepgw test "
     "system\n", ""},
    {"", "--json systems", 0,
     "[{\"name\":\"ZEPSYS1\",\"description\":\"zepgw default system\"},{\"name\":\"ZEPSYS2\",", ""},
    {"ZEP_PASSWORD=ZEPPASS1", "verify ZEPUSER", 0,
     "password of ZEPUSER accepted\nfirst time:     2021-01-01 09:00:10 Friday\nsecond time:    2022-01-01 "
     "10:00:20 Saturday\nthird time:     2023-01-01 11:00:30 Sunday\nverifications:  1\n", ""},
    {"ZEP_PASSWORD=WRONG", "verify ZEPUSER", 5, "", "ESI_ERR_PASSWORD_INVALID (-302): the password of ZEPUSER is wrong\n"},
    {"ZEP_PASSWORD=OLDPASS1", "verify EXPIRED", 5, "", "ESI_ERR_PASSWORD_EXPIRED (-306): the password of EXPIRED"},
    {"ZEP_PASSWORD=X", "verify NOBODY", 5, "", "ESI_ERR_USERID_INVALID (-300): user NOBODY is not known\n"},
    {"ZEP_PASSWORD=WONDER11 ZEP_NEW_PASSWORD=ab", "change ALICE", 5, "", "ESI_ERR_PASSWORD_REJECTED (-315): "},
    {"ZEP_PASSWORD=WONDER11 ZEP_NEW_PASSWORD=LOOKING2", "change ALICE", 0, "password of ALICE changed\n", ""},
    {"ZEP_PASSWORD=LOOKING2", "verify ALICE", 0, "password of ALICE accepted\n", ""},
    {"", "bench -n 50 -t 2", 0, "synchronous calls\ncalls:      50 in ", ""},
    {"", "--json bench -c 2 -t 8 -n 400 --async 3 --size 10", 0, "\"async\":3,\"calls\":400,\"errors\":0,", ""},
    {"", "bench -n 20 --program ABEND", 4, "calls:      20 in ",
     "20 of 20 calls failed; the first: ECI_ERR_TRANSACTION_ABEND (-7)"},
    {"", "--port 1 call UPPER hello", 3, "", "ZEP_ERR_CONNECTFAILED (-118): nothing accepted the connection at 127.0.0.1:1\n"},
    {"ZEP_GATEWAY=", "systems", 2, "",
     "zepcall: no Gateway given: use --port (and --host) or set ZEP_GATEWAY=host:port (see zepcall systems --help)\n"},
    {"", "--applid NOHS --connect-timeout 1 systems", 3, "", "ZEP_ERR_CONNECTTIMEOUT (-134): the Gateway at 127.0.0.1:"},
    {"", "frobnicate", 2, "", "zepcall: unknown command 'frobnicate' (see zepcall --help)\n"},
    {"", "call", 2, "", "zepcall: call needs a PROGRAM (see zepcall call --help)\n"},
    {"", "call UPPER --length x", 2, "", "bad value for --length: 'x' (1 to 32767)"},
    {"", "call UPPER --hex 0g", 2, "", "the data is not hex: 'g' is no hex digit"},
    {"", "call UPPER abcdef --length 3", 2, "", "--length 3 is shorter than the data (6 bytes)"},
    {"", "call UPPER --put A=b", 2, "", "containers go into a channel: give --channel NAME"},
    {"", "call PROGRAMLONG", 2, "", "a program name has 1 to 8 characters"},
    {"", "systems --hex", 2, "", "--hex is not an option of systems"},
    {"", "--trace 9 systems", 2, "", "bad value for --trace: '9' (0 to 5)"},
    {"", "bench -n 5 -d 1", 2, "", "give -n or -d, not both"},
    {"", "call UPPER --file /nonexistent/data", 1, "", "zepcall: /nonexistent/data: No such file or directory\n"},
    {"", "call CHANNEL --channel 'A B'", 4, "", "ECI_ERR_INVALID_NAME (-51): a channel or container name"},
    {"", "--version", 0, "zepcall 1.0.0\nzepclient library 9.1.0.4 (API 2.3.0.0)\n", ""},
    {"", "--help", 0, "Usage: zepcall [global options] COMMAND", ""},
    {"", "call --help", 0, "Usage: zepcall [global options] call PROGRAM [DATA]", ""},
    {"", "bench --help", 0, "Usage: zepcall [global options] bench", ""},
};

TEST(Zepcall, CommandsGiveTheirOutputAndExitStatus)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    for (const Case& c : kCases) {
        SCOPED_TRACE(std::string(c.prefix) + " zepcall " + c.args);
        Outcome r = zepcall(gw.port(), c.args, c.prefix);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        EXPECT_TRUE(*c.err != '\0' || r.err.empty()) << r.err;
    }
}

// Reads the terminal into `seen` until `wanted` has appeared or it ends; at most 10 s.
void readTerminal(int fd, std::string& seen, const std::string& wanted)
{
    char buffer[256];
    pollUntil([&] {
        struct pollfd p = {fd, POLLIN, 0};
        ssize_t got = poll(&p, 1, 100) > 0 ? read(fd, buffer, sizeof buffer) : 0;
        if (got > 0) seen.append(buffer, static_cast<size_t>(got));
        return got < 0 || seen.find(wanted) != std::string::npos;   // EIO once zepcall has closed the terminal
    });
}

// A password typed at the prompt is not echoed; neither it nor one from the environment reaches the full trace.
TEST(Zepcall, PasswordsAreNeitherEchoedNorTraced)
{
    ZepgwProcess gw;
    ASSERT_TRUE(gw.start());
    TempFile trace("");
    int terminal = -1;
    pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        unsetenv("ZEP_PASSWORD");
        execl(ZEPCALL_PATH, "zepcall", "--port", std::to_string(gw.port()).c_str(), "--trace", "5", "--trace-file",
              trace.path().c_str(), "verify", "ZEPUSER", nullptr);
        _exit(127);
    }
    std::string seen;
    readTerminal(terminal, seen, "Password for ZEPUSER: ");
    ASSERT_NE(seen.find("Password for ZEPUSER: "), std::string::npos) << seen;
    ASSERT_EQ(write(terminal, "ZEPPASS1\n", 9), 9);
    readTerminal(terminal, seen, "verifications:  1");
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(terminal);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(seen.find("ZEPPASS1"), std::string::npos) << seen;
    const std::string call = "--trace 5 --trace-file " + trace.path() + " call ECHO data --user BOB";
    EXPECT_EQ(zepcall(gw.port(), call, "ZEP_PASSWORD=SECRET9").status, 0);
    const std::string text = TraceCapture::readFile(trace.path());
    EXPECT_NE(text.find("API.ZEP_ESI_verifyPassword(gwTok="), std::string::npos);
    EXPECT_NE(text.find("API.ZEP_ECI_Execute() rc=0 (ZEP_OK)"), std::string::npos);
    for (const char* password : {"ZEPPASS1", "SECRET9"}) EXPECT_EQ(text.find(password), std::string::npos) << password;
}

}  // namespace
