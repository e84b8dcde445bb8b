// One download job: owns its request and pipeline, runs a control thread that starts one worker per
// stage and obeys commands posted to it as thread messages, keeps the state and status, writes and reads
// the stages' checkpoints, and moves the finished files out of its working folder.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "Download.h"
#include "DownloadMgr.h"
#include "DownloadRequest.h"
#include "common/Win32Raii.h"
#include "control/JobEnvironment.h"
#include "log/StatsImp.h"
#include "net/NetSessionDelivery.h"
#include "stream/Stream.h"

class DownloadImp final : public Download, public PipelineJob {
public:
    DownloadImp(DownloadRequest* request, DownloadMgr* manager, const JobEnvironment& environment);
    ~DownloadImp() override;

    // Download, in slot order.
    bool isPrepared() override;
    bool buildPipeline() override;
    Target* addStage(Stream* stage, const LinkSpec* settings) override;
    const wchar_t* initUrl() override;
    Target* attachFileWriter() override;
    HANDLE start() override;
    bool setPending() override;
    bool reinit() override;
    bool pause() override;
    bool resume() override;
    bool abort(bool discard) override;
    bool waitIdle() override;
    int stagesReady() override;
    DownloadRequest* getRequest() override;
    bool applyValidationResult(unsigned result) override;
    unsigned getState() override;
    unsigned getStatus() override;
    unsigned getStreamError() override;
    unsigned getNetSessionError() override;
    void setUseAkamai(bool use, bool persist) override;
    void setUseAkamaiPersist(bool use) override;
    Stats* getStats() override;
    HANDLE getThreadHandle() override;
    unsigned getThreadId() override;
    bool isRunning() override;
    void setStatus(unsigned status) override;
    void setBlockDownloadedSize(uint64_t size) override;
    uint64_t getDownloadedSize() override;
    void setTotalDownloadedSize(uint64_t size) override;
    void addTotalDownloadedSize(int64_t delta) override;
    uint64_t getExtractedSize() override;
    void setExtractedSize(uint64_t size) override;
    void addExtractedSize(int64_t delta) override;
    bool checkpointDue(unsigned id, bool ask) override;
    int saveCheckpoint(const wchar_t* name, unsigned id, Stream* stage, bool ask, bool commit) override;
    int loadCheckpoint(const wchar_t* name, unsigned* idOut, Stream* stage) override;
    void setHoldFlag(bool hold) override;
    bool getHoldFlag() override;

    // What the stage threads use.
    bool stopRequested() override;
    uint32_t status() override;
    void setJobStatus(uint32_t code) override;
    DownloadRequest* request() override;
    Download* download() override;
    void checkpoint(const wchar_t* stageName, uint32_t sequence, Stream* stage, bool fromReader,
                    bool fromWriter) override;
    bool restoreStage(const wchar_t* stageName, Stream* stage) override;
    void addBytes(int64_t bytes) override;
    uint32_t controlThreadId() override;
    uint32_t startGate() override;
    Stream* currentSource() override;
    Stream* currentSink() override;
    uint32_t validateUrl() override;
    bool acceptValidation(uint32_t result) override;
    const wchar_t* sourceUrl() override;
    bool takeInterruption() override;
    void fallBackToHttp() override;
    bool stopping() override;
    uint32_t settleRequest() override;
    void settle(const wchar_t* stageName, uint32_t sequence, Stream* stage) override;

    // For the manager: true while the control thread of the current run has not ended.
    bool controlThreadAlive();
    // Waits for the control thread of the current run to end; true when it has (or there is none).
    bool waitForControlThread(DWORD milliseconds);

    // Name of the job's own record in a checkpoint: where the request's progress stood when it was taken.
    static constexpr const wchar_t* kProgressRecordName = L"Job";

private:
    using WorkerMap = std::map<HANDLE, DWORD>;

    static DWORD WINAPI controlThreadEntry(void* self);
    static DWORD WINAPI stageThreadEntry(void* target);

