/**
 * @file zepclient.hpp
 * @brief The C++17 interface of zepclient: RAII connections and channels, exceptions that carry the
 *        return code, and pending replies for asynchronous calls.
 *
 * Header-only over the C functions of zepclient.h: it adds no symbol to libzepclient.so, and a program
 * that includes it links against the same library as a C program.
 *
 * @code
 * zep::Connection conn{"127.0.0.1", port};
 * zep::Reply reply = conn.call("UPPER", "hello");              // reply.data() == "HELLO"
 * zep::PendingReply pending = conn.callAsync("REVERSE", "abc");
 * std::string_view cba = pending.get().data();
 * @endcode
 *
 * **Errors.** Every failing call throws zep::Error, a std::system_error whose code() holds the library's
 * return code in zep::category(); code().message() is the code's name ("ZEP_ERR_CONNECTFAILED").
 * Nothing else is thrown, apart from std::bad_alloc when memory runs out.
 *
 * **Threads.** As with the C library, one Connection may be used by many threads at once, close() and
 * purge() included: calls that another thread makes on a connection that is closing fail with
 * ZEP_ERR_GWTOK_CLOSED. A PendingReply, a Reply and an iteration over a Channel belong to one thread at a
 * time; each container call of a Channel is atomic, and waits while a call to the Gateway owns the channel.
 */
#ifndef ZEPCLIENT_HPP
#define ZEPCLIENT_HPP

#if defined(__cplusplus) && !defined(__cpp_exceptions)  // __cplusplus: documentation tools see the interface
#error "zepclient.hpp reports every failure by throwing zep::Error and cannot be used with exceptions disabled (-fno-exceptions); use the C interface of zepclient.h instead"
#elif defined(__cplusplus) && __cplusplus < 201703L
#error "zepclient.hpp needs C++17 or later (-std=c++17)"
#else

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "zepclient.h"

/// The C++ interface of zepclient.
namespace zep {

/// @cond ZEP_INTERNAL
namespace detail {

/// The error category of the library's return codes.
class Category final : public std::error_category {
public:
    const char* name() const noexcept override { return "zepclient"; }
    std::string message(int rc) const override
    {
        char text[40] = {};
        ZEP_getRcString(rc, text);
        return text;
    }
};

}  // namespace detail
/// @endcond

/**
 * @brief The error category of zepclient's return codes.
 * @return One category object for the whole process; message(rc) is the name of return code rc, as
 *         ZEP_getRcString gives it ("UNKNOWN" for a value no family knows).
 */
inline const std::error_category& category() noexcept
{
    static const detail::Category instance;
    return instance;
}

/**
 * @brief The one exception type of the interface: a failed call and the return code it ended with.
 *
 * code().value() is the return code, code().category() is zep::category(), code().message() the code's
 * name; what() names the failed step as well.
 */
class Error : public std::system_error {
public:
    /**
     * @brief An error for return code @p rc.
     * @param rc        the library's return code
     * @param context   what failed, for what()
     * @param abendCode the abend code of a failed program call, if any (at most 4 characters are kept)
     */
    Error(int rc, const std::string& context, std::string_view abendCode = {})
        : std::system_error(rc, category(), abendCode.empty() ? context : context + " (abend code " +
                                                                              std::string(abendCode) + ")")
    {
        abendCode.copy(abend_, sizeof abend_ - 1);
    }

    /// @brief The abend code of a failed program call.
    /// @return the code of a call that failed with one (ECI_ERR_TRANSACTION_ABEND), else empty
    std::string_view abendCode() const noexcept { return abend_; }

private:
    char abend_[5] = {};
};

/**
 * @brief Sets the level of the library's trace, for the whole process (as ZEP_setAPITraceLevel).
 * @param level 0 (off) to 5: 1 exceptions, 2 events, 3 entry and exit, 4 and 5 debug records and data dumps
 * @throws Error ZEP_ERR_TRACELEVEL for a level out of range; the level stays as it was.
 */
inline void setTraceLevel(int level)
{
    const int rc = ZEP_setAPITraceLevel(level);
    if (rc != 0) throw Error(rc, "setting the trace level to " + std::to_string(level));
}

/**
 * @brief Appends the library's trace, for the whole process, to a file (as ZEP_setAPITraceFile).
 * @param path the file, created when missing; empty: standard error again
 * @throws Error ZEP_ERR_TRACEFILE when the file cannot be opened for appending; the trace stays where it was.
 */
inline void setTraceFile(std::string_view path)
{
    const std::string text(path);
    const int rc = ZEP_setAPITraceFile(path.empty() ? nullptr : text.c_str());
    if (rc != 0) throw Error(rc, "sending the trace to " + (path.empty() ? std::string("standard error") : text));
}

/// Unit-of-work control of a program call.
enum class ExtendMode : std::int16_t {
    none = 0,      ///< a call on its own, or the last call of an open unit of work
    extended = 1,  ///< starts (with LUW token 0) or continues an extended unit of work
    commit = 2,    ///< ends the unit of work and commits it; no data is sent
    backout = 4,   ///< ends the unit of work and backs it out; no data is sent
};

/**
 * @brief Everything about a program call beyond the program and its data. All fields are optional.
 *
 * Texts are given as they are; the fixed-width fields of the request are padded with blanks for you.
 */
struct CallOptions {
    std::string_view transaction;       ///< transaction id, at most 4 characters; empty: none
    std::string_view system;            ///< system to route to, at most 8 characters; empty: the Gateway's default
    std::string_view user;              ///< user id for the server; empty: none
    std::string_view password;          ///< password for the server; empty: none
    std::chrono::seconds timeout{0};    ///< time-out the Gateway applies, 0 to 32767 s; 0: none
    ExtendMode extendMode = ExtendMode::none;  ///< unit-of-work control
    std::int32_t luwToken = 0;          ///< LUW token of the unit of work to continue or end; 0: none
    /// Size of the COMMAREA when it must be larger than the data sent, so that a longer reply fits
    /// (at most 32767 bytes); 0: the size of the data sent.
    std::size_t commareaLength = 0;
};

class Connection;
class PendingReply;
class Channel;

/// @brief The result of a program call that worked.
class Reply {
public:
    /// @brief The data of the reply.
    /// @return the COMMAREA after the call, the reply written over the data sent; empty for a channel call
    std::string_view data() const noexcept { return data_; }
    /// @brief The abend code the reply carried.
    /// @return the code without padding; usually empty for a call that worked
    std::string_view abendCode() const noexcept { return abend_; }
    /// @brief The LUW token of the reply.
    /// @return the token of the unit of work a call with ExtendMode::extended started or continued, 0 when
    ///         none is open
    std::int32_t luwToken() const noexcept { return luwToken_; }

private:
    friend class Connection;
    friend class PendingReply;
    Reply() = default;

