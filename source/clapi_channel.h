/* Channels, containers, the channel lock, names and code pages. */
#ifndef CLAPI_CHANNEL_H
#define CLAPI_CHANNEL_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CCSID_DEFAULT 819

extern Channel* chanList;

int         validateName(const char* name);
int         getCurrentCcsid(int* ccsidPtr);
int         lockChannel(Channel* chanTok);
int         unlockChannel(Channel* chanTok);

#ifdef __cplusplus
}
#endif

#endif
