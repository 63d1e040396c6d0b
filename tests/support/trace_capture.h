// Captures the library's trace in a file of its own (in a fresh directory) and reads it back as records. The
// destructor sets the level to 0, switches the trace back to standard error and removes the directory.
#ifndef ZEP_TRACE_CAPTURE_H
#define ZEP_TRACE_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// One record line: "dd/mm/yy hh:mm:ss:mmm [0xPPPPPPPP,0xTTTTTTTT] [iiii] TYPE__ message".
struct TraceRecord {
    uint32_t pid = 0, tid = 0;
    int id = 0;
    std::string type;      // "*EXC*", "EVENT", "ENTRY", "EXIT", "DEBUG", "DATA" (padding removed)
    std::string message;   // everything after the prefix, without the final newline
    size_t line = 0;       // index of this record in lines(): dump lines follow at line + 1, ...
};

class TraceCapture {
public:
    // Points the trace at <fresh dir>/trace.log and sets `level` (ignored if negative).
    explicit TraceCapture(int level = 4);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::string& dir() const { return dir_; }
    const std::string& path() const { return path_; }
    int fileRc() const { return fileRc_; }   // what ZEP_setAPITraceFile returned

    std::string text() const { return readFile(path_); }
    std::vector<std::string> lines() const { return splitLines(text()); }   // without newlines
    std::vector<TraceRecord> records() const { return parse(text()); }      // the record lines only
    std::vector<TraceRecord> find(int id) const;                             // the records with this id
    bool has(int id, const std::string& message) const;
    bool hasId(int id) const { return !find(id).empty(); }
    // The lines written after the record (a dump, for instance) up to the next record or the end.
    std::vector<std::string> linesAfter(const TraceRecord& record) const;
    // Empties the file; the library keeps appending to it.
    void clear() const;

    // Parsing for any trace text (a captured standard error, say).
    static bool parseRecord(const std::string& line, TraceRecord* record);
    static std::vector<std::string> splitLines(const std::string& text);
    static std::vector<TraceRecord> parse(const std::string& text);
    static std::string readFile(const std::string& path);

private:
    std::string dir_, path_;
    int fileRc_ = 0;
};

// Sends file descriptor 2 to a file of its own until destroyed, so that what the library writes to standard
// error (records before a trace file is set, the banner) can be read back. Create it before the first library
// call when the environment is what the test looks at.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string text() const;
    std::vector<std::string> lines() const { return TraceCapture::splitLines(text()); }
    std::vector<TraceRecord> records() const { return TraceCapture::parse(text()); }

private:
    std::string dir_, path_;
    int savedFd_ = -1;
};

#endif
