// Test doubles for driving stages and stage threads without a download: a request, a job, an event
// recorder, scripted stages and source services, and a runner for stage threads.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/InertRequest.h"
#include "EventPublisher.h"
#include "QvDLMCodes.h"
#include "stream/Stream.h"
#include "stream/StreamThreads.h"
#include "stream/TargetImp.h"

namespace fakes {

// A request with the fields the pipeline reads; everything else is inert.
class FakeRequest final : public InertRequest {
public:
    std::atomic<uint32_t> checkpointId{0};
    std::atomic<uint64_t> blockDownloaded{0};
    std::atomic<int64_t> contentLength{0};
    std::atomic<bool> lzma{false};
    std::atomic<bool> sfx{false};
    std::atomic<bool> useAkamai{false};
    std::atomic<bool> httpFallback{true};
    std::atomic<int32_t> retryCount{5};
    std::atomic<int32_t> fallbackRetryCount{3};
    std::atomic<int32_t> auxRetryCount{3};
    // Block URLs and their lengths; the first is current at the start.
    std::vector<std::wstring> blockUrls{L"http://localhost/block1"};
    std::vector<int64_t> blockLengths{0};
    size_t currentBlock = 0;

    const wchar_t* getId() override { return blockUrls.front().c_str(); }
    const wchar_t* getUrl(bool) override { return blockUrls[currentBlock].c_str(); }
    const wchar_t* nextBlock() override
    {
        if (currentBlock + 1 >= blockUrls.size()) {
            ++nextBlockCallsAtEnd;
            return nullptr;
        }
        ++currentBlock;
        contentLength = blockLengths[currentBlock];
        return blockUrls[currentBlock].c_str();
    }
    std::atomic<bool> finished{true};
    bool isFinished() override { return finished; }
    void setCheckpointId(uint32_t id) override { checkpointId = id; }
    uint32_t getCheckpointId() override { return checkpointId; }
    uint64_t getBlockDownloadedSize() override { return blockDownloaded; }
    void setBlockDownloadedSize(uint64_t size) override { blockDownloaded = size; }
    void setContentLength(int64_t length) override { contentLength = length; }
    int64_t getContentLength() override { return contentLength; }
    bool isLzma2Package() override { return lzma; }
    bool isSfxPackage() override { return sfx; }
    bool getUseAkamai() override { return useAkamai; }
    void setUseAkamai(bool use) override { useAkamai = use; }
    bool getHttpFallback() override { return httpFallback; }
    void setHttpFallback(bool fallback) override { httpFallback = fallback; }
    int32_t getRetryCount() override { return retryCount; }
    void setRetryCount(int32_t count) override { retryCount = count; }
    int32_t getFallbackRetryCount() override { return fallbackRetryCount; }
    void setFallbackRetryCount(int32_t count) override { fallbackRetryCount = count; }
    int32_t getAuxRetryCount() override { return auxRetryCount; }
    void setAuxRetryCount(int32_t count) override { auxRetryCount = count; }

    int nextBlockCallsAtEnd = 0;
};

struct CheckpointCall {
    std::wstring stage;
    uint32_t sequence;
    Stream* stream;
    bool fromReader;
    bool fromWriter;
};

// A job whose state the test sets; it records what the threads tell it.
class FakeJob final : public PipelineJob {
public:
    explicit FakeJob(FakeRequest& request) : request_(request) {}

    std::atomic<bool> stop{false};
    std::atomic<uint32_t> state{qvdlm::state::Play};
    std::atomic<uint32_t> gate{1};
    std::atomic<uint32_t> controlThread{0};
    std::atomic<bool> interruption{false};
    std::atomic<int64_t> bytes{0};
    std::atomic<uint64_t> total{0};
    std::atomic<int> fallbacks{0};
    bool restoreResult = true;
    std::wstring failRestoreOf; // a stage whose restore fails even when restoreResult is true
    Stream* sink = nullptr;
    std::deque<uint32_t> validationCodes; // answered in turn; 0 once empty
    // Called on every status() read, from the thread that reads it.
    std::function<void()> onStatusRead;

