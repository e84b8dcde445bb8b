// One download job: its request, pipeline, control thread, state and status.
#pragma once

#include <windows.h>

#include <cstdint>

#include "QvDLMExport.h"

class DownloadRequest;
class Stats;
class Stream;
class Target;
struct LinkSpec;

class QVDLM_API Download {
public:
    // True exactly when bits 24..27 of the code are not all zero (an error code).
    static bool isErrorCode(unsigned long code);

    virtual bool isPrepared() = 0;
    virtual bool buildPipeline() = 0;
    virtual Target* addStage(Stream* stage, const LinkSpec* settings) = 0;
    virtual const wchar_t* initUrl() = 0;
    virtual Target* attachFileWriter() = 0;
    virtual HANDLE start() = 0;
    virtual bool setPending() = 0;
    virtual bool reinit() = 0;
    virtual bool pause() = 0;
    virtual bool resume() = 0;
    virtual bool abort(bool discard) = 0;
    virtual bool waitIdle() = 0;
    virtual int stagesReady() = 0;
    virtual DownloadRequest* getRequest() = 0;
    virtual bool applyValidationResult(unsigned result) = 0;
    virtual unsigned getState() = 0;
    virtual unsigned getStatus() = 0;
    virtual unsigned getStreamError() = 0;
    virtual unsigned getNetSessionError() = 0;
    virtual void setUseAkamai(bool use, bool persist) = 0;
    virtual void setUseAkamaiPersist(bool use) = 0;
    virtual Stats* getStats() = 0;
    virtual HANDLE getThreadHandle() = 0;
    virtual unsigned getThreadId() = 0;
    virtual bool isRunning() = 0;
    virtual void setStatus(unsigned status) = 0;
    virtual void setBlockDownloadedSize(uint64_t size) = 0;
    virtual uint64_t getDownloadedSize() = 0;
    virtual void setTotalDownloadedSize(uint64_t size) = 0;
    virtual void addTotalDownloadedSize(int64_t delta) = 0;
    virtual uint64_t getExtractedSize() = 0;
    virtual void setExtractedSize(uint64_t size) = 0;
    virtual void addExtractedSize(int64_t delta) = 0;
    virtual bool checkpointDue(unsigned blockId, bool ask) = 0;
    virtual int saveCheckpoint(const wchar_t* name, unsigned id, Stream* stage, bool ask, bool commit) = 0;
    virtual int loadCheckpoint(const wchar_t* name, unsigned* idOut, Stream* stage) = 0;
    virtual void setHoldFlag(bool hold) = 0;
    virtual bool getHoldFlag() = 0;

    Download(const Download&) = default;
    Download& operator=(const Download&) = default;

protected:
    friend class QvDLM;
    Download() = default;
    virtual ~Download() = default;
};
