// What an application does wrong is recorded, answered with a failure, and never a crash.
#include <atomic>

#include "Host.h"

namespace {

class NikonMisuse : public NikonOpenTest
{
protected:
    void TearDown() override
    {
        NikonOpenTest::TearDown();
        EXPECT_TRUE(m_wasExpected);
    }

    void expectMisuse(const std::string& text)
    {
        const std::string all = takeMisuses();
        EXPECT_NE(all.find(text + "\n"), std::string::npos) << all;
        m_wasExpected = true;
    }

    MaidResult send(MaidObject* object, std::uint32_t command, std::uint32_t parameter = 0,
                    std::uint32_t dataType = 0, MaidData data = 0) const
    {
        return m_host.begin(object, command, parameter, dataType, data)->result;
    }

    // Takes a picture, and opens its item and closes it again.
    void openAndClose(MaidObject& record) const
    {
        ASSERT_EQ(driver().pressShutter(0), 1);
        ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
        ASSERT_EQ(
            send(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&record)),
            kMaidOk);
        ASSERT_EQ(send(&record, kMaidCommandClose), kMaidOk);
    }

    bool m_wasExpected = false;
};

TEST_F(NikonMisuse, AnUnknownObjectIsNotLookedInto)
{
    auto* nowhere = reinterpret_cast<MaidObject*>(std::uintptr_t{0x10});
    const auto outcome = m_host.begin(nowhere, kMaidCommandCapGet, kMaidCapChildren);
    EXPECT_EQ(outcome->result, -1);
    EXPECT_EQ(outcome->completions, 1);
    expectMisuse("CapGet: unknown object");
    EXPECT_EQ(send(nullptr, kMaidCommandCapGet), -1);
    expectMisuse("CapGet: no object");
}

TEST_F(NikonMisuse, AClosedObjectIsToldFromAnUnknownOne)
{
    MaidObject record{};
    ASSERT_NO_FATAL_FAILURE(openAndClose(record));
    EXPECT_EQ(Host::async(&record), -1);
    expectMisuse("Async: closed object");
    EXPECT_EQ(send(&record, kMaidCommandClose), -1);
    expectMisuse("Close: closed object");
}

TEST_F(NikonMisuse, AClosedObjectIsForgottenByAReset)
{
    MaidObject record{};
    ASSERT_NO_FATAL_FAILURE(openAndClose(record));
    driver().reset();
    EXPECT_EQ(Host::async(&record), -1);
    expectMisuse("Async: unknown object");
}

TEST_F(NikonMisuse, AnyCommandAfterTheModulesClose)
{
    MaidObject* module = m_host.module();
    MaidObject copy = *module;
    EXPECT_EQ(Host::async(&copy), -1);
    expectMisuse("Async: unknown object");
    m_host.closeAll();
    EXPECT_EQ(Host::async(module), -1);
    expectMisuse("Async: closed object");
}

TEST_F(NikonMisuse, ACommandThatNeedsACompletionProcedureHasNone)
{
    std::uint32_t value = 0;
    EXPECT_EQ(driver().entryPoint(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness,
                                  kMaidDataTypeUnsignedPtr, dataOf(&value), nullptr, nullptr),
              kMaidOk);
    EXPECT_EQ(value, 1U);
    expectMisuse("CapGet: no completion procedure");
}

TEST_F(NikonMisuse, ABufferForDescriptorsIsTooSmall)
{
    std::uint32_t count = 0;
    send(m_host.source(), kMaidCommandGetCapCount, 0, kMaidDataTypeUnsignedPtr, dataOf(&count));
    MaidCapInfo info{};
    EXPECT_EQ(
        send(m_host.source(), kMaidCommandGetCapInfo, 1, kMaidDataTypeCapInfoPtr, dataOf(&info)),
        kMaidBufferSize);
    EXPECT_EQ(info.id, 0U);
    expectMisuse("GetCapInfo: a buffer for 1 descriptors instead of 13");
}

TEST_F(NikonMisuse, ABufferForAnArrayIsTooSmall)
{
    MaidEnum record{};
    send(m_host.source(), kMaidCommandCapGet, kMaidCapExposureMode, kMaidDataTypeEnumPtr,
         dataOf(&record));
    std::uint32_t numbers[1] = {77};
    record.elements = 1;
    record.array = numbers;
    EXPECT_EQ(send(m_host.source(), kMaidCommandCapGetArray, kMaidCapExposureMode,
                   kMaidDataTypeEnumPtr, dataOf(&record)),
              kMaidBufferSize);
    EXPECT_EQ(numbers[0], 77U);
    expectMisuse("CapGetArray: an array of 4 bytes instead of 44");
    record.elements = 11;
    record.array = nullptr;
    EXPECT_LT(send(m_host.source(), kMaidCommandCapGetArray, kMaidCapExposureMode,
                   kMaidDataTypeEnumPtr, dataOf(&record)),
              0);
    expectMisuse("CapGetArray: no array");
}

TEST_F(NikonMisuse, AnObjectIsClosedBeforeItsChildren)
{
    driver().pressShutter(0);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    MaidObject item{};
    MaidObject data{};
    send(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&item));
    send(&item, kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&data));
    EXPECT_EQ(send(&item, kMaidCommandClose), kMaidOk);
    EXPECT_EQ(driver().openCount(4), 0);
    expectMisuse("Close: closed before its children: item#1 before data#1");
}

