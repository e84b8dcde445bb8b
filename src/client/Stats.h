// Transfer statistics of one download: elapsed time, smoothed speeds, remaining time.
#pragma once

#include <cstdint>

#include "QvDLMExport.h"

class QVDLM_API Stats {
public:
    virtual void start() = 0;
    virtual int reset() = 0;
    virtual uint32_t getExtractSpeed() = 0;  // bits per second
    virtual uint32_t getDownloadSpeed() = 0; // bits per second
    virtual uint32_t getAverageSpeed() = 0;
    virtual uint64_t getElapsedSeconds() = 0;
    virtual uint64_t getUncompressedSize() = 0;
    virtual uint64_t getDownloadedSize() = 0;
    virtual uint64_t getExtractedSize() = 0;
    virtual int64_t getRemainingSeconds() = 0; // -1 while there is no estimate

    Stats(const Stats&) = default;
    Stats& operator=(const Stats&) = default;

protected:
    Stats() = default;
    // Owned by value by its download; never deleted through this interface.
    ~Stats() = default;
};
