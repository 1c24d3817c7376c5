// What only POSIX systems have to answer: their kinds of files, and the settings file.
#include "platform/Platform.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "FileTest.h"
#include "MachineSettings.h"
#include "posix/SettingsFile.h"

namespace {

namespace fs = std::filesystem;

TEST_F(FileTest, AFileThatItsOwnerMayNotWriteIsReadOnlyToo)
{
    const std::string path = makeFile();
    fs::permissions(path, fs::perms::owner_read, fs::perm_options::replace);
    EXPECT_EQ(attributes(path), 0x21U);
}

TEST_F(FileTest, AFolderIsADirectoryWhoeverMayWriteIt)
{
    EXPECT_EQ(attributes(m_folder.u8string()), 0x10U);
    fs::permissions(m_folder, fs::perms::owner_read | fs::perms::owner_exec,
                    fs::perm_options::replace);
    EXPECT_EQ(attributes(m_folder.u8string()), 0x10U);
    fs::permissions(m_folder, fs::perms::owner_all, fs::perm_options::replace);
}

TEST(ProcessTest, AProcessThatWasSplitOffHasANumberOfItsOwn)
{
    const unsigned long parent = platform::processNumber();
    EXPECT_EQ(parent, static_cast<unsigned long>(::getpid()));
    const pid_t child = ::fork();
    if (child == 0) {
        const bool isOwn = platform::processNumber() == static_cast<unsigned long>(::getpid());
        ::_exit(isOwn ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(platform::processNumber(), parent);
}

TEST_F(FileTest, AFileUnderWayIsNotForProcessesThatAreStartedMeanwhile)
{
    const std::string path = (m_folder / "under way").u8string();
    bool isThere = false;
    const platform::File file = platform::createFile(path.c_str(), isThere);
    ASSERT_NE(file, nullptr);
    // What such a process has open.
    std::FILE* child = ::popen("ls -l /proc/self/fd", "r");
    ASSERT_NE(child, nullptr);
    std::string open;
    for (int letter = std::fgetc(child); letter != EOF; letter = std::fgetc(child)) {
        open += static_cast<char>(letter);
    }
    EXPECT_EQ(::pclose(child), 0);
    EXPECT_NE(open.find(" -> "), std::string::npos) << open;
    EXPECT_EQ(open.find("under way"), std::string::npos) << open;
}

TEST_F(FileTest, ADeviceIsNormal)
{
    EXPECT_EQ(attributes("/dev/null"), 0x80U);
}

TEST_F(FileTest, ALinkIsWhatItPointsTo)
{
    fs::create_symlink(makeFile(), m_folder / "link");
    EXPECT_EQ(attributes((m_folder / "link").u8string()), 0x20U);
    fs::create_symlink(m_folder / "nothing", m_folder / "broken");
    EXPECT_EQ(attributes((m_folder / "broken").u8string()), 0xFFFFFFFFU);
}

TEST(Library, HasItsFunctionsForItselfAlone)
{
    std::string error;
    const auto library = platform::Library::load(LUMATIE_VIRTUAL_DIR "/VirtualNikon.md3", error);
    ASSERT_NE(library, nullptr) << error;
    EXPECT_NE(library->function("MAIDEntryPoint"), nullptr);
    EXPECT_EQ(::dlsym(RTLD_DEFAULT, "MAIDEntryPoint"), nullptr);
}

class SettingsFileTest : public testing::Test
{
protected:
    static std::optional<std::uint32_t> read(const std::string& text)
    {
        writeSettingsFile(text);
        return platform::dumpMessageSetting();
    }

    MachineSettings m_settings;
};

TEST_F(SettingsFileTest, TheNumberIsRead)
{
    EXPECT_EQ(read("DumpMsg=1\n"), 1U);
    EXPECT_EQ(read("DumpMsg=0\n"), 0U);
    EXPECT_EQ(read("DumpMsg=4294967295\n"), 0xFFFFFFFFU);
    EXPECT_EQ(read("DumpMsg=007"), 7U);
}

TEST_F(SettingsFileTest, TheLineMayBeAnywhereAndEndInBlanksOrACarriageReturn)
{
    EXPECT_EQ(read("# DumpMsg=1\nOther=2\n\nDumpMsg=3 \t\r\nDumpMsg=4\n"), 3U);
}

TEST_F(SettingsFileTest, WithoutTheLineTheNumberIsZero)
{
    EXPECT_EQ(read(""), 0U);
    EXPECT_EQ(read("Other=1\n"), 0U);
    EXPECT_EQ(read("DumpMsg\nDumpMessage=1\n"), 0U);
}

TEST_F(SettingsFileTest, WhatIsNoUnsignedNumberOf32BitsIsZero)
{
    for (const char* value : {"", "on", "-1", "0x1", "1.5", "4294967296", "99999999999999999999"}) {
        EXPECT_EQ(read(std::string("DumpMsg=") + value + "\n"), 0U) << value;
    }
}

// Libraries.

TEST_F(FileTest, WhatIsNoRegularFileIsNoLibrary)
{
    const std::string pipe = m_folder.string() + "/pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {std::string("/dev/null"), pipe}) {
        std::string error;
        EXPECT_EQ(platform::Library::load(path.c_str(), error), nullptr);
        EXPECT_EQ(error, path + ": not a regular file");
    }
}

}  // namespace
