// Lines on standard error, one whole line at a time from any thread.
#pragma once

namespace zepgw {

void logLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zepgw
