// Return codes: the value and name of each code of the four families, the family order of the general lookup,
// and ZEP_getRcString's copy into the caller's 40-byte buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>

#include "clapi_impl.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

// `alias`: a second value read as the same name, the Gateway's value for an ESI condition.
struct Code { int macro, value; const char* name; int alias; };
#define RC(name, value) {name, value, #name, value}
#define ESI(name, value, gateway) {name, value, #name, gateway}
#define AS(value, name) {value, value, name, value}

const Code generalCodes[] = {
    RC(ZEP_OK, 0), RC(ZEP_ERR_SYSTEM_ERROR, -9), RC(ZEP_ERR_MORE_SYSTEMS, -25), RC(ZEP_ERR_NO_SYSTEMS, -26),
    RC(ZEP_ERR_NULLGWTOK, -100), RC(ZEP_ERR_BADGWTOK, -101), RC(ZEP_ERR_LOSTGWCON, -102), RC(ZEP_ERR_NULLPARM, -103),
    RC(ZEP_ERR_TRACELEVEL, -104), RC(ZEP_ERR_BADPORT, -107), RC(ZEP_ERR_NULLGWTOKPTR, -108), RC(ZEP_ERR_NULLPTR, -109),
    RC(ZEP_ERR_MALLOCFAIL, -111), RC(ZEP_ERR_CONNECTFAILED, -118), RC(ZEP_ERR_TRACEFILE, -130), RC(ZEP_ERR_BADHOST, -132),
    RC(ZEP_ERR_NULLADDRESS, -133), RC(ZEP_ERR_CONNECTTIMEOUT, -134), RC(ZEP_ERR_NULLECIPOINTER, -137),
    RC(ZEP_ERR_INVALIDTIMEOUTPARM, -138), RC(ZEP_ERR_APPLIDTOOLONG, -139), RC(ZEP_ERR_GWTOK_CLOSED, -140),
    RC(ZEP_ERR_GATEWAY_CLOSED, 0xF004), RC(ZEP_ERR_WORK_WAS_REFUSED, 0xF005), RC(ZEP_ERR_GATEWAY_EXCEPTION, 0xF006),
    RC(ZEP_ERR_GATEWAY_BACK_LEVEL, 0xF00A), RC(ZEP_ERR_INVALID_REQUEST_TYPE, 0xF00B),
};
const Code eciCodes[] = {
    RC(ECI_ERR_INVALID_DATA_LENGTH, -1), RC(ECI_ERR_INVALID_EXTEND_MODE, -2), RC(ECI_ERR_NO_VANT, -3),
    RC(ECI_ERR_VANT_DIED, -4), RC(ECI_ERR_REQUEST_TIMEOUT, -5), RC(ECI_ERR_RESPONSE_TIMEOUT, -6),
    RC(ECI_ERR_TRANSACTION_ABEND, -7), RC(ECI_ERR_LUW_TOKEN, -8), RC(ECI_ERR_SYSTEM_ERROR, -9),
    RC(ECI_ERR_INVALID_CALL_TYPE, -14), RC(ECI_ERR_ALREADY_ACTIVE, -15), RC(ECI_ERR_RESOURCE_SHORTAGE, -16),
    RC(ECI_ERR_NO_SESSIONS, -17), RC(ECI_ERR_INVALID_DATA_AREA, -19), RC(ECI_ERR_INVALID_VERSION, -21),
    RC(ECI_ERR_UNKNOWN_SERVER, -22), RC(ECI_ERR_SECURITY_ERROR, -27), RC(ECI_ERR_MAX_SYSTEMS, -28),
    RC(ECI_ERR_MAX_SESSIONS, -29), RC(ECI_ERR_ROLLEDBACK, -30), RC(ECI_ERR_NO_REPLY, -32), RC(ECI_ERR_INVALID_MSG_QUAL, -33),
};
const Code channelCodes[] = {
    RC(ECI_NO_ERROR, 0), RC(ECI_ERR_INVALID_DATA_LENGTH, -1), RC(ECI_ERR_SYSTEM_ERROR, -9), RC(ECI_ERR_INVALID_CHANNEL, -50),
    RC(ECI_ERR_INVALID_NAME, -51), RC(ECI_ERR_NULLCHANNELPTR, -52), RC(ECI_ERR_CHANNELLOCKFAIL, -53),
    RC(ECI_ERR_ENDOFCONTAINERS, -54), RC(ECI_ERR_NULLINFOPTR, -55), RC(ECI_ERR_INVALID_TYPE, -56),
    RC(ECI_ERR_CONTAINER_NOTFOUND, -58), RC(ECI_ERR_CONTAINER_EXISTS, -59), RC(ECI_ERR_COMMAREA_AND_CHANNEL, -60),
    RC(ECI_ERR_NULLPTR, -109), RC(ECI_ERR_MEMORY_SHORTAGE, -111), RC(ECI_ERR_LOCKFAIL, -121),
};
const Code esiCodes[] = {
    ESI(ESI_ERR_USERID_INVALID, -300, -108), ESI(ESI_ERR_NULL_USERID, -301, -100),
    ESI(ESI_ERR_PASSWORD_INVALID, -302, -106), ESI(ESI_ERR_NULL_PASSWORD, -303, -101),
    ESI(ESI_ERR_PEM_NOT_SUPPORTED, -304, -103), ESI(ESI_ERR_PEM_NOT_ACTIVE, -305, -104),
    ESI(ESI_ERR_PASSWORD_EXPIRED, -306, -105), ESI(ESI_ERR_SECURITY_ERROR, -307, -27),
    ESI(ESI_ERR_RESOURCE_SHORTAGE, -308, -16), ESI(ESI_ERR_NO_SESSIONS, -309, -17), ESI(ESI_ERR_NO_VANT, -310, -3),
    ESI(ESI_ERR_VANT_DIED, -311, -4), ESI(ESI_ERR_UNKNOWN_SERVER, -312, -22), ESI(ESI_ERR_SYSTEM_ERROR, -313, -9),
    ESI(ESI_ERR_NULL_NEW_PASSWORD, -314, -102), ESI(ESI_ERR_PASSWORD_REJECTED, -315, -107),
    AS(-28, "ESI_ERR_MAX_SYSTEMS"), AS(-29, "ESI_ERR_MAX_SESSIONS"),
};
// General names first, then the ECI table (falling through to the channel table), then the ESI table: one value
// for each way one family shadows another.
const Code generalLookup[] = {
    AS(-9, "ZEP_ERR_SYSTEM_ERROR"), AS(-109, "ZEP_ERR_NULLPTR"), AS(-101, "ZEP_ERR_BADGWTOK"), AS(0, "ZEP_OK"),
    AS(-3, "ECI_ERR_NO_VANT"), AS(-29, "ECI_ERR_MAX_SESSIONS"), AS(-50, "ECI_ERR_INVALID_CHANNEL"),
    AS(-121, "ECI_ERR_LOCKFAIL"), AS(-106, "ESI_ERR_PASSWORD_INVALID"), AS(-315, "ESI_ERR_PASSWORD_REJECTED"),
};

}  // namespace

