// Sink of a packaged download: extracts the tar stream that reaches it, in chunks of any size,
// entry by entry into the destination folder, holding at most one 512-byte block of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/Win32Raii.h"
#include "stream/PathUtil.h"
#include "stream/PendingFiles.h"
#include "stream/Stream.h"
#include "stream/TARStreamUnpackImp.h"
#include "stream/TarHeaderBlock.h"
#include "stream/TarPaxRecords.h"

class TARStreamWriterImp final : public StreamWriter {
public:
    explicit TARStreamWriterImp(const wchar_t* destinationFolder = nullptr);
    ~TARStreamWriterImp() override;

    void close() override;
    bool restoreState(const StreamStateHeader* record) override;
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override;
    StreamUnpack* unpacker() override { return &unpack_; }
    int64_t writeBytes(const uint8_t* data, uint32_t count) override;
    // The stream has ended: true when it ended at an entry boundary of a tar archive.
    bool endOfInput() override;
    // The download whose events tell what the unpacker did in place of a link it could not make.
    void setEventSource(Download* download) { eventSource_ = download; }

private:
    // What the next block of the stream is.
    enum class Phase : uint32_t {
        Header = 0,   // a header (or padding)
        FileData = 1, // data of the open regular file
        SkipData = 2, // data of an entry that is not extracted
        LongName = 3, // the text of a GNU long name
        LongLink = 4, // the text of a GNU long link target
        Trailing = 5, // bytes after the end of the archive
        PaxEntry = 6,        // the records of an extended header for the next entry
        PaxGlobal = 7,       // the records of a global extended header
        SparseExtension = 8, // an extension block of an old GNU sparse map
        SparseMap = 9,       // the map text in front of a sparse file's data
        SparseData = 10,     // the stored regions of a sparse file
    };

    bool processBlocks(const uint8_t* data, size_t blocks);
    size_t writeFileData(const uint8_t* data, size_t blocks);
    void collectLongText(const uint8_t* block);
    bool collectPaxText(const uint8_t* block);
    bool headerStep(const uint8_t* block);
    bool beginEntry(uint8_t type, int64_t time);
    bool beginRegularFile(uint8_t type, const qv::tar::PaxAttributes& pax);
    // Sparse files: the map's extension blocks or text, then the stored regions, each from a block
    // boundary on; the file ends with its real size.
    bool beginSparse(uint8_t type, const qv::tar::PaxAttributes& pax);
    bool readSparseExtension(const uint8_t* block);
    bool collectSparseMap(const uint8_t* block);
    bool startSparseData();
    bool nextSparseRegion();
    size_t writeSparseData(const uint8_t* data, size_t blocks);
    int64_t sparsePosition() const;
    bool makeHardLink();
    bool makeSymbolicLink();
    bool makeFolder();
    void finishEntry();
    void startSkipping();
    void clearEntry();
    bool fail(uint32_t code);

    // The current entry's name (long name, or the header's with a ustar prefix) relative to the
    // destination; on refusal lastStatus holds refusedCode (or the conversion error). folderLike
    // tells whether the name ends with a separator.
    bool entryName(std::wstring& relative, uint32_t refusedCode, bool* folderLike = nullptr);
    // The current entry's link target as written in the archive.
    bool entryLinkText(std::wstring& text);
    // Whether destination + relative stays inside the destination once made full and canonical.
    bool staysInside(const std::wstring& relative, bool allowSelf) const;
    // Whether an existing component of destination + relative is a link or junction (only the
    // folders above it unless includeLast).
    bool passesThroughLink(const std::wstring& relative, bool includeLast) const;
    // Whether an existing path leads elsewhere than where it stands (a link, whether or not the file
    // system shows it as a reparse point).
    static bool isRedirected(const std::wstring& path);
    bool reopenFile(const std::wstring& relative, int64_t length);

    TARStreamUnpackImp unpack_;

    uint32_t partialCount_ = 0;
    uint8_t partialBlock_[qv::tar::kBlockSize] = {};
    uint8_t header_[qv::tar::kBlockSize] = {};
    Phase phase_ = Phase::Header;

    // GNU long name and long link target: the raw UTF-8 text as collected, and what is still to come.
    std::string longName_;
    int64_t longNameLeft_ = 0;
    std::string longLink_;
    int64_t longLinkLeft_ = 0;

    // Extended header records: the next entry's (raw, as collected), the global ones, and the bytes of
    // the header being collected that are still to come; the names they give the current entry.
    std::string paxEntry_;
    std::string paxGlobal_;
    int64_t paxLeft_ = 0;
    std::optional<std::string> paxName_;
    std::optional<std::string> paxLink_;

    // The current sparse file: its map, the region being written and how much of it is, its real size
    // (-1: not a sparse file) and the map text of version 1.0 as collected (with its line count).
    std::vector<qv::tar::SparseRegion> sparse_;
    uint32_t region_ = 0;
    int64_t regionDone_ = 0;
    int64_t realSize_ = -1;
    std::string mapText_;
    size_t mapLines_ = 0;

    int64_t blocksWritten_ = 0; // data blocks of the current entry consumed so far
    int64_t entrySize_ = 0;
    int64_t entryBlocks_ = 0;
    int64_t fileBytes_ = 0;     // bytes written to the open file
    int64_t modificationTime_ = 0;
    uint32_t mode_ = 0;
    qv::UniqueCrtFile file_;
    std::wstring fileRelative_; // the open file, relative to the destination (for checkpoints)
    std::wstring filePath_;     // the open file as opened
    qv::PendingFiles pending_;  // finished files not yet committed to the disk
    mutable qv::PathCache paths_; // folders and drives already checked in this run

    bool failed_ = false;      // a failure stops the stream for good
    bool receivedAny_ = false; // some bytes reached the sink
    bool sawArchive_ = false;  // a header or end-of-archive block was recognised
    bool sawEndMarker_ = false; // an end-of-archive block was met
    bool linksMade_ = false;   // a symbolic link was made: later paths are checked for links
    Download* eventSource_ = nullptr;
};
