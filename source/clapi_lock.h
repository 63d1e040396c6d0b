/* Locks that know whether they live, and manual-reset events. */
#ifndef CLAPI_LOCK_H
#define CLAPI_LOCK_H

#include "clapi_internal.h"

#ifdef __cplusplus
extern "C" {
#endif

int      clapiInitializeLock(ClapiLock* lockPtr);
int      clapiRequestLock(ClapiLock* lockPtr);
int      clapiReleaseLock(ClapiLock* lockPtr);
int      clapiDestroyLock(ClapiLock* lockPtr);
uint32_t clapiIsLockInitialized(ClapiLock* lockPtr);

/* The names read backwards: clapiClearEvent signals (releases every waiter), clapiSetEvent resets. */
int clapiCreateEvent(ClapiEvent* eventPtr);
int clapiSetEvent(ClapiEvent* eventPtr);
int clapiClearEvent(ClapiEvent* eventPtr);
/*
 * Signals as clapiClearEvent does, but wakes the waiters after releasing the event's mutex, so that a woken
 * waiter does not at once block on that mutex again. Only for an event that nobody can delete before this
 * returns, the caller's lock or thread guaranteeing it.
 */
int clapiClearEventOutsideMutex(ClapiEvent* eventPtr);
int clapiWaitEvent(ClapiEvent* eventPtr);
int clapiTimedWaitEvent(ClapiEvent* eventPtr, int timeout, int* expired);
int clapiDeleteEvent(ClapiEvent* eventPtr);

#ifdef __cplusplus
}

/* Holds a ClapiLock for one scope; `ok` tells whether it was taken. */
class ClapiLockGuard {
public:
    explicit ClapiLockGuard(ClapiLock* lock) : lock_(lock), ok(clapiRequestLock(lock) == 0) {}
    ~ClapiLockGuard() { if (ok) clapiReleaseLock(lock_); }
    ClapiLockGuard(const ClapiLockGuard&) = delete;
    ClapiLockGuard& operator=(const ClapiLockGuard&) = delete;
private:
    ClapiLock* lock_;
public:
    const bool ok;
};
#endif

#endif
