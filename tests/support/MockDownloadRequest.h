// A GoogleMock double of DownloadRequest for testing parts that read a request without building one.
#pragma once

#include <gmock/gmock.h>

#include "DownloadRequest.h"

class MockDownloadRequest : public DownloadRequest {
public:
    MockDownloadRequest() = default;
    ~MockDownloadRequest() override = default;

    MOCK_METHOD(const wchar_t*, getId, (), (override));
    MOCK_METHOD(void, setUrl, (const wchar_t*, const wchar_t*, const wchar_t*), (override));
    MOCK_METHOD(void, setVersion, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getVersion, (), (override));
    MOCK_METHOD(void, setName, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getName, (), (override));
    MOCK_METHOD(void, setDate, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getDate, (), (override));
    MOCK_METHOD(void, setBlockId, (int32_t), (override));
    MOCK_METHOD(int32_t, getBlockId, (), (override));
    MOCK_METHOD(void, setBlockCount, (int32_t), (override));
    MOCK_METHOD(int32_t, getBlockCount, (), (override));
    MOCK_METHOD(void, clearTokens, (), (override));
    MOCK_METHOD(void, addToken, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getToken, (int32_t), (override));
    MOCK_METHOD(void, clearQueries, (), (override));
    MOCK_METHOD(void, addQuery, (const wchar_t*), (override));
    MOCK_METHOD(const WStringList&, getQueries, (), (override));
    MOCK_METHOD(void, setContentLength, (int64_t), (override));
    MOCK_METHOD(int64_t, getContentLength, (), (override));
    MOCK_METHOD(void, setCompressedSize, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getCompressedSize, (), (override));
    MOCK_METHOD(void, setUncompressedSize, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getUncompressedSize, (), (override));
    MOCK_METHOD(void, setState, (uint32_t), (override));
    MOCK_METHOD(uint32_t, getState, (), (override));
    MOCK_METHOD(void, setStatus, (uint32_t), (override));
    MOCK_METHOD(uint32_t, getStatus, (), (override));
    MOCK_METHOD(void, setDestDir, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getDestDir, (), (override));
    MOCK_METHOD(void, setExePath, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getExePath, (), (override));
    MOCK_METHOD(void, setExeParam, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getExeParam, (), (override));
    MOCK_METHOD(void, setAutoOpen, (bool), (override));
    MOCK_METHOD(bool, getAutoOpen, (), (override));
    MOCK_METHOD(void, setAuthParamName, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getAuthParamName, (), (override));
    MOCK_METHOD(void, setSessionParamName, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getSessionParamName, (), (override));
    MOCK_METHOD(void, setCheckpointId, (uint32_t), (override));
    MOCK_METHOD(uint32_t, getCheckpointId, (), (override));
    MOCK_METHOD(void, setCheckpointDir, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getCheckpointDir, (), (override));
    MOCK_METHOD(void, setSaveInterval, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getSaveInterval, (), (override));
    MOCK_METHOD(const wchar_t*, getOriginalUrl, (), (override));
    MOCK_METHOD(void, setOriginalUrl, (const wchar_t*), (override));
    MOCK_METHOD(const WStringList&, getUrls, (), (override));
    MOCK_METHOD(void, setUrls, (const wchar_t*), (override));
    MOCK_METHOD(const wchar_t*, getUrl, (bool), (override));
    MOCK_METHOD(const wchar_t*, getUrlPath, (), (override));
    MOCK_METHOD(const wchar_t*, getQuery, (), (override));
    MOCK_METHOD(const wchar_t*, nextBlock, (), (override));
    MOCK_METHOD(bool, getUseAkamai, (), (override));
    MOCK_METHOD(void, setUseAkamai, (bool), (override));
    MOCK_METHOD(bool, isLzma2Package, (), (override));
    MOCK_METHOD(bool, isSfxPackage, (), (override));
    MOCK_METHOD(uint64_t, getBlockDownloadedSize, (), (override));
    MOCK_METHOD(void, setBlockDownloadedSize, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getTotalDownloadedSize, (), (override));
    MOCK_METHOD(void, setTotalDownloadedSize, (uint64_t), (override));
    MOCK_METHOD(uint64_t, getExtractedSize, (), (override));
    MOCK_METHOD(void, setExtractedSize, (uint64_t), (override));
    MOCK_METHOD(bool, isFinished, (), (override));
    MOCK_METHOD(bool, getHttpFallback, (), (override));
    MOCK_METHOD(void, setHttpFallback, (bool), (override));
    MOCK_METHOD(int32_t, getRetryCount, (), (override));
    MOCK_METHOD(void, setRetryCount, (int32_t), (override));
    MOCK_METHOD(int32_t, getFallbackRetryCount, (), (override));
    MOCK_METHOD(void, setFallbackRetryCount, (int32_t), (override));
    MOCK_METHOD(int32_t, getAuxRetryCount, (), (override));
    MOCK_METHOD(void, setAuxRetryCount, (int32_t), (override));
};
