// What becomes of a Nikon picture when the disk is full. Only POSIX has a limit that looks like
// that.
#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

#include "TemporaryFolder.h"
#include "TetherTexts.h"
#include "fakes/Records.h"
#include "nikon/DataReceiver.h"

using fake::Part;
using Results = std::vector<std::string>;

namespace {

// Files of this process may not grow beyond a size: what a full disk does.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit{bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_before); }

private:
    rlimit m_before = {};
};

class FullDiskTest : public testing::Test
{
protected:
    void SetUp() override { g_szExportFolder.set(m_folder.path().c_str()); }

    // What this thread has written is not for the next test.
    void TearDown() override { g_szLastFile.take(); }

    MaidResult take(const Part& part)
    {
        return m_receiver.take(part.info.data(), part.data.data());
    }

    TemporaryFolder m_folder;
    nikon::DataReceiver m_receiver{7, std::make_shared<nikon::ModuleHeartbeat>()};
};

TEST_F(FullDiskTest, AShortWriteIsAFailedWriteAndNothingIsLeft)
{
    {
        const FileSizeLimit limit(100'000);
        EXPECT_EQ(take(fake::wholeFile(std::string(3'000'000, 'x'))), kMaidOk);
    }
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(g_szLastFile.take(), "error");
}

TEST_F(FullDiskTest, ACloseThatFailsIsAFailedWriteTooAndThePictureNotTakenOver)
{
    // So little that it is written by the close alone.
    const Part picture = fake::wholeFile(std::string(1'000, 'x'), kMaidFileJpeg, true);
    {
        const FileSizeLimit limit(100);
        EXPECT_EQ(take(picture), kMaidFileFailed);
    }
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_EQ(g_szLastFile.take(), "error");
    EXPECT_FALSE(m_receiver.mayRemoveItem());
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(FullDiskTest, NothingIsLeftWhenTheHostHasChangedItsFolderMeanwhile)
{
    m_folder.makeFolder("shots");
    g_szExportFolder.set("shots");
    {
        const CurrentFolder current(m_folder.path());
        const FileSizeLimit limit(100'000);
        // Comes in the middle of the write, on this thread.
        std::signal(SIGXFSZ, [](int) { EXPECT_EQ(::chdir("/"), 0); });
        EXPECT_EQ(take(fake::wholeFile(std::string(3'000'000, 'x'))), kMaidOk);
        EXPECT_EQ(std::filesystem::current_path(), "/");
    }
    EXPECT_EQ(m_receiver.results(), Results{"error"});
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.path() + "/shots"));
}

TEST_F(FullDiskTest, TheWriteOfAnImageIsNotLookedAt)
{
    {
        const FileSizeLimit limit(100);
        EXPECT_EQ(take(fake::imagePart(std::string(1'000, 'x'), 10, 100)), kMaidOk);
    }
    EXPECT_EQ(contentOf(m_receiver.results().at(0)).size(), 100U);
}

}  // namespace
