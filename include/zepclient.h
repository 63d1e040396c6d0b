/* zepclient: the one header an application includes. */
#ifndef ZEPCLIENT_H
#define ZEPCLIENT_H

#include "zep_gateway.h"
#include "zep_eci.h"
#include "zep_channel.h"
#include "zep_esi.h"

#endif
