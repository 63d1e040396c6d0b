#include "programs.h"

#include <algorithm>
#include <cctype>

namespace zepgw {

namespace {

constexpr int32_t kRcInvalidExtendMode = -2;
constexpr int kMaxDelayMs = 600000;

// The COMMAREA as the program sees it: what came, zero-filled to its length.
Bytes serverCommarea(const EciRequest& q)
{
    Bytes c = q.data;
    c.resize(static_cast<size_t>(q.commareaLength), 0);
    return c;
}

// What comes back of a COMMAREA: only the inbound length when one was asked for.
void answer(const EciRequest& q, Outcome& o, Bytes commarea)
{
    if (q.hasInbound) {
        commarea.resize(std::min(commarea.size(), static_cast<size_t>(q.inboundLength)));
        o.reply.announceLength = true;
    }
    o.reply.data = std::move(commarea);
}

void echoChannelUnchanged(const EciRequest& q, Outcome& o)
{
    if (!q.hasChannel)
        return;
    o.reply.hasChannel = true;
    o.reply.channel = q.channel;
    for (Container& c : o.reply.channel.containers) {
        c.mark = kMarkUnchanged;
        c.data.clear();
    }
}

// A decimal number (optionally negative) at the start of the COMMAREA.
bool leadingNumber(const Bytes& data, long& value)
{
    size_t i = 0;
    const bool negative = !data.empty() && data[0] == '-';
    if (negative)
        i = 1;
    long v = 0;
    size_t digits = 0;
    for (; i < data.size() && std::isdigit(data[i]) && digits < 10; ++i, ++digits)
        v = v * 10 + (data[i] - '0');
    if (digits == 0)
        return false;
    value = negative ? -v : v;
    return true;
}

bool startsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

Container textContainer(const std::string& name, uint8_t mark, int32_t ccsid,
                        const std::string& text)
{
    Container c;
    c.name = padField(name, 16, '\0');
    c.mark = mark;
    c.type = kContainerChar;
    c.ccsid = ccsid;
    c.data.assign(text.begin(), text.end());
    c.dataLength = static_cast<int32_t>(c.data.size());
    return c;
}

void echoWith(const EciRequest& q, Outcome& o, int32_t rc, const char* abend)
{
    o.reply.returnCode = rc;
    if (abend != nullptr)
        o.reply.abendCode = abend;
    answer(q, o, serverCommarea(q));
    echoChannelUnchanged(q, o);
}

void runEcho(const EciRequest& q, LuwTable&, Outcome& o) { echoWith(q, o, 0, nullptr); }
void runAbend(const EciRequest& q, LuwTable&, Outcome& o)
{
    echoWith(q, o, kRcTransactionAbend, "ZA01");
}
void runFail(const EciRequest& q, LuwTable&, Outcome& o) { echoWith(q, o, kRcRolledBack, nullptr); }
void runUnknown(const EciRequest& q, LuwTable&, Outcome& o)
{
    echoWith(q, o, kRcTransactionAbend, "ZUNK");
}

void runReverse(const EciRequest& q, LuwTable&, Outcome& o)
{
    Bytes c = serverCommarea(q);
    std::reverse(c.begin(), c.end());
    answer(q, o, c);
    echoChannelUnchanged(q, o);
}

void runUpper(const EciRequest& q, LuwTable&, Outcome& o)
{
    Bytes c = serverCommarea(q);
    for (uint8_t& b : c) {
        if (b >= 'a' && b <= 'z')
            b = static_cast<uint8_t>(b - 'a' + 'A');
    }
    answer(q, o, c);
    echoChannelUnchanged(q, o);
}

void runShort(const EciRequest& q, LuwTable&, Outcome& o)
{
    answer(q, o, serverCommarea(q));
    if (o.reply.data.size() > 20)
        o.reply.data.resize(20);
    echoChannelUnchanged(q, o);
}

void runOversize(const EciRequest& q, LuwTable&, Outcome& o)
{
    Bytes c = serverCommarea(q);
    c.insert(c.end(), 100, 'Z');
    o.reply.commareaLength = q.commareaLength + 100;
    o.reply.data = c;
    echoChannelUnchanged(q, o);
}

void runDelay(const EciRequest& q, LuwTable& luw, Outcome& o)
{
    long ms = 0;
    leadingNumber(q.data, ms);
    o.action = Action::Delay;
    o.delayMs = static_cast<int>(std::max(0L, std::min(ms, long(kMaxDelayMs))));
    runEcho(q, luw, o);
}

void runHang(const EciRequest&, LuwTable&, Outcome& o) { o.action = Action::Hang; }

// The reply data carry the big-endian count of calls of the unit of work so far.
void runLuw(const EciRequest& q, LuwTable& luw, Outcome& o)
{
    const int32_t token = q.luwToken;
    if (token != 0 && !luw.known(token)) {
        o.reply.returnCode = kRcLuwToken;
        o.reply.luwToken = 0;
        return;
    }
    int32_t calls = 1;
    o.reply.luwToken = 0;
    if (q.extendMode == 1) {
        o.reply.luwToken = token != 0 ? token : luw.start();
        calls = luw.addCall(o.reply.luwToken);
    } else if (token != 0) {
        calls = luw.addCall(token);
        luw.end(token);
    }
    Bytes c = serverCommarea(q);
    if (c.size() >= 4) {
        ByteWriter w;
        w.i32(calls);
        const Bytes stamp = w.take();
        std::copy(stamp.begin(), stamp.end(), c.begin());
    }
    answer(q, o, c);
    echoChannelUnchanged(q, o);
}

// The reply's channel with the request's name and CCSID, or null (and an
// abend) when the request has no channel.
Channel* answerChannel(const EciRequest& q, Outcome& o)
{
    if (!q.hasChannel) {
        echoWith(q, o, kRcTransactionAbend, "ZNCH");
        return nullptr;
    }
    answer(q, o, serverCommarea(q));
    o.reply.hasChannel = true;
    o.reply.channel.name = q.channel.name;
    o.reply.channel.ccsid = q.channel.ccsid;
    return &o.reply.channel;
}

Container answerContainer(const Container& in)
{
    Container c = in;
    if (startsWith(in.name, "DEL")) {
        c.mark = kMarkDeleted;
        c.data.clear();
    } else if (startsWith(in.name, "MOD")) {
        c.mark = kMarkModified;
        std::reverse(c.data.begin(), c.data.end());
    } else if (startsWith(in.name, "GROW")) {
        c.mark = kMarkModified;
        c.data.insert(c.data.end(), in.data.begin(), in.data.end());
        c.dataLength = static_cast<int32_t>(c.data.size());
    } else {
        c.mark = kMarkUnchanged;
        c.data.clear();
    }
    return c;
}

void runChannel(const EciRequest& q, LuwTable&, Outcome& o)
{
    Channel* out = answerChannel(q, o);
    if (out == nullptr)
        return;
    for (const Container& c : q.channel.containers)
        out->containers.push_back(answerContainer(c));
    const std::string count = std::to_string(q.channel.containers.size());
    out->containers.push_back(textContainer("RESULT", kMarkAdded, out->ccsid, "containers=" + count));
}

void runChanbad(const EciRequest& q, LuwTable&, Outcome& o)
{
    Channel* out = answerChannel(q, o);
    if (out == nullptr)
        return;
    out->containers.push_back(textContainer("NOSUCH", kMarkDeleted, out->ccsid, ""));
    out->containers.push_back(textContainer("LATE", kMarkAdded, out->ccsid, "late"));
}

void runWho(const EciRequest& q, LuwTable&, Outcome& o)
{
    const std::string text = "user=" + q.userid + " password=" + q.password +
                             " transid=" + trimField(q.transid) +
                             " system=" + trimField(q.systemName) +
                             " kind=" + std::to_string(q.kind) +
                             " timeout=" + std::to_string(q.timeout);
    Bytes c(text.begin(), text.end());
    c.resize(static_cast<size_t>(q.commareaLength), 0);
    answer(q, o, c);
    echoChannelUnchanged(q, o);
}

void runFerror(const EciRequest& q, LuwTable&, Outcome& o)
{
    long code = kRcWorkWasRefused;
    leadingNumber(q.data, code);
    o.action = Action::Error;
    o.errorCode = static_cast<int32_t>(code);
}

template <Action A>
void runFault(const EciRequest& q, LuwTable& luw, Outcome& o)
{
    runEcho(q, luw, o);
    o.action = A;
}

using ProgramFn = void (*)(const EciRequest&, LuwTable&, Outcome&);

struct ProgramEntry {
    const char* name;
    ProgramFn run;
    bool needsData;  // does not run for a commit or backout
};

const ProgramEntry kPrograms[] = {
    {"ECHO", runEcho, true},
    {"REVERSE", runReverse, true},
    {"UPPER", runUpper, true},
    {"SHORT", runShort, true},
    {"ABEND", runAbend, false},
    {"FAIL", runFail, false},
    {"DELAY", runDelay, false},
    {"HANG", runHang, false},
    {"LUW", runLuw, false},
    {"CHANNEL", runChannel, true},
    {"CHANBAD", runChanbad, true},
    {"OVERSIZE", runOversize, true},
    {"WHO", runWho, true},
    {"FERROR", runFerror, false},
    {"FEXCEPT", runFault<Action::Exception>, false},
    {"STRAY", runFault<Action::Stray>, false},
    {"BADEYE", runFault<Action::BadEyecatcher>, false},
    {"DROP", runFault<Action::Drop>, false},
    {"DROPMID", runFault<Action::DropMid>, false},
    {"GWCLOSE", runFault<Action::GatewayClose>, false},
};

const ProgramEntry kUnknownProgram = {"", runUnknown, false};

const ProgramEntry& findProgram(const std::string& programField)
{
    const std::string name = trimField(programField);
    for (const ProgramEntry& p : kPrograms) {
        if (name == p.name)
            return p;
    }
    return kUnknownProgram;
}

bool validExtendMode(int32_t mode)
{
    return mode == 0 || mode == 1 || mode == 2 || mode == 4;
}

}  // namespace

int32_t LuwTable::start()
{
    if (next_ == 0)
        next_ = 1;
    const int32_t token = next_++;
    calls_[token] = 0;
    return token;
}

Outcome runProgram(const EciRequest& q, LuwTable& luw)
{
    Outcome o;
    o.reply.kind = q.kind;
    o.reply.luwToken = q.luwToken;
    o.reply.commareaLength = q.commareaLength;
    if (!validExtendMode(q.extendMode)) {
        o.reply.returnCode = kRcInvalidExtendMode;
        return o;
    }
    const ProgramEntry& program = findProgram(q.program);
    if (isDatalessMode(q.extendMode) && program.needsData) {
        o.reply.luwToken = 0;
        return o;
    }
    program.run(q, luw, o);
    if (isDatalessMode(q.extendMode)) {
        o.reply.data.clear();
        o.reply.announceLength = false;
        o.reply.hasChannel = false;
    }
    return o;
}

std::string exceptionText(const std::string& program)
{
    return "zepgw exception for program " + trimField(program);
}

}  // namespace zepgw
