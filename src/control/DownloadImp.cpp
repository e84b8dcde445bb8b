#include "control/DownloadImp.h"

#include <cstring>
#include <cwchar>
#include <string>

#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "common/PackagePath.h"
#include "control/CheckpointFiles.h"
#include "control/FolderOps.h"
#include "control/LaunchSettings.h"
#include "log/EventPublisherImpl.h"

using namespace qvdlm;

namespace {

constexpr DWORD kControlThreadFailed = 0xFFFFFFFF;
constexpr DWORD kStagesNotOpened = 8;
constexpr DWORD kStopRepostMs = 200;     // stop messages are repeated until every worker has taken one
constexpr DWORD kSettleMs = 3000;        // longest wait of a stop for its checkpoint
constexpr DWORD kSettlePollMs = 10;
constexpr DWORD kQueueReadyWaitMs = 10000;
constexpr uint32_t kGateUndecided = 0;
constexpr uint32_t kGateGo = 1;
constexpr uint32_t kGateCancelled = 2;
constexpr wchar_t kWorkingFolderPrefix[] = L"QV_";

// Where the request's progress stood when a checkpoint was taken; stored beside the stages' snapshots so
// that a resumed run starts from the same block and counters as the stages it restores.
struct ProgressRecord {
    uint32_t size;
    uint32_t version;
    int32_t blockId;
    uint32_t reserved;
    uint64_t blockDownloaded;
    uint64_t totalDownloaded;
    uint64_t extracted;
};
constexpr uint32_t kProgressRecordVersion = 1;

// The plain-file sink's checkpoint record: its size, a reserved word, then the file offset.
struct FileSinkRecord {
    uint32_t size;
    uint32_t reserved;
    int64_t offset;
};

bool isWaitingState(uint32_t s) { return s == state::Pending || s == state::Paused || s == state::Aborted; }

bool startsWithWorkingPrefix(const std::wstring& folder)
{
    const std::wstring name = qv::lastComponent(folder);
    return _wcsnicmp(name.c_str(), kWorkingFolderPrefix, std::wcslen(kWorkingFolderPrefix)) == 0;
}

std::wstring textOf(const wchar_t* text) { return text ? text : L""; }

} // namespace

DownloadImp* makeDownload(DownloadRequest* request, DownloadMgr* manager, const JobEnvironment& environment)
{
    auto* download = new DownloadImp(request, manager, environment);
    if (request)
        static_cast<StatsImp*>(download->getStats())
            ->setPackageSizes(request->getUncompressedSize(), request->getCompressedSize());
    return download;
}

