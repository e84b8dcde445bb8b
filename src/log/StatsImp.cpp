#include "log/StatsImp.h"

#include <initializer_list>

#include "Download.h"
#include "DownloadRequest.h"

StatsImp::StatsImp(Download* owner, TickSource ticks) : owner_(owner), ticks_(ticks ? ticks : &GetTickCount) {}

void StatsImp::start()
{
    // A resumed transfer keeps its first start time.
    if (started_)
        return;
    if (DownloadRequest* request = owner_ ? owner_->getRequest() : nullptr)
        setPackageSizes(request->getUncompressedSize(), request->getCompressedSize());
    clearRings();
    started_ = true;
    startTicks_ = ticks_();
}

void StatsImp::setPackageSizes(uint64_t uncompressedSize, uint64_t compressedSize)
{
    uncompressedSize_ = uncompressedSize;
    compressedSize_ = compressedSize;
}

int StatsImp::reset()
{
    index_ = 0;
    clearRings();
    return 0;
}

void StatsImp::clearRings()
{
    for (Ring* ring : {&sampleTicks_, &extractedBytes_, &extractSpeed_, &downloadedBytes_, &downloadSpeed_})
        ring->fill(0);
}

uint32_t StatsImp::getExtractSpeed() { return static_cast<uint32_t>(extractSpeed_[index_]); }
uint32_t StatsImp::getDownloadSpeed() { return static_cast<uint32_t>(downloadSpeed_[index_]); }

uint32_t StatsImp::getAverageSpeed()
{
    const uint64_t elapsed = getElapsedSeconds();
    if (elapsed == 0)
        return 0;
    // A thousand times the bit rate; the log has always printed this figure.
    return static_cast<uint32_t>(getDownloadedSize() * 8 / elapsed * 1000);
}

uint64_t StatsImp::getElapsedSeconds()
{
    const DWORD now = ticks_();
    // The current sample's time moves to now as well.
    sampleTicks_[index_] = now;
    return static_cast<DWORD>(now - startTicks_) / 1000;
}

uint64_t StatsImp::getUncompressedSize() { return uncompressedSize_; }
uint64_t StatsImp::getDownloadedSize() { return owner_ ? owner_->getDownloadedSize() : 0; }
uint64_t StatsImp::getExtractedSize() { return owner_ ? owner_->getExtractedSize() : 0; }

uint64_t StatsImp::smoothed(const Ring& speeds, uint64_t newBytes, uint64_t oldBytes, uint32_t elapsedMs)
{
    // A counter that went back (a restarted block) gives no speed rather than a wrapped one.
    const uint64_t instant = newBytes < oldBytes ? 0 : (newBytes - oldBytes) * 8 / elapsedMs * 1000;
    uint64_t sum = instant;
    for (uint64_t speed : speeds)
        sum += speed;
    // Nine values: the new one and the whole ring, including the entry about to be replaced.
    return sum / 9;
}

void StatsImp::takeSample()
{
    // The reference is six positions behind the one about to be written.
    const size_t reference = (index_ + 3) % kRingSize;
    const DWORD now = ticks_();
    const uint64_t referenceTicks = sampleTicks_[reference];
    if (now == referenceTicks)
        return;
    // Unsigned 32-bit difference: stays right across a wrap of the tick count.
    const uint32_t elapsedMs = static_cast<DWORD>(now - static_cast<DWORD>(referenceTicks));
    index_ = (index_ + 1) % kRingSize;
    sampleTicks_[index_] = now;
    extractedBytes_[index_] = getExtractedSize();
    downloadedBytes_[index_] = getDownloadedSize();
    if (referenceTicks == 0) {
        // The ring has not filled that far yet.
        extractSpeed_[index_] = 0;
        downloadSpeed_[index_] = 0;
        return;
    }
    extractSpeed_[index_] = smoothed(extractSpeed_, extractedBytes_[index_], extractedBytes_[reference], elapsedMs);
    downloadSpeed_[index_] = smoothed(downloadSpeed_, downloadedBytes_[index_], downloadedBytes_[reference], elapsedMs);
}

int64_t StatsImp::holdRemaining(int64_t& last, int64_t estimate)
{
    if (estimate >= last && estimate <= 2 * last)
        return last;
    last = estimate;
    return estimate;
}

int64_t StatsImp::getRemainingSeconds()
{
    takeSample();
    const uint32_t rate = getDownloadSpeed();
    if (rate == 0)
        return -1;
    const uint64_t done = getDownloadedSize();
    if (done < kMinBytesForEstimate)
        return -1;
    const int64_t left = compressedSize_ > done ? static_cast<int64_t>(compressedSize_ - done) : 1;
    return holdRemaining(lastRemaining_, left * 8 / static_cast<int64_t>(rate));
}
