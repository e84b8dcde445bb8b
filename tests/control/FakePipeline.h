// Stand-in stages, wrappers and worker threads for driving the job's control thread, plus an event
// recorder. The workers behave like the real ones where the job can tell: they prepare through the
// start gate, restore from checkpoints, poll the stop request and end with a status.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "EventPublisher.h"
#include "support/EventRecorder.h"
#include "EventSubscriber.h"
#include "common/Win32Raii.h"
#include "control/JobEnvironment.h"
#include "stream/Stream.h"

struct FakeStageRecord {
    uint32_t size;
    uint32_t reserved;
    uint64_t value;
};

// How one stand-in stage behaves in its worker.
struct StagePlan {
    int steps = -1;            // loop rounds before ending by itself; -1: until stopped
    uint32_t exitCode = 0;     // code with which it ends by itself
    uint64_t bytesPerStep = 0; // a source reports this much more downloaded each round
    bool restoreOk = true;
    bool createBuffersOk = true;
};

class FakeStage final : public StreamWriter {
public:
    FakeStage(std::wstring what, StagePlan plan) : what(std::move(what)), plan(plan) {}
    void close() override {}
    bool restoreState(const StreamStateHeader* record) override
    {
        if (!record || record->size < sizeof(FakeStageRecord) || !plan.restoreOk)
            return false;
        value = reinterpret_cast<const FakeStageRecord*>(record)->value;
        restored = true;
        return true;
    }
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override
    {
        if (!out || !capacity || *capacity < sizeof(FakeStageRecord))
            return sizeof(FakeStageRecord);
        auto* record = reinterpret_cast<FakeStageRecord*>(out);
        record->size = sizeof(FakeStageRecord);
        record->reserved = 0;
        record->value = value;
        return sizeof(FakeStageRecord);
    }
    int64_t writeBytes(const uint8_t*, uint32_t count) override { return count; }

    std::wstring what; // url or path it was made for
    StagePlan plan;
    uint64_t value = 0;
    bool restored = false;
    std::atomic<int> rounds{0};
};

class FakeTarget final : public Target {
public:
    explicit FakeTarget(PipelineJob* job) { data_.job = job; }
    ~FakeTarget() override
    {
        delete data_.stage;
        ++destroyed;
    }
    bool configure(Stream* stage, const LinkSpec* spec) override
    {
        data_.stage = stage;
        data_.linkCount = spec->linkCount;
        wcsncpy_s(data_.stageName, kStageNameLength, spec->stageName, _TRUNCATE);
        linkSpec = *spec;
        return true;
    }
    bool createBuffers() override
    {
        auto* stage = dynamic_cast<FakeStage*>(data_.stage);
        return stage && stage->plan.createBuffersOk;
    }
    bool prepare(Stream* stage, bool) override
    {
        ready = 0;
        PipelineJob* job = data_.job;
        if (job->request()->getCheckpointId() != 0 && !job->restoreStage(data_.stageName, stage))
            ready = 2;
        if (ready != 2)
            ready = 1;
        for (int i = 0; i < 200000 && job->startGate() == 0; ++i) {
            const uint32_t s = job->status();
            if (s == 0x20000005 || s == 0x20000006)
                return false;
            Sleep(0);
        }
        return job->startGate() == 1 && ready == 1;
    }
    BasicStreamThreadData* threadData() override { return &data_; }

    std::atomic<uint32_t> ready{0};
    LinkSpec linkSpec{};
    static inline std::atomic<int> destroyed{0};

private:
    StreamThreadData data_;
};

// The worker of every stand-in stage.
uint32_t __stdcall fakeStageThread(void* target);

class FakeStages final : public StageFactory {
public:
    Target* makeTarget(Target*, PipelineJob* job) override
    {
        targets.push_back(new FakeTarget(job));
        return targets.back();
    }
    uint32_t readiness(Target* target) override { return static_cast<FakeTarget*>(target)->ready; }
    Stream* makeSource(const wchar_t* url) override { return track(new FakeStage(url, source)); }
    Stream* makeFileSink(const wchar_t* path, int64_t offset) override
    {
        sinkOffsets.push_back(offset);
        return track(new FakeStage(path, sink));
    }
    Stream* makeDecoder() override { return track(new FakeStage(L"decoder", middle)); }
    Stream* makeTarSink(const wchar_t* folder) override { return track(new FakeStage(folder, sink)); }
    bool connectSource(Stream*) override
    {
        ++connects;
        return true;
    }
    StreamThreadProc readerProc() override { return &fakeStageThread; }
    StreamThreadProc readerWriterProc() override { return &fakeStageThread; }
    StreamThreadProc writerProc() override { return &fakeStageThread; }

    FakeStage* track(FakeStage* stage)
    {
        made.push_back(stage);
        return stage;
    }

    StagePlan source, middle, sink;
    std::vector<FakeTarget*> targets; // every wrapper made (not owned)
    std::vector<FakeStage*> made; // every stage made, in order (not owned; valid while its target lives)
    std::vector<int64_t> sinkOffsets;
    std::atomic<int> connects{0};
};

// Polls until done() holds or the time is up (about timeoutMs); answers done().
bool waitUntil(const std::function<bool()>& done, DWORD timeoutMs = 10000);

// An environment of stand-in stages over the given store (or none).
JobEnvironment fakeEnvironment(FakeStages* stages, DownloadRequestLog* (*store)() = nullptr,
                               unsigned long (*validate)(DownloadRequest*) = nullptr);
