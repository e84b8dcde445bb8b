// Folder operations of the download job: creating, deleting and emptying a working folder into its parent.
#pragma once

#include <windows.h>

#include <string>

namespace qv {

// The form of a local or network path that the file functions accept at any length.
std::wstring longForm(const std::wstring& path);

// The folder that contains path (without a trailing backslash), or empty when there is none.
std::wstring parentFolder(const std::wstring& path);

// The last component of path.
std::wstring lastComponent(const std::wstring& path);

bool folderExists(const std::wstring& path);
bool fileExists(const std::wstring& path);

// Creates path and every missing folder above it. An existing folder counts as success.
bool createFolderTree(const std::wstring& path);

// Deletes a folder with everything in it; true when nothing of it is left.
bool deleteTree(const std::wstring& path);

// True when the folder holds no entries (a missing folder counts as empty).
bool folderIsEmpty(const std::wstring& path);

// Moves every entry of folder into the folder that contains it, merging into same-named folders there
// and replacing same-named files. True only when folder is empty afterwards; on failure whatever was
// not moved stays where it was.
bool moveContentsUp(const std::wstring& folder);

// Writes whatever the system still holds of a file to the disk; true when it did.
bool flushFile(const std::wstring& path);

} // namespace qv
