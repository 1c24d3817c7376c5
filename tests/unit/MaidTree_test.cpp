// How a driver module's objects are opened, described and closed.
#include "nikon/MaidTree.h"

#include <functional>

#include "FakeMaid.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidProcedures.h"

using nikon::MaidObjectPtr;
using nikon::MaidTree;
using Lines = std::vector<std::string>;

namespace {

class MaidTreeTest : public fake::MaidTest
{
protected:
    void SetUp() override { m_tree = std::make_shared<MaidTree>(maid.library(), impatient()); }

    void TearDown() override
    {
        maid.clearRules();
        m_tree->CloseTree();
        MaidTest::TearDown();
    }

    void open()
    {
        ASSERT_TRUE(m_tree->OpenModule());
        ASSERT_TRUE(m_tree->OpenSource());
        maid.clearCalls();
    }

    static std::string outputOf(const std::function<void()>& work)
    {
        testing::internal::CaptureStdout();
        work();
        return testing::internal::GetCapturedStdout();
    }

    nikon::MaidDriver& driver() { return m_tree->driver(); }

    // Opening fails, with this on standard output.
    void expectNoModule(const std::string& output)
    {
        bool opened = true;
        EXPECT_EQ(outputOf([&] { opened = m_tree->OpenModule(); }), output);
        EXPECT_FALSE(opened);
    }

    void expectNoSource(const std::string& output)
    {
        bool opened = true;
        ASSERT_TRUE(m_tree->OpenModule());
        EXPECT_EQ(outputOf([&] { opened = m_tree->OpenSource(); }), output);
        EXPECT_FALSE(opened);
        EXPECT_EQ(m_tree->source(), nullptr);
    }

    std::shared_ptr<MaidTree> m_tree;
};

// The Module object.

TEST_F(MaidTreeTest, OpeningTheModuleFetchesItsDescriptorsInstallsItsProceduresAndSetsItsMode)
{
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_tree->OpenModule()); }), "");
    EXPECT_EQ(maid.calls(),
              (Lines{"none Open 0x0", "Module GetCapCount 0x0", "Module GetCapInfo 0x5",
                     "Module CapSet 0x2", "Module CapSet 0x3", "Module CapSet 0x5",
                     "Module CapSet 0x8101"}));
    EXPECT_EQ(maid.module.at(kMaidCapModuleMode).value, 1U);
    const MaidObjectPtr root = m_tree->root();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->id, 0x8000);
    EXPECT_EQ(root->object->type, 1U);
    EXPECT_EQ(root->object->clientRef, root->handle);
    EXPECT_TRUE(root->parent.expired());
    EXPECT_EQ(root->caps->size(), 5U);
}

TEST_F(MaidTreeTest, AModuleThatCannotBeOpenedIsReported)
{
    maid.refuse(kMaidCommandOpen, 0);
    expectNoModule("Module object can't be opened.\n\n");
    EXPECT_EQ(m_tree->root(), nullptr);
    EXPECT_EQ(maid.calls(), Lines{"none Open 0x0"});
}

TEST_F(MaidTreeTest, AModuleWhoseOpenIsPendingCountsAsNotOpened)
{
    maid.refuse(kMaidCommandOpen, 0, -1);
    expectNoModule("Module object can't be opened.\n\n");
}

TEST_F(MaidTreeTest, AModuleWithoutDescriptorsIsReported)
{
    maid.refuse(kMaidCommandGetCapCount, fake::kAny);
    expectNoModule("Failed in enumeration of capabilities.\n");
}

TEST_F(MaidTreeTest, AModuleThatRefusesAProcedureIsReported)
{
    for (const std::uint32_t capability : {2U, 3U, 5U}) {
        maid.refuse(kMaidCommandCapSet, capability);
        expectNoModule("Failed in setting a call back function.\n");
        EXPECT_TRUE(m_tree->CloseTree());
    }
}

TEST_F(MaidTreeTest, AModuleThatRefusesItsModeIsReported)
{
    maid.refuse(kMaidCommandCapSet, kMaidCapModuleMode);
    expectNoModule("Failed in setting kNkMAIDCapability_ModuleMode.\n");
}

