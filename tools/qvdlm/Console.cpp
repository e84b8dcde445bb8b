#include "Console.h"

#include <algorithm>

#include "TextUtil.h"

namespace qvcli {

namespace {

bool isConsole(HANDLE handle)
{
    DWORD mode = 0;
    return handle && handle != INVALID_HANDLE_VALUE && GetConsoleMode(handle, &mode);
}

} // namespace

Console::Console()
    : out_(GetStdHandle(STD_OUTPUT_HANDLE)), err_(GetStdHandle(STD_ERROR_HANDLE)), interactive_(isConsole(out_)),
      errConsole_(isConsole(err_))
{
}

size_t Console::width() const
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (!interactive_ || !GetConsoleScreenBufferInfo(out_, &info))
        return 0;
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    // Three columns less than the window: writing the last column would wrap the line, and so would a
    // redraw that a Unix terminal's "^C" pushed two columns to the right before the stop is seen.
    return columns > 3 ? static_cast<size_t>(columns - 3) : 0;
}

void Console::write(HANDLE handle, bool console, const std::wstring& text)
{
    if (!handle || handle == INVALID_HANDLE_VALUE || text.empty())
        return;
    if (console) {
        DWORD written = 0;
        WriteConsoleW(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    const std::string bytes = toUtf8(text);
    DWORD written = 0;
    WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

void Console::moveToBlockStart()
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (block_.empty() || !GetConsoleScreenBufferInfo(out_, &info))
        return;
    COORD start = info.dwCursorPosition;
    start.X = 0;
    start.Y = static_cast<SHORT>(start.Y >= static_cast<SHORT>(block_.size()) ? start.Y - block_.size() : 0);
    SetConsoleCursorPosition(out_, start);
}

void Console::line(const std::wstring& text)
{
    if (!interactive_ || block_.empty()) {
        write(out_, interactive_, text + L"\n");
        return;
    }
    // Write the line over the progress block and blank the rest of it; the next redraw draws the
    // block again below the line.
    moveToBlockStart();
    size_t widest = 0;
    for (const std::wstring& l : block_)
        widest = std::max(widest, l.size());
    std::wstring out = text;
    if (out.size() < widest)
        out.append(widest - out.size(), L' ');
    out += L"\n";
    for (size_t i = 1; i < block_.size(); ++i)
        out += std::wstring(block_[i].size(), L' ') + L"\n";
    write(out_, true, out);
    block_.assign(block_.size() - 1, std::wstring());
    moveToBlockStart();
    block_.clear();
}

void Console::error(const std::wstring& text)
{
    if (interactive_ && errConsole_ && !block_.empty())
        endBlock();
    write(err_, errConsole_, L"qvdlm: " + text + L"\n");
}

void Console::redraw(const std::vector<std::wstring>& lines)
{
    if (!interactive_)
        return;
    moveToBlockStart();
    const size_t count = std::max(lines.size(), block_.size());
    std::wstring text;
    for (size_t i = 0; i < count; ++i) {
        std::wstring l = i < lines.size() ? lines[i] : std::wstring();
        // After restartLine the terminal may hold a line drawn two columns to the right: blank it all.
        const size_t old = padFull_ ? width() + 2 : i < block_.size() ? block_[i].size() : 0;
        if (l.size() < old)
            l.append(old - l.size(), L' ');
        text += l + L"\n";
    }
    write(out_, true, text);
    padFull_ = false;
    block_ = lines;
    block_.resize(count);
}

void Console::endBlock() { block_.clear(); }

void Console::restartLine()
{
    // A line break brings even a terminal that wrote behind the console's back to column 0 (the
    // console passes it on as such; cursor moves it passes on relative to where it thinks the cursor
    // is). Then the line left behind is blanked and the cursor goes back to its start.
    if (!interactive_)
        return;
    write(out_, true, L"\n");
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (!GetConsoleScreenBufferInfo(out_, &info) || info.dwCursorPosition.Y < 1)
        return;
    const COORD start{0, static_cast<SHORT>(info.dwCursorPosition.Y - 1)};
    SetConsoleCursorPosition(out_, start);
    write(out_, true, std::wstring(width() + 2, L' '));
    SetConsoleCursorPosition(out_, start);
    padFull_ = true;
}

} // namespace qvcli
