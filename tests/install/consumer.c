/* A program built against an installed zepclient: calls UPPER through the zepgw on 127.0.0.1:<port>. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zepclient.h>

int main(int argc, char** argv)
{
    char area[16] = "installed";
    char name[ZEP_RC_STRING_LENGTH];
    GatewayToken* gateway = NULL;
    EciParms parms = {.eci_version = ECI_VERSION_MIN_COMMAREA, .eci_call_type = ECI_SYNC, .eci_commarea = area,
                      .eci_commarea_length = sizeof area};
    int rc = ZEP_openRemoteGatewayConnection("127.0.0.1", argc > 1 ? atoi(argv[1]) : 0, &gateway, 10);
    if (rc == ZEP_OK) {
        memcpy(parms.eci_program_name, "UPPER   ", 8);
        rc = ZEP_ECI_Execute(gateway, &parms);
        ZEP_closeGatewayConnection(&gateway);
    }
    printf("%s %s\n", ZEP_getRcString(rc, name), area);
    return rc != ZEP_OK;
}
