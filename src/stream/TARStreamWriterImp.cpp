#include "stream/TARStreamWriterImp.h"

#include "QvDLMCodes.h"
#include "log/EventPublisherImpl.h"

#include <io.h>
#include <share.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "QvDLMCodes.h"
#include "stream/PathUtil.h"
#include "stream/TarEntryPath.h"

using namespace qv::tar;
namespace tarerror = qvdlm::tarerror;

namespace {

// Longest GNU long name or link text taken (bytes of UTF-8): beyond any path the system accepts.
constexpr int64_t kMaxLongText = 3 * static_cast<int64_t>(qv::kMaxLongPath);
// Most bytes of extended header records kept (an entry's, and the global ones together), and of a
// sparse map's text.
constexpr int64_t kMaxPaxText = 1 << 20;
constexpr int64_t kMaxMapText = 48 * static_cast<int64_t>(kMaxSparseRegions) + 2 * static_cast<int64_t>(kBlockSize);

// Seconds from 1601-01-01 (file times) to 1970-01-01 (tar times), and the last second a file time holds.
constexpr int64_t kEpochDifference = 11644473600;
constexpr int64_t kLastFileTimeSecond = INT64_MAX / 10000000 - kEpochDifference;

constexpr int64_t blocksFor(int64_t bytes) { return (bytes + static_cast<int64_t>(kBlockSize) - 1) / kBlockSize; }

// Checkpoint record of the sink: a fixed part, then the long texts, the open file's relative path and
// the unpacker's own record.
constexpr uint32_t kSinkRecordTag = 0x31524154; // "TAR1"
constexpr size_t kSinkFixedSize = 6 * 4 + 7 * 8 + 4 * 4 + 2 * kBlockSize;
// Second version: the first one's fixed part, a further fixed part for extended headers and sparse
// files, then the variable parts of both (those of the second before the unpacker's record).
constexpr uint32_t kSinkRecordTag2 = 0x32524154; // "TAR2"
constexpr size_t kSinkMoreSize = 6 * 4 + 3 * 8;

constexpr uint32_t kFlagReceivedAny = 1;
constexpr uint32_t kFlagSawArchive = 2;
constexpr uint32_t kFlagLinksMade = 4;
constexpr uint32_t kFlagSawEndMarker = 8;

class RecordOut {
public:
    explicit RecordOut(uint8_t* at) : at_(at) {}
    void put(const void* data, size_t size)
    {
        if (size)
            std::memcpy(at_, data, size);
        at_ += size;
    }
    void u32(uint32_t v) { put(&v, sizeof v); }
    void i64(int64_t v) { put(&v, sizeof v); }

private:
    uint8_t* at_;
};

class RecordIn {
public:
    RecordIn(const uint8_t* at, size_t size) : at_(at), left_(size) {}
    bool get(void* data, size_t size)
    {
        if (size > left_)
            return false;
        if (size)
            std::memcpy(data, at_, size);
        at_ += size;
        left_ -= size;
        return true;
    }
    bool u32(uint32_t& v) { return get(&v, sizeof v); }
    bool i64(int64_t& v) { return get(&v, sizeof v); }
    const uint8_t* here() const { return at_; }
    size_t left() const { return left_; }

private:
    const uint8_t* at_;
    size_t left_;
};

// A long text as collected: up to its first NUL.
size_t textLength(const std::string& text)
{
    return static_cast<size_t>(std::find(text.begin(), text.end(), '\0') - text.begin());
}

bool finalPath(const std::wstring& path, std::wstring& out)
{
    qv::UniqueFile handle(CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle)
        return false;
    std::wstring buffer(qv::kMaxLongPath, L'\0');
    const DWORD n = GetFinalPathNameByHandleW(handle.get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                              FILE_NAME_NORMALIZED);
    if (n == 0 || n >= buffer.size())
        return false;
    out.assign(buffer.data(), n);
    return true;
}

bool widen(const char* text, size_t length, std::wstring& out)
{
    out.clear();
    if (length == 0)
        return true;
    std::vector<wchar_t> buffer(length + 1);
    if (!qv::utf8ToWide(text, length, buffer.data(), buffer.size()))
        return false;
    out = buffer.data();
    return true;
}

} // namespace

TARStreamWriterImp::TARStreamWriterImp(const wchar_t* destinationFolder) : unpack_(*this)
{
    if (destinationFolder)
        unpack_.setDestinationFolder(destinationFolder);
}

TARStreamWriterImp::~TARStreamWriterImp() { file_.reset(); }

void TARStreamWriterImp::close()
{
    file_.reset();
    pending_.closeAll();
}

bool TARStreamWriterImp::fail(uint32_t code)
{
    lastStatus_ = code;
    failed_ = true;
    return false;
}

int64_t TARStreamWriterImp::writeBytes(const uint8_t* data, uint32_t count)
{
    if (failed_)
        return -1;
    if (count == 0)
        return 0;
    if (!data) {
        fail(ERROR_INVALID_PARAMETER);
        return -1;
    }
    receivedAny_ = true;

    size_t used = 0;
    if (partialCount_ != 0) {
        const size_t take = std::min<size_t>(kBlockSize - partialCount_, count);
        std::memcpy(partialBlock_ + partialCount_, data, take);
        partialCount_ += static_cast<uint32_t>(take);
        used = take;
        if (partialCount_ == kBlockSize) {
            partialCount_ = 0;
            if (!processBlocks(partialBlock_, 1))
                return -1;
        }
    }
    const size_t whole = (count - used) / kBlockSize;
    if (whole != 0) {
        if (!processBlocks(data + used, whole))
            return -1;
        used += whole * kBlockSize;
    }
    if (used < count) {
        // Only reached with no partial block pending: the loop above would have consumed it.
        partialCount_ = static_cast<uint32_t>(count - used);
        std::memcpy(partialBlock_, data + used, partialCount_);
    }
    return failed_ ? -1 : count; // an entry's file that could not be closed whole fails the write too
}

