/* Locks that know whether they live, and manual-reset events, over POSIX threads. */
#include "clapi_lock.h"

#include <errno.h>
#include <sys/time.h>

extern "C" { CLAPI_MODULE_VERSION(clapi_lock); }

int clapiInitializeLock(ClapiLock* lockPtr)
{
    if (lockPtr->initialized == CLAPI_LOCK_LIVE) return 1;
    int mutexRc = pthread_mutex_init(&lockPtr->lock, NULL);
    if (mutexRc != 0) {
        TRACE_EXC_NOLOCK(3101, "clapi_lock.clapiInitializeLockLock initialization failed &(lockPtr->lock)=%p mutexRc=%d errno=%d\n",
                         (void*)&lockPtr->lock, mutexRc, errno);
        return -1;
    }
    lockPtr->initialized = CLAPI_LOCK_LIVE;
    return 0;
}

int clapiRequestLock(ClapiLock* lockPtr)
{
    if (lockPtr->initialized != CLAPI_LOCK_LIVE) {
        TRACE_EXC_NOLOCK(3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    int rc = pthread_mutex_lock(&lockPtr->lock);
    if (rc != 0) {
        TRACE_EXC_NOLOCK(3105, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock request failed errno=%d\n", (void*)lockPtr, rc);
        return -1;
    }
    return 0;
}

int clapiReleaseLock(ClapiLock* lockPtr)
{
    if (lockPtr->initialized != CLAPI_LOCK_LIVE) {
        TRACE_EXC_NOLOCK(3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    int rc = pthread_mutex_unlock(&lockPtr->lock);
    if (rc != 0) {
        TRACE_EXC_NOLOCK(3109, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock release failed errno=%d\n", (void*)lockPtr, rc);
        return -1;
    }
    return 0;
}

int clapiDestroyLock(ClapiLock* lockPtr)
{
    if (lockPtr->initialized != CLAPI_LOCK_LIVE) {
        TRACE_EXC_NOLOCK(3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    int rc = pthread_mutex_destroy(&lockPtr->lock);
    if (rc != 0) {
        TRACE_EXC_NOLOCK(3113, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock destroy failed errno=%d\n", (void*)lockPtr, rc);
        return -1;
    }
    /* A later request, release or destroy is refused instead of touching a dead mutex. */
    lockPtr->initialized = CLAPI_LOCK_DESTROYED;
    return 0;
}

uint32_t clapiIsLockInitialized(ClapiLock* lockPtr)
{
    return lockPtr->initialized;
}

int clapiCreateEvent(ClapiEvent* eventPtr)
{
    int result = 0;
    TRACE_DEBUG(3115, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=%p\n", (void*)eventPtr);
    int rc = pthread_mutex_init(&eventPtr->mutex, NULL);
    if (rc != 0) {
        TRACE_EXC(3116, "clapi_lock.clapiCreateEvent() pthread_mutex_init failed, rc=%d\n", rc);
        result = -1;
    } else if ((rc = pthread_cond_init(&eventPtr->cond, NULL)) != 0) {
        TRACE_EXC(3117, "clapi_lock.clapiCreateEvent() pthread_cond_init failed, rc=%d\n", rc);
        pthread_mutex_destroy(&eventPtr->mutex);
        result = -1;
    }
    eventPtr->counter = 0;
    eventPtr->flag = 0;
    return result;
}

int clapiSetEvent(ClapiEvent* eventPtr)
{
    TRACE_DEBUG(3121, "clapi_lock.clapiSetEvent() Setting event, eventPtr=%p\n", (void*)eventPtr);
    pthread_mutex_lock(&eventPtr->mutex);
    eventPtr->flag = 0;
    pthread_mutex_unlock(&eventPtr->mutex);
    return 0;
}

/* Signals the event; `wakeInside`: broadcast before the event's mutex is released rather than after. */
static int signalEvent(ClapiEvent* eventPtr, bool wakeInside)
{
    TRACE_DEBUG(3122, "clapi_lock.clapiClearEvent() Clearing event, eventPtr=%p\n", (void*)eventPtr);
    pthread_mutex_lock(&eventPtr->mutex);
    eventPtr->counter++;
    eventPtr->flag = 1;
    int rc = wakeInside ? pthread_cond_broadcast(&eventPtr->cond) : 0;
    pthread_mutex_unlock(&eventPtr->mutex);
    if (!wakeInside) rc = pthread_cond_broadcast(&eventPtr->cond);
    if (rc == -1) {
        TRACE_EXC(3133, "clapi_lock.clapiClearEvent() pthread_cond_broadcast failed, rc=%d\n", errno);
        return -1;
    }
    return 0;
}

int clapiClearEvent(ClapiEvent* eventPtr)
{
    return signalEvent(eventPtr, true);
}

int clapiClearEventOutsideMutex(ClapiEvent* eventPtr)
{
    return signalEvent(eventPtr, false);
}

int clapiWaitEvent(ClapiEvent* eventPtr)
{
    int result = 0;
    TRACE_DEBUG(3119, "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=%p\n", (void*)eventPtr);
    pthread_mutex_lock(&eventPtr->mutex);
    if (eventPtr->flag != 1) {
        /* Leave only when the counter moves: spurious wake-ups and earlier signals are ignored. */
        uint32_t seen = eventPtr->counter;
        while (result == 0) {
            int rc = pthread_cond_wait(&eventPtr->cond, &eventPtr->mutex);
            if (rc != 0) {
                TRACE_EXC(3128, "clapi_lock.clapiWaitEvent() pthread_cond_wait failed, rc=%d\n", rc);
                result = -1;
            } else if (eventPtr->counter != seen) {
                break;
            }
        }
    }
    pthread_mutex_unlock(&eventPtr->mutex);
    return result;
}

int clapiTimedWaitEvent(ClapiEvent* eventPtr, int timeout, int* expired)
{
    int result = 0;
    *expired = 0;
    TRACE_DEBUG(3120, "clapi_lock.clapiTimedWaitEvent() Waiting on event, eventPtr=%p, timeout=%d, expired=%p\n",
                (void*)eventPtr, timeout, (void*)expired);
    pthread_mutex_lock(&eventPtr->mutex);
    if (eventPtr->flag != 1) {
        struct timeval now = {0, 0};
        int clockRc = gettimeofday(&now, NULL);
        if (clockRc != 0) {
            TRACE_EXC(3130, "clapi_lock.clapiTimedWaitEvent() gettimeofday failed, rc=%d\n", clockRc);
            result = -1;   /* the wait still takes place, measured from the epoch: it expires at once */
        }
        struct timespec deadline;
        deadline.tv_sec = now.tv_sec + timeout;
        deadline.tv_nsec = now.tv_usec * 1000;
        uint32_t seen = eventPtr->counter;
        for (;;) {
            int rc = pthread_cond_timedwait(&eventPtr->cond, &eventPtr->mutex, &deadline);
            if (rc == ETIMEDOUT) {
                *expired = 1;
                break;
            }
            if (rc != 0 || eventPtr->counter != seen) break;
        }
    }
    pthread_mutex_unlock(&eventPtr->mutex);
    return result;
}

int clapiDeleteEvent(ClapiEvent* eventPtr)
{
    int result = 0;
    TRACE_DEBUG(3118, "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=%p\n", (void*)eventPtr);
    int rc = pthread_mutex_destroy(&eventPtr->mutex);
    if (rc != 0) {
        TRACE_EXC(3125, "clapi_lock.clapiDeleteEvent() pthread_mutex_destroy failed, rc=%d\n", rc);
        result = -1;
    }
    rc = pthread_cond_destroy(&eventPtr->cond);
    if (rc != 0) {
        TRACE_EXC(3126, "clapi_lock.clapiDeleteEvent() pthread_cond_destroy failed, rc=%d\n", rc);
        result = -1;
    }
    eventPtr->counter = 0;
    eventPtr->flag = 0;
    return result;
}
