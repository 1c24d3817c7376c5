// Events: when they come, what they tell, and the ones that make no sense.
#include "Host.h"

namespace {

class NikonEvent : public NikonOpenTest
{
protected:
    using Parameters = std::vector<std::uint64_t>;

    void addItem() const
    {
        const Bytes content = pattern(10);
        driver().addItem(0, kMaidItemImage, kMaidFileJpeg, 0, content.data(), 10);
    }
};

TEST_F(NikonEvent, ComesInsideTheNextCallToRunPendingWork)
{
    addItem();
    m_host.number(m_host.source(), kMaidCapLiveness);
    EXPECT_TRUE(m_host.events.empty());
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), Parameters{1});
}

TEST_F(NikonEvent, ComesInsideAnyCommandWhenTold)
{
    configure("events.in_all = 1");
    addItem();
    m_host.number(m_host.source(), kMaidCapLiveness);
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), Parameters{1});
}

TEST_F(NikonEvent, OfAnItemThatIsOpenAlreadyIsNotSent)
{
    addItem();
    ASSERT_NE(m_host.openChild(m_host.source(), 1), nullptr);
    Host::async(m_host.source());
    EXPECT_TRUE(m_host.events.empty());
    EXPECT_EQ(driver().pictureValue(0, "opened"), 1);
}

TEST_F(NikonEvent, ProceduresMayOpenAndCloseObjects)
{
    addItem();
    m_host.inEventProcedure = [&](const Host::Event& event) {
        if (event.code == kMaidEventAddChild) {
            MaidObject* item =
                m_host.openChild(m_host.source(), static_cast<std::uint32_t>(event.parameter));
            ASSERT_NE(item, nullptr);
            m_host.capabilities(item);
            m_host.close(item);
        }
    };
    Host::async(m_host.source());
    EXPECT_EQ(driver().pictureValue(0, "opened"), 1);
}

TEST_F(NikonEvent, EnumeratingTellsOfEveryChildBeforeItCompletes)
{
    addItem();
    addItem();
    ASSERT_TRUE(driver().eventRule("0 lose calls=0"));
    addItem();
    driver().clearFaults();
    m_host.events.clear();
    EXPECT_TRUE(m_host.issue(m_host.source(), kMaidCommandEnumChildren, 0).isGood());
    Parameters told = m_host.parameters(kMaidEventAddChild);
    EXPECT_EQ(told, (Parameters{1, 2, 1, 2, 3}));
    EXPECT_TRUE(m_host.issue(m_host.module(), kMaidCommandEnumChildren, 0).isGood());
}

TEST_F(NikonEvent, PullingTheCableTellsTheModule)
{
    driver().unplug(0);
    Host::async(m_host.module());
    EXPECT_EQ(m_host.parameters(kMaidEventRemoveChild), Parameters{1});
    EXPECT_EQ(m_host.events.front().object, m_host.module());
    EXPECT_EQ(m_host.issue(m_host.source(), kMaidCommandCapGet, kMaidCapChildren).result, -10);
    EXPECT_TRUE(m_host.children(m_host.module()).empty());
}

TEST_F(NikonEvent, ObjectsOfBeforeTheCableWasPulledStayDead)
{
    driver().unplug(0);
    driver().plug(0);
    Host::async(m_host.module());
    EXPECT_EQ(m_host.issue(m_host.source(), kMaidCommandCapGet, kMaidCapChildren).result, -10);
    m_host.close(m_host.source());
    MaidObject* source = m_host.openChild(m_host.module(), 1);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(m_host.number(source, kMaidCapLiveness), 1U);
}

TEST_F(NikonEvent, ASecondCameraIsTold)
{
    driver().add("Second", 5);
    Host::async(m_host.module());
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), Parameters{5});
    MaidObject* second = m_host.openChild(m_host.module(), 5);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(driver().sessionOpen(1));
    driver().remove(1);
    EXPECT_EQ(driver().count(), 2);
    EXPECT_EQ(driver().unplug(1), 0);
}

TEST_F(NikonEvent, AnItemTakenAwayWhileItIsTransferredEndsTheTransfer)
{
    configure("picture.size = 10000\ntransfer.chunk = 1000\ntransfer.per_call = 1");
    MaidObject* item = m_host.openChild(m_host.source(), picture());
    MaidObject* data = m_host.openChild(item, kMaidItemImage);
    m_host.inDataProcedure = [&] {
        driver().removeItem(0);
        return kMaidOk;
    };
    const Outcome outcome = m_host.acquire(data);
    EXPECT_EQ(outcome.completion, -10);
    EXPECT_EQ(m_host.received.lengths.size(), 1U);
    EXPECT_EQ(m_host.parameters(kMaidEventRemoveChild), Parameters{1});
    EXPECT_TRUE(m_host.children(m_host.source()).empty());
}