TEST_F(NikonMisuse, AProcedureIsLeftInstalledAtTheClose)
{
    driver().pressShutter(0);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    MaidObject item{};
    send(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&item));
    m_host.setProcedure(
        &item, kMaidCapEventProc, [] {}, nullptr);
    char text[200];
    driver().openObjects(text, sizeof text);
    EXPECT_STREQ(text, "module#0 2 3 5\nsource#1 2 3\nitem#1 3\n");
    send(&item, kMaidCommandClose);
    expectMisuse("Close: procedure 3 is still installed on item#1");
}

TEST_F(NikonMisuse, AnObjectThatIsGoneMayBeLeftWithItsProcedures)
{
    driver().pressShutter(0);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    MaidObject item{};
    send(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&item));
    m_host.setProcedure(
        &item, kMaidCapEventProc, [] {}, nullptr);
    driver().unplug(0);
    EXPECT_EQ(send(&item, kMaidCommandClose), kMaidOk);
    EXPECT_EQ(takeMisuses(), "");
    m_wasExpected = true;
}

TEST_F(NikonMisuse, TwoThreadsAreInsideAtOnce)
{
    ASSERT_TRUE(driver().fault("CapGet hang"));
    std::thread caller([&] { m_host.number(m_host.source(), kMaidCapLiveness); });
    ASSERT_TRUE(driver().waitForHang("CapGet", kDeadlineMs));
    Host::async(m_host.source());
    driver().releaseHangs();
    caller.join();
    const std::string all = takeMisuses();
    EXPECT_NE(all.find("Async: called by T"), std::string::npos) << all;
    EXPECT_NE(all.find(" is inside\n"), std::string::npos) << all;
    m_wasExpected = true;
}

TEST_F(NikonMisuse, CommandsInsideProceduresAreNone)
{
    const Bytes content = pattern(10);
    driver().addItem(0, kMaidItemImage, kMaidFileJpeg, 0, content.data(), 10);
    m_host.inEventProcedure = [&](const Host::Event&) {
        m_host.number(m_host.source(), kMaidCapLiveness);
    };
    Host::async(m_host.source());
    EXPECT_EQ(driver().misuseCount(), 0);
    m_wasExpected = true;
}

TEST_F(NikonMisuse, AChildIsOpenedTwice)
{
    MaidObject again{};
    EXPECT_EQ(send(m_host.module(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&again)),
              -7);
    expectMisuse("Open: child 1 is open already");
    EXPECT_EQ(send(nullptr, kMaidCommandOpen, 0, kMaidDataTypeObjectPtr, dataOf(&again)), -7);
    expectMisuse("Open: the module is open already");
    EXPECT_EQ(
        send(m_host.module(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(m_host.source())),
        -7);
    expectMisuse("Open: the record is in use for another object");
}

TEST_F(NikonMisuse, AnIdIsInvented)
{
    MaidObject record{};
    EXPECT_EQ(send(m_host.module(), kMaidCommandOpen, 99, kMaidDataTypeObjectPtr, dataOf(&record)),
              -6);
    expectMisuse("Open: no child 99");
    EXPECT_EQ(send(m_host.source(), kMaidCommandOpen, 1, kMaidDataTypeObjectPtr, dataOf(&record)),
              -6);
    expectMisuse("Open: no child 1");
}

TEST_F(NikonMisuse, AnItemThatWasRemovedMeanwhileIsNotInvented)
{
    const std::uint32_t item = picture();
    driver().removeItem(0);
    EXPECT_EQ(m_host.openChild(m_host.source(), item), nullptr);
    EXPECT_EQ(driver().misuseCount(), 0);
    m_wasExpected = true;
}

TEST_F(NikonMisuse, DataHasAnotherTypeOrIsMissing)
{
    std::uint32_t value = 0;
    EXPECT_EQ(send(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness, kMaidDataTypeUnsigned,
                   dataOf(&value)),
              -4);
    expectMisuse("CapGet: data type 3 instead of 6");
    EXPECT_EQ(send(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness, kMaidDataTypeUnsignedPtr),
              -4);
    expectMisuse("CapGet: no data");
    EXPECT_EQ(send(m_host.module(), kMaidCommandCapSet, kMaidCapModuleMode,
                   kMaidDataTypeUnsignedPtr, dataOf(&value)),
              -4);
    expectMisuse("CapSet: data type 6 for a number");
}

TEST_F(NikonMisuse, AcquiringWithoutADataProcedure)
{
    const std::uint32_t id = picture();
    MaidObject* item = m_host.openChild(m_host.source(), id);
    MaidObject* data = m_host.openChild(item, kMaidItemImage);
    EXPECT_EQ(m_host.issue(data, kMaidCommandCapStart, kMaidCapAcquire).result, -8);
    expectMisuse("CapStart: no data procedure is installed");
}

TEST_F(NikonMisuse, TheRecordOfAnOpenObjectIsChanged)
{
    void* reference = m_host.source()->clientRef;
    m_host.source()->clientRef = nullptr;
    Host::async(m_host.source());
    m_host.source()->clientRef = reference;
    expectMisuse("Async: the record of source#1 was changed");
}

TEST_F(NikonMisuse, AnUnknownCommand)
{
    EXPECT_EQ(send(m_host.source(), 77), -2);
    expectMisuse("Unknown: unknown command 77");
}

TEST_F(NikonMisuse, IsCountedLoggedAndForgotten)
{
    send(m_host.source(), 77);
    send(m_host.source(), 78);
    EXPECT_EQ(driver().misuseCount(), 2);
    EXPECT_NE(callLog().find("MISUSE Unknown: unknown command 77"), std::string::npos);
    driver().clearMisuse();
    EXPECT_EQ(driver().misuseCount(), 0);
    m_wasExpected = true;
}

}  // namespace
