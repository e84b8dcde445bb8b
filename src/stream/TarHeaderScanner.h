// Recognises tar header blocks (ustar and GNU) inside arbitrary bytes.
//
// Self-extracting packages (".sfx.exe") carry their compressed payload behind an executable stub,
// announced by one tar header block: stub, header (512 bytes, ustar magic, valid checksum, size =
// payload length), payload. The HTTP source finds that header in the first bytes it reads and hands
// on only what follows it; the tar sink can use the same test on the blocks it unpacks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv {

constexpr size_t kTarBlockSize = 512;

struct TarHeaderMatch {
    size_t headerOffset = 0; // where the header block starts in the scanned bytes
    uint32_t dataOffset = 0; // where the entry's data starts, counted from the header block
    uint64_t entrySize = 0;  // the header's size field
};

// True when the 512 bytes at block form a tar header: the magic "ustar" at offset 257 and a checksum
// field (offset 148) that matches the block's byte sum taken with that field as blanks.
bool isTarHeaderBlock(const uint8_t* block);

// The header's checksum as the tar format defines it (the checksum field counted as eight blanks).
uint32_t tarHeaderChecksum(const uint8_t* block);

// Searches data[0..count) for the first whole header block, at any byte offset.
bool findTarHeader(const uint8_t* data, size_t count, TarHeaderMatch* match);

} // namespace qv