    std::string data_;
    char abend_[5] = {};
    std::int32_t luwToken_ = 0;
};

/// @brief One entry of the Gateway's system list.
struct System {
    std::string name;         ///< the system's name, at most 8 characters
    std::string description;  ///< what the Gateway says about it
};

/// @brief A user's details, as a password verification or change returns them.
struct UserDetails {
    /// The Gateway's first time of the user, taken as UTC; an unset time is the epoch (time_point{}).
    std::chrono::system_clock::time_point time1;
    std::chrono::system_clock::time_point time2;  ///< the second time, as time1
    std::chrono::system_clock::time_point time3;  ///< the third time, as time1
    std::int32_t count = 0;  ///< the Gateway's count for the user (with zepgw: successful verifications)
};

/// @cond ZEP_INTERNAL
namespace detail {

using Clock = std::chrono::steady_clock;

template <class E>
inline constexpr bool isByte = std::is_same_v<E, char> || std::is_same_v<E, unsigned char> ||
                               std::is_same_v<E, signed char> || std::is_same_v<E, std::byte>;

template <class T, class = void>
struct IsByteRange : std::false_type {};

template <class T>
struct IsByteRange<T, std::void_t<decltype(std::data(std::declval<const T&>())),
                                  decltype(std::size(std::declval<const T&>()))>>
    : std::bool_constant<isByte<std::remove_cv_t<std::remove_pointer_t<decltype(std::data(std::declval<const T&>()))>>>> {};

template <class T>
inline constexpr bool isText = std::is_convertible_v<const T&, std::string_view>;

/// Data for a COMMAREA or a container: a text (std::string_view, std::string, a literal) or any contiguous
/// range of bytes (std::vector<std::byte>, std::vector<char>, std::array, ...).
template <class T>
using EnableForData = std::enable_if_t<isText<T> || IsByteRange<T>::value>;

template <class T>
std::string_view asText(const T& data) noexcept
{
    if constexpr (isText<T>)
        return data;  // a literal's length without its NUL
    else
        return {reinterpret_cast<const char*>(std::data(data)), std::size(data)};
}

/// A copy of a secret that is overwritten before its memory goes back.
class SecretText {
public:
    explicit SecretText(std::string_view text) : text_(text) {}
    ~SecretText()
    {
        volatile char* p = text_.data();
        for (std::size_t i = 0; i < text_.size(); ++i) p[i] = 0;
    }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    char* get() noexcept { return text_.data(); }

private:
    std::string text_;
};

/// The NUL-terminated texts a request points at; they live as long as the call.
struct Credentials {
    explicit Credentials(const CallOptions& options) : user(options.user), password(options.password) {}
    SecretText user;
    SecretText password;
};

/// A fixed-width text field up to its first NUL.
inline std::string_view untilNul(const char* field, std::size_t width) noexcept
{
    std::size_t length = 0;
    while (length < width && field[length] != '\0') ++length;
    return {field, length};
}

/// A fixed-width text field without its padding of NULs or blanks.
inline std::string_view trimmed(const char* field, std::size_t width) noexcept
{
    std::string_view text = untilNul(field, width);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

/// Copies a name into a fixed-width request field, padded with blanks.
inline void setField(char* field, std::size_t width, std::string_view text, const char* what)
{
    if (text.size() > width)
        throw Error(ECI_ERR_INVALID_NAME, std::string(what) + " \"" + std::string(text) + "\" is longer than " +
                                              std::to_string(width) + " characters");
    std::memset(field, ' ', width);
    text.copy(field, width);
}

inline std::int16_t commareaLength(std::size_t length, std::string_view program)
{
    if (length > 32767)
        throw Error(ECI_ERR_INVALID_DATA_LENGTH, "call of program " + std::string(program) + ": a COMMAREA of " +
                                                     std::to_string(length) + " bytes is longer than 32767");
    return static_cast<std::int16_t>(length);
}

/// Seconds for the C calls: out-of-range values become one the library refuses with its own code.
inline unsigned int cSeconds(std::chrono::seconds s) noexcept
{
    return s.count() < 0 || s.count() > 3600 ? 0xFFFFFFFFu : static_cast<unsigned int>(s.count());
}

/// A version-6 parameter block for a call of @p program with @p options.
inline EciParms callParms(std::int16_t callType, std::string_view program, const CallOptions& options,
                          Credentials& credentials)
{
    EciParms parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = 6;  // asynchronous calls and the credential pointers need version 6
    parms.eci_call_type = callType;
    setField(parms.eci_program_name, sizeof parms.eci_program_name, program, "program name");
    if (!options.transaction.empty())
        setField(parms.eci_transid, sizeof parms.eci_transid, options.transaction, "transaction id");
    if (!options.system.empty())
        setField(parms.eci_system_name, sizeof parms.eci_system_name, options.system, "system name");
    if (!options.user.empty()) parms.eci_userid_ptr = credentials.user.get();
    if (!options.password.empty()) parms.eci_password_ptr = credentials.password.get();
    const auto timeout = options.timeout.count();
    parms.eci_timeout = static_cast<std::int16_t>(timeout < 0 || timeout > 32767 ? -1 : timeout);
    parms.eci_extend_mode = static_cast<std::int16_t>(options.extendMode);
    parms.eci_luw_token = options.luwToken;
    return parms;
}

/// Points @p parms at @p area as the COMMAREA, of which the first @p sent bytes go out.
inline void setCommarea(EciParms& parms, std::string& area, std::size_t sent, std::string_view program)
{
    parms.eci_commarea = area.empty() ? nullptr : &area[0];
    parms.eci_commarea_length = commareaLength(area.size(), program);
    if (sent < area.size()) parms.commarea_outbound_length = static_cast<std::int16_t>(sent);
}

/// The COMMAREA of a call: the data, followed by room for a longer reply when the options ask for it.
inline std::string makeArea(std::string_view data, const CallOptions& options)
{
    std::string area(std::max(data.size(), options.commareaLength), '\0');
    data.copy(&area[0], data.size());
    return area;
}

/// What one attempt to collect an asynchronous reply found.
struct Collected {
    int rc;
    EciParms parms;
};

/// Collects the reply of request @p qualifier into @p area; with @p wait false, rc ECI_ERR_NO_REPLY says
/// that it has not arrived yet.
inline Collected collect(GatewayToken* token, std::uint32_t qualifier, std::string& area, bool wait) noexcept
{
    Collected result;
    std::memset(&result.parms, 0, sizeof result.parms);
    result.parms.eci_version = 6;
    result.parms.eci_call_type = wait ? ECI_GET_SPECIFIC_REPLY_WAIT : ECI_GET_SPECIFIC_REPLY;
    result.parms.eci_message_qualifier = qualifier;
    result.parms.eci_commarea = area.empty() ? nullptr : &area[0];
    result.parms.eci_commarea_length = static_cast<std::int16_t>(area.size());
    result.rc = ZEP_ECI_Execute(token, &result.parms);
    return result;
}

/// Waits with a growing pause until @p done() or @p deadline; true when done.
template <class Done>
bool pollUntil(Clock::time_point deadline, Done done)
{
    auto pause = std::chrono::microseconds(50);
    for (;;) {
        if (done()) return true;
        const auto now = Clock::now();
        if (now >= deadline) return false;
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
        pause = std::min(pause * 2, std::chrono::microseconds(10000));
    }
}

/// What a connection shares with its pending replies: the C token, and the requests whose
/// PendingReply was dropped before its reply was collected.
class Link {
public:
    explicit Link(GatewayToken* t) noexcept : token(t) {}

    std::atomic<GatewayToken*> token;

    /// Takes over a dropped request; its reply is collected and thrown away later.
    void abandon(std::uint32_t qualifier, std::size_t length, std::shared_ptr<::Channel> channel) noexcept
    {
        try {
            std::lock_guard<std::mutex> lock(mutex_);
            abandoned_.push_back({qualifier, length, std::move(channel)});
            hasAbandoned_.store(true, std::memory_order_relaxed);
        } catch (...) {
            // Out of memory: the reply stays with the library until the connection is purged.
        }
    }

    /// Collects the dropped requests' replies that have arrived, and keeps trying until @p deadline;
    /// true when none is left.
    bool reap(Clock::time_point deadline) noexcept
    {
        return pollUntil(deadline, [this] { return reapArrived(); });
    }

    /// Collects the dropped requests' replies that have arrived; true when none is left.
    bool reapArrived() noexcept
    {
        if (!hasAbandoned_.load(std::memory_order_relaxed)) return true;
        std::lock_guard<std::mutex> lock(mutex_);
        GatewayToken* t = token.load();
        auto arrived = [t](Abandoned& request) {
            try {
                std::string area(request.length, '\0');
                return collect(t, request.qualifier, area, false).rc != ECI_ERR_NO_REPLY;
            } catch (...) {
                return false;  // no memory for the reply now: try again later
            }
        };
        abandoned_.erase(std::remove_if(abandoned_.begin(), abandoned_.end(), arrived), abandoned_.end());
        hasAbandoned_.store(!abandoned_.empty(), std::memory_order_relaxed);
        return abandoned_.empty();
    }

    /// Forgets the dropped requests once the connection is gone: closing freed their replies and
    /// released their channels.
    void forgetAbandoned() noexcept
    {
        std::lock_guard<std::mutex> lock(mutex_);
        abandoned_.clear();
        hasAbandoned_.store(false, std::memory_order_relaxed);
    }

private:
    struct Abandoned {
        std::uint32_t qualifier;
        std::size_t length;
        std::shared_ptr<::Channel> channel;  // kept alive: the request still owns it
    };

    std::mutex mutex_;
    std::vector<Abandoned> abandoned_;
    std::atomic<bool> hasAbandoned_{false};
};

/// Days from 1970-01-01 to the given day of the proleptic Gregorian calendar (month 1 to 12).
constexpr long long daysFromCivil(long long year, long long month, long long day) noexcept
{
    year -= month <= 2;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const long long yearOfEra = year - era * 400;
    const long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

inline std::chrono::system_clock::time_point toTimePoint(const EsiTime& t) noexcept
{
    if (t.year == 0) return {};
    using Duration = std::chrono::system_clock::duration;
    // Years far outside the clock's range (a few centuries around 1970) are pinned to its ends.
    constexpr long long limit = std::chrono::duration_cast<std::chrono::seconds>(Duration::max()).count();
    const long long seconds = std::clamp(daysFromCivil(t.year, t.month + 1LL, t.day) * 86400LL +
                                             t.hour * 3600LL + t.minute * 60LL + t.second,
                                         -limit, limit);
    return std::chrono::system_clock::time_point{} +
           std::chrono::duration_cast<Duration>(std::chrono::seconds{seconds});
}

inline UserDetails toUserDetails(const EsiDetails& d) noexcept
{
    UserDetails details;
    details.time1 = toTimePoint(d.esiTime1);
    details.time2 = toTimePoint(d.esiTime2);
    details.time3 = toTimePoint(d.esiTime3);
    details.count = d.esiCount;
    return details;
}

}  // namespace detail
/// @endcond

/**
 * @brief The reply of an asynchronous call, still to be collected; move-only, like std::future.
 *
 * get() waits for the reply and returns it; wait_for() waits a bounded time and collects the reply if it
 * has come. A PendingReply that is dropped before its reply was collected never blocks: the connection
 * collects the reply and throws it away, at once if it has arrived, else at the connection's next call or
 * when it closes (which waits at most Connection::drainLimit for it); a channel it was sent with stays
 * busy until then.
 */
class PendingReply {
public:
    /// @brief An empty PendingReply, holding no request (valid() is false).
    PendingReply() noexcept = default;
    /// @brief Takes over a request.
    /// @param other the PendingReply whose request is taken; it is left empty
    PendingReply(PendingReply&& other) noexcept { swap(other); }
    /// @brief Drops this object's own request (as the destructor does) and takes over another's.
    /// @param other the PendingReply whose request is taken; it is left empty
    /// @return this object
    PendingReply& operator=(PendingReply&& other) noexcept
    {
        if (this != &other) {
            abandon();
            PendingReply taken(std::move(other));
            swap(taken);
        }
        return *this;
    }
    PendingReply(const PendingReply&) = delete;             ///< not copyable
    PendingReply& operator=(const PendingReply&) = delete;  ///< not copyable
    /// @brief Never blocks: an uncollected reply is handed to the connection, which throws it away.
    ~PendingReply() { abandon(); }

    /// @brief Whether the object holds a request.
    /// @return true while it holds a request whose result get() has not yet returned
    bool valid() const noexcept { return state_ != State::empty; }

    /// @brief The request's message qualifier.
    /// @return the qualifier the library gave the request; 0 for an empty PendingReply
    std::uint32_t qualifier() const noexcept { return qualifier_; }

    /**
     * @brief Waits for the reply, without a limit of its own, and returns it; after that valid() is false.
     * @return the reply
     * @throws Error with the call's return code when it failed (ECI_ERR_TRANSACTION_ABEND with the abend
     *         code, ZEP_ERR_LOSTGWCON, ...), or ECI_ERR_INVALID_MSG_QUAL when the object holds no request.
     */
    Reply get()
    {
        requireRequest("PendingReply::get");
        if (state_ == State::sent) take(detail::collect(token(), qualifier_, reply_.data_, true));
        state_ = State::empty;
        if (rc_ != 0) throw Error(rc_, "reply " + std::to_string(qualifier_), reply_.abend_);
        return std::move(reply_);
    }

    /**
     * @brief Waits at most @p timeout for the reply; when it has come it is collected, for get() to return.
     * @param timeout the longest wait
     * @return std::future_status::ready when get() will not wait, std::future_status::timeout otherwise.
     * @throws Error ECI_ERR_INVALID_MSG_QUAL when the object holds no request.
     */
    template <class Rep, class Period>
    std::future_status wait_for(const std::chrono::duration<Rep, Period>& timeout)
    {
        requireRequest("PendingReply::wait_for");
        const auto deadline = detail::Clock::now() + std::chrono::ceil<detail::Clock::duration>(timeout);
        const bool ready = detail::pollUntil(deadline, [this] {
            if (state_ == State::collected) return true;
            detail::Collected attempt = detail::collect(token(), qualifier_, reply_.data_, false);
            if (attempt.rc == ECI_ERR_NO_REPLY) return false;
            take(attempt);
            return true;
        });
        return ready ? std::future_status::ready : std::future_status::timeout;
    }

private:
    friend class Connection;
    enum class State : unsigned char { empty, sent, collected };

    PendingReply(std::shared_ptr<detail::Link> link, std::uint32_t qualifier, std::string area,
                 std::shared_ptr<::Channel> channel) noexcept
        : link_(std::move(link)), channel_(std::move(channel)), qualifier_(qualifier), state_(State::sent)
    {
        reply_.data_ = std::move(area);
    }

    GatewayToken* token() const noexcept { return link_->token.load(); }

    void requireRequest(const char* what) const
    {
        if (state_ == State::empty)
            throw Error(ECI_ERR_INVALID_MSG_QUAL, std::string(what) + "() on a PendingReply that holds no request");
    }

    void take(const detail::Collected& collected) noexcept
    {
        rc_ = collected.rc;
        detail::trimmed(collected.parms.eci_abend_code, 4).copy(reply_.abend_, 4);
        reply_.luwToken_ = collected.parms.eci_luw_token;
        state_ = State::collected;
        channel_.reset();  // collecting released the channel's lock
    }

    void abandon() noexcept
    {
        if (state_ == State::sent && token() != nullptr) {
            detail::Collected attempt = detail::collect(token(), qualifier_, reply_.data_, false);
            if (attempt.rc == ECI_ERR_NO_REPLY) link_->abandon(qualifier_, reply_.data_.size(), std::move(channel_));
        }
        state_ = State::empty;
    }

    void swap(PendingReply& other) noexcept
    {
        std::swap(link_, other.link_);
        std::swap(channel_, other.channel_);
        std::swap(qualifier_, other.qualifier_);
        std::swap(state_, other.state_);
        std::swap(rc_, other.rc_);
        std::swap(reply_, other.reply_);
    }

    std::shared_ptr<detail::Link> link_;
    std::shared_ptr<::Channel> channel_;
    std::uint32_t qualifier_ = 0;
    State state_ = State::empty;
    int rc_ = 0;
    Reply reply_;  // the reply is collected straight into its data
};

/// @brief One container of a Channel, as the iteration over the channel delivers it.
class Container {
public:
    /// @brief The container's name.
    /// @return the name, at most 16 characters
    std::string_view name() const noexcept { return name_; }
    /// @brief The container's type.
    /// @return true for a CHAR container (text in ccsid()), false for a BIT container (bytes)
    bool isText() const noexcept { return type_ == ECI_CHAR; }
    /// @brief The container's code page.
    /// @return the CCSID of a CHAR container's text; 0 for a BIT container
    std::int32_t ccsid() const noexcept { return ccsid_; }
    /// @brief The container's data.
    /// @return the bytes of the container as they were when the iteration reached it
    std::string_view data() const noexcept { return data_; }

private:
    friend class Channel;
    std::string name_;
    std::string data_;
    std::int32_t type_ = 0;
    std::int32_t ccsid_ = 0;
};

/**
 * @brief A channel: a named set of named containers sent with a program call; RAII and move-only.
 *
 * put() and putText() create or replace a container, get() reads one, erase() removes one, and a range-for
 * visits them all (newest first):
 * @code
 * zep::Channel ch{"ORDERS"};
 * ch.putText("CUSTOMER", "Smith");
 * conn.call("ORDERPGM", ch);
 * for (const zep::Container& c : ch) std::cout << c.name() << ' ' << c.data() << '\n';
 * @endcode
 * The destructor never blocks: while an asynchronous call still owns the channel, the channel is deleted
 * when that call's reply has been collected.
 */
class Channel {
public:
    /**
     * @brief Creates an empty channel.
     * @param name 1 to 16 characters of A-Z, a-z, 0-9 and <>$@#/%&?!:|"=';.-_
     * @throws Error ECI_ERR_INVALID_NAME for a bad name.
     */
    explicit Channel(std::string_view name)
    {
        const std::string text(name);
        ::Channel* raw = nullptr;
        const int rc = ECI_createChannel(text.c_str(), &raw);
        if (rc != 0) throw Error(rc, "creating channel \"" + text + "\"");
        handle_.reset(raw, [](::Channel* c) { ECI_deleteChannel(&c); });
    }
    Channel(Channel&&) noexcept = default;  ///< takes over the channel; the source holds none
    /// @brief Deletes this channel (see the class notes) and takes over another's.
    /// @return this object
    Channel& operator=(Channel&&) noexcept = default;
    Channel(const Channel&) = delete;                  ///< not copyable
    Channel& operator=(const Channel&) = delete;       ///< not copyable
    ~Channel() = default;                              ///< deletes the channel (see the class notes)

    /// @brief The channel's name.
    /// @return the name given at creation
    /// @throws Error ECI_ERR_INVALID_CHANNEL for a moved-from Channel.
    std::string name() const
    {
        char text[17] = {};
        check(ECI_getChannelName(native(), text), "reading the channel's name");
        return text;
    }

    /// @brief Puts a BIT container of bytes into the channel, replacing any container of that name.
    /// @param name  the container's name: 1 to 16 characters, as for a channel
    /// @param bytes the container's data: a text or any contiguous range of bytes (std::vector<std::byte>, ...)
    /// @throws Error ECI_ERR_INVALID_NAME, ECI_ERR_INVALID_CHANNEL, ...
    template <class Bytes, class = detail::EnableForData<Bytes>>
    void put(std::string_view name, const Bytes& bytes)
    {
        create(name, ECI_BIT, 0, detail::asText(bytes));
    }
    /**
     * @brief Puts a CHAR container of text into the channel, replacing any container of that name.
     * @param name  the container's name
     * @param text  the container's data
     * @param ccsid the text's code page; 0: the channel's, which the first CHAR container fixes (from
     *              the locale's LANG when that container names none)
     * @throws Error as put()
     */
    void putText(std::string_view name, std::string_view text, std::int32_t ccsid = 0)
    {
        create(name, ECI_CHAR, ccsid, text);
    }

    /// @brief Reads a container's data.
    /// @param name the container's name
    /// @return its data
    /// @throws Error ECI_ERR_CONTAINER_NOTFOUND when there is no such container.
    std::string get(std::string_view name) const
    {
        const std::string key(name);
        ContainerInfo info;
        check(ECI_getContainerInfo(native(), key.c_str(), &info), "reading container \"" + key + "\"");
        return readData(native(), key.c_str(), info.dataLength);
    }

    /// @brief Removes a container.
    /// @param name the container's name
    /// @throws Error ECI_ERR_CONTAINER_NOTFOUND when there is no such container.
    void erase(std::string_view name)
    {
        const std::string key(name);
        check(ECI_deleteContainer(native(), key.c_str()), "deleting container \"" + key + "\"");
    }

    /**
     * @brief Input iterator over the containers, newest first, each with its data.
     *
     * The library keeps one cursor per channel, so one iteration over a channel at a time.
     */
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;  ///< single pass
        using value_type = Container;                       ///< a container and its data
        using difference_type = std::ptrdiff_t;             ///< unused
        using pointer = const Container*;                   ///< pointer to the current container
        using reference = const Container&;                 ///< the current container

        iterator() = default;  ///< the end of every iteration

        /// @brief The current container.
        /// @return the container and its data
        reference operator*() const noexcept { return current_; }
        /// @brief The current container.
        /// @return a pointer to the container
        pointer operator->() const noexcept { return &current_; }
        /// @brief Moves to the next container.
        /// @return this iterator
        /// @throws Error when the library fails.
        iterator& operator++()
        {
            ContainerInfo info;
            load(ECI_getNextContainer(channel_, &info), info);
            return *this;
        }
        /// @brief Compares two positions.
        /// @param other the other iterator
        /// @return true when both are at the end, or at the same container of the same channel
        bool operator==(const iterator& other) const noexcept
        {
            return channel_ == other.channel_ && (channel_ == nullptr || current_.name_ == other.current_.name_);
        }
        /// @brief Compares two positions.
        /// @param other the other iterator
        /// @return the opposite of operator==
        bool operator!=(const iterator& other) const noexcept { return !(*this == other); }

    private:
        friend class Channel;
        iterator(::Channel* channel, int rc, const ContainerInfo& info) : channel_(channel) { load(rc, info); }

        void load(int rc, const ContainerInfo& info)
        {
            if (rc == ECI_ERR_ENDOFCONTAINERS) {
                channel_ = nullptr;
                return;
            }
            check(rc, "walking the containers");
            current_.name_ = info.name;
            current_.type_ = info.type;
            current_.ccsid_ = info.ccsid;
            current_.data_ = readData(channel_, info.name, info.dataLength);
        }

        ::Channel* channel_ = nullptr;
        Container current_;
    };

    /// @brief Starts an iteration over the containers.
    /// @return an iterator at the newest container, or end() when there is none
    /// @throws Error when the library fails.
    iterator begin() const
    {
        ContainerInfo info;
        const int rc = ECI_getFirstContainer(native(), &info);
        return iterator(native(), rc, info);
    }
    /// @brief The end of an iteration.
    /// @return an iterator past the last container
    iterator end() const noexcept { return {}; }

    /// @brief The C channel token, for the C functions.
    /// @return the token; null for a moved-from Channel
    ::Channel* native() const noexcept { return handle_.get(); }

private:
    friend class Connection;

    static void check(int rc, const std::string& what)
    {
        if (rc != 0) throw Error(rc, what);
    }

    static std::string readData(::Channel* channel, const char* name, unsigned long length)
    {
        std::string data(length, '\0');
        unsigned long got = 0;
        if (length != 0)
            check(ECI_getContainerData(channel, name, &data[0], length, 0, &got),
                  "reading container \"" + std::string(name) + "\"");
        data.resize(got);
        return data;
    }

    void create(std::string_view name, int type, std::int32_t ccsid, std::string_view data)
    {
        const std::string key(name);
        int rc = ECI_createContainer(native(), key.c_str(), type, ccsid, data.data(), data.size());
        if (rc == ECI_ERR_CONTAINER_EXISTS) {
            check(ECI_deleteContainer(native(), key.c_str()), "replacing container \"" + key + "\"");
            rc = ECI_createContainer(native(), key.c_str(), type, ccsid, data.data(), data.size());
        }
        check(rc, "creating container \"" + key + "\"");
    }

    std::shared_ptr<::Channel> handle_;  // shared with asynchronous calls that still own the channel
};

/**
 * @brief A connection to a Gateway; RAII and move-only.
 *
 * The constructor opens the connection and the destructor closes it. The destructor never throws and
 * never blocks for ever: it **purges** the connection with a time limit of drainLimit (5 seconds), so with
 * no work outstanding it is a plain close, and replies still outstanding get at most that long before the
 * connection is ended under them. Call close() first for an orderly close that waits for them.
 */
class Connection {
public:
    /// The connect time-out of a connection that names none.
    static constexpr std::chrono::seconds defaultConnectTimeout{10};
    /// The longest the destructor waits for outstanding replies, and the longest close() waits for the
    /// replies of dropped PendingReply objects.
    static constexpr std::chrono::seconds drainLimit{5};

