// Where a download stands, as the client sees it, and the library's texts for its state and status.
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

// The library's text for a status code ("network error"); empty for 0, the code in hex when the
// library has no message for it.
std::wstring statusText(uint32_t status);

// "download paused (network error)", "download play".
std::wstring describe(uint32_t state, uint32_t status);

} // namespace qvcli