TEST(ReturnCodes, EveryCodeOfEveryFamilyHasItsValueAndName)
{
    const struct { const char* (*lookup)(int); const Code* codes; size_t count; } families[] = {
        {clapiGetRcString, generalCodes, std::size(generalCodes)}, {clapiGetRcStringECI, eciCodes, std::size(eciCodes)},
        {clapiGetRcStringChannel, channelCodes, std::size(channelCodes)}, {clapiGetRcStringESI, esiCodes, std::size(esiCodes)},
        {clapiGetRcString, generalLookup, std::size(generalLookup)},
    };
    for (const auto& family : families) {
        for (const Code* code = family.codes; code < family.codes + family.count; ++code) {
            EXPECT_EQ(code->value, code->macro) << code->name;
            EXPECT_STREQ(code->name, family.lookup(code->value)) << code->value;
            EXPECT_STREQ(code->name, family.lookup(code->alias)) << code->alias;
        }
    }
}

// The copy is bounded at 40 bytes: the name, then NULs up to the 40th byte, and nothing beyond; a NULL buffer
// gives NULL. Traced at level 3, so that the copy's exit record is written on both ways out.
TEST(ReturnCodes, CopyFillsExactlyFortyBytes)
{
    TraceCapture trace(3);
    unsigned char buffer[64];
    memset(buffer, 0xAA, sizeof buffer);
    char* text = reinterpret_cast<char*>(buffer);
    ASSERT_EQ(text, ZEP_getRcString(-101, text));
    EXPECT_EQ(std::string(text), "ZEP_ERR_BADGWTOK");
    for (size_t i = strlen(text); i < sizeof buffer; ++i) EXPECT_EQ(i < 40 ? 0 : 0xAA, buffer[i]) << "byte " << i;
    EXPECT_EQ(nullptr, ZEP_getRcString(-25, nullptr));
}
