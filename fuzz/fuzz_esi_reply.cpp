// The payload of an ESI reply.
#include "feed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    Feed feed(input.how, message(FLOW_REPLY, 1, "ESI", input.rest));
    Reader reader(feed.fd());
    if (!reader.ok) abort();   // the header is ours and whole
    EsiReply reply{};
    int rc = clapiReadESIResponse(&reader.sb, &reply);
    // A reply cut short never passes for a verified password.
    if (rc == 0 && input.rest.size() < 4 + 22 * 4) abort();
    return 0;
}
