#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <chrono>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "replies.h"
#include "services.h"

namespace zepgw {

namespace {

// How long a connection that zepgw ends waits for the client to close its side.
constexpr std::chrono::seconds kDrainLimit(5);

// Input read ahead per connection; payloads larger than this go straight into the message.
constexpr size_t kInputBuffer = 16 * 1024;
// Replies held back beyond this are written at once.
constexpr size_t kHeldLimit = 64 * 1024;

// A random hold of 0 to maxMs milliseconds; each reader thread draws from its own generator.
std::chrono::milliseconds jitter(int maxMs)
{
    thread_local std::minstd_rand generator{std::random_device{}()};
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(0, maxMs)(generator));
}

// Reads at least min and at most max bytes; returns fewer than min only at
// end of stream or on an error.
size_t recvAtLeast(int fd, uint8_t* p, size_t min, size_t max)
{
    size_t got = 0;
    while (got < min) {
        const ssize_t r = ::recv(fd, p + got, max - got, 0);
        if (r > 0)
            got += static_cast<size_t>(r);
        else if (r < 0 && errno == EINTR)
            continue;
        else
            break;
    }
    return got;
}

// Reads n bytes; returns fewer only at end of stream or on an error.
size_t recvAll(int fd, uint8_t* p, size_t n)
{
    return recvAtLeast(fd, p, n, n);
}

void breakEyecatcher(Bytes& message)
{
    ByteWriter w;
    w.i32(kBadEyecatcher);
    const Bytes bad = w.take();
    std::copy(bad.begin(), bad.end(), message.begin());
}

std::string format(const char* fmt, long a, long b = 0)
{
    char text[128];
    std::snprintf(text, sizeof text, fmt, a, b);
    return text;
}

}  // namespace

Connection::Connection(int fd, int number, Context& context)
    : fd_(fd), number_(number), context_(context), in_(kInputBuffer)
{
}

Connection::~Connection()
{
    ::close(fd_);
}

void Connection::run()
{
    if (context_.options.verbose)
        logLine("conn %d opened", number_);
    {
        std::lock_guard<std::mutex> lock(writeMutex_);
        reader_ = std::this_thread::get_id();
    }
    bool going = true;
    Message m;  // reused, so that its payload keeps its storage
    while (going)
        going = readMessage(m) && dispatch(m);
    flushHeld();
    if (!badReason_.empty()) {
        logLine("conn %d closed: %s", number_, badReason_.c_str());
        abort();
    } else if (context_.options.verbose) {
        logLine("conn %d closed", number_);
    }
    closeWrites();
    drain();
    ended_ = true;
    context_.connectionEnded();
}

void Connection::bad(const std::string& reason)
{
    if (badReason_.empty() && !aborted_)
        badReason_ = reason;
}

// False at the end of the stream, or on bad input with badReason_ set.
bool Connection::readMessage(Message& m)
{
    const size_t got = fill(kHeaderFixedPart);
    if (got == 0)
        return false;
    if (got < kHeaderFixedPart) {
        bad("truncated header");
        return false;
    }
    ByteReader r(input(), kHeaderFixedPart);
    consume(kHeaderFixedPart);
    Header& h = m.header;
    h.eyecatcher = r.i32();
    if (h.eyecatcher != kEyecatcher) {
        bad(format("bad eyecatcher 0x%08lx", static_cast<uint32_t>(h.eyecatcher)));
        return false;
    }
    h.version = r.i32();
    h.flowType = r.i32();
    h.messageId = r.i32();
    h.returnCode = r.i32();
    const int32_t typeLength = r.i32();
    if (typeLength < 1 || typeLength > kMaxRequestTypeLength) {
        bad(format("request type length %ld", typeLength));
        return false;
    }
    return readHeaderRest(h, static_cast<size_t>(typeLength)) && readPayload(m);
}

// The request type, flags and payload length that follow the fixed part.
bool Connection::readHeaderRest(Header& h, size_t typeLength)
{
    const size_t want = typeLength + 5;
    if (fill(want) < want) {
        bad("truncated header");
        return false;
    }
    const uint8_t* rest = input();
    consume(want);
    h.requestType.assign(reinterpret_cast<const char*>(rest), typeLength);
    ByteReader r(rest + typeLength, 5);
    h.flags = r.u8();
    h.payloadLength = r.i32();
    if (h.payloadLength < 0 || h.payloadLength > kMaxPayload) {
        bad(format("payload length %ld", h.payloadLength));
        return false;
    }
    return true;
}

bool Connection::readPayload(Message& m)
{
    const size_t n = static_cast<size_t>(m.header.payloadLength);
    m.payload.resize(n);
    const size_t buffered = std::min(fill(std::min(n, in_.size())), n);
    std::copy(input(), input() + buffered, m.payload.data());
    consume(buffered);
    if (buffered < n)
        flushHeld();
    if (buffered < n && recvAll(fd_, m.payload.data() + buffered, n - buffered) < n - buffered) {
        bad(format("truncated message: payload of %ld bytes announced", m.header.payloadLength));
        return false;
    }
    return true;
}