bool TARStreamWriterImp::processBlocks(const uint8_t* data, size_t blocks)
{
    while (blocks != 0) {
        switch (phase_) {
        case Phase::FileData:
        case Phase::SparseData: {
            const size_t used = phase_ == Phase::FileData ? writeFileData(data, blocks) : writeSparseData(data, blocks);
            if (used == 0)
                return false;
            data += used * kBlockSize;
            blocks -= used;
            break;
        }
        case Phase::SkipData: {
            const size_t used = static_cast<size_t>(
                std::min<int64_t>(static_cast<int64_t>(blocks), entryBlocks_ - blocksWritten_));
            blocksWritten_ += static_cast<int64_t>(used);
            data += used * kBlockSize;
            blocks -= used;
            if (blocksWritten_ >= entryBlocks_) {
                clearEntry();
                phase_ = Phase::Header;
            }
            break;
        }
        case Phase::LongName:
        case Phase::LongLink:
            collectLongText(data);
            data += kBlockSize;
            --blocks;
            break;
        case Phase::PaxEntry:
        case Phase::PaxGlobal:
        case Phase::SparseExtension:
        case Phase::SparseMap: {
            const bool ok = phase_ == Phase::SparseExtension ? readSparseExtension(data)
                            : phase_ == Phase::SparseMap     ? collectSparseMap(data)
                                                             : collectPaxText(data);
            if (!ok)
                return false;
            data += kBlockSize;
            --blocks;
            break;
        }
        case Phase::Header:
            if (!headerStep(data))
                return false;
            data += kBlockSize;
            --blocks;
            break;
        case Phase::Trailing:
            blocks = 0;
            break;
        }
    }
    return true;
}

size_t TARStreamWriterImp::writeFileData(const uint8_t* data, size_t blocks)
{
    if (!file_) {
        fail(tarerror::ShortWrite);
        return 0;
    }
    const int64_t remaining = entrySize_ - fileBytes_;
    const size_t toWrite = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(blocks * kBlockSize), remaining));
    if (std::fwrite(data, 1, toWrite, file_.get()) != toWrite) {
        fail(qv::diskIsFull(filePath_, toWrite) ? qvdlm::status::OutOfDiskSpace : tarerror::ShortWrite);
        return 0;
    }
    fileBytes_ += static_cast<int64_t>(toWrite);
    // The padding of the last block is skipped with it.
    const int64_t used = blocksFor(static_cast<int64_t>(toWrite));
    blocksWritten_ += used;
    if (fileBytes_ >= entrySize_)
        finishEntry();
    return static_cast<size_t>(used);
}

void TARStreamWriterImp::collectLongText(const uint8_t* block)
{
    const bool name = phase_ == Phase::LongName;
    std::string& text = name ? longName_ : longLink_;
    int64_t& left = name ? longNameLeft_ : longLinkLeft_;
    const size_t take = static_cast<size_t>(std::min<int64_t>(left, static_cast<int64_t>(kBlockSize)));
    text.append(reinterpret_cast<const char*>(block), take);
    left -= static_cast<int64_t>(take);
    ++blocksWritten_;
    if (left <= 0) {
        // The text belongs to the next header; the entry that carried it is done.
        entrySize_ = entryBlocks_ = blocksWritten_ = 0;
        phase_ = Phase::Header;
    }
}

bool TARStreamWriterImp::collectPaxText(const uint8_t* block)
{
    std::string& text = phase_ == Phase::PaxEntry ? paxEntry_ : paxGlobal_;
    const size_t take = static_cast<size_t>(std::min<int64_t>(paxLeft_, static_cast<int64_t>(kBlockSize)));
    text.append(reinterpret_cast<const char*>(block), take);
    paxLeft_ -= static_cast<int64_t>(take);
    ++blocksWritten_;
    if (paxLeft_ > 0)
        return true;
    PaxAttributes check;
    if (!readPaxRecords(text, check))
        return fail(tarerror::BadHeader);
    entrySize_ = entryBlocks_ = blocksWritten_ = 0;
    phase_ = Phase::Header;
    return true;
}

