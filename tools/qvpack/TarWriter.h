// Writes a folder as a tar stream: ustar headers in GNU form, with GNU long-name entries for names
// over 100 bytes. Entries are sorted by name so that the same folder always gives the same archive.
#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>

namespace qvpack {

struct TarStats {
    uint64_t files = 0;
    uint64_t folders = 0;
    uint64_t links = 0;
    uint64_t bytes = 0; // size of the whole tar stream
};

// An extra file placed at the top of the archive (e.g. "dlm.ini").
struct ExtraEntry {
    std::string name;
    std::string content;
};

// Writes the tree below root (not root itself) to out; returns false with error set on failure.
bool writeTar(const std::filesystem::path& root, const ExtraEntry* extra, std::ostream& out, TarStats& stats,
              std::string& error);

} // namespace qvpack