DownloadImp::DownloadImp(DownloadRequest* request, DownloadMgr* manager, const JobEnvironment& environment)
    : env_(environment), request_(request), manager_(manager), state_(request ? request->getState() : state::Pending),
      status_(request ? request->getStatus() : status::None), stats_(this)
{
    idleEvent_.reset(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    runGate_.reset(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    settledEvent_.reset(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    finalised_ = true; // nothing has run that would need cleaning up
}

DownloadImp::~DownloadImp()
{
    // A job destroyed while it runs is stopped first, keeping its progress.
    if (controlThreadAlive() && GetCurrentThreadId() != controlThreadId_) {
        PostThreadMessageW(controlThreadId_, command::StopKeep, 0, 0);
        waitForControlThread(INFINITE);
    }
    if (!finalised_)
        finalCleanup();
    destroyTargets();
    delete request_;
    request_ = nullptr;
}

// ---- pipeline ----

DownloadRequestLog* DownloadImp::store() const { return env_.store ? env_.store() : nullptr; }

StreamThreadData* DownloadImp::dataOf(Target* target) const
{
    return target ? dynamic_cast<StreamThreadData*>(target->threadData()) : nullptr;
}

Stream* DownloadImp::stageOf(Target* target) const
{
    StreamThreadData* data = dataOf(target);
    return data ? data->stage : nullptr;
}

void DownloadImp::setStageOf(Target* target, Stream* stage)
{
    StreamThreadData* data = dataOf(target);
    if (!data) {
        delete stage;
        return;
    }
    Stream* old = data->stage;
    data->stage = stage;
    delete old;
}

LinkSpec DownloadImp::linkSpec(uint32_t linkCount, const wchar_t* name) const
{
    LinkSpec spec{};
    spec.linkCount = linkCount;
    spec.bufferSize[0] = kLinkBufferSize;
    spec.bufferSize[1] = linkCount > 1 ? kLinkBufferSize : 0;
    wcsncpy_s(spec.stageName, kStageNameLength, name, _TRUNCATE);
    spec.reserved = -1;
    return spec;
}

bool DownloadImp::isPrepared() { return !stages_.empty(); }

bool DownloadImp::buildPipeline()
{
    const std::wstring dest = textOf(request_->getDestDir());
    if (dest.empty() ||
        (!CreateDirectoryW(qv::longForm(dest).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)) {
        status_ = status::SetupFailed;
        state_ = state::Aborted;
        return false;
    }
    if (!stages_.empty())
        return true;
    StageFactory* factory = env_.stages;
    if (!factory)
        return false;

    Stream* source = factory->makeSource(request_->getUrl(false));
    if (!source)
        return false;
    source->setThreadProc(factory->readerProc());

    if (!qv::isPackagePath(request_->getUrlPath())) {
        const std::wstring path = qv::longForm(dest + L"\\" + qv::lastComponent(textOf(request_->getUrlPath())));
        Stream* sink = factory->makeFileSink(path.c_str(), checkpointedFileOffset());
        if (!sink) {
            delete source;
            return false;
        }
        sink->setThreadProc(factory->writerProc());
        const LinkSpec sourceSpec = linkSpec(1, L"Http");
        const LinkSpec sinkSpec = linkSpec(1, L"File");
        addStage(source, &sourceSpec);
        addStage(sink, &sinkSpec);
        return true;
    }

    Stream* decoder = factory->makeDecoder();
    Stream* unpacker = decoder ? factory->makeTarSink(dest.c_str()) : nullptr;
    if (!unpacker) {
        delete source;
        delete decoder;
        return false;
    }
    decoder->setThreadProc(factory->readerWriterProc());
    unpacker->setThreadProc(factory->writerProc());
    const LinkSpec sourceSpec = linkSpec(1, L"Http");
    const LinkSpec decoderSpec = linkSpec(2, L"Lzma");
    const LinkSpec unpackerSpec = linkSpec(1, L"xTar");
    addStage(source, &sourceSpec);
    addStage(decoder, &decoderSpec);
    addStage(unpacker, &unpackerSpec);
    return true;
}

Target* DownloadImp::addStage(Stream* stage, const LinkSpec* settings)
{
    if (!stage || !settings || !env_.stages)
        return nullptr;
    Target* target = env_.stages->makeTarget(stages_.empty() ? nullptr : stages_.back(), this);
    if (!target) {
        delete stage;
        return nullptr;
    }
    if (!target->configure(stage, settings)) {
        if (stageOf(target) != stage)
            delete stage;
        delete target;
        return nullptr;
    }
    stages_.push_back(target);
    return target;
}

const wchar_t* DownloadImp::initUrl() { return netSession_.initUrl(*this); }

Target* DownloadImp::attachFileWriter()
{
    if (stages_.empty() || !env_.stages)
        return nullptr;
    const std::wstring path =
        qv::longForm(textOf(request_->getDestDir()) + L"\\" + qv::lastComponent(textOf(request_->getUrlPath())));
    Stream* sink = env_.stages->makeFileSink(path.c_str(), 0);
    if (!sink)
        return nullptr;
    sink->setThreadProc(env_.stages->writerProc());
    if (stages_.size() == 1) {
        const LinkSpec spec = linkSpec(1, L"File");
        return addStage(sink, &spec);
    }
    setStageOf(stages_.back(), sink);
    return stages_.back();
}

int64_t DownloadImp::checkpointedFileOffset()
{
    const uint32_t id = request_->getCheckpointId();
    const std::wstring dir = textOf(request_->getCheckpointDir());
    std::vector<uint8_t> bytes;
    if (id == 0 || dir.empty() || !qv::CheckpointFiles::read(dir, id, L"File", bytes) ||
        bytes.size() < sizeof(FileSinkRecord))
        return 0;
    FileSinkRecord record;
    std::memcpy(&record, bytes.data(), sizeof(record));
    return record.size >= sizeof(FileSinkRecord) && record.offset > 0 ? record.offset : 0;
}

void DownloadImp::destroyTargets()
{
    // Downstream targets first: each frees the links it created, which its successor shares.
    while (!stages_.empty()) {
        delete stages_.back();
        stages_.pop_back();
    }
}

// ---- state ----

bool DownloadImp::changeState(uint32_t next)
{
    // A download that starts playing begins with a clean status. It is cleared before Play becomes
    // visible: a status that someone sets on seeing Play must not be wiped out after the fact.
    if (next == state::Play && isWaitingState(state_))
        status_ = status::None;
    const uint32_t old = state_.exchange(next);
    if (old == next)
        return false;
    if (isWaitingState(old)) {
        if (next == state::Play) {
            SetEvent(idleEvent_.get());
        } else if (next == state::Completed || next == state::Init ||
                   (next >= state::Completing && next <= state::Aborted)) {
            SetEvent(idleEvent_.get());
        }
    }
    updateRunGate();
    request_->setState(next);
    if (DownloadRequestLog* log = store())
        log->saveState(request_, next);
    publishEvent(this, event::StateChange, next);
    return true;
}

void DownloadImp::updateRunGate()
{
    const uint32_t s = state_;
    if (stopFlag_ || (s != state::Paused && s != state::Pending && !stopPending_))
        SetEvent(runGate_.get());
    else
        ResetEvent(runGate_.get());
}

unsigned DownloadImp::getState() { return state_; }
unsigned DownloadImp::getStatus() { return status_; }
void DownloadImp::setStatus(unsigned code) { status_ = code; }

bool DownloadImp::setPending()
{
    status_ = status::None;
    if (state_ != state::Pending)
        changeState(state::Pending);
    return true;
}

bool DownloadImp::reinit()
{
    if (controlThreadId_ && state_ == state::Play)
        return PostThreadMessageW(controlThreadId_, command::Reinit, 0, 0) != 0;
    return false;
}

bool DownloadImp::pause()
{
    if (controlThreadId_ && state_ == state::Play) {
        const bool posted = PostThreadMessageW(controlThreadId_, command::Pause, 0, 0) != 0;
        netSession_.pause();
        return posted;
    }
    if (state_ == state::Paused)
        return false;
    changeState(state::Paused);
    netSession_.pause();
    return true;
}

bool DownloadImp::resume()
{
    netSession_.resume();
    const DWORD id = controlThreadId_;
    return id && PostThreadMessageW(id, command::Resume, 0, 0) != 0;
}

bool DownloadImp::abort(bool discard)
{
    // A session that handles the stop itself ends the abort here.
    if (netSession_.abort(discard) != 0)
        return true;
    if (controlThreadAlive()) {
        const DWORD id = controlThreadId_;
        return id && PostThreadMessageW(id, discard ? command::AbortDiscard : command::StopKeep, 0, 0) != 0;
    }
    finalised_ = false;
    stopProcedure(discard, {});
    finalCleanup();
    return true;
}

bool DownloadImp::waitIdle()
{
    const uint32_t s = state_;
    const bool ended = s == state::Completed || s == state::Exiting || s == state::Aborting || s == state::Aborted;
    if (s == state::Pending || s == state::Paused) {
        ResetEvent(idleEvent_.get());
        // The state may have moved on between the test and the reset.
        const uint32_t now = state_;
        if (now == state::Pending || now == state::Paused)
            WaitForSingleObject(idleEvent_.get(), INFINITE);
    }
    return ended;
}

int DownloadImp::stagesReady()
{
    if (!env_.stages)
        return 1;
    for (Target* target : stages_) {
        const uint32_t ready = env_.stages->readiness(target);
        if (ready == 2)
            return 2;
        if (ready == 0)
            return 0;
    }
    return 1;
}

DownloadRequest* DownloadImp::getRequest() { return request_; }

bool DownloadImp::applyValidationResult(unsigned result)
{
    const ValidationOutcome outcome = validationOutcome(result);
    status_ = outcome.status;
    if (outcome.message)
        publishEvent(this, outcome.eventKind, outcome.message);
    return outcome.result;
}

unsigned DownloadImp::getStreamError()
{
    for (Target* target : stages_)
        if (Stream* stage = stageOf(target))
            if (const uint32_t error = stage->lastStatus())
                return error;
    return 0;
}

unsigned DownloadImp::getNetSessionError() { return netSession_.lastError(); }

void DownloadImp::setUseAkamai(bool use, bool persist)
{
    request_->setUseAkamai(use);
    if (persist)
        if (DownloadRequestLog* log = store())
            log->saveUseAkamai(request_);
}

void DownloadImp::setUseAkamaiPersist(bool use) { setUseAkamai(use, true); }

Stats* DownloadImp::getStats() { return &stats_; }
HANDLE DownloadImp::getThreadHandle() { return controlThread_.get(); }
unsigned DownloadImp::getThreadId() { return controlThreadId_; }
bool DownloadImp::isRunning() { return controlThreadId_ != 0; }

void DownloadImp::setBlockDownloadedSize(uint64_t size) { request_->setBlockDownloadedSize(size); }
uint64_t DownloadImp::getDownloadedSize()
{
    return request_->getTotalDownloadedSize() + request_->getBlockDownloadedSize();
}
void DownloadImp::setTotalDownloadedSize(uint64_t size) { request_->setTotalDownloadedSize(size); }
void DownloadImp::addTotalDownloadedSize(int64_t delta)
{
    request_->setTotalDownloadedSize(request_->getTotalDownloadedSize() + static_cast<uint64_t>(delta));
}
uint64_t DownloadImp::getExtractedSize() { return request_->getExtractedSize(); }
void DownloadImp::setExtractedSize(uint64_t size) { request_->setExtractedSize(size); }
void DownloadImp::addExtractedSize(int64_t delta)
{
    request_->setExtractedSize(request_->getExtractedSize() + static_cast<uint64_t>(delta));
}

void DownloadImp::setHoldFlag(bool hold) { holdFlag_ = hold; }
bool DownloadImp::getHoldFlag() { return holdFlag_; }

// ---- checkpoints ----

bool DownloadImp::checkpointDue(unsigned id, bool ask)
{
    qv::CsLock hold(checkpointLock_);
    // A source that has read its block to the end but not yet moved on would resume past the block's
    // end; the checkpoint waits for the next block.
    const int64_t blockLength = request_->getContentLength();
    const bool atBlockEnd = blockLength > 0 && request_->getBlockDownloadedSize() >= static_cast<uint64_t>(blockLength);
    if (discarding_)
        return false; // the progress is being thrown away: nothing more is recorded
    if (ask && checkpointBlock_ == 0 && !atBlockEnd) {
        const uint64_t downloaded = getDownloadedSize();
        const bool forced = forceId_ == id && id != 0 && downloaded != committedAt_;
        if (forced || downloaded > lastCheckpointAt_ + request_->getSaveInterval()) {
            checkpointBlock_ = id;
            lastCheckpointAt_ = downloaded;
            // The asking stage is the source, about to save its position: the counters match it now.
            snapshot_.blockId = request_->getBlockId();
            snapshot_.blockDownloaded = request_->getBlockDownloadedSize();
            snapshot_.totalDownloaded = request_->getTotalDownloadedSize();
            return true;
        }
    }
    return checkpointBlock_ == id;
}

int DownloadImp::saveCheckpoint(const wchar_t* name, unsigned id, Stream* stage, bool ask, bool commit)
{
    if (!name || !stage)
        return false;
    if (!checkpointDue(id, ask))
        return true;
    const bool written = writeCheckpointPart(name, id, stage);

    qv::CsLock hold(checkpointLock_);
    if (checkpointBlock_ != id || discarding_) {
        // Given up meanwhile: this part belongs to no checkpoint.
        DeleteFileW(qv::longForm(qv::CheckpointFiles::tempPath(textOf(request_->getCheckpointDir()), id, name)).c_str());
        return written;
    }
    request_->setCheckpointId(id);
    if (written)
        ++partsWritten_;
    else
        partFailed_ = true;
    if (!commit)
        return written;
    // A checkpoint commits only whole: every stage's part written, and the job's own record with them.
    const bool whole = written && !partFailed_ && partsWritten_ > 0 &&
                       (stages_.empty() || partsWritten_ == stages_.size());
    if (whole && !discarding_ && writeProgressRecord(id) && commitCheckpoint(id))
        return true;
    abandonCheckpoint(id);
    return false;
}

bool DownloadImp::writeCheckpointPart(const wchar_t* name, uint32_t id, Stream* stage)
{
    uint64_t capacity = 0;
    const uint64_t size = stage->saveState(nullptr, &capacity);
    if (size == 0 || size > 0x7FFFFFFF)
        return false;
    qv::HeapBlock buffer(static_cast<size_t>(size));
    if (!buffer)
        return false;
    capacity = size;
    if (stage->saveState(buffer.as<StreamStateHeader>(), &capacity) != size)
        return false;
    request_->setState(state_);
    return qv::CheckpointFiles::writeTemp(textOf(request_->getCheckpointDir()), id, name, buffer.get(),
                                          static_cast<size_t>(size));
}

// Under the checkpoint lock, with every part of id written.
bool DownloadImp::commitCheckpoint(uint32_t id)
{
    const std::wstring dir = textOf(request_->getCheckpointDir());
    const int expected = static_cast<int>(partsWritten_) + 1; // the stages' parts and the job's record
    const int renamed = qv::CheckpointFiles::commit(dir, id);
    if (renamed != expected) {
        // The store still names the previous checkpoint: what was renamed of this one goes.
        qv::CheckpointFiles::removeCommitted(dir, id);
        return false;
    }
    const uint32_t previous = checkpointId_;
    if (DownloadRequestLog* log = store()) {
        log->saveProgress(request_, state_, id);
        // The store must name the new checkpoint on the disk before the old one's files are gone.
        if (const wchar_t* path = log->getPath())
            qv::flushFile(path);
    }
    checkpointId_ = id;
    checkpointBlock_ = 0;
    partsWritten_ = 0;
    partFailed_ = false;
    committedAt_ = snapshot_.totalDownloaded + snapshot_.blockDownloaded;
    qv::CheckpointFiles::removeCommitted(dir, previous);
    settleDone(id);
    return true;
}

// Under the checkpoint lock: the previous checkpoint stays in force and a later one is tried again.
void DownloadImp::abandonCheckpoint(uint32_t id)
{
    qv::CheckpointFiles::removeTemp(textOf(request_->getCheckpointDir()), id);
    request_->setCheckpointId(discarding_ ? 0 : checkpointId_);
    checkpointBlock_ = 0;
    partsWritten_ = 0;
    partFailed_ = false;
    settleDone(id);
}

// Under the checkpoint lock: a requested checkpoint has been committed or given up.
void DownloadImp::settleDone(uint32_t id)
{
    if (id != settleId_)
        return;
    settleId_ = 0;
    SetEvent(settledEvent_.get());
}

void DownloadImp::settle(const wchar_t* stageName, uint32_t sequence, Stream* stage)
{
    settleAnswered_ = settleGeneration_.load();
    bool opened = false;
    if (stageName && stage) {
        // A checkpoint still on its way is committed first: the stages behind the source run on.
        for (DWORD waited = 0; waited < kSettleMs; waited += kSettlePollMs) {
            {
                qv::CsLock hold(checkpointLock_);
                if (checkpointBlock_ == 0 || checkpointBlock_ == sequence || discarding_)
                    break;
            }
            Sleep(kSettlePollMs);
        }
        bool open = false;
        {
            qv::CsLock hold(checkpointLock_);
            open = checkpointBlock_ == sequence; // the interval's own checkpoint of the same point
            forceId_ = sequence;
        }
        if (!open)
            saveCheckpoint(stageName, sequence, stage, true, false);
        qv::CsLock hold(checkpointLock_);
        forceId_ = 0;
        opened = checkpointBlock_ == sequence && !discarding_;
        if (opened)
            settleId_ = sequence;
    }
    if (!opened)
        SetEvent(settledEvent_.get());
}

bool DownloadImp::writeProgressRecord(uint32_t id)
{
    ProgressRecord record{};
    record.size = sizeof(record);
    record.version = kProgressRecordVersion;
    record.blockId = snapshot_.blockId;
    record.blockDownloaded = snapshot_.blockDownloaded;
    record.totalDownloaded = snapshot_.totalDownloaded;
    // The committing stage is the last one: what it has written out is exactly what the checkpoint holds.
    record.extracted = request_->getExtractedSize();
    return qv::CheckpointFiles::writeTemp(textOf(request_->getCheckpointDir()), id, kProgressRecordName, &record,
                                          sizeof(record));
}

void DownloadImp::restoreProgressRecord()
{
    const uint32_t id = request_->getCheckpointId();
    std::vector<uint8_t> bytes;
    if (id == 0 || !qv::CheckpointFiles::read(textOf(request_->getCheckpointDir()), id, kProgressRecordName, bytes) ||
        bytes.size() < sizeof(ProgressRecord))
        return;
    ProgressRecord record;
    std::memcpy(&record, bytes.data(), sizeof(record));
    if (record.size < sizeof(record) || record.version != kProgressRecordVersion || record.blockId < 0 ||
        record.blockId >= request_->getBlockCount())
        return;
    if (request_->getBlockId() != record.blockId)
        request_->setBlockId(record.blockId);
    request_->setBlockDownloadedSize(record.blockDownloaded);
    request_->setTotalDownloadedSize(record.totalDownloaded);
    request_->setExtractedSize(record.extracted);
}

int DownloadImp::loadCheckpoint(const wchar_t* name, unsigned* idOut, Stream* stage)
{
    if (!name || !stage)
        return false;
    const uint32_t id = request_->getCheckpointId();
    if (id == 0)
        return false;
    std::vector<uint8_t> bytes;
    if (!qv::CheckpointFiles::read(textOf(request_->getCheckpointDir()), id, name, bytes) ||
        bytes.size() < sizeof(StreamStateHeader))
        return false;
    // The stages read as many bytes as the record's size field claims: a file cut short (or damaged
    // there) must not let them read past it.
    StreamStateHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.size > bytes.size())
        return false;
    if (idOut)
        *idOut = id;
    // The record is handed over in a zeroed block of its own, aligned for the stage's structure.
    qv::HeapBlock record(bytes.size());
    if (!record)
        return false;
    std::memcpy(record.get(), bytes.data(), bytes.size());
    return stage->restoreState(record.as<StreamStateHeader>());
}

// ---- what the stage threads use ----

bool DownloadImp::stopRequested()
{
    // A paused or pending job holds its source here until it runs again or stops, and so does a stop that
    // waits for its checkpoint; the source first answers the checkpoint request that came with either.
    while (!stopFlag_) {
        const uint32_t s = state_;
        if ((s != state::Paused && s != state::Pending && !stopPending_) || settleAnswered_ != settleGeneration_)
            break;
        WaitForSingleObject(runGate_.get(), 250);
    }
    return stopFlag_;
}

bool DownloadImp::stopping() { return stopFlag_; }
uint32_t DownloadImp::settleRequest() { return settleGeneration_; }
uint32_t DownloadImp::status() { return state_; }
void DownloadImp::setJobStatus(uint32_t code) { status_ = code; }
DownloadRequest* DownloadImp::request() { return request_; }
Download* DownloadImp::download() { return this; }

void DownloadImp::checkpoint(const wchar_t* stageName, uint32_t sequence, Stream* stage, bool fromReader,
                             bool fromWriter)
{
    // The stages number their data on from the checkpoint that the run resumed from, so a sequence is
    // a checkpoint id of its own.
    saveCheckpoint(stageName, sequence, stage, fromReader, fromWriter);
}

bool DownloadImp::restoreStage(const wchar_t* stageName, Stream* stage)
{
    unsigned id = 0;
    return loadCheckpoint(stageName, &id, stage) != 0;
}

void DownloadImp::addBytes(int64_t bytes) { addExtractedSize(bytes); }
uint32_t DownloadImp::controlThreadId() { return controlThreadId_; }
uint32_t DownloadImp::startGate() { return gate_; }
Stream* DownloadImp::currentSource() { return stages_.empty() ? nullptr : stageOf(stages_.front()); }
Stream* DownloadImp::currentSink() { return stages_.empty() ? nullptr : stageOf(stages_.back()); }

uint32_t DownloadImp::validateUrl() { return env_.validate ? static_cast<uint32_t>(env_.validate(request_)) : 0; }
bool DownloadImp::acceptValidation(uint32_t result) { return applyValidationResult(result); }
const wchar_t* DownloadImp::sourceUrl() { return initUrl(); }
bool DownloadImp::takeInterruption() { return interrupted_.exchange(false); }
void DownloadImp::fallBackToHttp() { qv::NetSessionDelivery::fallBackToHttp(*this); }

// ---- control thread ----

bool DownloadImp::controlThreadAlive()
{
    return runHandle_ && WaitForSingleObject(runHandle_.get(), 0) == WAIT_TIMEOUT;
}

bool DownloadImp::waitForControlThread(DWORD milliseconds)
{
    return !runHandle_ || WaitForSingleObject(runHandle_.get(), milliseconds) == WAIT_OBJECT_0;
}

HANDLE DownloadImp::start()
{
    if (controlThreadAlive())
        return nullptr;
    if (netSession_.resume() != 0)
        return nullptr;
    if (DownloadRequestLog* log = store()) {
        const wchar_t* id = request_->getId();
        if (id && *id && log->exists(id))
            log->load(id, request_);
    }
    const std::wstring checkpointDir = textOf(request_->getCheckpointDir());
    if (!qv::createFolderTree(checkpointDir))
        return nullptr;
    stats_.start();

    const int32_t storedBlock = request_->getBlockId();
    restoreProgressRecord();
    // The checkpoint may stand in an earlier block than the store recorded: the source reads that block,
    // whose length the end-of-block test needs.
    if (request_->getBlockId() != storedBlock && env_.validate)
        if (const unsigned long result = env_.validate(request_))
            applyValidationResult(static_cast<unsigned>(result));
    {
        qv::CsLock hold(checkpointLock_);
        checkpointId_ = request_->getCheckpointId();
        checkpointBlock_ = 0;
        partsWritten_ = 0;
        partFailed_ = false;
        discarding_ = false;
        lastCheckpointAt_ = getDownloadedSize();
        committedAt_ = lastCheckpointAt_;
        forceId_ = 0;
        settleId_ = 0;
    }
    finalised_ = false;
    stopFlag_ = false;
    stopPending_ = false;
    settleAnswered_ = settleGeneration_.load();
    SetEvent(settledEvent_.get());
    outOfSpace_ = false;
    gate_ = kGateUndecided;
    SetEvent(idleEvent_.get());
    updateRunGate();
    queueReady_.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));

    DWORD threadId = 0;
    qv::UniqueHandle thread(CreateThread(nullptr, 0, &DownloadImp::controlThreadEntry, this, CREATE_SUSPENDED, &threadId));
    if (!thread) {
        finalised_ = true;
        return nullptr;
    }
    HANDLE duplicate = nullptr;
    DuplicateHandle(GetCurrentProcess(), thread.get(), GetCurrentProcess(), &duplicate, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    runHandle_.reset(duplicate);
    controlThreadId_ = threadId;
    controlThread_ = std::move(thread);
    HANDLE handed = controlThread_.get();
    ResumeThread(handed);
    // Commands can be posted only once the thread has its message queue.
    HANDLE waits[2] = {queueReady_.get(), runHandle_.get()};
    WaitForMultipleObjects(runHandle_ ? 2 : 1, waits, FALSE, kQueueReadyWaitMs);
    return handed;
}

DWORD WINAPI DownloadImp::controlThreadEntry(void* self)
{
    auto* job = static_cast<DownloadImp*>(self);
    const DWORD code = job->runControlThread();
    if (code == kStagesNotOpened)
        publishEvent(job, event::StateChange, state::Pending);
    job->finalCleanup();
    return code;
}

DWORD WINAPI DownloadImp::stageThreadEntry(void* target)
{
    auto* data = dynamic_cast<StreamThreadData*>(static_cast<Target*>(target)->threadData());
    if (!data || !data->stage || !data->stage->threadProc())
        return state::Aborting;
    return data->stage->threadProc()(target);
}

bool DownloadImp::openStages()
{
    if (stages_.empty() || !env_.stages)
        return false;
    // The source opens the current block's URL: a restored request may stand at a later block.
    Stream* source = env_.stages->makeSource(initUrl());
    if (!source)
        return false;
    source->setThreadProc(env_.stages->readerProc());
    setStageOf(stages_.front(), source);
    for (Target* target : stages_)
        if (!target->createBuffers())
            return false;
    return true;
}

bool DownloadImp::waitForStagesReady(WorkerMap& workers)
{
    // Each worker restores its stage from the checkpoint and then waits at the start gate; the source is
    // opened only once it knows the position that it continues from.
    for (;;) {
        const int ready = stagesReady();
        if (ready == 1)
            return true;
        if (ready == 2 || stopFlag_)
            return false;
        bool anyEnded = false;
        for (const auto& worker : workers)
            if (WaitForSingleObject(worker.first, 0) == WAIT_OBJECT_0)
                anyEnded = true;
        if (anyEnded)
            return false;
        if (MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_ALLPOSTMESSAGE) == WAIT_OBJECT_0)
            handleMessages(workers);
    }
}

bool DownloadImp::startWorkers(WorkerMap& workers)
{
    for (Target* target : stages_) {
        DWORD id = 0;
        HANDLE worker = CreateThread(nullptr, 0, &DownloadImp::stageThreadEntry, target, 0, &id);
        if (!worker) {
            gate_ = kGateCancelled;
            stopFlag_ = true;
            updateRunGate();
            for (const auto& started : workers) {
                WaitForSingleObject(started.first, kQueueReadyWaitMs);
                CloseHandle(started.first);
            }
            return false;
        }
        workers.emplace(worker, id);
    }
    return true;
}

bool DownloadImp::startAnew()
{
    // Nothing on the disk is deleted: the working folder is written over from the start, and the files
    // of the checkpoint that could not be restored stay until a new checkpoint replaces them.
    wchar_t text[160];
    swprintf(text, std::size(text), L"Checkpoint %08u could not be restored: the download starts again from the beginning",
             static_cast<unsigned>(request_->getCheckpointId()));
    publishText(this, text, event::Information);
    {
        qv::CsLock hold(checkpointLock_);
        request_->setCheckpointId(0);
        request_->setBlockId(0);
        request_->setBlockDownloadedSize(0);
        request_->setTotalDownloadedSize(0);
        request_->setExtractedSize(0);
        if (DownloadRequestLog* log = store())
            log->saveProgress(request_, state_, 0);
        checkpointId_ = 0;
        checkpointBlock_ = 0;
        partsWritten_ = 0;
        partFailed_ = false;
        lastCheckpointAt_ = 0;
    }
    if (env_.validate)
        if (const unsigned long result = env_.validate(request_))
            applyValidationResult(static_cast<unsigned>(result));
    status_ = status::None; // the stages' reports of the failed restore are answered
    destroyTargets();
    gate_ = kGateUndecided;
    return buildPipeline() && openStages();
}

DWORD DownloadImp::runControlThread()
{
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    SetEvent(queueReady_.get());

    if (!changeState(state::Play))
        return kControlThreadFailed;
    if (!openStages())
        return kStagesNotOpened;

    WorkerMap workers;
    bool ready = false;
    for (bool anew = false;; anew = true) {
        if (!startWorkers(workers))
            return kControlThreadFailed;
        ready = waitForStagesReady(workers);
        // A stage that could not restore its part of the checkpoint: the run starts again from the
        // beginning (the decoder's and the unpacker's state depend on every byte before it), once.
        if (ready || stopFlag_ || anew || stagesReady() != 2)
            break;
        gate_ = kGateCancelled;
        for (const auto& worker : workers) {
            WaitForSingleObject(worker.first, INFINITE);
            CloseHandle(worker.first);
        }
        workers.clear();
        if (!startAnew())
            return kStagesNotOpened;
    }
    if (ready) {
        env_.stages->connectSource(currentSource());
        gate_ = kGateGo;
    } else if (!stopFlag_) {
        gate_ = kGateCancelled;
    }

    bool haveFinalState = false;
    bool failed = false;
    std::vector<HANDLE> alive;
    for (const auto& worker : workers)
        alive.push_back(worker.first);
    workersRunning_ = gate_ == kGateGo;
    while (!alive.empty()) {
        for (auto it = alive.begin(); it != alive.end();) {
            if (WaitForSingleObject(*it, 0) != WAIT_OBJECT_0) {
                ++it;
                continue;
            }
            DWORD code = 0;
            GetExitCodeThread(*it, &code);
            if (code != 0) {
                if (isErrorCode(code)) {
                    status_ = code;
                    failed = true;
                    outOfSpace_ = outOfSpace_ || code == status::OutOfDiskSpace;
                } else if (code >= state::Pending && code <= state::Removed) {
                    haveFinalState = true; // a stage that ended by a stop or could not be prepared
                } else {
                    // A decoder's or the system's own code: the stage failed all the same.
                    if (!isErrorCode(status_))
                        status_ = status::GeneralError;
                    failed = true;
                }
            }
            it = alive.erase(it);
        }
        if (alive.empty())
            break;
        if (stopPending_ &&
            (WaitForSingleObject(settledEvent_.get(), 0) == WAIT_OBJECT_0 || GetTickCount64() >= stopDeadline_))
            endSettledStop(workers);
        if (stopFlag_)
            SetEvent(idleEvent_.get());
        const DWORD wait = MsgWaitForMultipleObjects(static_cast<DWORD>(alive.size()), alive.data(), FALSE,
                                                     stopFlag_ ? kStopRepostMs : stopPending_ ? kSettlePollMs : INFINITE,
                                                     QS_ALLPOSTMESSAGE);
        if (wait == WAIT_OBJECT_0 + alive.size())
            handleMessages(workers);
        else if (wait == WAIT_TIMEOUT && stopFlag_) {
            // A worker that had no message queue yet when the stop was posted gets it again.
            WorkerMap stillAlive;
            for (HANDLE h : alive)
                stillAlive.emplace(h, workers[h]);
            postToWorkers(state_ == state::Aborting ? command::AbortDiscard : command::StopKeep, stillAlive);
        }
    }

    // A stop still waiting for its checkpoint when the workers ended by themselves lets a whole download
    // complete; after a failure it keeps the progress.
    workersRunning_ = false;
    if (stopPending_ && (failed || haveFinalState))
        endSettledStop(workers);
    stopPending_ = false;
    // Commands that arrived while the last worker ended (the manager's abort after a stage's error
    // event among them) are carried out before the outcome is decided.
    handleMessages(workers);
    for (const auto& worker : workers)
        CloseHandle(worker.first);
    const uint32_t now = state_;
    if (now == state::Exiting || now == state::Aborting)
        return 0; // a stop has decided
    // A run whose pipeline failed never completes: what it wrote is incomplete.
    changeState(failed || haveFinalState ? state::Aborting : state::Completing);
    return 0;
}

void DownloadImp::handleMessages(WorkerMap& workers)
{
    MSG message;
    if (PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) {
        stopProcedure(false, workers);
        return;
    }
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == WM_QUIT) {
            stopProcedure(false, workers);
            return;
        }
        if (message.message >= 32768 && message.message <= 32778)
            handleCommand(message.message, workers);
    }
}

