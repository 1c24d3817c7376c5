// How the pictures on the camera are found, fetched and announced.
#include "nikon/Acquisition.h"

#include <filesystem>
#include <functional>

#include "FakeMaid.h"
#include "TemporaryFolder.h"
#include "TetherTexts.h"
#include "nikon/MaidCommands.h"
#include "platform/Platform.h"

using nikon::MaidObjectPtr;
using Lines = std::vector<std::string>;

namespace {

namespace fs = std::filesystem;

class AcquisitionTest : public fake::MaidTest
{
protected:
    void SetUp() override
    {
        g_szExportFolder.set(m_folder.path().c_str());
        g_szLastFile.clear();
        m_tree = std::make_shared<nikon::MaidTree>(maid.library(), impatient());
        ASSERT_TRUE(m_tree->OpenModule());
        ASSERT_TRUE(m_tree->OpenSource());
        m_acquisition = std::make_unique<nikon::Acquisition>(
            m_tree,
            [this](const std::string& text) {
                m_events.push_back(text);
                return m_goesOn;
            },
            [this] { return m_goesOn; });
        maid.clearCalls();
    }

    void TearDown() override
    {
        maid.clearRules();
        m_tree->CloseTree();
        g_szLastFile.take();  // this thread's own
        MaidTest::TearDown();
    }

    // One pass; returns the events.
    Lines acquire()
    {
        m_events.clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(m_acquisition->AcquireNewItems(), 0);
        m_output = testing::internal::GetCapturedStdout();
        return m_events;
    }

    // The contents of the files that the events of one pass tell of.
    Lines acquired()
    {
        Lines contents;
        for (const std::string& event : acquire()) {
            contents.push_back(contentOf(pathIn(event)));
        }
        return contents;
    }

    static std::string pathIn(const std::string& event)
    {
        const std::string start = "{'GENERAL_NEWFILE':r'";
        EXPECT_EQ(event.substr(0, start.size()), start);
        EXPECT_EQ(event.substr(event.size() - 2), "'}");
        return event.substr(start.size(), event.size() - start.size() - 2);
    }

    std::ptrdiff_t acquisitions() const { return maid.count("Data CapStart 0x14"); }

    TemporaryFolder m_folder;
    std::shared_ptr<nikon::MaidTree> m_tree;
    std::unique_ptr<nikon::Acquisition> m_acquisition;
    Lines m_events;
    std::string m_output;
    bool m_goesOn = true;
};

// One picture.

TEST_F(AcquisitionTest, APictureIsFetchedAndAnnounced)
{
    maid.addItem(5, {fake::filePart("abc", 6), fake::filePart("def", 6)});
    EXPECT_EQ(acquired(), Lines{"abcdef"});
    EXPECT_EQ(m_output, "Item object is opened.\n\n1. Image\nImage object is opened.\n\n");
    EXPECT_EQ(
        maid.calls(),
        (Lines{"Source CapGet 0x7", "Source CapGetArray 0x7", "Source Open 0x5",
               "Item GetCapCount 0x0", "Item GetCapInfo 0x4", "Item CapSet 0x2", "Item CapSet 0x3",
               "Item CapGet 0xC", "Item Open 0x1", "Data GetCapCount 0x0", "Data GetCapInfo 0x5",
               "Data CapSet 0x2", "Data CapSet 0x3", "Data CapSet 0x4", "Data CapStart 0x14",
               "Data CapSet 0x4 none", "Source CapGet 0x7", "Source CapGetArray 0x7"}));
}

TEST_F(AcquisitionTest, WithoutMemoryInsideTheFetchNothingOfItStaysWithTheModule)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.during(kMaidCommandCapStart, kMaidCapAcquire,
                [](const fake::Call& /*call*/) { throw std::bad_alloc(); });
    EXPECT_THROW(m_acquisition->AcquireNewItems(), std::bad_alloc);
    EXPECT_EQ(nikon::receivers().size(), 0U);
    EXPECT_EQ(maid.calls().back(), "Data CapSet 0x4 none");
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, WithoutItemsThereIsNothingToDo)
{
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_output, "There is no item.\n\n");
}