    DWORD runControlThread();
    bool openStages();
    bool waitForStagesReady(WorkerMap& workers);
    bool startWorkers(WorkerMap& workers);
    bool startAnew();
    void handleMessages(WorkerMap& workers);
    void handleCommand(UINT command, WorkerMap& workers);
    void stopProcedure(bool discard, const WorkerMap& workers);
    void requestSettle();
    void endSettledStop(const WorkerMap& workers);
    void postToWorkers(UINT message, const WorkerMap& workers);
    void finalCleanup();
    bool moveOutOfWorkingFolder();
    void destroyTargets();

    bool changeState(uint32_t next);
    void updateRunGate();
    DownloadRequestLog* store() const;
    Stream* stageOf(Target* target) const;
    StreamThreadData* dataOf(Target* target) const;
    void setStageOf(Target* target, Stream* stage);
    LinkSpec linkSpec(uint32_t linkCount, const wchar_t* name) const;
    int64_t checkpointedFileOffset();
    void restoreProgressRecord();
    bool writeProgressRecord(uint32_t id);
    bool writeCheckpointPart(const wchar_t* name, uint32_t id, Stream* stage);
    bool commitCheckpoint(uint32_t id);
    void abandonCheckpoint(uint32_t id);
    void settleDone(uint32_t id);

    JobEnvironment env_;
    std::vector<Target*> stages_;
    DownloadRequest* request_;
    DownloadMgr* manager_;
    qv::UniqueHandle controlThread_;       // handed out by start(); closed by the final clean-up
    std::atomic<DWORD> controlThreadId_{0};
    qv::UniqueHandle runHandle_;           // our own handle on the same thread, kept for waits
    std::atomic<uint32_t> state_;
    std::atomic<uint32_t> status_;
    StatsImp stats_;
    std::atomic<bool> finalised_{false};
    qv::UniqueHandle idleEvent_;  // manual reset; signalled whenever the download leaves a waiting state
    qv::UniqueHandle runGate_;    // manual reset; non-signalled while the workers are to wait
    qv::UniqueHandle queueReady_; // the control thread can take messages
    std::atomic<bool> stopFlag_{false};
    bool outOfSpace_ = false; // the sink stopped the run: its volume was full
    std::atomic<uint32_t> gate_{0};
    std::atomic<bool> holdFlag_{false};
    std::atomic<bool> interrupted_{false}; // the source is to retry at once

    // A pause or a stop keeping the progress first has the source hand over what it holds and a checkpoint
    // of that point carried through the stages (settle); a stop ends the workers once it is committed or
    // after a time limit. Generations count the requests; the source answers each one once.
    std::atomic<uint32_t> settleGeneration_{0};
    std::atomic<uint32_t> settleAnswered_{0};
    qv::UniqueHandle settledEvent_;        // manual reset; signalled while no requested checkpoint is on its way
    std::atomic<bool> stopPending_{false}; // a stop waits for its checkpoint; the source holds meanwhile
    ULONGLONG stopDeadline_ = 0;
    bool workersRunning_ = false;          // control thread only
    qv::NetSessionDelivery netSession_;    // content-delivery session, from initUrl to the final clean-up

    // Checkpoint bookkeeping, shared by the stage threads.
    qv::CriticalSection checkpointLock_;
    uint64_t lastCheckpointAt_ = 0;
    uint32_t checkpointBlock_ = 0;
    uint32_t checkpointId_ = 0;
    size_t partsWritten_ = 0;   // stages' parts of the open checkpoint written in full
    bool partFailed_ = false;   // a part of the open checkpoint could not be written
    bool discarding_ = false;   // an abort with discard has begun: nothing more is committed
    uint32_t forceId_ = 0;      // a checkpoint of this id is due whatever the interval (settle)
    uint32_t settleId_ = 0;     // the requested checkpoint on its way through the stages
    uint64_t committedAt_ = 0;  // downloaded size that the checkpoint in force holds
    struct ProgressSnapshot {
        int32_t blockId = 0;
        uint64_t blockDownloaded = 0;
        uint64_t totalDownloaded = 0;
    } snapshot_;
};

// Makes a download for a request as the factory does (the statistics take the request's sizes at start).
DownloadImp* makeDownload(DownloadRequest* request, DownloadMgr* manager, const JobEnvironment& environment);
