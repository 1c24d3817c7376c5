// Reading and writing properties: what is stored, what is announced, what is tried again.
#include "canon/PropertyCommands.h"

#include <cstring>

#include "CanonTestSupport.h"
#include "canon/Processor.h"

using canon::CameraModel;
using canon::GetPropertyCommand;
using canon::GetPropertyDescCommand;
using canon::SetCapacityCommand;

using SetNumberCommand = canon::SetPropertyCommand<std::uint32_t>;
using SetPointCommand = canon::SetPropertyCommand<EdsPoint>;

namespace {

class PropertyCommandsTest : public OpenSessionTest
{
protected:
    bool read(EdsPropertyID property) { return GetPropertyCommand(model(), property).execute(); }
    bool readDesc(EdsPropertyID property)
    {
        return GetPropertyDescCommand(model(), property).execute();
    }
    bool write(EdsPropertyID property, std::uint32_t value)
    {
        return SetNumberCommand(model(), property, value).execute();
    }
    bool writeCapacity() { return SetCapacityCommand(model(), EdsCapacity{10, 512, 1}).execute(); }

    // Executes a read on a worker until `enough` is true; returns when each attempt began.
    template <typename Enough>
    std::vector<std::chrono::steady_clock::time_point> readRepeatedly(EdsPropertyID property,
                                                                      Enough enough)
    {
        class Timed : public GetPropertyCommand
        {
        public:
            Timed(CameraModel& itsModel, EdsPropertyID id,
                  std::vector<std::chrono::steady_clock::time_point>& times)
                : GetPropertyCommand(itsModel, id), m_times(times)
            {}
            bool execute() override
            {
                m_times.push_back(std::chrono::steady_clock::now());
                return GetPropertyCommand::execute();
            }

        private:
            std::vector<std::chrono::steady_clock::time_point>& m_times;
        };
        std::vector<std::chrono::steady_clock::time_point> times;
        canon::Processor processor;
        processor.enqueue(std::make_unique<Timed>(model(), property, times));
        EXPECT_TRUE(processor.startAndWait());
        EXPECT_TRUE(waitFor(enough));
        processor.stop();
        processor.join();
        return times;
    }
};

const Lines kSevenValues = {"PropertyChanged 436", "PropertyChanged 406", "PropertyChanged 405",
                            "PropertyChanged 402", "PropertyChanged 403", "PropertyChanged 407",
                            "PropertyChanged 100"};

Lines plus(Lines lines, const Lines& more)
{
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

// Reading values.

TEST_F(PropertyCommandsTest, TheReportedSetIsSevenValuesInAFixedOrder)
{
    EXPECT_TRUE(read(0xFFFF));
    EXPECT_EQ(events(), kSevenValues);
}

TEST_F(PropertyCommandsTest, TheReportedSetStopsAtTheFirstFailureAndIsReadWholeAgain)
{
    fault("EdsGetPropertyData code=0x2 property=0x405");
    EXPECT_FALSE(read(0xFFFF));
    EXPECT_TRUE(read(0xFFFF));
    EXPECT_EQ(events(),
              plus({"PropertyChanged 436", "PropertyChanged 406", "error 2"}, kSevenValues));
}

TEST_F(PropertyCommandsTest, TheReportedSetStopsAtABusyCamera)
{
    fault("EdsGetPropertySize code=0x81 property=0x406");
    EXPECT_FALSE(read(0xFFFF));
    EXPECT_EQ(events(), (Lines{"PropertyChanged 436", "DeviceBusy"}));
}

struct FieldCase {
    EdsPropertyID property;
    std::uint32_t CameraModel::*field;
};

class ValueFieldTest : public PropertyCommandsTest, public testing::WithParamInterface<FieldCase>
{};

TEST_P(ValueFieldTest, HoldsTheValueAfterARead)
{
    VirtualCanonSetProperty(0, GetParam().property, 0xCAFE0001);
    EXPECT_TRUE(read(GetParam().property));
    EXPECT_EQ(model().*GetParam().field, 0xCAFE0001);
    EXPECT_EQ(events().size(), 1U);
}

const FieldCase kFields[] = {
    {0x436, &CameraModel::AEMode},       {0x405, &CameraModel::Av},
    {0x406, &CameraModel::Tv},           {0x402, &CameraModel::ISOSpeed},
    {0x403, &CameraModel::meteringMode}, {0x407, &CameraModel::exposureCompensation},
    {0x100, &CameraModel::imageQuality}, {0x500, &CameraModel::evfOutputDevice},
    {0x501, &CameraModel::evfMode},      {0x504, &CameraModel::evfDepthOfFieldPreview},
    {0x50E, &CameraModel::evfAFMode},
};

INSTANTIATE_TEST_SUITE_P(Fields, ValueFieldTest, testing::ValuesIn(kFields),
                         [](const testing::TestParamInfo<FieldCase>& tested) {
                             std::ostringstream name;
                             name << std::hex << tested.param.property;
                             return name.str();
                         });

// Every value of the model that a read could have changed.
std::vector<std::uint32_t> valuesOf(const CameraModel& model)
{
    std::vector<std::uint32_t> values = {model.state, model.unnamed, model.evfZoom};
    for (const FieldCase& entry : kFields) {
        values.push_back(model.*entry.field);
    }
    return values;
}

TEST_F(PropertyCommandsTest, WhiteBalanceIsAnnouncedAndStoredNowhere)
{
    const auto before = valuesOf(model());
    VirtualCanonSetProperty(0, 0x106, 9);
    EXPECT_TRUE(read(0x106));
    EXPECT_EQ(events(), Lines{"PropertyChanged 106"});
    EXPECT_EQ(valuesOf(model()), before);
}

TEST_F(PropertyCommandsTest, AnUnknownPropertyIsAnnouncedAndStoredNowhere)
{
    const auto before = valuesOf(model());
    VirtualCanonSetProperty(0, 0x12345678, 9);
    EXPECT_TRUE(read(0x12345678));
    EXPECT_EQ(events(), Lines{"PropertyChanged 12345678"});
    EXPECT_EQ(valuesOf(model()), before);
}

class OtherTypeTest : public PropertyCommandsTest, public testing::WithParamInterface<std::uint32_t>
{};

TEST_P(OtherTypeTest, IsAnnouncedWithoutReadingTheData)
{
    const std::string bytes = "12345678";
    VirtualCanonSetPropertyBytes(0, 0x405, GetParam(), bytes.data(), 8);
    EXPECT_TRUE(read(0x405));
    EXPECT_EQ(events(), Lines{"PropertyChanged 405"});
    EXPECT_EQ(model().Av, 0U);
    EXPECT_EQ(calls("EdsGetPropertyData"), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Types, OtherTypeTest,
                         testing::Values(0, 1, 3, 8, 10, 14, 23, 100, 102, 0xFFFFFFFF));

// Sizes that a 32-bit value should not have.

class NumberSizeTest : public PropertyCommandsTest,
                       public testing::WithParamInterface<std::uint32_t>
{};

TEST_P(NumberSizeTest, IsReadWithoutHarm)
{
    VirtualCanonSetProperty(0, 0x405, 0x11223344);
    configure("corrupt.0x405.size = " + std::to_string(GetParam()));
    EXPECT_TRUE(read(0x405));
    const std::uint32_t known = GetParam() >= 4 ? 4 : GetParam();
    const std::uint64_t mask = (std::uint64_t{1} << (8 * known)) - 1;
    EXPECT_EQ(model().Av, 0x11223344 & mask);
    EXPECT_EQ(events(), Lines{"PropertyChanged 405"});
}

INSTANTIATE_TEST_SUITE_P(Sizes, NumberSizeTest, testing::Values(0, 1, 3, 4, 5, 8, 9, 65536));

TEST_F(PropertyCommandsTest, ASizeOfFourGigabytesIsAnErrorAndTheDataIsNotAskedFor)
{
    configure("corrupt.0x405.size = 0xFFFFFFFF");
    EXPECT_FALSE(read(0x405));
    EXPECT_EQ(events(), Lines{"error 60"});
    EXPECT_EQ(calls("EdsGetPropertyData"), Lines{});
}

// Texts.

class ProductNameTest : public PropertyCommandsTest
{
protected:
    std::string readName(const std::string& bytes)
    {
        VirtualCanonSetPropertyBytes(0, 2, 2, bytes.data(), static_cast<int>(bytes.size()));
        EXPECT_TRUE(read(2));
        EXPECT_EQ(events(), Lines{"PropertyChanged 2"});
        return model().productName;
    }
};

TEST_F(ProductNameTest, IsTheTextUpToItsTerminator)
{
    EXPECT_EQ(readName(std::string("EOS\0rubbish\xFF", 12)), "EOS");
}

TEST_F(ProductNameTest, MayBeEmpty)
{
    EXPECT_EQ(readName(std::string(1, '\0')), "");
}

TEST_F(ProductNameTest, MayHaveNoBytesAtAll)
{
    EXPECT_EQ(readName(""), "");
}

TEST_F(ProductNameTest, WithoutTerminatorEndsWithItsSize)
{
    EXPECT_EQ(readName("EOS R5"), "EOS R5");
}

TEST_F(ProductNameTest, Of255BytesIsKeptWhole)
{
    EXPECT_EQ(readName(std::string(255, 'n') + '\0'), std::string(255, 'n'));
}

TEST_F(ProductNameTest, Of256BytesWithoutTerminatorKeepsWhatItsFieldHolds)
{
    EXPECT_EQ(readName(std::string(256, 'n')), std::string(255, 'n'));
}

TEST_F(ProductNameTest, Of60000BytesKeepsWhatItsFieldHolds)
{
    EXPECT_EQ(readName(std::string(60000, 'n')), std::string(255, 'n'));
}

TEST_F(ProductNameTest, ReplacesALongerOneWhole)
{
    model().productName = "a longer name than the next";
    EXPECT_EQ(readName(std::string("EOS\0", 4)), "EOS");
}

TEST_F(ProductNameTest, KeepsBytesThatAreNoUtf8)
{
    EXPECT_EQ(readName(std::string("\xC3\x28\xFF\0", 4)), "\xC3\x28\xFF");
}

TEST_F(ProductNameTest, IsLeftAloneByATextOfAnotherProperty)
{
    model().productName = "EOS";
    VirtualCanonSetPropertyBytes(0, 0x405, 2, "f/2.8", 6);
    EXPECT_TRUE(read(0x405));
    EXPECT_EQ(events(), Lines{"PropertyChanged 405"});
    EXPECT_EQ(model().productName, "EOS");
    EXPECT_EQ(model().Av, 0U);
}

TEST_F(ProductNameTest, IsLeftAloneWhenTheTextCannotBeRead)
{
    model().productName = "EOS";
    fault("EdsGetPropertyData code=0x50 property=2");
    EXPECT_FALSE(read(2));
    EXPECT_EQ(model().productName, "EOS");
    EXPECT_EQ(events(), Lines{"error 50"});
}

TEST_F(ProductNameTest, IsLeftAloneWhenItsTypeIsANumber)
{
    model().productName = "EOS";
    VirtualCanonSetPropertyBytes(0, 2, 9, "abcd", 4);
    EXPECT_TRUE(read(2));
    EXPECT_EQ(model().productName, "EOS");
}

// The focus information.

class FocusInfoTest : public PropertyCommandsTest
{
protected:
    // Gives the camera a record of `size` bytes, 0xAB each, and reads it.
    void readRecord(std::size_t size)
    {
        const std::string record(size, '\xAB');
        VirtualCanonSetPropertyBytes(0, 0x104, 101, record.data(), static_cast<int>(size));
        EXPECT_TRUE(read(0x104));
        EXPECT_EQ(events(), Lines{"PropertyChanged 104"});
    }

    // How many bytes from the start on are 0xAB.
    std::size_t filled()
    {
        const auto& info = model().focusInfo;
        const auto end = std::find_if(info.begin(), info.end(),
                                      [](std::byte b) { return b != std::byte{0xAB}; });
        return static_cast<std::size_t>(end - info.begin());
    }
};

TEST_F(FocusInfoTest, IsARecordOf19224Bytes)
{
    readRecord(19224);
    EXPECT_EQ(model().focusInfo.size(), 19224U);
    EXPECT_EQ(filled(), 19224U);
    EXPECT_EQ(calls("EdsGetPropertyData"), Lines{"EdsGetPropertyData(camera, 0x104, 0, 19224)"});
}

TEST_F(FocusInfoTest, ThatIsLongerIsCut)
{
    readRecord(30000);
    EXPECT_EQ(filled(), 19224U);
}

TEST_F(FocusInfoTest, ThatIsShorterIsFollowedByZeros)
{
    model().focusInfo.fill(std::byte{0xCC});
    readRecord(100);
    EXPECT_EQ(filled(), 100U);
    EXPECT_EQ(model().focusInfo.at(100), std::byte{0});
    EXPECT_EQ(model().focusInfo.at(19223), std::byte{0});
}

TEST_F(FocusInfoTest, IsStoredForAnyPropertyOfItsType)
{
    VirtualCanonSetPropertyBytes(0, 0x405, 101, std::string(19224, '\xAB').data(), 19224);
    EXPECT_TRUE(read(0x405));
    EXPECT_EQ(filled(), 19224U);
    EXPECT_EQ(model().Av, 0U);
}

TEST_F(FocusInfoTest, ThatCannotBeReadLeavesTheOldRecord)
{
    model().focusInfo.fill(std::byte{0xCC});
    fault("EdsGetPropertyData code=0x2 property=0x104");
    EXPECT_TRUE(read(0x104));
    EXPECT_EQ(model().focusInfo.front(), std::byte{0xCC});
    EXPECT_EQ(events(), Lines{"error 2"});
}

// Failing reads.

TEST_F(PropertyCommandsTest, AReadLooksAtTheLow16BitsForBusy)
{
    for (const char* function : {"EdsGetPropertySize", "EdsGetPropertyData"}) {
        fault(std::string(function) + " code=0xABCD0081");
        EXPECT_FALSE(read(0x405));
    }
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "DeviceBusy"}));
}

