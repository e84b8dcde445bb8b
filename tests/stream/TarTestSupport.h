// Tar archives built in memory with full control over each header, feeding a tar sink in chunks,
// reading back an extracted tree and comparing it with the tree that GNU tar packed.
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
    Header(std::string n = {}, char t = '0', uint64_t s = 0, uint32_t m = 0644, int64_t time = kTime, std::string l = {})
        : name(std::move(n)), link(std::move(l)), type(t), size(s), mode(m), mtime(time) {}
    std::string name, link;
    char type;
    uint64_t size;
    uint32_t mode;
    int64_t mtime;
};

std::string headerBlock(const Header& header); // 512 bytes, GNU magic and checksum

class TarBuilder {
public:
    // Names and link targets over 100 bytes get a GNU long-name ('L') or long-link ('K') record first.
    TarBuilder& file(const std::string& name, const std::string& data, uint32_t mode = 0644, int64_t mtime = kTime);
    TarBuilder& folder(const std::string& name) { return entry({name, '5', 0, 0755}); }
    TarBuilder& hardLink(const std::string& name, const std::string& target) { return link(name, '1', target); }
    TarBuilder& symLink(const std::string& name, const std::string& target) { return link(name, '2', target); }
    TarBuilder& longText(char type, const std::string& text);
    TarBuilder& entry(const Header& header, const std::string& data = {}); // data padded to whole blocks
    std::string bytes(bool endMarker = true) const { return endMarker ? data_ + std::string(1024, '\0') : data_; }

private:
    TarBuilder& link(const std::string& name, char type, const std::string& target);
    std::string data_;
};

// bytes[from, to) in chunks; false as soon as a write fails.
bool feed(TARStreamWriterImp& sink, const std::string& bytes, size_t chunk, size_t from = 0,
          size_t to = std::string::npos);

struct TreeEntry {
    bool folder = false, readOnly = false;
    std::string content;
    int64_t mtime = 0; // seconds since 1970
};

// Everything below root by "/"-separated UTF-8 relative path (paths of any length).
std::map<std::string, TreeEntry> readTree(const std::wstring& root);

// While alive, symbolic links are recorded, not made. Make it after the sink, which chooses the operation.
struct LinkRecorder {
    LinkRecorder();
    ~LinkRecorder();
    std::vector<std::pair<std::wstring, std::wstring>> calls() const;
};

// A folder of the test work area (QVDLM_TEST_WORK) as a Wine path, e.g. "tar-archives".
std::wstring workFolder(const std::wstring& name);

// The tree below dest as extracted from tar-archives/<format>.tar: the tree that GNU tar packed, file
// for file with times and read-only attributes; its symbolic links as calls recorded in links.
void expectTree(const std::wstring& dest, const std::string& format,
                const std::vector<std::pair<std::wstring, std::wstring>>* links);

} // namespace tartest