TEST_F(AcquisitionTest, WithoutACameraThereIsNothingToDo)
{
    m_tree->CloseChild(m_tree->root(), 1);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_output, "");
}

TEST_F(AcquisitionTest, AListThatCannotBeReadEndsThePass)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.refuse(kMaidCommandCapGet, kMaidCapChildren);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AnItemWithTheId0EndsThePass)
{
    maid.addItem(0, {fake::wholeFile("abc")});
    maid.addItem(5, {fake::wholeFile("def")});
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, AnItemThatAnEventHasOpenedIsNotOpenedTwice)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(maid.count("Source Open 0x5"), 1);
    EXPECT_EQ(maid.count("Item Open 0x1"), 1);
    EXPECT_EQ(m_output, "1. Image\n");
}

TEST_F(AcquisitionTest, AnItemIsClosedWhenTheModuleSaysThatItMayBeRemoved)
{
    maid.addItem(5, {fake::wholeFile("abc", kMaidFileJpeg, true)});
    maid.dropsFetchedItems = true;
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(maid.count("Item Close 0x0"), 1);
    EXPECT_TRUE(m_tree->source()->children.empty());
}

TEST_F(AcquisitionTest, AnItemThatMayNotBeRemovedStaysOpen)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    EXPECT_EQ(maid.count("Item Close 0x0"), 0);
    EXPECT_EQ(m_tree->source()->children.size(), 1U);
}

TEST_F(AcquisitionTest, APathWithAQuoteIsAnnouncedAsItIs)
{
    const std::string folder = m_folder.makeFolder("Bob's ü");
    g_szExportFolder.set(folder.c_str());
    maid.addItem(5, {fake::wholeFile("abc")});
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(m_events.front().rfind(
                  "{'GENERAL_NEWFILE':r'" + folder + platform::kPathSeparator + "Nikon_", 0),
              0U);
}

// Kinds of data.

TEST_F(AcquisitionTest, TheKindsOfDataAreListedInTheirOrder)
{
    maid.addItem(5, {fake::wholeFile("abc")}, kMaidItemImage | kMaidItemMovie | kMaidItemThumbnail);
    acquire();
    EXPECT_EQ(m_output,
              "Item object is opened.\n\n1. Image\n2. Movie\n3. Thumbnail\n"
              "Image object is opened.\n\n");
}

TEST_F(AcquisitionTest, AnItemThatOffersOnlyAMovieOrAThumbnailIsNotDownloaded)
{
    maid.addItem(5, {fake::wholeFile("movie")}, kMaidItemMovie);
    maid.addItem(6, {fake::wholeFile("thumbnail")}, kMaidItemThumbnail);
    maid.addItem(7, {fake::wholeFile("both")}, kMaidItemMovie | kMaidItemThumbnail);
    maid.addItem(8, {fake::wholeFile("nothing")}, 0);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_EQ(acquisitions(), 0);
}

TEST_F(AcquisitionTest, AnItemThatIsNoImageDoesNotKeepThePicturesBehindIt)
{
    maid.addItem(5, {}, kMaidItemMovie);
    maid.addItem(6, {fake::wholeFile("abc")});
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(maid.count("Item CapGet 0xC"), 2);
    maid.clearCalls();
    acquire();
    EXPECT_EQ(maid.count("Item CapGet 0xC"), 1);  // tried again in the next cycle
}

// Several pictures.

TEST_F(AcquisitionTest, AllPicturesAreFetchedInOnePass)
{
    for (std::uint32_t id = 1; id <= 20; ++id) {
        maid.addItem(id, {fake::wholeFile(std::to_string(id))});
    }
    EXPECT_EQ(acquired().size(), 20U);
    EXPECT_EQ(m_folder.size(), 20);
}