TEST_F(MaidTreeTest, AModuleWithoutAModeOpensWithoutSettingIt)
{
    maid.module.remove(kMaidCapModuleMode);
    EXPECT_TRUE(m_tree->OpenModule());
    EXPECT_TRUE(m_tree->OpenSource());
    EXPECT_EQ(maid.count("Module CapSet 0x8101"), 0);
}

TEST_F(MaidTreeTest, AModeThatCannotBeSetIsLeftAlone)
{
    maid.module.at(kMaidCapModuleMode).info.operations = kMaidOperationGet;
    EXPECT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(maid.count("Module CapSet 0x8101"), 0);
}

TEST_F(MaidTreeTest, ProceduresThatAModuleDoesNotTakeAreNotInstalled)
{
    maid.module.at(kMaidCapProgressProc).info.operations = 0;
    maid.module.remove(kMaidCapEventProc);
    maid.module.at(kMaidCapUserInterfaceProc).info.operations = kMaidOperationGet;
    EXPECT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(maid.calls().back(), "Module CapSet 0x8101");
    EXPECT_EQ(maid.calls().size(), 4U);
}

TEST_F(MaidTreeTest, EveryQuestionToTheUserIsAnsweredWith0)
{
    EXPECT_EQ(nikon::answerUser(nullptr, nullptr), 0U);
    ASSERT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(reinterpret_cast<void*>(maid.module.at(kMaidCapUserInterfaceProc).callback.procedure),
              reinterpret_cast<void*>(nikon::answerUser));
}

// Descriptors.

TEST_F(MaidTreeTest, AModuleThatAnswersTheDescriptorCommandsWithMinus124IsAskedAgain)
{
    maid.refuse(kMaidCommandGetCapCount, fake::kAny, kMaidBufferSize, 3);
    maid.refuse(kMaidCommandGetCapInfo, fake::kAny, kMaidBufferSize, 2);
    EXPECT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(maid.count("Module GetCapCount 0x0"), 6);
    EXPECT_EQ(maid.count("Module GetCapInfo 0x5"), 3);
    EXPECT_EQ(m_tree->root()->caps->size(), 5U);
}

TEST_F(MaidTreeTest, DescriptorsThatComeLaterAreTaken)
{
    fake::Rule rule{kMaidCommandGetCapInfo};
    rule.polls = 2;
    rule.result = kMaidPending;
    maid.rule(rule);
    EXPECT_TRUE(m_tree->OpenModule());
    EXPECT_FALSE(m_tree->root()->caps->empty());
}

TEST_F(MaidTreeTest, AModuleThatAlwaysAnswersMinus124IsGivenUp)
{
    maid.refuse(kMaidCommandGetCapInfo, fake::kAny, kMaidBufferSize, 0);
    expectNoModule("Failed in enumeration of capabilities.\n");
}

TEST_F(MaidTreeTest, CountsOf0AndOfMillionsOfDescriptorsDoNoHarm)
{
    open();
    for (const std::uint32_t count : {0U, 1U, 60'000U, 1'000'000U, 0xFFFFFFFFU}) {
        maid.announcedCaps = count;
        EXPECT_TRUE(nikon::GetCapInfo(driver(), m_tree->source()));
        EXPECT_LE(m_tree->source()->caps->size(), count);
        maid.announcedCaps.reset();
        EXPECT_TRUE(nikon::GetCapInfo(driver(), m_tree->source()));
        EXPECT_EQ(m_tree->source()->caps->size(), maid.source->caps.size());
    }
}

TEST_F(MaidTreeTest, ADescriptionWithoutATerminatorIsReadToItsFieldsEnd)
{
    maid.source->cap(kMaidCapCapture, 0, kMaidOperationStart, std::string(300, 'x'));
    open();
    const auto info = nikon::FindCapability(driver(), m_tree->source(), kMaidCapCapture);
    ASSERT_TRUE(info);
    EXPECT_EQ(nikon::DescriptionOf(*info), std::string(256, 'x'));
}

// The camera.

TEST_F(MaidTreeTest, TheFirstListedSourceIsOpened)
{
    fake::Maid::addChild(maid.module, kMaidLevelSource, 2);
    ASSERT_TRUE(m_tree->OpenModule());
    maid.clearCalls();
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_tree->OpenSource()); }), "Source object is opened.\n\n");
    EXPECT_EQ(m_tree->source()->id, 1);
    EXPECT_EQ(m_tree->source()->parent.lock(), m_tree->root());
    EXPECT_EQ(maid.calls(), (Lines{"Module CapGet 0x7", "Module CapGetArray 0x7", "Module Open 0x1",
                                   "Source GetCapCount 0x0", "Source GetCapInfo 0xB",
                                   "Source CapSet 0x2", "Source CapSet 0x3"}));
}

