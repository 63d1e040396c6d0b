/* What the channel, container and name tests share: readings of the captured trace, and channel helpers. */
#ifndef CHANNEL_TEST_SUPPORT_H
#define CHANNEL_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "clapi_channel.h"
#include "trace_capture.h"
#include "zepclient.h"

/* A failed huge allocation must come back as NULL under the sanitizers too, as it does without them.
   (Each test executable includes this header from its one source file.) */
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
extern "C" __attribute__((used, visibility("default"))) const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}

/* Polls a condition until it holds or the deadline passes. */
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10))
{
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline std::string hexPtr(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

/* "TYPE message" of every record with this id, in order. */
inline std::vector<std::string> recordTexts(const TraceCapture& trace, int id)
{
    std::vector<std::string> result;
    for (const TraceRecord& r : trace.find(id)) result.push_back(r.type + " " + r.message);
    return result;
}

/* "TYPE message" of the one record with this id; a text saying otherwise when there is not exactly one. */
inline std::string onlyRecord(const TraceCapture& trace, int id)
{
    std::vector<std::string> found = recordTexts(trace, id);
    if (found.size() == 1) return found[0];
    return "<" + std::to_string(found.size()) + " records with id " + std::to_string(id) + ">";
}

/* The records written since the last call (or since the capture began), leaving the file empty. */
inline std::vector<TraceRecord> takeRecords(TraceCapture& trace)
{
    std::vector<TraceRecord> records = trace.records();
    trace.clear();
    return records;
}

/* Every test starts from an empty channel list and leaves it empty. */
class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ECI_deleteAllChannels(), 0); }
    void TearDown() override { ECI_deleteAllChannels(); }

    Channel* newChannel(const char* name)
    {
        Channel* chan = NULL;
        EXPECT_EQ(ECI_createChannel(name, &chan), 0) << name;
        return chan;
    }
};

#endif
