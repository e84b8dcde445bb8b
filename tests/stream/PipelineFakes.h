// The pipeline's one test double: a job whose state the test sets and that records what the stage threads
// tell it (read after they ended), around real stages; retry waits are counted instead of slept.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QvDLMCodes.h"
#include "stream/StreamThreads.h"
#include "stream/TargetImp.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"

namespace fakes {

class FakeJob final : public PipelineJob {
public:
    explicit FakeJob(FakeRequest& request) : request_(request) {}
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> state{qvdlm::state::Play}, gate{1}, controlThread{0};
    std::atomic<int64_t> bytes{0}, total{0};
    std::atomic<int> fallbacks{0}, pauses{0};
    std::wstring failRestoreOf;           // the stage whose restore fails
    Stream* sink = nullptr;               // the job's current sink after a block change
    std::deque<uint32_t> validationCodes; // answered in turn; 0 once empty
    std::vector<int64_t> blockLengths;    // the request's length once a block is validated
    struct Checkpoint { std::wstring stage; uint32_t sequence; bool fromReader, fromWriter; };
    std::vector<Checkpoint> checkpoints;
    std::vector<uint32_t> statuses;
    std::vector<std::wstring> restored;

    bool stopRequested() override { return stop; }
    uint32_t status() override { return state; }
    void setJobStatus(uint32_t code) override { remember(statuses, code); }
    DownloadRequest* request() override { return &request_; }
    Download* download() override { return nullptr; }
    void checkpoint(const wchar_t* stage, uint32_t n, Stream*, bool r, bool w) override { remember(checkpoints, Checkpoint{stage, n, r, w}); }
    bool restoreStage(const wchar_t* stage, Stream*) override { return remember(restored, stage), failRestoreOf != stage; }
    void addBytes(int64_t n) override { bytes += n; }
    uint32_t controlThreadId() override { return controlThread; }
    uint32_t startGate() override { return gate; }
    Stream* currentSource() override { return nullptr; }
    Stream* currentSink() override { return sink; }
    void setBlockDownloadedSize(uint64_t size) override { request_.setBlockDownloadedSize(size); }
    void addTotalDownloadedSize(int64_t delta) override { total += delta; }
    uint32_t validateUrl() override // only the source thread validates
    {
        request_.setContentLength(blockLengths.at(static_cast<size_t>(request_.getBlockId())));
        const uint32_t code = validationCodes.empty() ? 0 : validationCodes.front();
        return validationCodes.empty() ? 0 : (validationCodes.pop_front(), code);
    }
    bool acceptValidation(uint32_t result) override { return result != qvdlm::validation::ProxyAuthRequired; }
    const wchar_t* sourceUrl() override { return request_.getUrl(false); }
    bool takeInterruption() override { return false; }
    void fallBackToHttp() override { ++fallbacks, request_.setUseAkamai(false); }

private:
    template <typename T, typename V>
    void remember(std::vector<T>& list, V value) { std::lock_guard<std::mutex> hold(mutex_); list.push_back(value); }
    FakeRequest& request_;
    std::mutex mutex_;
};

class CountingServices final : public ReaderServices {
public:
    std::atomic<int> sleeps{0}, reconnects{0};
    std::vector<uint32_t> timeouts;
    std::vector<int64_t> createdPositions;

