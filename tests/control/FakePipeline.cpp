#include "FakePipeline.h"

#include "Download.h"
#include "QvDLMCodes.h"

uint32_t __stdcall fakeStageThread(void* parameter)
{
    auto* target = static_cast<Target*>(parameter);
    auto* data = dynamic_cast<StreamThreadData*>(target->threadData());
    auto* stage = dynamic_cast<FakeStage*>(data->stage);
    PipelineJob* job = data->job;
    MSG message;
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
    if (!target->prepare(stage, true)) {
        stage->setLastStatus(qvdlm::state::Aborting);
        return qvdlm::state::Aborting;
    }
    // Bounded: a worker never outlives a few minutes even if nobody stops it.
    for (int round = 0; round < 60000; ++round) {
        if (job->stopRequested()) {
            stage->setLastStatus(job->status());
            return job->status();
        }
        if (stage->plan.steps >= 0 && round >= stage->plan.steps) {
            stage->setLastStatus(stage->plan.exitCode);
            return stage->plan.exitCode;
        }
        if (stage->plan.bytesPerStep)
            job->download()->setBlockDownloadedSize(job->request()->getBlockDownloadedSize() + stage->plan.bytesPerStep);
        ++stage->rounds;
        // Waits end on posted messages too, as the real workers' do.
        if (MsgWaitForMultipleObjects(0, nullptr, FALSE, 2, QS_ALLPOSTMESSAGE) == WAIT_OBJECT_0)
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            }
    }
    return 0;
}

bool waitUntil(const std::function<bool()>& done, DWORD timeoutMs)
{
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    while (!done()) {
        if (GetTickCount64() > end)
            return done();
        Sleep(5);
    }
    return true;
}

JobEnvironment fakeEnvironment(FakeStages* stages, DownloadRequestLog* (*store)(),
                               unsigned long (*validate)(DownloadRequest*))
{
    JobEnvironment env;
    env.stages = stages;
    env.store = store;
    env.validate = validate;
    return env;
}
