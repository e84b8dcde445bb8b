// The three stage thread functions of a download pipeline. Each takes the stage's Target and returns
// the last status of the stage it ran.
#pragma once

#include <cstdint>

#include "QvDLMExport.h"
#include "stream/Stream.h"

// Runs the source: reads into link 0, moves from block to block, reconnects and retries.
QVDLM_API uint32_t __stdcall readerStreamThread(void* target);
// Runs a middle stage: feeds link 0 into the stage and drains its reader side into link 1.
QVDLM_API uint32_t __stdcall readerWriterStreamThread(void* target);
// Runs the sink: writes what arrives on link 0.
QVDLM_API uint32_t __stdcall writerStreamThread(void* target);

// What the source thread needs besides its job: making and driving HTTP sources, and the clock of
// its retry waits.
class ReaderServices {
public:
    // A new, unopened source for url that resumes at position; null when it cannot be made.
    virtual StreamReader* createSource(const wchar_t* url, uint32_t dataStart, int64_t position) = 0;
    // Closes, reopens and resumes the source from its position.
    virtual bool reconnect(Stream* source) = 0;
    virtual void setTimeouts(Stream* source, uint32_t milliseconds) = 0;
    virtual int64_t position(Stream* source) = 0;
    virtual uint32_t dataStart(Stream* source) = 0;
    virtual void sleep(uint32_t milliseconds) = 0;

protected:
    ~ReaderServices() = default;
};

// The services over the library's HTTP source.
ReaderServices& httpReaderServices();

// The source thread's body, with its services given.
uint32_t runReaderStream(Target* target, ReaderServices& services);
