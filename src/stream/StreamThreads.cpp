#include "stream/StreamThreads.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <new>

#include "DownloadRequest.h"
#include "QvDLMCodes.h"
#include "common/PackagePath.h"
#include "log/EventPublisherImpl.h"
#include "stream/HTTPStreamImp.h"
#include "stream/StreamLink.h"
#include "stream/TARStreamWriterImp.h"

namespace {

using qv::LinkConsumer;
using qv::LinkProducer;
using qv::SlotWait;
namespace state = qvdlm::state;
namespace msg = qvdlm::msg;
namespace event = qvdlm::event;

constexpr uint32_t kStageNotPrepared = state::Aborting;
constexpr size_t kShortLine = 256; // lines of the source and sink threads
constexpr size_t kLongLine = 1024; // lines of the middle thread

constexpr int32_t kFirstRetryLimit = 5;
constexpr int32_t kBudgetAfterSuccess = 10;
constexpr int32_t kMinTimeoutSeconds = 10;
constexpr int32_t kMaxTimeoutSeconds = 60;
// Keeps the doubling budget far from overflow; at one sleep a second it is never reached.
constexpr int32_t kBudgetCap = 0x3FFFFFFF;

void publishMessage(Download* download, uint32_t kind, uint32_t message) { publishEvent(download, kind, message); }

// Formats a line into a buffer of N units (cut when longer) and publishes it as information.
template <size_t N, typename... Args>
void publishLine(Download* download, const wchar_t* format, Args... args)
{
    wchar_t text[N];
    if (_snwprintf_s(text, N, _TRUNCATE, format, args...) < 0)
        text[N - 1] = L'\0';
    publishText(download, text, event::Information);
}

bool isStopping(uint32_t jobState) { return jobState == state::Exiting || jobState == state::Aborting; }

// With "DLM_MOCK_FAILURE" set to "TRUE" (any case) a successful reconnect counts as failed, so that
// the whole retry cycle can be driven against a healthy server.
bool mockFailureRequested()
{
    wchar_t value[8];
    const DWORD n = GetEnvironmentVariableW(L"DLM_MOCK_FAILURE", value, static_cast<DWORD>(std::size(value)));
    return n > 0 && n < std::size(value) && _wcsicmp(value, L"TRUE") == 0;
}

StreamThreadData* threadDataOf(void* parameter)
{
    auto* target = static_cast<Target*>(parameter);
    return target ? dynamic_cast<StreamThreadData*>(target->threadData()) : nullptr;
}

// Checkpoint sequence numbers continue after the checkpoint this run was restored from, so that a
// new checkpoint never reuses the identifier of the one it replaces.
// A sink whose volume is full stops the run with its progress kept: the download is paused with the
// low-disk message and goes on from its last checkpoint once there is room again.
bool stopForFullDisk(Stream* sink, PipelineJob& job, Download* download)
{
    if (sink->lastStatus() != qvdlm::status::OutOfDiskSpace)
        return false;
    publishMessage(download, event::StatusMessage, msg::OutOfDiskSpace);
    PostThreadMessageW(job.controlThreadId(), qvdlm::command::StopKeep, 0, 0);
    return true;
}

uint32_t sequenceBase(DownloadRequest* request) { return request ? request->getCheckpointId() : 0; }

// The source thread.
class ReaderThread {
public:
    ReaderThread(Target& target, StreamThreadData& data, ReaderServices& services)
        : target_(target), data_(data), services_(services), job_(*data.job), request_(*data.job->request()),
          download_(data.job->download()), out_(data.links[0])
    {
    }

    uint32_t run();

private:
    struct RetryState {
        int32_t attempt = 0;
        int32_t retryLimit = kFirstRetryLimit;
        int32_t fallbackRetries = 0;
        bool cycleStarted = false;
        bool fellBack = false;

        int32_t limit() const { return retryLimit + (fellBack ? fallbackRetries : 0); }
    };

    enum class JobAnswer { Paused, Running, Ended };

    Stream* source() const { return data_.stage; }
    SlotWait takeSlot(bool askCheckpoint);
    bool sendMarker();
    bool readOnce(BufferSlot& slot);
    bool blockComplete();
    void endBlock(BufferSlot& slot);
    bool openNextBlock();
    void runRetryCycle();
    bool fallBackToHttp();
    void endOnStop();
    JobAnswer pollJob(bool pausedAnswers);
    void replaceSource(StreamReader* fresh);