TEST_F(PropertyCommandsTest, AReadTakesNothingElseForBusy)
{
    fault("EdsGetPropertySize code=0x181");
    EXPECT_FALSE(read(0x405));
    fault("EdsGetPropertySize code=0x810000");
    EXPECT_FALSE(read(0x405));
    EXPECT_EQ(events(), (Lines{"error 181", "error 810000"}));
}

TEST_F(PropertyCommandsTest, AFailedDataReadStoresNothing)
{
    model().Av = 0x30;
    fault("EdsGetPropertyData code=0xFFFFFFFF property=0x405");
    EXPECT_FALSE(read(0x405));
    EXPECT_EQ(model().Av, 0x30U);
    EXPECT_EQ(events(), Lines{"error ffffffff"});
}

TEST_F(PropertyCommandsTest, AFailedReadOfTheTwoOptionalPropertiesIsGivenUp)
{
    VirtualCanonRemoveProperty(0, 0x104);
    EXPECT_TRUE(read(9));
    EXPECT_TRUE(read(0x104));
    EXPECT_FALSE(read(0x12345));
    EXPECT_EQ(events(), (Lines{"error 50", "error 50", "error 50"}));
}

TEST_F(PropertyCommandsTest, ABusyReadOfTheTwoOptionalPropertiesIsTriedAgain)
{
    VirtualCanonSleep(0, 1);
    EXPECT_FALSE(read(9));
    EXPECT_FALSE(read(0x104));
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "DeviceBusy"}));
}

