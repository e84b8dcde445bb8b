#include "Format.h"

#include <algorithm>
#include <vector>
#include <cwchar>
#include <cwctype>

namespace qvcli {

namespace {

std::wstring printf1(const wchar_t* format, double value, const wchar_t* unit)
{
    wchar_t buffer[64];
    std::swprintf(buffer, std::size(buffer), format, value, unit);
    return buffer;
}

bool endsWithNoCase(const std::wstring& text, const std::wstring& suffix)
{
    if (text.size() < suffix.size())
        return false;
    for (size_t i = 0; i < suffix.size(); ++i)
        if (std::towlower(text[text.size() - suffix.size() + i]) != std::towlower(suffix[i]))
            return false;
    return true;
}

} // namespace

std::wstring formatBytes(uint64_t bytes)
{
    static const wchar_t* const units[] = {L"KiB", L"MiB", L"GiB", L"TiB"};
    if (bytes < 1024)
        return std::to_wstring(bytes) + L" B";
    double value = static_cast<double>(bytes) / 1024.0;
    size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(units)) {
        value /= 1024.0;
        ++unit;
    }
    // Round the way printf will, so that 1023.96 KiB shows as 1.00 MiB rather than 1024.0 KiB.
    if (value >= 1023.95 && unit + 1 < std::size(units)) {
        value /= 1024.0;
        ++unit;
    }
    return printf1(unit >= 1 && value < 10.0 ? L"%.2f %ls" : L"%.1f %ls", value, units[unit]);
}

std::wstring formatSpeed(uint64_t bytesPerSecond) { return formatBytes(bytesPerSecond) + L"/s"; }

std::wstring formatDuration(int64_t seconds)
{
    if (seconds < 0)
        return L"--:--";
    wchar_t buffer[48];
    const long long h = seconds / 3600, m = seconds / 60 % 60, s = seconds % 60;
    if (h > 0)
        std::swprintf(buffer, std::size(buffer), L"%lld:%02lld:%02lld", h, m, s);
    else
        std::swprintf(buffer, std::size(buffer), L"%lld:%02lld", m, s);
    return buffer;
}

int percentTenths(uint64_t done, uint64_t total)
{
    if (total == 0)
        return -1;
    if (done >= total)
        return 1000;
    // done * 1000 would overflow: divide by a thousandth of total instead (total > done is large here).
    if (done > ~0ull / 1000)
        return static_cast<int>(std::min<uint64_t>(999, done / (total / 1000)));
    return static_cast<int>(done * 1000 / total);
}

std::wstring formatPercent(int tenths)
{
    if (tenths < 0)
        return {};
    wchar_t buffer[16];
    std::swprintf(buffer, std::size(buffer), L"%d.%d%%", tenths / 10, tenths % 10);
    return buffer;
}

void SpeedMeter::add(uint64_t nowMs, uint64_t bytes)
{
    if (!readings_.empty() && (bytes < readings_.back().second || nowMs < readings_.back().first))
        readings_.clear();
    readings_.emplace_back(nowMs, bytes);
    // Keep one reading at or beyond the window's start, so that the speed covers the whole window.
    while (readings_.size() > 2 && nowMs - readings_[1].first >= kWindowMs)
        readings_.pop_front();
}

int64_t SpeedMeter::bytesPerSecond() const
{
    if (readings_.size() < 2)
        return -1;
    const auto& [firstMs, firstBytes] = readings_.front();
    const auto& [lastMs, lastBytes] = readings_.back();
    if (lastMs - firstMs < kMinSpanMs)
        return -1;
    return static_cast<int64_t>(static_cast<double>(lastBytes - firstBytes) * 1000.0 / static_cast<double>(lastMs - firstMs));
}

int64_t etaSeconds(uint64_t remaining, int64_t bytesPerSecond)
{
    if (bytesPerSecond <= 0)
        return -1;
    const uint64_t speed = static_cast<uint64_t>(bytesPerSecond);
    return static_cast<int64_t>(remaining / speed + (remaining % speed ? 1 : 0));
}

std::wstring shortenMiddle(const std::wstring& text, size_t room)
{
    if (text.size() <= room)
        return text;
    if (room < 5)
        return text.substr(0, room);
    const size_t keep = room - 3;
    return text.substr(0, (keep + 1) / 2) + L"..." + text.substr(text.size() - keep / 2);
}

std::wstring progressLine(const ProgressSnapshot& s, size_t width)
{
    struct Field {
        std::wstring text; // with the separator in front
        int rank;          // fields of the highest rank go first when space is short
    };
    std::vector<Field> fields;
    if (!s.state.empty())
        fields.push_back({L"  " + s.state, s.state == L"downloading" ? 7 : 2});
    const int tenths = percentTenths(s.done, s.total);
    if (tenths >= 0)
        fields.push_back({(s.totalEstimated ? L"  ~" : L"  ") + formatPercent(tenths), 1});
    fields.push_back({L"  " + formatBytes(s.done), 5});
    if (s.total)
        fields.push_back({L" of " + formatBytes(s.total), 6});
    if (s.bytesPerSecond >= 0) {
        fields.push_back({L"  " + formatSpeed(static_cast<uint64_t>(s.bytesPerSecond)), 4});
        if (tenths >= 0 && !s.totalEstimated)
            fields.push_back({L"  ETA " + formatDuration(etaSeconds(s.total - std::min(s.done, s.total), s.bytesPerSecond)), 3});
    }
    // The name keeps up to 16 characters; the fields make room for it, the most important ones last.
    const size_t nameMin = std::min<size_t>(s.label.size(), 16);
    auto length = [&fields] {
        size_t n = 0;
        for (const Field& f : fields)
            n += f.text.size();
        return n;
    };
    while (width > 0 && !fields.empty() && nameMin + length() > width) {
        auto last = std::max_element(fields.begin(), fields.end(), [](const Field& a, const Field& b) { return a.rank < b.rank; });
        fields.erase(last);
    }
    std::wstring line = width > 0 ? shortenMiddle(s.label, width > length() ? width - length() : 0) : s.label;
    for (const Field& f : fields)
        line += f.text;
    if (s.label.empty() && line.size() >= 2)
        line.erase(0, 2);
    if (width > 0 && line.size() > width)
        line.resize(width);
    return line;
}

std::wstring nameFromUrlPath(const std::wstring& path)
{
    const size_t slash = path.find_last_of(L'/');
    std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
    for (const wchar_t* suffix : {L".tar.lzma2", L".sfx.exe"}) {
        if (!endsWithNoCase(name, suffix))
            continue;
        std::wstring stem = name.substr(0, name.size() - std::wcslen(suffix));
        // stem_BBB_NNN: a block of a package split into numbered blocks.
        if (stem.size() > 8 && stem[stem.size() - 8] == L'_' && stem[stem.size() - 4] == L'_') {
            bool digits = true;
            for (size_t i : {7u, 6u, 5u, 3u, 2u, 1u})
                digits = digits && std::iswdigit(stem[stem.size() - i]);
            if (digits)
                stem.resize(stem.size() - 8);
        }
        return stem.empty() ? name : stem;
    }
    return name;
}

} // namespace qvcli