bool TARStreamWriterImp::headerStep(const uint8_t* block)
{
    if (isZeroBlock(block)) {
        sawArchive_ = true;
        sawEndMarker_ = true;
        return true;
    }
    const uint8_t type = block[kTypeOffset];
    const bool extended = type == kTypePaxEntry || type == kTypePaxGlobal || type == kTypeSparse ||
                          type == kTypeMultiVolume || type == kTypeOldLongNames;
    if ((type < kTypeFirst || type > kTypeLast) && !(extended && checksumAcceptable(block)))
        return true; // not an entry of its own (among them the old regular-file flag, whose data then follows as headers)
    int64_t size = -1;
    int64_t time = -1;
    const bool numbers = headerNumber(block + kSizeOffset, &size) && headerNumber(block + kMtimeOffset, &time);
    if (!checksumAcceptable(block) || !numbers || size < 0) {
        // Past the end-of-archive blocks, what is not a header is whatever the package appended
        // (a signature, say); before them it means the stream is not tar.
        if (!sawEndMarker_)
            return fail(tarerror::BadHeader);
        phase_ = Phase::Trailing;
        return true;
    }

    sawArchive_ = true;
    clearEntry();
    std::memcpy(header_, block, kBlockSize);
    entrySize_ = size;
    entryBlocks_ = blocksFor(size);
    if (type == kTypePaxEntry || type == kTypePaxGlobal) {
        std::string& text = type == kTypePaxEntry ? paxEntry_ : paxGlobal_;
        if (type == kTypePaxEntry)
            text.clear();
        if (size > kMaxPaxText - static_cast<int64_t>(text.size()))
            return fail(tarerror::BadHeader);
        paxLeft_ = size;
        if (size > 0)
            phase_ = type == kTypePaxEntry ? Phase::PaxEntry : Phase::PaxGlobal;
        return true;
    }
    // Continued from another volume, or names kept apart: not extracted exactly.
    if (type == kTypeMultiVolume || type == kTypeOldLongNames)
        return fail(tarerror::BadHeader);
    return beginEntry(type, time);
}

bool TARStreamWriterImp::beginEntry(uint8_t type, int64_t time)
{
    if (type == kTypeLongName || type == kTypeLongLink) {
        if (!hasLongLinkMarker(header_)) {
            startSkipping();
            return true;
        }
        if (entrySize_ > kMaxLongText)
            return fail(tarerror::NameConversion);
        const bool name = type == kTypeLongName;
        (name ? longName_ : longLink_).clear();
        (name ? longNameLeft_ : longLinkLeft_) = entrySize_;
        if (entrySize_ > 0)
            phase_ = name ? Phase::LongName : Phase::LongLink;
        return true;
    }

    // Records of global headers, then of the entry's own (sparse maps only from there).
    PaxAttributes global;
    PaxAttributes pax;
    if (!readPaxRecords(paxGlobal_, global))
        return fail(tarerror::BadHeader);
    pax.path = global.path;
    pax.linkPath = global.linkPath;
    pax.mtime = global.mtime;
    const bool entryRecords = readPaxRecords(paxEntry_, pax);
    paxEntry_.clear();
    if (!entryRecords)
        return fail(tarerror::BadHeader);
    if (pax.size >= 0) {
        entrySize_ = pax.size;
        entryBlocks_ = blocksFor(pax.size);
    }
    const bool sparse = type == kTypeSparse || ((type == kTypeRegular || type == kTypeContiguous) && pax.sparse());
    paxName_ = sparse && pax.sparseName ? pax.sparseName : pax.path;
    paxLink_ = pax.linkPath;
    if (pax.mtime)
        time = *pax.mtime;
    modificationTime_ = (time > 0 && time <= kLastFileTimeSecond) ? time : 0;

    bool ok = true;
    switch (type) {
    case kTypeRegular:
    case kTypeContiguous:
    case kTypeSparse:
        ok = beginRegularFile(type, pax);
        break;
    case kTypeDumpDir: // a folder with the list of its contents as data
        ok = makeFolder();
        startSkipping();
        break;
    case kTypeHardLink:
        ok = makeHardLink();
        break;
    case kTypeSymbolicLink:
        ok = makeSymbolicLink();
        break;
    case kTypeFolder:
        ok = makeFolder();
        break;
    case '3': // character and block devices and FIFOs: nothing to make, no data
    case '4':
    case '6':
        break;
    default:
        startSkipping();
        break;
    }
    // A long name or link target serves exactly one entry.
    longName_.clear();
    longLink_.clear();
    longNameLeft_ = longLinkLeft_ = 0;
    paxName_.reset();
    paxLink_.reset();
    return ok;
}

void TARStreamWriterImp::startSkipping()
{
    blocksWritten_ = 0;
    if (entryBlocks_ > 0)
        phase_ = Phase::SkipData;
}

void TARStreamWriterImp::clearEntry()
{
    entrySize_ = entryBlocks_ = blocksWritten_ = fileBytes_ = 0;
    modificationTime_ = 0;
    mode_ = 0;
    sparse_.clear();
    region_ = 0;
    regionDone_ = 0;
    realSize_ = -1;
    mapText_.clear();
    mapLines_ = 0;
    fileRelative_.clear();
    filePath_.clear();
}

bool TARStreamWriterImp::entryName(std::wstring& relative, uint32_t refusedCode, bool* folderLike)
{
    std::wstring name;
    if (paxName_) {
        if (!widen(paxName_->data(), textLength(*paxName_), name))
            return fail(tarerror::NameConversion);
    } else if (!longName_.empty()) {
        if (!widen(longName_.data(), textLength(longName_), name))
            return fail(tarerror::NameConversion);
    } else {
        std::string raw;
        if (isPosixUstar(header_)) {
            const size_t prefix = fieldLength(header_ + kPrefixOffset, kPrefixSize);
            if (prefix) {
                raw.assign(reinterpret_cast<const char*>(header_ + kPrefixOffset), prefix);
                raw += '/';
            }
        }
        raw.append(reinterpret_cast<const char*>(header_ + kNameOffset), fieldLength(header_ + kNameOffset, kNameSize));
        if (!widen(raw.data(), raw.size(), name))
            return fail(tarerror::NameConversion);
    }
    if (folderLike)
        *folderLike = !name.empty() && (name.back() == L'/' || name.back() == L'\\');
    if (!relativeEntryPath(name, relative))
        return fail(refusedCode);
    return true;
}

