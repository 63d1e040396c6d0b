// The public headers compile cleanly as strict C99 (i386 and x86-64) and as C++17, and give the binary
// layout that callers are compiled against.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "run_command.h"

namespace {

const std::string includeDir = std::string(ZEP_SOURCE_DIR) + "/include";

// Standard error too: a compiler's complaint belongs in the failure message.
CommandResult run(const std::string& command) { return runCommand(command + " 2>&1"); }

const char* const probeSource = R"(#include <stddef.h>
#include <stdio.h>
#include "zepclient.h"

#define FIELD(type, field) printf(#type "." #field " %u\n", (unsigned)offsetof(type, field))

int main(void)
{
    printf("EciParms %u\n", (unsigned)sizeof(EciParms));
    FIELD(EciParms, eci_call_type);
    FIELD(EciParms, eci_program_name);
    FIELD(EciParms, eci_userid);
    FIELD(EciParms, eci_password);
    FIELD(EciParms, eci_transid);
    FIELD(EciParms, eci_abend_code);
    FIELD(EciParms, eci_commarea);
    FIELD(EciParms, eci_commarea_length);
    FIELD(EciParms, eci_timeout);
    FIELD(EciParms, eci_extend_mode);
    FIELD(EciParms, eci_luw_token);
    FIELD(EciParms, eci_version);
    FIELD(EciParms, eci_system_name);
    FIELD(EciParms, eci_alt_transid);
    FIELD(EciParms, commarea_outbound_length);
    FIELD(EciParms, commarea_inbound_length);
    FIELD(EciParms, eci_channel);
    FIELD(EciParms, eci_userid_ptr);
    FIELD(EciParms, eci_password_ptr);
    FIELD(EciParms, eci_message_qualifier);
    printf("ContainerInfo %u\n", (unsigned)sizeof(ContainerInfo));
    FIELD(ContainerInfo, name);
    FIELD(ContainerInfo, type);
    FIELD(ContainerInfo, ccsid);
    FIELD(ContainerInfo, dataLength);
    return 0;
}
)";

using Layout = std::map<std::string, unsigned>;

// Offsets that do not depend on the pointer width, then the pointer-width ones for i386 and x86-64.
Layout expectedLayout(int bits) {
    const unsigned p = bits == 32 ? 4 : 8;
    return {
        {"EciParms", bits == 32 ? 98u : 114u},
        {"EciParms.eci_call_type", 0},
        {"EciParms.eci_program_name", 2},
        {"EciParms.eci_userid", 10},
        {"EciParms.eci_password", 26},
        {"EciParms.eci_transid", 42},
        {"EciParms.eci_abend_code", 46},
        {"EciParms.eci_commarea", 50},
        {"EciParms.eci_commarea_length", 50 + p},
        {"EciParms.eci_timeout", 52 + p},
        {"EciParms.eci_extend_mode", 54 + p},
        {"EciParms.eci_luw_token", 56 + p},
        {"EciParms.eci_version", 60 + p},
        {"EciParms.eci_system_name", 62 + p},
        {"EciParms.eci_alt_transid", 70 + p},
        {"EciParms.commarea_outbound_length", 74 + p},
        {"EciParms.commarea_inbound_length", 76 + p},
        {"EciParms.eci_channel", 78 + p},
        {"EciParms.eci_userid_ptr", 78 + 2 * p},
        {"EciParms.eci_password_ptr", 78 + 3 * p},
        {"EciParms.eci_message_qualifier", 78 + 4 * p},
        {"ContainerInfo", 29},
        {"ContainerInfo.name", 0},
        {"ContainerInfo.type", 17},
        {"ContainerInfo.ccsid", 21},
        {"ContainerInfo.dataLength", 25},
    };
}

Layout parseLayout(const std::string& output) {
    Layout layout;
    std::istringstream in(output);
    std::string name;
    unsigned value;
    while (in >> name >> value) layout[name] = value;
    return layout;
}

class HeaderProbe : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zephdr.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
        std::ofstream(dir_ + "/probe.c") << probeSource;
    }
    void TearDown() override { run("rm -rf '" + dir_ + "'"); }

    // Compiles the probe with `compiler` and `flags`, runs it, and returns what it printed.
    Layout compileAndRun(const std::string& compiler, const std::string& flags) {
        const std::string binary = dir_ + "/probe";
        CommandResult compiled = run(compiler + " " + flags + " -I'" + includeDir + "' '" + dir_ + "/probe.c' -o '" + binary + "'");
        EXPECT_EQ(0, compiled.status) << compiler << " " << flags << "\n" << compiled.output;
        if (compiled.status != 0) return {};
        CommandResult ran = run("'" + binary + "'");
        EXPECT_EQ(0, ran.status);
        return parseLayout(ran.output);
    }

    std::string dir_;
};

const char* const cFlags = "-x c -std=c99 -Wall -Wextra -Werror -pedantic";
const char* const cxxFlags = "-x c++ -std=c++17 -Wall -Wextra -Werror";

}  // namespace

TEST_F(HeaderProbe, StrictC99On32Bit) {
    EXPECT_EQ(expectedLayout(32), compileAndRun("gcc", std::string(cFlags) + " -m32"));
}

TEST_F(HeaderProbe, StrictC99On64Bit) {
    EXPECT_EQ(expectedLayout(64), compileAndRun("gcc", std::string(cFlags) + " -m64"));
}

TEST_F(HeaderProbe, CxxOnBothWidths) {
    EXPECT_EQ(expectedLayout(32), compileAndRun("g++", std::string(cxxFlags) + " -m32"));
    EXPECT_EQ(expectedLayout(64), compileAndRun("g++", std::string(cxxFlags) + " -m64"));
}

// Each public header stands on its own.
TEST_F(HeaderProbe, EachHeaderCompilesAlone) {
    for (const char* header : {"zepclient.h", "zep_gateway.h", "zep_eci.h", "zep_channel.h", "zep_esi.h"}) {
        std::ofstream(dir_ + "/alone.c") << "#include \"" << header << "\"\nint probe(void);\nint probe(void) { return 0; }\n";
        for (const char* flags : {cFlags, cxxFlags}) {
            CommandResult compiled = run(std::string("gcc ") + flags + " -fsyntax-only -I'" + includeDir + "' '" + dir_ +
                                  "/alone.c'");
            EXPECT_EQ(0, compiled.status) << header << " " << flags << "\n" << compiled.output;
        }
    }
}
