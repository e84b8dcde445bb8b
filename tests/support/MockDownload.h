// A GoogleMock double of Download for testing parts that read a download without running one.
#pragma once

#include <gmock/gmock.h>

#include "Download.h"

class MockDownload : public Download {
public:
    MOCK_METHOD(bool, isPrepared, (), (override));
    MOCK_METHOD(bool, buildPipeline, (), (override));
    MOCK_METHOD(Target*, addStage, (Stream*, const LinkSpec*), (override));
    MOCK_METHOD(const wchar_t*, initUrl, (), (override));
    MOCK_METHOD(Target*, attachFileWriter, (), (override));
    MOCK_METHOD(HANDLE, start, (), (override));
    MOCK_METHOD(bool, setPending, (), (override));
    MOCK_METHOD(bool, reinit, (), (override));
    MOCK_METHOD(bool, pause, (), (override));
    MOCK_METHOD(bool, resume, (), (override));
    MOCK_METHOD(bool, abort, (bool), (override));
    MOCK_METHOD(bool, waitIdle, (), (override));
    MOCK_METHOD(int, stagesReady, (), (override));
    MOCK_METHOD(DownloadRequest*, getRequest, (), (override));
    MOCK_METHOD(bool, applyValidationResult, (unsigned), (override));
    MOCK_METHOD(unsigned, getState, (), (override));
    MOCK_METHOD(unsigned, getStatus, (), (override));
    MOCK_METHOD(unsigned, getStreamError, (), (override));
    MOCK_METHOD(unsigned, getNetSessionError, (), (override));
    MOCK_METHOD(void, setUseAkamai, (bool, bool), (override));
    MOCK_METHOD(void, setUseAkamaiPersist, (bool), (override));
    MOCK_METHOD(Stats*, getStats, (), (override));
    MOCK_METHOD(HANDLE, getThreadHandle, (), (override));
    MOCK_METHOD(unsigned, getThreadId, (), (override));
    MOCK_METHOD(bool, isRunning, (), (override));
    MOCK_METHOD(void, setStatus, (unsigned), (override));
    MOCK_METHOD(void, setBlockDownloadedSize, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getDownloadedSize, (), (override));
    MOCK_METHOD(void, setTotalDownloadedSize, (uint64_t), (override));
    MOCK_METHOD(void, addTotalDownloadedSize, (int64_t), (override));
    MOCK_METHOD(uint64_t, getExtractedSize, (), (override));
    MOCK_METHOD(void, setExtractedSize, (uint64_t), (override));
    MOCK_METHOD(void, addExtractedSize, (int64_t), (override));
    MOCK_METHOD(bool, checkpointDue, (unsigned, bool), (override));
    MOCK_METHOD(int, saveCheckpoint, (const wchar_t*, unsigned, Stream*, bool, bool), (override));
    MOCK_METHOD(int, loadCheckpoint, (const wchar_t*, unsigned*, Stream*), (override));
    MOCK_METHOD(void, setHoldFlag, (bool), (override));
    MOCK_METHOD(bool, getHoldFlag, (), (override));
};
