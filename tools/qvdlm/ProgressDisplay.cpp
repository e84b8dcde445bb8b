#include "ProgressDisplay.h"

namespace qvcli {

std::vector<std::wstring> ProgressDisplay::lines(const std::vector<ProgressSnapshot>& snapshots) const
{
    const size_t width = console_.width();
    std::vector<std::wstring> out;
    out.reserve(snapshots.size());
    for (const ProgressSnapshot& s : snapshots)
        out.push_back(progressLine(s, width));
    return out;
}

void ProgressDisplay::show(const std::vector<ProgressSnapshot>& snapshots, uint64_t nowMs)
{
    if (console_.interactive()) {
        console_.redraw(lines(snapshots));
        return;
    }
    if (printedPlain_ && nowMs - lastPlainMs_ < kPlainIntervalMs)
        return;
    printedPlain_ = true;
    lastPlainMs_ = nowMs;
    for (const std::wstring& l : lines(snapshots))
        console_.line(l);
}

void ProgressDisplay::finish(const std::vector<ProgressSnapshot>& snapshots)
{
    if (console_.interactive()) {
        console_.redraw(lines(snapshots));
        console_.endBlock();
        return;
    }
    for (const std::wstring& l : lines(snapshots))
        console_.line(l);
}

} // namespace qvcli