TEST_F(NikonEvent, AnObjectMayBeClosedInsideItsOwnWait)
{
    configure("picture.size = 10000\ntransfer.chunk = 1000\ntransfer.per_call = 1");
    MaidObject* item = m_host.openChild(m_host.source(), picture());
    MaidObject* data = m_host.openChild(item, kMaidItemImage);
    bool isClosed = false;
    m_host.inEventProcedure = [&](const Host::Event& event) {
        if (event.code == kMaidEventRemoveChild) {
            m_host.clearProcedure(data, kMaidCapDataProc);
            m_host.close(item);
            isClosed = true;
        }
    };
    MaidCallback callback{[] {}, nullptr};
    callback.procedure = reinterpret_cast<void (*)()>(
        +[](MaidReference, const void*, const void*) -> MaidResult { return kMaidOk; });
    m_host.setProcedure(data, kMaidCapDataProc, callback.procedure, nullptr);
    const auto outcome = m_host.begin(data, kMaidCommandCapStart, kMaidCapAcquire);
    driver().removeItem(0);
    while (!isClosed) {
        Host::async(m_host.source());
    }
    EXPECT_EQ(outcome->completions, 1);
    EXPECT_EQ(outcome->completion, -11);
}

TEST_F(NikonEvent, AnyEventForAnyObjectCanBeSent)
{
    ASSERT_TRUE(driver().sendEvent(1, 0, 99, 12345));
    ASSERT_TRUE(driver().sendEvent(2, 1, kMaidEventRemoveChild, 777));
    ASSERT_TRUE(driver().sendEvent(2, 1, kMaidEventAddChild, 778));
    EXPECT_EQ(driver().sendEvent(3, 0, 1, 1), 0);
    EXPECT_EQ(driver().sendEvent(2, 8, 1, 1), 0);
    Host::async(m_host.source());
    ASSERT_EQ(m_host.events.size(), 3U);
    EXPECT_EQ(m_host.events[0].object, m_host.module());
    EXPECT_EQ(m_host.events[0].code, 99U);
    EXPECT_EQ(m_host.events[0].parameter, 12345U);
    EXPECT_EQ(driver().eventCount(-1), 3);
    EXPECT_EQ(driver().eventCount(99), 1);
    EXPECT_TRUE(driver().waitForEvents(99, 1, 0));
    // The module told of a child that there is not: opening it is no misuse.
    EXPECT_EQ(m_host.openChild(m_host.source(), 778), nullptr);
}

TEST_F(NikonEvent, ForTheOpenChildAgainMakesASecondOpenNoMisuse)
{
    addItem();
    ASSERT_NE(m_host.openChild(m_host.source(), 1), nullptr);
    driver().sendEvent(2, 1, kMaidEventAddChild, 1);
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), Parameters{1});
    EXPECT_EQ(m_host.openChild(m_host.source(), 1), nullptr);
}

TEST_F(NikonEvent, CanCarryAnotherReference)
{
    ASSERT_TRUE(driver().sendStrayEvent(2, 0, kMaidEventCapChange, 0, nullptr));
    Host::async(m_host.source());
    EXPECT_TRUE(m_host.events.empty());
    EXPECT_EQ(driver().eventCount(kMaidEventCapChange), 1);
}

TEST_F(NikonEvent, RulesLoseDoubleAndDelay)
{
    ASSERT_TRUE(driver().eventRule("0 lose"));
    addItem();
    ASSERT_TRUE(driver().eventRule("0 double"));
    addItem();
    ASSERT_TRUE(driver().eventRule("0 delay_ms=50"));
    addItem();
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventAddChild), (Parameters{2, 2}));
    while (m_host.events.size() < 3) {
        Host::async(m_host.source());
    }
    EXPECT_EQ(m_host.events.back().parameter, 3U);
    EXPECT_EQ(driver().eventRule("nonsense"), 0);
}

TEST_F(NikonEvent, WithoutAProcedureIsDropped)
{
    m_host.clearProcedure(m_host.source(), kMaidCapEventProc);
    addItem();
    Host::async(m_host.source());
    EXPECT_TRUE(m_host.events.empty());
    EXPECT_NE(callLog().find("event 0x0 source#1 parameter 0x1 has no procedure"),
              std::string::npos);
}

}  // namespace
