#include "stream/TargetImp.h"

#include <new>

#include "DownloadRequest.h"
#include "QvDLMCodes.h"
#include "stream/StreamLink.h"

namespace {

// Frees both slots of a link: buffers, events and the slots themselves.
void freeSlots(BufferLink& link)
{
    link.slots[0].reset();
    link.slots[1].reset();
}

std::unique_ptr<BufferSlot> makeSlot(uint64_t bufferSize)
{
    // A slot's count is 32 bits wide; a larger buffer could never be filled.
    if (bufferSize == 0 || bufferSize > UINT32_MAX)
        return nullptr;
    auto slot = std::make_unique<BufferSlot>();
    slot->sequence = 0;
    slot->restart = 0;
    slot->count = static_cast<uint32_t>(bufferSize);
    slot->storage = qv::HeapBlock(static_cast<size_t>(bufferSize));
    if (!slot->storage)
        return nullptr;
    slot->data = slot->storage.as<uint8_t>();
    if (!slot->filled.create() || !slot->emptied.create())
        return nullptr;
    return slot;
}

} // namespace

TargetImp::TargetImp(PipelineJob* job, Target* previous)
    : data_(std::make_unique<StreamThreadData>()), previous_(previous)
{
    data_->job = job;
}

TargetImp::~TargetImp()
{
    for (auto& link : ownedLinks_)
        link.reset();
    delete data_->stage;
    data_->stage = nullptr;
    data_.reset();
}

bool TargetImp::configure(Stream* stage, const LinkSpec* spec)
{
    data_->stage = stage;
    if (!spec)
        return false;
    // The job's name may fill all of its units; keep at most five and the terminator.
    size_t n = 0;
    for (; n + 1 < kStageNameLength && spec->stageName[n] != L'\0'; ++n)
        data_->stageName[n] = spec->stageName[n];
    data_->stageName[n] = L'\0';
    if (spec->linkCount < 1 || spec->linkCount > 2)
        return false;

    for (uint32_t i = 0; i < spec->linkCount; ++i) {
        if (previous_ && i == 0) {
            auto* before = dynamic_cast<StreamThreadData*>(previous_->threadData());
            if (!before || before->linkCount == 0 || !before->links[before->linkCount - 1])
                return false;
            data_->links[0] = before->links[before->linkCount - 1];
            continue;
        }
        ownedLinks_[i].reset(new (std::nothrow) BufferLink);
        if (!ownedLinks_[i])
            return false;
        ownedLinks_[i]->bufferSize = spec->bufferSize[i];
        data_->links[i] = ownedLinks_[i].get();
    }
    data_->linkCount = spec->linkCount;
    return true;
}

bool TargetImp::createBuffers()
{
    for (auto& link : ownedLinks_) {
        if (!link)
            continue;
        for (auto& slot : link->slots) {
            slot = makeSlot(link->bufferSize);
            if (!slot) {
                freeSlots(*link);
                return false;
            }
        }
        link->producerEnd.store(INT64_MAX);
        link->consumerEnded.store(false);
    }
    return true;
}

bool TargetImp::prepare(Stream* stage, bool isWriter)
{
    (void)isWriter; // both sides of a middle stage are restored through its writer
    prepareResult_.store(kNotPrepared);
    PipelineJob* job = data_->job;
    if (!job)
        return false;

    DownloadRequest* request = job->request();
    if (request && request->getCheckpointId() != 0 && !job->restoreStage(data_->stageName, stage))
        prepareResult_.store(kPrepareFailed);
    if (prepareResult_.load() != kPrepareFailed)
        prepareResult_.store(kPrepared);

    qv::StatePoller poller;
    uint32_t gate = job->startGate();
    while (gate == 0) {
        const uint32_t state = job->status();
        if (state == qvdlm::state::Exiting || state == qvdlm::state::Aborting)
            return false;
        poller.yield();
        gate = job->startGate();
    }
    if (gate == 2)
        return false;
    return prepareResult_.load() == kPrepared;
}
