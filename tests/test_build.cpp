// What a caller builds and links against: the public headers compile on their own as strict C99 and as
// C++17 on both widths, and the shared object needs nothing but the C library.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "run_command.h"

TEST(Build, EachHeaderCompilesAloneAsStrictC99AndCxx17OnBothWidths)
{
    const std::string include = std::string(ZEP_SOURCE_DIR) + "/include";
    for (const char* header : {"zepclient.h", "zep_gateway.h", "zep_eci.h", "zep_channel.h", "zep_esi.h"})
        for (const char* flags : {"-x c -std=c99 -pedantic", "-x c++ -std=c++17"})
            for (const char* width : {"-m32", "-m64"}) {
                const std::string command = std::string("printf '#include \"") + header +
                                            "\"\\nint probe(void);\\n' | gcc -Wall -Wextra -Werror -fsyntax-only " +
                                            flags + " " + width + " -I'" + include + "' - 2>&1";
                const CommandResult compiled = runCommand(command);
                EXPECT_EQ(0, compiled.status) << header << " " << flags << " " << width << "\n" << compiled.output;
            }
}

TEST(Build, SharedObjectNeedsOnlyTheCLibrary)
{
    if (std::string(ZEP_SANITIZE) != "") GTEST_SKIP() << "a sanitizer runtime is linked in";
    const CommandResult needed = runCommand(std::string("readelf -d '") + ZEP_LIBRARY_PATH + "' | grep NEEDED");
    ASSERT_EQ(0, needed.status);
    std::string rest = needed.output;
    for (const char* allowed : {"[libc.so.6]", "[libpthread.so.0]", "[ld-linux.so.2]", "[ld-linux-x86-64.so.2]"})
        for (size_t at; (at = rest.find(allowed)) != std::string::npos;) rest.erase(at, strlen(allowed));
    EXPECT_EQ(std::string::npos, rest.find('[')) << needed.output;
    EXPECT_NE(std::string::npos, needed.output.find("[libc.so.6]"));
}
