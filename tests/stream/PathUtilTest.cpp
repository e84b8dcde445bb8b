// Path helpers: normal and long forms, device and network paths, substituted drives, folder creation.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "stream/PathUtil.h"
#include "support/TestSupport.h"

namespace {

// A drive path of exactly `length` units below C:\, made of components short enough for any system.
std::wstring drivePathOfLength(size_t length)
{
    std::wstring path = L"C:";
    while (path.size() < length) {
        path += L'\\';
        const size_t left = length - path.size();
        const size_t component = left > 60 ? 50 : left;
        path.append(component == 0 ? 1 : component, L'd');
    }
    return path;
}

// A path of `length` units under a real folder.
std::wstring pathUnder(const std::wstring& base, size_t length)
{
    std::wstring path = base;
    while (path.size() < length) {
        path += L'\\';
        const size_t left = length - path.size();
        const size_t component = left > 60 ? 50 : left;
        path.append(component == 0 ? 1 : component, L'p');
    }
    return path;
}

bool startsWith(const std::wstring& text, const std::wstring& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

bool isFolder(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// A drive letter with no mapping at all, for substitution tests.
wchar_t unusedDriveLetter(wchar_t after)
{
    for (wchar_t letter = after; letter <= L'Y'; ++letter) {
        const wchar_t device[3] = {letter, L':', 0};
        wchar_t target[512];
        if (QueryDosDeviceW(device, target, 512) == 0)
            return letter;
    }
    return 0;
}

// Maps a drive letter to a folder for the life of the object.
class SubstitutedDrive {
public:
    SubstitutedDrive(wchar_t letter, const std::wstring& target, DWORD flags = 0)
        : device_{letter, L':', 0}, target_(target), flags_(flags)
    {
        defined_ = DefineDosDeviceW(flags_, device_, target_.c_str()) != FALSE;
    }
    ~SubstitutedDrive()
    {
        if (defined_)
            DefineDosDeviceW(flags_ | DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE, device_, target_.c_str());
    }
    bool defined() const { return defined_; }

private:
    wchar_t device_[3];
    std::wstring target_;
    DWORD flags_;
    bool defined_ = false;
};

} // namespace

TEST(NormalizePath, ShortDrivePathStaysAsItIs)
{
    std::wstring path = L"C:\\folder\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\folder\\file.bin", path);
}

TEST(NormalizePath, DotsAndForwardSlashesAreResolved)
{
    std::wstring path = L"C:\\a\\.\\b\\..\\c/d.txt";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\a\\c\\d.txt", path);
}

TEST(NormalizePath, LongPrefixBeforeDriveLetterIsDropped)
{
    std::wstring path = L"\\\\?\\C:\\folder\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\folder\\file.bin", path);
}

TEST(NormalizePath, DevicePrefixBeforeDriveLetterIsDropped)
{
    std::wstring path = L"\\\\.\\C:\\folder\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\folder\\file.bin", path);
}

TEST(NormalizePath, DevicePathsAreRefusedWith161)
{
    for (const wchar_t* device : {L"\\\\.\\PhysicalDrive0", L"\\\\.\\pipe\\name", L"\\\\?\\Volume{0}\\x"}) {
        std::wstring path = device;
        SetLastError(0);
        EXPECT_EQ(161u, qv::normalizePath(path)) << qvtest::narrow(device);
        EXPECT_EQ(161u, GetLastError()) << qvtest::narrow(device);
    }
}

TEST(NormalizePath, NetworkPathIsAccepted)
{
    std::wstring path = L"\\\\server\\share\\folder\\file.bin";
    SetLastError(5);
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(0u, GetLastError());
    EXPECT_EQ(L"\\\\server\\share\\folder\\file.bin", path);
}

TEST(NormalizePath, LongUncFormTurnsBackIntoNetworkPath)
{
    std::wstring path = L"\\\\?\\UNC\\server\\share\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"\\\\server\\share\\file.bin", path);
}

TEST(NormalizePath, LongUncFormHoldingADriveBecomesDrivePath)
{
    std::wstring path = L"\\\\?\\UNC\\C:\\folder\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\folder\\file.bin", path);
}

TEST(NormalizePath, RelativePathBecomesFull)
{
    wchar_t current[MAX_PATH];
    ASSERT_GT(GetCurrentDirectoryW(MAX_PATH, current), 0u);
    std::wstring expected = current;
    if (expected.back() != L'\\')
        expected += L'\\';
    expected += L"sub\\file.bin";
    std::wstring path = L"sub\\file.bin";
    ASSERT_EQ(0u, qv::normalizePath(path));
    // The current folder may itself sit on a substituted drive; compare only when it does not.
    std::wstring plain = expected;
    if (qv::normalizePath(plain) == 0 && plain == expected) {
        EXPECT_EQ(expected, path);
    }
    EXPECT_TRUE(path.size() > 3 && path[1] == L':');
}