bool TARStreamWriterImp::entryLinkText(std::wstring& text)
{
    if (paxLink_ || !longLink_.empty()) {
        const std::string& link = paxLink_ ? *paxLink_ : longLink_;
        if (!widen(link.data(), textLength(link), text))
            return fail(tarerror::NameConversion);
        return true;
    }
    if (!widen(reinterpret_cast<const char*>(header_ + kLinkNameOffset),
               fieldLength(header_ + kLinkNameOffset, kLinkNameSize), text))
        return fail(tarerror::NameConversion);
    return true;
}

bool TARStreamWriterImp::staysInside(const std::wstring& relative, bool allowSelf) const
{
    const std::wstring& canonical = unpack_.canonicalFolder();
    if (canonical.empty())
        return false;
    std::wstring full = unpack_.folder();
    if (!relative.empty()) {
        full += L'\\';
        full += relative;
    }
    if (qv::normalizePath(full, &paths_) != 0)
        return false;
    return isInsideFolder(canonical, full, allowSelf);
}

bool TARStreamWriterImp::passesThroughLink(const std::wstring& relative, bool includeLast) const
{
    // Only links that this archive made can be on the way: the destination starts out empty.
    if (!linksMade_)
        return false;
    size_t cut = 0;
    while (cut != std::wstring::npos) {
        cut = relative.find(L'\\', cut == 0 ? 0 : cut + 1);
        if (cut == std::wstring::npos && !includeLast)
            break;
        std::wstring path = unpack_.folder() + L'\\' + relative.substr(0, cut);
        if (!qv::toLongPath(path))
            return true;
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES)
            continue;
        if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) || (cut == std::wstring::npos && isRedirected(path)))
            return true;
    }
    return false;
}

bool TARStreamWriterImp::isRedirected(const std::wstring& path)
{
    const size_t cut = path.find_last_of(L'\\');
    if (cut == std::wstring::npos || cut + 1 == path.size())
        return false;
    std::wstring parent = path.substr(0, cut);
    if (parent.back() == L':')
        parent += L'\\';
    std::wstring own;
    std::wstring folder;
    if (!finalPath(path, own) || !finalPath(parent, folder))
        return false;
    if (folder.back() != L'\\')
        folder += L'\\';
    folder.append(path, cut + 1, std::wstring::npos);
    return own.size() != folder.size() ||
           CompareStringOrdinal(own.data(), static_cast<int>(own.size()), folder.data(), static_cast<int>(folder.size()),
                                TRUE) != CSTR_EQUAL;
}

bool TARStreamWriterImp::beginRegularFile(uint8_t type, const PaxAttributes& pax)
{
    std::wstring relative;
    bool folderLike = false;
    if (!entryName(relative, tarerror::FileOpen, &folderLike))
        return false;
    // Old writers stored folders as regular entries whose name ends with a separator.
    if (folderLike && entrySize_ == 0)
        return makeFolder();
    if (relative.empty() || !staysInside(relative, false) || passesThroughLink(relative, false))
        return fail(tarerror::FileOpen);
    std::wstring path;
    if (!qv::preparePath(unpack_.folder(), relative, path, &paths_))
        return fail(tarerror::FileOpen);

    // Only a file that was there already has attributes to check.
    FILE* file = qv::createNewFile(path);
    if (!file) {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES) {
            // Never written through, nor deleted: some systems delete a link's target instead of the link.
            if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) || isRedirected(path))
                return fail(tarerror::FileOpen);
            if (attributes & FILE_ATTRIBUTE_READONLY)
                SetFileAttributesW(path.c_str(), attributes ^ FILE_ATTRIBUTE_READONLY);
        }
        file = _wfsopen(path.c_str(), L"wb+", _SH_DENYNO);
    }
    if (!file)
        return fail(tarerror::FileOpen);
    file_.reset(file);
    fileRelative_ = relative;
    filePath_ = path;
    mode_ = headerMode(header_);
    if (type == kTypeSparse || pax.sparse())
        return beginSparse(type, pax);
    if (entrySize_ == 0)
        finishEntry();
    else
        phase_ = Phase::FileData;
    return true;
}

bool TARStreamWriterImp::beginSparse(uint8_t type, const PaxAttributes& pax)
{
    if (type == kTypeSparse) {
        if (!headerNumber(header_ + kSparseRealSizeOffset, &realSize_) || realSize_ < 0 ||
            !readOldGnuSparseEntries(header_ + kSparseOffset, kSparseEntriesInHeader, sparse_))
            return fail(tarerror::BadHeader);
        if (header_[kSparseExtendedOffset] != 0) {
            phase_ = Phase::SparseExtension;
            return true;
        }
        return startSparseData();
    }
    realSize_ = pax.sparseRealSize;
    if (realSize_ < 0)
        return fail(tarerror::BadHeader);
    if (pax.sparseMajor == 1 && pax.sparseMinor == 0) {
        phase_ = Phase::SparseMap;
        return entryBlocks_ > 0 ? true : fail(tarerror::BadHeader);
    }
    if (pax.sparseMajor > 0 || (pax.sparseCount >= 0 && static_cast<uint64_t>(pax.sparseCount) != pax.sparseMap.size()))
        return fail(tarerror::BadHeader);
    sparse_ = pax.sparseMap;
    return startSparseData();
}

