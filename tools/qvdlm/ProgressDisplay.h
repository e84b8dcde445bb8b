// Shows the progress of running downloads: redrawn in place on a console, one plain line per download
// and second otherwise (logs, pipes, CI).
#pragma once

#include <cstdint>
#include <vector>

#include "Console.h"
#include "Format.h"

namespace qvcli {

class ProgressDisplay {
public:
    explicit ProgressDisplay(Console& console) : console_(console) {}

    // Called often; draws as often as the output allows. nowMs: a millisecond clock.
    void show(const std::vector<ProgressSnapshot>& snapshots, uint64_t nowMs);
    // The last state of every download, drawn once more whatever the clock says.
    void finish(const std::vector<ProgressSnapshot>& snapshots);

    static constexpr uint64_t kPlainIntervalMs = 1000;

private:
    std::vector<std::wstring> lines(const std::vector<ProgressSnapshot>& snapshots) const;

    Console& console_;
    bool printedPlain_ = false;
    uint64_t lastPlainMs_ = 0;
};

} // namespace qvcli
