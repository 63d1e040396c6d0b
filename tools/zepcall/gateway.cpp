#include "gateway.h"

namespace zepcall {

std::string libraryVersion()
{
    char* dll = nullptr;
    char* api = nullptr;
    if (ZEP_getDLLVersion(&dll) != ZEP_OK || ZEP_getAPIVersion(&api) != ZEP_OK)
        return "unknown";
    return std::string(dll) + " (API " + api + ")";
}

}  // namespace zepcall
