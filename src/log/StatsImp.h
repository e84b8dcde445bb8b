// Transfer statistics of one download: elapsed time, speeds smoothed over a ring of samples, the
// average speed and a remaining-time estimate that rises only on a clear change.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>

#include "Stats.h"

class Download;

class StatsImp final : public Stats {
public:
    // The millisecond tick count; replaceable so that sampling can be driven step by step.
    using TickSource = DWORD(WINAPI*)();

    static constexpr size_t kRingSize = 8;
    // No remaining-time estimate before this many bytes have arrived (4 MiB).
    static constexpr uint64_t kMinBytesForEstimate = 0x400000;

    explicit StatsImp(Download* owner, TickSource ticks = &GetTickCount);
    ~StatsImp() = default;
    StatsImp(const StatsImp&) = delete;
    StatsImp& operator=(const StatsImp&) = delete;

    void start() override;
    int reset() override;
    uint32_t getExtractSpeed() override;
    uint32_t getDownloadSpeed() override;
    uint32_t getAverageSpeed() override;
    uint64_t getElapsedSeconds() override;
    uint64_t getUncompressedSize() override;
    uint64_t getDownloadedSize() override;
    uint64_t getExtractedSize() override;
    int64_t getRemainingSeconds() override;

    // Package sizes as the download's creator copies them from its request.
    void setPackageSizes(uint64_t uncompressedSize, uint64_t compressedSize);

    // The shown remaining time: kept while a new estimate lies within [last, 2 x last], else replaced.
    static int64_t holdRemaining(int64_t& last, int64_t estimate);

private:
    using Ring = std::array<uint64_t, kRingSize>;

    void clearRings();
    void takeSample();
    static uint64_t smoothed(const Ring& speeds, uint64_t newBytes, uint64_t oldBytes, uint32_t elapsedMs);

    bool started_ = false;
    uint64_t uncompressedSize_ = 0;
    uint64_t compressedSize_ = 0;
    DWORD startTicks_ = 0;
    int64_t lastRemaining_ = 0;
    Ring sampleTicks_{};
    Ring extractedBytes_{};
    Ring extractSpeed_{};
    Ring downloadedBytes_{};
    Ring downloadSpeed_{};
    size_t index_ = 0;
    Download* owner_;
    TickSource ticks_;
};