TEST(NormalizePath, EmptyPathFailsWithInvalidName)
{
    std::wstring path;
    EXPECT_EQ(static_cast<uint32_t>(ERROR_INVALID_NAME), qv::normalizePath(path));
    EXPECT_TRUE(path.empty());
}

TEST(NormalizePath, SubstitutedDriveIsReplacedByItsTarget)
{
    const wchar_t letter = unusedDriveLetter(L'K');
    ASSERT_NE(0, letter) << "no free drive letter";
    SubstitutedDrive drive(letter, L"C:\\subst\\target");
    ASSERT_TRUE(drive.defined()) << GetLastError();

    std::wstring path = std::wstring(1, letter) + L":\\inner\\file.bin";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\subst\\target\\inner\\file.bin", path);

    // Lower-case drive letters are looked up upper-cased.
    std::wstring lower = std::wstring(1, static_cast<wchar_t>(letter + (L'a' - L'A'))) + L":\\x";
    EXPECT_EQ(0u, qv::normalizePath(lower));
    EXPECT_EQ(L"C:\\subst\\target\\x", lower);
}

TEST(NormalizePath, ChainOfSubstitutionsIsFollowedToItsEnd)
{
    const wchar_t first = unusedDriveLetter(L'K');
    ASSERT_NE(0, first);
    SubstitutedDrive inner(first, L"C:\\deep\\root");
    ASSERT_TRUE(inner.defined());
    const wchar_t second = unusedDriveLetter(static_cast<wchar_t>(first + 1));
    ASSERT_NE(0, second);
    SubstitutedDrive outer(second, std::wstring(1, first) + L":\\middle");
    ASSERT_TRUE(outer.defined());

    std::wstring path = std::wstring(1, second) + L":\\leaf.txt";
    EXPECT_EQ(0u, qv::normalizePath(path));
    EXPECT_EQ(L"C:\\deep\\root\\middle\\leaf.txt", path);
}

TEST(ToLongPath, ShortLocalPathGetsNoPrefix)
{
    std::wstring path = drivePathOfLength(248);
    ASSERT_EQ(248u, path.size());
    const std::wstring original = path;
    EXPECT_TRUE(qv::toLongPath(path));
    EXPECT_EQ(original, path);
}

TEST(ToLongPath, LocalPathsOf249UnitsAndMoreGetThePrefix)
{
    for (size_t length : {249u, 260u, 1000u}) {
        std::wstring path = drivePathOfLength(length);
        ASSERT_EQ(length, path.size());
        const std::wstring original = path;
        EXPECT_TRUE(qv::toLongPath(path)) << length;
        EXPECT_EQ(L"\\\\?\\" + original, path) << length;
    }
}

TEST(ToLongPath, PrefixedShortPathIsReducedAndLongOneKeepsItsPrefix)
{
    std::wstring shortOne = L"\\\\?\\C:\\short\\path";
    EXPECT_TRUE(qv::toLongPath(shortOne));
    EXPECT_EQ(L"C:\\short\\path", shortOne);

    const std::wstring plainLong = drivePathOfLength(300);
    std::wstring longOne = L"\\\\?\\" + plainLong;
    EXPECT_TRUE(qv::toLongPath(longOne));
    EXPECT_EQ(L"\\\\?\\" + plainLong, longOne);
}

TEST(ToLongPath, NetworkPathWithShareGetsUncPrefixEvenWhenShort)
{
    std::wstring path = L"\\\\server\\share\\f.bin";
    EXPECT_TRUE(qv::toLongPath(path));
    EXPECT_EQ(L"\\\\?\\UNC\\server\\share\\f.bin", path);

    std::wstring already = L"\\\\?\\UNC\\server\\share\\f.bin";
    EXPECT_TRUE(qv::toLongPath(already));
    EXPECT_EQ(L"\\\\?\\UNC\\server\\share\\f.bin", already);
}

TEST(ToLongPath, DevicePathFails)
{
    std::wstring path = L"\\\\.\\PhysicalDrive0";
    EXPECT_FALSE(qv::toLongPath(path));
    EXPECT_EQ(161u, GetLastError());
}

TEST(ToLongPath, SubstitutedDriveIsResolvedBeforeThePrefix)
{
    const wchar_t letter = unusedDriveLetter(L'K');
    ASSERT_NE(0, letter);
    SubstitutedDrive drive(letter, L"C:\\target");
    ASSERT_TRUE(drive.defined());
    // 246 units through the substituted drive become 255 once resolved: long form.
    std::wstring path = std::wstring(1, letter) + L":" + drivePathOfLength(246).substr(2);
    ASSERT_EQ(246u, path.size());
    EXPECT_TRUE(qv::toLongPath(path));
    EXPECT_EQ(L"\\\\?\\C:\\target" + drivePathOfLength(246).substr(2), path);
}