    /**
     * @brief Opens a connection to the Gateway at @p host : @p port.
     * @param host           host name or numeric address
     * @param port           TCP port, 1 to 65535
     * @param connectTimeout bound of the connect and, separately, of the handshake, 0 to 3600 s; 0: none
     * @param applid         APPLID of the connection, at most 8 characters (ZEP_APPLID overrides it)
     * @param qualifier      APPLID qualifier, at most 8 characters (ZEP_APPLIDQUALIFIER overrides it)
     * @throws Error ZEP_ERR_CONNECTFAILED, ZEP_ERR_CONNECTTIMEOUT, ZEP_ERR_BADHOST, ZEP_ERR_BADPORT, ...
     */
    Connection(std::string_view host, int port, std::chrono::seconds connectTimeout = defaultConnectTimeout,
               std::string_view applid = {}, std::string_view qualifier = {})
    {
        const std::string hostText(host), applidText(applid), qualifierText(qualifier);
        GatewayToken* token = nullptr;
        const int rc = ZEP_openRemoteGatewayConnectionApplid(hostText.c_str(), port, &token,
                                                             detail::cSeconds(connectTimeout),
                                                             applidText.c_str(), qualifierText.c_str());
        if (rc != 0) throw Error(rc, "opening a connection to " + hostText + ":" + std::to_string(port));
        try {
            link_ = std::make_shared<detail::Link>(token);
        } catch (...) {
            ZEP_closeGatewayConnection(&token);
            throw;
        }
    }