TEST_F(AcquisitionTest, APictureThatWasWrittenAndStaysListedIsNotWrittenAgain)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(AcquisitionTest, AnItemThatStaysListedAfterItsCloseIsNotWrittenAgain)
{
    maid.addItem(5, {fake::wholeFile("abc", kMaidFileJpeg, true)});
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(AcquisitionTest, AnIdThatWasNotListedForAWhileIsANewPicture)
{
    maid.addItem(5, {fake::wholeFile("abc", kMaidFileJpeg, true)});
    maid.dropsFetchedItems = true;
    EXPECT_EQ(acquired(), Lines{"abc"});
    maid.addItem(5, {fake::wholeFile("def", kMaidFileJpeg, true)});
    EXPECT_EQ(acquired(), Lines{"def"});
}

TEST_F(AcquisitionTest, AnIdThatIsUsedAgainAtOnceIsFetchedInTheNextPass)
{
    maid.dropsFetchedItems = true;
    maid.addItem(5, {fake::wholeFile("abc", kMaidFileJpeg, true)});
    // The next picture is there, and announced, before the list is read again.
    fake::Rule reuse{kMaidCommandCapGet, kMaidCapChildren};
    reuse.skip = 1;
    reuse.action = [&](const fake::Call& /*call*/) {
        maid.addItem(5, {fake::wholeFile("def", kMaidFileJpeg, true)});
        fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    };
    maid.rule(reuse);
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(acquired(), Lines{"def"});
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, APictureThatIsAnnouncedAnewIsWrittenAnew)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AnIdThatIsAnnouncedAnewWhileItsOldItemIsOpenIsANewPicture)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    ASSERT_NE(m_tree->FindChild(m_tree->source(), 5), nullptr);
    maid.removeItem(5);
    maid.addItem(5, {fake::wholeFile("def")});
    fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    EXPECT_EQ(acquired(), Lines{"def"});
}

TEST_F(AcquisitionTest, TwoFilesOfOneItemAreBothAnnounced)
{
    maid.addItem(5, {fake::wholeFile("jpeg"), fake::wholeFile("nef", kMaidFileNef)});
    EXPECT_EQ(acquired(), (Lines{"jpeg", "nef"}));
}

TEST_F(AcquisitionTest, WhenTheHostEndsTheSessionInsideAnEventThePassEnds)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    m_acquisition = std::make_unique<nikon::Acquisition>(
        m_tree,
        [this](const std::string& /*text*/) {
            m_goesOn = false;
            return false;
        },
        [this] { return m_goesOn; });
    acquire();
    EXPECT_EQ(acquisitions(), 1);
}

// What goes wrong.

TEST_F(AcquisitionTest, AnItemThatCannotBeOpenedEndsThePassAndComesLastInTheNext)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    maid.refuse(kMaidCommandOpen, 5, -127, 2);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_output, "Failed in Opening an object.\nItem object can't be opened.\n\n");
    EXPECT_EQ(acquired(), Lines{"def"});
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AnImageThatCannotBeOpenedEndsThePass)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.refuse(kMaidCommandOpen, 1);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(m_output,
              "Item object is opened.\n\n1. Image\n"
              "Failed in Opening an object.\nImage object can't be opened.\n\n");
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, KindsOfDataThatCannotBeReadEndThePass)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    maid.refuse(kMaidCommandCapGet, kMaidCapDataTypes);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(acquired(), (Lines{"def", "abc"}));
    maid.addItem(7, {fake::wholeFile("ghi")}).remove(kMaidCapDataTypes);
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, AFailedAcquisitionIsPassedOverAndTriedAgainInTheNextPass)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    maid.refuse(kMaidCommandCapStart, kMaidCapAcquire);
    EXPECT_EQ(acquired(), Lines{"def"});
    EXPECT_EQ(acquisitions(), 2);
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AStartThatIsRefusedLeavesItsProcedureWhichFindsNothing)
{
    fake::Object& data = maid.addItem(5, {fake::wholeFile("abc")}).childAt(1);
    maid.refuse(kMaidCommandCapStart, kMaidCapAcquire);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(maid.count("Data CapSet 0x4"), 1);
    EXPECT_EQ(maid.count("Data CapSet 0x4 none"), 0);
    maid.deliver(data);
    EXPECT_EQ(maid.dataResults(), std::vector<MaidResult>{kMaidFileFailed});
    EXPECT_EQ(m_folder.size(), 0);

    // The next one has a procedure of its own, and takes it away.
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(maid.count("Data CapSet 0x4"), 2);
    EXPECT_EQ(maid.count("Data CapSet 0x4 none"), 1);
    maid.deliver(data);
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(AcquisitionTest, ARefusedDataProcedureIsAFailedAcquisition)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.refuse(kMaidCommandCapSet, kMaidCapDataProc);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(acquisitions(), 0);
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, WithoutADataProcedureNothingIsAcquired)
{
    maid.addItem(5, {fake::wholeFile("abc")}).childAt(1).remove(kMaidCapDataProc);
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(acquisitions(), 0);
}