TEST_F(PropertyCommandsTest, AFailedReadIsRepeatedEvery500MillisecondsUntilItSucceeds)
{
    fault("EdsGetPropertySize code=0x2 property=0x405 calls=2");
    const auto times = readRepeatedly(0x405, [&] { return events().size() == 3; });
    EXPECT_EQ(events(), (Lines{"error 2", "error 2", "PropertyChanged 405"}));
    ASSERT_EQ(times.size(), 3U);
    EXPECT_GE(times[1] - times[0], std::chrono::milliseconds(500));
    EXPECT_GE(times[2] - times[1], std::chrono::milliseconds(500));
    EXPECT_LT(times[2] - times[0], std::chrono::milliseconds(3000));
}

TEST_F(PropertyCommandsTest, AFailedReadOfProperty9IsNotRepeated)
{
    const auto times = readRepeatedly(9, [&] { return events().size() == 1; });
    EXPECT_EQ(events(), Lines{"error 50"});
    EXPECT_EQ(times.size(), 1U);
}

TEST_F(PropertyCommandsTest, AReadAfterTheCableWasPulledIsAnError)
{
    VirtualCameraUnplug(0);
    EXPECT_FALSE(read(0x405));
    EXPECT_EQ(events(), Lines{"error 80"});
}

// Reading descriptions.