TEST_F(MaidTreeTest, ASourceThatAnEventHasOpenedIsTaken)
{
    ASSERT_TRUE(m_tree->OpenModule());
    fake::Maid::raise(maid.module, kMaidEventAddChild, 1);
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_tree->OpenSource()); }), "");
    EXPECT_EQ(maid.count("Module Open 0x1"), 1);
    EXPECT_EQ(m_tree->source(), m_tree->FindChild(m_tree->root(), 1));
}

TEST_F(MaidTreeTest, ASourceThatIsRemovedWhileItIsOpenedIsNotTaken)
{
    ASSERT_TRUE(m_tree->OpenModule());
    maid.during(kMaidCommandCapSet, kMaidCapEventProc, [&](const fake::Call& /*call*/) {
        fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    });
    EXPECT_FALSE(m_tree->OpenSource());
    EXPECT_EQ(m_tree->source(), nullptr);
}

TEST_F(MaidTreeTest, AModuleWhoseChildrenAreEmptyHasNoCamera)
{
    maid.module.children.clear();
    expectNoSource("");
}

TEST_F(MaidTreeTest, AModuleWithoutAListOfChildrenHasNoCamera)
{
    maid.module.remove(kMaidCapChildren);
    expectNoSource("");
}

TEST_F(MaidTreeTest, AListOfChildrenOfAnotherTypeOrThatCannotBeReadIsNone)
{
    maid.module.at(kMaidCapChildren).info.type = kMaidCapTypeUnsigned;
    expectNoSource("");
    EXPECT_TRUE(m_tree->CloseTree());
    maid.module.at(kMaidCapChildren).info.type = kMaidCapTypeEnum;
    maid.module.at(kMaidCapChildren).info.operations = kMaidOperationSet;
    expectNoSource("");
}

TEST_F(MaidTreeTest, AListOfChildrenWhoseReadsFailIsNone)
{
    maid.refuse(kMaidCommandCapGet, kMaidCapChildren);
    expectNoSource("");
    EXPECT_TRUE(m_tree->CloseTree());
    maid.refuse(kMaidCommandCapGetArray, kMaidCapChildren);
    expectNoSource("");
}

TEST_F(MaidTreeTest, AListOfChildrenWithAnotherElementSizeIsNone)
{
    for (const int size : {0, 2, 8, -4}) {
        fake::Cap& children = maid.module.at(kMaidCapChildren);
        children.record = {kMaidElementUnsigned, 1, 0, 0, static_cast<std::int16_t>(size), nullptr};
        expectNoSource("");
        EXPECT_TRUE(m_tree->CloseTree());
    }
}

TEST_F(MaidTreeTest, AMillionChildrenAreReadAndFourThousandMillionAreNot)
{
    fake::Cap& children = maid.module.at(kMaidCapChildren);
    children.array = {1, 0, 0, 0};
    children.record = {kMaidElementUnsigned, 1'000'000, 0, 0, 4, nullptr};
    ASSERT_TRUE(m_tree->OpenModule());
    const auto ids = m_tree->ChildIds(m_tree->root());
    ASSERT_TRUE(ids);
    EXPECT_EQ(ids->size(), 1'000'000U);
    EXPECT_EQ(ids->front(), 1U);
    EXPECT_EQ(ids->back(), 0U);
    children.record.elements = 0xFFFFFFFF;
    EXPECT_FALSE(m_tree->ChildIds(m_tree->root()));
}

TEST_F(MaidTreeTest, ASourceThatCannotBeOpenedIsReportedTwice)
{
    maid.refuse(kMaidCommandOpen, 1);
    expectNoSource(
        "Failed in Opening an object.\n"
        "Source object can't be opened.\n\n");
    EXPECT_TRUE(m_tree->root()->children.empty());
}

// The setting 0x8305.

