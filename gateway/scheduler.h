// One thread that runs tasks at given times: delayed replies and pings.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace zepgw {

class Scheduler {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;

    void start();
    void after(std::chrono::milliseconds delay, Task task);
    void every(std::chrono::milliseconds interval, Task task);
    // Drops the tasks not yet due and waits for the thread.
    void stop();

private:
    struct Entry {
        Task task;
        std::chrono::milliseconds interval;  // 0: once
    };

    void add(Clock::time_point when, Entry entry);
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, Entry> due_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace zepgw