    bool stopRequested() override { return stop; }
    uint32_t status() override
    {
        if (onStatusRead)
            onStatusRead();
        return state;
    }
    void setJobStatus(uint32_t code) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        statuses_.push_back(code);
    }
    DownloadRequest* request() override { return &request_; }
    Download* download() override { return nullptr; }
    void checkpoint(const wchar_t* stageName, uint32_t sequence, Stream* stage, bool fromReader,
                    bool fromWriter) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        checkpoints_.push_back({stageName, sequence, stage, fromReader, fromWriter});
    }
    bool restoreStage(const wchar_t* stageName, Stream*) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        restored_.push_back(stageName);
        return restoreResult && failRestoreOf != stageName;
    }
    void addBytes(int64_t n) override { bytes += n; }
    uint32_t controlThreadId() override { return controlThread; }
    uint32_t startGate() override { return gate; }
    Stream* currentSource() override { return nullptr; }
    Stream* currentSink() override { return sink; }
    void setBlockDownloadedSize(uint64_t size) override { request_.setBlockDownloadedSize(size); }
    void addTotalDownloadedSize(int64_t delta) override { total += static_cast<uint64_t>(delta); }
    uint32_t validateUrl() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++validations_;
        if (validationCodes.empty())
            return 0;
        const uint32_t code = validationCodes.front();
        validationCodes.pop_front();
        return code;
    }
    bool acceptValidation(uint32_t result) override { return result != qvdlm::validation::ProxyAuthRequired; }
    const wchar_t* sourceUrl() override { return request_.getUrl(false); }
    bool takeInterruption() override { return interruption.exchange(false); }
    void fallBackToHttp() override
    {
        ++fallbacks;
        request_.setUseAkamai(false);
    }

    std::vector<uint32_t> statuses()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return statuses_;
    }
    std::vector<CheckpointCall> checkpoints()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return checkpoints_;
    }
    std::vector<std::wstring> restored()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return restored_;
    }
    int validations()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return validations_;
    }

private:
    FakeRequest& request_;
    std::mutex mutex_;
    std::vector<uint32_t> statuses_;
    std::vector<CheckpointCall> checkpoints_;
    std::vector<std::wstring> restored_;
    int validations_ = 0;
};

struct RecordedEvent {
    uint32_t kind;
    uint32_t message;  // 0 for a text
    std::wstring text; // empty for a message
};

// Subscribes to the process's hub for its lifetime and keeps every event.
class EventRecorder final : public EventSubscriber {
public:
    EventRecorder() { EventPublisher::getInstance()->subscribe(this); }
    ~EventRecorder() { EventPublisher::getInstance()->unsubscribe(this); }

    // Called for every event, on the publishing thread.
    std::function<void(const RecordedEvent&)> onEvent;

    void notify(const EventRecord* record) override
    {
        RecordedEvent e{record->kind, 0, {}};
        if (qvdlm::eventValueIsText(record->value))
            e.text = reinterpret_cast<const wchar_t*>(record->value);
        else
            e.message = static_cast<uint32_t>(record->value);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(e);
        }
        if (onEvent)
            onEvent(e);
    }
    int count(uint32_t kind, uint32_t message)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        int n = 0;
        for (const auto& e : events_)
            n += (e.kind == kind && e.message == message) ? 1 : 0;
        return n;
    }
    int countText(const std::wstring& text)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        int n = 0;
        for (const auto& e : events_)
            n += (e.kind == qvdlm::event::Information && e.text == text) ? 1 : 0;
        return n;
    }
    std::vector<RecordedEvent> events()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

private:
    std::mutex mutex_;
    std::vector<RecordedEvent> events_;
};

// One scripted read of a source: data of that many bytes, or a failure with that status.
struct ReadStep {
    uint32_t bytes = 0;
    uint32_t error = 0;
};

// A source that answers reads from a script; the data is a pattern of the resource offset, so that
// any lost or repeated byte shows in the sink.
class ScriptedSource final : public StreamReader {
public:
    ScriptedSource(std::wstring url, uint32_t dataStart, int64_t position, std::atomic<int>* alive = nullptr)
        : url_(std::move(url)), dataStart_(dataStart), position_(position), alive_(alive)
    {
        if (alive_)
            ++*alive_;
    }
    ~ScriptedSource() override
    {
        if (alive_)
            --*alive_;
    }

    static uint8_t byteAt(const std::wstring& url, int64_t offset)
    {
        return static_cast<uint8_t>((offset * 131 + url.size() * 7 + (offset >> 8)) & 0xFF);
    }

    std::deque<ReadStep> script;
    // When set, the resource's bytes instead of the pattern.
    const std::string* content = nullptr;
    // Called before every read, on the source thread.
    std::function<void(ScriptedSource&)> beforeRead;
    std::atomic<int> reads{0};
    std::atomic<int> closes{0};

