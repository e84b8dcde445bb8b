// One package to download: its URL blocks, tokens, queries, destination, options and progress.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QvDLMExport.h"

using WStringList = std::vector<std::wstring>;

class QVDLM_API DownloadRequest {
public:
    virtual ~DownloadRequest() = default;

    virtual const wchar_t* getId() = 0;
    virtual void setUrl(const wchar_t* url, const wchar_t* fileName, const wchar_t* suffix) = 0;
    virtual void setVersion(const wchar_t* version) = 0;
    virtual const wchar_t* getVersion() = 0;
    virtual void setName(const wchar_t* name) = 0;
    virtual const wchar_t* getName() = 0;
    virtual void setDate(const wchar_t* date) = 0;
    virtual const wchar_t* getDate() = 0;
    virtual void setBlockId(int32_t blockId) = 0;
    virtual int32_t getBlockId() = 0;
    virtual void setBlockCount(int32_t count) = 0;
    virtual int32_t getBlockCount() = 0;
    virtual void clearTokens() = 0;
    virtual void addToken(const wchar_t* token) = 0;
    virtual const wchar_t* getToken(int32_t index) = 0;
    virtual void clearQueries() = 0;
    virtual void addQuery(const wchar_t* query) = 0;
    virtual const WStringList& getQueries() = 0;
    virtual void setContentLength(int64_t length) = 0;
    virtual int64_t getContentLength() = 0;
    virtual void setCompressedSize(uint64_t size) = 0;
    virtual uint64_t getCompressedSize() = 0;
    virtual void setUncompressedSize(uint64_t size) = 0;
    virtual uint64_t getUncompressedSize() = 0;
    virtual void setState(uint32_t state) = 0;
    virtual uint32_t getState() = 0;
    virtual void setStatus(uint32_t status) = 0;
    virtual uint32_t getStatus() = 0;
    virtual void setDestDir(const wchar_t* dir) = 0;
    virtual const wchar_t* getDestDir() = 0;
    virtual void setExePath(const wchar_t* path) = 0;
    virtual const wchar_t* getExePath() = 0;
    virtual void setExeParam(const wchar_t* param) = 0;
    virtual const wchar_t* getExeParam() = 0;
    virtual void setAutoOpen(bool autoOpen) = 0;
    virtual bool getAutoOpen() = 0;
    virtual void setAuthParamName(const wchar_t* name) = 0;
    virtual const wchar_t* getAuthParamName() = 0;
    virtual void setSessionParamName(const wchar_t* name) = 0;
    virtual const wchar_t* getSessionParamName() = 0;
    virtual void setCheckpointId(uint32_t id) = 0;
    virtual uint32_t getCheckpointId() = 0;
    virtual void setCheckpointDir(const wchar_t* dir) = 0;
    virtual const wchar_t* getCheckpointDir() = 0;
    virtual void setSaveInterval(uint64_t bytes) = 0;
    virtual uint64_t getSaveInterval() = 0;
    virtual const wchar_t* getOriginalUrl() = 0;
    virtual void setOriginalUrl(const wchar_t* url) = 0;
    virtual const WStringList& getUrls() = 0;
    virtual void setUrls(const wchar_t* urls) = 0;
    virtual const wchar_t* getUrl(bool local) = 0;
    virtual const wchar_t* getUrlPath() = 0;
    virtual const wchar_t* getQuery() = 0;
    virtual const wchar_t* nextBlock() = 0;
    virtual bool getUseAkamai() = 0;
    virtual void setUseAkamai(bool use) = 0;
    virtual bool isLzma2Package() = 0;
    virtual bool isSfxPackage() = 0;
    virtual uint64_t getBlockDownloadedSize() = 0;
    virtual void setBlockDownloadedSize(uint64_t size) = 0;
    virtual uint64_t getTotalDownloadedSize() = 0;
    virtual void setTotalDownloadedSize(uint64_t size) = 0;
    virtual uint64_t getExtractedSize() = 0;
    virtual void setExtractedSize(uint64_t size) = 0;
    virtual bool isFinished() = 0;
    virtual bool getHttpFallback() = 0;
    virtual void setHttpFallback(bool fallback) = 0;
    virtual int32_t getRetryCount() = 0;
    virtual void setRetryCount(int32_t count) = 0;
    virtual int32_t getFallbackRetryCount() = 0;
    virtual void setFallbackRetryCount(int32_t count) = 0;
    virtual int32_t getAuxRetryCount() = 0;
    virtual void setAuxRetryCount(int32_t count) = 0;

    DownloadRequest(const DownloadRequest&) = default;
    DownloadRequest& operator=(const DownloadRequest&) = default;

protected:
    DownloadRequest() = default;
};
