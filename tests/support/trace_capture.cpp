#include "trace_capture.h"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "../../include/zepclient.h"

namespace {

std::string makeTempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zeptrace.XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr) return pattern;
    perror("mkdtemp");
    abort();
}

void removeTree(const std::string& dir) {
    nftw(dir.c_str(), [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 8,
         FTW_DEPTH | FTW_PHYS);
}

// True if `text` holds, from `at`, the characters of `pattern`: 'd' a decimal digit, 'X' an upper-case hex
// digit, anything else itself.
bool matchesShape(const std::string& text, size_t at, const char* pattern) {
    for (size_t i = 0; pattern[i] != '\0'; ++i) {
        const unsigned char c = at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
        if (pattern[i] == 'd' ? !isdigit(c) : pattern[i] == 'X' ? !(isdigit(c) || (c >= 'A' && c <= 'F')) : c != pattern[i])
            return false;
    }
    return true;
}

}  // namespace

TraceCapture::TraceCapture(int level) : dir_(makeTempDir()), path_(dir_ + "/trace.log") {
    fileRc_ = ZEP_setAPITraceFile(path_.c_str());
    if (level >= 0) ZEP_setAPITraceLevel(level);
}

TraceCapture::~TraceCapture() {
    ZEP_setAPITraceLevel(0);
    ZEP_setAPITraceFile(nullptr);
    removeTree(dir_);
}

std::string TraceCapture::readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> TraceCapture::splitLines(const std::string& text) {
    std::vector<std::string> result;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        result.push_back(text.substr(start, end - start));
    }
    return result;
}

// "dd/mm/yy hh:mm:ss:mmm [0xPPPPPPPP,0xTTTTTTTT] [iiii] TYPE__ message"; the id has at least four digits.
bool TraceCapture::parseRecord(const std::string& line, TraceRecord* record) {
    static const char stampAndIds[] = "dd/dd/dd dd:dd:dd:ddd [0xXXXXXXXX,0xXXXXXXXX] [dddd";
    if (!matchesShape(line, 0, stampAndIds)) return false;
    size_t idEnd = sizeof stampAndIds - 1;
    while (idEnd < line.size() && isdigit(static_cast<unsigned char>(line[idEnd]))) ++idEnd;
    if (!matchesShape(line, idEnd, "] ") || line.size() < idEnd + 2 + 7 || line[idEnd + 2 + 6] != ' ') return false;
    record->pid = static_cast<uint32_t>(std::stoul(line.substr(25, 8), nullptr, 16));
    record->tid = static_cast<uint32_t>(std::stoul(line.substr(36, 8), nullptr, 16));
    record->id = std::stoi(line.substr(47, idEnd - 47));
    record->type = line.substr(idEnd + 2, line.find_first_of(' ', idEnd + 2) - idEnd - 2);
    record->message = line.substr(idEnd + 2 + 7);
    return true;
}

std::vector<TraceRecord> TraceCapture::parse(const std::string& text) {
    std::vector<TraceRecord> result;
    std::vector<std::string> all = splitLines(text);
    TraceRecord record;
    for (record.line = 0; record.line < all.size(); ++record.line)
        if (parseRecord(all[record.line], &record)) result.push_back(record);
    return result;
}

std::vector<TraceRecord> TraceCapture::find(int id) const
{
    std::vector<TraceRecord> result;
    for (const TraceRecord& r : records())
        if (r.id == id) result.push_back(r);
    return result;
}

bool TraceCapture::has(int id, const std::string& message) const
{
    const std::vector<TraceRecord> found = find(id);
    return std::any_of(found.begin(), found.end(), [&](const TraceRecord& r) { return r.message == message; });
}

std::vector<std::string> TraceCapture::linesAfter(const TraceRecord& record) const
{
    std::vector<std::string> all = lines(), result;
    TraceRecord ignored;
    for (size_t i = record.line + 1; i < all.size() && !parseRecord(all[i], &ignored); ++i) result.push_back(all[i]);
    return result;
}

void TraceCapture::clear() const { if (truncate(path_.c_str(), 0) != 0) perror("truncate"); }

StderrCapture::StderrCapture() : dir_(makeTempDir()), path_(dir_ + "/stderr.log") {
    fflush(stderr);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    savedFd_ = dup(2);
    if (fd < 0 || savedFd_ < 0 || dup2(fd, 2) < 0) {
        perror("StderrCapture");
        abort();
    }
    close(fd);
}

StderrCapture::~StderrCapture() {
    fflush(stderr);
    dup2(savedFd_, 2);
    close(savedFd_);
    removeTree(dir_);
}

std::string StderrCapture::text() const
{
    fflush(stderr);
    return TraceCapture::readFile(path_);
}
