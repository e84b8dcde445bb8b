// GoogleMock doubles of a download's request and statistics, for the log's tests.
#pragma once

#include <gmock/gmock.h>

#include "support/MockDownloadRequest.h"
#include "Stats.h"

class MockStats : public Stats {
public:
    MockStats() = default;
    ~MockStats() = default;

    MOCK_METHOD(void, start, (), (override));
    MOCK_METHOD(int, reset, (), (override));
    MOCK_METHOD(uint32_t, getExtractSpeed, (), (override));
    MOCK_METHOD(uint32_t, getDownloadSpeed, (), (override));
    MOCK_METHOD(uint32_t, getAverageSpeed, (), (override));
    MOCK_METHOD(uint64_t, getElapsedSeconds, (), (override));
    MOCK_METHOD(uint64_t, getUncompressedSize, (), (override));
    MOCK_METHOD(uint64_t, getDownloadedSize, (), (override));
    MOCK_METHOD(uint64_t, getExtractedSize, (), (override));
    MOCK_METHOD(int64_t, getRemainingSeconds, (), (override));
};
