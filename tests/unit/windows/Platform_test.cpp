// What only Windows has to answer: its file attributes, its code page, the registry, its loader.
#include "platform/Platform.h"

#include <windows.h>

#include <optional>
#include <thread>

#include "FileTest.h"
#include "MachineSettings.h"
#include "windows/Registry.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kUmlauts = "\xC3\xBC\xC3\xB6";             // in the ANSI code page
constexpr const char* kPhotograph = "\xE5\x86\x99\xE7\x9C\x9F";  // not in it
constexpr std::uint32_t kDriverBits = 0xA1;  // a file with any of them may be a driver module

class AttributesTest : public FileTest
{
protected:
    // The attributes of a file that was given these.
    std::uint32_t attributesWith(DWORD bits) const
    {
        const std::string path = makeFile();
        EXPECT_NE(SetFileAttributesW(fs::u8path(path).c_str(), bits), FALSE);
        const std::uint32_t found = attributes(path);
        SetFileAttributesW(fs::u8path(path).c_str(), FILE_ATTRIBUTE_NORMAL);
        return found;
    }
};

TEST_F(AttributesTest, AReadOnlyFileIsReadOnly)
{
    EXPECT_EQ(attributesWith(FILE_ATTRIBUTE_READONLY) & 0x1U, 0x1U);
}

TEST_F(AttributesTest, AHiddenOrSystemFileIsSaidToBe)
{
    EXPECT_EQ(attributesWith(FILE_ATTRIBUTE_HIDDEN) & 0x2U, 0x2U);
}

TEST_F(AttributesTest, AFolderHasNoBitOfAFile)
{
    EXPECT_EQ(attributes(m_folder.u8string()) & kDriverBits, 0U);
    EXPECT_EQ(attributes("C:\\"), attributes("C:\\") & ~kDriverBits);
}

TEST_F(AttributesTest, ATextThatIsNoUtf8NamesNothing)
{
    EXPECT_EQ(attributes("\xFC.md3"), platform::kNoAttributes);
    EXPECT_TRUE(platform::removeFile("\xFC.md3"));
    bool isThere = true;
    EXPECT_EQ(platform::createFile("\xFC.md3", isThere), nullptr);
    EXPECT_FALSE(isThere);
}

TEST_F(FileTest, AFileUnderWayIsNotForProcessesThatAreStartedMeanwhile)
{
    bool isThere = false;
    const platform::File file =
        platform::createFile((m_folder / "new").u8string().c_str(), isThere);
    ASSERT_NE(file, nullptr);
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file.get())));
    DWORD flags = HANDLE_FLAG_INHERIT;
    ASSERT_NE(GetHandleInformation(handle, &flags), FALSE);
    EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0U);
}

