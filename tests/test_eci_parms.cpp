// The checks on the caller's ECI parameter block: each failure, its code, its record, and their order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "clapi_eci.h"
#include "trace_capture.h"
#include "zepclient.h"

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

std::string pointerText(const void* p)
{
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

struct ParmsCase {
    const char* what;
    std::function<void(EciParms&)> change;
    int minVersion;
    int rc;
    int id;                 // the *EXC* record, 0 when none
    const char* message;    // after "clapi_eci.verifyEciParms() ", with %s for the block's address
};

const ParmsCase parmsCases[] = {
    {"version 7 above any minimum", [](EciParms& p) { p.eci_version = 7; }, 3, ECI_ERR_INVALID_VERSION, 1549,
     "Invalid ECI Version, EciParms=%s, eci_version=7"},
    {"version 2 below the COMMAREA minimum", [](EciParms& p) { p.eci_version = 2; }, 3, ECI_ERR_INVALID_VERSION, 1549,
     "Invalid ECI Version, EciParms=%s, eci_version=2"},
    {"version 2 below the channel minimum", [](EciParms& p) { p.eci_version = 2; }, 4, ECI_ERR_INVALID_VERSION, 1549,
     "Invalid ECI Version, EciParms=%s, eci_version=2"},
    {"synchronous version 3 passes the COMMAREA minimum", [](EciParms& p) { p.eci_version = 3; }, 3, 0, 0, nullptr},
    {"synchronous version 3 fails the channel minimum", [](EciParms& p) { p.eci_version = 3; }, 4,
     ECI_ERR_INVALID_VERSION, 1549, "Invalid ECI Version, EciParms=%s, eci_version=3"},
    {"version checked before call type", [](EciParms& p) { p.eci_version = 9; p.eci_call_type = 0; }, 3,
     ECI_ERR_INVALID_VERSION, 1549, "Invalid ECI Version, EciParms=%s, eci_version=9"},
    {"call type 0", [](EciParms& p) { p.eci_call_type = 0; }, 3, ECI_ERR_INVALID_CALL_TYPE, 1550,
     "Invalid Call Type, EciParms=%s, eci_call_type=0"},
    {"call type 7", [](EciParms& p) { p.eci_call_type = 7; }, 3, ECI_ERR_INVALID_CALL_TYPE, 1550,
     "Invalid Call Type, EciParms=%s, eci_call_type=7"},
    {"call type -1 counts as 65535", [](EciParms& p) { p.eci_call_type = -1; }, 3, ECI_ERR_INVALID_CALL_TYPE, 1550,
     "Invalid Call Type, EciParms=%s, eci_call_type=65535"},
    {"asynchronous needs version 6", [](EciParms& p) { p.eci_call_type = ECI_ASYNC; p.eci_version = 5; }, 3,
     ECI_ERR_INVALID_VERSION, 1552, "Invalid ECI Version, EciParms=%s, eci_version=5"},
    {"reply call needs version 6", [](EciParms& p) { p.eci_call_type = ECI_GET_REPLY; p.eci_version = 5; }, 4,
     ECI_ERR_INVALID_VERSION, 1552, "Invalid ECI Version, EciParms=%s, eci_version=5"},
    {"asynchronous version 6 passes", [](EciParms& p) { p.eci_call_type = ECI_ASYNC; }, 4, 0, 0, nullptr},
    {"extend mode 3 refused for ECI_SYNC", [](EciParms& p) { p.eci_extend_mode = 3; }, 3,
     ECI_ERR_INVALID_EXTEND_MODE, 1553, "Invalid Extend Mode, EciParms=%s, eci_extend_mode=3"},
    {"extend mode 5 refused for ECI_ASYNC", [](EciParms& p) { p.eci_call_type = ECI_ASYNC; p.eci_extend_mode = 5; },
     3, ECI_ERR_INVALID_EXTEND_MODE, 1553, "Invalid Extend Mode, EciParms=%s, eci_extend_mode=5"},
    {"extend mode -1 counts as 65535", [](EciParms& p) { p.eci_extend_mode = -1; }, 3, ECI_ERR_INVALID_EXTEND_MODE,
     1553, "Invalid Extend Mode, EciParms=%s, eci_extend_mode=65535"},
    {"extend mode 4 accepted", [](EciParms& p) { p.eci_extend_mode = 4; }, 3, 0, 0, nullptr},
    {"extend mode 2 accepted", [](EciParms& p) { p.eci_extend_mode = 2; }, 3, 0, 0, nullptr},
    {"extend mode 3 accepted for ECI_GET_REPLY",
     [](EciParms& p) { p.eci_call_type = ECI_GET_REPLY; p.eci_extend_mode = 3; }, 3, 0, 0, nullptr},
    {"negative COMMAREA length", [](EciParms& p) { p.eci_commarea_length = -1; }, 3, ECI_ERR_INVALID_DATA_LENGTH, 1554,
     "Invalid Data Length, EciParms=%s, eci_commarea_length=-1"},
    {"negative inbound length", [](EciParms& p) { p.commarea_inbound_length = -5; }, 3, ECI_ERR_INVALID_DATA_LENGTH,
     1555, "Invalid Data Length, EciParms=%s, commarea_inbound_length=-5"},
    {"negative outbound length", [](EciParms& p) { p.commarea_outbound_length = -2; }, 3,
     ECI_ERR_INVALID_DATA_LENGTH, 1556, "Invalid Data Length, EciParms=%s, commarea_outbound_length=-2"},
    {"lengths checked before the data area",
     [](EciParms& p) { p.eci_commarea = nullptr; p.commarea_outbound_length = -2; }, 3, ECI_ERR_INVALID_DATA_LENGTH,
     1556, "Invalid Data Length, EciParms=%s, commarea_outbound_length=-2"},
    {"NULL COMMAREA with a length", [](EciParms& p) { p.eci_commarea = nullptr; p.eci_commarea_length = 10; }, 3,
     ECI_ERR_INVALID_DATA_AREA, 1557, "Invalid Data Area, EciParms=%s, Commarea NULL but eci_commarea_length=10 "},
    {"COMMAREA with length 0", [](EciParms& p) { p.eci_commarea_length = 0; }, 3, ECI_ERR_INVALID_DATA_AREA, 1558,
     "Invalid Data Area, EciParms=%s, Commarea not NULL but eci_commarea_length=0"},
    {"NULL COMMAREA with length 0 passes", [](EciParms& p) { p.eci_commarea = nullptr; p.eci_commarea_length = 0; },
     3, 0, 0, nullptr},
    {"reply calls check the data area too",
     [](EciParms& p) { p.eci_call_type = ECI_GET_REPLY_WAIT; p.eci_commarea = nullptr; p.eci_commarea_length = 5; },
     3, ECI_ERR_INVALID_DATA_AREA, 1557,
     "Invalid Data Area, EciParms=%s, Commarea NULL but eci_commarea_length=5 "},
    {"time-out -1 is a time-out error", [](EciParms& p) { p.eci_timeout = -1; }, 3, ECI_ERR_REQUEST_TIMEOUT, 1559,
     "Invalid Timeout, EciParms=%s, eci_timeout=-1"},
    {"time-out 0 passes", [](EciParms& p) { p.eci_timeout = 0; }, 3, 0, 0, nullptr},
    {"largest lengths pass",
     [](EciParms& p) { p.commarea_inbound_length = 32767; p.commarea_outbound_length = 32767; }, 3, 0, 0, nullptr},
};

TEST(EciParms, EachCheckGivesItsCodeAndRecordAndLeavesTheBlockAlone)
{
    TraceCapture trace(4);
    for (const ParmsCase& c : parmsCases) {
        SCOPED_TRACE(c.what);
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
        char expected[256];
        snprintf(expected, sizeof expected, c.message, pointerText(&parms).c_str());
        EXPECT_EQ(c.id, failures[0].id);
        EXPECT_EQ(std::string("clapi_eci.verifyEciParms() ") + expected, failures[0].message);
    }
}

}  // namespace
