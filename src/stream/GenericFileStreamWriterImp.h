// The sink of a plain download: every byte that reaches it goes into one file.
#pragma once

#include <cstdio>
#include <memory>

#include "stream/Stream.h"

class GenericFileStreamWriterImp final : public StreamWriter {
public:
    static constexpr size_t kPathCapacity = 32768; // UTF-16 units with the terminator

    // Makes the file's length wait for restoreState (a download resuming from a checkpoint).
    static constexpr int64_t kKeepUntilRestored = -1;

    // Opens path (cut to fit) for writing, clearing a read-only attribute first: offset 0 starts a
    // new file, a positive offset continues the file at that length (refused, with no file open,
    // when the file holds fewer bytes), kKeepUntilRestored keeps the file as it is until
    // restoreState says where it continues.
    explicit GenericFileStreamWriterImp(const wchar_t* path, int64_t offset = 0);
    ~GenericFileStreamWriterImp() override;

    void close() override;
    // Takes the checkpointed length and continues the file exactly there; refuses a short record
    // and a file that no longer holds that many bytes.
    bool restoreState(const StreamStateHeader* record) override;
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override;
    // Returns the bytes written; a short write returns less, with the reason in lastStatus.
    int64_t writeBytes(const uint8_t* data, uint32_t count) override;
    bool endOfInput() override;

    int64_t offset() const { return offset_; }
    bool isOpen() const { return file_ != nullptr; }
    const wchar_t* path() const { return path_.get(); }

private:
    struct FileCloser {
        void operator()(FILE* f) const noexcept { std::fclose(f); }
    };

    bool open(bool keepContents);
    // Opens at offset_ when the file holds at least that many bytes.
    bool continueAt(int64_t offset);

    int64_t offset_ = 0; // length at which the file continues
    std::unique_ptr<wchar_t[]> path_;
    std::unique_ptr<FILE, FileCloser> file_;
};

// The sink's checkpoint record.
struct FileSinkState {
    uint32_t size; // 16
    uint32_t reserved;
    int64_t offset;
};
static_assert(sizeof(FileSinkState) == 16, "the file sink's record is 16 bytes");