    void close() override { ++closes; }
    bool restoreState(const StreamStateHeader* record) override { return record && record->size >= 16; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 16; }
    uint32_t readBytes(uint8_t* buffer, uint32_t capacity) override
    {
        ++reads;
        if (beforeRead)
            beforeRead(*this);
        if (script.empty()) {
            setLastStatus(0);
            return 0;
        }
        ReadStep step = script.front();
        if (step.error != 0) {
            script.pop_front();
            setLastStatus(step.error);
            return UINT32_MAX;
        }
        const uint32_t n = std::min(step.bytes, capacity);
        for (uint32_t i = 0; i < n; ++i)
            buffer[i] = content ? static_cast<uint8_t>((*content)[static_cast<size_t>(position_ + i)])
                                : byteAt(url_, position_ + i);
        position_ += n;
        if (n == step.bytes)
            script.pop_front();
        else
            script.front().bytes -= n;
        setLastStatus(0);
        return n;
    }

    const std::wstring& url() const { return url_; }
    int64_t position() const { return position_; }
    uint32_t dataStart() const { return dataStart_; }

private:
    std::wstring url_;
    uint32_t dataStart_;
    int64_t position_;
    std::atomic<int>* alive_;
};

// Expected bytes of a resource range, as ScriptedSource makes them.
inline std::string resourceBytes(const std::wstring& url, int64_t from, int64_t count)
{
    std::string bytes(static_cast<size_t>(count), '\0');
    for (int64_t i = 0; i < count; ++i)
        bytes[static_cast<size_t>(i)] = static_cast<char>(ScriptedSource::byteAt(url, from + i));
    return bytes;
}

// Services that make ScriptedSources and answer reconnects from a script (true once empty).
class FakeServices final : public ReaderServices {
public:
    std::deque<bool> reconnects;
    // Scripts for the sources made for each URL, and for sources being reconnected.
    std::function<void(ScriptedSource&)> onCreate;
    std::function<void(ScriptedSource&)> onReconnect;
    std::atomic<int> alive{0};
    std::atomic<int> sleeps{0};
    std::atomic<int> reconnectCalls{0};

    StreamReader* createSource(const wchar_t* url, uint32_t dataStart, int64_t position) override
    {
        auto* source = new ScriptedSource(url, dataStart, position, &alive);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            created_.push_back({url, dataStart, position});
        }
        if (onCreate)
            onCreate(*source);
        return source;
    }
    bool reconnect(Stream* source) override
    {
        ++reconnectCalls;
        bool ok = true;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!reconnects.empty()) {
                ok = reconnects.front();
                reconnects.pop_front();
            }
        }
        if (onReconnect)
            onReconnect(*static_cast<ScriptedSource*>(source));
        source->setLastStatus(ok ? 0 : 12029);
        return ok;
    }
    void setTimeouts(Stream*, uint32_t milliseconds) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        timeouts_.push_back(milliseconds);
    }
    int64_t position(Stream* source) override { return static_cast<ScriptedSource*>(source)->position(); }
    uint32_t dataStart(Stream* source) override { return static_cast<ScriptedSource*>(source)->dataStart(); }
    void sleep(uint32_t milliseconds) override
    {
        EXPECT_EQ(1000u, milliseconds);
        ++sleeps;
    }

    struct Created {
        std::wstring url;
        uint32_t dataStart;
        int64_t position;
    };
    std::vector<Created> created()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return created_;
    }
    std::vector<uint32_t> timeouts()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return timeouts_;
    }

private:
    std::mutex mutex_;
    std::vector<Created> created_;
    std::vector<uint32_t> timeouts_;
};

// A sink that keeps what it is given; it can be told to fail at a given call.
class CollectingSink final : public StreamWriter {
public:
    std::string bytes;
    std::vector<uint32_t> counts;
    int failAtCall = -1;    // writeBytes call (from 0) that fails
    int64_t failResult = -1;
    bool wholeAtEnd = true; // what endOfInput answers
    std::atomic<int>* alive = nullptr;

    bool endOfInput() override
    {
        if (!wholeAtEnd)
            setLastStatus(0x28000002);
        return wholeAtEnd;
    }
    ~CollectingSink() override
    {
        if (alive)
            --*alive;
    }
    void close() override {}
    bool restoreState(const StreamStateHeader* record) override { return record && record->size >= 16; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 16; }
    int64_t writeBytes(const uint8_t* data, uint32_t count) override
    {
        const int call = static_cast<int>(counts.size());
        counts.push_back(count);
        if (call == failAtCall) {
            setLastStatus(0x28000006);
            return failResult;
        }
        bytes.append(reinterpret_cast<const char*>(data), count);
        return count;
    }
};