    Connection(Connection&&) noexcept = default;  ///< takes over the connection; the source holds none
    /// @brief Ends this connection as the destructor does, then takes over another's.
    /// @param other the Connection whose connection is taken; it is left holding none
    /// @return this object
    Connection& operator=(Connection&& other) noexcept
    {
        if (this != &other) {
            finish(drainLimit, false);
            link_ = std::move(other.link_);
        }
        return *this;
    }
    Connection(const Connection&) = delete;             ///< not copyable
    Connection& operator=(const Connection&) = delete;  ///< not copyable
    /// @brief Purges the connection with the limit drainLimit; never throws (see the class notes).
    ~Connection() { finish(drainLimit, false); }

    /**
     * @brief Closes the connection, waiting without limit for calls in progress and for replies that a
     *        PendingReply still holds, as ZEP_closeGatewayConnection does. Replies of dropped PendingReply
     *        objects get at most drainLimit; if one is still missing then, the connection is purged.
     *        Does nothing when the connection is already closed.
     * @throws Error when the library fails to close (ZEP_ERR_GWTOK_CLOSED: another thread is closing it).
     */
    void close()
    {
        const int rc = finish(drainLimit, true);
        if (rc != 0) throw Error(rc, "closing the connection");
    }

    /**
     * @brief Closes the connection, waiting at most @p limit for work in progress, then ending it under any
     *        call still waiting (those fail). Does nothing when the connection is already closed.
     * @param limit 0 to 3600 s; 0 does not wait
     * @throws Error ZEP_ERR_INVALIDTIMEOUTPARM for a limit out of range, or when the library fails to close.
     */
    void purge(std::chrono::seconds limit)
    {
        GatewayToken* token = native();
        if (token != nullptr && detail::cSeconds(limit) > 3600) {
            const int rc = ZEP_purgeGatewayConnection(&token, detail::cSeconds(limit));
            throw Error(rc, "purging the connection");
        }
        const int rc = finish(limit, false);
        if (rc != 0) throw Error(rc, "purging the connection");
    }

