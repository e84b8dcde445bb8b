#include "request/StoreBackup.h"

#include <windows.h>

#include <exception>

namespace {

constexpr DWORD kReplace = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;

} // namespace

StoreBackup::StoreBackup(const std::wstring& storePath)
{
    if (storePath.empty())
        return;
    try {
        backup_ = backupPath(storePath);
        // Copied under another name and renamed, so that a copy under the backup name is always whole.
        const std::wstring partial = backup_ + L".tmp";
        if (!CopyFileW(storePath.c_str(), partial.c_str(), FALSE) ||
            !MoveFileExW(partial.c_str(), backup_.c_str(), kReplace)) {
            DeleteFileW(partial.c_str());
            backup_.clear();
            return;
        }
    } catch (const std::exception&) {
        // Without memory for two names the write goes ahead unprotected, as it always did.
        backup_.clear();
        return;
    }
    // Held without sharing: another process opening the store meanwhile cannot take it for a leftover.
    held_.reset(CreateFileW(backup_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

StoreBackup::~StoreBackup()
{
    if (backup_.empty())
        return;
    held_.reset();
    DeleteFileW(backup_.c_str());
}

bool StoreBackup::recover(const std::wstring& storePath)
{
    if (storePath.empty())
        return false;
    try {
        const std::wstring backup = backupPath(storePath);
        DeleteFileW((backup + L".tmp").c_str());
        if (GetFileAttributesW(backup.c_str()) == INVALID_FILE_ATTRIBUTES)
            return false;
        // Fails while a living writer holds the copy: then there is nothing to recover.
        return MoveFileExW(backup.c_str(), storePath.c_str(), kReplace) != FALSE;
    } catch (const std::exception&) {
        return false;
    }
}
