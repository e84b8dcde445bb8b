// The files of a download's checkpoints: "<dir>\_tmp_<id>_<stage>.chk" while a checkpoint is written,
// "<dir>\<id>_<stage>.chk" once committed. A file holds exactly one stage's snapshot.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qv {

class CheckpointFiles {
public:
    static std::wstring tempPath(const std::wstring& dir, uint32_t id, const wchar_t* stage);
    static std::wstring committedPath(const std::wstring& dir, uint32_t id, const wchar_t* stage);

    // Writes a snapshot as the stage's temporary file, through to the disk. True when all was written.
    static bool writeTemp(const std::wstring& dir, uint32_t id, const wchar_t* stage, const void* data, size_t size);

    // Renames every temporary file of id to its committed name (replacing an older one of that name).
    // Answers how many files were renamed, or -1 when one of them could not be.
    static int commit(const std::wstring& dir, uint32_t id);

    // Deletes every temporary file of id (a checkpoint that will not be committed).
    static void removeTemp(const std::wstring& dir, uint32_t id);

    // Deletes every committed file of id.
    static void removeCommitted(const std::wstring& dir, uint32_t id);

    // Reads a committed file whole; false when it is missing, empty or cannot be read.
    static bool read(const std::wstring& dir, uint32_t id, const wchar_t* stage, std::vector<uint8_t>& out);
};

} // namespace qv
