// Builds tar header blocks for tests, independently of the library's scanner.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>

namespace qvtest {

// A ustar header block for a regular file of the given size, with a correct checksum.
inline std::string tarHeader(const std::string& name, unsigned long long size, char typeflag = '0')
{
    std::string block(512, '\0');
    std::memcpy(block.data(), name.data(), name.size() < 100 ? name.size() : 99);
    std::snprintf(block.data() + 100, 8, "%07o", 0644u);
    std::snprintf(block.data() + 108, 8, "%07o", 0u);
    std::snprintf(block.data() + 116, 8, "%07o", 0u);
    std::snprintf(block.data() + 124, 12, "%011llo", size);
    std::snprintf(block.data() + 136, 12, "%011o", 1700000000u);
    block[156] = typeflag;
    std::memcpy(block.data() + 257, "ustar\0" "00", 8);
    std::memset(block.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (unsigned char c : block)
        sum += c;
    char field[8];
    std::snprintf(field, sizeof field, "%06o", sum);
    std::memcpy(block.data() + 148, field, 7); // six digits and a NUL, then the blank stays
    return block;
}

} // namespace qvtest
