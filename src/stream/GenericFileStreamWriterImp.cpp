#include "stream/GenericFileStreamWriterImp.h"

#include <windows.h>

#include <io.h>
#include <share.h>

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "QvDLMCodes.h"
#include "stream/PathUtil.h"

namespace {

// The reason of a failed runtime call as a system error code.
uint32_t lastSystemError(uint32_t fallback)
{
    const DWORD error = GetLastError();
    return error != 0 ? error : fallback;
}

} // namespace

GenericFileStreamWriterImp::GenericFileStreamWriterImp(const wchar_t* path, int64_t offset)
    : path_(new wchar_t[kPathCapacity])
{
    offset_ = 0;
    std::wmemset(path_.get(), L'\0', kPathCapacity);
    if (path) {
        size_t n = 0;
        for (; n + 1 < kPathCapacity && path[n] != L'\0'; ++n)
            path_[n] = path[n];
    }
    if (offset == kKeepUntilRestored)
        open(true);
    else if (offset > 0)
        continueAt(offset);
    else
        open(false);
}

bool GenericFileStreamWriterImp::continueAt(int64_t offset)
{
    file_.reset();
    // Bytes the caller counts but the file lost cannot be made up.
    if (static_cast<uint64_t>(offset) > qv::fileSize(path_.get())) {
        lastStatus_ = ERROR_HANDLE_EOF;
        return false;
    }
    offset_ = offset;
    return open(false);
}

GenericFileStreamWriterImp::~GenericFileStreamWriterImp()
{
    offset_ = 0;
    file_.reset();
}

bool GenericFileStreamWriterImp::open(bool keepContents)
{
    file_.reset();
    const wchar_t* path = path_.get();
    const DWORD attributes = GetFileAttributesW(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
        SetFileAttributesW(path, attributes ^ FILE_ATTRIBUTE_READONLY);

    SetLastError(0);
    if (!keepContents && offset_ < 1) {
        file_.reset(_wfsopen(path, L"wbc+", _SH_DENYNO));
    } else {
        // Appending continues at the end; cutting the file first puts that end at offset.
        file_.reset(_wfsopen(path, L"abc+", _SH_DENYNO));
        if (file_ && !keepContents && _chsize_s(_fileno(file_.get()), offset_) != 0) {
            lastStatus_ = lastSystemError(ERROR_WRITE_FAULT);
            file_.reset();
            return false;
        }
    }
    if (!file_) {
        lastStatus_ = lastSystemError(ERROR_OPEN_FAILED);
        return false;
    }
    lastStatus_ = 0;
    return true;
}

void GenericFileStreamWriterImp::close()
{
    offset_ = 0;
    file_.reset();
}

bool GenericFileStreamWriterImp::restoreState(const StreamStateHeader* record)
{
    if (!record || record->size < sizeof(FileSinkState))
        return false;
    FileSinkState state;
    std::memcpy(&state, record, sizeof(state));
    if (state.offset < 0)
        return false;

    if (state.offset == 0) {
        offset_ = 0;
        return open(false); // continuing at 0 means writing the file anew
    }
    return continueAt(state.offset);
}

uint64_t GenericFileStreamWriterImp::saveState(StreamStateHeader* out, uint64_t* capacity)
{
    constexpr uint64_t size = sizeof(FileSinkState);
    if (!out || !capacity || *capacity < size)
        return size;
    // The recorded length must be on disk before a checkpoint may count on it.
    if (file_ && std::fflush(file_.get()) != 0)
        return 0;
    FileSinkState state{};
    state.size = static_cast<uint32_t>(size);
    state.offset = offset_;
    std::memcpy(out, &state, sizeof(state));
    return size;
}

int64_t GenericFileStreamWriterImp::writeBytes(const uint8_t* data, uint32_t count)
{
    const int32_t items = static_cast<int32_t>(count);
    if (!file_ || items <= 0 || !data)
        return 0;
    SetLastError(0);
    const size_t written = std::fwrite(data, 1, static_cast<size_t>(items), file_.get());
    offset_ += static_cast<int64_t>(written);
    if (written < static_cast<size_t>(items))
        lastStatus_ = qv::diskIsFull(path_ ? path_.get() : L"", count) ? qvdlm::status::OutOfDiskSpace : lastSystemError(ERROR_WRITE_FAULT);
    return static_cast<int64_t>(written);
}

bool GenericFileStreamWriterImp::endOfInput()
{
    if (file_ && std::fflush(file_.get()) != 0) {
        lastStatus_ = qv::diskIsFull(path_ ? path_.get() : L"", 512) ? qvdlm::status::OutOfDiskSpace : lastSystemError(ERROR_WRITE_FAULT);
        return false;
    }
    return true;
}
