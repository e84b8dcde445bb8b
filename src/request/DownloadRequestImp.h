// The one implementation of DownloadRequest: a package's URL blocks with their tokens and queries,
// its destination, launch and checkpoint settings, and the progress the store keeps.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "DownloadRequest.h"
#include "QvDLMCodes.h"
#include "common/Win32Raii.h"

class DownloadRequestImp final : public DownloadRequest {
public:
    // Size of the fixed buffers that current URLs are built into, terminator included.
    static constexpr size_t kUrlBufferSize = 2084;
    // Bytes of an authentication key read from a URL.
    static constexpr size_t kMaxKeyBytes = 255;
    // Characters kept of each part of a token (expiry and digest).
    static constexpr size_t kMaxTokenPart = 64;
    // Lifetime of the tokens made for block URLs, in seconds (30 days).
    static constexpr uint64_t kTokenLifetime = 2592000;
    // Default bytes between checkpoints (700 MiB).
    static constexpr uint64_t kDefaultSaveInterval = 0x2BC00000;

    DownloadRequestImp();
    ~DownloadRequestImp() override = default;
    DownloadRequestImp(const DownloadRequestImp&) = delete;
    DownloadRequestImp& operator=(const DownloadRequestImp&) = delete;

    const wchar_t* getId() override;
    void setUrl(const wchar_t* url, const wchar_t* fileName, const wchar_t* suffix) override;
    void setVersion(const wchar_t* version) override;
    const wchar_t* getVersion() override;
    void setName(const wchar_t* name) override;
    const wchar_t* getName() override;
    void setDate(const wchar_t* date) override;
    const wchar_t* getDate() override;
    void setBlockId(int32_t blockId) override;
    int32_t getBlockId() override;
    void setBlockCount(int32_t count) override;
    int32_t getBlockCount() override;
    void clearTokens() override;
    void addToken(const wchar_t* token) override;
    const wchar_t* getToken(int32_t index) override;
    void clearQueries() override;
    void addQuery(const wchar_t* query) override;
    const WStringList& getQueries() override;
    void setContentLength(int64_t length) override;
    int64_t getContentLength() override;
    void setCompressedSize(uint64_t size) override;
    uint64_t getCompressedSize() override;
    void setUncompressedSize(uint64_t size) override;
    uint64_t getUncompressedSize() override;
    void setState(uint32_t state) override;
    uint32_t getState() override;
    void setStatus(uint32_t status) override;
    uint32_t getStatus() override;
    void setDestDir(const wchar_t* dir) override;
    const wchar_t* getDestDir() override;
    void setExePath(const wchar_t* path) override;
    const wchar_t* getExePath() override;
    void setExeParam(const wchar_t* param) override;
    const wchar_t* getExeParam() override;
    void setAutoOpen(bool autoOpen) override;
    bool getAutoOpen() override;
    void setAuthParamName(const wchar_t* name) override;
    const wchar_t* getAuthParamName() override;
    void setSessionParamName(const wchar_t* name) override;
    const wchar_t* getSessionParamName() override;
    void setCheckpointId(uint32_t id) override;
    uint32_t getCheckpointId() override;
    void setCheckpointDir(const wchar_t* dir) override;
    const wchar_t* getCheckpointDir() override;
    void setSaveInterval(uint64_t bytes) override;
    uint64_t getSaveInterval() override;
    const wchar_t* getOriginalUrl() override;
    void setOriginalUrl(const wchar_t* url) override;
    const WStringList& getUrls() override;
    void setUrls(const wchar_t* urls) override;
    const wchar_t* getUrl(bool local) override;
    const wchar_t* getUrlPath() override;
    const wchar_t* getQuery() override;
    const wchar_t* nextBlock() override;
    bool getUseAkamai() override;
    void setUseAkamai(bool use) override;
    bool isLzma2Package() override;
    bool isSfxPackage() override;
    uint64_t getBlockDownloadedSize() override;
    void setBlockDownloadedSize(uint64_t size) override;
    uint64_t getTotalDownloadedSize() override;
    void setTotalDownloadedSize(uint64_t size) override;
    uint64_t getExtractedSize() override;
    void setExtractedSize(uint64_t size) override;
    bool isFinished() override;
    bool getHttpFallback() override;
    void setHttpFallback(bool fallback) override;
    int32_t getRetryCount() override;
    void setRetryCount(int32_t count) override;
    int32_t getFallbackRetryCount() override;
    void setFallbackRetryCount(int32_t count) override;
    int32_t getAuxRetryCount() override;
    void setAuxRetryCount(int32_t count) override;

private:
    using UrlBuffer = std::array<wchar_t, kUrlBufferSize>;

    void splitUrls(const std::wstring& list);
    void addPiece(const std::wstring& piece, const wchar_t* fileName, const wchar_t* suffix, bool& tokenMade);
    void addTokens(const std::wstring& resource, const std::string& key);
    bool applyBlockNaming(std::wstring& text);
    void expand(WStringList& list) const;
    void updateId();
    const wchar_t* buildCurrentUrl();
    const wchar_t* buildLocalUrl();
    void invalidateCurrentUrl();
    bool pathEndsWith(const wchar_t* suffix);

    std::wstring id_;
    std::wstring version_ = L"1.2";
    std::wstring name_;
    std::wstring date_;
    int32_t blockId_ = 0;
    int32_t blockCount_ = 1;
    std::wstring destDir_;
    std::wstring exePath_;
    std::wstring exeParam_;
    bool autoOpen_ = false;
    std::wstring authParamName_ = L"authparam=";
    std::wstring sessionParamName_ = L"SESSION_ID=";
    int64_t contentLength_ = 0;
    uint64_t compressedSize_ = 0;
    uint64_t uncompressedSize_ = 0;
    uint32_t state_ = qvdlm::state::Pending;
    uint32_t status_ = 0;
    uint32_t checkpointId_ = 0;
    std::wstring checkpointDir_;
    uint64_t saveInterval_ = kDefaultSaveInterval;
    bool useAkamai_ = false;
    std::wstring originalUrl_;
    WStringList urls_;
    // Fixed buffers: pointers handed out stay valid for the request's whole life.
    UrlBuffer currentUrl_{};
    std::wstring urlPath_;
    UrlBuffer serveFileUrl_{};
    UrlBuffer serveFileUrlWithToken_{};
    WStringList tokens_;
    WStringList queries_;
    uint64_t blockDownloadedSize_ = 0;
    uint64_t totalDownloadedSize_ = 0;
    uint64_t extractedSize_ = 0;
    bool finished_ = false;
    qv::CriticalSection lock_;
    bool httpFallback_ = true;
    int32_t retryCount_ = 5;
    int32_t fallbackRetryCount_ = 3;
    int32_t auxRetryCount_ = 3;
};
