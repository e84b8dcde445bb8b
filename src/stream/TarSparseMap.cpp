#include "stream/TarSparseMap.h"

#include "stream/TarHeaderBlock.h"
#include "stream/TarPaxRecords.h"

namespace qv::tar {

bool readOldGnuSparseEntries(const uint8_t* at, size_t count, std::vector<SparseRegion>& map)
{
    for (size_t i = 0; i < count; ++i, at += 2 * kNumberSize) {
        if (at[0] == 0)
            break;
        SparseRegion region;
        if (!headerNumber(at, &region.offset) || !headerNumber(at + kNumberSize, &region.size) || region.offset < 0 ||
            region.size < 0 || map.size() >= kMaxSparseRegions)
            return false;
        map.push_back(region);
    }
    return true;
}

bool readSparseList(std::string_view text, std::vector<SparseRegion>& map)
{
    map.clear();
    std::vector<int64_t> numbers;
    while (!text.empty()) {
        const size_t comma = text.find(',');
        int64_t value = 0;
        if (!readDecimal(text.substr(0, comma), value) || numbers.size() >= 2 * kMaxSparseRegions)
            return false;
        numbers.push_back(value);
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    if (numbers.size() % 2)
        return false;
    for (size_t i = 0; i < numbers.size(); i += 2)
        map.push_back({numbers[i], numbers[i + 1]});
    return true;
}

MapText readSparseMapText(std::string_view text, std::vector<SparseRegion>& map)
{
    map.clear();
    int64_t count = -1;
    std::vector<int64_t> numbers;
    while (count < 0 || numbers.size() < 2 * static_cast<size_t>(count)) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos) // a number cut at the block's end goes on in the next one
            return text.find('\0') == std::string_view::npos && text.size() <= 18 ? MapText::NeedMore : MapText::Bad;
        int64_t value = 0;
        if (!readDecimal(text.substr(0, end), value))
            return MapText::Bad;
        text.remove_prefix(end + 1);
        if (count < 0) {
            if (value > static_cast<int64_t>(kMaxSparseRegions))
                return MapText::Bad;
            count = value;
        } else {
            numbers.push_back(value);
        }
    }
    for (size_t i = 0; i < numbers.size(); i += 2)
        map.push_back({numbers[i], numbers[i + 1]});
    return MapText::Complete;
}

bool sparseMapHolds(const std::vector<SparseRegion>& map, int64_t realSize, int64_t dataBlocks)
{
    if (realSize < 0 || map.size() > kMaxSparseRegions)
        return false;
    int64_t end = 0;
    int64_t blocks = 0;
    for (const SparseRegion& r : map) {
        if (r.offset < end || r.size < 0 || r.offset > realSize || r.size > realSize - r.offset)
            return false;
        end = r.offset + r.size;
        blocks += r.size / static_cast<int64_t>(kBlockSize) + (r.size % static_cast<int64_t>(kBlockSize) != 0);
    }
    return blocks == dataBlocks;
}

} // namespace qv::tar
