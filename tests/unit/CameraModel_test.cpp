// What is known of a camera, and who is told when it changes.
#include "canon/CameraModel.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <type_traits>
#include <utility>

#include "ProcessHeartbeat.h"
#include "TestSupport.h"

namespace {

using canon::CameraEvent;
using canon::CameraModel;
using canon::CameraModelLegacy;
using canon::Observable;
using canon::Observer;
using Lines = std::vector<std::string>;

// Calls a function.
class FunctionObserver final : public Observer
{
public:
    explicit FunctionObserver(std::function<void(const CameraEvent&)> function)
        : m_function(std::move(function))
    {}

    void update(Observable* /*from*/, const CameraEvent& event) override { m_function(event); }

private:
    std::function<void(const CameraEvent&)> m_function;
};

// An observer that adds its name to `lines`.
FunctionObserver named(const char* name, Lines& lines)
{
    return FunctionObserver([name, &lines](const CameraEvent&) { lines.emplace_back(name); });
}

// Observers.

TEST(Observable, TellsAnObserverThatWasAddedTwiceOnce)
{
    CameraModel model(nullptr);
    RecordingObserver observer;
    model.addObserver(&observer);
    model.addObserver(&observer);
    model.notify("DeviceBusy");
    EXPECT_EQ(observer.events(), (Lines{"DeviceBusy"}));
}

TEST(Observable, TellsTheLastRegisteredFirst)
{
    CameraModel model(nullptr);
    Lines lines;
    FunctionObserver a = named("A", lines);
    FunctionObserver b = named("B", lines);
    FunctionObserver c = named("C", lines);
    model.addObserver(&a);
    model.addObserver(&b);
    model.addObserver(&c);
    model.addObserver(&a);
    model.notify("DeviceBusy");
    EXPECT_EQ(lines, (Lines{"C", "B", "A"}));
}

TEST(Observable, TellsWithoutObserversNobody)
{
    CameraModel model(nullptr);
    model.notify("DeviceBusy");
    model.notify("error", 1);
}

TEST(Observable, HandsOverItselfTheNameAndTheArgument)
{
    class Checking final : public Observer
    {
    public:
        void update(Observable* from, const CameraEvent& event) override
        {
            m_from = from;
            m_name = event.name;
            m_argument = event.arg == nullptr ? 0 : *static_cast<const std::uint32_t*>(event.arg);
        }
        Observable* m_from = nullptr;
        std::string m_name;
        std::uint32_t m_argument = 0;
    };
    CameraModel model(nullptr);
    Checking observer;
    model.addObserver(&observer);
    model.notify("error", 0xFFFFFFFF);
    EXPECT_EQ(observer.m_from, &model);
    EXPECT_EQ(observer.m_name, "error");
    EXPECT_EQ(observer.m_argument, 0xFFFFFFFFU);
}

TEST(Observable, HandsOverANullArgumentWhereThereIsNone)
{
    CameraModel model(nullptr);
    const void* argument = &model;
    FunctionObserver observer([&](const CameraEvent& event) { argument = event.arg; });
    model.addObserver(&observer);
    model.notify("DeviceBusy");
    EXPECT_EQ(argument, nullptr);
}

TEST(Observable, HandsOverAnEventAsItWasMade)
{
    CameraModel model(nullptr);
    const CameraEvent made{"EvfDataChanged", &model};
    const CameraEvent* given = nullptr;
    FunctionObserver observer([&](const CameraEvent& event) { given = &event; });
    model.addObserver(&observer);
    model.notifyObservers(made);
    EXPECT_EQ(given, &made);
}

TEST(Observable, LeavesItsObserversAlone)
{
    RecordingObserver observer;
    {
        CameraModel model(nullptr);
        model.addObserver(&observer);
    }
    EXPECT_EQ(observer.events(), Lines{});
}

TEST(Observable, GivesASignOfLifeForEachNotification)
{
    const unsigned before = ProcessHeartbeat::count();
    CameraModel(nullptr).notify("DeviceBusy");
    EXPECT_NE(ProcessHeartbeat::count(), before);
}

// The model.

using ValueField = std::uint32_t CameraModel::*;

struct ValueCase {
    EdsPropertyID property;
    ValueField field;
};

constexpr ValueCase kValues[] = {
    {0x436, &CameraModel::AEMode},
    {0x405, &CameraModel::Av},
    {0x406, &CameraModel::Tv},
    {0x402, &CameraModel::ISOSpeed},
    {0x403, &CameraModel::meteringMode},
    {0x407, &CameraModel::exposureCompensation},
    {0x100, &CameraModel::imageQuality},
    {0x501, &CameraModel::evfMode},
    {0x500, &CameraModel::evfOutputDevice},
    {0x504, &CameraModel::evfDepthOfFieldPreview},
    {0x50E, &CameraModel::evfAFMode},
};

// The sum of all 32-bit fields: shows that nothing but the one wanted has changed.
std::uint64_t sumOfValues(const CameraModel& model)
{
    std::uint64_t sum = model.state + std::uint64_t{model.unnamed} + model.evfZoom;
    for (const ValueCase& value : kValues) {
        sum += model.*value.field;
    }
    return sum;
}

using DescField = EdsPropertyDesc CameraModel::*;

struct DescCase {
    EdsPropertyID property;
    DescField field;
};

constexpr DescCase kDescs[] = {
    {0x436, &CameraModel::AEModeDesc},
    {0x405, &CameraModel::AvDesc},
    {0x406, &CameraModel::TvDesc},
    {0x402, &CameraModel::ISOSpeedDesc},
    {0x403, &CameraModel::meteringModeDesc},
    {0x407, &CameraModel::exposureCompensationDesc},
    {0x100, &CameraModel::imageQualityDesc},
    {0x50E, &CameraModel::evfAFModeDesc},
    {0x107, &CameraModel::colorTemperatureDesc},
};

int numberOfFilledDescs(const CameraModel& model)
{
    int filled = 0;
    for (const DescCase& desc : kDescs) {
        filled += (model.*desc.field).numElements != 0 ? 1 : 0;
    }
    return filled;
}

EdsPropertyDesc fullDescription()
{
    EdsPropertyDesc description = {1, 2, 128, {}};
    for (int i = 0; i < 128; ++i) {
        description.propDesc[i] = i - 64;
    }
    return description;
}

TEST(CameraModel, StartsWithNothingButItsCamera)
{
    int object = 0;
    auto* camera = reinterpret_cast<EdsCameraRef>(&object);
    const CameraModel model(camera);
    EXPECT_EQ(model.camera, camera);
    EXPECT_EQ(sumOfValues(model), 0U);
    EXPECT_EQ(numberOfFilledDescs(model), 0);
    EXPECT_EQ(model.productName, "");
    EXPECT_EQ(model.focusInfo, canon::FocusInfo{});
    const EdsPoint position = model.evfPosition;
    EXPECT_EQ(position.x, 0);
    EXPECT_EQ(position.y, 0);
}

TEST(CameraModel, KeepsEachValueInTheFieldOfItsProperty)
{
    for (const ValueCase& value : kValues) {
        CameraModel model(nullptr);
        model.setPropertyValue(value.property, 0xFFFFFFFF);
        EXPECT_EQ(model.*value.field, 0xFFFFFFFFU) << std::hex << value.property;
        EXPECT_EQ(sumOfValues(model), 0xFFFFFFFFU) << std::hex << value.property;
        EXPECT_EQ(numberOfFilledDescs(model), 0) << std::hex << value.property;
    }
}

TEST(CameraModel, IgnoresValuesOfOtherProperties)
{
    CameraModel model(nullptr);
    for (const EdsPropertyID property :
         {0U, 0x2U, 0x106U, 0x107U, 0x507U, 0x508U, 0x541U, 0x1000406U, 0xFFFFFFFFU}) {
        model.setPropertyValue(property, 5);
    }
    EXPECT_EQ(sumOfValues(model), 0U);
    EXPECT_EQ(model.productName, "");
}

TEST(CameraModel, KeepsEachDescriptionInTheFieldOfItsProperty)
{
    const EdsPropertyDesc description = fullDescription();
    for (const DescCase& desc : kDescs) {
        CameraModel model(nullptr);
        model.setPropertyDesc(desc.property, description);
        EXPECT_EQ(std::memcmp(&(model.*desc.field), &description, sizeof description), 0)
            << std::hex << desc.property;
        EXPECT_EQ(numberOfFilledDescs(model), 1) << std::hex << desc.property;
        EXPECT_EQ(sumOfValues(model), 0U) << std::hex << desc.property;
    }
}

TEST(CameraModel, IgnoresDescriptionsOfOtherProperties)
{
    CameraModel model(nullptr);
    for (const EdsPropertyID property :
         {0U, 0x2U, 0x106U, 0x500U, 0x501U, 0x504U, 0x508U, 0xFFFFFFFFU}) {
        model.setPropertyDesc(property, fullDescription());
    }
    EXPECT_EQ(numberOfFilledDescs(model), 0);
    EXPECT_EQ(sumOfValues(model), 0U);
}

TEST(CameraModel, ReplacesADescriptionAsAWhole)
{
    CameraModel model(nullptr);
    model.setPropertyDesc(0x406, fullDescription());
    const EdsPropertyDesc shorter = {0, 0, 1, {16}};
    model.setPropertyDesc(0x406, shorter);
    EXPECT_EQ(std::memcmp(&model.TvDesc, &shorter, sizeof shorter), 0);
}

TEST(CameraModel, CopiesTheWholeFocusInformation)
{
    static_assert(sizeof(canon::FocusInfo) == 19224);
    CameraModel model(nullptr);
    canon::FocusInfo record;
    record.fill(std::byte{0xA5});
    model.setFocusInfo(record);
    EXPECT_EQ(model.focusInfo, record);
}

TEST(CameraModel, TellsNobodyOfWhatIsStored)
{
    CameraModel model(nullptr);
    RecordingObserver observer;
    model.addObserver(&observer);
    model.setPropertyValue(0x406, 16);
    model.setPropertyDesc(0x406, fullDescription());
    model.setFocusInfo({});
    EXPECT_EQ(observer.events(), Lines{});
}

TEST(CameraModel, DescriptionsAreRecordsOf524Bytes)
{
    static_assert(sizeof(EdsPropertyDesc) == 524);
    static_assert(offsetof(EdsPropertyDesc, numElements) == 8);
    static_assert(offsetof(EdsPropertyDesc, propDesc) == 12);
}

template <typename Model, typename = void>
struct HasIsLegacy : std::false_type {};

template <typename Model>
struct HasIsLegacy<Model, std::void_t<decltype(std::declval<Model>().isLegacy())>>
    : std::true_type {};

TEST(CameraModelLegacy, IsTheOnlyOneThatCanBeAskedWhetherItIsAndSaysYes)
{
    static_assert(!HasIsLegacy<CameraModel>::value);
    static_assert(HasIsLegacy<CameraModelLegacy>::value);
    EXPECT_TRUE(CameraModelLegacy(nullptr).isLegacy());
}

TEST(CameraModelLegacy, HoldsTheSameData)
{
    CameraModelLegacy model(nullptr);
    model.setPropertyValue(0x406, 12);
    EXPECT_EQ(model.Tv, 12U);
}

}  // namespace
