// Stream test helpers: tar archives built header by header, a tar sink fed in chunks, extracted trees
// read back and compared with the tree GNU tar packed, checkpoint records, files read whole.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "stream/Stream.h"

class TARStreamWriterImp;

namespace tartest {

constexpr int64_t kTime = 1600000000;

struct Header {
    Header(std::string n, char t = '0', uint64_t s = 0, uint32_t m = 0644, std::string l = {})
        : name(std::move(n)), link(std::move(l)), type(t), size(s), mode(m) {}
    std::string name, link;
    char type;
    uint64_t size;
    uint32_t mode;
};
std::string headerBlock(const Header& header); // 512 bytes, GNU magic and checksum, time kTime

class TarBuilder { // names and link targets over 100 bytes get a GNU 'L' or 'K' record first
public:
    TarBuilder& file(const std::string& name, const std::string& data);
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
bool feed(TARStreamWriterImp& sink, const std::string& bytes, size_t chunk, size_t from = 0, size_t to = std::string::npos);

struct TreeEntry { bool folder = false, readOnly = false; std::string content; int64_t mtime = 0; };
std::map<std::string, TreeEntry> readTree(const std::wstring& root); // by "/"-separated UTF-8 relative path

struct LinkRecorder { // while alive, symbolic links are recorded, not made; make it after the sink
    LinkRecorder();
    ~LinkRecorder();
    std::vector<std::pair<std::wstring, std::wstring>> calls() const;
};

std::wstring workFolder(const std::wstring& name); // of the test work area, as a Wine path
std::string contents(const std::wstring& path);

// The tree below dest is the one GNU tar packed into tar-archives/<format>.tar, with times and
// read-only attributes; its symbolic links are the calls in links.
void expectTree(const std::wstring& dest, const std::string& format, const std::vector<std::pair<std::wstring, std::wstring>>* links);

template <typename Stage>
std::string saveRecord(Stage& stage)
{
    std::string record(stage.saveState(nullptr, nullptr), '\0');
    uint64_t capacity = record.size();
    return stage.saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity) == record.size() ? record : "";
}
inline const StreamStateHeader* asRecord(const std::string& r) { return reinterpret_cast<const StreamStateHeader*>(r.data()); }

} // namespace tartest