// A middle stage that inverts every byte and hands its output out in pieces of at most `piece`
// bytes, so that one input needs several drains.
class InvertingMiddle final : public StreamWriter {
public:
    class Reader final : public StreamReader {
    public:
        explicit Reader(InvertingMiddle& owner) : owner_(owner) {}
        void close() override {}
        bool restoreState(const StreamStateHeader*) override { return false; }
        uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 0; }
        uint32_t lastStatus() override { return owner_.readFailure; }
        uint32_t readBytes(uint8_t* buffer, uint32_t capacity) override
        {
            if (owner_.readFailure != 0)
                return UINT32_MAX;
            const uint32_t n = std::min({capacity, owner_.piece, owner_.left_});
            for (uint32_t i = 0; i < n; ++i)
                buffer[i] = static_cast<uint8_t>(~owner_.next_[i]);
            owner_.next_ += n;
            owner_.left_ -= n;
            return n;
        }

    private:
        InvertingMiddle& owner_;
    };

    uint32_t piece = 5;
    uint32_t readFailure = 0;   // status the reader side reports
    int failWriteAtCall = -1;   // writeBytes call (from 0) that fails
    bool wholeAtEnd = true;     // what endOfInput answers
    std::vector<uint32_t> counts;

    bool endOfInput() override
    {
        if (!wholeAtEnd)
            setLastStatus(6);
        return wholeAtEnd;
    }
    void close() override {}
    bool restoreState(const StreamStateHeader* record) override { return record && record->size >= 8; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 8; }
    Stream* readerSide() override { return &reader_; }
    int64_t writeBytes(const uint8_t* data, uint32_t count) override
    {
        const int call = static_cast<int>(counts.size());
        counts.push_back(count);
        if (call == failWriteAtCall) {
            setLastStatus(1); // a decoder's data error
            return 0;
        }
        next_ = data;
        left_ = count;
        return 0;
    }

private:
    Reader reader_{*this};
    const uint8_t* next_ = nullptr;
    uint32_t left_ = 0;
};

inline LinkSpec linkSpec(uint32_t links, uint64_t size, const wchar_t* name)
{
    LinkSpec spec{};
    spec.linkCount = links;
    spec.bufferSize[0] = size;
    spec.bufferSize[1] = links > 1 ? size : 0;
    wcsncpy_s(spec.stageName, kStageNameLength, name, _TRUNCATE);
    spec.reserved = -1;
    return spec;
}

// Runs one stage thread function on its own thread; joins within a bound.
class StageThread {
public:
    using Body = std::function<uint32_t()>;

    explicit StageThread(Body body) : body_(std::move(body))
    {
        handle_ = CreateThread(nullptr, 0, &StageThread::entry, this, 0, &id_);
    }
    StageThread(StreamThreadProc proc, Target* target) : StageThread([proc, target] { return proc(target); }) {}
    ~StageThread()
    {
        if (handle_) {
            if (WaitForSingleObject(handle_, 30000) != WAIT_OBJECT_0) {
                ADD_FAILURE() << "stage thread did not end";
                PostThreadMessageW(id_, qvdlm::command::StopKeep, 0, 0);
                WaitForSingleObject(handle_, 5000);
            }
            CloseHandle(handle_);
        }
    }
    StageThread(const StageThread&) = delete;
    StageThread& operator=(const StageThread&) = delete;

    // Waits (bounded) for the end and answers the exit code, or 0xFFFFFFFF when it did not end.
    uint32_t join(DWORD milliseconds = 20000)
    {
        if (WaitForSingleObject(handle_, milliseconds) != WAIT_OBJECT_0)
            return 0xFFFFFFFF;
        DWORD code = 0;
        GetExitCodeThread(handle_, &code);
        return code;
    }
    bool finished(DWORD milliseconds) { return WaitForSingleObject(handle_, milliseconds) == WAIT_OBJECT_0; }
    DWORD id() const { return id_; }
    // Posts until the thread's queue exists (posting fails until the thread made it).
    bool post(UINT message)
    {
        for (int i = 0; i < 2000; ++i) {
            if (PostThreadMessageW(id_, message, 0, 0))
                return true;
            Sleep(1);
        }
        return false;
    }

private:
    static DWORD WINAPI entry(void* self)
    {
        auto* thread = static_cast<StageThread*>(self);
        return thread->body_();
    }

