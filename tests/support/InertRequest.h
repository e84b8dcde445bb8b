// A request that keeps nothing: every field reads as empty or zero (retry budgets and the HTTP fallback
// as the library's defaults). Doubles derive from it and override only what the code under test uses.
#pragma once

#include "DownloadRequest.h"

class InertRequest : public DownloadRequest {
public:
    const wchar_t* getId() override { return L""; }
    void setUrl(const wchar_t*, const wchar_t*, const wchar_t*) override {}
    void setVersion(const wchar_t*) override {}
    const wchar_t* getVersion() override { return L""; }
    void setName(const wchar_t*) override {}
    const wchar_t* getName() override { return L""; }
    void setDate(const wchar_t*) override {}
    const wchar_t* getDate() override { return L""; }
    void setBlockId(int32_t) override {}
    int32_t getBlockId() override { return 0; }
    void setBlockCount(int32_t) override {}
    int32_t getBlockCount() override { return 0; }
    void clearTokens() override {}
    void addToken(const wchar_t*) override {}
    const wchar_t* getToken(int32_t) override { return nullptr; }
    void clearQueries() override {}
    void addQuery(const wchar_t*) override {}
    const WStringList& getQueries() override { return empty_; }
    void setContentLength(int64_t) override {}
    int64_t getContentLength() override { return 0; }
    void setCompressedSize(uint64_t) override {}
    uint64_t getCompressedSize() override { return 0; }
    void setUncompressedSize(uint64_t) override {}
    uint64_t getUncompressedSize() override { return 0; }
    void setState(uint32_t) override {}
    uint32_t getState() override { return 0; }
    void setStatus(uint32_t) override {}
    uint32_t getStatus() override { return 0; }
    void setDestDir(const wchar_t*) override {}
    const wchar_t* getDestDir() override { return L""; }
    void setExePath(const wchar_t*) override {}
    const wchar_t* getExePath() override { return L""; }
    void setExeParam(const wchar_t*) override {}
    const wchar_t* getExeParam() override { return L""; }
    void setAutoOpen(bool) override {}
    bool getAutoOpen() override { return false; }
    void setAuthParamName(const wchar_t*) override {}
    const wchar_t* getAuthParamName() override { return L""; }
    void setSessionParamName(const wchar_t*) override {}
    const wchar_t* getSessionParamName() override { return L""; }
    void setCheckpointId(uint32_t) override {}
    uint32_t getCheckpointId() override { return 0; }
    void setCheckpointDir(const wchar_t*) override {}
    const wchar_t* getCheckpointDir() override { return L""; }
    void setSaveInterval(uint64_t) override {}
    uint64_t getSaveInterval() override { return 0; }
    const wchar_t* getOriginalUrl() override { return L""; }
    void setOriginalUrl(const wchar_t*) override {}
    const WStringList& getUrls() override { return empty_; }
    void setUrls(const wchar_t*) override {}
    const wchar_t* getUrl(bool) override { return nullptr; }
    const wchar_t* getUrlPath() override { return L""; }
    const wchar_t* getQuery() override { return nullptr; }
    const wchar_t* nextBlock() override { return nullptr; }
    bool getUseAkamai() override { return false; }
    void setUseAkamai(bool) override {}
    bool isLzma2Package() override { return false; }
    bool isSfxPackage() override { return false; }
    uint64_t getBlockDownloadedSize() override { return 0; }
    void setBlockDownloadedSize(uint64_t) override {}
    uint64_t getTotalDownloadedSize() override { return 0; }
    void setTotalDownloadedSize(uint64_t) override {}
    uint64_t getExtractedSize() override { return 0; }
    void setExtractedSize(uint64_t) override {}
    bool isFinished() override { return false; }
    bool getHttpFallback() override { return true; }
    void setHttpFallback(bool) override {}
    int32_t getRetryCount() override { return 5; }
    void setRetryCount(int32_t) override {}
    int32_t getFallbackRetryCount() override { return 3; }
    void setFallbackRetryCount(int32_t) override {}
    int32_t getAuxRetryCount() override { return 3; }
    void setAuxRetryCount(int32_t) override {}

private:
    WStringList empty_;
};
