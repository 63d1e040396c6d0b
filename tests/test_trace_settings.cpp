// Trace settings: the four environment variables (each case in a fresh process, set before the first
// library call) and the four setter functions.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "clapi_diag.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

const char* const traceVariables[] = {
    "ZEP_CLIENT_TRACE_LEVEL", "ZEP_CLIENT_TRACE_FILE", "ZEP_CLIENT_DATA_LENGTH", "ZEP_CLIENT_DATA_OFFSET",
};

struct Setting { const char* variable; std::string value; };

// Only the given variables are set when the library initialises.
void setEnvironment(const std::vector<Setting>& settings) {
    for (const char* variable : traceVariables) unsetenv(variable);
    for (const Setting& setting : settings) setenv(setting.variable, setting.value.c_str(), 1);
}

const std::string bannerStart = "*** ";
const std::string bannerMiddle =
    " QUILLON ZEPClient DLL trace V9.1.0.4 API Version 2.3.0.0 Build Level k910-20231012-1355 ***";

std::string levelLine(int level, const std::string& destination) {
    return "*** Trace Level = " + std::to_string(level) + ", Trace File = " + destination + ", " +
           std::to_string(ZEP_FLAVOUR_BITS) + "-bit ***";
}

bool isBannerFirstLine(const std::string& line) {
    return line.size() == bannerStart.size() + 8 + bannerMiddle.size() && line.compare(0, 4, bannerStart) == 0 &&
           line.compare(12, std::string::npos, bannerMiddle) == 0;
}

size_t bannerCount(const std::vector<std::string>& lines) {
    size_t count = 0;
    for (const std::string& line : lines) count += isBannerFirstLine(line) ? 1 : 0;
    return count;
}

std::vector<int> ids(const std::vector<TraceRecord>& records) {
    std::vector<int> result;
    for (const TraceRecord& record : records) result.push_back(record.id);
    return result;
}

bool hasRecord(const std::vector<TraceRecord>& records, int id, const std::string& message) {
    for (const TraceRecord& record : records)
        if (record.id == id && record.message == message) return true;
    return false;
}

// A scratch directory for trace files named in the environment, before any library call.
class ScratchDir {
public:
    ScratchDir() {
        char pattern[] = "/tmp/zepenv.XXXXXX";
        dir_ = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~ScratchDir() {
        remove((dir_ + "/env.log").c_str());
        remove(dir_.c_str());
    }
    std::string file() const { return dir_ + "/env.log"; }
    std::string missing() const { return dir_ + "/missing/env.log"; }

private:
    std::string dir_;
};

int currentLevel() {
    int level = -1;
    EXPECT_EQ(0, ZEP_getAPITraceLevel(&level));
    return level;
}

}  // namespace

// ---- Level from the environment ----

class InvalidEnvironmentLevel : public ::testing::TestWithParam<const char*> {};

TEST_P(InvalidEnvironmentLevel, TurnsTracingOffAfterOneRecord) {
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", GetParam()}});
    StderrCapture err;
    EXPECT_EQ(0, currentLevel());

    std::vector<std::string> lines = err.lines();
    ASSERT_EQ(1u, lines.size()) << err.text();
    std::vector<TraceRecord> records = err.records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(1075, records[0].id);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ(std::string("clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value ") + GetParam() +
                  " was invalid",
              records[0].message);
}

INSTANTIATE_TEST_SUITE_P(Values, InvalidEnvironmentLevel, ::testing::Values("7", "12", "", "6", "a", "03"));

TEST(EnvironmentLevel, ValidLevelWritesTheBannerToStandardError) {
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", "3"}});
    StderrCapture err;
    EXPECT_EQ(3, currentLevel());

    std::vector<std::string> lines = err.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(isBannerFirstLine(lines[0])) << lines[0];
    EXPECT_EQ(levelLine(3, "stderr"), lines[1]);
    EXPECT_EQ((std::vector<int>{1066, 1071, 1035, 1037}), ids(err.records()));
    EXPECT_EQ(1u, bannerCount(lines));
}

// ---- Trace file from the environment ----

TEST(EnvironmentFile, UnopenableFileLeavesTheDestination) {
    ScratchDir scratch;
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", "1"}, {"ZEP_CLIENT_TRACE_FILE", scratch.missing()}});
    StderrCapture err;
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_getDLLVersion(nullptr));

    std::vector<std::string> lines = err.lines();
    ASSERT_EQ(4u, lines.size()) << err.text();
    EXPECT_TRUE(isBannerFirstLine(lines[0])) << lines[0];
    EXPECT_EQ(levelLine(1, "stderr"), lines[1]);
    std::vector<TraceRecord> records = err.records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(1074, records[0].id);
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("clapi_impl.clapiSetAPITraceFileFromEnv(" + scratch.missing() +
                  ") file append failed with errno=2. Trace file destination is unchanged. Filename=stderr",
              records[0].message);
    EXPECT_EQ(1033, records[1].id);   // later records still go to standard error
    EXPECT_EQ(nullptr, fopen(scratch.missing().c_str(), "r"));
    ZEP_setAPITraceLevel(0);
}