void DownloadImp::handleCommand(UINT command, WorkerMap& workers)
{
    const uint32_t s = state_;
    const bool ending = s == state::Exiting || s == state::Aborting || s == state::Aborted;
    switch (command) {
    case command::Pause:
        // A download that was moving data takes a checkpoint of where it stands.
        if (s != state::Paused && !ending && s != state::Completing && changeState(state::Paused) &&
            (s == state::Play || s == state::Init) && workersRunning_ && !stopPending_)
            requestSettle();
        break;
    case command::Resume:
        if (s == state::Pending || s == state::Init || s == state::Paused) {
            interrupted_ = true; // a source waiting to retry tries again now
            changeState(state::Play);
        }
        break;
    case command::StopKeep:
        if (stopPending_)
            break; // the stop under way ends with its checkpoint or its time limit
        if (!ending && workersRunning_) {
            // The workers end once the checkpoint of where they stand is taken; a paused download has
            // asked for it already.
            if (s != state::Paused)
                requestSettle();
            stopDeadline_ = GetTickCount64() + kSettleMs;
            stopPending_ = true;
            updateRunGate();
            break;
        }
        [[fallthrough]];
    case command::AbortDiscard:
        if (!ending)
            stopProcedure(command == command::AbortDiscard, workers);
        stopFlag_ = true;
        updateRunGate();
        break;
    case command::Reinit:
        if (s == state::Pending || s == state::Play || s == state::Paused) {
            interrupted_ = true;
            changeState(state::Init);
        }
        break;
    default:
        break;
    }
}