    Target& target_;
    StreamThreadData& data_;
    ReaderServices& services_;
    PipelineJob& job_;
    DownloadRequest& request_;
    Download* download_;
    LinkProducer out_;
    RetryState retry_;
    bool everConnected_ = false;
    bool finished_ = false;
    uint32_t base_ = 0;      // the sequence this run starts after
    uint32_t sequence_ = 0;  // of the last slot taken
    bool holding_ = false;   // a slot is in hand while its read is repeated
    uint32_t served_ = 0;    // the job's last checkpoint request that was answered
};

uint32_t ReaderThread::run()
{
    publishMessage(download_, event::Information, msg::DownloadStarted);
    if (!target_.prepare(source(), false)) {
        source()->setLastStatus(kStageNotPrepared);
        publishMessage(download_, event::StatusMessage, msg::RestoreFailed);
        out_.finish();
        return kStageNotPrepared;
    }

    out_.start();
    base_ = sequence_ = sequenceBase(&request_);
    served_ = job_.settleRequest();
    qv::StatePoller idle;
    for (;;) {
        if (job_.settleRequest() != served_ && !sendMarker())
            break;
        if (job_.stopRequested()) {
            source()->setLastStatus(job_.status());
            break;
        }
        if (!holding_) {
            const SlotWait wait = takeSlot(true);
            if (wait == SlotWait::Stopped)
                continue;
            if (wait == SlotWait::Closed)
                break;
        }

        // Each read is one piece of what has arrived: it is handed over at once, so that progress moves with
        // every piece and a stop, pause or abort is seen between two of them.
        BufferSlot& slot = out_.slot();
        if (readOnce(slot)) {
            retry_ = RetryState{};
            job_.setBlockDownloadedSize(static_cast<uint64_t>(services_.position(source())));
            out_.publish();
            holding_ = false;
            continue;
        }
        if (source()->lastStatus() == 0 && slot.count == 0 && blockComplete()) {
            endBlock(slot);
            if (finished_ && slot.restart == 0)
                break; // the next block could not be entered: the slot is not handed over
            out_.publish();
            holding_ = false;
            if (finished_)
                break;
            continue;
        }
        slot.count = 0;
        const int32_t attemptsBefore = retry_.attempt;
        runRetryCycle();
        if (finished_)
            break;
        // A cycle that ends without an attempt (a paused or pending job) would repeat a failing read
        // at once; give the processor away in between.
        if (retry_.attempt == attemptsBefore)
            idle.yield();
        else
            idle = qv::StatePoller{};
    }

    out_.finish();
    const uint32_t status = source()->lastStatus();
    publishLine<kShortLine>(download_, L"readerStreamThread exited (%d)", static_cast<int>(status));
    return status;
}

// Waits for the next slot and numbers it; unless it carries a checkpoint request, first asks whether a
// checkpoint of everything handed over so far is due.
SlotWait ReaderThread::takeSlot(bool askCheckpoint)
{
    const SlotWait wait = out_.acquire();
    if (wait != SlotWait::Ready)
        return wait;
    holding_ = true;
    if (askCheckpoint && sequence_ != base_)
        job_.checkpoint(data_.stageName, sequence_, source(), true, false);
    BufferSlot& slot = out_.slot();
    slot.sequence = ++sequence_;
    slot.restart = 0;
    slot.count = 0;
    return wait;
}

// Answers the job's request for a checkpoint of where the pipeline stands: everything read so far has been
// handed over (a good read goes out at once), so the source's position is that point. An empty slot behind
// it carries the checkpoint through the stages behind. False when nobody reads any more.
bool ReaderThread::sendMarker()
{
    served_ = job_.settleRequest();
    if (!holding_) {
        const SlotWait wait = takeSlot(false);
        if (wait != SlotWait::Ready)
            return wait != SlotWait::Closed; // a stop message: the stop check follows
    }
    const uint32_t last = sequence_ - 1;
    job_.settle(last != base_ ? data_.stageName : nullptr, last, source());
    out_.slot().count = 0;
    out_.slot().restart = 0;
    out_.publish();
    holding_ = false;
    return true;
}

// One read into the slot; true for a good read (data and no error).
bool ReaderThread::readOnce(BufferSlot& slot)
{
    auto* reader = dynamic_cast<StreamReader*>(source());
    const uint32_t capacity = out_.capacity();
    uint32_t count = UINT32_MAX;
    if (reader)
        count = qv::isSfxPath(request_.getUrlPath()) ? reader->readBytesAligned(slot.data, capacity, true)
                                        : reader->readBytes(slot.data, capacity);
    // A failed read leaves nothing in the slot.
    slot.count = (source()->lastStatus() == 0 && count <= capacity) ? count : 0;
    return source()->lastStatus() == 0 && static_cast<int32_t>(count) > 0 && count <= capacity;
}

bool ReaderThread::blockComplete()
{
    return static_cast<int64_t>(request_.getBlockDownloadedSize()) >= request_.getContentLength();
}

void ReaderThread::endBlock(BufferSlot& slot)
{
    retry_ = RetryState{};
    job_.addTotalDownloadedSize(static_cast<int64_t>(request_.getBlockDownloadedSize()));
    job_.setBlockDownloadedSize(0);
    slot.count = 0;

    const wchar_t* next = request_.nextBlock();
    if (next && *next) {
        if (!qv::isPackagePath(request_.getUrlPath()))
            slot.restart = 1;
        const uint32_t code = job_.validateUrl();
        if (code != 0 && !job_.acceptValidation(code)) {
            source()->setLastStatus(qvdlm::status::ProxyAuthRequired);
            slot.restart = 0;
            finished_ = true;
            return;
        }
        if (!openNextBlock()) {
            slot.restart = 0;
            finished_ = true;
        }
        return;
    }
    slot.restart = 1;
    finished_ = true;
    publishMessage(download_, event::Information, msg::DownloadCompleted);
    source()->setLastStatus(0);
}

// Replaces the source by a fresh one for the block's URL; false when none can be made.
bool ReaderThread::openNextBlock()
{
    const wchar_t* url = job_.sourceUrl();
    StreamReader* fresh = url ? services_.createSource(url, 0, 0) : nullptr;
    if (!fresh) {
        // Going on with the old block's source would deliver the wrong bytes.
        source()->setLastStatus(qvdlm::status::GeneralError);
        return false;
    }
    replaceSource(fresh);
    if (!services_.reconnect(source())) {
        job_.setJobStatus(qvdlm::status::NetworkError);
        publishMessage(download_, event::StatusMessage, msg::NetworkError);
    }
    return true;
}

void ReaderThread::replaceSource(StreamReader* fresh)
{
    Stream* old = data_.stage;
    data_.stage = fresh;
    delete old;
}

void ReaderThread::endOnStop()
{
    finished_ = true;
    source()->setLastStatus(job_.status());
}

// Polls the job's state until it says how to go on.
ReaderThread::JobAnswer ReaderThread::pollJob(bool pausedAnswers)
{
    qv::StatePoller poller;
    for (;;) {
        const uint32_t jobState = job_.status();
        if (isStopping(jobState) || job_.stopRequested())
            return JobAnswer::Ended;
        if (jobState == state::Play)
            return JobAnswer::Running;
        if (jobState == state::Paused && pausedAnswers)
            return JobAnswer::Paused;
        poller.yield();
    }
}

bool ReaderThread::fallBackToHttp()
{
    job_.fallBackToHttp();
    const wchar_t* url = job_.sourceUrl();
    StreamReader* fresh =
        url ? services_.createSource(url, services_.dataStart(source()), services_.position(source())) : nullptr;
    if (!fresh)
        return false;
    replaceSource(fresh);
    publishLine<kShortLine>(download_, L"readerStreamThread fallbacks to http download instead of akamai");
    publishMessage(download_, event::StatusMessage, msg::AkamaiFallback);
    return true;
}

void ReaderThread::runRetryCycle()
{
    if (!retry_.cycleStarted) {
        retry_.retryLimit = request_.getRetryCount();
        if (request_.getUseAkamai() && request_.getHttpFallback())
            retry_.fallbackRetries = request_.getFallbackRetryCount();
        (void)request_.getAuxRetryCount();
        retry_.attempt = 0;
        retry_.cycleStarted = true;
    }

    int32_t budget = everConnected_ ? kBudgetAfterSuccess : 0;
    int32_t slept = 0;
    while (retry_.attempt <= retry_.limit()) {
        if (job_.settleRequest() != served_) {
            // Nothing moves while the link is down: the checkpoint of what was handed over is taken now. A
            // paused job goes on trying to reconnect; a stopping one leaves the cycle.
            if (!sendMarker()) {
                finished_ = true;
                return;
            }
            if (job_.status() != state::Paused)
                return;
        }
        const uint32_t jobState = job_.status();
        const bool interrupted = job_.takeInterruption();
        if (isStopping(jobState)) {
            endOnStop();
            return;
        }
        if (jobState == state::Pending || interrupted)
            return;
        if (jobState == state::Paused && retry_.attempt < request_.getAuxRetryCount())
            return;
        if (jobState == state::Play) {
            slept = 0;
            budget = 0;
        } else if (slept < budget) {
            services_.sleep(1000);
            ++slept;
            continue;
        }

        services_.setTimeouts(source(),
                              static_cast<uint32_t>(std::min(std::max(budget, kMinTimeoutSeconds), kMaxTimeoutSeconds)) *
                                  1000u);
        budget = std::min(2 * budget + 10, kBudgetCap);
        ++retry_.attempt;
        publishMessage(download_, event::StatusMessage, msg::NetworkConnecting);

        const uint32_t code = job_.validateUrl();
        if (code != 0 && !job_.acceptValidation(code)) {
            finished_ = true;
            source()->setLastStatus(qvdlm::status::ProxyAuthRequired);
            return;
        }
        if (code == 0 && request_.getUseAkamai() && retry_.attempt > retry_.retryLimit && request_.getHttpFallback() &&
            fallBackToHttp()) {
            retry_.fellBack = true;
            slept = 0;
            budget = kBudgetAfterSuccess;
        }

        if (services_.reconnect(source())) {
            publishMessage(download_, event::StatusMessage, msg::NetworkConnected);
            if (retry_.attempt - 1 > 0)
                publishLine<kShortLine>(download_, L"readerStreamThread retry succeeded: %d", retry_.attempt - 1);
            everConnected_ = true;
            if (!mockFailureRequested())
                return;
        }
        job_.setJobStatus(qvdlm::status::NetworkError);
        publishMessage(download_, event::StatusMessage, msg::NetworkError);

        if (jobState == state::Paused || retry_.attempt < request_.getAuxRetryCount())
            continue;

        // Every quick attempt failed: have the job paused and wait for what the user decides.
        source()->close();
        job_.setJobStatus(qvdlm::status::NetworkError);
        PostThreadMessageW(job_.controlThreadId(), qvdlm::command::Pause, 0, 0);
        const JobAnswer answer = pollJob(true);
        if (answer == JobAnswer::Ended) {
            endOnStop();
            return;
        }
        if (answer == JobAnswer::Running)
            return;
    }

    const int32_t attempts = retry_.attempt;
    retry_ = RetryState{};
    publishLine<kShortLine>(download_, L"readerStreamThread connection restore failed: %d", attempts - 1);
    publishMessage(download_, event::Error, msg::NetworkError);
    if (pollJob(true) == JobAnswer::Ended)
        endOnStop();
}

class HttpReaderServices final : public ReaderServices {
public:
    StreamReader* createSource(const wchar_t* url, uint32_t dataStart, int64_t position) override
    {
        return url ? new (std::nothrow) HTTPStreamImp(url, dataStart, position) : nullptr;
    }
    bool reconnect(Stream* source) override
    {
        auto* http = dynamic_cast<HTTPStream*>(source);
        return http && http->reconnect() != nullptr;
    }
    void setTimeouts(Stream* source, uint32_t milliseconds) override
    {
        if (auto* http = dynamic_cast<HTTPStream*>(source))
            http->setTimeouts(milliseconds);
    }
    int64_t position(Stream* source) override
    {
        auto* http = dynamic_cast<HTTPStream*>(source);
        return http ? http->position() : 0;
    }
    uint32_t dataStart(Stream* source) override
    {
        auto* http = dynamic_cast<HTTPStream*>(source);
        return http ? http->dataStart() : 0;
    }
    void sleep(uint32_t milliseconds) override { Sleep(milliseconds); }
};

} // namespace

