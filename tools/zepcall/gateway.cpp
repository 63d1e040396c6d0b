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

void setTrace(int level, const std::string& file)
{
    if (!file.empty()) {
        int rc = ZEP_setAPITraceFile(file.c_str());
        if (rc != ZEP_OK)
            throw zep::Error(rc, "trace file " + file + " could not be opened for appending");
    }
    if (level >= 0) {
        int rc = ZEP_setAPITraceLevel(level);
        if (rc != ZEP_OK)
            throw zep::Error(rc, "trace level " + std::to_string(level) + " was refused");
    }
}

}  // namespace zepcall