TEST_F(MaidTreeTest, TheSourcesSettingIsShownAndSetTo1)
{
    maid.source->cap(kMaidCapSourceSetting, kMaidCapTypeUnsigned, fake::kSettable, "Some Setting")
        .value = 7;
    ASSERT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_tree->OpenSource()); }),
              "Source object is opened.\n\n[Some Setting]\nCurrent Value: 7\n");
    EXPECT_EQ(maid.count("Source CapGet 0x8305"), 2);
    EXPECT_EQ(maid.source->at(kMaidCapSourceSetting).value, 1U);
}

TEST_F(MaidTreeTest, ASettingThatCannotBeChangedIsShownOnly)
{
    maid.source->cap(kMaidCapSourceSetting, kMaidCapTypeUnsigned, kMaidOperationGet, "Some Setting")
        .value = 0xFFFFFFFF;
    ASSERT_TRUE(m_tree->OpenModule());
    EXPECT_EQ(outputOf([&] { EXPECT_TRUE(m_tree->OpenSource()); }),
              "Source object is opened.\n\n[Some Setting]\nCurrent Value: -1\n"
              "This value cannot be changed. Enter '0' to exit.\n>");
}

TEST_F(MaidTreeTest, WhateverBecomesOfTheSettingTheSourceIsOpen)
{
    fake::Cap& setting = maid.source->cap(kMaidCapSourceSetting, kMaidCapTypeUnsigned,
                                          fake::kSettable, "Some Setting");
    maid.refuse(kMaidCommandCapGet, kMaidCapSourceSetting);
    open();
    EXPECT_EQ(setting.value, 0U);
    EXPECT_TRUE(m_tree->CloseTree());
    maid.refuse(kMaidCommandCapSet, kMaidCapSourceSetting);
    open();
    EXPECT_TRUE(m_tree->CloseTree());
    setting.info.type = kMaidCapTypeEnum;
    open();
    EXPECT_EQ(maid.count("Source CapGet 0x8305"), 0);
}

// Children.

TEST_F(MaidTreeTest, AChildThatCannotBeOpenedLeavesTheParentAsItWas)
{
    maid.addItem(5, {});
    open();
    maid.refuse(kMaidCommandOpen, 5);
    EXPECT_EQ(outputOf([&] { EXPECT_EQ(m_tree->OpenChild(m_tree->source(), 5), nullptr); }),
              "Failed in Opening an object.\n");
    EXPECT_TRUE(m_tree->source()->children.empty());
    EXPECT_NE(m_tree->OpenChild(m_tree->source(), 5), nullptr);
}

TEST_F(MaidTreeTest, AnOpenedChildHasItsDescriptorsAndProcedures)
{
    maid.addItem(5, {});
    open();
    const MaidObjectPtr item = m_tree->OpenChild(m_tree->source(), 5);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->id, 5);
    EXPECT_EQ(m_tree->FindChild(m_tree->source(), 5), item);
    EXPECT_EQ(maid.calls(), (Lines{"Source Open 0x5", "Item GetCapCount 0x0", "Item GetCapInfo 0x4",
                                   "Item CapSet 0x2", "Item CapSet 0x3"}));
}

TEST_F(MaidTreeTest, AChildWhoseDescriptorsOrProceduresFailIsOpenAllTheSame)
{
    maid.addItem(5, {});
    open();
    fake::Rule rule{kMaidCommandGetCapCount};
    rule.level = kMaidLevelItem;
    rule.result = -127;
    maid.rule(rule);
    const MaidObjectPtr item = m_tree->OpenChild(m_tree->source(), 5);
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(item->caps->empty());
}

TEST_F(MaidTreeTest, AnObjectOfAnUnknownLevelGetsNoEventProcedure)
{
    fake::Maid::addChild(*maid.source, 9, 5);
    open();
    EXPECT_NE(m_tree->OpenChild(m_tree->source(), 5), nullptr);
    EXPECT_EQ(maid.count("none CapSet 0x2"), 1);
    EXPECT_EQ(maid.count("none CapSet 0x3"), 0);
}

// Closing.