    /// @brief The C gateway token, for the C functions.
    /// @return the token; null once closed or moved from
    GatewayToken* native() const noexcept { return link_ ? link_->token.load() : nullptr; }

    /**
     * @brief Calls @p program synchronously with a COMMAREA and waits for its reply.
     * @param program  program name, at most 8 characters
     * @param commarea the data sent, at most 32767 bytes: a text (std::string_view, std::string, a literal)
     *                 or any contiguous range of bytes (std::vector<std::byte>, std::vector<char>, std::array)
     * @param options  transaction, system, credentials, time-out, unit of work, COMMAREA size
     * @return the reply
     * @throws Error with the call's return code (ECI_ERR_TRANSACTION_ABEND with the abend code, ...).
     */
    template <class Data, class = detail::EnableForData<Data>>
    Reply call(std::string_view program, const Data& commarea, const CallOptions& options = {})
    {
        const std::string_view data = detail::asText(commarea);
        Reply reply;
        reply.data_ = detail::makeArea(data, options);
        EciParms parms;
        const int rc = execute(parms, ECI_SYNC, program, options, &reply.data_, data.size(), nullptr);
        return replied(rc, parms, std::move(reply), program);
    }

    /**
     * @brief Calls @p program synchronously with a channel; the reply's containers land in @p channel.
     * @param program program name, at most 8 characters
     * @param channel the channel sent, and changed by the reply
     * @param options as for call()
     * @return the reply, whose data() is empty
     * @throws Error with the call's return code.
     */
    Reply call(std::string_view program, Channel& channel, const CallOptions& options = {})
    {
        EciParms parms;
        const int rc = execute(parms, ECI_SYNC, program, options, nullptr, 0, &channel);
        return replied(rc, parms, Reply{}, program);
    }

