// Compresses a stream with the LZMA SDK's LZMA2 encoder into a package: the property byte first, then
// the raw LZMA2 stream, optionally split into numbered blocks of a fixed size.
#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <string>
#include <vector>

namespace qvpack {

struct PackOptions {
    std::string stem = "package";
    uint64_t blockSize = 0;          // 0: one file "stem.tar.lzma2"
    uint32_t dictionarySize = 8u << 20;
    int level = 6;
};

struct PackResult {
    std::vector<std::filesystem::path> files; // in block order
    uint64_t compressedSize = 0;             // property byte included
    uint8_t propertyByte = 0;
};

// Encodes in (size bytes) into outputDir; false with error set on failure.
bool packLzma2(std::istream& in, uint64_t size, const std::filesystem::path& outputDir, const PackOptions& options,
               PackResult& result, std::string& error);

// Name of block n (1-based) of count blocks: "stem_001_003.tar.lzma2"; count 0 gives "stem.tar.lzma2".
std::string blockFileName(const std::string& stem, unsigned n, unsigned count);

} // namespace qvpack
