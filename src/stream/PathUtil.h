// Path helpers shared by the sinks and the job: full canonical paths, the long forms "\\?\" and
// "\\?\UNC\", creation of missing folders, existence, links. All paths are UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_set>


namespace qv {

constexpr wchar_t kLongPathPrefix[] = L"\\\\?\\";        // "\\?\"
constexpr wchar_t kLongUncPrefix[] = L"\\\\?\\UNC\\";    // "\\?\UNC\"
constexpr wchar_t kDevicePrefix[] = L"\\\\.\\";          // "\\.\"
constexpr wchar_t kSubstTargetPrefix[] = L"\\??\\";      // how a substituted drive's target is reported
constexpr wchar_t kUncRemnant[] = L"UNC\\";
constexpr wchar_t kPathSeparator = L'\\';

// Paths of at most this many units stay in the short form.
constexpr size_t kShortPathLimit = 248;
// Fixed buffer of the short-form folder creation.
constexpr size_t kShortPathBuffer = 260;
// The largest path the system accepts in the long form, with the terminator.
constexpr size_t kMaxLongPath = 32768;

constexpr uint32_t kErrorBadPathName = 161; // ERROR_BAD_PATHNAME
constexpr uint32_t kErrorAlreadyExists = 183; // ERROR_ALREADY_EXISTS

// What one run learns about the file system: folders known to exist (made or found in this run) and
// the answers about substituted drives, so that a sink placing many entries asks the system once per
// folder and once per drive letter. Belongs to one thread.
class PathCache {
public:
    bool knowsFolder(const std::wstring& folder) const { return folders_.count(folder) != 0; }
    void addFolder(const std::wstring& folder) { folders_.insert(folder); }
    // The target of a substituted drive without "\??\"; false for a real drive. Asked once per letter.
    bool substitutedTarget(wchar_t letter, std::wstring& target);

private:
    struct Drive {
        bool asked = false;
        bool substituted = false;
        std::wstring target;
    };
    std::unordered_set<std::wstring> folders_;
    Drive drives_[26];
};

// Makes path full and canonical: drops a "\\?\" or "\\.\" before a drive letter, turns "\\?\UNC\"
// back into "\\", follows substituted drives to their targets. Returns 0 or a system error code;
// 161 for a device path, a non-letter drive or anything else that is not a drive or network path.
uint32_t normalizePath(std::wstring& path, PathCache* cache = nullptr);

// normalizePath, then the long prefix: always "\\?\UNC\" for a network path with server and share,
// "\\?\" for a local path of 249 units or more.
bool toLongPath(std::wstring& path, PathCache* cache = nullptr);

// Creates every missing folder above a short-form path (at most 259 units).
bool ensureParentFolder(const std::wstring& path, PathCache* cache = nullptr);

// Creates every missing folder above a path of either form.
bool ensureParentFolderLong(const std::wstring& path, PathCache* cache = nullptr);

// out = folder + "\" + name in the form the file system accepts, with its parent folders created
// (those the cache knows are taken as they are).
bool preparePath(const std::wstring& folder, const std::wstring& name, std::wstring& out, PathCache* cache = nullptr);

// Makes path as a new file, open for reading and writing and shared with everyone, as a runtime
// stream in binary mode; null when something is there already or it cannot be made (the reason in
// GetLastError).
FILE* createNewFile(const std::wstring& path);

// Whether a file or folder exists; a long path without its prefix never does.
bool pathExists(const std::wstring& path);

// Size of a file; 0 for a folder or when it cannot be read.
uint64_t fileSize(const std::wstring& path);

// Hard link at newPath to existingPath, else a copy over newPath. An existing newPath counts as done.
bool linkOrCopy(const std::wstring& newPath, const std::wstring& existingPath);

// The operation behind symbolicLink, in the shape of CreateSymbolicLinkW.
using SymbolicLinkOperation = unsigned char(__stdcall*)(const wchar_t* linkPath, const wchar_t* targetPath,
                                                        unsigned long flags);

// Chooses the process-wide symbolic-link operation: CreateSymbolicLinkW where the system has it
// (major version 6 and later), a copy of the target onto the link path before that.
void selectSymbolicLinkOperation();
// Replaces the operation (tests, and systems where links must not be made).
void setSymbolicLinkOperation(SymbolicLinkOperation operation);

// Symbolic link through the chosen operation; an existing link counts as done. Asks for a link that
// needs no privilege (and a folder link when directory), and for a plain one where the system does not
// know that request.
bool symbolicLink(const std::wstring& linkPath, const std::wstring& targetPath, bool directory = false);

// Copies a file, or a folder with everything in it, to path (which must not exist as a folder yet).
bool copyTree(const std::wstring& from, const std::wstring& to);

// Converts length bytes of UTF-8 into out (zero-terminated); true only when all of it fits.
// On failure out holds an empty string.
bool utf8ToWide(const char* text, size_t length, wchar_t* out, size_t capacity);
// The same for zero-terminated text.
bool utf8ToWide(const char* text, wchar_t* out, size_t capacity);

// Asked after a write to file failed: true when the reason is a full volume, by the runtime's or the
// system's error or because the volume holds less free space than the write needed (the runtimes do not
// all report a short write on a full volume as such).
bool diskIsFull(const std::wstring& file, uint64_t needed);

} // namespace qv
