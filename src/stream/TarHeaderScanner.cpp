#include "stream/TarHeaderScanner.h"

#include <cstring>

namespace qv {

namespace {

constexpr size_t kChecksumOffset = 148;
constexpr size_t kChecksumLength = 8;
constexpr size_t kSizeOffset = 124;
constexpr size_t kSizeLength = 12;
constexpr size_t kMagicOffset = 257;
constexpr char kMagic[] = "ustar";

// An octal field: leading blanks, digits, then a blank or NUL. Anything else makes it unreadable.
bool readOctal(const uint8_t* field, size_t length, uint64_t* value)
{
    size_t i = 0;
    while (i < length && field[i] == ' ')
        ++i;
    uint64_t result = 0;
    size_t digits = 0;
    for (; i < length && field[i] >= '0' && field[i] <= '7'; ++i, ++digits)
        result = result * 8 + static_cast<uint64_t>(field[i] - '0');
    if (digits == 0)
        return false;
    for (; i < length; ++i)
        if (field[i] != ' ' && field[i] != '\0')
            return false;
    *value = result;
    return true;
}

} // namespace

uint32_t tarHeaderChecksum(const uint8_t* block)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < kTarBlockSize; ++i)
        sum += (i >= kChecksumOffset && i < kChecksumOffset + kChecksumLength) ? ' ' : block[i];
    return sum;
}

bool isTarHeaderBlock(const uint8_t* block)
{
    if (std::memcmp(block + kMagicOffset, kMagic, sizeof kMagic - 1) != 0)
        return false;
    uint64_t stored = 0;
    if (!readOctal(block + kChecksumOffset, kChecksumLength, &stored))
        return false;
    return stored == tarHeaderChecksum(block);
}

bool findTarHeader(const uint8_t* data, size_t count, TarHeaderMatch* match)
{
    if (!data || count < kTarBlockSize)
        return false;
    const size_t last = count - kTarBlockSize;
    for (size_t offset = 0; offset <= last; ++offset) {
        // The magic is the cheap filter; the checksum settles it.
        const void* magic = std::memchr(data + offset + kMagicOffset, kMagic[0], last - offset + 1);
        if (!magic)
            return false;
        offset = static_cast<size_t>(static_cast<const uint8_t*>(magic) - data) - kMagicOffset;
        if (!isTarHeaderBlock(data + offset))
            continue;
        if (match) {
            match->headerOffset = offset;
            match->dataOffset = static_cast<uint32_t>(kTarBlockSize);
            uint64_t size = 0;
            match->entrySize = readOctal(data + offset + kSizeOffset, kSizeLength, &size) ? size : 0;
        }
        return true;
    }
    return false;
}

} // namespace qv