bool TARStreamWriterImp::readSparseExtension(const uint8_t* block)
{
    if (!readOldGnuSparseEntries(block, kSparseEntriesInExtension, sparse_))
        return fail(tarerror::BadHeader);
    return block[kSparseExtensionFlagOffset] != 0 ? true : startSparseData();
}

bool TARStreamWriterImp::collectSparseMap(const uint8_t* block)
{
    mapText_.append(reinterpret_cast<const char*>(block), kBlockSize);
    mapLines_ += static_cast<size_t>(std::count(block, block + kBlockSize, '\n'));
    ++blocksWritten_;
    int64_t count = -1;
    if (mapLines_ > 0 && !readDecimal(std::string_view(mapText_).substr(0, mapText_.find('\n')), count))
        return fail(tarerror::BadHeader);
    if (count >= 0 && mapLines_ >= 1 + 2 * static_cast<uint64_t>(count)) {
        if (readSparseMapText(mapText_, sparse_) != MapText::Complete)
            return fail(tarerror::BadHeader);
        mapText_.clear();
        mapLines_ = 0;
        return startSparseData();
    }
    if (blocksWritten_ >= entryBlocks_ || static_cast<int64_t>(mapText_.size()) >= kMaxMapText)
        return fail(tarerror::BadHeader);
    return true;
}

bool TARStreamWriterImp::startSparseData()
{
    if (!sparseMapHolds(sparse_, realSize_, entryBlocks_ - blocksWritten_))
        return fail(tarerror::BadHeader);
    region_ = 0;
    regionDone_ = 0;
    phase_ = Phase::SparseData;
    return nextSparseRegion();
}

bool TARStreamWriterImp::nextSparseRegion()
{
    while (region_ < sparse_.size() && sparse_[region_].size == 0)
        ++region_;
    if (region_ < sparse_.size())
        return true;
    // The holes after the last region: the file takes its real size.
    std::fflush(file_.get());
    const HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file_.get())));
    LARGE_INTEGER length;
    length.QuadPart = realSize_;
    if (handle == INVALID_HANDLE_VALUE || !SetFilePointerEx(handle, length, nullptr, FILE_BEGIN) || !SetEndOfFile(handle))
        return fail(tarerror::ShortWrite);
    finishEntry();
    return true;
}

size_t TARStreamWriterImp::writeSparseData(const uint8_t* data, size_t blocks)
{
    const SparseRegion& region = sparse_[region_];
    if (!file_ || (regionDone_ == 0 && _fseeki64(file_.get(), region.offset, SEEK_SET) != 0)) {
        fail(tarerror::ShortWrite);
        return 0;
    }
    const size_t toWrite = static_cast<size_t>(
        std::min<int64_t>(static_cast<int64_t>(blocks * kBlockSize), region.size - regionDone_));
    if (std::fwrite(data, 1, toWrite, file_.get()) != toWrite) {
        fail(tarerror::ShortWrite);
        return 0;
    }
    regionDone_ += static_cast<int64_t>(toWrite);
    fileBytes_ += static_cast<int64_t>(toWrite);
    const int64_t used = blocksFor(static_cast<int64_t>(toWrite));
    blocksWritten_ += used;
    if (regionDone_ == region.size) {
        ++region_;
        regionDone_ = 0;
        if (!nextSparseRegion())
            return 0;
    }
    return static_cast<size_t>(used);
}

int64_t TARStreamWriterImp::sparsePosition() const
{
    if (phase_ != Phase::SparseData || sparse_.empty())
        return 0;
    if (regionDone_ > 0)
        return sparse_[region_].offset + regionDone_;
    return region_ == 0 ? 0 : sparse_[region_ - 1].offset + sparse_[region_ - 1].size;
}

void TARStreamWriterImp::finishEntry()
{
    if (file_) {
        // What the runtime still holds goes to the system now: a full disk must not cut the file short unseen.
        if (std::fflush(file_.get()) != 0)
            fail(qv::diskIsFull(filePath_, kBlockSize) ? qvdlm::status::OutOfDiskSpace : tarerror::ShortWrite);
        // The times go on the handle still open; the file reaches the disk by the next checkpoint.
        const uint64_t ticks =
            modificationTime_ != 0 ? static_cast<uint64_t>(modificationTime_ + kEpochDifference) * 10000000u : 0;
        if (!pending_.add(file_.release(), ticks))
            std::printf("SetFileTime() failed with error %lu.\n", GetLastError());
    }
    if (!filePath_.empty()) {
        // Flipped, not set: the same rule as the plain file sink.
        if (mode_ != 0 && (mode_ & kOwnerWrite) == 0) {
            const DWORD attributes = GetFileAttributesW(filePath_.c_str());
            if (attributes != INVALID_FILE_ATTRIBUTES)
                SetFileAttributesW(filePath_.c_str(), attributes ^ FILE_ATTRIBUTE_READONLY);
        }
    }
    clearEntry();
    phase_ = Phase::Header;
}

