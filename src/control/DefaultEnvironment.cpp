// The one place that names the library's concrete stages, its request store and its URL validation.
#include "control/JobEnvironment.h"

#include "DownloadRequestLog.h"
#include "UrlValidation.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/StreamThreads.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TargetImp.h"

namespace {

class LibraryStages final : public StageFactory {
public:
    Target* makeTarget(Target* previous, PipelineJob* job) override { return new TargetImp(job, previous); }
    uint32_t readiness(Target* target) override
    {
        auto* wrapped = dynamic_cast<TargetImp*>(target);
        return wrapped ? wrapped->prepareResult() : TargetImp::kPrepareFailed;
    }
    Stream* makeSource(const wchar_t* url) override
    {
        return url ? new HTTPStreamImp(url, 0, 0) : nullptr;
    }
    Stream* makeFileSink(const wchar_t* path, int64_t offset) override
    {
        return new GenericFileStreamWriterImp(path, offset);
    }
    Stream* makeDecoder() override { return new LZMA2StreamWriterImp(); }
    Stream* makeTarSink(const wchar_t* folder) override { return new TARStreamWriterImp(folder); }
    bool connectSource(Stream* source) override
    {
        auto* http = dynamic_cast<HTTPStreamImp*>(source);
        return http && http->reconnect() != nullptr;
    }
    StreamThreadProc readerProc() override { return &readerStreamThread; }
    StreamThreadProc readerWriterProc() override { return &readerWriterStreamThread; }
    StreamThreadProc writerProc() override { return &writerStreamThread; }
};

} // namespace

const JobEnvironment& defaultJobEnvironment()
{
    static LibraryStages stages;
    static const JobEnvironment environment{&stages, &DownloadRequestLog::getInstance, &validateUrl};
    return environment;
}