// Receives until at least n (at most the buffer's size) bytes are buffered;
// returns how many are, fewer than n only at the end of the stream or on an error.
size_t Connection::fill(size_t n)
{
    if (inEnd_ - inBegin_ >= n)
        return inEnd_ - inBegin_;
    if (inBegin_ + n > in_.size()) {
        std::copy(in_.begin() + inBegin_, in_.begin() + inEnd_, in_.begin());
        inEnd_ -= inBegin_;
        inBegin_ = 0;
    }
    flushHeld();
    inEnd_ += recvAtLeast(fd_, in_.data() + inEnd_, n - (inEnd_ - inBegin_), in_.size() - inEnd_);
    return inEnd_ - inBegin_;
}

bool Connection::dispatch(const Message& m)
{
    const Header& h = m.header;
    if (h.flowType == kFlowClose) {
        if (context_.options.verbose)
            logLine("conn %d close requested", number_);
        send(encodeControl(kFlowClose, kCloseMessageId));
        return false;
    }
    if (h.flowType == kFlowHandshake && h.requestType == "BASE")
        onHandshake(m);
    else if (h.flowType == kFlowRequest && h.requestType == "ECI")
        onEci(m);
    else if (h.flowType == kFlowRequest && h.requestType == "ESI")
        onEsi(m);
    else if (h.flowType == kFlowRequest || h.flowType == kFlowHandshake)
        bad("unknown request type '" + printable(h.requestType) + "'");
    else
        bad(format("unexpected flow type %ld", h.flowType));
    return badReason_.empty() && !over_;
}

void Connection::onHandshake(const Message& m)
{
    Handshake hs;
    if (!decodeHandshake(m.payload, hs)) {
        bad(format("malformed handshake (payload of %ld bytes)", long(m.payload.size())));
        return;
    }
    if (context_.options.verbose)
        logLine("conn %d handshake applid '%s' qualifier '%s'", number_,
                printable(hs.applid).c_str(), printable(hs.qualifier).c_str());
    if (hs.applid == "NOHS")
        return;
    if (hs.applid == "HSERR") {
        send(encodeError(kHandshakeMessageId, "BASE", kRcWorkWasRefused));
        return;
    }
    Bytes answer = encodeHandshakeReply();
    if (hs.applid == "HSBADEYE")
        breakEyecatcher(answer);
    if (hs.applid == "PINGY")
        pingy_ = true;
    send(answer);
}

void Connection::onEci(const Message& m)
{
    EciRequest q;
    if (!decodeEciRequest(m.payload, q)) {
        bad(format("malformed ECI request (payload of %ld bytes)", long(m.payload.size())));
        return;
    }
    const int32_t id = m.header.messageId;
    if (q.kind == kKindListSystems) {
        const Bytes answer = answerSystemList(id, q, context_.systems);
        reply(answer);
        logRequest(m, q, answer.size(), "systems");
    } else if (q.kind == kKindProgram || q.kind == kKindProgramAltTransid) {
        const Outcome o =
            context_.systems.knows(q.systemName) ? runProgram(q, luw_) : unknownServer(q);
        perform(m, q, o);
    } else {
        const Bytes answer = encodeError(id, "ECI", kRcWorkWasRefused);
        reply(answer);
        logRequest(m, q, answer.size(), "unknown kind, error flow");
    }
}

void Connection::perform(const Message& m, const EciRequest& q, const Outcome& o)
{
    const int32_t id = m.header.messageId;
    Bytes answer = encodeEciReply(id, o.reply);
    std::string result = "rc " + std::to_string(o.reply.returnCode);
    switch (o.action) {
    case Action::Reply:
        if (context_.options.jitterMs > 0) {
            std::shared_ptr<Connection> self = shared_from_this();
            context_.scheduler.after(jitter(context_.options.jitterMs), [self, answer] { self->reply(answer); });
        } else {
            reply(answer);
        }
        break;
    case Action::Delay: {
        std::shared_ptr<Connection> self = shared_from_this();
        context_.scheduler.after(std::chrono::milliseconds(o.delayMs),
                                 [self, answer] { self->reply(answer); });
        result += format(" after %ld ms", o.delayMs);
        break;
    }
    case Action::Hang:
        result = "no reply";
        break;
    case Action::Error:
        answer = encodeError(id, "ECI", o.errorCode);
        reply(answer);
        result = format("error flow %ld", o.errorCode);
        break;
    case Action::Exception:
        answer = encodeException(id, "ECI", exceptionText(q.program));
        reply(answer);
        result = "exception flow";
        break;
    case Action::Stray:
        answer = encodeEciReply(id + 1000, o.reply);
        reply(answer);
        result = format("reply under message id %ld", long(id) + 1000);
        break;
    case Action::BadEyecatcher:
        breakEyecatcher(answer);
        reply(answer);
        result = "reply with a bad eyecatcher";
        break;
    case Action::Drop:
        closeWrites();
        over_ = true;
        result = "dropped the connection";
        break;
    case Action::DropMid:
        sendPartAndClose(answer, answer.size() / 2);
        over_ = true;
        result = format("sent %ld of %ld bytes, dropped the connection",
                        long(answer.size() / 2), long(answer.size()));
        break;
    case Action::GatewayClose:
        answer = encodeControl(kFlowClose, kCloseMessageId);
        sendPartAndClose(answer, answer.size());
        over_ = true;
        result = "close flow";
        break;
    }
    logRequest(m, q, answer.size(), result);
}

