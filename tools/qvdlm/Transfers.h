// Follows started downloads to their end: shows their progress, stops them with their progress kept on
// Ctrl+C (or when the time limit runs out), gives up on downloads the library has paused for good, and
// reports how each one ended.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Console.h"
#include "EventCollector.h"
#include "Format.h"
#include "Outcome.h"
#include "ProgressDisplay.h"
#include "QvDLM.h"

namespace qvcli {

struct Tracked {
    Download* download = nullptr;
    std::wstring label;
    std::wstring url;             // what validation lines mention
    uint64_t startBytes = 0;      // downloaded before this run (the lowest count seen)
    uint64_t estimatedSize = 0;   // used when the request holds no compressed size
    Outcome outcome = Outcome::Waiting;
    uint64_t pausedSinceMs = 0;   // 0 while not paused
    unsigned starts = 0;          // times the client asked a waiting download to start
    bool gaveUp = false;          // the client stopped it; it did not end by itself
};

struct TransferSettings {
    unsigned timeoutSeconds = 0; // 0: none
    uint64_t stopAfter = 0;      // 0: none
};

enum class TransferEnd { Finished, Interrupted, TimedOut };

struct TransferSummary {
    TransferEnd end = TransferEnd::Finished;
    unsigned completed = 0, failed = 0, stopped = 0;
    uint64_t bytes = 0;       // downloaded during this run
    uint64_t elapsedMs = 0;
};

class Transfers {
public:
    Transfers(DownloadMgr& manager, Console& console, EventCollector& events, const TransferSettings& settings)
        : manager_(manager), console_(console), events_(events), settings_(settings)
    {
    }

    TransferSummary run(std::vector<Tracked>& items);

    // How long the client lets the library try to recover a download it has paused.
    static constexpr uint64_t kPausedGraceMs = 30000;
    static constexpr uint64_t kStopWaitMs = 60000;
    static constexpr unsigned kMaxStarts = 3;

private:
    ProgressSnapshot snapshot(Tracked& item, bool sample);
    void update(Tracked& item, uint64_t nowMs);
    void stopAll(std::vector<Tracked>& items);
    void report(const Tracked& item, uint64_t elapsedMs);

    DownloadMgr& manager_;
    Console& console_;
    EventCollector& events_;
    TransferSettings settings_;
};

// Bytes of the package for percentages: the request's compressed size, else the client's estimate.
uint64_t packageSize(Download* download, uint64_t estimate, bool& estimated);

// Where a completed download's files are: the folder chosen for it, or for a plain file the file.
std::wstring filesLocation(Download* download);

} // namespace qvcli
