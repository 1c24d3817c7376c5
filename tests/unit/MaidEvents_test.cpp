// How the program reacts to the events of a driver module.
#include <functional>

#include "FakeMaid.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidProcedures.h"
#include "nikon/MaidTree.h"

using nikon::MaidObjectPtr;
using Lines = std::vector<std::string>;

namespace {

class MaidEventsTest : public fake::MaidTest
{
protected:
    void SetUp() override
    {
        m_tree = std::make_shared<nikon::MaidTree>(maid.library(), impatient());
        maid.addItem(5, {});
        ASSERT_TRUE(m_tree->OpenModule());
        ASSERT_TRUE(m_tree->OpenSource());
        m_source = m_tree->source();
        maid.clearCalls();
    }

    void TearDown() override
    {
        maid.clearRules();
        m_tree->CloseTree();
        MaidTest::TearDown();
    }

    // Opens the item and its Data object.
    void openItem()
    {
        m_item = m_tree->OpenChild(m_source, 5);
        ASSERT_NE(m_tree->OpenChild(m_item, 1), nullptr);
        maid.clearCalls();
    }

    fake::Object& item() { return maid.source->childAt(5); }
    fake::Object& data() { return item().childAt(1); }

    // What raising an event writes.
    static std::string outputOf(const fake::Object& object, std::uint32_t event,
                                MaidData parameter = 0)
    {
        testing::internal::CaptureStdout();
        fake::Maid::raise(object, event, parameter);
        return testing::internal::GetCapturedStdout();
    }