TEST_F(FileTest, AFileThatIsOpenElsewhereIsRemovedOnceItIsClosed)
{
    const std::string path = makeFile();
    HANDLE other = CreateFileW(fs::u8path(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    std::thread closer([&] {
        platform::sleepFor(60);
        CloseHandle(other);
    });
    EXPECT_TRUE(platform::removeFile(path.c_str()));
    closer.join();
    EXPECT_EQ(attributes(path), platform::kNoAttributes);
}

TEST_F(FileTest, AFileThatStaysOpenElsewhereIsNotRemoved)
{
    const std::string path = makeFile();
    HANDLE other = CreateFileW(fs::u8path(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(platform::removeFile(path.c_str()));
    CloseHandle(other);
    EXPECT_TRUE(platform::removeFile(path.c_str()));
}

// The path by which a library that knows the ANSI code page alone can open a file.

class LibraryPathTest : public FileTest
{
protected:
    // A folder of that name, with what follows it in a path.
    std::string inFolder(const std::string& name, const char* rest) const
    {
        const fs::path folder = m_folder / fs::u8path(name);
        fs::create_directory(folder);
        return folder.u8string() + rest;
    }
};

TEST_F(LibraryPathTest, IsThePathItselfWhenThatIsPlain)
{
    const std::string path = inFolder("plain", "\\Canon_1_2.JPG");
    EXPECT_EQ(platform::libraryPath(path), path);
}

TEST_F(LibraryPathTest, IsInTheAnsiCodePage)
{
    if (GetACP() != 1252) {
        GTEST_SKIP() << "knows what these letters are in code page 1252 only";
    }
    const std::string path = inFolder(kUmlauts, "\\Canon_1_2.JPG");
    EXPECT_EQ(platform::libraryPath(path).value_or("").find("\xFC\xF6\\Canon_1_2.JPG"),
              m_folder.u8string().size() + 1);
}

TEST_F(LibraryPathTest, OpensAFileInAFolderWithLettersOfNoCodePage)
{
    const std::string path = inFolder(std::string(kPhotograph) + kUmlauts, "\\Canon_1_2.JPG");
    std::FILE* file = std::fopen(platform::libraryPath(path).value_or("").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_TRUE(fs::exists(fs::u8path(path)));
}

TEST_F(LibraryPathTest, IsNothingWhenThereIsNoWayToSayIt)
{
    const std::string nowhere = (m_folder / fs::u8path(kPhotograph)).u8string() + "\\a.JPG";
    EXPECT_EQ(platform::libraryPath(nowhere), std::nullopt);
    EXPECT_EQ(platform::libraryPath(kPhotograph), std::nullopt);
    EXPECT_EQ(platform::libraryPath("\xFF\xFF"), std::nullopt);
    EXPECT_EQ(platform::libraryPath(""), "");
}

// The settings.

class RegistryTest : public testing::Test
{
protected:
    static std::optional<std::uint32_t> read(unsigned long type, const std::string& bytes)
    {
        setRegistryValue(type, bytes);
        return platform::dumpMessageSetting();
    }

    MachineSettings m_settings;
};

TEST_F(RegistryTest, TheTypeOfTheValueIsNotLookedAt)
{
    const std::string one("\1\0\0\0", 4);
    for (const DWORD type : {DWORD{REG_DWORD}, DWORD{REG_BINARY}, DWORD{REG_NONE}}) {
        EXPECT_EQ(read(type, one), 1U) << type;
    }
}

TEST_F(RegistryTest, ATextCountsByItsBytes)
{
    EXPECT_EQ(read(REG_SZ, std::string("1\0", 2)), 0x31U);
    EXPECT_EQ(read(REG_SZ, std::string("0\0", 2)), 0x30U);
    EXPECT_EQ(read(REG_SZ, std::string("\0", 1)), 0U);
}

TEST_F(RegistryTest, AValueOfFewerBytesFillsTheLowOnes)
{
    EXPECT_EQ(read(REG_BINARY, "\2"), 2U);
    EXPECT_EQ(read(REG_BINARY, ""), 0U);
}

TEST_F(RegistryTest, AValueOfMoreBytesIsRefusedAndCountsAsZero)
{
    EXPECT_EQ(read(REG_BINARY, std::string(8, '\1')), 0U);
    EXPECT_EQ(read(REG_QWORD, std::string(8, '\1')), 0U);
    EXPECT_EQ(read(REG_SZ, std::string("10000\0", 6)), 0U);
}

// Libraries.

std::string loadError(const std::string& path)
{
    std::string error;
    EXPECT_EQ(platform::Library::load(path.c_str(), error), nullptr);
    return error;
}

TEST_F(FileTest, AFileThatIsNoLibraryIsRefusedWithTheSystemsReason)
{
    const std::string path = makeFile();
    EXPECT_EQ(loadError(path).rfind(path + ": error 193: ", 0), 0U) << loadError(path);
}

TEST_F(FileTest, AFolderIsNoLibrary)
{
    EXPECT_EQ(loadError(m_folder.u8string()), m_folder.u8string() + ": not a regular file");
}

TEST_F(FileTest, ALibraryMayHaveAnyNameAndLieAnywhere)
{
    const fs::path source = fs::u8path(LUMATIE_VIRTUAL_DIR) / "VirtualNikon.md3";
    for (const std::string& name : {std::string("no extension"), std::string("Type0009.md3"),
                                    std::string(kUmlauts) + " " + kPhotograph + ".md3"}) {
        const fs::path copy = m_folder / fs::u8path(name);
        fs::copy_file(source, copy);
        std::string error;
        const auto library = platform::Library::load(copy.u8string().c_str(), error);
        ASSERT_NE(library, nullptr) << error;
        EXPECT_NE(library->function("MAIDEntryPoint"), nullptr);
        EXPECT_EQ(library->function("MAIDExitPoint"), nullptr);
    }
}

TEST_F(FileTest, ARelativePathIsAFileOfTheWorkingFolder)
{
    const fs::path before = fs::current_path();
    fs::copy_file(fs::u8path(LUMATIE_VIRTUAL_DIR) / "VirtualNikon.md3", m_folder / "Type0009.md3");
    fs::current_path(m_folder);
    std::string error;
    auto library = platform::Library::load("Type0009.md3", error);
    EXPECT_NE(library, nullptr) << error;
    library = nullptr;
    fs::current_path(before);
}

TEST_F(FileTest, LibrariesThatLieBesideALibraryAreFound)
{
    const fs::path folder = m_folder / fs::u8path(std::string("driver ") + kPhotograph);
    fs::create_directory(folder);
    fs::copy_file(fs::u8path(LUMATIE_NEIGHBOUR), folder / "neighbour.dll");
    fs::copy_file(fs::u8path(LUMATIE_NEEDS_NEIGHBOUR), folder / "needs_neighbour.dll");
    std::string error;
    const auto library =
        platform::Library::load((folder / "needs_neighbour.dll").u8string().c_str(), error);
    ASSERT_NE(library, nullptr) << error;
    EXPECT_EQ(reinterpret_cast<int (*)()>(library->function("MAIDEntryPoint"))(), 42);
}

TEST(Libraries, OneWhoseOwnLibrariesAreMissingIsRefusedWithTheSystemsReason)
{
    const std::string path = LUMATIE_NEEDS_NEIGHBOUR;
    EXPECT_EQ(loadError(path).rfind(path + ": error 126: ", 0), 0U) << loadError(path);
}

}  // namespace
