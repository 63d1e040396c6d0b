#include "scheduler.h"

namespace zepgw {

void Scheduler::start()
{
    thread_ = std::thread(&Scheduler::run, this);
}

void Scheduler::after(std::chrono::milliseconds delay, Task task)
{
    add(Clock::now() + delay, Entry{std::move(task), std::chrono::milliseconds(0)});
}

void Scheduler::every(std::chrono::milliseconds interval, Task task)
{
    add(Clock::now() + interval, Entry{std::move(task), interval});
}

void Scheduler::add(Clock::time_point when, Entry entry)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        due_.emplace(when, std::move(entry));
    }
    changed_.notify_one();
}

void Scheduler::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable())
        thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    due_.clear();
}

void Scheduler::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (due_.empty()) {
            changed_.wait(lock);
            continue;
        }
        auto first = due_.begin();
        if (first->first > Clock::now()) {
            changed_.wait_until(lock, first->first);
            continue;
        }
        Entry entry = std::move(first->second);
        due_.erase(first);
        if (entry.interval.count() > 0)
            due_.emplace(Clock::now() + entry.interval, entry);
        // Tasks write to sockets; never with the lock held.
        lock.unlock();
        entry.task();
        lock.lock();
    }
}

}  // namespace zepgw
