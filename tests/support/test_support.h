// What every suite shares: a pointer as the trace prints it, and polling with a deadline.
#ifndef ZEP_TEST_SUPPORT_H
#define ZEP_TEST_SUPPORT_H

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

// A pointer as "%p" prints it.
inline std::string pointerText(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Polls `done` every 2 ms until it holds or `seconds` have passed; true when it held.
inline bool pollUntil(const std::function<bool()>& done, double seconds = 10)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

#endif
