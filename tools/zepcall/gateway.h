// Where zepcall finds the Gateway, and the few library settings that only the C interface offers (the
// library's version and its process-wide trace). Every call to a Gateway goes through zepclient.hpp.
#pragma once

#include <chrono>
#include <string>

#include <zepclient.hpp>

namespace zepcall {

struct Endpoint {
    std::string host = "127.0.0.1";
    int port = -1;
    unsigned connectTimeout = 10;
    std::string applid;
    std::string qualifier;
};

inline zep::Connection connect(const Endpoint& endpoint)
{
    return zep::Connection(endpoint.host, endpoint.port, std::chrono::seconds(endpoint.connectTimeout),
                           endpoint.applid, endpoint.qualifier);
}

std::string libraryVersion();  // "9.1.0.4 (API 2.3.0.0)"
// Level -1 and an empty file leave a setting alone. Throws zep::Error.
void setTrace(int level, const std::string& file);

}  // namespace zepcall
