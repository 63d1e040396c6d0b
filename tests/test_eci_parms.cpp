// The checks on the caller's ECI parameter block: each failure, its code, its record, and their order.
#include <functional>
#include <map>

#include "clapi_eci.h"
#include "library_support.h"

namespace {

char area[64];

#define SET(...) [](EciParms & p) { __VA_ARGS__; }

// Each case changes a block that passes every check; `id` is its *EXC* record (0 when none) and `detail` what
// follows "clapi_eci.verifyEciParms() <what is invalid>, EciParms=<address>, " in it.
struct ParmsCase { std::function<void(EciParms&)> change; int minVersion, rc, id; const char* detail; };

const ParmsCase parmsCases[] = {
    {SET(p.eci_version = 7), 3, ECI_ERR_INVALID_VERSION, 1549, "eci_version=7"},
    {SET(p.eci_version = 2), 3, ECI_ERR_INVALID_VERSION, 1549, "eci_version=2"},
    {SET(p.eci_version = 3), 3, 0, 0, nullptr},
    {SET(p.eci_version = 3), 4, ECI_ERR_INVALID_VERSION, 1549, "eci_version=3"},
    {SET(p.eci_version = 9; p.eci_call_type = 0), 3, ECI_ERR_INVALID_VERSION, 1549, "eci_version=9"},
    {SET(p.eci_call_type = 0), 3, ECI_ERR_INVALID_CALL_TYPE, 1550, "eci_call_type=0"},
    {SET(p.eci_call_type = 7), 3, ECI_ERR_INVALID_CALL_TYPE, 1550, "eci_call_type=7"},
    {SET(p.eci_call_type = -1), 3, ECI_ERR_INVALID_CALL_TYPE, 1550, "eci_call_type=65535"},
    {SET(p.eci_call_type = ECI_ASYNC; p.eci_version = 5), 3, ECI_ERR_INVALID_VERSION, 1552, "eci_version=5"},
    {SET(p.eci_call_type = ECI_GET_REPLY; p.eci_version = 5), 4, ECI_ERR_INVALID_VERSION, 1552, "eci_version=5"},
    {SET(p.eci_call_type = ECI_ASYNC), 4, 0, 0, nullptr},
    {SET(p.eci_extend_mode = 3), 3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "eci_extend_mode=3"},
    {SET(p.eci_call_type = ECI_ASYNC; p.eci_extend_mode = 5), 3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "eci_extend_mode=5"},
    {SET(p.eci_extend_mode = -1), 3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "eci_extend_mode=65535"},
    {SET(p.eci_extend_mode = 4), 3, 0, 0, nullptr},
    {SET(p.eci_call_type = ECI_GET_REPLY; p.eci_extend_mode = 3), 3, 0, 0, nullptr},
    {SET(p.eci_commarea_length = -1), 3, ECI_ERR_INVALID_DATA_LENGTH, 1554, "eci_commarea_length=-1"},
    {SET(p.commarea_inbound_length = -5), 3, ECI_ERR_INVALID_DATA_LENGTH, 1555, "commarea_inbound_length=-5"},
    {SET(p.commarea_outbound_length = -2), 3, ECI_ERR_INVALID_DATA_LENGTH, 1556, "commarea_outbound_length=-2"},
    {SET(p.eci_commarea = nullptr; p.commarea_outbound_length = -2), 3, ECI_ERR_INVALID_DATA_LENGTH, 1556, "commarea_outbound_length=-2"},
    {SET(p.eci_commarea = nullptr; p.eci_commarea_length = 10), 3, ECI_ERR_INVALID_DATA_AREA, 1557, "Commarea NULL but eci_commarea_length=10 "},
    {SET(p.eci_commarea_length = 0), 3, ECI_ERR_INVALID_DATA_AREA, 1558, "Commarea not NULL but eci_commarea_length=0"},
    {SET(p.eci_commarea = nullptr; p.eci_commarea_length = 0), 3, 0, 0, nullptr},
    {SET(p.eci_call_type = ECI_GET_REPLY_WAIT; p.eci_commarea = nullptr; p.eci_commarea_length = 5),
     3, ECI_ERR_INVALID_DATA_AREA, 1557, "Commarea NULL but eci_commarea_length=5 "},
    {SET(p.eci_timeout = -1), 3, ECI_ERR_REQUEST_TIMEOUT, 1559, "eci_timeout=-1"},
    {SET(p.eci_timeout = 0), 3, 0, 0, nullptr},
    {SET(p.commarea_inbound_length = 32767; p.commarea_outbound_length = 32767), 3, 0, 0, nullptr},
};

TEST(EciParms, EachCheckGivesItsCodeAndRecordAndLeavesTheBlockAlone)
{
    const std::map<int, const char*> what = {
        {ECI_ERR_INVALID_VERSION, "Invalid ECI Version"}, {ECI_ERR_INVALID_CALL_TYPE, "Invalid Call Type"},
        {ECI_ERR_INVALID_EXTEND_MODE, "Invalid Extend Mode"}, {ECI_ERR_INVALID_DATA_LENGTH, "Invalid Data Length"},
        {ECI_ERR_INVALID_DATA_AREA, "Invalid Data Area"}, {ECI_ERR_REQUEST_TIMEOUT, "Invalid Timeout"}};
    TraceCapture trace(4);
    for (const int level : {0, 4})   // the outcome does not depend on whether the failure is traced
        for (const ParmsCase& c : parmsCases) {
            SCOPED_TRACE(&c - parmsCases);
            ZEP_setAPITraceLevel(level);
            trace.clear();
            EciParms parms = eciBlock(ECI_SYNC, "", area, sizeof area);
            c.change(parms);
            EciParms before = parms;
            EXPECT_EQ(c.rc, verifyEciParms(&parms, c.minVersion));
            EXPECT_EQ(0, memcmp(&before, &parms, sizeof parms));
            std::vector<std::string> failures, expected;   // "id message" of each *EXC* record
            for (const TraceRecord& r : trace.records())
                if (r.type == "*EXC*") failures.push_back(std::to_string(r.id) + " " + r.message);
            if (c.id != 0 && level != 0)
                expected.push_back(std::to_string(c.id) + " clapi_eci.verifyEciParms() " + what.at(c.rc) +
                                   ", EciParms=" + pointerText(&parms) + ", " + c.detail);
            EXPECT_EQ(expected, failures);
        }
}

}  // namespace
