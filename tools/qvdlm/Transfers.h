// Follows started downloads to their end: shows their progress, stops them with their progress kept on
// Ctrl+C (or when the time limit runs out), gives up on downloads the library has paused for good, and
// reports how each one ended.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Console.h"
#include "EventCollector.h"
#include "Failure.h"
#include "Format.h"
#include "Outcome.h"
#include "ProgressDisplay.h"
#include "QvDLM.h"

namespace qvcli {

struct Tracked {
    Download* download = nullptr;
    std::wstring label;
    std::wstring dest;            // the destination folder chosen for it
    uint64_t startBytes = 0;      // downloaded before this run (the lowest count seen)
    uint64_t estimatedSize = 0;   // used when the request holds no compressed size
    Outcome outcome = Outcome::Waiting;
    uint64_t pausedSinceMs = 0;   // 0 while not paused
    unsigned starts = 0;          // times the client asked a waiting download to start
    bool gaveUp = false;          // the client stopped it; it did not end by itself
    SpeedMeter downloadSpeed, unpackSpeed;
    std::wstring blockUrl;        // the URL of the block it was at while it ran (an abort rewinds the request)
    int32_t block = 0;
    Failure failure;              // why it failed, once it has
};

struct TransferSettings {
    unsigned timeoutSeconds = 0; // 0: none
    uint64_t stopAfter = 0;      // 0: none
};

enum class TransferEnd { Finished, Interrupted, TimedOut };

struct TransferSummary {
    TransferEnd end = TransferEnd::Finished;
    unsigned completed = 0, failed = 0, stopped = 0;
    int firstFailure = exitcode::Ok; // exit status of the first download that failed
    uint64_t bytes = 0;              // downloaded during this run
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
    ProgressSnapshot snapshot(Tracked& item, uint64_t nowMs);
    std::vector<ProgressSnapshot> snapshots(std::vector<Tracked>& items, uint64_t nowMs);
    void update(Tracked& item, uint64_t nowMs);
    void stopAll(std::vector<Tracked>& items);
    void report(Tracked& item, uint64_t elapsedMs);

    DownloadMgr& manager_;
    Console& console_;
    EventCollector& events_;
    TransferSettings settings_;
};

// Bytes of the package for percentages: the request's compressed size, else the client's estimate.
uint64_t packageSize(DownloadRequest* request, uint64_t estimate, bool& estimated);

// Where a completed download's files are: the folder chosen for it, or for a plain file the file.
std::wstring filesLocation(DownloadRequest* request);

// How far a stored request has come: "25.1% (48.0 MiB of 190.7 MiB)", or its size once completed.
std::wstring storedProgress(DownloadRequest* request);

// "block 2 of 3: " for a package of several blocks, else "".
std::wstring blockPrefix(int32_t block, int32_t count);

} // namespace qvcli