ReaderServices& httpReaderServices()
{
    static HttpReaderServices services;
    return services;
}

uint32_t runReaderStream(Target* target, ReaderServices& services)
{
    qv::ensureMessageQueue();
    StreamThreadData* data = threadDataOf(target);
    if (!data || !data->job || !data->job->request() || !dynamic_cast<StreamReader*>(data->stage) ||
        !data->links[0] || !data->links[0]->slots[0] || !data->links[0]->slots[1])
        return qvdlm::status::GeneralError;
    ReaderThread thread(*target, *data, services);
    return thread.run();
}

uint32_t __stdcall readerStreamThread(void* target)
{
    return runReaderStream(static_cast<Target*>(target), httpReaderServices());
}

uint32_t __stdcall writerStreamThread(void* parameter)
{
    qv::ensureMessageQueue();
    auto* target = static_cast<Target*>(parameter);
    StreamThreadData* data = threadDataOf(parameter);
    if (!data || !data->job || !data->job->request() || !data->links[0] || !data->links[0]->slots[0] ||
        !data->links[0]->slots[1])
        return qvdlm::status::GeneralError;
    auto* sink = dynamic_cast<StreamWriter*>(data->stage);
    if (!sink)
        return qvdlm::status::GeneralError;

    PipelineJob& job = *data->job;
    DownloadRequest& request = *job.request();
    Download* download = job.download();
    LinkConsumer in(data->links[0]);

    publishMessage(download, event::Information, msg::UnpackageStarted);
    if (auto* unpacker = dynamic_cast<TARStreamWriterImp*>(sink))
        unpacker->setEventSource(download);
    if (!target->prepare(sink, true)) {
        sink->setLastStatus(kStageNotPrepared);
        publishMessage(download, event::StatusMessage, msg::RestoreFailed);
        in.finish();
        return kStageNotPrepared;
    }

    in.start();
    uint32_t expected = sequenceBase(&request) + 1;
    for (;;) {
        if (job.stopping()) {
            sink->setLastStatus(job.status());
            break;
        }
        const SlotWait wait = in.acquire();
        if (wait == SlotWait::Stopped)
            continue;
        if (wait == SlotWait::Closed)
            break;

        BufferSlot& slot = in.slot();
        if (slot.restart) {
            if (qv::isPackagePath(request.getUrlPath()) || request.isFinished()) {
                // A package that ends inside an entry is not complete.
                if (!sink->endOfInput()) {
                    if (sink->lastStatus() == 0)
                        sink->setLastStatus(qvdlm::status::GeneralError);
                    if (!stopForFullDisk(sink, job, download))
                        publishMessage(download, event::Error, msg::UnpackageFailed);
                    break;
                }
                publishMessage(download, event::Information, msg::UnpackageCompleted);
                sink->setLastStatus(0);
                break;
            }
            if (auto* current = dynamic_cast<StreamWriter*>(job.currentSink()))
                sink = current;
            slot.restart = 0;
        }
        if (slot.sequence != expected) {
            job.checkpoint(data->stageName, expected, sink, false, true);
            expected = slot.sequence;
        }

        const int64_t written = sink->writeBytes(slot.data, slot.count);
        if (written > 0)
            job.addBytes(written);
        // A short write loses bytes just as a failed one does.
        if (written < 0 || written < static_cast<int64_t>(slot.count)) {
            if (sink->lastStatus() == 0)
                sink->setLastStatus(qvdlm::status::GeneralError);
            if (!stopForFullDisk(sink, job, download))
                publishMessage(download, event::Error, msg::UnpackageFailed);
            break;
        }
        in.release();
    }

    in.finish();
    const uint32_t status = sink->lastStatus();
    publishLine<kShortLine>(download, L"writerStreamThread exited (%d)", static_cast<int>(status));
    return status;
}

