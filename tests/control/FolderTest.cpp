// Emptying a working folder into its parent (also where the shell does not merge same-named folders),
// deleting trees, and the launch settings read from a package's "dlm.ini".
#include <gtest/gtest.h>

#include "support/FakeRequest.h"
#include "FakeStore.h"
#include "control/FolderOps.h"
#include "control/LaunchSettings.h"
#include "support/TestSupport.h"

namespace {

class FolderTest : public ::testing::Test {
protected:
    std::wstring make(const std::wstring& relative, const std::string& content = {})
    {
        const std::wstring path = scratch / relative;
        qv::createFolderTree(qv::parentFolder(path));
        EXPECT_TRUE(qvtest::writeFile(path, content));
        return path;
    }
    std::string read(const std::wstring& relative)
    {
        std::string bytes;
        EXPECT_TRUE(qvtest::readFile(scratch / relative, bytes)) << qvtest::narrow(relative);
        return bytes;
    }
    qvtest::ScratchDir scratch{L"control-folders"};
};

TEST_F(FolderTest, MovesEverythingUpAndLeavesTheWorkingFolderEmpty)
{
    make(L"QV_1.tmp\\a.txt", "a");
    make(L"QV_1.tmp\\sub\\deeper\\b.txt", "b");
    ASSERT_TRUE(qv::moveContentsUp(scratch / L"QV_1.tmp"));
    EXPECT_EQ(read(L"a.txt"), "a");
    EXPECT_EQ(read(L"sub\\deeper\\b.txt"), "b");
    EXPECT_TRUE(qv::folderIsEmpty(scratch / L"QV_1.tmp"));
}

TEST_F(FolderTest, MergesIntoFoldersThatAlreadyExistAndReplacesFiles)
{
    make(L"game\\keep.txt", "old");
    make(L"game\\same.txt", "old");
    make(L"game\\data\\old.bin", "o");
    make(L"QV_2.tmp\\game\\same.txt", "new");
    make(L"QV_2.tmp\\game\\data\\new.bin", "n");
    make(L"QV_2.tmp\\top.txt", "t");
    ASSERT_TRUE(qv::moveContentsUp(scratch / L"QV_2.tmp"));
    EXPECT_EQ(read(L"game\\keep.txt"), "old");
    EXPECT_EQ(read(L"game\\same.txt"), "new");
    EXPECT_EQ(read(L"game\\data\\old.bin"), "o");
    EXPECT_EQ(read(L"game\\data\\new.bin"), "n");
    EXPECT_EQ(read(L"top.txt"), "t");
    EXPECT_TRUE(qv::folderIsEmpty(scratch / L"QV_2.tmp"));
}

TEST_F(FolderTest, AConflictThatCannotBeMergedFailsAndKeepsTheFiles)
{
    CreateDirectoryW((scratch / L"clash").c_str(), nullptr);
    make(L"clash\\inside.txt", "i");
    make(L"QV_3.tmp\\clash", "a file where a folder stands");
    make(L"QV_3.tmp\\fine.txt", "f");
    EXPECT_FALSE(qv::moveContentsUp(scratch / L"QV_3.tmp"));
    EXPECT_EQ(read(L"QV_3.tmp\\clash"), "a file where a folder stands");
    EXPECT_EQ(read(L"clash\\inside.txt"), "i");
    EXPECT_EQ(read(L"fine.txt"), "f");
}

TEST_F(FolderTest, DeepPathsBeyondTheShortLimitAreMovedAndDeleted)
{
    std::wstring deep = L"QV_4.tmp";
    while (deep.size() < 300)
        deep += L"\\a_rather_long_folder_name";
    make(deep + L"\\file.txt", "deep");
    ASSERT_TRUE(qv::moveContentsUp(scratch / L"QV_4.tmp"));
    EXPECT_EQ(read(deep.substr(9) + L"\\file.txt"), "deep");
    EXPECT_TRUE(qv::fileExists(qv::longForm(scratch / (deep.substr(9) + L"\\file.txt"))));
    EXPECT_TRUE(qv::deleteTree(scratch / L"a_rather_long_folder_name"));
    EXPECT_FALSE(qv::folderExists(scratch / L"a_rather_long_folder_name"));
}

TEST_F(FolderTest, DeleteTreeRemovesReadOnlyFilesAndToleratesMissingFolders)
{
    const std::wstring file = make(L"tree\\ro.txt", "r");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(qv::deleteTree(scratch / L"tree"));
    EXPECT_FALSE(qv::folderExists(scratch / L"tree"));
    EXPECT_TRUE(qv::deleteTree(scratch / L"never-there"));
    EXPECT_FALSE(qv::deleteTree(L""));
}

TEST_F(FolderTest, PathPartsAndLongForms)
{
    EXPECT_EQ(qv::parentFolder(L"C:\\a\\b\\"), L"C:\\a");
    EXPECT_EQ(qv::lastComponent(L"C:\\a\\b"), L"b");
    EXPECT_EQ(qv::lastComponent(L"/files/x.bin"), L"x.bin");
    EXPECT_EQ(qv::longForm(L"C:\\short"), L"C:\\short");
    const std::wstring long260 = L"C:\\" + std::wstring(257, L'x');
    EXPECT_EQ(qv::longForm(long260), L"\\\\?\\" + long260);
    const std::wstring unc = L"\\\\srv\\share\\" + std::wstring(250, L'y');
    EXPECT_EQ(qv::longForm(unc), L"\\\\?\\UNC\\srv\\share\\" + std::wstring(250, L'y'));
}

class LaunchTest : public FolderTest {
protected:
    void SetUp() override
    {
        request.setDestDir((scratch / L"QV_pkg.tmp").c_str());
        CreateDirectoryW(request.getDestDir(), nullptr);
        request.setExePath(L"before.exe");
        request.setExeParam(L"-x");
        store.open(L"unused");
        store.add(&request);
    }
    FakeRequest request{L"http://localhost:1/p.tar.lzma2"};
    FakeStore store;
};

TEST_F(LaunchTest, APackageWithoutLaunchFileChangesNothing)
{
    make(L"QV_pkg.tmp\\readme.txt", "x");
    EXPECT_FALSE(qv::applyLaunchSettings(&request, &store));
    EXPECT_STREQ(request.getExePath(), L"before.exe");
    EXPECT_STREQ(request.getExeParam(), L"-x");
    EXPECT_EQ(store.launchSaves, 0);
}

TEST_F(LaunchTest, AllThreeKeysAreReadAndSaved)
{
    make(L"QV_pkg.tmp\\dlm.ini", "[DLM_LAUNCH]\r\nEXE_PATH=bin\\game.exe\r\nEXE_PARAM=-fast\r\nAUTO_OPEN=1\r\n");
    EXPECT_TRUE(qv::applyLaunchSettings(&request, &store));
    EXPECT_STREQ(request.getExePath(), L"bin\\game.exe");
    EXPECT_STREQ(request.getExeParam(), L"-fast");
    EXPECT_TRUE(request.getAutoOpen());
    EXPECT_EQ(store.launchSaves, 1);
    EXPECT_EQ(store.record(request.getId()).exePath, L"bin\\game.exe");
}

TEST_F(LaunchTest, OnlyExePathGivesParameterZeroAndNoAutoOpen)
{
    request.setAutoOpen(true);
    make(L"QV_pkg.tmp\\dlm.ini", "[DLM_LAUNCH]\r\nEXE_PATH=run.exe\r\n");
    EXPECT_TRUE(qv::applyLaunchSettings(&request, &store));
    EXPECT_STREQ(request.getExePath(), L"run.exe");
    EXPECT_STREQ(request.getExeParam(), L"0");
    EXPECT_FALSE(request.getAutoOpen());
}

TEST_F(LaunchTest, AUrlSwitchInAnyCaseOpensAutomatically)
{
    make(L"QV_pkg.tmp\\dlm.ini", "[DLM_LAUNCH]\r\nEXE_PATH=x.exe\r\nEXE_PARAM=/URL http://a\r\nAUTO_OPEN=0\r\n");
    EXPECT_TRUE(qv::applyLaunchSettings(&request, &store));
    EXPECT_TRUE(request.getAutoOpen());
}

TEST_F(LaunchTest, ALaunchFileInASubfolderIsFound)
{
    make(L"QV_pkg.tmp\\a\\b\\DLM.INI", "[DLM_LAUNCH]\r\nEXE_PATH=deep.exe\r\nEXE_PARAM=p\r\nAUTO_OPEN=yes\r\n");
    EXPECT_EQ(qv::findLaunchFile(request.getDestDir()), std::wstring(request.getDestDir()) + L"\\a\\b\\DLM.INI");
    EXPECT_TRUE(qv::applyLaunchSettings(&request, &store));
    EXPECT_STREQ(request.getExePath(), L"deep.exe");
    EXPECT_FALSE(request.getAutoOpen()); // only "1" counts
}

TEST_F(LaunchTest, AUtf16LaunchFileIsReadToo)
{
    const std::wstring text = L"\xFEFF[DLM_LAUNCH]\r\nEXE_PATH=ünïcode.exe\r\nAUTO_OPEN=1\r\n";
    make(L"QV_pkg.tmp\\dlm.ini", std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2));
    EXPECT_TRUE(qv::applyLaunchSettings(&request, &store));
    EXPECT_STREQ(request.getExePath(), L"ünïcode.exe");
    EXPECT_TRUE(request.getAutoOpen());
}

} // namespace
