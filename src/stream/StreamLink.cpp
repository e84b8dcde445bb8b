#include "stream/StreamLink.h"

#include "QvDLMCodes.h"

namespace qv {

namespace {
constexpr uint32_t kYieldsBeforeSleeping = 1000;
} // namespace

void ensureMessageQueue()
{
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
}

bool isStopMessage(UINT message)
{
    return message == WM_QUIT || message == qvdlm::command::AbortDiscard || message == qvdlm::command::StopKeep;
}

SlotWait waitForSlotEvent(const SlotEvent& event)
{
    HANDLE handle = event.handle.get();
    if (!handle)
        return SlotWait::Closed;
    for (;;) {
        // Input that arrived before this wait began must wake it too.
        const DWORD result =
            MsgWaitForMultipleObjectsEx(1, &handle, event.waitMs, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        if (result == WAIT_OBJECT_0)
            return SlotWait::Ready;
        if (result != WAIT_OBJECT_0 + 1)
            return SlotWait::Closed;
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            if (isStopMessage(message.message))
                return SlotWait::Stopped;
        }
    }
}

void StatePoller::yield()
{
    if (polls_ < kYieldsBeforeSleeping) {
        ++polls_;
        Sleep(0);
    } else {
        Sleep(1);
    }
}

void LinkProducer::start() { link_->slots[0]->emptied.signal(); }

SlotWait LinkProducer::acquire()
{
    // The consumer's farewell may have merged with an earlier signal of the same event: look first.
    if (link_->consumerEnded.load())
        return SlotWait::Closed;
    const SlotWait result = waitForSlotEvent(slot().emptied);
    if (result == SlotWait::Ready && link_->consumerEnded.load())
        return SlotWait::Closed;
    return result;
}

uint32_t LinkProducer::capacity() const
{
    return link_->bufferSize > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(link_->bufferSize);
}

void LinkProducer::publish()
{
    slot().filled.signal();
    ++counter_;
}

void LinkProducer::finish()
{
    if (finished_)
        return;
    finished_ = true;
    link_->producerEnd.store(counter_);
    // The consumer may wait on either slot (it may not even have started); every wake after this
    // finds the end.
    link_->slots[0]->filled.signal();
    link_->slots[1]->filled.signal();
}

void LinkConsumer::start() { link_->slots[1]->emptied.signal(); }

SlotWait LinkConsumer::acquire()
{
    // The producer's farewell may have merged with an earlier signal of the same event: look first.
    if (counter_ >= link_->producerEnd.load())
        return SlotWait::Closed;
    const SlotWait result = waitForSlotEvent(slot().filled);
    if (result == SlotWait::Ready && counter_ >= link_->producerEnd.load())
        return SlotWait::Closed;
    return result;
}

void LinkConsumer::release()
{
    slot().emptied.signal();
    ++counter_;
}

void LinkConsumer::finish()
{
    if (finished_)
        return;
    finished_ = true;
    link_->consumerEnded.store(true);
    // The producer may wait on either slot: one whose start signal never came (a consumer that
    // failed to prepare) included. Every wake after this finds the end.
    link_->slots[0]->emptied.signal();
    link_->slots[1]->emptied.signal();
}

} // namespace qv
