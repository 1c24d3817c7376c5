// The export folder and the last picture's path.
#include "TetherTexts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* kFolderRejected =
    "Lumatie: the export folder is missing or longer than 255 bytes; the process ends.\n";
constexpr const char* kPathRejected =
    "Lumatie: the path of a picture is longer than 259 bytes; the process ends.\n";

template <typename Action>
void onAnotherThread(Action action)
{
    std::thread(action).join();
}

TEST(ExportFolder, IsEmptyAtFirst)
{
    const ExportFolder folder;
    EXPECT_EQ(folder.text(), "");
}

TEST(ExportFolder, HoldsWhatWasSetLast)
{
    ExportFolder folder;
    folder.set("/a");
    folder.set("/b");
    EXPECT_EQ(folder.text(), "/b");
}

TEST(ExportFolder, Takes255Bytes)
{
    ExportFolder folder;
    folder.set(std::string(255, 'x').c_str());
    EXPECT_EQ(folder.text(), std::string(255, 'x'));
}

TEST(ExportFolder, Of256BytesEndsTheProcess)
{
    ExportFolder folder;
    EXPECT_EXIT(folder.set(std::string(256, 'x').c_str()), testing::ExitedWithCode(3),
                testing::Eq(kFolderRejected));
}

TEST(ExportFolder, CountsBytesNotLetters)
{
    std::string umlauts;
    for (int i = 0; i < 128; ++i) {
        umlauts += "\xC3\xBC";
    }
    ExportFolder folder;
    EXPECT_EXIT(folder.set(umlauts.c_str()), testing::ExitedWithCode(3),
                testing::Eq(kFolderRejected));
}

TEST(ExportFolder, ThatIsMissingEndsTheProcess)
{
    ExportFolder folder;
    EXPECT_EXIT(folder.set(nullptr), testing::ExitedWithCode(3), testing::Eq(kFolderRejected));
}

TEST(ExportFolder, MayBeNamedEmpty)
{
    ExportFolder folder;
    folder.set("/a");
    folder.set("");
    EXPECT_EQ(folder.text(), "");
}

TEST(ExportFolder, IsNeverSeenHalfWritten)
{
    ExportFolder folder;
    const std::string a(255, 'a');
    const std::string b(200, 'b');
    folder.set(a.c_str());
    std::atomic<bool> isDone{false};
    std::thread writer([&] {
        for (int round = 0; round < 50'000; ++round) {
            folder.set(round % 2 == 0 ? b.c_str() : a.c_str());
        }
        isDone = true;
    });
    while (!isDone) {
        const std::string text = folder.text();
        EXPECT_TRUE(text == a || text == b) << text;
    }
    writer.join();
}

TEST(LastFile, IsTakenOnce)
{
    LastFile file;
    file.set("/a/1.jpg");
    EXPECT_EQ(file.take(), "/a/1.jpg");
    EXPECT_EQ(file.take(), "");
}

TEST(LastFile, IsTheOneThatWasSetLast)
{
    LastFile file;
    file.set("/a/1.jpg");
    file.set("/a/2.jpg");
    EXPECT_EQ(file.take(), "/a/2.jpg");
    EXPECT_EQ(file.take(), "");
}

TEST(LastFile, OfAnotherThreadIsSharedWithOneThatHasNone)
{
    LastFile file;
    onAnotherThread([&] { file.set("/a/1.jpg"); });
    EXPECT_EQ(file.take(), "/a/1.jpg");
    EXPECT_EQ(file.take(), "");
}

TEST(LastFile, OfTheOwnThreadIsNotMixedUpWithAnotherThreads)
{
    LastFile file;
    file.set("/a/mine.jpg");
    onAnotherThread([&] {
        file.set("/b/theirs.jpg");
        EXPECT_EQ(file.take(), "/b/theirs.jpg");
    });
    EXPECT_EQ(file.take(), "/a/mine.jpg");
}

TEST(LastFile, OfTheOwnThreadComesBeforeAnotherThreads)
{
    LastFile file;
    file.set("/a/mine.jpg");
    onAnotherThread([&] { file.set("/b/theirs.jpg"); });
    EXPECT_EQ(file.take(), "/a/mine.jpg");
}

TEST(LastFile, OfTheOwnThreadOutlivesTheHostsClearing)
{
    LastFile file;
    file.set("/a/mine.jpg");
    onAnotherThread([&] { file.clear(); });
    EXPECT_EQ(file.take(), "/a/mine.jpg");
}

TEST(LastFile, ThatWasClearedIsGoneForOtherThreads)
{
    LastFile file;
    onAnotherThread([&] { file.set("/a/1.jpg"); });
    file.clear();
    EXPECT_EQ(file.take(), "");
}

TEST(LastFile, Takes259Bytes)
{
    LastFile file;
    file.set(std::string(259, 'x'));
    EXPECT_EQ(file.take(), std::string(259, 'x'));
}

TEST(LastFile, Of260BytesEndsTheProcess)
{
    LastFile file;
    EXPECT_EXIT(file.set(std::string(260, 'x')), testing::ExitedWithCode(3),
                testing::Eq(kPathRejected));
}

TEST(LastFile, OfManyThreadsNeverMix)
{
    LastFile file;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&file, thread] {
            for (int picture = 0; picture < 500; ++picture) {
                const std::string path = std::to_string(thread) + "/" + std::to_string(picture);
                file.set(path);
                EXPECT_EQ(file.take(), path);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
