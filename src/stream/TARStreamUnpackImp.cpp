#include "stream/TARStreamUnpackImp.h"

#include <cstring>

#include "stream/PathUtil.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TarEntryPath.h"

namespace {

// Record: u32 size, u32 tag, u32 folder length in UTF-16 units, then the folder.
constexpr uint32_t kUnpackRecordTag = 0x4B504E55; // "UNPK"
constexpr size_t kUnpackFixedSize = 12;
constexpr size_t kMaxFolderUnits = qv::kMaxLongPath;

} // namespace

TARStreamUnpackImp::TARStreamUnpackImp(TARStreamWriterImp& owner) : owner_(owner)
{
    qv::selectSymbolicLinkOperation();
}

bool TARStreamUnpackImp::setDestinationFolder(const wchar_t* folder)
{
    folder_.clear();
    canonical_.clear();
    if (!folder)
        return false;
    folder_ = folder;
    if (folder_.size() >= kMaxFolderUnits)
        folder_.resize(kMaxFolderUnits - 1);
    while (!folder_.empty() && (folder_.back() == L'\\' || folder_.back() == L'/'))
        folder_.pop_back();
    if (folder_.empty())
        return false;
    std::wstring canonical = folder_;
    if (qv::normalizePath(canonical) != 0)
        return false;
    canonical_ = canonical;
    return true;
}

bool TARStreamUnpackImp::finish() { return owner_.endOfInput(); }

uint64_t TARStreamUnpackImp::saveState(StreamStateHeader* out, uint64_t* capacity)
{
    const uint64_t size = kUnpackFixedSize + folder_.size() * sizeof(wchar_t);
    if (!out || !capacity || *capacity < size)
        return size;
    auto* bytes = reinterpret_cast<uint8_t*>(out);
    const uint32_t size32 = static_cast<uint32_t>(size);
    const uint32_t units = static_cast<uint32_t>(folder_.size());
    std::memcpy(bytes, &size32, 4);
    std::memcpy(bytes + 4, &kUnpackRecordTag, 4);
    std::memcpy(bytes + 8, &units, 4);
    if (units)
        std::memcpy(bytes + kUnpackFixedSize, folder_.data(), units * sizeof(wchar_t));
    return size;
}

bool TARStreamUnpackImp::restoreState(const StreamStateHeader* record)
{
    if (!record || record->size < kUnpackFixedSize)
        return false;
    const auto* bytes = reinterpret_cast<const uint8_t*>(record);
    uint32_t tag = 0;
    uint32_t units = 0;
    std::memcpy(&tag, bytes + 4, 4);
    std::memcpy(&units, bytes + 8, 4);
    if (tag != kUnpackRecordTag || units >= kMaxFolderUnits ||
        record->size != kUnpackFixedSize + static_cast<uint64_t>(units) * sizeof(wchar_t))
        return false;
    std::wstring folder(units, L'\0');
    if (units)
        std::memcpy(folder.data(), bytes + kUnpackFixedSize, units * sizeof(wchar_t));
    if (folder.find(L'\0') != std::wstring::npos)
        return false;
    if (canonical_.empty())
        return setDestinationFolder(folder.c_str());
    // The job sets the destination before it restores: a record that names another folder (damaged,
    // or not this download's) must not move the extraction there.
    while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/'))
        folder.pop_back();
    if (folder.empty() || qv::normalizePath(folder) != 0)
        return false;
    return qv::tar::isInsideFolder(canonical_, folder, true) && qv::tar::isInsideFolder(folder, canonical_, true);
}
