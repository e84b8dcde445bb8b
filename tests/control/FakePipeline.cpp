#include "FakePipeline.h"

#include "Download.h"
#include "QvDLMCodes.h"

bool FakeTarget::prepare(Stream* stage, bool)
{
    PipelineJob* job = data_.job;
    ready = job->request()->getCheckpointId() != 0 && !job->restoreStage(data_.stageName, stage) ? 2 : 1;
    for (int i = 0; i < 200000 && job->startGate() == 0; ++i) {
        if (job->status() == qvdlm::state::Exiting || job->status() == qvdlm::state::Aborting)
            return false;
        Sleep(0);
    }
    return job->startGate() == 1 && ready == 1;
}

uint32_t __stdcall FakeStages::thread(void* parameter)
{
    auto* target = static_cast<Target*>(parameter);
    auto* data = dynamic_cast<StreamThreadData*>(target->threadData());
    auto* stage = dynamic_cast<FakeStage*>(data->stage);
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    uint32_t code = qvdlm::state::Aborting;
    if (target->prepare(stage, true))
        for (int round = 0; round < 60000; ++round) { // bounded: a few minutes at most
            if (data->job->stopRequested() || (stage->plan.steps >= 0 && round >= stage->plan.steps)) {
                code = data->job->stopRequested() ? data->job->status() : stage->plan.exitCode;
                break;
            }
            // Waits end on posted messages too, as the real workers' do.
            if (MsgWaitForMultipleObjects(0, nullptr, FALSE, 2, QS_ALLPOSTMESSAGE) == WAIT_OBJECT_0)
                while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
                }
        }
    stage->setLastStatus(code);
    return code;
}
