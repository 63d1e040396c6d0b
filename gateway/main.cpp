#include <cstdio>
#include <string>

#include "options.h"
#include "server.h"
#include "tables.h"

int main(int argc, char** argv)
{
    zepgw::Options options;
    std::string error;
    switch (zepgw::parseOptions(argc, argv, options, error)) {
    case zepgw::ParseResult::Help:
        std::fputs(zepgw::helpText(), stdout);
        return 0;
    case zepgw::ParseResult::Version:
        std::fputs(zepgw::versionText(), stdout);
        return 0;
    case zepgw::ParseResult::Error:
        std::fprintf(stderr, "zepgw: %s (see zepgw --help)\n", error.c_str());
        return 2;
    case zepgw::ParseResult::Run:
        break;
    }
    zepgw::SystemTable systems;
    zepgw::UserTable users;
    if ((!options.systemsFile.empty() && !systems.load(options.systemsFile, error)) ||
        (!options.usersFile.empty() && !users.load(options.usersFile, error))) {
        std::fprintf(stderr, "zepgw: %s\n", error.c_str());
        return 1;
    }
    zepgw::Server server(options, systems, users);
    return server.run();
}