TEST_F(MaidTreeTest, AChildIsClosedAfterEverythingBelowIt)
{
    maid.addItem(5, {});
    open();
    const MaidObjectPtr item = m_tree->OpenChild(m_tree->source(), 5);
    ASSERT_NE(m_tree->OpenChild(item, 1), nullptr);
    maid.clearCalls();
    EXPECT_TRUE(m_tree->CloseChild(m_tree->root(), 1));
    EXPECT_EQ(maid.calls(),
              (Lines{"Data CapSet 0x2 none", "Data CapSet 0x3 none", "Data Close 0x0",
                     "Item CapSet 0x2 none", "Item CapSet 0x3 none", "Item Close 0x0",
                     "Source CapSet 0x2 none", "Source CapSet 0x3 none", "Source Close 0x0"}));
    EXPECT_EQ(m_tree->source(), nullptr);
    EXPECT_TRUE(m_tree->root()->children.empty());
    EXPECT_TRUE(item->closed);
}

TEST_F(MaidTreeTest, AChildThatGoesWhileTheListIsReadIsNotListed)
{
    maid.addItem(5, {});
    maid.addItem(6, {});
    open();
    fake::Rule rule{kMaidCommandCapGetArray, kMaidCapChildren};
    rule.action = [](const fake::Call& call) {
        reinterpret_cast<MaidEnum*>(call.data)->elements = 1;
    };
    maid.rule(rule);
    EXPECT_EQ(m_tree->ChildIds(m_tree->source()), (std::vector<std::uint32_t>{5}));
    EXPECT_EQ(m_tree->ChildIds(m_tree->source()), (std::vector<std::uint32_t>{5, 6}));
}

TEST_F(MaidTreeTest, AChildThatIsNotOpenCannotBeClosed)
{
    open();
    EXPECT_FALSE(m_tree->CloseChild(m_tree->root(), 99));
    EXPECT_FALSE(m_tree->CloseChild(nullptr, 1));
    EXPECT_EQ(maid.calls(), Lines{});
}

TEST_F(MaidTreeTest, AChildThatTheModuleRefusesToCloseStaysOpen)
{
    maid.addItem(5, {});
    open();
    const MaidObjectPtr item = m_tree->OpenChild(m_tree->source(), 5);
    ASSERT_NE(m_tree->OpenChild(item, 1), nullptr);
    fake::Rule rule{kMaidCommandClose};
    rule.level = kMaidLevelData;
    rule.result = -127;
    maid.rule(rule);
    EXPECT_FALSE(m_tree->CloseChild(m_tree->source(), 5));
    EXPECT_FALSE(item->closed);
    EXPECT_EQ(item->children.size(), 1U);
    EXPECT_TRUE(m_tree->CloseChild(m_tree->source(), 5));
}

TEST_F(MaidTreeTest, TheWholeTreeIsClosedDepthFirstAndTheModuleLast)
{
    maid.addItem(5, {});
    maid.addItem(6, {});
    open();
    for (const int id : {5, 6}) {
        const MaidObjectPtr item = m_tree->OpenChild(m_tree->source(), id);
        ASSERT_NE(m_tree->OpenChild(item, 1), nullptr);
    }
    maid.clearCalls();
    EXPECT_TRUE(m_tree->CloseTree());
    Lines closes;
    for (const std::string& call : maid.calls()) {
        if (call.find("Close") != std::string::npos) {
            closes.push_back(call);
        }
    }
    EXPECT_EQ(closes, (Lines{"Data Close 0x0", "Item Close 0x0", "Data Close 0x0", "Item Close 0x0",
                             "Source Close 0x0", "Module Close 0x0"}));
    EXPECT_EQ(maid.count("Module CapSet 0x5 none"), 1);
    EXPECT_EQ(m_tree->root(), nullptr);
    EXPECT_EQ(m_tree->source(), nullptr);
    EXPECT_FALSE(m_tree->CloseTree());
}

TEST_F(MaidTreeTest, TheFirstFailureEndsTheWalk)
{
    open();
    maid.refuse(kMaidCommandCapSet, kMaidCapProgressProc);
    EXPECT_FALSE(m_tree->CloseTree());
    EXPECT_EQ(maid.calls(), Lines{"Source CapSet 0x2 none"});
    EXPECT_TRUE(m_tree->CloseTree());
}

TEST_F(MaidTreeTest, NoHandleIsLeftWhenTheTreeIsGone)
{
    const std::size_t before = nikon::objectHandles().size();
    maid.addItem(5, {});
    open();
    m_tree->OpenChild(m_tree->source(), 5);
    EXPECT_EQ(nikon::objectHandles().size(), before + 3);
    EXPECT_TRUE(m_tree->CloseTree());
    EXPECT_EQ(nikon::objectHandles().size(), before);
}

}  // namespace
