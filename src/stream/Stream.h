// Pipeline stages and the double-buffered links between them. A stage is a Stream run by one worker
// thread; each stage is wrapped in a Target that owns its thread data and the links it created.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "common/Win32Raii.h"

class DownloadRequest;
class Download;
class PipelineJob;
class StreamUnpack;

// Thread function that runs a stage; its parameter is the stage's Target.
using StreamThreadProc = uint32_t(__stdcall*)(void* target);

// Every stage-state record begins with its whole length in bytes.
struct StreamStateHeader {
    uint32_t size;
};

class Stream {
public:
    virtual void close() = 0;
    // Resumes from a checkpointed record; refuses null or a record shorter than the stage's own state.
    virtual bool restoreState(const StreamStateHeader* record) = 0;
    // Writes the state record when out is large enough; always returns the size it needs.
    virtual uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) = 0;
    virtual uint32_t lastStatus() { return lastStatus_; }
    virtual ~Stream() = default;

    void setLastStatus(uint32_t status) { lastStatus_ = status; }
    StreamThreadProc threadProc() const { return threadProc_; }
    void setThreadProc(StreamThreadProc proc) { threadProc_ = proc; }

    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

protected:
    Stream() = default;

    uint32_t lastStatus_ = 0; // system error, SDK result or library code; 0 means no error
    StreamThreadProc threadProc_ = nullptr;
};

// Source side: hands out bytes.
class StreamReader : public Stream {
public:
    // Opens the source; returns itself or null.
    virtual StreamReader* connect() { return this; }
    // As readBytes; with align, first skips what precedes the useful data (self-extracting packages).
    virtual uint32_t readBytesAligned(uint8_t* buffer, uint32_t capacity, bool align)
    {
        (void)align;
        return readBytes(buffer, capacity);
    }
    // As many bytes as are available now, up to capacity; 0 at end; UINT32_MAX on failure.
    virtual uint32_t readBytes(uint8_t* buffer, uint32_t capacity) = 0;
};

// Sink or middle stage: consumes bytes.
class StreamWriter : public Stream {
public:
    // The paired reader of a middle stage.
    virtual Stream* readerSide() { return nullptr; }
    // The unpacking object of an unpacking sink.
    virtual StreamUnpack* unpacker() { return nullptr; }
    // Consumes count bytes; returns the number taken or a negative value (lastStatus says why).
    virtual int64_t writeBytes(const uint8_t* data, uint32_t count) = 0;
    // The input has ended for good; false (lastStatus says why) when it stopped short of a whole stream.
    virtual bool endOfInput() { return true; }
};

constexpr uint32_t kLinkBufferSize = 0x400000;
constexpr size_t kStageNameLength = 6; // UTF-16 units with the terminator

// How a stage is linked: filled by the job for each stage.
struct LinkSpec {
    uint32_t linkCount;       // 1 or 2
    uint64_t bufferSize[2];   // bytes of each buffer of link 0 and link 1
    wchar_t stageName[kStageNameLength]; // "Http", "File", "Lzma", "xTar"
    int32_t reserved;         // set to -1 by the job
};

// An auto-reset event with its wait time; closes its handle when destroyed.
struct SlotEvent {
    qv::UniqueHandle handle;
    uint32_t waitMs = 0; // INFINITE once created

    // Auto-reset and initially non-signalled.
    bool create()
    {
        handle.reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        if (!handle)
            return false;
        waitMs = INFINITE;
        return true;
    }
    void signal() const
    {
        if (handle)
            SetEvent(handle.get());
    }
};

// One buffer of a link, handed between producer and consumer through its two events only.
struct BufferSlot {
    uint32_t sequence = 0; // checkpoint sequence number of the data
    uint32_t restart = 0;  // set on the slot that ends a block
    uint8_t* data = nullptr; // points into storage
    uint32_t count = 0;    // valid bytes after a fill
    SlotEvent filled;      // signalled by the producer
    SlotEvent emptied;     // signalled by the consumer
    qv::HeapBlock storage;
};

