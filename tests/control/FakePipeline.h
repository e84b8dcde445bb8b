// Stand-in stages for driving the job's control thread (also used by tests/fuzz). The workers behave like
// the real ones where the job can tell: they prepare through the start gate, restore from checkpoints,
// poll the stop request and end with a status.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "control/JobEnvironment.h"
#include "stream/Stream.h"
#include "support/EventRecorder.h"

// How one stand-in stage behaves in its worker.
struct StagePlan {
    int steps = -1;            // loop rounds before ending by itself; -1: until stopped
    uint32_t exitCode = 0;     // code with which it ends by itself
    bool restoreOk = true;
    bool createBuffersOk = true;
};

// A stage whose snapshot is {size 16, 0, value}.
class FakeStage final : public StreamWriter {
public:
    FakeStage(std::wstring what, StagePlan plan) : what(std::move(what)), plan(plan) {}
    void close() override {}
    bool restoreState(const StreamStateHeader* record) override
    {
        if (!record || record->size < 16 || !plan.restoreOk)
            return false;
        value = reinterpret_cast<const uint64_t*>(record)[1];
        return restored = true;
    }
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override
    {
        if (out && capacity && *capacity >= 16)
            *reinterpret_cast<uint64_t*>(out) = 16, reinterpret_cast<uint64_t*>(out)[1] = value;
        return 16;
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
    ~FakeTarget() override { delete data_.stage; }
    bool configure(Stream* stage, const LinkSpec* spec) override
    {
        data_.stage = stage;
        data_.linkCount = spec->linkCount;
        wcsncpy_s(data_.stageName, kStageNameLength, spec->stageName, _TRUNCATE);
        linkSpec = *spec;
        return true;
    }
    bool createBuffers() override { return static_cast<FakeStage*>(data_.stage)->plan.createBuffersOk; }
    bool prepare(Stream* stage, bool) override;
    BasicStreamThreadData* threadData() override { return &data_; }

    std::atomic<uint32_t> ready{0};
    LinkSpec linkSpec{};

private:
    StreamThreadData data_;
};

class FakeStages final : public StageFactory {
public:
    Target* makeTarget(Target*, PipelineJob* job) override { return targets.emplace_back(new FakeTarget(job)); }
    uint32_t readiness(Target* target) override { return static_cast<FakeTarget*>(target)->ready; }
    Stream* makeSource(const wchar_t* url) override { return made.emplace_back(new FakeStage(url, source)); }
    Stream* makeFileSink(const wchar_t* path, int64_t) override { return made.emplace_back(new FakeStage(path, sink)); }
    Stream* makeDecoder() override { return made.emplace_back(new FakeStage(L"decoder", middle)); }
    Stream* makeTarSink(const wchar_t* folder) override { return made.emplace_back(new FakeStage(folder, sink)); }
    bool connectSource(Stream*) override { return ++connects > 0; }
    StreamThreadProc readerProc() override { return &thread; }
    StreamThreadProc readerWriterProc() override { return &thread; }
    StreamThreadProc writerProc() override { return &thread; }
    static uint32_t __stdcall thread(void* target); // the worker of every stand-in stage

    StagePlan source, middle, sink;
    std::vector<FakeTarget*> targets; // every wrapper made (not owned)
    std::vector<FakeStage*> made;     // every stage made, in order (valid while its target lives)
    std::atomic<int> connects{0};
};

// Polls until done() holds or the time is up; answers done().
bool waitUntil(const std::function<bool()>& done, DWORD timeoutMs = 10000);

// An environment of stand-in stages over the given store (or none) and validation (null: valid).
JobEnvironment fakeEnvironment(FakeStages* stages, DownloadRequestLog* (*store)() = nullptr,
                               unsigned long (*validate)(DownloadRequest*) = nullptr);