void DownloadImp::postToWorkers(UINT message, const WorkerMap& workers)
{
    for (const auto& worker : workers)
        PostThreadMessageW(worker.second, message, 0, 0);
}

void DownloadImp::requestSettle()
{
    ResetEvent(settledEvent_.get());
    ++settleGeneration_;
}

void DownloadImp::endSettledStop(const WorkerMap& workers)
{
    const uint32_t s = state_;
    if (s != state::Exiting && s != state::Aborting && s != state::Aborted)
        stopProcedure(false, workers);
    stopPending_ = false;
    stopFlag_ = true;
    updateRunGate();
}

void DownloadImp::stopProcedure(bool discard, const WorkerMap& workers)
{
    stopPending_ = false;
    if (discard) {
        // A commit in progress finishes before the reset; none begins after it.
        qv::CsLock hold(checkpointLock_);
        discarding_ = true;
        request_->setBlockId(0);
        request_->setCheckpointId(0);
        request_->setBlockDownloadedSize(0);
        request_->setTotalDownloadedSize(0);
        request_->setExtractedSize(0);
    }
    // Workers still waiting at the start gate are let through, so that they end by the stop request
    // with the job's state rather than as stages that could not be prepared.
    uint32_t undecided = kGateUndecided;
    gate_.compare_exchange_strong(undecided, kGateGo);
    stopFlag_ = true;
    changeState(discard ? state::Aborting : state::Exiting);
    postToWorkers(discard ? command::AbortDiscard : command::StopKeep, workers);
}

