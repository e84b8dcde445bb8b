// The unpacking settings of the tar sink: where entries go. Embedded in TARStreamWriterImp.
#pragma once

#include <string>

#include "stream/StreamUnpack.h"

class TARStreamWriterImp;

class TARStreamUnpackImp final : public StreamUnpack {
public:
    // Chooses the process-wide symbolic-link operation for this system.
    explicit TARStreamUnpackImp(TARStreamWriterImp& owner);

    bool setDestinationFolder(const wchar_t* folder) override;
    const wchar_t* destinationFolder() const override { return folder_.c_str(); }
    bool finish() override;
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override;
    bool restoreState(const StreamStateHeader* record) override;

    const std::wstring& folder() const { return folder_; }
    // The folder made full and canonical, against which entry paths are checked; empty when the
    // folder is not usable.
    const std::wstring& canonicalFolder() const { return canonical_; }

private:
    TARStreamWriterImp& owner_;
    std::wstring folder_;
    std::wstring canonical_;
};
