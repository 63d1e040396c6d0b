// The payload of an ECI reply, decoded into a caller's area of random size between guard bytes, or into a
// library buffer that may grow.
#include "feed.h"

#include <vector>

constexpr size_t GUARD = 64;
constexpr uint8_t GUARD_BYTE = 0xA5;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4) return 0;
    const uint32_t areaSize = (data[1] << 8 | data[2]) % 2048;
    const uint8_t options = data[3];   // bit 0: library buffer; bit 1: extend mode 2; bit 2: a channel
    Reader reader(data, size, "ECI", 3);

    std::vector<uint8_t> guarded(areaSize + 2 * GUARD, GUARD_BYTE);
    EciRequest request{};
    request.growableArea = options & 1;
    request.commarea = request.growableArea ? calloc(1, areaSize + 1) : guarded.data() + GUARD;
    request.commareaCapacity = areaSize;
    request.extendMode = options & 2 ? 2 : 0;
    Channel* channel = nullptr;
    if (options & 4 && ECI_createChannel("FUZZCHANNEL", &channel) != 0) abort();
    request.channel = channel;
    clapiReadECIResponse(&reader.sb, &request);

    if (static_cast<uint32_t>(request.inboundLength) > request.commareaCapacity) abort();
    if (request.growableArea && request.commareaCapacity > std::max<uint32_t>(areaSize, 32767)) abort();
    for (size_t i = 0; i < GUARD; ++i)
        if (guarded[i] != GUARD_BYTE || guarded[GUARD + areaSize + i] != GUARD_BYTE) abort();
    if (request.growableArea) free(request.commarea);
    if (channel != nullptr) ECI_deleteChannel(&channel);
    return 0;
}