TEST_F(PropertyCommandsTest, TheDescribedSetIsTheReportedOneAndColorTemperature)
{
    EXPECT_TRUE(readDesc(0xFFFF));
    EXPECT_EQ(events(), (Lines{"PropertyDescChanged 436", "PropertyDescChanged 406",
                               "PropertyDescChanged 405", "PropertyDescChanged 402",
                               "PropertyDescChanged 403", "PropertyDescChanged 407",
                               "PropertyDescChanged 100", "PropertyDescChanged 107"}));
}

TEST_F(PropertyCommandsTest, TheDescribedSetStopsAtTheFirstFailure)
{
    fault("EdsGetPropertyDesc code=0x50 property=0x405");
    EXPECT_TRUE(readDesc(0xFFFF));
    EXPECT_EQ(events(), (Lines{"PropertyDescChanged 436", "PropertyDescChanged 406", "error 50"}));
}

TEST_F(PropertyCommandsTest, ADescriptionIsStoredAsItCame)
{
    const std::int32_t values[] = {5, -1, 7};
    VirtualCanonSetAllowed(0, 0x50E, values, 3);
    EXPECT_TRUE(readDesc(0x50E));
    EXPECT_EQ(model().evfAFModeDesc.access, 2);
    EXPECT_EQ(model().evfAFModeDesc.numElements, 3);
    EXPECT_EQ(std::memcmp(model().evfAFModeDesc.propDesc, values, sizeof values), 0);
}