    StreamReader* createSource(const wchar_t* url, uint32_t start, int64_t at) override { return createdPositions.push_back(at), real().createSource(url, start, at); }
    bool reconnect(Stream* source) override { return ++reconnects, real().reconnect(source); }
    void setTimeouts(Stream* source, uint32_t ms) override { timeouts.push_back(ms), real().setTimeouts(source, ms); }
    int64_t position(Stream* source) override { return real().position(source); }
    uint32_t dataStart(Stream* source) override { return real().dataStart(source); }
    void sleep(uint32_t) override { ++sleeps; }

private:
    static ReaderServices& real() { return httpReaderServices(); }
};

constexpr uint32_t kTimedOut = 0xFFFFFFFF;

// Runs a body on its own thread; joins within a bound.
struct StageThread {
    explicit StageThread(std::function<uint32_t()> f) : body(std::move(f)), handle(CreateThread(nullptr, 0, entry, this, 0, &id)) {}
    StageThread(const StageThread&) = delete;
    std::function<uint32_t()> body;
    DWORD id = 0;
    HANDLE handle;
    static DWORD WINAPI entry(void* self) { return static_cast<StageThread*>(self)->body(); }
    ~StageThread() { join() == kTimedOut && (ADD_FAILURE() << "thread did not end", post(qvdlm::command::StopKeep)) && WaitForSingleObject(handle, 5000), CloseHandle(handle); }
    uint32_t join(DWORD ms = 60000) { DWORD c = kTimedOut; return WaitForSingleObject(handle, ms) || !GetExitCodeThread(handle, &c) ? kTimedOut : c; }
    bool post(UINT message) // fails until the thread made its queue
    {
        for (int i = 0; i < 2000; ++i, Sleep(1)) if (PostThreadMessageW(id, message, 0, 0)) return true;
        return false;
    }
};

// Stages around a fake job, linked as the job links them.
struct Rig {
    FakeRequest request;
    FakeJob job{request};
    CountingServices services;
    EventRecorder events;
    std::vector<std::unique_ptr<TargetImp>> targets;

    Rig(const std::vector<std::wstring>& urls, const std::vector<int64_t>& lengths)
    {
        request.setBlocks(urls), request.setContentLength(lengths.at(0)), job.blockLengths = lengths;
    }
    void add(Stream* stage, const wchar_t* name)
    {
        targets.push_back(std::make_unique<TargetImp>(&job, targets.empty() ? nullptr : targets.back().get()));
        auto* writer = dynamic_cast<StreamWriter*>(stage);
        LinkSpec spec{writer && writer->readerSide() ? 2u : 1u, {kLinkBufferSize, kLinkBufferSize}, {}, -1};
        wcsncpy_s(spec.stageName, kStageNameLength, name, _TRUNCATE);
        EXPECT_TRUE(targets.back()->configure(stage, &spec) && targets.back()->createBuffers());
    }
    // Exit codes, source first; the test thread stands in for the control thread. release: close the stages.
    std::vector<uint32_t> run(bool release = true)
    {
        MSG m;
        PeekMessageW(&m, nullptr, 0, 0, PM_NOREMOVE);
        job.controlThread = GetCurrentThreadId();
        std::vector<std::unique_ptr<StageThread>> threads;
        for (size_t i = 0; i < targets.size(); ++i)
            threads.push_back(std::make_unique<StageThread>([this, i] {
                Target* t = targets[i].get();
                return i == 0 ? runReaderStream(t, services) : i + 1 < targets.size() ? readerWriterStreamThread(t) : writerStreamThread(t);
            }));
        std::vector<uint32_t> codes;
        for (auto& t : threads) {
            while (MsgWaitForMultipleObjects(1, &t->handle, FALSE, 60000, QS_POSTMESSAGE) == WAIT_OBJECT_0 + 1)
                while (PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE))
                    if (m.message == qvdlm::command::Pause && ++job.pauses)
                        job.state = qvdlm::state::Paused;
            codes.push_back(t->join(0));
        }
        threads.clear();
        return release ? targets.clear() : void(), codes;
    }
    void abortOnError() // as the manager does
    {
        events.onEvent = [this](const EventRecorder::Entry& e) { if (e.kind == qvdlm::event::Error) job.state = qvdlm::state::Aborting, job.stop = true; };
    }
};

struct ScopedEnv { // an environment variable for one scope
    const wchar_t* name;
    ~ScopedEnv() { SetEnvironmentVariableW(name, nullptr); }
};

} // namespace fakes
