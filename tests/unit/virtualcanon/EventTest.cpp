// Events: lost, doubled, late, injected, and on which thread they come.
#include <chrono>
#include <set>
#include <thread>

#include "Support.h"

namespace {

class Events : public OpenTest
{};

TEST_F(Events, ComeOnTheLibrarysOwnThread)
{
    std::thread::id thread;
    m_host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        thread = std::this_thread::get_id();
    };
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x101), 1);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(Events, ComeInsideTheCallWhenAskedFor)
{
    configure("events.inside_calls = 1");
    std::thread::id thread;
    m_host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        thread = std::this_thread::get_id();
    };
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    EXPECT_EQ(m_host.count(0x101, 0x406), 1);
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(Events, CanBeLost)
{
    ASSERT_EQ(VirtualCameraEventRule("0x101 lose property=0x406"), 1);
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    ASSERT_EQ(m_host.set(0x406, 0x60), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x101, 0x406), 1);
}

TEST_F(Events, WithoutAHandlerTheySetAnIdleWaitFreeAndLeaveNoReference)
{
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(m_host.shoot(), 0U);
    ASSERT_EQ(VirtualCameraWaitForPictures(1, kDeadlineMs), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    const int references = VirtualCanonReferenceCount("item");
    ASSERT_EQ(EdsSetObjectEventHandler(m_host.camera(), 0x200, nullptr, nullptr), 0U);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x204, VirtualCanonNewItem(0, 0)), 1);
    const auto begun = Clock::now();
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_LT(Clock::now() - begun, std::chrono::seconds(5));
    EXPECT_EQ(VirtualCanonReferenceCount("item"), references);
}

TEST_F(Events, LostPictureLeavesNoReference)
{
    ASSERT_EQ(VirtualCameraEventRule("0x208 lose"), 1);
    ASSERT_EQ(m_host.shoot(), 0U);
    ASSERT_EQ(VirtualCameraWaitForPictures(1, kDeadlineMs), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
    EXPECT_EQ(VirtualCameraPictureValue(0, "announced"), 0);
}

TEST_F(Events, DoubledPictureHasAReferenceEach)
{
    ASSERT_EQ(VirtualCameraEventRule("0x208 double"), 1);
    const EdsDirectoryItemRef first = m_host.picture();
    const EdsDirectoryItemRef second = m_host.nextItem();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(EdsRelease(first), 0U);
    EXPECT_EQ(EdsRelease(second), 0U);
    EXPECT_EQ(VirtualCameraPictureValue(0, "announced"), 2);
}

TEST_F(Events, LateOnesComeAfterOthers)
{
    ASSERT_EQ(VirtualCameraEventRule("0x101 delay_ms=100 property=0x406"), 1);
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    ASSERT_EQ(m_host.set(0x405, 0x28), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.history(), (std::vector<std::string>{"101:405", "101:406"}));
}

TEST_F(Events, RulesCountAndSkip)
{
    ASSERT_EQ(VirtualCameraEventRule("* lose skip=1 calls=2"), 1);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(VirtualCanonSendStateEvent(0, 0x310U + static_cast<unsigned>(i), 0), 1);
    }
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.history(), (std::vector<std::string>{"310:0", "313:0"}));
}

TEST_F(Events, CanBeInjected)
{
    ASSERT_EQ(VirtualCanonSendPropertyEvent(0, 0x101, 0xABCD, 7), 1);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x20C, nullptr), 1);
    ASSERT_EQ(VirtualCanonSendStateEvent(0, 0x303, 1), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.history(), (std::vector<std::string>{"101:ABCD", "20C:0", "303:0"}));
    EXPECT_EQ(VirtualCameraEventCount(0x20C), 1);
}

TEST_F(Events, InjectedReferenceIsTheOneThatArrives)
{
    EdsRelease(m_host.picture());
    void* item = VirtualCanonNewItem(0, 0);
    ASSERT_NE(item, nullptr);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x208, item), 1);
    EXPECT_EQ(m_host.nextItem(), item);
    EXPECT_EQ(EdsRelease(static_cast<EdsBaseRef>(item)), 0U);
}

TEST_F(Events, InjectedReferenceThatIsNeverDeliveredIsNoLeak)
{
    ASSERT_EQ(VirtualCameraEventRule("0x20D delay_ms=60000"), 1);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x20D, VirtualCanonNewItem(0, -1)), 1);
    m_host.close();
    EXPECT_EQ(misuses(), "");
}

TEST_F(Events, ReleasingInsideTheHandlerIsFine)
{
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x20B, VirtualCanonNewItem(0, -1)), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
}

TEST_F(Events, NoneComesAfterTerminate)
{
    for (int i = 0; i < 500; ++i) {
        VirtualCanonSendPropertyEvent(0, 0x101, 1, 0);
    }
    m_host.close();
    const int seen = m_host.count(0x101);
    EXPECT_EQ(VirtualCanonSendPropertyEvent(0, 0x101, 1, 0), 0);
    EXPECT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x101), seen);
}

TEST_F(Events, WaitingOnesComeDuringTerminateWhenAskedFor)
{
    configure("events.at_terminate = 1");
    ASSERT_EQ(VirtualCameraEventRule("0x101 delay_ms=60000 calls=0"), 1);
    for (int i = 0; i < 5; ++i) {
        VirtualCanonSendPropertyEvent(0, 0x101, 1, 0);
    }
    EXPECT_EQ(m_host.count(0x101), 0);
    EdsTerminateSDK();
    EXPECT_EQ(m_host.count(0x101), 5);
    takeMisuses();
    m_host.close();
    takeMisuses();
}

class EventsFromTheStart : public VirtualTest
{};

TEST_F(EventsFromTheStart, ComeDuringRegistrationWhenAskedFor)
{
    configure("events.at_registration = 1");
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    EXPECT_EQ(host.count(0x101, 0x406), 1);
}

TEST_F(EventsFromTheStart, ComeFromSeveralThreadsWhenAskedFor)
{
    configure("events.threads = 4");
    std::mutex mutex;
    std::set<std::thread::id> threads;
    Host host;
    host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        const std::lock_guard<std::mutex> lock(mutex);
        threads.insert(std::this_thread::get_id());
    };
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_TRUE(waitFor([&] {
        VirtualCanonSendPropertyEvent(0, 0x101, 1, 0);
        const std::lock_guard<std::mutex> lock(mutex);
        return threads.size() >= 2;
    }));
}

}  // namespace
