// The shared object's footprint: it needs only the C library, and it exports exactly the names of
// source/exports.map, all with C linkage.
#include <gtest/gtest.h>


#include <cstdio>
#include <fstream>
#include <cctype>
#include <set>
#include <sstream>
#include <string>

#include "run_command.h"

namespace {

bool sanitizerBuild() {
    const std::string sanitize = ZEP_SANITIZE;
    return sanitize == "address" || sanitize == "thread";
}

std::string withoutComments(std::string text) {
    for (size_t open; (open = text.find("/*")) != std::string::npos;) {
        size_t close = text.find("*/", open + 2);
        text.replace(open, close == std::string::npos ? std::string::npos : close + 2 - open, " ");
    }
    return text;
}

bool isNameCharacter(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// The names between "global:" and "local:".
std::set<std::string> mapNames() {
    std::ifstream in(std::string(ZEP_SOURCE_DIR) + "/source/exports.map");
    std::stringstream text;
    text << in.rdbuf();
    std::string map = withoutComments(text.str());
    size_t global = map.find("global:");
    size_t local = map.find("local:");
    std::set<std::string> names;
    if (global == std::string::npos || local == std::string::npos) return names;
    std::string name;
    for (size_t i = global + 7; i <= local; ++i) {
        if (i < local && isNameCharacter(map[i])) {
            name += map[i];
        } else if (!name.empty()) {
            names.insert(name);
            name.clear();
        }
    }
    return names;
}

std::set<std::string> exportedNames() {
    CommandResult nm = runCommand(std::string("nm -D --defined-only '") + ZEP_LIBRARY_PATH + "'");
    EXPECT_EQ(0, nm.status) << nm.output;
    std::set<std::string> names;
    std::istringstream lines(nm.output);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string address, kind, symbol;
        if (fields >> address >> kind >> symbol) names.insert(symbol);
    }
    return names;
}

}  // namespace

TEST(Footprint, NeedsOnlyTheCLibrary) {
    if (sanitizerBuild()) GTEST_SKIP() << "a sanitizer runtime is linked in";
    CommandResult readelf = runCommand(std::string("readelf -d '") + ZEP_LIBRARY_PATH + "'");
    ASSERT_EQ(0, readelf.status) << readelf.output;

    const std::set<std::string> cLibrary = {"libc.so.6", "libpthread.so.0", "ld-linux.so.2", "ld-linux-x86-64.so.2"};
    int count = 0;
    bool hasLibc = false;
    std::istringstream lines(readelf.output);
    std::string line;
    while (std::getline(lines, line)) {
        size_t open = line.find("(NEEDED)") != std::string::npos ? line.find('[') : std::string::npos;
        if (open == std::string::npos) continue;
        const std::string library = line.substr(open + 1, line.find(']', open) - open - 1);
        ++count;
        hasLibc = hasLibc || library == "libc.so.6";
        EXPECT_EQ(1u, cLibrary.count(library)) << "needs " << library;
    }
    EXPECT_GT(count, 0);
    EXPECT_TRUE(hasLibc);
}

TEST(Footprint, ExportsExactlyTheListedNames) {
    std::set<std::string> listed = mapNames();
    ASSERT_GT(listed.size(), 100u);
    std::set<std::string> exported = exportedNames();

    for (const std::string& name : listed) EXPECT_EQ(1u, exported.count(name)) << "not exported: " << name;
    for (const std::string& name : exported) EXPECT_EQ(1u, listed.count(name)) << "exported but not listed: " << name;
}

TEST(Footprint, NoMangledNames) {
    for (const std::string& name : exportedNames()) EXPECT_NE(0u, name.rfind("_Z", 0)) << name;
}
