// What a download job and its manager need from the rest of the library: the concrete pipeline stages,
// the request store and URL validation. Everything that names a concrete stage class is reached through
// here, so that the job can also be driven with stand-in stages.
#pragma once

#include <cstdint>

#include "DownloadRequestLog.h"
#include "stream/Stream.h"

class StageFactory {
public:
    virtual ~StageFactory() = default;

    // An empty wrapper for one stage, chained behind previous (null for the first stage).
    virtual Target* makeTarget(Target* previous, PipelineJob* job) = 0;
    // Readiness of a wrapped stage: 0 not prepared yet, 1 prepared, 2 preparation failed.
    virtual uint32_t readiness(Target* target) = 0;

    virtual Stream* makeSource(const wchar_t* url) = 0;
    // A plain-file sink that continues the file at offset (0: a new file).
    virtual Stream* makeFileSink(const wchar_t* path, int64_t offset) = 0;
    virtual Stream* makeDecoder() = 0;
    virtual Stream* makeTarSink(const wchar_t* folder) = 0;
    // Opens the source from the position it holds (restored from a checkpoint or 0).
    virtual bool connectSource(Stream* source) = 0;

    virtual StreamThreadProc readerProc() = 0;
    virtual StreamThreadProc readerWriterProc() = 0;
    virtual StreamThreadProc writerProc() = 0;

    StageFactory() = default;
    StageFactory(const StageFactory&) = delete;
    StageFactory& operator=(const StageFactory&) = delete;
};

struct JobEnvironment {
    StageFactory* stages = nullptr;
    DownloadRequestLog* (*store)() = nullptr;           // may answer null: nothing is persisted
    unsigned long (*validate)(DownloadRequest*) = nullptr; // URL validation; null counts as valid
};

// The environment of the library itself (real stages, the process's request store, real validation).
const JobEnvironment& defaultJobEnvironment();