bool TARStreamWriterImp::makeHardLink()
{
    std::wstring relative;
    std::wstring text;
    std::wstring target;
    if (!entryName(relative, tarerror::HardLink) || !entryLinkText(text))
        return false;
    if (relative.empty() || !relativeEntryPath(text, target) || target.empty())
        return fail(tarerror::HardLink);
    // The target must not be a link either: a link made elsewhere would point somewhere else.
    if (!staysInside(relative, false) || !staysInside(target, false) || passesThroughLink(relative, false) ||
        passesThroughLink(target, true))
        return fail(tarerror::HardLink);
    std::wstring existing = unpack_.folder() + L'\\' + target;
    std::wstring path;
    pending_.flushAll(); // the target may be a file still open here; a failure stays for the checkpoint
    if (!qv::toLongPath(existing) || !qv::preparePath(unpack_.folder(), relative, path, &paths_) ||
        !qv::linkOrCopy(path, existing))
        return fail(tarerror::HardLink);
    return true;
}

bool TARStreamWriterImp::makeSymbolicLink()
{
    std::wstring relative;
    std::wstring text;
    std::wstring target;
    if (!entryName(relative, tarerror::SymbolicLink) || !entryLinkText(text))
        return false;
    if (relative.empty() || !relativeLinkTarget(relative, text, target))
        return fail(tarerror::SymbolicLink);
    if (!staysInside(relative, false) || !staysInside(target, true) || passesThroughLink(relative, false) ||
        passesThroughLink(target, false))
        return fail(tarerror::SymbolicLink);
    std::wstring path;
    pending_.flushAll(); // a copy may stand in for the link: its target must be closed
    if (!qv::preparePath(unpack_.folder(), relative, path, &paths_))
        return fail(tarerror::SymbolicLink);
    // Kept relative, so that the link still holds once the tree has moved to its final folder.
    std::replace(text.begin(), text.end(), L'/', L'\\');
    std::wstring existing = unpack_.folder() + L'\\' + target;
    const bool haveTarget = qv::toLongPath(existing) && GetFileAttributesW(existing.c_str()) != INVALID_FILE_ATTRIBUTES;
    const bool folderTarget = haveTarget && (GetFileAttributesW(existing.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0;
    linksMade_ = true;
    if (qv::symbolicLink(path, text, folderTarget))
        return true;
    // Where the system refuses the link, a copy of its target (inside the destination, checked above)
    // stands in for it; a link never fails the package.
    const bool copied = haveTarget && qv::copyTree(existing, path);
    std::wstring line = L"Symbolic link " + relative + L" -> " + text + L" could not be made";
    line += copied ? L"; a copy of its target stands in its place" : L"; it is left out";
    publishText(eventSource_, line.c_str(), qvdlm::event::Information);
    return true;
}

bool TARStreamWriterImp::makeFolder()
{
    std::wstring relative;
    if (!entryName(relative, tarerror::Folder))
        return false;
    if (relative.empty())
        return staysInside(relative, true) ? true : fail(tarerror::Folder); // the destination itself
    if (!staysInside(relative, false) || passesThroughLink(relative, false))
        return fail(tarerror::Folder);
    std::wstring path;
    if (!qv::preparePath(unpack_.folder(), relative, path, &paths_))
        return fail(tarerror::Folder);
    if (!CreateDirectoryW(path.c_str(), nullptr)) {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            return fail(tarerror::Folder);
        SetLastError(0);
    }
    return true;
}

bool TARStreamWriterImp::endOfInput()
{
    if (failed_)
        return false;
    const bool danglingPart = partialCount_ != 0 && !sawEndMarker_;
    const bool betweenEntries = phase_ == Phase::Header || phase_ == Phase::Trailing;
    if (!betweenEntries || danglingPart || !longName_.empty() || !longLink_.empty() || !paxEntry_.empty())
        return fail(tarerror::Truncated);
    if (!sawArchive_) // nothing at all, or nothing that is tar, is not an (empty) package
        return fail(tarerror::BadHeader);
    // Complete only once every extracted file is on the disk.
    if (!pending_.flushAll())
        return fail(tarerror::ShortWrite);
    return true;
}

uint64_t TARStreamWriterImp::saveState(StreamStateHeader* out, uint64_t* capacity)
{
    const uint64_t unpackSize = unpack_.saveState(nullptr, nullptr);
    const uint64_t size = kSinkFixedSize + kSinkMoreSize + longName_.size() + longLink_.size() +
                          fileRelative_.size() * sizeof(wchar_t) + paxEntry_.size() + paxGlobal_.size() +
                          mapText_.size() + sparse_.size() * sizeof(SparseRegion) + unpackSize;
    if (!out || !capacity || *capacity < size)
        return size;
    // Every file written so far must be on the disk before the record says so; when it cannot be, there
    // is no record.
    if (!pending_.flushAll(file_.get()))
        return 0;

    uint32_t flags = 0;
    flags |= receivedAny_ ? kFlagReceivedAny : 0;
    flags |= sawArchive_ ? kFlagSawArchive : 0;
    flags |= linksMade_ ? kFlagLinksMade : 0;
    flags |= sawEndMarker_ ? kFlagSawEndMarker : 0;

    auto* bytes = reinterpret_cast<uint8_t*>(out);
    RecordOut w(bytes);
    w.u32(static_cast<uint32_t>(size));
    w.u32(kSinkRecordTag2);
    w.u32(static_cast<uint32_t>(phase_));
    w.u32(flags);
    w.u32(partialCount_);
    w.u32(mode_);
    w.i64(entrySize_);
    w.i64(entryBlocks_);
    w.i64(blocksWritten_);
    w.i64(fileBytes_);
    w.i64(modificationTime_);
    w.i64(longNameLeft_);
    w.i64(longLinkLeft_);
    w.u32(static_cast<uint32_t>(longName_.size()));
    w.u32(static_cast<uint32_t>(longLink_.size()));
    w.u32(static_cast<uint32_t>(fileRelative_.size()));
    w.u32(static_cast<uint32_t>(unpackSize));
    w.put(partialBlock_, kBlockSize);
    w.put(header_, kBlockSize);
    w.u32(static_cast<uint32_t>(paxEntry_.size()));
    w.u32(static_cast<uint32_t>(paxGlobal_.size()));
    w.u32(static_cast<uint32_t>(mapText_.size()));
    w.u32(static_cast<uint32_t>(sparse_.size()));
    w.u32(region_);
    w.u32(0);
    w.i64(paxLeft_);
    w.i64(regionDone_);
    w.i64(realSize_);
    w.put(longName_.data(), longName_.size());
    w.put(longLink_.data(), longLink_.size());
    w.put(fileRelative_.data(), fileRelative_.size() * sizeof(wchar_t));
    w.put(paxEntry_.data(), paxEntry_.size());
    w.put(paxGlobal_.data(), paxGlobal_.size());
    w.put(mapText_.data(), mapText_.size());
    w.put(sparse_.data(), sparse_.size() * sizeof(SparseRegion));
    std::vector<uint32_t> unpackRecord(static_cast<size_t>((unpackSize + 3) / 4));
    uint64_t unpackCapacity = unpackRecord.size() * sizeof(uint32_t);
    unpack_.saveState(reinterpret_cast<StreamStateHeader*>(unpackRecord.data()), &unpackCapacity);
    w.put(unpackRecord.data(), static_cast<size_t>(unpackSize));
    return size;
}

bool TARStreamWriterImp::restoreState(const StreamStateHeader* record)
{
    if (!record || record->size < kSinkFixedSize)
        return false;
    RecordIn r(reinterpret_cast<const uint8_t*>(record), record->size);
    uint32_t size = 0, tag = 0, phase = 0, flags = 0, partial = 0, mode = 0;
    int64_t entrySize = 0, entryBlocks = 0, blocksWritten = 0, fileBytes = 0, time = 0, nameLeft = 0, linkLeft = 0;
    uint32_t nameBytes = 0, linkBytes = 0, relativeUnits = 0, unpackSize = 0;
    r.u32(size);
    r.u32(tag);
    r.u32(phase);
    r.u32(flags);
    r.u32(partial);
    r.u32(mode);
    r.i64(entrySize);
    r.i64(entryBlocks);
    r.i64(blocksWritten);
    r.i64(fileBytes);
    r.i64(time);
    r.i64(nameLeft);
    r.i64(linkLeft);
    r.u32(nameBytes);
    r.u32(linkBytes);
    r.u32(relativeUnits);
    r.u32(unpackSize);
    uint8_t partialBlock[kBlockSize];
    uint8_t header[kBlockSize];
    r.get(partialBlock, kBlockSize);
    r.get(header, kBlockSize);
    // A record of the first version holds nothing of extended headers or sparse files.
    const bool second = tag == kSinkRecordTag2;
    uint32_t paxBytes = 0, globalBytes = 0, mapBytes = 0, regions = 0, region = 0, reserved = 0;
    int64_t paxLeft = 0, regionDone = 0, realSize = -1;
    if (second && !(r.u32(paxBytes) && r.u32(globalBytes) && r.u32(mapBytes) && r.u32(regions) && r.u32(region) &&
                    r.u32(reserved) && r.i64(paxLeft) && r.i64(regionDone) && r.i64(realSize)))
        return false;
    const Phase lastPhase = second ? Phase::SparseData : Phase::Trailing;
    if ((tag != kSinkRecordTag && !second) || phase > static_cast<uint32_t>(lastPhase) || partial >= kBlockSize)
        return false;
    if (entrySize < 0 || entryBlocks != blocksFor(entrySize) || blocksWritten < 0 || blocksWritten > entryBlocks ||
        fileBytes < 0 || fileBytes > entrySize || time < 0 || time > kLastFileTimeSecond || nameLeft < 0 ||
        linkLeft < 0 || nameBytes > kMaxLongText || linkBytes > kMaxLongText || relativeUnits >= qv::kMaxLongPath)
        return false;
    if (paxBytes > kMaxPaxText || globalBytes > kMaxPaxText || mapBytes > kMaxMapText || regions > kMaxSparseRegions ||
        region > regions || paxLeft < 0 || paxLeft > kMaxPaxText || regionDone < 0 || realSize < -1)
        return false;
    const uint64_t expected = kSinkFixedSize + (second ? kSinkMoreSize : 0) + static_cast<uint64_t>(nameBytes) +
                              linkBytes + static_cast<uint64_t>(relativeUnits) * sizeof(wchar_t) + paxBytes +
                              globalBytes + mapBytes + static_cast<uint64_t>(regions) * sizeof(SparseRegion) + unpackSize;
    if (expected != size)
        return false;

    std::string longName(nameBytes, '\0');
    std::string longLink(linkBytes, '\0');
    std::wstring relative(relativeUnits, L'\0');
    std::string paxEntry(paxBytes, '\0');
    std::string paxGlobal(globalBytes, '\0');
    std::string mapText(mapBytes, '\0');
    std::vector<SparseRegion> sparse(regions);
    r.get(longName.data(), nameBytes);
    r.get(longLink.data(), linkBytes);
    r.get(relative.data(), relativeUnits * sizeof(wchar_t));
    r.get(paxEntry.data(), paxBytes);
    r.get(paxGlobal.data(), globalBytes);
    r.get(mapText.data(), mapBytes);
    r.get(sparse.data(), regions * sizeof(SparseRegion));
    if (r.left() != unpackSize || unpackSize < sizeof(StreamStateHeader))
        return false;
    StreamStateHeader unpackHeader;
    std::memcpy(&unpackHeader, r.here(), sizeof unpackHeader);
    if (unpackHeader.size != unpackSize)
        return false;
    // The nested record may sit at any alignment: hand over an aligned copy.
    std::vector<uint32_t> unpackRecord((unpackSize + 3) / 4);
    std::memcpy(unpackRecord.data(), r.here(), unpackSize);

    const Phase restoredPhase = static_cast<Phase>(phase);
    const bool sparsePhase = restoredPhase == Phase::SparseExtension || restoredPhase == Phase::SparseMap ||
                             restoredPhase == Phase::SparseData;
    if ((restoredPhase == Phase::FileData || sparsePhase) && relative.empty())
        return false;
    if ((restoredPhase == Phase::FileData && fileBytes >= entrySize) ||
        ((restoredPhase == Phase::PaxEntry || restoredPhase == Phase::PaxGlobal) && paxLeft == 0))
        return false;
    int64_t storedBlocks = 0;
    for (const SparseRegion& s : sparse)
        storedBlocks += s.size >= 0 && s.size <= INT64_MAX / 2 ? blocksFor(s.size) : 0;
    if (sparsePhase && (realSize < 0 || !sparseMapHolds(sparse, realSize, storedBlocks)))
        return false;
    if (restoredPhase == Phase::SparseData && (region >= regions || regionDone >= sparse[region].size))
        return false;
    if (!unpack_.restoreState(reinterpret_cast<const StreamStateHeader*>(unpackRecord.data())))
        return false;

    file_.reset();
    failed_ = false;
    lastStatus_ = 0;
    phase_ = restoredPhase;
    receivedAny_ = (flags & kFlagReceivedAny) != 0;
    sawArchive_ = (flags & kFlagSawArchive) != 0;
    linksMade_ = (flags & kFlagLinksMade) != 0;
    sawEndMarker_ = (flags & kFlagSawEndMarker) != 0;
    partialCount_ = partial;
    std::memcpy(partialBlock_, partialBlock, kBlockSize);
    std::memcpy(header_, header, kBlockSize);
    mode_ = mode;
    entrySize_ = entrySize;
    entryBlocks_ = entryBlocks;
    blocksWritten_ = blocksWritten;
    fileBytes_ = fileBytes;
    modificationTime_ = time;
    longName_ = std::move(longName);
    longLink_ = std::move(longLink);
    longNameLeft_ = nameLeft;
    longLinkLeft_ = linkLeft;
    paxEntry_ = std::move(paxEntry);
    paxGlobal_ = std::move(paxGlobal);
    paxLeft_ = paxLeft;
    mapText_ = std::move(mapText);
    mapLines_ = static_cast<size_t>(std::count(mapText_.begin(), mapText_.end(), '\n'));
    sparse_ = std::move(sparse);
    region_ = region;
    regionDone_ = regionDone;
    realSize_ = realSize;
    fileRelative_.clear();
    filePath_.clear();
    if ((phase_ == Phase::FileData || sparsePhase) &&
        !reopenFile(relative, phase_ == Phase::FileData ? fileBytes : sparsePosition()))
        return fail(tarerror::FileOpen);
    return true;
}

bool TARStreamWriterImp::reopenFile(const std::wstring& relative, int64_t length)
{
    std::wstring check;
    if (!relativeEntryPath(relative, check) || check != relative || !staysInside(relative, false))
        return false;
    std::wstring path;
    if (!qv::preparePath(unpack_.folder(), relative, path, &paths_))
        return false;
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ||
        (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) || isRedirected(path))
        return false;
    const int64_t onDisk = static_cast<int64_t>((static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow);
    if (onDisk < length)
        return false; // the checkpointed bytes are not all there: cannot continue exactly
    if (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY)
        SetFileAttributesW(path.c_str(), data.dwFileAttributes ^ FILE_ATTRIBUTE_READONLY);
    // Not in append mode: a sparse file's next region is written further on.
    qv::UniqueCrtFile file(_wfsopen(path.c_str(), L"r+bc", _SH_DENYNO));
    if (!file)
        return false;
    // Writing continues exactly at the checkpointed length; later bytes are dropped.
    const HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file.get())));
    LARGE_INTEGER position;
    position.QuadPart = length;
    if (handle == INVALID_HANDLE_VALUE || !SetFilePointerEx(handle, position, nullptr, FILE_BEGIN) ||
        !SetEndOfFile(handle) || _fseeki64(file.get(), length, SEEK_SET) != 0)
        return false;
    file_ = std::move(file);
    fileRelative_ = relative;
    filePath_ = path;
    return true;
}
