// Human-readable sizes, rates, durations and progress lines. Pure functions of their arguments.
#pragma once

#include <cstdint>
#include <string>

namespace qvcli {

// "0 B", "1023 B", "1.0 KiB", "12.3 MiB", "1.50 GiB".
std::wstring formatBytes(uint64_t bytes);

// A rate given in bits per second, shown in bytes per second: "512 B/s", "1.2 MiB/s".
std::wstring formatRate(uint64_t bitsPerSecond);

// "0:05", "12:34", "1:02:03"; a negative value (no estimate) gives "--:--".
std::wstring formatDuration(int64_t seconds);

// Tenths of a percent of done in total, at most 1000; -1 when total is 0.
int percentTenths(uint64_t done, uint64_t total);

// "42.1%", or "" when the percentage is unknown.
std::wstring formatPercent(int tenths);

// What one line of progress shows about one download.
struct ProgressSnapshot {
    std::wstring label;        // name of the download
    uint64_t done = 0;         // bytes downloaded
    uint64_t total = 0;        // bytes of the package, 0 when unknown
    bool totalEstimated = false;
    uint64_t bitsPerSecond = 0;
    int64_t etaSeconds = -1;   // -1 when there is no estimate
    std::wstring stateText;    // "download play", ...
};

// One line, at most width characters (0: no limit); the label is shortened first when space is short.
std::wstring progressLine(const ProgressSnapshot& snapshot, size_t width);

// Everything after the last "/" of a URL path, without a block number: "pkg_001_004.tar.lzma2" gives
// "pkg", "data.tar.lzma2" gives "data", "setup.exe" stays "setup.exe".
std::wstring nameFromUrlPath(const std::wstring& path);

} // namespace qvcli
