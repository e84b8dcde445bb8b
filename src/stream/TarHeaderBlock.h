// Layout of a 512-byte ustar/GNU header block and how its fields are read.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv::tar {

constexpr size_t kBlockSize = 512;

constexpr size_t kNameOffset = 0;
constexpr size_t kNameSize = 100;
constexpr size_t kModeOffset = 100;
constexpr size_t kModeSize = 8;
constexpr size_t kSizeOffset = 124;
constexpr size_t kMtimeOffset = 136;
constexpr size_t kNumberSize = 12;
constexpr size_t kChecksumOffset = 148;
constexpr size_t kChecksumSize = 8;
constexpr size_t kTypeOffset = 156;
constexpr size_t kLinkNameOffset = 157;
constexpr size_t kLinkNameSize = 100;
constexpr size_t kMagicOffset = 257;
constexpr size_t kPrefixOffset = 345;
constexpr size_t kPrefixSize = 155;

// Typeflags that extraction acts on; flags outside '0'..'L' are not entries of their own.
constexpr uint8_t kTypeFirst = '0';
constexpr uint8_t kTypeLast = 'L';
constexpr uint8_t kTypeRegular = '0';
constexpr uint8_t kTypeHardLink = '1';
constexpr uint8_t kTypeSymbolicLink = '2';
constexpr uint8_t kTypeFolder = '5';
constexpr uint8_t kTypeLongLink = 'K';
constexpr uint8_t kTypeLongName = 'L';
constexpr uint8_t kTypeContiguous = '7';
constexpr uint8_t kTypeDumpDir = 'D';
constexpr uint8_t kTypeMultiVolume = 'M';
constexpr uint8_t kTypeOldLongNames = 'N';
constexpr uint8_t kTypeSparse = 'S';
constexpr uint8_t kTypePaxEntry = 'x';
constexpr uint8_t kTypePaxGlobal = 'g';

// Old GNU sparse header: four map entries (offset and size, 12 bytes each), an "extended" flag and the
// real size; each extension block holds 21 more entries and its own flag.
constexpr size_t kSparseOffset = 386;
constexpr size_t kSparseEntriesInHeader = 4;
constexpr size_t kSparseExtendedOffset = 482;
constexpr size_t kSparseRealSizeOffset = 483;
constexpr size_t kSparseEntriesInExtension = 21;
constexpr size_t kSparseExtensionFlagOffset = 504;

// Name under which GNU tar stores long names and long link targets.
constexpr char kLongLinkMarker[] = "././@LongLink";
constexpr size_t kLongLinkMarkerLength = sizeof(kLongLinkMarker) - 1;

// Owner-write permission bit of the mode field.
constexpr uint32_t kOwnerWrite = 0200;

// A 12-byte numeric field: octal digits after one optional NUL and any blanks, ended by a blank, a NUL
// or the field's end (no digits at all reads 0); or, when the first byte is 0x80 or 0xFF, a big-endian
// two's-complement number (GNU, for values that do not fit). False for anything else; a negative or
// over-large value is -1 in *value.
bool headerNumber(const uint8_t* field, int64_t* value);

// The mode field through the C runtime's base-8 conversion.
uint32_t headerMode(const uint8_t* block);

// Whether all 512 bytes are zero (end-of-archive padding).
bool isZeroBlock(const uint8_t* block);

// Whether the block may be taken as a header: its checksum field is empty or matches the block's sum
// (unsigned or, as some old writers did, signed).
bool checksumAcceptable(const uint8_t* block);

// POSIX ustar (magic "ustar\0", version "00"): the prefix field continues the name.
bool isPosixUstar(const uint8_t* block);

// Length of a zero-padded text field (up to the first NUL or its width).
size_t fieldLength(const uint8_t* field, size_t width);

// Whether a header's name field starts with the marker of a GNU long name or long link entry.
bool hasLongLinkMarker(const uint8_t* block);

} // namespace qv::tar
