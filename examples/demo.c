/*
 * A tour of zepclient: open a Gateway connection, list its systems, call programs with a COMMAREA
 * synchronously and asynchronously, call a program with a channel of containers, verify a password,
 * and close the connection.
 *
 *     demo <port> [host]
 *
 * Exit status 0 when every step worked.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zepclient.h"

static int failures;

/* Reports a failed call with its return code's name; returns 1 when the call worked. */
static int check(const char* what, int rc)
{
    char name[ZEP_RC_STRING_LENGTH];
    if (rc == 0) return 1;
    printf("  FAILED: %s returned %d (%s)\n", what, rc, ZEP_getRcString(rc, name));
    failures++;
    return 0;
}

/* Fixed-width name fields of the parameter block are padded with blanks. */
static void setField(char* field, size_t width, const char* text)
{
    size_t length = strlen(text);
    memset(field, ' ', width);
    memcpy(field, text, length < width ? length : width);
}

/* A parameter block for one call of `program` with the given COMMAREA. */
static void prepareCall(EciParms* parms, short callType, const char* program, char* commarea, short length)
{
    memset(parms, 0, sizeof *parms);
    parms->eci_version = ECI_VERSION_ASYNC;   /* every call type but ECI_SYNC needs it */
    parms->eci_call_type = callType;
    setField(parms->eci_program_name, sizeof parms->eci_program_name, program);
    parms->eci_commarea = commarea;
    parms->eci_commarea_length = length;
}

static void listSystems(GatewayToken* gateway)
{
    SystemInfo systems[16];
    unsigned short count = 16;
    printf("Listing the systems the Gateway knows\n");
    if (!check("ZEP_listSystems", ZEP_listSystems(gateway, &count, systems))) return;
    for (unsigned short i = 0; i < count; i++)
        printf("  %-8s %s\n", systems[i].name, systems[i].description);
}

static void callSynchronously(GatewayToken* gateway)
{
    char commarea[32] = "hello, gateway";
    EciParms parms;
    printf("Calling program UPPER synchronously with \"%s\"\n", commarea);
    prepareCall(&parms, ECI_SYNC, "UPPER", commarea, sizeof commarea);
    if (!check("ZEP_ECI_Execute(UPPER)", ZEP_ECI_Execute(gateway, &parms))) return;
    printf("  UPPER answered \"%s\"\n", commarea);
}

/* Starts one asynchronous call and returns its message qualifier, or 0 when it could not be sent. */
static unsigned startCall(GatewayToken* gateway, const char* program, char* commarea, short length)
{
    EciParms parms;
    prepareCall(&parms, ECI_ASYNC, program, commarea, length);
    if (!check("ZEP_ECI_Execute(ECI_ASYNC)", ZEP_ECI_Execute(gateway, &parms))) return 0;
    printf("  sent \"%s\" to %s, message qualifier %u\n", commarea, program, parms.eci_message_qualifier);
    return parms.eci_message_qualifier;
}

/* Waits for the reply of one asynchronous call; it lands in `commarea`. */
static void collectReply(GatewayToken* gateway, unsigned qualifier, char* commarea, short length)
{
    EciParms parms;
    prepareCall(&parms, ECI_GET_SPECIFIC_REPLY_WAIT, "", commarea, length);
    parms.eci_message_qualifier = qualifier;
    if (!check("ZEP_ECI_Execute(ECI_GET_SPECIFIC_REPLY_WAIT)", ZEP_ECI_Execute(gateway, &parms))) return;
    printf("  reply to %u: \"%s\"\n", qualifier, commarea);
}

static void callAsynchronously(GatewayToken* gateway)
{
    char first[32] = "first request";
    char second[32] = "second request";
    short firstLength = (short)strlen(first);
    short secondLength = (short)strlen(second);
    printf("Calling programs REVERSE and ECHO asynchronously, then collecting the replies in order\n");
    unsigned a = startCall(gateway, "REVERSE", first, firstLength);
    unsigned b = startCall(gateway, "ECHO", second, secondLength);
    memset(first, 0, sizeof first);
    memset(second, 0, sizeof second);
    if (a != 0) collectReply(gateway, a, first, firstLength);
    if (b != 0) collectReply(gateway, b, second, secondLength);
}

