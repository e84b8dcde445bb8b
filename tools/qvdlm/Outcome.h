// Where a download stands, as the client sees it, and the words it shows for that.
#pragma once

#include <cstdint>
#include <string>

namespace qvcli {

enum class Outcome {
    Running,   // moving data, or finishing / stopping on its control thread
    Waiting,   // queued behind the limit of active downloads, or not started yet
    Paused,    // the library paused it (network trouble, disk space)
    Completed, // done; files are in place
    Failed,    // ended without its files
    Stopped    // stopped with its progress kept: "qvdlm resume" finishes it
};

// threadAlive: the download still has its control thread.
Outcome classify(uint32_t state, bool threadAlive);

bool isFinal(Outcome outcome);

// The state of a running download in words: "downloading", "unpacking" (the download is done and the
// files are still being extracted), "paused", "waiting for network", "queued", "completed", "failed", ...
std::wstring stateWord(uint32_t state, uint32_t status, bool unpacking);

// The state of a stored download in words: "completed", "failed" or "stopped" (resume finishes it).
std::wstring storedStateWord(uint32_t state);

// The library's text for a status code ("network error"); empty for 0, the code in hex when the
// library has no message for it.
std::wstring statusText(uint32_t status);

} // namespace qvcli
