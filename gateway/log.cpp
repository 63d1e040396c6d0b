#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace zepgw {

namespace {
std::mutex logMutex;
}

void logLine(const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(logMutex);
    std::fprintf(stderr, "zepgw: %s\n", text);
    std::fflush(stderr);
}

}  // namespace zepgw
