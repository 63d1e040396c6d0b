// Trace settings: the four environment variables (each case in a fresh process, set before the first
// library call) and the four setter functions.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "clapi_diag.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

using Texts = std::vector<std::string>;

// Only the given variables are set when the library initialises.
void setEnvironment(const std::vector<std::pair<const char*, std::string>>& settings)
{
    for (const char* v : {"ZEP_CLIENT_TRACE_LEVEL", "ZEP_CLIENT_TRACE_FILE", "ZEP_CLIENT_DATA_LENGTH", "ZEP_CLIENT_DATA_OFFSET"})
        unsetenv(v);
    for (const auto& s : settings) setenv(s.first, s.second.c_str(), 1);
}

// The banner's two lines at the start of `lines`, the first with its 8 hex digits of time left out, against
// the banner of `level` and `destination`.
void expectBanner(const Texts& lines, int level, const std::string& destination)
{
    ASSERT_GE(lines.size(), 2u);
    ASSERT_GE(lines[0].size(), 12u);
    EXPECT_EQ("*** QUILLON ZEPClient DLL trace V9.1.0.4 API Version 2.3.0.0 Build Level k910-20231012-1355 ***|"
              "*** Trace Level = " + std::to_string(level) + ", Trace File = " + destination + ", " +
                  std::to_string(ZEP_FLAVOUR_BITS) + "-bit ***",
              lines[0].substr(0, 3) + lines[0].substr(12) + "|" + lines[1]);
}

// "id message" of every record.
Texts texts(const std::vector<TraceRecord>& records)
{
    Texts out;
    for (const TraceRecord& r : records) out.push_back(std::to_string(r.id) + " " + r.message);
    return out;
}

int currentLevel()
{
    int level = -1;
    EXPECT_EQ(0, ZEP_getAPITraceLevel(&level));
    return level;
}

class InvalidEnvironmentLevel : public ::testing::TestWithParam<const char*> {};

TEST_P(InvalidEnvironmentLevel, TurnsTracingOffAfterOneRecord)
{
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", GetParam()}});
    StderrCapture err;
    EXPECT_EQ(0, currentLevel());
    EXPECT_EQ(1u, err.lines().size()) << err.text();
    EXPECT_EQ(Texts{"1075 clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value " +
                    std::string(GetParam()) + " was invalid"},
              texts(err.records()));
}

INSTANTIATE_TEST_SUITE_P(Values, InvalidEnvironmentLevel, ::testing::Values("6", "12", "", "a", "03"));

TEST(EnvironmentFile, UnopenableFileLeavesTheDestination)
{
    const std::string missing = "/tmp/zep-no-such-dir-" + std::to_string(getpid()) + "/env.log";
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", "1"}, {"ZEP_CLIENT_TRACE_FILE", missing}});
    StderrCapture err;
    EXPECT_EQ(ZEP_ERR_NULLPTR, ZEP_getDLLVersion(nullptr));
    expectBanner(err.lines(), 1, "stderr");
    // The failure's record, and later records still go to standard error.
    const std::vector<TraceRecord> records = err.records();
    ASSERT_EQ(2u, records.size()) << err.text();
    EXPECT_EQ(std::make_pair(1074, 1033), std::make_pair(records[0].id, records[1].id));
    ZEP_setAPITraceLevel(0);
}

struct LimitCase {
    const char* variable;
    const char* value;
    const char* header;   // the dump's first line afterwards
};

void PrintTo(const LimitCase& c, std::ostream* os) { *os << c.variable << "='" << c.value << "'"; }

class EnvironmentLimit : public ::testing::TestWithParam<LimitCase> {};

TEST_P(EnvironmentLimit, AppliesTheNumberAtTheStartToTheFileNamed)
{
    const LimitCase& c = GetParam();
    const std::string file = "/tmp/zepenv-" + std::to_string(getpid()) + ".log";
    setEnvironment({{"ZEP_CLIENT_TRACE_LEVEL", "4"}, {"ZEP_CLIENT_TRACE_FILE", file}, {c.variable, c.value}});
    ASSERT_EQ(4, currentLevel());
    uint8_t area[200] = {};
    clapiTraceOutStorage(area, sizeof area, 0, 16, 1);
    Texts lines = TraceCapture::splitLines(TraceCapture::readFile(file));
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), c.header)) << c.header;
    ZEP_setAPITraceLevel(0);
    remove(file.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Values, EnvironmentLimit,
    ::testing::Values(
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "0", "Data truncation size=0, offset=0"},
        LimitCase{"ZEP_CLIENT_DATA_LENGTH", "64k", "Data truncation size=64, offset=0"},
        LimitCase{"ZEP_CLIENT_DATA_OFFSET", "5", "Data truncation size=128, offset=5"},
        LimitCase{"ZEP_CLIENT_DATA_OFFSET", "-3", "Data truncation size=128, offset=0"}));

TEST(SetTraceFileAndLevel, SwitchToAFileAndBackAndRefuseWhatIsOutOfRange)
{
    setEnvironment({});
    StderrCapture err;
    ASSERT_EQ(0, ZEP_setAPITraceLevel(4));
    for (int value : {6, -1}) EXPECT_EQ(ZEP_ERR_TRACELEVEL, ZEP_setAPITraceLevel(value)) << value;
    EXPECT_EQ(4, currentLevel()) << "a refused level keeps the one before";
    std::string path;
    {
        TraceCapture trace(-1);
        path = trace.path();
        ASSERT_EQ(0, trace.fileRc());
        expectBanner(trace.lines(), 4, path);
        // A file that cannot be opened leaves the destination: the next call's records still come here.
        EXPECT_EQ(ZEP_ERR_TRACEFILE, ZEP_setAPITraceFile((trace.dir() + "/missing/x.log").c_str()));
        trace.clear();
        ASSERT_EQ(0, ZEP_setAPITraceFile(nullptr));
        EXPECT_EQ(Texts{"1041 API.ZEP_setAPITraceFile(traceFile=NULL) Current trace destination=" + path},
                  texts(trace.records()));
    }
    // Standard error had the records before the switch, and gets the banner again and the rest of the records.
    Texts lines = err.lines(), records = texts(err.records());
    EXPECT_EQ(2, std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.find(" QUILLON ZEPClient") == 12; }));
    for (const std::string& record : {"1041 API.ZEP_setAPITraceFile(traceFile=" + path + ") Current trace destination=stderr",
                                      std::string("1045 API.ZEP_setAPITraceFile() rc=0 (ZEP_OK) New trace destination=stderr")})
        EXPECT_NE(records.end(), std::find(records.begin(), records.end(), record)) << record;
}

}  // namespace
