// Extended (pax) header records of a tar archive: "<length> <keyword>=<value>\n", the length counting
// the whole record in bytes. Read into what extraction uses; other keywords are passed over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "stream/TarSparseMap.h"

namespace qv::tar {

struct PaxAttributes {
    std::optional<std::string> path;     // UTF-8, as in the record
    std::optional<std::string> linkPath; // UTF-8
    int64_t size = -1;                   // -1: not given
    std::optional<int64_t> mtime;        // whole seconds, the fraction cut
    // GNU sparse files: version 0.0 repeats offset and size records, 0.1 gives a list, 1.0 keeps the
    // map in the data; 0.x and 1.0 give the file's real size and 0.1 and 1.0 its real name.
    std::optional<std::string> sparseName;
    int64_t sparseRealSize = -1;
    int64_t sparseMajor = -1;
    int64_t sparseMinor = -1;
    int64_t sparseCount = -1; // GNU.sparse.numblocks
    bool sparseListed = false; // offset and size records or a list were given
    std::vector<SparseRegion> sparseMap;

    bool sparse() const { return sparseMajor >= 0 || sparseListed || sparseRealSize >= 0; }
};

// Reads every record of text into attributes, later records overriding earlier ones. False for a
// malformed record (a length that is not a number, too small, or beyond the text; no '='; no final
// newline) or a number record whose value is not one.
bool readPaxRecords(std::string_view text, PaxAttributes& attributes);

// A decimal number of up to 18 digits without sign: false for anything else.
bool readDecimal(std::string_view text, int64_t& value);

} // namespace qv::tar