    Body body_;
    HANDLE handle_ = nullptr;
    DWORD id_ = 0;
};

constexpr uint64_t kBuffer = 64;
constexpr uint32_t kTimedOut = 0xFFFFFFFF;

// A pipeline of fake stages around a fake job.
struct Rig {
    FakeRequest request;
    FakeJob job{request};
    FakeServices services;
    EventRecorder events;
    std::vector<std::unique_ptr<TargetImp>> targets;
    ScriptedSource* source = nullptr;
    InvertingMiddle* middle = nullptr;
    CollectingSink* sink = nullptr;

    uint64_t bufferSize = kBuffer;

    TargetImp* add(Stream* stage, uint32_t links, const wchar_t* name)
    {
        auto target = std::make_unique<TargetImp>(&job, targets.empty() ? nullptr : targets.back().get());
        const LinkSpec spec = linkSpec(links, bufferSize, name);
        EXPECT_TRUE(target->configure(stage, &spec));
        EXPECT_TRUE(target->createBuffers());
        targets.push_back(std::move(target));
        return targets.back().get();
    }
    void plain()
    {
        source = new ScriptedSource(request.getUrl(false), 0, 0, &services.alive);
        add(source, 1, L"Http");
        sink = new CollectingSink;
        add(sink, 1, L"File");
    }
    // A middle stage of the test's own, or an inverting one.
    void package(StreamWriter* decoder = nullptr)
    {
        request.lzma = true;
        source = new ScriptedSource(request.getUrl(false), 0, 0, &services.alive);
        add(source, 1, L"Http");
        if (!decoder)
            decoder = middle = new InvertingMiddle;
        add(decoder, 2, L"Lzma");
        sink = new CollectingSink;
        add(sink, 1, L"xTar");
    }
    // Data of the current source in reads of the given sizes; the block's length is their sum.
    void script(std::initializer_list<uint32_t> reads)
    {
        int64_t total = 0;
        for (uint32_t n : reads) {
            source->script.push_back({n, 0});
            total += n;
        }
        request.contentLength = total;
        request.blockLengths[0] = total;
    }
    Stream* currentSource() { return targets.front()->streamData()->stage; }

    // Runs every stage on its thread and answers their exit codes, source first.
    std::vector<uint32_t> run()
    {
        std::vector<std::unique_ptr<StageThread>> threads;
        threads.push_back(
            std::make_unique<StageThread>([this] { return runReaderStream(targets[0].get(), services); }));
        if (targets.size() == 3)
            threads.push_back(std::make_unique<StageThread>(&readerWriterStreamThread, targets[1].get()));
        threads.push_back(std::make_unique<StageThread>(&writerStreamThread, targets.back().get()));
        std::vector<uint32_t> codes;
        for (auto& t : threads)
            codes.push_back(t->join());
        return codes;
    }
};

// Stands in for a download's control thread: turns a posted pause into the paused state.
class FakeControlThread {
public:
    explicit FakeControlThread(FakeJob& job)
        : ready_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          thread_([this, &job] {
              MSG m;
              PeekMessageW(&m, nullptr, 0, 0, PM_NOREMOVE);
              SetEvent(ready_);
              while (GetMessageW(&m, nullptr, 0, 0) > 0) {
                  if (m.message == qvdlm::command::Pause) {
                      ++pauses;
                      job.state = qvdlm::state::Paused;
                  }
              }
              return 0u;
          })
    {
        WaitForSingleObject(ready_, 10000);
        job.controlThread = thread_.id();
    }
    ~FakeControlThread()
    {
        thread_.post(WM_QUIT);
        thread_.join();
        CloseHandle(ready_);
    }
    std::atomic<int> pauses{0};

private:
    HANDLE ready_;
    StageThread thread_;
};

// Ends the run the way the manager does when an error event arrives: abort.
template <typename AnyRig>
void abortOnErrorEvents(AnyRig& rig)
{
    rig.events.onEvent = [&rig](const RecordedEvent& e) {
        if (e.kind == qvdlm::event::Error) {
            rig.job.state = qvdlm::state::Aborting;
            rig.job.stop = true;
        }
    };
}

// Sets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const wchar_t* value) : name_(name) { SetEnvironmentVariableW(name, value); }
    ~ScopedEnv() { SetEnvironmentVariableW(name_, nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const wchar_t* name_;
};

} // namespace fakes
