// Stand-in for the NetSession client's installer: after a moment (so that a caller that does not wait
// for it can be told apart) it writes its own path into the file named by QVDLM_NSSETUP_MARKER.
#include <windows.h>

int main()
{
    Sleep(300);
    wchar_t marker[MAX_PATH];
    const DWORD n = GetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", marker, MAX_PATH);
    if (n == 0 || n >= MAX_PATH)
        return 2;
    wchar_t self[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, self, MAX_PATH);
    HANDLE file = CreateFileW(marker, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return 3;
    DWORD written = 0;
    WriteFile(file, self, length * sizeof(wchar_t), &written, nullptr);
    CloseHandle(file);
    return 0;
}
