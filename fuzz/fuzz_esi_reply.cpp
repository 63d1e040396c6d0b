// The payload of an ESI reply.
#include "feed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader reader(data, size, "ESI");
    EsiReply reply{};
    // A reply cut short never passes for a verified password.
    if (clapiReadESIResponse(&reader.sb, &reply) == 0 && reader.feed.rest.size() < 4 + 22 * 4) abort();
    return 0;
}
