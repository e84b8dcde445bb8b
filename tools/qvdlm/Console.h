// Where qvdlm writes: a console gets wide text and a block of progress lines redrawn in place; a pipe or
// file gets UTF-8 lines.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace qvcli {

class Console {
public:
    Console();

    // True when standard output is a console window (progress is then redrawn in place).
    bool interactive() const { return interactive_; }
    // Characters that fit on one line of the console; 0 when output is not a console.
    size_t width() const;

    // A normal line on standard output; a progress block on the screen is kept below it.
    void line(const std::wstring& text);
    // "qvdlm: text" on standard error.
    void error(const std::wstring& text);

    // Console only: replaces the progress block drawn last with these lines.
    void redraw(const std::vector<std::wstring>& lines);
    // Leaves the progress block on the screen; the next output starts below it.
    void endBlock();
    // Console only: puts the cursor at the start of its line and blanks the line, also when the
    // terminal has written there behind the console's back (the "^C" a Unix terminal echoes).
    void restartLine();

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

private:
    void write(HANDLE handle, bool console, const std::wstring& text);
    void moveToBlockStart();

    HANDLE out_;
    HANDLE err_;
    bool interactive_ = false;
    bool errConsole_ = false;
    std::vector<std::wstring> block_; // the progress lines now on the screen
    bool padFull_ = false;            // the next redraw blanks whole lines
};

} // namespace qvcli