    std::shared_ptr<nikon::MaidTree> m_tree;
    MaidObjectPtr m_source;
    MaidObjectPtr m_item;
};

// New children.

TEST_F(MaidEventsTest, ANewCameraIsOpenedAndItsChildrenAreEnumerated)
{
    fake::Maid::addChild(maid.module, kMaidLevelSource, 2);
    EXPECT_EQ(outputOf(maid.module, kMaidEventAddChild, 2), "");
    EXPECT_NE(m_tree->FindChild(m_tree->root(), 2), nullptr);
    EXPECT_EQ(maid.calls().back(), "Source EnumChildren 0x0");
    EXPECT_EQ(m_tree->source(), m_source);
}

TEST_F(MaidEventsTest, ANewPictureIsOpenedAsAnItemAndItsChildrenAreEnumerated)
{
    EXPECT_EQ(outputOf(*maid.source, kMaidEventAddChild, 5), "");
    const MaidObjectPtr opened = m_tree->FindChild(m_source, 5);
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(opened->object->type, kMaidLevelItem);
    EXPECT_EQ(maid.count("Item EnumChildren 0x0"), 1);
    // The module answers with events of its own.
    EXPECT_NE(m_tree->FindChild(opened, 1), nullptr);
}

TEST_F(MaidEventsTest, ANewChildOfAnItemIsOpenedOnly)
{
    m_tree->OpenChild(m_source, 5);
    maid.clearCalls();
    EXPECT_EQ(outputOf(item(), kMaidEventAddChild, 1), "");
    EXPECT_EQ(maid.calls().front(), "Item Open 0x1");
    EXPECT_EQ(maid.count("Data EnumChildren 0x0"), 0);
}

TEST_F(MaidEventsTest, ANewPictureIsNotOpenedAnyMoreWhenTheSessionEnds)
{
    m_tree->driver().enter(nikon::MaidDriver::Phase::stopping);
    EXPECT_EQ(outputOf(*maid.source, kMaidEventAddChild, 5), "");
    EXPECT_EQ(maid.calls(), Lines{});
    EXPECT_EQ(m_tree->FindChild(m_source, 5), nullptr);
}

TEST_F(MaidEventsTest, AChildThatIsOpenAlreadyIsNotOpenedTwice)
{
    fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    maid.clearCalls();
    fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    fake::Maid::raise(maid.module, kMaidEventAddChild, 1);
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidEventsTest, AnAnnouncementInsideTheOpenOfTheSameChildDoesNotOpenItTwice)
{
    maid.during(kMaidCommandOpen, 5, [&](const fake::Call& /*call*/) {
        fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
        fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
    });
    EXPECT_NE(m_tree->OpenChild(m_source, 5), nullptr);
    EXPECT_EQ(maid.count("Source Open 0x5"), 1);
    EXPECT_EQ(m_source->children.size(), 1U);
}

TEST_F(MaidEventsTest, AChildThatCannotBeOpenedIsLeftAtThat)
{
    maid.refuse(kMaidCommandOpen, 5);
    EXPECT_EQ(outputOf(*maid.source, kMaidEventAddChild, 5), "Failed in Opening an object.\n");
    EXPECT_EQ(maid.calls(), Lines{"Source Open 0x5"});
}

TEST_F(MaidEventsTest, ChildrenThatAnnounceChildrenWithoutEndAreNotFollowedForEver)
{
    std::uint32_t next = 100;
    fake::Rule rule{kMaidCommandOpen};
    rule.times = 0;
    rule.result = -127;
    rule.action = [&](const fake::Call& /*call*/) {
        fake::Maid::raise(*maid.source, kMaidEventAddChild, next++);
    };
    maid.rule(rule);
    testing::internal::CaptureStdout();
    fake::Maid::raise(*maid.source, kMaidEventAddChild, next++);
    testing::internal::GetCapturedStdout();
    EXPECT_LT(next, 200U);
    EXPECT_TRUE(m_source->children.empty());
}

// Children that go.

TEST_F(MaidEventsTest, ARemovedChildIsClosedWithEverythingBelowIt)
{
    openItem();
    EXPECT_EQ(outputOf(*maid.source, kMaidEventRemoveChild, 5), "");
    EXPECT_TRUE(m_item->closed);
    EXPECT_EQ(m_tree->FindChild(m_source, 5), nullptr);
    EXPECT_EQ(maid.count("Data Close 0x0"), 1);
}

TEST_F(MaidEventsTest, ARemovedDataObjectIsClosed)
{
    openItem();
    fake::Maid::raise(item(), kMaidEventRemoveChild, 1);
    EXPECT_TRUE(m_item->children.empty());
}

TEST_F(MaidEventsTest, ARemovalForAnIdThatIsNotOpenChangesNothing)
{
    openItem();
    for (const MaidData id : {MaidData{0}, MaidData{99}, ~MaidData{0}}) {
        EXPECT_EQ(outputOf(*maid.source, kMaidEventRemoveChild, id), "");
        EXPECT_EQ(outputOf(maid.module, kMaidEventRemoveChild, id), "");
    }
    EXPECT_EQ(maid.calls(), Lines{});
    EXPECT_EQ(m_source->children.size(), 1U);
}

TEST_F(MaidEventsTest, TheCameraInUseCanBeRemoved)
{
    openItem();
    fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    EXPECT_EQ(m_tree->source(), nullptr);
    EXPECT_TRUE(m_source->closed);
    EXPECT_TRUE(m_item->closed);
}

TEST_F(MaidEventsTest, AnEventInsideTheCloseOfItsOwnObjectLeadsToNoCommand)
{
    openItem();
    // A module may use a procedure once more that was taken from it.
    const MaidCallback events = item().at(kMaidCapEventProc).callback;
    fake::Rule close{kMaidCommandClose};
    close.level = kMaidLevelItem;
    close.action = [&](const fake::Call& /*call*/) {
        reinterpret_cast<MaidEventProcedure>(events.procedure)(events.reference,
                                                               kMaidEventCapChange, 0);
    };
    maid.rule(close);
    EXPECT_TRUE(m_tree->CloseChild(m_source, 5));
    EXPECT_EQ(maid.calls().back(), "Item Close 0x0");
}

TEST_F(MaidEventsTest, AnObjectWhoseCloseWasRefusedTakesCommandsAgain)
{
    openItem();
    fake::Rule close{kMaidCommandClose};
    close.level = kMaidLevelItem;
    close.result = -127;
    maid.rule(close);
    EXPECT_FALSE(m_tree->CloseChild(m_source, 5));
    EXPECT_TRUE(nikon::GetUnsigned(m_tree->driver(), m_item, kMaidCapDataTypes, 0));
    EXPECT_TRUE(m_tree->CloseChild(m_source, 5));
}

TEST_F(MaidEventsTest, AnObjectCanBeRemovedInsideItsOwnClose)
{
    openItem();
    maid.during(kMaidCommandCapSet, kMaidCapEventProc, [&](const fake::Call& /*call*/) {
        fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
        fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
    });
    EXPECT_TRUE(m_tree->CloseChild(m_source, 5));
    EXPECT_EQ(maid.count("Item Close 0x0"), 1);
}

// Capabilities.

TEST_F(MaidEventsTest, AChangedListOfCapabilitiesReplacesTheDescriptorsAtEveryLevel)
{
    openItem();
    const auto expectNew = [&](fake::Object& object, const MaidObjectPtr& ref) {
        object.cap(0x9999, kMaidCapTypeUnsigned, kMaidOperationGet);
        EXPECT_FALSE(nikon::FindCapability(m_tree->driver(), ref, 0x9999));
        EXPECT_EQ(outputOf(object, kMaidEventCapChange), "");
        EXPECT_TRUE(nikon::FindCapability(m_tree->driver(), ref, 0x9999));
    };
    expectNew(maid.module, m_tree->root());
    expectNew(*maid.source, m_source);
    expectNew(item(), m_item);
    expectNew(data(), m_item->children.front());
}

TEST_F(MaidEventsTest, LaterLookUpsSeeTheNewEditableBitsAndTheNewCapture)
{
    maid.source->at(kMaidCapShutterSpeed).info.operations = kMaidOperationGet;
    maid.source->remove(kMaidCapCapture);
    fake::Maid::raise(*maid.source, kMaidEventCapChange);
    nikon::MaidDriver& driver = m_tree->driver();
    EXPECT_FALSE(nikon::FindCapability(driver, m_source, kMaidCapShutterSpeed, kMaidOperationSet));
    EXPECT_FALSE(nikon::FindCapability(driver, m_source, kMaidCapCapture));
}

TEST_F(MaidEventsTest, DescriptorsReplacedInsideTheirOwnFetchAreTheNewOnes)
{
    maid.during(kMaidCommandGetCapInfo, fake::kAny, [&](const fake::Call& /*call*/) {
        maid.source->cap(0x9999, kMaidCapTypeUnsigned, kMaidOperationGet);
        fake::Maid::raise(*maid.source, kMaidEventCapChange);
    });
    EXPECT_TRUE(nikon::GetCapInfo(m_tree->driver(), m_source));
    EXPECT_TRUE(nikon::FindCapability(m_tree->driver(), m_source, 0x9999));
}

TEST_F(MaidEventsTest, AChangeInsideEveryFetchIsNotFollowedForEver)
{
    fake::Rule rule{kMaidCommandGetCapCount};
    rule.times = 0;
    rule.action = [&](const fake::Call& /*call*/) {
        fake::Maid::raise(*maid.source, kMaidEventCapChange);
    };
    maid.rule(rule);
    EXPECT_TRUE(nikon::GetCapInfo(m_tree->driver(), m_source));
    EXPECT_LT(maid.calls().size(), 200U);
}

TEST_F(MaidEventsTest, AChangedValueIsShownWithItsCapability)
{
    openItem();
    for (const fake::Object* object : {&maid.module, maid.source, &item(), &data()}) {
        EXPECT_EQ(outputOf(*object, kMaidEventCapChangeValue, 0x8112),
                  "The value of Capability(CapID=0x8112) was changed.\n");
        EXPECT_EQ(outputOf(*object, kMaidEventCapChangeValue, MaidData{0xABCDEF0123456789}),
                  "The value of Capability(CapID=0xABCDEF0123456789) was changed.\n");
    }
}

// The rest.

TEST_F(MaidEventsTest, EventsThatALevelDoesNotKnowAreNamed)
{
    openItem();
    const std::pair<const fake::Object*, std::string> levels[] = {
        {&maid.module, "Module"}, {maid.source, "Source"}, {&item(), "Item"}, {&data(), "Data"}};
    for (const auto& [object, name] : levels) {
        const std::string rest = " to " + name + " object is not supported.\n\n";
        EXPECT_EQ(outputOf(*object, kMaidEventWarmingUp), "Event_WarmingUp" + rest);
        EXPECT_EQ(outputOf(*object, kMaidEventWarmedUp), "Event_WarmedUp" + rest);
        for (const std::uint32_t event : {7U, 8U, 4294967295U}) {
            EXPECT_EQ(outputOf(*object, event),
                      "Detected unknown Event to the " + name + " object.\n\n");
        }
    }
    EXPECT_EQ(outputOf(data(), kMaidEventAddChild, 1),
              "Event_AddChild to Data object is not supported.\n\n");
    EXPECT_EQ(outputOf(data(), kMaidEventRemoveChild, 1),
              "Event_RemoveChild to Data object is not supported.\n\n");
    EXPECT_EQ(outputOf(data(), kMaidEventOrphanedChildren),
              "Event_OrphanedChildren to Data object is not supported.\n\n");
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidEventsTest, OrphanedChildrenChangeNothingAboveTheDataObjects)
{
    openItem();
    for (const fake::Object* object : {&maid.module, maid.source, &item()}) {
        EXPECT_EQ(outputOf(*object, kMaidEventOrphanedChildren), "");
    }
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidEventsTest, EventsForUnknownAndClosedObjectsAreIgnored)
{
    openItem();
    const MaidCallback old = item().at(kMaidCapEventProc).callback;
    m_tree->CloseChild(m_source, 5);
    maid.clearCalls();
    const auto procedure = reinterpret_cast<MaidEventProcedure>(old.procedure);
    testing::internal::CaptureStdout();
    int somebody = 0;
    for (MaidReference reference :
         {old.reference, MaidReference{nullptr}, static_cast<MaidReference>(&somebody)}) {
        for (std::uint32_t event = 0; event < 9; ++event) {
            procedure(reference, event, 1);
        }
        nikon::showProgress(0, 0, reference, 1, 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidEventsTest, EventsAfterTheEndOfTheSessionAreIgnored)
{
    const MaidCallback old = maid.source->at(kMaidCapEventProc).callback;
    m_tree->CloseTree();
    m_tree = std::make_shared<nikon::MaidTree>(maid.library(), impatient());
    maid.clearCalls();
    reinterpret_cast<MaidEventProcedure>(old.procedure)(old.reference, kMaidEventAddChild, 5);
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidEventsTest, EventsOnAThreadOfTheModulesOwnAreTakenBetweenCommands)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 30; ++n) {
                fake::Maid::raise(*maid.source,
                                  n % 2 == 0 ? kMaidEventAddChild : kMaidEventRemoveChild, 5);
                nikon::GetUnsigned(m_tree->driver(), m_source, kMaidCapLiveness, 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LE(m_source->children.size(), 1U);
}

TEST_F(MaidEventsTest, WithoutMemoryAnEventIsGivenUpInsideTheProcedure)
{
    const auto runOutOfMemory = [](const fake::Call& /*call*/) { throw std::bad_alloc(); };
    maid.during(kMaidCommandGetCapCount, fake::kAny, runOutOfMemory);
    EXPECT_NO_THROW(fake::Maid::raise(*maid.source, kMaidEventAddChild, 5));
    ASSERT_NE(m_tree->FindChild(m_source, 5), nullptr);
    m_tree->describeAgain(m_tree->FindChild(m_source, 5));

    maid.during(kMaidCommandCapSet, kMaidCapEventProc, runOutOfMemory);
    EXPECT_NO_THROW(fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5));
    EXPECT_NE(m_tree->FindChild(m_source, 5), nullptr);
    fake::Maid::raise(*maid.source, kMaidEventRemoveChild, 5);
    EXPECT_EQ(m_tree->FindChild(m_source, 5), nullptr);
}

TEST_F(MaidEventsTest, ProgressIsDrawn)
{
    testing::internal::CaptureStdout();
    fake::Maid::showProgress(*maid.source, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "o");
}

}  // namespace
