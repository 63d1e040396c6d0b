// Return codes: every value and name of the four families, the family order of the general lookup,
// the shared "UNKNOWN" text, and ZEP_getRcString's copy into the caller's 40-byte buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "clapi_impl.h"
#include "trace_capture.h"
#include "zepclient.h"

namespace {

struct Code {
    int macro;      // the public header's value
    int value;      // the value the code must have
    const char* name;
};

const Code generalCodes[] = {
    {ZEP_OK, 0, "ZEP_OK"},
    {ZEP_ERR_SYSTEM_ERROR, -9, "ZEP_ERR_SYSTEM_ERROR"},
    {ZEP_ERR_MORE_SYSTEMS, -25, "ZEP_ERR_MORE_SYSTEMS"},
    {ZEP_ERR_NO_SYSTEMS, -26, "ZEP_ERR_NO_SYSTEMS"},
    {ZEP_ERR_NULLGWTOK, -100, "ZEP_ERR_NULLGWTOK"},
    {ZEP_ERR_BADGWTOK, -101, "ZEP_ERR_BADGWTOK"},
    {ZEP_ERR_LOSTGWCON, -102, "ZEP_ERR_LOSTGWCON"},
    {ZEP_ERR_NULLPARM, -103, "ZEP_ERR_NULLPARM"},
    {ZEP_ERR_TRACELEVEL, -104, "ZEP_ERR_TRACELEVEL"},
    {ZEP_ERR_BADPORT, -107, "ZEP_ERR_BADPORT"},
    {ZEP_ERR_NULLGWTOKPTR, -108, "ZEP_ERR_NULLGWTOKPTR"},
    {ZEP_ERR_NULLPTR, -109, "ZEP_ERR_NULLPTR"},
    {ZEP_ERR_MALLOCFAIL, -111, "ZEP_ERR_MALLOCFAIL"},
    {ZEP_ERR_CONNECTFAILED, -118, "ZEP_ERR_CONNECTFAILED"},
    {ZEP_ERR_TRACEFILE, -130, "ZEP_ERR_TRACEFILE"},
    {ZEP_ERR_BADHOST, -132, "ZEP_ERR_BADHOST"},
    {ZEP_ERR_NULLADDRESS, -133, "ZEP_ERR_NULLADDRESS"},
    {ZEP_ERR_CONNECTTIMEOUT, -134, "ZEP_ERR_CONNECTTIMEOUT"},
    {ZEP_ERR_NULLECIPOINTER, -137, "ZEP_ERR_NULLECIPOINTER"},
    {ZEP_ERR_INVALIDTIMEOUTPARM, -138, "ZEP_ERR_INVALIDTIMEOUTPARM"},
    {ZEP_ERR_APPLIDTOOLONG, -139, "ZEP_ERR_APPLIDTOOLONG"},
    {ZEP_ERR_GWTOK_CLOSED, -140, "ZEP_ERR_GWTOK_CLOSED"},
    {ZEP_ERR_GATEWAY_CLOSED, 0xF004, "ZEP_ERR_GATEWAY_CLOSED"},
    {ZEP_ERR_WORK_WAS_REFUSED, 0xF005, "ZEP_ERR_WORK_WAS_REFUSED"},
    {ZEP_ERR_GATEWAY_EXCEPTION, 0xF006, "ZEP_ERR_GATEWAY_EXCEPTION"},
    {ZEP_ERR_GATEWAY_BACK_LEVEL, 0xF00A, "ZEP_ERR_GATEWAY_BACK_LEVEL"},
    {ZEP_ERR_INVALID_REQUEST_TYPE, 0xF00B, "ZEP_ERR_INVALID_REQUEST_TYPE"},
};

const Code eciCodes[] = {
    {ECI_ERR_INVALID_DATA_LENGTH, -1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {ECI_ERR_INVALID_EXTEND_MODE, -2, "ECI_ERR_INVALID_EXTEND_MODE"},
    {ECI_ERR_NO_VANT, -3, "ECI_ERR_NO_VANT"},
    {ECI_ERR_VANT_DIED, -4, "ECI_ERR_VANT_DIED"},
    {ECI_ERR_REQUEST_TIMEOUT, -5, "ECI_ERR_REQUEST_TIMEOUT"},
    {ECI_ERR_RESPONSE_TIMEOUT, -6, "ECI_ERR_RESPONSE_TIMEOUT"},
    {ECI_ERR_TRANSACTION_ABEND, -7, "ECI_ERR_TRANSACTION_ABEND"},
    {ECI_ERR_LUW_TOKEN, -8, "ECI_ERR_LUW_TOKEN"},
    {ECI_ERR_SYSTEM_ERROR, -9, "ECI_ERR_SYSTEM_ERROR"},
    {ECI_ERR_INVALID_CALL_TYPE, -14, "ECI_ERR_INVALID_CALL_TYPE"},
    {ECI_ERR_ALREADY_ACTIVE, -15, "ECI_ERR_ALREADY_ACTIVE"},
    {ECI_ERR_RESOURCE_SHORTAGE, -16, "ECI_ERR_RESOURCE_SHORTAGE"},
    {ECI_ERR_NO_SESSIONS, -17, "ECI_ERR_NO_SESSIONS"},
    {ECI_ERR_INVALID_DATA_AREA, -19, "ECI_ERR_INVALID_DATA_AREA"},
    {ECI_ERR_INVALID_VERSION, -21, "ECI_ERR_INVALID_VERSION"},
    {ECI_ERR_UNKNOWN_SERVER, -22, "ECI_ERR_UNKNOWN_SERVER"},
    {ECI_ERR_SECURITY_ERROR, -27, "ECI_ERR_SECURITY_ERROR"},
    {ECI_ERR_MAX_SYSTEMS, -28, "ECI_ERR_MAX_SYSTEMS"},
    {ECI_ERR_MAX_SESSIONS, -29, "ECI_ERR_MAX_SESSIONS"},
    {ECI_ERR_ROLLEDBACK, -30, "ECI_ERR_ROLLEDBACK"},
    {ECI_ERR_NO_REPLY, -32, "ECI_ERR_NO_REPLY"},
    {ECI_ERR_INVALID_MSG_QUAL, -33, "ECI_ERR_INVALID_MSG_QUAL"},
};

const Code channelCodes[] = {
    {ECI_NO_ERROR, 0, "ECI_NO_ERROR"},
    {ECI_ERR_INVALID_DATA_LENGTH, -1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {ECI_ERR_SYSTEM_ERROR, -9, "ECI_ERR_SYSTEM_ERROR"},
    {ECI_ERR_INVALID_CHANNEL, -50, "ECI_ERR_INVALID_CHANNEL"},
    {ECI_ERR_INVALID_NAME, -51, "ECI_ERR_INVALID_NAME"},
    {ECI_ERR_NULLCHANNELPTR, -52, "ECI_ERR_NULLCHANNELPTR"},
    {ECI_ERR_CHANNELLOCKFAIL, -53, "ECI_ERR_CHANNELLOCKFAIL"},
    {ECI_ERR_ENDOFCONTAINERS, -54, "ECI_ERR_ENDOFCONTAINERS"},
    {ECI_ERR_NULLINFOPTR, -55, "ECI_ERR_NULLINFOPTR"},
    {ECI_ERR_INVALID_TYPE, -56, "ECI_ERR_INVALID_TYPE"},
    {ECI_ERR_CONTAINER_NOTFOUND, -58, "ECI_ERR_CONTAINER_NOTFOUND"},
    {ECI_ERR_CONTAINER_EXISTS, -59, "ECI_ERR_CONTAINER_EXISTS"},
    {ECI_ERR_COMMAREA_AND_CHANNEL, -60, "ECI_ERR_COMMAREA_AND_CHANNEL"},
    {ECI_ERR_NULLPTR, -109, "ECI_ERR_NULLPTR"},
    {ECI_ERR_MEMORY_SHORTAGE, -111, "ECI_ERR_MEMORY_SHORTAGE"},
    {ECI_ERR_LOCKFAIL, -121, "ECI_ERR_LOCKFAIL"},
};

// The ESI codes; the Gateway's value for each condition follows in esiGatewayCodes.
const Code esiCodes[] = {
    {ESI_ERR_USERID_INVALID, -300, "ESI_ERR_USERID_INVALID"},
    {ESI_ERR_NULL_USERID, -301, "ESI_ERR_NULL_USERID"},
    {ESI_ERR_PASSWORD_INVALID, -302, "ESI_ERR_PASSWORD_INVALID"},
    {ESI_ERR_NULL_PASSWORD, -303, "ESI_ERR_NULL_PASSWORD"},
    {ESI_ERR_PEM_NOT_SUPPORTED, -304, "ESI_ERR_PEM_NOT_SUPPORTED"},
    {ESI_ERR_PEM_NOT_ACTIVE, -305, "ESI_ERR_PEM_NOT_ACTIVE"},
    {ESI_ERR_PASSWORD_EXPIRED, -306, "ESI_ERR_PASSWORD_EXPIRED"},
    {ESI_ERR_SECURITY_ERROR, -307, "ESI_ERR_SECURITY_ERROR"},
    {ESI_ERR_RESOURCE_SHORTAGE, -308, "ESI_ERR_RESOURCE_SHORTAGE"},
    {ESI_ERR_NO_SESSIONS, -309, "ESI_ERR_NO_SESSIONS"},
    {ESI_ERR_NO_VANT, -310, "ESI_ERR_NO_VANT"},
    {ESI_ERR_VANT_DIED, -311, "ESI_ERR_VANT_DIED"},
    {ESI_ERR_UNKNOWN_SERVER, -312, "ESI_ERR_UNKNOWN_SERVER"},
    {ESI_ERR_SYSTEM_ERROR, -313, "ESI_ERR_SYSTEM_ERROR"},
    {ESI_ERR_NULL_NEW_PASSWORD, -314, "ESI_ERR_NULL_NEW_PASSWORD"},
    {ESI_ERR_PASSWORD_REJECTED, -315, "ESI_ERR_PASSWORD_REJECTED"},
};

struct Name { int value; const char* name; };

const Name esiGatewayCodes[] = {
    {-108, "ESI_ERR_USERID_INVALID"}, {-100, "ESI_ERR_NULL_USERID"},      {-106, "ESI_ERR_PASSWORD_INVALID"},
    {-101, "ESI_ERR_NULL_PASSWORD"},  {-103, "ESI_ERR_PEM_NOT_SUPPORTED"}, {-104, "ESI_ERR_PEM_NOT_ACTIVE"},
    {-105, "ESI_ERR_PASSWORD_EXPIRED"}, {-27, "ESI_ERR_SECURITY_ERROR"},  {-16, "ESI_ERR_RESOURCE_SHORTAGE"},
    {-17, "ESI_ERR_NO_SESSIONS"},     {-3, "ESI_ERR_NO_VANT"},            {-4, "ESI_ERR_VANT_DIED"},
    {-22, "ESI_ERR_UNKNOWN_SERVER"},  {-9, "ESI_ERR_SYSTEM_ERROR"},       {-102, "ESI_ERR_NULL_NEW_PASSWORD"},
    {-107, "ESI_ERR_PASSWORD_REJECTED"}, {-28, "ESI_ERR_MAX_SYSTEMS"},    {-29, "ESI_ERR_MAX_SESSIONS"},
};

using Lookup = const char* (*)(int);

void expectFamily(const char* family, Lookup lookup, const Code* codes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(codes[i].value, codes[i].macro) << family << " " << codes[i].name;
        EXPECT_STREQ(codes[i].name, lookup(codes[i].value)) << family << " " << codes[i].value;
    }
}

std::string rcString(int rc) {
    char buffer[40];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(buffer, ZEP_getRcString(rc, buffer));
    return buffer;
}

}  // namespace

TEST(ReturnCodes, EveryCodeOfEveryFamilyHasItsName) {
    expectFamily("general", clapiGetRcString, generalCodes, sizeof generalCodes / sizeof generalCodes[0]);
    expectFamily("eci", clapiGetRcStringECI, eciCodes, sizeof eciCodes / sizeof eciCodes[0]);
    expectFamily("channel", clapiGetRcStringChannel, channelCodes, sizeof channelCodes / sizeof channelCodes[0]);
    expectFamily("esi", clapiGetRcStringESI, esiCodes, sizeof esiCodes / sizeof esiCodes[0]);
    for (const Name& code : esiGatewayCodes) EXPECT_STREQ(code.name, clapiGetRcStringESI(code.value)) << code.value;
}

// General names first, then the ECI table (falling through to the channel table), then the ESI table.
TEST(ReturnCodes, FamilyOrderOfTheGeneralLookup) {
    const Name cases[] = {
        {-9, "ZEP_ERR_SYSTEM_ERROR"},  {-109, "ZEP_ERR_NULLPTR"},          {-111, "ZEP_ERR_MALLOCFAIL"},
        {-101, "ZEP_ERR_BADGWTOK"},    {-100, "ZEP_ERR_NULLGWTOK"},        {-108, "ZEP_ERR_NULLGWTOKPTR"},
        {-104, "ZEP_ERR_TRACELEVEL"},  {0, "ZEP_OK"},                      {-1, "ECI_ERR_INVALID_DATA_LENGTH"},
        {-3, "ECI_ERR_NO_VANT"},       {-4, "ECI_ERR_VANT_DIED"},          {-16, "ECI_ERR_RESOURCE_SHORTAGE"},
        {-17, "ECI_ERR_NO_SESSIONS"},  {-22, "ECI_ERR_UNKNOWN_SERVER"},    {-27, "ECI_ERR_SECURITY_ERROR"},
        {-28, "ECI_ERR_MAX_SYSTEMS"},  {-29, "ECI_ERR_MAX_SESSIONS"},      {-50, "ECI_ERR_INVALID_CHANNEL"},
        {-60, "ECI_ERR_COMMAREA_AND_CHANNEL"}, {-121, "ECI_ERR_LOCKFAIL"}, {-105, "ESI_ERR_PASSWORD_EXPIRED"},
        {-106, "ESI_ERR_PASSWORD_INVALID"}, {-300, "ESI_ERR_USERID_INVALID"}, {-315, "ESI_ERR_PASSWORD_REJECTED"},
    };
    for (const Name& c : cases) {
        EXPECT_STREQ(c.name, clapiGetRcString(c.value)) << c.value;
        EXPECT_EQ(c.name, rcString(c.value)) << c.value;
    }
}

// The copy is bounded at 40 bytes: the name, then NULs up to the 40th byte, and nothing beyond.
TEST(ReturnCodes, CopyFillsExactlyFortyBytes) {
    unsigned char buffer[64];
    memset(buffer, 0xAA, sizeof buffer);
    char* text = reinterpret_cast<char*>(buffer);
    ASSERT_EQ(text, ZEP_getRcString(-101, text));
    const size_t nameLength = strlen("ZEP_ERR_BADGWTOK");
    EXPECT_EQ(0, memcmp(buffer, "ZEP_ERR_BADGWTOK", nameLength));
    for (size_t i = nameLength; i < 40; ++i) EXPECT_EQ(0, buffer[i]) << "byte " << i;
    for (size_t i = 40; i < sizeof buffer; ++i) EXPECT_EQ(0xAA, buffer[i]) << "byte " << i;
}

TEST(ReturnCodes, NullBufferReturnsNull) {
    EXPECT_EQ(nullptr, ZEP_getRcString(0, nullptr));
    EXPECT_EQ(nullptr, ZEP_getRcString(-101, nullptr));
}

TEST(ReturnCodes, GetRcStringRecords) {
    TraceCapture trace(3);
    char buffer[40];
    ZEP_getRcString(-101, buffer);
    ZEP_getRcString(-25, nullptr);
    char expected[96];
    snprintf(expected, sizeof expected, "API.ZEP_getRcString(rc=-101, rcString=%p)", static_cast<void*>(buffer));
    EXPECT_TRUE(trace.has(1062, expected));
    EXPECT_TRUE(trace.has(1063, "API.ZEP_getRcString() rcString=ZEP_ERR_BADGWTOK"));
    snprintf(expected, sizeof expected, "API.ZEP_getRcString(rc=-25, rcString=%p)", nullptr);
    EXPECT_TRUE(trace.has(1062, expected));
    EXPECT_TRUE(trace.has(1063, "API.ZEP_getRcString() rcString=NULL"));
}