    /**
     * @brief Sends an asynchronous call of @p program with a COMMAREA and returns without waiting.
     * @param program  program name, at most 8 characters
     * @param commarea the data sent, at most 32767 bytes, as for call()
     * @param options  as for call()
     * @return the reply to come; PendingReply::get() collects it by its message qualifier.
     * @throws Error when the request cannot be sent.
     */
    template <class Data, class = detail::EnableForData<Data>>
    PendingReply callAsync(std::string_view program, const Data& commarea, const CallOptions& options = {})
    {
        const std::string_view data = detail::asText(commarea);
        std::string area = detail::makeArea(data, options);
        EciParms parms;
        const int rc = execute(parms, ECI_ASYNC, program, options, &area, data.size(), nullptr);
        if (rc != 0) throw Error(rc, "asynchronous call of program " + std::string(program));
        return PendingReply(link_, parms.eci_message_qualifier, std::move(area), nullptr);
    }

    /**
     * @brief Sends an asynchronous call of @p program with a channel. Until the reply is collected the
     *        channel belongs to the call: container calls on it wait.
     * @param program program name, at most 8 characters
     * @param channel the channel sent, and changed by the reply
     * @param options as for call()
     * @return the reply to come
     * @throws Error when the request cannot be sent.
     */
    PendingReply callAsync(std::string_view program, Channel& channel, const CallOptions& options = {})
    {
        EciParms parms;
        const int rc = execute(parms, ECI_ASYNC, program, options, nullptr, 0, &channel);
        if (rc != 0) throw Error(rc, "asynchronous call of program " + std::string(program));
        return PendingReply(link_, parms.eci_message_qualifier, {}, channel.handle_);
    }

