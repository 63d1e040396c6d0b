// Conversion of the times in a user's ESI details into calendar time, without any connection.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "clapi_esi.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

struct TimeCase {
    const char* what;
    EsiTime in;
    int wday;
    int yday;   // 1 January is day 1
};

const TimeCase timeCases[] = {
    {"1 January 2000", {2000, 0, 1, 0, 0, 0, 0}, 6, 1},
    {"29 February 2024", {2024, 1, 29, 12, 30, 45, 0}, 4, 60},
    {"31 December 2023", {2023, 11, 31, 23, 59, 59, 0}, 0, 365},
    {"31 December 2024, a leap year", {2024, 11, 31, 0, 0, 0, 0}, 2, 366},
    {"1 March 2100 counts a leap day in the weekday only", {2100, 2, 1, 0, 0, 0, 0}, 2, 60},
    {"1 January 1900", {1900, 0, 1, 0, 0, 0, 0}, 1, 1},
    {"15 June 2150, after the century terms change", {2150, 5, 15, 6, 7, 8, 0}, 1, 166},
    {"1 March 2000, leap by the 400 rule", {2000, 2, 1, 0, 0, 0, 0}, 3, 61},
    {"14 July 1789, before 1900 the weekday may be negative", {1789, 6, 14, 0, 0, 0, 0}, -6, 195},
};

TEST(EsiTime, WeekdayAndDayOfYearTable)
{
    for (const TimeCase& c : timeCases) {
        SCOPED_TRACE(c.what);
        struct tm out;
        memset(&out, 0x5A, sizeof out);
        ASSERT_EQ(&out, ZEP_ESI_convertTime(&c.in, &out));
        EXPECT_EQ(c.wday, out.tm_wday);
        EXPECT_EQ(c.yday, out.tm_yday);
        EXPECT_EQ(c.in.year - 1900, out.tm_year);
        EXPECT_EQ(c.in.month, out.tm_mon);
        EXPECT_EQ(c.in.day, out.tm_mday);
        EXPECT_EQ(c.in.hour, out.tm_hour);
        EXPECT_EQ(c.in.minute, out.tm_min);
        EXPECT_EQ(c.in.second, out.tm_sec);
        EXPECT_EQ(-1, out.tm_isdst);
    }
}

// Days since 1 January 1970 of a proleptic Gregorian date (month 1 to 12), by era arithmetic.
long daysFromCivil(long y, long m, long d)
{
    y -= m <= 2;
    const long era = (y >= 0 ? y : y - 399) / 400;
    const long yoe = y - era * 400;
    const long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

TEST(EsiTime, TheRuleGivesTheRealCalendarFrom1901To2099)
{
    for (int year = 1901; year <= 2099; ++year) {
        for (int month = 0; month < 12; ++month) {
            for (int day : {1, 28}) {
                EsiTime in = {year, month, day, 0, 0, 0, 0};
                struct tm got;
                memset(&got, 0, sizeof got);
                ZEP_ESI_convertTime(&in, &got);
                const long days = daysFromCivil(year, month + 1, day);
                const int realWday = static_cast<int>((days % 7 + 7 + 4) % 7);   // 1 January 1970 was a Thursday
                const int realYday = static_cast<int>(days - daysFromCivil(year, 1, 1)) + 1;
                ASSERT_EQ(realWday, got.tm_wday) << year << "-" << month + 1 << "-" << day;
                ASSERT_EQ(realYday, got.tm_yday) << year << "-" << month + 1 << "-" << day;
            }
        }
    }
}

TEST(EsiTime, YearZeroIsUnsetAndZeroesTheResult)
{
    EsiTime unset = {0, 5, 17, 10, 11, 12, 0};
    struct tm out;
    memset(&out, 0x5A, sizeof out);
    ASSERT_EQ(&out, ZEP_ESI_convertTime(&unset, &out));
    struct tm zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, memcmp(&zero, &out, sizeof out));
}

TEST(EsiTime, MonthOutsideTheYearLeavesTheResultAloneAndIsTraced)
{
    const int months[] = {-1, 12, 1000000, -2147483647 - 1};
    for (int month : months) {
        SCOPED_TRACE(month);
        TraceCapture trace(1);
        EsiTime in = {2024, month, 1, 0, 0, 0, 0};
        struct tm out;
        memset(&out, 0x5A, sizeof out);
        struct tm before = out;
        EXPECT_EQ(&out, ZEP_ESI_convertTime(&in, &out));
        EXPECT_EQ(0, memcmp(&before, &out, sizeof out));
        std::vector<TraceRecord> records = trace.find(1828);
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ("*EXC*", records[0].type);
        EXPECT_EQ("API.ZEP_ESI_convertTime() Invalid month, month=" + std::to_string(month), records[0].message);
    }
}

TEST(EsiTime, LeapYears)
{
    const struct {
        int year;
        int leap;
    } years[] = {{1900, 0}, {2000, 1}, {2023, 0}, {2024, 1}, {2100, 0}, {2400, 1}, {0, 1}, {-4, 1}, {1, 0}};
    for (const auto& y : years) EXPECT_EQ(y.leap, isLeapYear(y.year)) << y.year;
}

}  // namespace

TEST(EsiTime, NullPointersChangeNothing)
{
    EsiTime in = {2024, 1, 29, 0, 0, 0, 0};
    struct tm out;
    memset(&out, 0x5A, sizeof out);
    struct tm before = out;
    EXPECT_EQ(&out, ZEP_ESI_convertTime(nullptr, &out));
    EXPECT_EQ(0, memcmp(&before, &out, sizeof out));
    EXPECT_EQ(nullptr, ZEP_ESI_convertTime(&in, nullptr));
}

TEST(EsiTime, TraceRecords)
{
    TraceCapture trace(4);
    EsiTime in = {2024, 1, 29, 12, 30, 45, 0};
    struct tm out;
    ZEP_ESI_convertTime(&in, &out);

    char entry[128];
    snprintf(entry, sizeof entry, "API.ZEP_ESI_convertTime(esiTime=%p, result=%p)", (void*)&in, (void*)&out);
    EXPECT_TRUE(trace.has(1813, entry));
    EXPECT_TRUE(trace.has(1814, "API.ZEP_ESI_convertTime() tm members year=124, month=1, day=29, hour=12, min=30, "
                                "sec=45, wday=4, yday=60"));
    std::vector<TraceRecord> exits = trace.find(1815);
    ASSERT_EQ(1u, exits.size());
    EXPECT_EQ("EXIT", exits[0].type);
}