// ---- the end of a run ----

bool DownloadImp::moveOutOfWorkingFolder()
{
    const std::wstring dest = textOf(request_->getDestDir());
    // Only a working folder of our own is emptied into its parent; any other destination already is
    // where the files belong.
    if (dest.empty() || !startsWithWorkingPrefix(dest))
        return true;
    if (!qv::folderExists(dest))
        return false;
    if (!qv::moveContentsUp(dest))
        return false;
    RemoveDirectoryW(qv::longForm(dest).c_str());
    return true;
}

void DownloadImp::finalCleanup()
{
    if (finalised_.exchange(true))
        return;
    destroyTargets();
    {
        // Every worker has ended: a checkpoint still open will never be committed.
        qv::CsLock hold(checkpointLock_);
        if (checkpointBlock_ != 0)
            abandonCheckpoint(checkpointBlock_);
        settleId_ = 0;
        SetEvent(settledEvent_.get());
    }

    const uint32_t s = state_;
    if (s == state::Aborting) {
        // A worker may have reported progress after the stop reset it.
        request_->setBlockId(0);
        request_->setBlockDownloadedSize(0);
        request_->setTotalDownloadedSize(0);
        request_->setExtractedSize(0);
        const std::wstring dest = textOf(request_->getDestDir());
        if (!dest.empty() && startsWithWorkingPrefix(dest))
            qv::deleteTree(dest);
        changeState(state::Aborted);
    } else if (s == state::Completing) {
        qv::applyLaunchSettings(request_, store());
        if (moveOutOfWorkingFolder()) {
            wchar_t date[64] = {};
            if (GetDateFormatW(LOCALE_USER_DEFAULT, 0, nullptr, L"MMM dd yyyy", date, static_cast<int>(std::size(date))))
                request_->setDate(date);
            changeState(state::Completed);
        } else {
            changeState(state::Aborted);
        }
    } else if (s == state::Exiting && outOfSpace_) {
        // A full disk stopped it (whatever status a later message left): it goes on once there is room.
        status_ = status::OutOfDiskSpace;
        changeState(state::Paused);
    }

    const uint32_t after = state_;
    netSession_.finish(*request_, after);
    if (after == state::Completed || after == state::Aborted) {
        const std::wstring checkpointDir = textOf(request_->getCheckpointDir());
        if (!checkpointDir.empty())
            qv::deleteTree(checkpointDir);
    }
    controlThread_.reset();
    controlThreadId_ = 0;
}

Download* QvDLM::createDownload(DownloadRequest* request, DownloadMgr* mgr)
{
    return makeDownload(request, mgr, defaultJobEnvironment());
}
