// Maps of GNU sparse files: which stretches of the file the archive holds, in order, each stored from
// a block boundary on; everything between them reads as zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qv::tar {

struct SparseRegion {
    int64_t offset = 0;
    int64_t size = 0;
};

// Most regions a map may list.
constexpr size_t kMaxSparseRegions = 1u << 18;

// Appends the entries of an old GNU map area (count entries of two 12-byte numbers); an entry whose
// offset field is empty ends it. False for a field that is not a number or a map grown too long.
bool readOldGnuSparseEntries(const uint8_t* at, size_t count, std::vector<SparseRegion>& map);

// A version 0.1 list "offset,size,offset,size...".
bool readSparseList(std::string_view text, std::vector<SparseRegion>& map);

enum class MapText { NeedMore, Complete, Bad };

// A version 1.0 map at the start of the entry's data (decimal numbers, each ended by a newline: the
// count, then offset and size of each region), as collected so far in whole blocks.
MapText readSparseMapText(std::string_view text, std::vector<SparseRegion>& map);

// Whether the map holds together: regions in ascending order without overlap, inside realSize, and
// their stored blocks exactly the dataBlocks that follow.
bool sparseMapHolds(const std::vector<SparseRegion>& map, int64_t realSize, int64_t dataBlocks);

} // namespace qv::tar
