// Where zepcall finds the Gateway, and the library's version, which only the C interface tells. Every
// call to the library otherwise goes through zepclient.hpp.
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

}  // namespace zepcall