TEST(ToLongPath, SubstitutedDriveOnAShareBecomesUncPath)
{
    const wchar_t letter = unusedDriveLetter(L'K');
    ASSERT_NE(0, letter);
    SubstitutedDrive drive(letter, L"\\??\\UNC\\server\\share", DDD_RAW_TARGET_PATH);
    ASSERT_TRUE(drive.defined());
    std::wstring path = std::wstring(1, letter) + L":\\f.bin";
    EXPECT_TRUE(qv::toLongPath(path));
    EXPECT_EQ(L"\\\\?\\UNC\\server\\share\\f.bin", path);
}

TEST(Folders, ShortParentFoldersAreCreatedLevelByLevel)
{
    qvtest::ScratchDir dir(L"path-short");
    const std::wstring file = dir / L"a\\b\\c\\file.bin";
    EXPECT_TRUE(qv::ensureParentFolder(file));
    EXPECT_TRUE(isFolder(dir / L"a\\b\\c"));
    EXPECT_FALSE(qvtest::fileExists(file));
    // A second call finds everything in place and still succeeds, with no error left behind.
    EXPECT_TRUE(qv::ensureParentFolder(file));
}

TEST(Folders, ShortFormRefusesOverlongPathAndBareNames)
{
    EXPECT_FALSE(qv::ensureParentFolder(drivePathOfLength(260)));
    EXPECT_FALSE(qv::ensureParentFolder(L"nofolder"));
    EXPECT_FALSE(qv::ensureParentFolderLong(L"nofolder"));
}

TEST(Folders, LongParentFoldersAreCreatedThroughThePrefix)
{
    qvtest::ScratchDir dir(L"path-long");
    std::wstring base = dir.path();
    ASSERT_TRUE(qv::toLongPath(base));
    if (!startsWith(base, L"\\\\?\\"))
        base = L"\\\\?\\" + base;
    const std::wstring file = pathUnder(base, 1000) + L"\\file.bin";
    EXPECT_TRUE(qv::ensureParentFolderLong(file));
    const std::wstring parent = file.substr(0, file.rfind(L'\\'));
    EXPECT_TRUE(isFolder(parent));
    EXPECT_TRUE(qv::pathExists(parent));
    EXPECT_TRUE(qv::ensureParentFolderLong(file));
}

TEST(Folders, PreparePathJoinsAndCreatesShortParents)
{
    qvtest::ScratchDir dir(L"path-prepare");
    std::wstring out;
    EXPECT_TRUE(qv::preparePath(dir.path(), L"x/y\\z.txt", out));
    std::wstring expected = dir / L"x\\y\\z.txt";
    ASSERT_EQ(0u, qv::normalizePath(expected));
    EXPECT_EQ(expected, out);
    EXPECT_TRUE(isFolder(dir / L"x\\y"));
}

TEST(Folders, PreparePathGoesLongForDeepNames)
{
    qvtest::ScratchDir dir(L"path-prepare-long");
    const std::wstring name = pathUnder(L"n", 400).substr(2) + L"\\leaf.bin";
    std::wstring out;
    ASSERT_TRUE(qv::preparePath(dir.path(), name, out));
    EXPECT_TRUE(startsWith(out, L"\\\\?\\"));
    EXPECT_TRUE(isFolder(out.substr(0, out.rfind(L'\\'))));
    // The file itself can be created at that path.
    HANDLE file = CreateFileW(out.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, file);
    CloseHandle(file);
    EXPECT_TRUE(qv::pathExists(out));
}

TEST(Folders, PreparePathRefusesDevicePaths)
{
    std::wstring out;
    EXPECT_FALSE(qv::preparePath(L"\\\\.\\PhysicalDrive0", L"x", out));
}

TEST(Exists, ShortAndLongFormsAndOverlongWithoutPrefix)
{
    qvtest::ScratchDir dir(L"path-exists");
    const std::wstring file = dir / L"present.bin";
    ASSERT_TRUE(qvtest::writeFile(file, "abc"));
    EXPECT_TRUE(qv::pathExists(file));
    EXPECT_TRUE(qv::pathExists(dir.path()));
    EXPECT_FALSE(qv::pathExists(dir / L"absent.bin"));

    std::wstring longForm = file;
    ASSERT_TRUE(qv::toLongPath(longForm));
    if (!startsWith(longForm, L"\\\\?\\"))
        longForm = L"\\\\?\\" + longForm;
    EXPECT_TRUE(qv::pathExists(longForm));
    EXPECT_FALSE(qv::pathExists(L"\\\\?\\" + dir.path() + L"\\absent.bin"));

    // Long paths without their prefix never exist, even when the folder does.
    EXPECT_FALSE(qv::pathExists(pathUnder(dir.path(), 249)));
}