    /// @brief Lists the systems the Gateway knows.
    /// @return the systems in the Gateway's order; empty when it knows none
    /// @throws Error when the library fails.
    std::vector<System> systems()
    {
        std::vector<SystemInfo> list(16);
        unsigned short count = 0;
        int rc;
        for (;;) {
            count = static_cast<unsigned short>(list.size());
            rc = ZEP_listSystems(native(), &count, list.data());
            if (rc != ZEP_ERR_MORE_SYSTEMS || list.size() == 65535) break;
            list.resize(std::min<std::size_t>(list.size() * 4, 65535));
        }
        if (rc == ZEP_ERR_NO_SYSTEMS) count = 0;
        else if (rc != 0) throw Error(rc, "listing the systems");
        std::vector<System> systems;
        systems.reserve(count);
        for (unsigned short i = 0; i < count; ++i) {
            const SystemInfo& entry = list[i];
            systems.push_back({std::string(detail::untilNul(entry.name, sizeof entry.name)),
                               std::string(detail::untilNul(entry.description, sizeof entry.description))});
        }
        return systems;
    }

    /**
     * @brief Verifies a user's password on a server.
     * @param user     user id
     * @param password the password to verify
     * @param server   the server; empty: the Gateway's default
     * @return the user's details
     * @throws Error ESI_ERR_PASSWORD_INVALID, ESI_ERR_PASSWORD_EXPIRED, ESI_ERR_USERID_INVALID, ...
     */
    UserDetails verifyPassword(std::string_view user, std::string_view password, std::string_view server = {})
    {
        const std::string userText(user), serverText(server);
        detail::SecretText secret(password);
        EsiDetails details;
        std::memset(&details, 0, sizeof details);
        const int rc = ZEP_ESI_verifyPassword(native(), userText.c_str(), secret.get(),
                                              server.empty() ? nullptr : serverText.c_str(), &details);
        if (rc != 0) throw Error(rc, "verifying the password of user " + userText);
        return detail::toUserDetails(details);
    }

