// The unpacking side of a sink that extracts an archive into a folder.
#pragma once

#include <cstdint>

#include "stream/Stream.h"

class StreamUnpack {
public:
    // The folder that receives the extracted entries; stored without a trailing separator.
    virtual bool setDestinationFolder(const wchar_t* folder) = 0;
    virtual const wchar_t* destinationFolder() const = 0;

    // The stream has ended: true when it ended at an entry boundary of a well-formed archive;
    // otherwise the sink's lastStatus says why.
    virtual bool finish() = 0;

    // Checkpoint record of the unpacking settings (begins with its whole size, as every stage record).
    virtual uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) = 0;
    virtual bool restoreState(const StreamStateHeader* record) = 0;

    virtual ~StreamUnpack() = default;

    StreamUnpack(const StreamUnpack&) = delete;
    StreamUnpack& operator=(const StreamUnpack&) = delete;

protected:
    StreamUnpack() = default;
};
