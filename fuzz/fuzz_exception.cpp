// The payload of an exception flow, read by the receiver thread itself for a request that waits.
#include "feed.h"

#include <pthread.h>

#include "clapi_gwycon.h"
#include "clapi_lock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Feed feed(data, size, FLOW_EXCEPTION, "ECI");
    clapiInit();
    GatewayToken* tok = static_cast<GatewayToken*>(calloc(1, sizeof(GatewayToken)));
    tok->socket = feed.fd();
    tok->connStatus = CONN_OPEN;
    RequestSlot* slot = &tok->requestTable[0];
    slot->slotNumber = 1;
    slot->slotState = SLOT_SENT;
    if (clapiInitializeLock(&tok->tableLock) != 0 || clapiCreateEvent(&slot->event) != 0 ||
        clapiCreateEvent(&tok->connEvent) != 0 || clapiCreateEvent(&tok->asyncReplyEvent) != 0 ||
        clapiCreateEvent(&tok->recvThreadEndedEvent) != 0 || clapiSetEvent(&tok->recvThreadEndedEvent) != 0)
        abort();
    pthread_t receiver;
    if (pthread_create(&receiver, nullptr, receiverThread, tok) != 0) abort();
    clapiWaitEvent(&tok->recvThreadEndedEvent);   // the thread detaches itself
    // The stream ends after the one message: the request is answered by the exception or failed by the end.
    int32_t code = slot->flowRc;
    if (slot->slotState != SLOT_REPLIED || (code != ZEP_ERR_GATEWAY_EXCEPTION && code != ZEP_ERR_LOSTGWCON)) abort();
    for (ClapiEvent* event : {&slot->event, &tok->connEvent, &tok->asyncReplyEvent, &tok->recvThreadEndedEvent})
        clapiDeleteEvent(event);
    clapiDestroyLock(&tok->tableLock);
    free(tok);
    return 0;
}
