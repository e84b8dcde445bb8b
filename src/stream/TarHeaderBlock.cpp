#include "stream/TarHeaderBlock.h"

#include <cstdlib>
#include <cstring>

namespace qv::tar {

bool headerNumber(const uint8_t* field, int64_t* value)
{
    *value = -1;
    if (field[0] == 0x80 || field[0] == 0xFF) {
        // Big-endian two's complement; only non-negative values of 63 bits are of use here.
        if (field[0] == 0xFF)
            return true;
        uint64_t result = 0;
        for (size_t i = 1; i < kNumberSize; ++i) {
            if (result >> 55)
                return true;
            result = (result << 8) | field[i];
        }
        *value = result > static_cast<uint64_t>(INT64_MAX) ? -1 : static_cast<int64_t>(result);
        return true;
    }
    size_t i = field[0] == 0 ? 1 : 0; // a writer of old let the previous field overflow into this NUL
    while (i < kNumberSize && field[i] == ' ')
        ++i;
    int64_t result = 0;
    for (; i < kNumberSize && field[i] >= '0' && field[i] <= '7'; ++i) {
        if (result >> 60)
            return true;
        result = result * 8 + (field[i] - '0');
    }
    if (i < kNumberSize && field[i] != ' ' && field[i] != 0)
        return false;
    *value = result;
    return true;
}

uint32_t headerMode(const uint8_t* block)
{
    char text[kModeSize + 1] = {};
    std::memcpy(text, block + kModeOffset, kModeSize);
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 8));
}

bool isZeroBlock(const uint8_t* block)
{
    for (size_t i = 0; i < kBlockSize; ++i)
        if (block[i] != 0)
            return false;
    return true;
}

bool checksumAcceptable(const uint8_t* block)
{
    const uint8_t* field = block + kChecksumOffset;
    size_t i = 0;
    while (i < kChecksumSize && (field[i] == ' ' || field[i] == 0))
        ++i;
    if (i == kChecksumSize)
        return true; // no checksum given
    uint32_t stored = 0;
    for (; i < kChecksumSize && field[i] >= '0' && field[i] <= '7'; ++i)
        stored = stored * 8 + static_cast<uint32_t>(field[i] - '0');
    for (; i < kChecksumSize; ++i)
        if (field[i] != ' ' && field[i] != 0)
            return false;

    uint32_t unsignedSum = 0;
    int32_t signedSum = 0;
    for (size_t k = 0; k < kBlockSize; ++k) {
        const bool inField = k >= kChecksumOffset && k < kChecksumOffset + kChecksumSize;
        const uint8_t byte = inField ? static_cast<uint8_t>(' ') : block[k];
        unsignedSum += byte;
        signedSum += static_cast<int8_t>(byte);
    }
    return stored == unsignedSum || static_cast<int32_t>(stored) == signedSum;
}

bool isPosixUstar(const uint8_t* block)
{
    return std::memcmp(block + kMagicOffset, "ustar\0" "00", 8) == 0;
}

size_t fieldLength(const uint8_t* field, size_t width)
{
    size_t n = 0;
    while (n < width && field[n] != 0)
        ++n;
    return n;
}

bool hasLongLinkMarker(const uint8_t* block)
{
    return std::memcmp(block + kNameOffset, kLongLinkMarker, kLongLinkMarkerLength) == 0;
}

} // namespace qv::tar
