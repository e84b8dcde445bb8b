#include "stream/TarPaxRecords.h"

namespace qv::tar {

namespace {

// Seconds with an optional sign and fraction; the fraction is cut.
bool readTime(std::string_view text, int64_t& value)
{
    const bool negative = !text.empty() && text.front() == '-';
    if (negative)
        text.remove_prefix(1);
    const size_t dot = text.find('.');
    if (dot != std::string_view::npos) {
        for (const char c : text.substr(dot + 1))
            if (c < '0' || c > '9')
                return false;
        text = text.substr(0, dot);
    }
    if (!readDecimal(text, value))
        return false;
    if (negative)
        value = -value;
    return true;
}

bool apply(std::string_view keyword, std::string_view value, PaxAttributes& a, int64_t& pendingOffset)
{
    int64_t number = 0;
    if (keyword == "path")
        a.path = std::string(value);
    else if (keyword == "linkpath")
        a.linkPath = std::string(value);
    else if (keyword == "size")
        return readDecimal(value, a.size);
    else if (keyword == "mtime")
        return readTime(value, number) && (a.mtime = number, true);
    else if (keyword == "GNU.sparse.name")
        a.sparseName = std::string(value);
    else if (keyword == "GNU.sparse.size" || keyword == "GNU.sparse.realsize")
        return readDecimal(value, a.sparseRealSize);
    else if (keyword == "GNU.sparse.major")
        return readDecimal(value, a.sparseMajor);
    else if (keyword == "GNU.sparse.minor")
        return readDecimal(value, a.sparseMinor);
    else if (keyword == "GNU.sparse.numblocks")
        return readDecimal(value, a.sparseCount) && a.sparseCount <= static_cast<int64_t>(kMaxSparseRegions);
    else if (keyword == "GNU.sparse.offset") {
        if (pendingOffset >= 0 || !readDecimal(value, pendingOffset))
            return false;
    } else if (keyword == "GNU.sparse.numbytes") {
        if (pendingOffset < 0 || !readDecimal(value, number) || a.sparseMap.size() >= kMaxSparseRegions)
            return false;
        a.sparseMap.push_back({pendingOffset, number});
        a.sparseListed = true;
        pendingOffset = -1;
    } else if (keyword == "GNU.sparse.map") {
        a.sparseListed = true;
        return readSparseList(value, a.sparseMap);
    }
    return true;
}

} // namespace

bool readDecimal(std::string_view text, int64_t& value)
{
    if (text.empty() || text.size() > 18)
        return false;
    int64_t result = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
        result = result * 10 + (c - '0');
    }
    value = result;
    return true;
}

bool readPaxRecords(std::string_view text, PaxAttributes& attributes)
{
    int64_t pendingOffset = -1; // a version 0.0 offset record waits for its size record
    while (!text.empty()) {
        const size_t space = text.find(' ');
        int64_t length = 0;
        if (space == std::string_view::npos || space > 18 || !readDecimal(text.substr(0, space), length) ||
            length < static_cast<int64_t>(space) + 3 || static_cast<uint64_t>(length) > text.size())
            return false;
        const std::string_view record = text.substr(space + 1, static_cast<size_t>(length) - space - 1);
        const size_t equals = record.find('=');
        if (record.back() != '\n' || equals == std::string_view::npos || equals == 0)
            return false;
        if (!apply(record.substr(0, equals), record.substr(equals + 1, record.size() - equals - 2), attributes, pendingOffset))
            return false;
        text.remove_prefix(static_cast<size_t>(length));
    }
    return pendingOffset < 0;
}

} // namespace qv::tar
