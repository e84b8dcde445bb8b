// The one place that names the library's concrete stages, its request store and its URL validation.
#include "control/JobEnvironment.h"

#include "DownloadRequestLog.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/StreamThreads.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TargetImp.h"

// The HTTP source and URL validation are wired as soon as they are part of the build.
#if __has_include("stream/HTTPStreamImp.h") && __has_include("UrlValidation.h")
#include "UrlValidation.h"
#include "stream/HTTPStreamImp.h"
#define QVDLM_HAS_HTTP_SOURCE 1
#endif

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
#ifdef QVDLM_HAS_HTTP_SOURCE
        return url ? new HTTPStreamImp(url, 0, 0) : nullptr;
#else
        (void)url;
        return nullptr;
#endif
    }
    Stream* makeFileSink(const wchar_t* path, int64_t offset) override
    {
        return new GenericFileStreamWriterImp(path, offset);
    }
    Stream* makeDecoder() override { return new LZMA2StreamWriterImp(); }
    Stream* makeTarSink(const wchar_t* folder) override { return new TARStreamWriterImp(folder); }
    bool connectSource(Stream* source) override
    {
#ifdef QVDLM_HAS_HTTP_SOURCE
        auto* http = dynamic_cast<HTTPStreamImp*>(source);
        return http && http->reconnect() != nullptr;
#else
        (void)source;
        return false;
#endif
    }
    StreamThreadProc readerProc() override { return &readerStreamThread; }
    StreamThreadProc readerWriterProc() override { return &readerWriterStreamThread; }
    StreamThreadProc writerProc() override { return &writerStreamThread; }
};

} // namespace

const JobEnvironment& defaultJobEnvironment()
{
    static LibraryStages stages;
#ifdef QVDLM_HAS_HTTP_SOURCE
    static const JobEnvironment environment{&stages, &DownloadRequestLog::getInstance, &validateUrl};
#else
    static const JobEnvironment environment{&stages, &DownloadRequestLog::getInstance, nullptr};
#endif
    return environment;
}
