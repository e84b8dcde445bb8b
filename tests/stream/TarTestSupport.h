// Helpers of the tar sink tests: archives built in memory with full control over each header, feeding
// in chunks, reading back an extracted tree, and recording symbolic-link calls.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

class TARStreamWriterImp;

namespace tartest {

constexpr int64_t kTime = 1600000000;

struct Header {
    std::string name;
    char type = '0';
    uint64_t size = 0;
    uint32_t mode = 0644;
    int64_t mtime = kTime;
    std::string link;
    std::string prefix;        // ustar prefix field
    bool posixMagic = false;   // "ustar\0" "00" instead of GNU's "ustar  \0"
    bool checksum = true;      // false: the checksum field stays empty
};

// One 512-byte header block.
std::string headerBlock(const Header& header);

class TarBuilder {
public:
    // A regular file; names over 100 bytes get a GNU long-name record first.
    TarBuilder& file(const std::string& name, const std::string& data, uint32_t mode = 0644, int64_t mtime = kTime);
    TarBuilder& folder(const std::string& name);
    TarBuilder& hardLink(const std::string& name, const std::string& target);
    TarBuilder& symLink(const std::string& name, const std::string& target);
    // A GNU long-name ('L') or long-link ('K') record holding text plus its terminator.
    TarBuilder& longText(char type, const std::string& text);
    // Any header with data, padded to whole blocks.
    TarBuilder& entry(const Header& header, const std::string& data = {});
    TarBuilder& raw(const std::string& bytes);
    // The archive, with the two zero blocks that end it when endMarker.
    std::string bytes(bool endMarker = true) const;

private:
    std::string data_;
};

// Writes bytes[from, to) in chunks of chunk bytes; false as soon as a write fails.
bool feed(TARStreamWriterImp& sink, const std::string& bytes, size_t chunk, size_t from = 0,
          size_t to = std::string::npos);

struct TreeEntry {
    bool folder = false;
    std::string content;
    int64_t mtime = 0; // seconds since 1970
    bool readOnly = false;
};

// Everything below root by "/"-separated UTF-8 relative path (paths of any length).
std::map<std::string, TreeEntry> readTree(const std::wstring& root);

// The last-write time of a file in seconds since 1970, or -1.
int64_t fileTime(const std::wstring& path);

// While alive, symbolic links are recorded instead of made. Install it after the sink was created:
// creating a sink chooses the system's operation again.
class LinkRecorder {
public:
    LinkRecorder();
    ~LinkRecorder();
    LinkRecorder(const LinkRecorder&) = delete;
    LinkRecorder& operator=(const LinkRecorder&) = delete;
    std::vector<std::pair<std::wstring, std::wstring>> calls() const;
};

// The long form of a path, for file calls on paths of any length.
std::wstring longForm(const std::wstring& path);

} // namespace tartest
