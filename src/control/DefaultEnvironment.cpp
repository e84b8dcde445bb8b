// The one place that names the library's concrete stages, its request store and its URL validation.
#include "control/JobEnvironment.h"

#include "DownloadRequestLog.h"

namespace {

class LibraryStages final : public StageFactory {
public:
    Target* makeTarget(Target*, PipelineJob*) override { return nullptr; }
    uint32_t readiness(Target*) override { return 2; }
    Stream* makeSource(const wchar_t*) override { return nullptr; }
    Stream* makeFileSink(const wchar_t*, int64_t) override { return nullptr; }
    Stream* makeDecoder() override { return nullptr; }
    Stream* makeTarSink(const wchar_t*) override { return nullptr; }
    bool connectSource(Stream*) override { return false; }
    StreamThreadProc readerProc() override { return nullptr; }
    StreamThreadProc readerWriterProc() override { return nullptr; }
    StreamThreadProc writerProc() override { return nullptr; }
};

} // namespace

const JobEnvironment& defaultJobEnvironment()
{
    static LibraryStages stages;
    static const JobEnvironment environment{&stages, &DownloadRequestLog::getInstance, nullptr};
    return environment;
}