TEST_F(AcquisitionTest, AnAcquisitionThatCompletesLaterIsWaitedFor)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    fake::Rule rule{kMaidCommandCapStart, kMaidCapAcquire};
    rule.result = kMaidPending;
    rule.polls = 4;
    maid.rule(rule);
    EXPECT_EQ(acquired(), Lines{"abc"});
    EXPECT_EQ(maid.polls(), 4);
}

TEST_F(AcquisitionTest, AnAcquisitionThatIsNeverCompletedIsGivenUp)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    fake::Rule rule{kMaidCommandCapStart, kMaidCapAcquire};
    rule.polls = fake::kNever;
    maid.rule(rule);
    EXPECT_EQ(acquired(), Lines{"abc"});  // its data came all the same
    maid.completeAll();
}

TEST_F(AcquisitionTest, DataAfterTheEndOfTheAcquisitionIsRefused)
{
    fake::Object& data = maid.addItem(5, {fake::wholeFile("abc")}).childAt(1);
    acquire();
    maid.deliver(data);
    EXPECT_EQ(maid.dataResults(), (std::vector<MaidResult>{kMaidOk, kMaidFileFailed}));
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(AcquisitionTest, DataThatDoesNotAddUpDoesNoHarm)
{
    fake::Part withoutData = fake::wholeFile("abc");
    withoutData.withoutData = true;
    maid.addItem(5, {fake::filePart("abcdef", 3), fake::filePart("", 0xFFFFFFFF), withoutData,
                     fake::imagePart("abc", 3, 1)});
    acquire();
    for (const MaidResult result : maid.dataResults()) {
        EXPECT_NE(result, kMaidPending);
    }
    EXPECT_EQ(m_folder.size(), 0);
}

TEST_F(AcquisitionTest, AnItemThatIsRemovedInsideItsAcquisitionDoesNoHarm)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    maid.during(kMaidCommandCapStart, kMaidCapAcquire, [&](const fake::Call& call) {
        call.object->at(kMaidCapDataProc).callback = {};
        fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
        maid.removeItem(5);
    });
    EXPECT_EQ(acquired(), (Lines{"abc", "def"}));
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, AnItemThatIsRemovedInsideItsAcquisitionLosesItsDataProcedure)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.during(kMaidCommandCapStart, kMaidCapAcquire, [&](const fake::Call& call) {
        call.object->at(kMaidCapDataProc).callback = {};
        fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
        maid.removeItem(5);
    });
    acquire();
    EXPECT_EQ(maid.count("Data CapSet 0x4 none"), 1);
}

TEST_F(AcquisitionTest, ACameraThatIsRemovedInsideAnAcquisitionEndsThePass)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.addItem(6, {fake::wholeFile("def")});
    maid.during(kMaidCommandCapStart, kMaidCapAcquire, [&](const fake::Call& call) {
        call.object->at(kMaidCapDataProc).callback = {};
        fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    });
    acquire();
    EXPECT_EQ(m_tree->source(), nullptr);
    EXPECT_EQ(acquisitions(), 1);
}

// Folders and failed writes.