// ---- Data limits from the environment ----

struct LimitCase {
    const char* variable;
    const char* value;
    const char* header;     // the dump's first line afterwards
    const char* setRecord;  // the message of 1068 or 1070, or nullptr when the value is ignored
};

// Names each case by its setting, so a failing case reads as what it tried.
void PrintTo(const LimitCase& c, std::ostream* os)
{
    *os << c.variable << "='" << c.value << "'";
}

class EnvironmentLimit : public ::testing::TestWithParam<LimitCase> {};

TEST_P(EnvironmentLimit, AppliesTheNumberAtTheStart) {
    const LimitCase& c = GetParam();
    ScratchDir scratch;
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", "4"}, {"ZEP_CLIENT_TRACE_FILE", scratch.file()}, {c.variable, c.value}});
    ASSERT_EQ(4, currentLevel());
    const bool isLength = std::string(c.variable) == "ZEP_CLIENT_DATA_LENGTH";

    std::vector<TraceRecord> records = TraceCapture::parse(TraceCapture::readFile(scratch.file()));
    std::vector<int> expectedIds = {1072, 1066, isLength ? 1067 : 1069};
    if (c.setRecord != nullptr) expectedIds.push_back(isLength ? 1068 : 1070);
    expectedIds.insert(expectedIds.end(), {1071, 1035, 1037});
    EXPECT_EQ(expectedIds, ids(records));
    EXPECT_TRUE(hasRecord(records, isLength ? 1067 : 1069,
                          std::string("clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable ") + c.variable +
                              "=" + c.value));
    if (c.setRecord != nullptr) {
        EXPECT_TRUE(hasRecord(records, isLength ? 1068 : 1070,
                              std::string("clapi_impl.clapiSetAPITraceParamsFromEnv() ") + c.setRecord));
    }

    // The dump shows the limits in force.
    uint8_t area[200] = {};
    clapiTraceOutStorage(area, sizeof area, 0, 16, 1);
    std::vector<std::string> lines = TraceCapture::splitLines(TraceCapture::readFile(scratch.file()));
    bool found = false;
    for (const std::string& line : lines) found = found || line == c.header;
    EXPECT_TRUE(found) << c.header;
    ZEP_setAPITraceLevel(0);
}

INSTANTIATE_TEST_SUITE_P(
    Values, EnvironmentLimit,
    ::testing::Values(
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "0", "Data truncation size=0, offset=0", "Data truncation length set to 0"},
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "x12", "Data truncation size=128, offset=0", nullptr},
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "64k", "Data truncation size=64, offset=0", "Data truncation length set to 64"},
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "", "Data truncation size=128, offset=0", nullptr},
        LimitCase{"ZEP_CLIENT_DATA_OFFSET", "5", "Data truncation size=128, offset=5", "Data offset set to 5"},
        LimitCase{"ZEP_CLIENT_DATA_OFFSET", "-3", "Data truncation size=128, offset=0", nullptr},
        LimitCase{"ZEP_CLIENT_DATA_OFFSET", "12 bytes", "Data truncation size=128, offset=12", "Data offset set to 12"}));

// ---- The setter functions ----

TEST(SetTraceLevel, RefusesOtherValuesAndKeepsTheLevel) {
    setEnvironment({});
    TraceCapture trace(3);
    for (int value : {6, -1, 100}) {
        trace.clear();
        EXPECT_EQ(ZEP_ERR_TRACELEVEL, ZEP_setAPITraceLevel(value)) << value;
        EXPECT_EQ(3, currentLevel());
        std::string v = std::to_string(value);
        EXPECT_TRUE(trace.has(1038, "API.ZEP_setAPITraceLevel(traceState=" + v + ") Current trace level=3"));
        EXPECT_TRUE(trace.has(1039, "API.ZEP_setAPITraceLevel() Supplied trace state value " + v + " was invalid"));
        EXPECT_TRUE(trace.has(1040, "API.ZEP_setAPITraceLevel() rc=-104 (ZEP_ERR_TRACELEVEL) New trace level=3"));
        EXPECT_EQ("*EXC*", trace.find(1039)[0].type);
    }
}