void Connection::onEsi(const Message& m)
{
    EsiRequest q;
    if (!decodeEsiRequest(m.payload, q)) {
        bad(format("malformed ESI request (payload of %ld bytes)", long(m.payload.size())));
        return;
    }
    int32_t rc = 0;
    const Bytes answer =
        answerEsi(m.header.messageId, q, context_.systems, context_.users, rc);
    reply(answer);
    if (context_.options.verbose)
        logLine("conn %d msg %d ESI kind %d user %s in %zu out %zu rc %d", number_,
                m.header.messageId, q.kind, printable(q.userid).c_str(), m.payload.size(),
                answer.size(), rc);
}

void Connection::logRequest(const Message& m, const EciRequest& q, size_t out,
                            const std::string& result)
{
    if (!context_.options.verbose)
        return;
    logLine("conn %d msg %d ECI kind %d program %s in %zu out %zu %s", number_,
            m.header.messageId, q.kind, printable(trimField(q.program)).c_str(),
            m.payload.size(), out, result.c_str());
}

void Connection::ping()
{
    send(encodeControl(kFlowPing, 0));
}

bool Connection::send(const Bytes& message)
{
    std::lock_guard<std::mutex> lock(writeMutex_);
    return writeLocked(message.data(), message.size());
}

void Connection::reply(const Bytes& message)
{
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (pingy_) {
        const Bytes ping = encodeControl(kFlowPing, 0);
        writeLocked(ping.data(), ping.size());
    }
    writeLocked(message.data(), message.size());
}

void Connection::sendPartAndClose(const Bytes& message, size_t length)
{
    std::lock_guard<std::mutex> lock(writeMutex_);
    writeLocked(message.data(), length);
    closeWritesLocked();
}

// Write mutex held on entry. The reader thread's writes are held back until
// it waits for input (fill), so that one write carries the replies to all the
// requests a client pipelined; every other writer sends them first.
bool Connection::writeLocked(const uint8_t* data, size_t length)
{
    if (std::this_thread::get_id() == reader_ && !writesClosed_) {
        held_.insert(held_.end(), data, data + length);
        return held_.size() < kHeldLimit || flushLocked();
    }
    return flushLocked() && sendLocked(data, length);
}

// Write mutex held on entry.
bool Connection::flushLocked()
{
    const bool sent = sendLocked(held_.data(), held_.size());
    held_.clear();
    return sent;
}

void Connection::flushHeld()
{
    std::lock_guard<std::mutex> lock(writeMutex_);
    flushLocked();
}

// Write mutex held on entry.
bool Connection::sendLocked(const uint8_t* data, size_t length)
{
    while (length > 0 && !writesClosed_) {
        const ssize_t w = ::send(fd_, data, length, MSG_NOSIGNAL);
        if (w > 0) {
            data += w;
            length -= static_cast<size_t>(w);
        } else if (w < 0 && errno == EINTR) {
            continue;
        } else {
            writesClosed_ = true;
            ::shutdown(fd_, SHUT_RDWR);
        }
    }
    return length == 0;
}

// Write mutex held on entry.
void Connection::closeWritesLocked()
{
    flushLocked();
    if (writesClosed_)
        return;
    writesClosed_ = true;
    ::shutdown(fd_, SHUT_WR);
}

void Connection::closeWrites()
{
    std::lock_guard<std::mutex> lock(writeMutex_);
    closeWritesLocked();
}

void Connection::abort()
{
    aborted_ = true;
    // Before the mutex: this wakes a writer that blocks while holding it.
    ::shutdown(fd_, SHUT_RDWR);
    std::lock_guard<std::mutex> lock(writeMutex_);
    writesClosed_ = true;
    held_.clear();
}

// Reads and drops what the client still sends until it closes its side, so
// that a reset does not overtake the last bytes zepgw sent.
void Connection::drain()
{
    const auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
    uint8_t sink[4096];
    while (!aborted_) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return;
        pollfd p{fd_, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return;
        const ssize_t n = ::recv(fd_, sink, sizeof sink, 0);
        if (n == 0 || (n < 0 && errno != EINTR))
            return;
    }
}

}  // namespace zepgw
