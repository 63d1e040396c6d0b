// The checks on the caller's ECI parameter block: each failure, its code, its record, and their order.
#include <functional>

#include "clapi_eci.h"
#include "library_support.h"

namespace {

char area[64];

// A block that passes every check: synchronous, version 6, a 64-byte COMMAREA.
EciParms validBlock()
{
    EciParms parms;
    memset(&parms, 0, sizeof parms);
    parms.eci_call_type = ECI_SYNC;
    parms.eci_version = 6;
    parms.eci_commarea = area;
    parms.eci_commarea_length = sizeof area;
    return parms;
}

#define SET(...) [](EciParms & p) { __VA_ARGS__; }

struct ParmsCase {
    std::function<void(EciParms&)> change;
    int minVersion;
    int rc;
    int id;                 // the *EXC* record, 0 when none
    const char* detail;     // after "clapi_eci.verifyEciParms() <what is invalid>, EciParms=<address>, "
};

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
    {SET(p.eci_call_type = ECI_ASYNC; p.eci_extend_mode = 5),
     3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "eci_extend_mode=5"},
    {SET(p.eci_extend_mode = -1), 3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "eci_extend_mode=65535"},
    {SET(p.eci_extend_mode = 4), 3, 0, 0, nullptr},
    {SET(p.eci_call_type = ECI_GET_REPLY; p.eci_extend_mode = 3), 3, 0, 0, nullptr},
    {SET(p.eci_commarea_length = -1), 3, ECI_ERR_INVALID_DATA_LENGTH, 1554, "eci_commarea_length=-1"},
    {SET(p.commarea_inbound_length = -5), 3, ECI_ERR_INVALID_DATA_LENGTH, 1555, "commarea_inbound_length=-5"},
    {SET(p.commarea_outbound_length = -2), 3, ECI_ERR_INVALID_DATA_LENGTH, 1556, "commarea_outbound_length=-2"},
    {SET(p.eci_commarea = nullptr; p.commarea_outbound_length = -2),
     3, ECI_ERR_INVALID_DATA_LENGTH, 1556, "commarea_outbound_length=-2"},
    {SET(p.eci_commarea = nullptr; p.eci_commarea_length = 10),
     3, ECI_ERR_INVALID_DATA_AREA, 1557, "Commarea NULL but eci_commarea_length=10 "},
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
    TraceCapture trace(4);
    for (const ParmsCase& c : parmsCases) {
        SCOPED_TRACE(&c - parmsCases);
        trace.clear();
        EciParms parms = validBlock();
        c.change(parms);
        EciParms before = parms;
        EXPECT_EQ(c.rc, verifyEciParms(&parms, c.minVersion));
        EXPECT_EQ(0, memcmp(&before, &parms, sizeof parms));

        std::vector<TraceRecord> failures;
        for (const TraceRecord& r : trace.records())
            if (r.type == "*EXC*") failures.push_back(r);
        if (c.id == 0) {
            EXPECT_TRUE(failures.empty());
            continue;
        }
        ASSERT_EQ(1u, failures.size());
        const char* what = c.rc == ECI_ERR_INVALID_VERSION       ? "Invalid ECI Version"
                           : c.rc == ECI_ERR_INVALID_CALL_TYPE   ? "Invalid Call Type"
                           : c.rc == ECI_ERR_INVALID_EXTEND_MODE ? "Invalid Extend Mode"
                           : c.rc == ECI_ERR_INVALID_DATA_LENGTH ? "Invalid Data Length"
                           : c.rc == ECI_ERR_INVALID_DATA_AREA   ? "Invalid Data Area"
                                                                 : "Invalid Timeout";
        EXPECT_EQ(c.id, failures[0].id);
        EXPECT_EQ(std::string("clapi_eci.verifyEciParms() ") + what + ", EciParms=" + pointerText(&parms) + ", " +
                      c.detail,
                  failures[0].message);
    }
}

}  // namespace
