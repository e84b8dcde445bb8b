// The wrapper of one pipeline stage: its thread data, the links it made and its preparation.
#pragma once

#include <atomic>
#include <memory>

#include "stream/Stream.h"

class TargetImp final : public Target {
public:
    // Readiness word of a target (what the job's stagesReady reads).
    static constexpr uint32_t kNotPrepared = 0;
    static constexpr uint32_t kPrepared = 1;
    static constexpr uint32_t kPrepareFailed = 2;

    // previous is the last target already in the job's chain, or null for the source.
    TargetImp(PipelineJob* job, Target* previous);
    ~TargetImp() override;

    bool configure(Stream* stage, const LinkSpec* spec) override;
    bool createBuffers() override;
    bool prepare(Stream* stage, bool isWriter) override;
    BasicStreamThreadData* threadData() override { return data_.get(); }

    uint32_t prepareResult() const { return prepareResult_.load(); }
    Target* previous() const { return previous_; }
    StreamThreadData* streamData() const { return data_.get(); }

private:
    std::unique_ptr<StreamThreadData> data_;
    Target* previous_;
    std::atomic<uint32_t> prepareResult_{kNotPrepared}; // read by the job while threads prepare
    std::unique_ptr<BufferLink> ownedLinks_[2];          // null where link 0 is shared with previous_
};
