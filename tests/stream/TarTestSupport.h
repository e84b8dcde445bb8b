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

namespace tartest {

// 512 bytes with GNU magic, checksum and the time 1600000000.
std::string headerBlock(const std::string& name, char type, uint64_t size, uint32_t mode = 0644, const std::string& link = {});

class TarBuilder { // data padded to whole blocks; names and link targets over 100 bytes get an 'L' or 'K' record first
public:
    TarBuilder& file(const std::string& name, const std::string& data);
    TarBuilder& folder(const std::string& name) { return entry(name, '5', {}, 0755); }
    TarBuilder& hardLink(const std::string& name, const std::string& target) { return link(name, '1', target); }
    TarBuilder& symLink(const std::string& name, const std::string& target) { return link(name, '2', target); }
    TarBuilder& longText(char type, const std::string& text);
    TarBuilder& entry(const std::string& name, char type, const std::string& data = {}, uint32_t mode = 0644, const std::string& link = {});
    std::string bytes(bool endMarker = true) const { return endMarker ? data_ + std::string(1024, '\0') : data_; }

private:
    TarBuilder& link(const std::string& name, char type, const std::string& target);
    std::string data_;
};

bool feed(StreamWriter& sink, const std::string& bytes, size_t chunk, size_t from = 0, size_t to = std::string::npos); // false once a write fails

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