static void showContainers(Channel* channel)
{
    ContainerInfo info;
    int rc = ECI_getFirstContainer(channel, &info);
    while (rc == 0) {
        char data[128];
        unsigned long got = 0;
        rc = ECI_getContainerData(channel, info.name, data, sizeof data - 1, 0, &got);
        if (!check("ECI_getContainerData", rc)) return;
        data[got] = '\0';
        printf("  %-16s %s %3lu bytes: %s\n", info.name, info.type == ECI_CHAR ? "CHAR" : "BIT ", got, data);
        rc = ECI_getNextContainer(channel, &info);
    }
    if (rc != ECI_ERR_ENDOFCONTAINERS) check("ECI_getNextContainer", rc);
}

static int fillChannel(Channel* channel)
{
    const char* reversed = "reverse me";
    const char* doubled = "twice ";
    const char* kept = "left alone";
    return check("ECI_createContainer(MODTEXT)", ECI_createContainer(channel, "MODTEXT", ECI_CHAR, 0, reversed,
                                                                    strlen(reversed))) &&
           check("ECI_createContainer(GROWDATA)", ECI_createContainer(channel, "GROWDATA", ECI_BIT, 0, doubled,
                                                                      strlen(doubled))) &&
           check("ECI_createContainer(KEEP)", ECI_createContainer(channel, "KEEP", ECI_CHAR, 0, kept, strlen(kept)));
}

static void callWithChannel(GatewayToken* gateway)
{
    Channel* channel = NULL;
    EciParms parms;
    printf("Calling program CHANNEL with a channel of three containers\n");
    if (!check("ECI_createChannel", ECI_createChannel("DEMOCHANNEL", &channel))) return;
    if (fillChannel(channel)) {
        prepareCall(&parms, ECI_SYNC, "CHANNEL", NULL, 0);
        parms.eci_channel = channel;
        if (check("ZEP_ECI_Execute_Channel(CHANNEL)", ZEP_ECI_Execute_Channel(gateway, &parms))) {
            printf("  the channel after the call:\n");
            showContainers(channel);
        }
    }
    check("ECI_deleteChannel", ECI_deleteChannel(&channel));
}

static void printTime(const char* label, const EsiTime* time)
{
    struct tm calendar;
    char text[64];
    ZEP_ESI_convertTime(time, &calendar);
    if (time->year == 0) {
        printf("  %-22s not set\n", label);
        return;
    }
    strftime(text, sizeof text, "%A %d %B %Y %H:%M:%S", &calendar);
    printf("  %-22s %s\n", label, text);
}

static void verifyPassword(GatewayToken* gateway)
{
    EsiDetails details;
    printf("Verifying the password of user ZEPUSER\n");
    if (!check("ZEP_ESI_verifyPassword", ZEP_ESI_verifyPassword(gateway, "ZEPUSER", "ZEPPASS1", NULL, &details)))
        return;
    printf("  password accepted\n");
    printTime("first time:", &details.esiTime1);
    printTime("second time:", &details.esiTime2);
    printTime("third time:", &details.esiTime3);
    printf("  %-22s %d\n", "verifications so far:", details.esiCount);
}

int main(int argc, char** argv)
{
    GatewayToken* gateway = NULL;
    const char* host = argc > 2 ? argv[2] : "127.0.0.1";
    if (argc < 2) {
        fprintf(stderr, "usage: %s <port> [host]\n", argv[0]);
        return 2;
    }
    int port = atoi(argv[1]);

    printf("Opening a connection to the Gateway at %s:%d\n", host, port);
    if (!check("ZEP_openRemoteGatewayConnection", ZEP_openRemoteGatewayConnection(host, port, &gateway, 10))) {
        printf("demo: could not connect, nothing else tried\n");
        return 1;
    }
    listSystems(gateway);
    callSynchronously(gateway);
    callAsynchronously(gateway);
    callWithChannel(gateway);
    verifyPassword(gateway);
    printf("Closing the connection\n");
    check("ZEP_closeGatewayConnection", ZEP_closeGatewayConnection(&gateway));

    if (failures == 0) printf("demo: every step worked\n");
    else printf("demo: %d step%s failed\n", failures, failures == 1 ? "" : "s");
    return failures == 0 ? 0 : 1;
}
