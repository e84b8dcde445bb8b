// Where an archive entry may land: member names and link targets are turned into paths relative to
// the destination folder, and anything that could leave that folder is refused.
#pragma once

#include <string>
#include <string_view>

namespace qv::tar {

// Turns a member name (with "/" or "\" separators) into a path relative to the destination with "\"
// separators and no "." or ".." left. False for a name that is absolute, names a drive or a stream
// (':'), climbs above its root, or has a component of dots and spaces only (which the file system
// would fold into another name). An empty result stands for the destination itself.
bool relativeEntryPath(std::wstring_view name, std::wstring& out);

// The target of a symbolic link at linkRelative, taken relative to the link's own folder, as a path
// relative to the destination; false where relativeEntryPath would refuse it or it is empty.
bool relativeLinkTarget(std::wstring_view linkRelative, std::wstring_view target, std::wstring& out);

// Whether path lies inside folder (both full and canonical), compared without regard to case at a
// separator boundary ("C:\dest2" is not inside "C:\dest"); the folder itself counts when allowSelf.
bool isInsideFolder(std::wstring_view folder, std::wstring_view path, bool allowSelf);

} // namespace qv::tar
