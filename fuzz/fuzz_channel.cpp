// The channel section of an ECI reply, applied to a channel that already holds containers.
#include "feed.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader reader(data, size, "ECI");
    Channel* channel = nullptr;
    if (ECI_createChannel("FUZZCHANNEL", &channel) != 0 ||
        ECI_createContainer(channel, "MODTEXT", ECI_CHAR, -1, "modify me", 9) != 0 ||
        ECI_createContainer(channel, "KEEP", ECI_BIT, -1, "keep", 4) != 0)
        abort();
    ContainerInfo info;
    ECI_getFirstContainer(channel, &info);   // a browse position for deletions to move
    readChannel(&reader.sb, channel);
    int32_t listed = 0;
    for (Container* c = channel->firstCont; c != nullptr; c = c->nextCont, ++listed)
        if (c->dataLength != 0 && c->dataPtr == nullptr) abort();
    if (listed != channel->numContainers) abort();
    ECI_deleteChannel(&channel);
    return 0;
}