// Two equal buffers between neighbouring stages. A link serves one run of the pipeline.
struct BufferLink {
    uint64_t bufferSize = 0;
    std::unique_ptr<BufferSlot> slots[2];

    // A side that leaves says so before its farewell signal, so that the other side can tell that
    // signal from a real hand-over: the producer leaves the number of slots it filled, the consumer
    // a flag.
    std::atomic<int64_t> producerEnd{INT64_MAX};
    std::atomic<bool> consumerEnded{false};
};

struct BasicStreamThreadData {
    virtual ~BasicStreamThreadData() = default;
};

struct StreamThreadData : BasicStreamThreadData {
    Stream* stage = nullptr;                    // owned by the Target; replaced by the source thread
    BufferLink* links[2] = {nullptr, nullptr};  // 0: input (or a source's output); 1: a middle stage's output
    uint32_t linkCount = 0;
    wchar_t stageName[kStageNameLength] = {};
    PipelineJob* job = nullptr;
};

class Target {
public:
    virtual bool configure(Stream* stage, const LinkSpec* spec) = 0;
    virtual bool createBuffers() = 0;
    virtual bool prepare(Stream* stage, bool isWriter) = 0;
    virtual BasicStreamThreadData* threadData() = 0;
    virtual ~Target() = default;

    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

protected:
    Target() = default;
};

// What a stage thread uses of its download job: a narrow view so that stages and threads can be
// driven without a whole download.
class PipelineJob {
public:
    virtual bool stopRequested() = 0;
    virtual uint32_t status() = 0;          // the job's state
    virtual void setJobStatus(uint32_t code) = 0;
    virtual DownloadRequest* request() = 0;
    virtual Download* download() = 0;       // source of the events the threads publish; may be null
    // All data up to sequence has passed this stage.
    virtual void checkpoint(const wchar_t* stageName, uint32_t sequence, Stream* stage, bool fromReader,
                            bool fromWriter) = 0;
    // Restores a stage from the last checkpoint stored under its name.
    virtual bool restoreStage(const wchar_t* stageName, Stream* stage) = 0;
    virtual void addBytes(int64_t bytes) = 0;
    virtual uint32_t controlThreadId() = 0;
    virtual uint32_t startGate() = 0;       // 0 undecided, 1 go, 2 cancelled
    virtual Stream* currentSource() = 0;
    virtual Stream* currentSink() = 0;

    // Progress of the source: the position reached in the current block, and whole blocks done.
    virtual void setBlockDownloadedSize(uint64_t size) = 0;
    virtual void addTotalDownloadedSize(int64_t delta) = 0;
    // Checks the request's current URL against the trusted hosts and the server (0: valid).
    virtual uint32_t validateUrl() = 0;
    // Hands a nonzero validation result to the job; false when the job cannot go on with it.
    virtual bool acceptValidation(uint32_t result) = 0;
    // The URL the source is to open for the current block (re-read after a block change or fallback).
    virtual const wchar_t* sourceUrl() = 0;
    // True once after something asked the source to retry at once; reading clears it.
    virtual bool takeInterruption() = 0;
    // The source gives up content delivery and goes on over plain HTTP.
    virtual void fallBackToHttp() = 0;

    // Stopping without holding: the stages behind the source run on while the job is paused, so that
    // what the source handed over before the pause reaches the end of the pipeline.
    virtual bool stopping() { return stopRequested(); }
    // A pause or a stop that keeps the progress wants a checkpoint of where the pipeline stands: the
    // number changes with each such request. The source then hands over what it holds, calls settle
    // with the sequence of the last buffer it filled and sends an empty buffer after it, which carries
    // the checkpoint through the stages behind it as any other.
    virtual uint32_t settleRequest() { return 0; }
    virtual void settle(const wchar_t* stageName, uint32_t sequence, Stream* stage)
    {
        (void)stageName, (void)sequence, (void)stage;
    }

protected:
    ~PipelineJob() = default;
};