TEST_F(AcquisitionTest, InAFolderThatDoesNotExistNothingIsWrittenAndNoEventIsSent)
{
    g_szExportFolder.set("/not there");
    maid.addItem(5, {fake::wholeFile("abc")});
    EXPECT_EQ(acquire(), Lines{});
    EXPECT_EQ(maid.dataResults(), std::vector<MaidResult>{kMaidFileFailed});
    g_szExportFolder.set(m_folder.path().c_str());
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AFailedWriteIsAnnouncedAndTriedAgain)
{
    g_szExportFolder.set("");
    maid.addItem(5, {fake::wholeFile("abc", kMaidFileJpeg, true)});
    EXPECT_EQ(acquire(), Lines{"{'GENERAL_WRITEFAIL':1}"});
    EXPECT_EQ(maid.count("Item Close 0x0"), 0);
    g_szExportFolder.set(m_folder.path().c_str());
    EXPECT_EQ(acquired(), Lines{"abc"});
}

TEST_F(AcquisitionTest, AFolderThatVanishesIsNoReasonToStop)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    fs::remove_all(m_folder.path());
    maid.addItem(6, {fake::wholeFile("def")});
    EXPECT_EQ(acquire(), Lines{});
    fs::create_directory(m_folder.path());
    EXPECT_EQ(acquired(), Lines{"def"});
}

TEST_F(AcquisitionTest, APictureWhoseCapabilitiesCouldNotBeReadIsFetchedInTheNextPass)
{
    for (const std::uint32_t level : {kMaidLevelItem, kMaidLevelData}) {
        for (const std::uint32_t command : {kMaidCommandGetCapCount, kMaidCommandGetCapInfo}) {
            fake::Rule rule{command};
            rule.level = level;
            rule.result = -127;
            maid.rule(rule);
            g_szLastFile.clear();
            maid.addItem(5, {fake::wholeFile("abc")});
            EXPECT_EQ(acquire(), Lines{}) << level << ", " << command;
            EXPECT_EQ(acquired(), Lines{"abc"}) << level << ", " << command;
            m_tree->CloseChild(m_tree->source(), 5);
            maid.removeItem(5);
            acquire();
        }
    }
}

// The last file.

TEST_F(AcquisitionTest, AnOldPathIsAnnouncedAgainWhenNoFileWasProduced)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    const Lines first = acquire();
    maid.addItem(6, {});
    EXPECT_EQ(acquire(), first);
    EXPECT_EQ(acquire(), first);
}

TEST_F(AcquisitionTest, AnOldPathWhoseFileIsGoneIsNotAnnounced)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    const Lines first = acquire();
    fs::remove(pathIn(first.front()));
    maid.addItem(6, {});
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, AnOldPathIsForgottenWhenTheHostMovesTheFolder)
{
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    g_szLastFile.clear();
    maid.addItem(6, {});
    EXPECT_EQ(acquire(), Lines{});
}

TEST_F(AcquisitionTest, AnOldFailureIsAnnouncedAgain)
{
    g_szExportFolder.set("");
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    maid.removeItem(5);
    maid.addItem(6, {});
    EXPECT_EQ(acquire(), Lines{"{'GENERAL_WRITEFAIL':1}"});
}

TEST_F(AcquisitionTest, AMovedFolderIsUsedForTheNextPicture)
{
    const std::string other = m_folder.makeFolder("other");
    maid.addItem(5, {fake::wholeFile("abc")});
    acquire();
    g_szExportFolder.set(other.c_str());
    maid.addItem(6, {fake::wholeFile("def")});
    EXPECT_EQ(pathIn(acquire().at(0)).rfind(other + platform::kPathSeparator + "Nikon_", 0), 0U);
}

// Item memory.

TEST(WrittenItems, AnItemThatIsGoneBeforeItWasWrittenDoesNotCount)
{
    nikon::WrittenItems items;
    items.begin(5);
    items.add();
    EXPECT_TRUE(items.contains(5));
    items.begin(6);
    items.remove(6);
    items.add();
    EXPECT_FALSE(items.contains(6));
    items.keepOnly({6});
    EXPECT_FALSE(items.contains(5));
}

TEST(WrittenItems, AnItemStaysGoneWhenAnotherOneGoesBehindIt)
{
    nikon::WrittenItems items;
    items.begin(5);
    items.remove(5);
    items.remove(6);
    items.add();
    EXPECT_FALSE(items.contains(5));
}

}  // namespace
