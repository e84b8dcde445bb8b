// Stand-in stages for driving the job's control thread (also used by tests/fuzz). The workers behave like
// the real ones where the job can tell: they prepare through the start gate, restore from checkpoints,
// poll the stop request and end with a status.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>

#include "control/JobEnvironment.h"
#include "stream/Stream.h"

struct StagePlan { // how one stand-in stage behaves in its worker
    int steps = -1;        // loop rounds before ending by itself; -1: until stopped
    uint32_t exitCode = 0; // code with which it ends by itself
    bool createBuffersOk = true;
};

class FakeStage final : public StreamWriter { // a stage without a snapshot of its own
public:
    explicit FakeStage(StagePlan plan) : plan(plan) {}
    void close() override {}
    bool restoreState(const StreamStateHeader*) override { return false; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 0; }
    int64_t writeBytes(const uint8_t*, uint32_t count) override { return count; }

    StagePlan plan;
};

class FakeTarget final : public Target {
public:
    explicit FakeTarget(PipelineJob* job) { data_.job = job; }
    ~FakeTarget() override { delete data_.stage; }
    bool configure(Stream* stage, const LinkSpec* spec) override
    {
        data_.stage = stage, data_.linkCount = spec->linkCount;
        return wcsncpy_s(data_.stageName, kStageNameLength, spec->stageName, _TRUNCATE) == 0;
    }
    bool createBuffers() override { return static_cast<FakeStage*>(data_.stage)->plan.createBuffersOk; }
    bool prepare(Stream* stage, bool) override;
    BasicStreamThreadData* threadData() override { return &data_; }

    std::atomic<uint32_t> ready{0};

private:
    StreamThreadData data_;
};

class FakeStages final : public StageFactory {
public:
    Target* makeTarget(Target*, PipelineJob* job) override { return new FakeTarget(job); }
    uint32_t readiness(Target* target) override { return static_cast<FakeTarget*>(target)->ready; }
    Stream* makeSource(const wchar_t*) override { return new FakeStage(source); }
    Stream* makeFileSink(const wchar_t*, int64_t) override { return new FakeStage(sink); }
    Stream* makeDecoder() override { return new FakeStage(middle); }
    Stream* makeTarSink(const wchar_t*) override { return new FakeStage(sink); }
    bool connectSource(Stream*) override { return ++connects > 0; }
    StreamThreadProc readerProc() override { return &thread; }
    StreamThreadProc readerWriterProc() override { return &thread; }
    StreamThreadProc writerProc() override { return &thread; }
    static uint32_t __stdcall thread(void* target); // the worker of every stand-in stage

    StagePlan source, middle, sink;
    std::atomic<int> connects{0};
};

inline bool waitUntil(const std::function<bool()>& done, DWORD timeoutMs = 10000) // polls until done() holds or the time is up
{
    for (const ULONGLONG end = GetTickCount64() + timeoutMs; !done(); Sleep(5))
        if (GetTickCount64() > end)
            return done();
    return true;
}
// An environment of stand-in stages over the given store (or none) and validation (null: valid).
inline JobEnvironment fakeEnvironment(FakeStages* stages, DownloadRequestLog* (*store)() = nullptr,
                                      unsigned long (*validate)(DownloadRequest*) = nullptr) { return {stages, store, validate}; }
