#include "Format.h"

#include <algorithm>
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

std::wstring formatRate(uint64_t bitsPerSecond) { return formatBytes(bitsPerSecond / 8) + L"/s"; }

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

std::wstring progressLine(const ProgressSnapshot& s, size_t width)
{
    std::wstring tail;
    const int tenths = percentTenths(s.done, s.total);
    if (tenths >= 0)
        tail += (s.totalEstimated ? L"~" : L"") + formatPercent(tenths) + L"  " + formatBytes(s.done) + L" of " +
                formatBytes(s.total);
    else
        tail += formatBytes(s.done);
    tail += L"  " + formatRate(s.bitsPerSecond);
    if (tenths >= 0 && !s.totalEstimated)
        tail += L"  ETA " + formatDuration(s.etaSeconds);
    if (!s.stateText.empty())
        tail += L"  " + s.stateText;

    std::wstring label = s.label;
    if (width > 0) {
        const size_t room = width > tail.size() + 2 ? width - tail.size() - 2 : 0;
        if (label.size() > room)
            label = room > 3 ? label.substr(0, room - 3) + L"..." : std::wstring();
    }
    std::wstring line = label.empty() ? tail : label + L"  " + tail;
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