uint32_t __stdcall readerWriterStreamThread(void* parameter)
{
    qv::ensureMessageQueue();
    auto* target = static_cast<Target*>(parameter);
    StreamThreadData* data = threadDataOf(parameter);
    if (!data || !data->job || !data->job->request() || data->linkCount < 2 || !data->links[0] ||
        !data->links[1] || !data->links[0]->slots[0] || !data->links[0]->slots[1] || !data->links[1]->slots[0] ||
        !data->links[1]->slots[1])
        return qvdlm::status::GeneralError;
    auto* writer = dynamic_cast<StreamWriter*>(data->stage);
    if (!writer)
        return qvdlm::status::GeneralError;

    PipelineJob& job = *data->job;
    Download* download = job.download();
    LinkConsumer in(data->links[0]);
    LinkProducer out(data->links[1]);

    publishMessage(download, event::Information, msg::DecompressStarted);
    auto* reader = dynamic_cast<StreamReader*>(writer->readerSide());
    if (!reader || !target->prepare(writer, true)) {
        writer->setLastStatus(kStageNotPrepared);
        publishMessage(download, event::StatusMessage, msg::RestoreFailed);
        in.finish();
        out.finish();
        return kStageNotPrepared;
    }

    in.start();
    out.start();
    uint32_t expected = sequenceBase(job.request()) + 1;
    bool leaving = false;
    while (!leaving) {
        if (job.stopping()) {
            writer->setLastStatus(job.status());
            break;
        }
        const SlotWait wait = in.acquire();
        if (wait == SlotWait::Stopped)
            continue;
        if (wait == SlotWait::Closed)
            break;

        BufferSlot& input = in.slot();
        if (input.restart && !writer->endOfInput()) {
            // The stream stopped short: the sink must not take this for a complete package.
            publishLine<kLongLine>(download, L"readerWriterStreamThread: readBytes failed. stream writer last status: %d",
                                   static_cast<int>(writer->lastStatus()));
            if (writer->lastStatus() == 0)
                writer->setLastStatus(qvdlm::status::GeneralError);
            job.setJobStatus(qvdlm::status::GeneralError);
            publishMessage(download, event::Error, msg::DecompressFailed);
            break;
        }
        if (input.restart) {
            // The end of a block must reach the sink even while a stop is being delivered.
            SlotWait free = out.acquire();
            while (free == SlotWait::Stopped)
                free = out.acquire();
            if (free == SlotWait::Ready) {
                out.slot().sequence = input.sequence;
                out.slot().count = 0;
                out.slot().restart = 1;
                out.publish();
            }
            writer->setLastStatus(0);
            publishMessage(download, event::Information, msg::DecompressCompleted);
            break;
        }
        if (input.sequence != expected) {
            job.checkpoint(data->stageName, expected, writer, false, false);
            expected = input.sequence;
        }

        const int64_t taken = writer->writeBytes(input.data, input.count);
        if (taken < 0 || writer->lastStatus() != 0) {
            publishLine<kLongLine>(download,
                                   L"readerWriterStreamThread: writeBytes failed. nBytesWritten = %lld. stream "
                                   L"writer last status: %d",
                                   static_cast<long long>(taken), static_cast<int>(writer->lastStatus()));
            if (writer->lastStatus() == 0)
                writer->setLastStatus(qvdlm::status::GeneralError);
            job.setJobStatus(qvdlm::status::GeneralError);
            publishMessage(download, event::Error, msg::DecompressFailed);
            break;
        }

        // Drain what the decoder can give for this input before handing the input back.
        for (;;) {
            if (job.stopping()) {
                writer->setLastStatus(job.status());
                publishMessage(download, event::Information, msg::DecompressAborted);
                leaving = true;
                break;
            }
            const SlotWait free = out.acquire();
            if (free == SlotWait::Stopped)
                continue;
            if (free == SlotWait::Closed) {
                leaving = true;
                break;
            }
            BufferSlot& output = out.slot();
            output.sequence = input.sequence;
            output.restart = 0;
            const uint32_t capacity = out.capacity();
            const uint32_t produced = reader->readBytes(output.data, capacity);
            if (reader->lastStatus() != 0) {
                output.count = 0;
                publishLine<kLongLine>(download,
                                       L"readerWriterStreamThread: readBytes failed. stream writer last status: %d",
                                       static_cast<int>(writer->lastStatus()));
                job.setJobStatus(qvdlm::status::GeneralError);
                writer->setLastStatus(reader->lastStatus());
                publishMessage(download, event::Error, msg::DecompressFailed);
                leaving = true;
                break;
            }
            output.count = produced <= capacity ? produced : 0;
            const bool drained = output.count == 0;
            out.publish(); // the slot belongs to the consumer from here on
            if (drained)
                break;
        }
        in.release();
    }

    in.finish();
    out.finish();
    const uint32_t status = writer->lastStatus();
    publishLine<kLongLine>(download, L"readerWriterStreamThread exited (%d)", static_cast<int>(status));
    return status;
}