    /**
     * @brief Changes a user's password on a server.
     * @param user        user id
     * @param oldPassword the current password
     * @param newPassword the password to set
     * @param server      the server; empty: the Gateway's default
     * @return the user's details
     * @throws Error ESI_ERR_PASSWORD_INVALID, ESI_ERR_PASSWORD_REJECTED, ESI_ERR_USERID_INVALID, ...
     */
    UserDetails changePassword(std::string_view user, std::string_view oldPassword, std::string_view newPassword,
                               std::string_view server = {})
    {
        const std::string userText(user), serverText(server);
        detail::SecretText oldSecret(oldPassword), newSecret(newPassword);
        EsiDetails details;
        std::memset(&details, 0, sizeof details);
        const int rc = ZEP_ESI_changePassword(native(), userText.c_str(), oldSecret.get(), newSecret.get(),
                                              server.empty() ? nullptr : serverText.c_str(), &details);
        if (rc != 0) throw Error(rc, "changing the password of user " + userText);
        return detail::toUserDetails(details);
    }

private:
    /// Sends one call of @p program with @p channel, or when that is null with the COMMAREA @p area of
    /// which the first @p sent bytes go out; the library's results are left in @p parms.
    int execute(EciParms& parms, std::int16_t callType, std::string_view program, const CallOptions& options,
                std::string* area, std::size_t sent, const Channel* channel)
    {
        reapDropped();
        detail::Credentials credentials(options);
        parms = detail::callParms(callType, program, options, credentials);
        if (channel != nullptr) {
            parms.eci_channel = channel->native();
            return ZEP_ECI_Execute_Channel(native(), &parms);
        }
        detail::setCommarea(parms, *area, sent, program);
        return ZEP_ECI_Execute(native(), &parms);
    }

    /// The result of a synchronous call: @p reply with the block's abend code and LUW token, or the Error.
    static Reply replied(int rc, const EciParms& parms, Reply reply, std::string_view program)
    {
        detail::trimmed(parms.eci_abend_code, 4).copy(reply.abend_, 4);
        reply.luwToken_ = parms.eci_luw_token;
        if (rc != 0) throw Error(rc, "call of program " + std::string(program), reply.abend_);
        return reply;
    }

    /// Collects replies of dropped PendingReply objects that have arrived, so that they free their
    /// memory and channels early; costs one relaxed load when there are none.
    void reapDropped() noexcept
    {
        if (link_) link_->reapArrived();
    }

    /// Ends the connection: replies of dropped requests get until @p limit; then an orderly close when
    /// @p orderly and none of them is missing, else a purge with what is left of @p limit.
    int finish(std::chrono::seconds limit, bool orderly) noexcept
    {
        GatewayToken* token = native();
        if (token == nullptr) return 0;
        const auto deadline = detail::Clock::now() + limit;
        const bool reaped = link_->reap(deadline);
        int rc;
        if (orderly && reaped) {
            rc = ZEP_closeGatewayConnection(&token);
        } else {
            const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - detail::Clock::now());
            rc = ZEP_purgeGatewayConnection(&token, detail::cSeconds(std::max(left, std::chrono::seconds{0})));
        }
        if (token == nullptr) {  // freed; on failure the library keeps it, and so do we
            link_->token.store(nullptr);
            link_->forgetAbandoned();
        }
        return rc;
    }

    std::shared_ptr<detail::Link> link_;
};

}  // namespace zep

#endif  // exceptions and C++17
#endif