TEST_F(PropertyCommandsTest, ADescriptionOfALibraryWhoseRecordsAreLongerIsStored)
{
    configure("records.extra = 256");
    EXPECT_TRUE(readDesc(0x405));
    EXPECT_EQ(model().AvDesc.access, 2);
    EXPECT_EQ(model().AvDesc.propDesc[0], 0x20);
}

TEST_F(PropertyCommandsTest, ADescriptionWithAnImpossibleCountIsStoredAsItCame)
{
    configure("corrupt.0x405.count = -5");
    EXPECT_TRUE(readDesc(0x405));
    EXPECT_EQ(model().AvDesc.numElements, -5);
}

TEST_F(PropertyCommandsTest, ADescriptionThatTheModelHasNoFieldForIsAnnouncedAllTheSame)
{
    EXPECT_TRUE(readDesc(0x106));
    EXPECT_EQ(events(), Lines{"PropertyDescChanged 106"});
}

TEST_F(PropertyCommandsTest, AFailedDescriptionIsNotStoredAndNotTriedAgain)
{
    model().AvDesc.numElements = 77;
    fault("EdsGetPropertyDesc code=0x2");
    EXPECT_TRUE(readDesc(0x405));
    EXPECT_EQ(model().AvDesc.numElements, 77);
    EXPECT_EQ(events(), Lines{"error 2"});
}

TEST_F(PropertyCommandsTest, ADescriptionLooksAtTheLow16BitsForBusy)
{
    fault("EdsGetPropertyDesc code=0x10081");
    EXPECT_FALSE(readDesc(0x405));
    fault("EdsGetPropertyDesc code=0x81 property=0x402");
    EXPECT_FALSE(readDesc(0xFFFF));
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "PropertyDescChanged 436", "PropertyDescChanged 406",
                               "PropertyDescChanged 405", "DeviceBusy"}));
}

// Writing.

TEST_F(PropertyCommandsTest, ANumberIsWrittenInFourBytes)
{
    EXPECT_TRUE(write(0x406, 0x60));
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x406, 0, 4, 0x60)"});
    EXPECT_EQ(VirtualCanonProperty(0, 0x406), 0x60);
    EXPECT_EQ(events(), Lines{});
}

TEST_F(PropertyCommandsTest, APointIsWrittenInEightBytesXFirst)
{
    EXPECT_TRUE(SetPointCommand(model(), 0x508, EdsPoint{100, 200}).execute());
    std::int32_t sent[2] = {};
    EXPECT_EQ(VirtualCanonPropertyBytes(0, 0x508, sent, sizeof sent), 8);
    EXPECT_EQ(sent[0], 100);
    EXPECT_EQ(sent[1], 200);
}

TEST_F(PropertyCommandsTest, ABusyWriteIsTriedAgain)
{
    fault("EdsSetPropertyData code=0x81 calls=2");
    EXPECT_FALSE(write(0x406, 0x60));
    EXPECT_FALSE(SetPointCommand(model(), 0x508, EdsPoint{1, 2}).execute());
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "DeviceBusy"}));
}

TEST_F(PropertyCommandsTest, AWriteLooksAtTheWholeCodeForBusy)
{
    fault("EdsSetPropertyData code=0x10081 calls=2");
    EXPECT_TRUE(write(0x406, 0x60));
    EXPECT_TRUE(SetPointCommand(model(), 0x508, EdsPoint{1, 2}).execute());
    EXPECT_EQ(events(), (Lines{"error 10081", "error 10081"}));
}

TEST_F(PropertyCommandsTest, AValueThatTheCameraRefusesIsAnErrorAndNotTriedAgain)
{
    EXPECT_TRUE(write(0x406, 0x12345));
    EXPECT_EQ(events(), Lines{"error 60"});
}

TEST_F(PropertyCommandsTest, TheCapacityIsWrittenAsItIs)
{
    EXPECT_TRUE(writeCapacity());
    EXPECT_EQ(calls(), Lines{"EdsSetCapacity(camera, 10, 512, 1)"});
    EXPECT_EQ(events(), Lines{});
}

TEST_F(PropertyCommandsTest, TheCapacityIsNeverTriedAgainNotEvenByABusyCamera)
{
    for (const char* code : {"0x81", "0x2", "0xFFFFFFFF"}) {
        fault(std::string("EdsSetCapacity code=") + code);
        EXPECT_TRUE(writeCapacity());
    }
    EXPECT_EQ(events(), (Lines{"error 81", "error 2", "error ffffffff"}));
}

}  // namespace
