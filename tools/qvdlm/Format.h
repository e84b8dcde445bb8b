// Human-readable sizes, rates, durations and progress lines. Pure functions of their arguments.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

namespace qvcli {

// "0 B", "1023 B", "1.0 KiB", "12.3 MiB", "1.50 GiB".
std::wstring formatBytes(uint64_t bytes);

// "512 B/s", "1.20 MiB/s".
std::wstring formatSpeed(uint64_t bytesPerSecond);

// "0:05", "12:34", "1:02:03"; a negative value (no estimate) gives "--:--".
std::wstring formatDuration(int64_t seconds);

// Tenths of a percent of done in total, at most 1000; -1 when total is 0.
int percentTenths(uint64_t done, uint64_t total);

// "42.1%", or "" when the percentage is unknown.
std::wstring formatPercent(int tenths);

// The speed of a byte counter over its last few seconds, from readings taken by the caller (like curl's
// and aria2c's current speed): it follows changes within the window and shows from the first second.
class SpeedMeter {
public:
    // A reading of the counter at a millisecond clock. A counter that went back starts afresh.
    void add(uint64_t nowMs, uint64_t bytes);
    // Bytes per second over the window; -1 until the readings span kMinSpanMs.
    int64_t bytesPerSecond() const;

    static constexpr uint64_t kWindowMs = 5000;
    static constexpr uint64_t kMinSpanMs = 1000;

private:
    std::deque<std::pair<uint64_t, uint64_t>> readings_; // (ms, bytes), oldest first
};

// Seconds until remaining bytes arrive at bytesPerSecond, rounded up; -1 when the speed is not positive.
int64_t etaSeconds(uint64_t remaining, int64_t bytesPerSecond);

// What one line of progress shows about one download.
struct ProgressSnapshot {
    std::wstring label;          // name of the download
    std::wstring state;          // "downloading", "unpacking", "paused", ...
    uint64_t done = 0;           // bytes of the phase done: downloaded, or unpacked while unpacking
    uint64_t total = 0;          // bytes of the phase, 0 when unknown
    bool totalEstimated = false; // total guessed from the first block: no time left
    int64_t bytesPerSecond = -1; // -1: no speed shown (not measured yet, or not moving data)
};

// One line, at most width characters (0: no limit): "name  state  42.1%  4.80 MiB of 11.4 MiB  2.01 MiB/s
// ETA 0:03". When space is short the less important fields go first (the word "downloading", the total,
// the bytes, the speed, the time left, then the state), and the name is shortened in its middle.
std::wstring progressLine(const ProgressSnapshot& snapshot, size_t width);

// text shortened to at most room characters by putting "..." in place of its middle.
std::wstring shortenMiddle(const std::wstring& text, size_t room);

// Everything after the last "/" of a URL path, without a block number: "pkg_001_004.tar.lzma2" gives
// "pkg", "data.tar.lzma2" gives "data", "setup.exe" stays "setup.exe".
std::wstring nameFromUrlPath(const std::wstring& path);

} // namespace qvcli
