// The listener: accepts clients, gives each a connection thread, pings them,
// and stops on a signal, on idle time-out or at the end of standard input.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connection.h"
#include "options.h"
#include "scheduler.h"
#include "tables.h"

namespace zepgw {

class Server {
public:
    Server(const Options& options, const SystemTable& systems, UserTable& users);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until told to stop; returns the exit status.
    int run();

private:
    struct Client {
        std::shared_ptr<Connection> connection;
        std::thread thread;
    };

    bool listen();
    void accept();
    void serve();
    bool handleWake();  // false when a signal asks to stop
    int pollTimeout() const;
    void reapEnded();
    void stopAll();
    void pingAll();

    const Options& options_;
    Scheduler scheduler_;
    Context context_;
    int listenFd_ = -1;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
    int nextNumber_ = 1;
    std::chrono::steady_clock::time_point idleSince_;

    std::mutex clientsMutex_;
    std::vector<Client> clients_;  // under clientsMutex_
};

}  // namespace zepgw
