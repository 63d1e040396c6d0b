/* The rule for channel and container names, and the CCSID that LANG selects. */
#include "library_support.h"

#include <stdlib.h>
#include <string.h>

namespace {

struct NameCase {
    const char* label;
    const char* name;
    int         rc;
    int         excId;     /* 0: no exception record */
    const char* excText;
};

const NameCase nameCases[] = {
    {"sixteen", "ABCDEFGHIJKLMNOP", ECI_NO_ERROR, 0, ""},
    {"seventeen", "ABCDEFGHIJKLMNOPQ", ECI_ERR_INVALID_NAME, 1402,
     "*EXC* clapi_channel.validateName() name length exceeds 16"},
    {"blank", "AB CD", ECI_ERR_INVALID_NAME, 1403, "*EXC* clapi_channel.validateName() name contains invalid character ' '"},
    {"angles", "<>", ECI_NO_ERROR, 0, ""},
    {"star", "A*B", ECI_ERR_INVALID_NAME, 1403, "*EXC* clapi_channel.validateName() name contains invalid character '*'"},
    {"plus", "+", ECI_ERR_INVALID_NAME, 1403, "*EXC* clapi_channel.validateName() name contains invalid character '+'"},
    {"nonAscii", "AB\xE9", ECI_ERR_INVALID_NAME, 1403,
     "*EXC* clapi_channel.validateName() name contains invalid character '\xE9'"},
    {"badWithinLongName", "ABCDEFGHIJKLMNO*QRS", ECI_ERR_INVALID_NAME, 1403,
     "*EXC* clapi_channel.validateName() name contains invalid character '*'"},
    {"null", NULL, ECI_ERR_INVALID_NAME, 1401, "*EXC* clapi_channel.validateName() name is NULL"},
    {"empty", "", ECI_ERR_INVALID_NAME, 1407, "*EXC* clapi_channel.validateName() name is zero length"},
};

TEST(Names, EachCaseGivesItsCodeAndRecord)
{
    TraceCapture trace(3);
    trace.clear();
    for (const NameCase& c : nameCases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(validateName(c.name), c.rc);
        std::vector<TraceRecord> records = trace.records();
        trace.clear();
        ASSERT_GE(records.size(), 2u);
        EXPECT_EQ(records.front().id, 1400);
        EXPECT_EQ(records.front().type + " " + records.front().message,
                  std::string("ENTRY clapi_channel.validateName(name=") + (c.name ? c.name : "NULL") + ")");
        EXPECT_EQ(records.back().id, 1404);
        EXPECT_EQ(records.back().message, c.rc == 0 ? "clapi_channel.validateName() rc=0 (ECI_NO_ERROR)"
                                                    : "clapi_channel.validateName() rc=-51 (ECI_ERR_INVALID_NAME)");
        if (c.excId == 0) {
            EXPECT_EQ(records.size(), 2u);
        } else {
            ASSERT_EQ(records.size(), 3u);
            EXPECT_EQ(records[1].id, c.excId);
            EXPECT_EQ(records[1].type + " " + records[1].message, c.excText);
        }
    }
}

struct LangCase {
    const char* label;
    const char* lang;    /* NULL: unset */
    int         ccsid;
    int         id;
    const char* record;
};

void PrintTo(const LangCase& c, std::ostream* os)
{
    *os << "LANG=" << (c.lang != NULL ? c.lang : "(unset)");
}

class Ccsid : public ::testing::TestWithParam<LangCase> {};

/* Each case is its own process, so LANG is set before the library's first call. */
TEST_P(Ccsid, LangSelectsTheCcsid)
{
    const LangCase& c = GetParam();
    if (c.lang != NULL) setenv("LANG", c.lang, 1);
    else unsetenv("LANG");
    TraceCapture trace(4);
    int ccsid = -7;
    EXPECT_EQ(getCurrentCcsid(&ccsid), 0);
    EXPECT_EQ(ccsid, c.ccsid);
    EXPECT_EQ(onlyRecord(trace, c.id), c.record);
    EXPECT_EQ(onlyRecord(trace, 1441), "EXIT clapi_channel.getCurrentCcsid() rc=0, *ccsidPtr=" + std::to_string(c.ccsid));
}

#define MAPPED(lang, ccsid) \
    lang, ccsid, 1438, "DEBUG clapi_channel.getCurrentCcsid() Mapped codeset " lang " to CCSID " #ccsid
#define UNMAPPED(lang) \
    lang, 819, 1439, "*EXC* clapi_channel.getCurrentCcsid() Unable to find a CCSID for codeset " lang

INSTANTIATE_TEST_SUITE_P(
    Lang, Ccsid,
    ::testing::Values(
        LangCase{"unset", NULL, 819, 1437,
                 "DEBUG clapi_channel.getCurrentCcsid() LANG environment variable not set, defaulting to CCSID 819"},
        LangCase{"empty", "", 819, 1437,
                 "DEBUG clapi_channel.getCurrentCcsid() LANG environment variable not set, defaulting to CCSID 819"},
        LangCase{"C", UNMAPPED("C")}, LangCase{"POSIX", UNMAPPED("POSIX")},
        LangCase{"en_US_UTF8", UNMAPPED("en_US.UTF-8")}, LangCase{"ja_JP", MAPPED("ja_JP", 5050)},
        LangCase{"ja_JP_eucJP", MAPPED("ja_JP.eucJP", 5050)}, LangCase{"Ja_JP", UNMAPPED("Ja_JP")},
        LangCase{"zh_TW_big5", MAPPED("zh_TW.big5", 950)}, LangCase{"zh_TW_eucTW", MAPPED("zh_TW.eucTW", 964)},
        LangCase{"zh_CN_GB18030", MAPPED("zh_CN.GB18030", 1383)}, LangCase{"zh_HK", MAPPED("zh_HK", 1383)},
        LangCase{"big5", MAPPED("big5", 950)}, LangCase{"tchinese", MAPPED("tchinese", 964)},
        LangCase{"ar_EG", MAPPED("ar_EG", 1089)}, LangCase{"sk_SK", MAPPED("sk_SK", 912)},
        LangCase{"tr_TR", MAPPED("tr_TR", 920)}, LangCase{"ko_KR", MAPPED("ko_KR", 970)},
        LangCase{"bu_BG", MAPPED("bu_BG", 915)}, LangCase{"cs_CZ", MAPPED("cs_CZ", 912)},
        LangCase{"el_GR", MAPPED("el_GR", 813)}, LangCase{"hr_HR", MAPPED("hr_HR", 912)},
        LangCase{"hu_HU", MAPPED("hu_HU", 912)}, LangCase{"iw_IL", MAPPED("iw_IL", 916)},
        LangCase{"ji_IL", MAPPED("ji_IL", 916)}, LangCase{"lv_LV", MAPPED("lv_LV", 912)},
        LangCase{"mk_MK", MAPPED("mk_MK", 915)}, LangCase{"pl_PL", MAPPED("pl_PL", 912)},
        LangCase{"ro_RO", MAPPED("ro_RO", 912)}, LangCase{"ru_RU_KOI8R", MAPPED("ru_RU.KOI8-R", 915)},
        LangCase{"sh_YU", MAPPED("sh_YU", 912)}, LangCase{"sl_SI", MAPPED("sl_SI", 912)},
        LangCase{"sr_RS", MAPPED("sr_RS", 915)}),
    [](const ::testing::TestParamInfo<LangCase>& info) { return std::string(info.param.label); });

}  // namespace