TEST(SetTraceFile, SwitchToAFileAndBack) {
    setEnvironment({});
    StderrCapture err;
    ASSERT_EQ(0, ZEP_setAPITraceLevel(4));
    {
        TraceCapture trace(-1);
        ASSERT_EQ(0, trace.fileRc());
        std::vector<std::string> lines = trace.lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_TRUE(isBannerFirstLine(lines[0])) << lines[0];
        EXPECT_EQ(levelLine(4, trace.path()), lines[1]);
        EXPECT_TRUE(trace.has(1042, "API.ZEP_setAPITraceFile() Trace file switched to new destination. Filename=" +
                                        trace.path()));
        EXPECT_TRUE(trace.has(1045, "API.ZEP_setAPITraceFile() rc=0 (ZEP_OK) New trace destination=" + trace.path()));
        EXPECT_TRUE(hasRecord(err.records(), 1041, "API.ZEP_setAPITraceFile(traceFile=" + trace.path() +
                                                       ") Current trace destination=stderr"));
        EXPECT_FALSE(hasRecord(err.records(), 1045, "API.ZEP_setAPITraceFile() rc=0 (ZEP_OK) New trace destination=" +
                                                        trace.path()));

        trace.clear();
        ASSERT_EQ(0, ZEP_setAPITraceFile(nullptr));
        EXPECT_EQ((std::vector<int>{1041}), ids(trace.records()));
        EXPECT_TRUE(trace.has(1041, "API.ZEP_setAPITraceFile(traceFile=NULL) Current trace destination=" + trace.path()));
    }
    // Back on standard error, which gets the banner again and the rest of the records.
    std::vector<std::string> lines = err.lines();
    EXPECT_EQ(2u, bannerCount(lines));
    EXPECT_TRUE(hasRecord(err.records(), 1042,
                          "API.ZEP_setAPITraceFile() Trace file switched to new destination. Filename=stderr"));
    EXPECT_TRUE(hasRecord(err.records(), 1045, "API.ZEP_setAPITraceFile() rc=0 (ZEP_OK) New trace destination=stderr"));
}

TEST(SetTraceFile, UnopenableFileIsRefused) {
    setEnvironment({});
    TraceCapture trace(1);
    const std::string missing = trace.dir() + "/missing/x.log";
    EXPECT_EQ(ZEP_ERR_TRACEFILE, ZEP_setAPITraceFile(missing.c_str()));
    std::vector<TraceRecord> records = trace.find(1044);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("*EXC*", records[0].type);
    EXPECT_EQ("API.ZEP_setAPITraceFile(" + missing +
                  ") file append failed with errno=2. Trace file destination is unchanged. Filename=" + trace.path(),
              records[0].message);
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_getAPIVersion(nullptr));
    EXPECT_TRUE(trace.hasId(1030));   // still the same destination
}

TEST(SetTraceData, SettersReturnZeroAndChangeTheDump) {
    setEnvironment({});
    TraceCapture trace(4);
    EXPECT_EQ(0, ZEP_setAPITraceDataLength(20));
    EXPECT_EQ(0, ZEP_setAPITraceDataOffset(7));
    EXPECT_TRUE(trace.has(1048, "API.ZEP_setAPITraceDataLength(dataLength=20)"));
    EXPECT_TRUE(trace.has(1049, "API.ZEP_setAPITraceDataLength() Trace data truncation length changed from 128 to 20"));
    EXPECT_TRUE(trace.has(1050, "API.ZEP_setAPITraceDataLength()"));
    EXPECT_TRUE(trace.has(1051, "API.ZEP_setAPITraceDataOffset(dataOffset=7)"));
    EXPECT_TRUE(trace.has(1052, "API.ZEP_setAPITraceDataOffset() Trace data offset changed from 0 to 7"));
    EXPECT_TRUE(trace.has(1053, "API.ZEP_setAPITraceDataOffset()"));

    trace.clear();
    uint8_t area[100];
    for (size_t i = 0; i < sizeof area; ++i) area[i] = static_cast<uint8_t>(0x30 + i % 10);
    EXPECT_EQ(20u, clapiTraceOutStorage(area, sizeof area, 0, 16, 1));
    std::vector<std::string> lines = trace.lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("Data truncation size=20, offset=7", lines[0]);
    EXPECT_EQ(" : 7890123456789012", lines[1].substr(lines[1].size() - 19));
    EXPECT_EQ(" : 3456", lines[2].substr(lines[2].size() - 7));

    EXPECT_EQ(0, ZEP_setAPITraceDataLength(0));
    EXPECT_EQ(0, ZEP_setAPITraceDataOffset(0));
    EXPECT_TRUE(trace.has(1049, "API.ZEP_setAPITraceDataLength() Trace data truncation length changed from 20 to 0"));
    EXPECT_TRUE(trace.has(1052, "API.ZEP_setAPITraceDataOffset() Trace data offset changed from 7 to 0"));
}
