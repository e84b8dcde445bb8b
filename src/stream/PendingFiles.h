// Extracted files whose data is written but not yet known to be on the disk. The tar sink hands each
// finished file here instead of committing it on its own; before a checkpoint may count on them, and
// before the download completes, flushAll() commits every one of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace qv {

class PendingFiles {
public:
    // Files kept open at most; one more commits them all early.
    static constexpr size_t kMaxOpen = 256;

    PendingFiles() = default;
    PendingFiles(const PendingFiles&) = delete;
    PendingFiles& operator=(const PendingFiles&) = delete;
    // Closes what is left without waiting for the disk (what was written stays in the system's cache).
    ~PendingFiles() { closeAll(); }

    // Takes over a finished file: hands its buffered bytes to the system, then sets its creation,
    // access and write times to fileTime (100-nanosecond units since 1601; 0 leaves them) on the open
    // handle. False only when the times could not be set (the reason in GetLastError); a failed write
    // of the buffered bytes fails the next flushAll instead.
    bool add(FILE* file, uint64_t fileTime);
    // Commits every pending file to the disk and closes it; current (the file still being written, if
    // any) is committed too and stays open. False when any byte handed over may not be on the disk,
    // now or at any earlier call: a lost byte is not made up.
    bool flushAll(FILE* current = nullptr);
    // Closes the pending files without committing them.
    void closeAll();
    size_t size() const { return files_.size(); }

private:
    std::vector<FILE*> files_;
    bool lost_ = false; // a write or commit failed: no later commit can vouch for it
};

} // namespace qv