TEST(FileSize, FileFolderAndMissing)
{
    qvtest::ScratchDir dir(L"path-size");
    const std::wstring file = dir / L"sized.bin";
    ASSERT_TRUE(qvtest::writeFile(file, qvtest::patternBytes(70000, 3)));
    EXPECT_EQ(70000u, qv::fileSize(file));
    EXPECT_EQ(0u, qv::fileSize(dir.path()));
    EXPECT_EQ(0u, qv::fileSize(dir / L"missing.bin"));
}

TEST(Links, HardLinkSharesContentAndExistingLinkCounts)
{
    qvtest::ScratchDir dir(L"path-link");
    const std::wstring original = dir / L"original.bin";
    const std::string bytes = qvtest::patternBytes(1234, 9);
    ASSERT_TRUE(qvtest::writeFile(original, bytes));
    const std::wstring link = dir / L"link.bin";
    EXPECT_TRUE(qv::linkOrCopy(link, original));
    std::string read;
    ASSERT_TRUE(qvtest::readFile(link, read));
    EXPECT_EQ(bytes, read);
    EXPECT_TRUE(qv::linkOrCopy(link, original));
}

TEST(Links, MissingSourceFails)
{
    qvtest::ScratchDir dir(L"path-link-missing");
    EXPECT_FALSE(qv::linkOrCopy(dir / L"new.bin", dir / L"missing.bin"));
    EXPECT_FALSE(qvtest::fileExists(dir / L"new.bin"));
}

namespace {
struct LinkCall {
    std::wstring link;
    std::wstring target;
    unsigned long flags = 99;
    int calls = 0;
};
LinkCall g_linkCall;
DWORD g_linkError = 0;

unsigned char __stdcall recordingLink(const wchar_t* link, const wchar_t* target, unsigned long flags)
{
    g_linkCall.link = link;
    g_linkCall.target = target;
    g_linkCall.flags = flags;
    ++g_linkCall.calls;
    if (g_linkError != 0) {
        SetLastError(g_linkError);
        return 0;
    }
    return 1;
}

// Restores the process-wide choice when a test ends.
struct LinkOperationGuard {
    ~LinkOperationGuard() { qv::selectSymbolicLinkOperation(); }
};
} // namespace

TEST(Links, SymbolicLinkUsesTheChosenOperationWithFlagsZero)
{
    LinkOperationGuard guard;
    g_linkCall = {};
    g_linkError = 0;
    qv::setSymbolicLinkOperation(&recordingLink);
    EXPECT_TRUE(qv::symbolicLink(L"C:\\l", L"C:\\t"));
    EXPECT_EQ(1, g_linkCall.calls);
    EXPECT_EQ(L"C:\\l", g_linkCall.link);
    EXPECT_EQ(L"C:\\t", g_linkCall.target);
    EXPECT_EQ(2u, g_linkCall.flags); // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE

    g_linkError = 183;
    EXPECT_TRUE(qv::symbolicLink(L"C:\\l", L"C:\\t"));
    EXPECT_EQ(0u, GetLastError());

    g_linkError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(qv::symbolicLink(L"C:\\l", L"C:\\t"));
    g_linkError = 0;
}

TEST(Utf8ToWide, ConvertsWhenItFits)
{
    wchar_t out[8];
    EXPECT_TRUE(qv::utf8ToWide("a\xc3\xa9z", out, 8)); // a, e-acute, z
    EXPECT_EQ(std::wstring(L"a\u00e9z"), out);
    EXPECT_TRUE(qv::utf8ToWide("", out, 8));
    EXPECT_EQ(std::wstring(), out);
}

TEST(Utf8ToWide, ExactFitNeedsRoomForTheTerminator)
{
    wchar_t out[5];
    EXPECT_TRUE(qv::utf8ToWide("abcd", out, 5));
    EXPECT_EQ(std::wstring(L"abcd"), out);
    wchar_t guard[6] = {L'#', L'#', L'#', L'#', L'#', L'!'};
    EXPECT_FALSE(qv::utf8ToWide("abcde", guard, 5));
    EXPECT_EQ(L'\0', guard[0]);
    EXPECT_EQ(L'!', guard[5]); // nothing written past the given capacity
}

TEST(Utf8ToWide, CountedFormStopsAtTheLengthAndRejectsNull)
{
    wchar_t out[16];
    const char field[8] = {'n', 'a', 'm', 'e', 'x', 'y', 'z', 'w'}; // not terminated
    EXPECT_TRUE(qv::utf8ToWide(field, 4, out, 16));
    EXPECT_EQ(std::wstring(L"name"), out);
    EXPECT_FALSE(qv::utf8ToWide(nullptr, out, 16));
    EXPECT_FALSE(qv::utf8ToWide("x", out, 0));
}
