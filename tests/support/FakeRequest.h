// A plain request for driving the job and the manager: fields and simple URL handling only.
#pragma once

#include <string>

#include "DownloadRequest.h"

class FakeRequest final : public DownloadRequest {
public:
    FakeRequest() = default;
    explicit FakeRequest(const std::wstring& url) { setUrl(url.c_str(), nullptr, nullptr); }

    const wchar_t* getId() override { return id_.c_str(); }
    void setUrl(const wchar_t* url, const wchar_t*, const wchar_t*) override
    {
        originalUrl_ = url ? url : L"";
        urls_ = {originalUrl_};
        blockCount_ = 1;
        id_ = originalUrl_;
    }
    // Plain fields: a field's setter and getter share a line.
    void setVersion(const wchar_t* v) override { version_ = v ? v : L""; } const wchar_t* getVersion() override { return version_.c_str(); }
    void setName(const wchar_t* v) override { name_ = v ? v : L""; } const wchar_t* getName() override { return name_.c_str(); }
    void setDate(const wchar_t* v) override { date_ = v ? v : L""; } const wchar_t* getDate() override { return date_.c_str(); }
    void setBlockId(int32_t v) override { blockId_ = v; } int32_t getBlockId() override { return blockId_; }
    void setBlockCount(int32_t v) override { blockCount_ = v; } int32_t getBlockCount() override { return blockCount_; }
    void clearTokens() override {} void addToken(const wchar_t*) override {} const wchar_t* getToken(int32_t) override { return nullptr; }
    void clearQueries() override { queries_.clear(); } void addQuery(const wchar_t* q) override { queries_.push_back(q ? q : L""); }
    const WStringList& getQueries() override { return queries_; }
    void setContentLength(int64_t v) override { contentLength_ = v; } int64_t getContentLength() override { return contentLength_; }
    void setCompressedSize(uint64_t v) override { compressed_ = v; } uint64_t getCompressedSize() override { return compressed_; }
    void setUncompressedSize(uint64_t v) override { uncompressed_ = v; } uint64_t getUncompressedSize() override { return uncompressed_; }
    void setState(uint32_t v) override { state_ = v; } uint32_t getState() override { return state_; }
    void setStatus(uint32_t v) override { status_ = v; } uint32_t getStatus() override { return status_; }
    void setDestDir(const wchar_t* v) override { destDir_ = v ? v : L""; } const wchar_t* getDestDir() override { return destDir_.c_str(); }
    void setExePath(const wchar_t* v) override { exePath_ = v ? v : L""; } const wchar_t* getExePath() override { return exePath_.c_str(); }
    void setExeParam(const wchar_t* v) override { exeParam_ = v ? v : L""; } const wchar_t* getExeParam() override { return exeParam_.c_str(); }
    void setAutoOpen(bool v) override { autoOpen_ = v; } bool getAutoOpen() override { return autoOpen_; }
    void setAuthParamName(const wchar_t* v) override { authParam_ = v ? v : L""; } const wchar_t* getAuthParamName() override { return authParam_.c_str(); }
    void setSessionParamName(const wchar_t* v) override { sessionParam_ = v ? v : L""; } const wchar_t* getSessionParamName() override { return sessionParam_.c_str(); }
    void setCheckpointId(uint32_t v) override { checkpointId_ = v; } uint32_t getCheckpointId() override { return checkpointId_; }
    void setCheckpointDir(const wchar_t* v) override { checkpointDir_ = v ? v : L""; } const wchar_t* getCheckpointDir() override { return checkpointDir_.c_str(); }
    void setSaveInterval(uint64_t v) override { saveInterval_ = v; } uint64_t getSaveInterval() override { return saveInterval_; }
    const wchar_t* getOriginalUrl() override { return originalUrl_.c_str(); } void setOriginalUrl(const wchar_t* v) override { originalUrl_ = v ? v : L""; }
    const WStringList& getUrls() override { return urls_; } void setUrls(const wchar_t* v) override { v ? setUrl(v, nullptr, nullptr) : void(); }
    const wchar_t* getUrl(bool) override { return blockId_ >= 0 && blockId_ < static_cast<int32_t>(urls_.size()) ? urls_[blockId_].c_str() : nullptr; }
    const wchar_t* getUrlPath() override { return (path_ = urlPath()).c_str(); }
    const wchar_t* getQuery() override { return nullptr; }
    const wchar_t* nextBlock() override
    {
        if (blockId_ + 1 < blockCount_)
            return ++blockId_, getUrl(true);
        finished_ = true;
        return nullptr;
    }
    bool getUseAkamai() override { return useAkamai_; } void setUseAkamai(bool v) override { useAkamai_ = v; }
    bool isLzma2Package() override { return endsWith(L".tar.lzma2"); } bool isSfxPackage() override { return endsWith(L".sfx.exe"); }
    uint64_t getBlockDownloadedSize() override { return blockDownloaded_; } void setBlockDownloadedSize(uint64_t v) override { blockDownloaded_ = v; }
    uint64_t getTotalDownloadedSize() override { return totalDownloaded_; } void setTotalDownloadedSize(uint64_t v) override { totalDownloaded_ = v; }
    uint64_t getExtractedSize() override { return extracted_; } void setExtractedSize(uint64_t v) override { extracted_ = v; }
    bool isFinished() override { return finished_; }
    bool getHttpFallback() override { return httpFallback_; } void setHttpFallback(bool v) override { httpFallback_ = v; }
    int32_t getRetryCount() override { return retry_; } void setRetryCount(int32_t v) override { retry_ = v; }
    int32_t getFallbackRetryCount() override { return fallbackRetry_; } void setFallbackRetryCount(int32_t v) override { fallbackRetry_ = v; }
    int32_t getAuxRetryCount() override { return auxRetry_; } void setAuxRetryCount(int32_t v) override { auxRetry_ = v; }

    // Blocks of a multi-block request, each its own URL.
    void setBlocks(const WStringList& urls)
    {
        urls_ = urls;
        blockCount_ = static_cast<int32_t>(urls.size());
        id_ = urls.empty() ? L"" : urls[0];
    }

private:
    // The current block's URL path, without touching shared state (stage threads ask at once).
    std::wstring urlPath()
    {
        const wchar_t* url = getUrl(false);
        if (!url)
            return {};
        const std::wstring u = url;
        const size_t scheme = u.find(L"://");
        const size_t slash = u.find(L'/', scheme == std::wstring::npos ? 0 : scheme + 3);
        return slash == std::wstring::npos ? L"" : u.substr(slash, u.find(L'?') - slash);
    }
    bool endsWith(const std::wstring& suffix)
    {
        const std::wstring path = urlPath();
        return path.size() >= suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
    }

    std::wstring id_, version_ = L"1.2", name_, date_, destDir_, exePath_, exeParam_, authParam_ = L"authparam=",
                      sessionParam_ = L"SESSION_ID=", checkpointDir_, originalUrl_, path_;
    int32_t blockId_ = 0, blockCount_ = 1;
    WStringList urls_, queries_;
    int64_t contentLength_ = 0;
    uint64_t compressed_ = 0, uncompressed_ = 0, saveInterval_ = 734003200, blockDownloaded_ = 0,
             totalDownloaded_ = 0, extracted_ = 0;
    uint32_t state_ = 0x20000000, status_ = 0, checkpointId_ = 0;
    bool autoOpen_ = false, useAkamai_ = false, finished_ = false, httpFallback_ = true;
    int32_t retry_ = 5, fallbackRetry_ = 3, auxRetry_ = 3;
};
