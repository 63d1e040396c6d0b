// One client connection: its reader thread reads and answers each message;
// replies from that thread and from the scheduler are written whole under
// the connection's write mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "options.h"
#include "programs.h"
#include "scheduler.h"
#include "tables.h"
#include "wire.h"

namespace zepgw {

// What every connection shares with the server.
struct Context {
    const Options& options;
    const SystemTable& systems;
    UserTable& users;
    Scheduler& scheduler;
    std::function<void()> connectionEnded;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(int fd, int number, Context& context);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The reader loop; returns when the connection is over.
    void run();

    void ping();
    // Ends the connection at once, from any thread.
    void abort();

    bool ended() const { return ended_; }
    int number() const { return number_; }

private:
    struct Message {
        Header header;
        Bytes payload;
    };

    bool readMessage(Message& m);
    bool readHeaderRest(Header& h, size_t typeLength);
    bool readPayload(Message& m);
    size_t fill(size_t n);      // reader thread only
    void consume(size_t n) { inBegin_ += n; }
    const uint8_t* input() const { return in_.data() + inBegin_; }
    bool dispatch(const Message& m);
    void onHandshake(const Message& m);
    void onEci(const Message& m);
    void onEsi(const Message& m);
    void perform(const Message& m, const EciRequest& q, const Outcome& o);
    void logRequest(const Message& m, const EciRequest& q, size_t out,
                    const std::string& result);

    // Writing. Each takes the write mutex.
    bool send(const Bytes& message);
    void reply(const Bytes& message);
    void sendPartAndClose(const Bytes& message, size_t length);
    bool writeLocked(const uint8_t* data, size_t length);  // Write mutex held on entry.
    bool sendLocked(const uint8_t* data, size_t length);   // Write mutex held on entry.
    bool flushLocked();                                     // Write mutex held on entry.
    void flushHeld();
    void closeWritesLocked();                               // Write mutex held on entry.
    void closeWrites();

    void drain();
    void bad(const std::string& reason);  // the first reason wins

    const int fd_;
    const int number_;
    Context& context_;
    LuwTable luw_;  // reader thread only
    std::string badReason_;  // reader thread only
    bool over_ = false;      // reader thread only: a fault mode ended the connection
    // What one recv brought and no message has taken yet: a pipelined client's
    // requests are taken from here without a system call each. Reader thread only.
    Bytes in_;
    size_t inBegin_ = 0;
    size_t inEnd_ = 0;

    std::mutex writeMutex_;
    bool writesClosed_ = false;  // under writeMutex_
    // What the reader thread wrote while it still had requests in hand: sent in
    // one write before it waits for more input or ends. Under writeMutex_.
    Bytes held_;
    std::thread::id reader_;  // under writeMutex_
    std::atomic<bool> pingy_{false};
    std::atomic<bool> aborted_{false};
    std::atomic<bool> ended_{false};
};

}  // namespace zepgw
