#include "canon/PropertyCommands.h"

#include "EdSdkCodes.h"
#include "canon/CameraModel.h"
#include "canon/PropertyData.h"
#include "canon/Roomy.h"

namespace canon {

namespace {

// Data types of properties that are read.
constexpr EdsDataType kTypeText = 2;
constexpr EdsDataType kTypeUInt32 = 9;
constexpr EdsDataType kTypeFocusInfo = 101;

constexpr std::size_t kProductNameLength = 255;

// What kPropReportedSet stands for, in the order of reading.
constexpr std::initializer_list<EdsPropertyID> kReportedValues = {
    kPropAEMode,      kPropTv, kPropAv, kPropISOSpeed, kPropMeteringMode, kPropExposureCompensation,
    kPropImageQuality};
constexpr std::initializer_list<EdsPropertyID> kReportedDescs = {
    kPropAEMode,       kPropTv,
    kPropAv,           kPropISOSpeed,
    kPropMeteringMode, kPropExposureCompensation,
    kPropImageQuality, kPropColorTemperature};

// A read looks at the low half of the code only; a write looks at all of it.
bool isBusyForRead(EdsError error)
{
    return (error & 0xFFFF) == kDeviceBusy;
}

}  // namespace

bool PropertyReadCommand::execute()
{
    const EdsError error = read();
    if (error == kOk) {
        return true;
    }
    if (isBusyForRead(error)) {
        model().notify("DeviceBusy");
        return false;
    }
    model().notify("error", error);
    return m_isGivenUp;
}

EdsError PropertyReadCommand::read()
{
    if (m_property != kPropReportedSet) {
        return readOne(m_property);
    }
    for (const EdsPropertyID reported : m_reportedSet) {
        if (const EdsError error = readOne(reported); error != kOk) {
            return error;
        }
    }
    return kOk;
}

GetPropertyCommand::GetPropertyCommand(CameraModel& model, EdsPropertyID property)
    : PropertyReadCommand(model, property, kReportedValues,
                          property == kPropBatteryQuality || property == kPropFocusInfo)
{}

EdsError GetPropertyCommand::readOne(EdsPropertyID property)
{
    EdsDataType type = 0;
    std::uint32_t size = 0;
    EdsError error = EdsGetPropertySize(model().camera, property, 0, &type, &size);
    if (error != kOk) {
        return error;
    }

    if (type == kTypeUInt32 || type == kTypeText || type == kTypeFocusInfo) {
        PropertyData data;
        error = data.read(model().camera, property, size);
        if (error != kOk) {
            return error;
        }
        if (type == kTypeUInt32) {
            model().setPropertyValue(property, data.as<std::uint32_t>());
        } else if (type == kTypeFocusInfo) {
            model().setFocusInfo(data.as<FocusInfo>());
        } else if (property == kPropProductName) {
            model().productName = data.text().substr(0, kProductNameLength);
        }
    }
    model().notify("PropertyChanged", property);
    return kOk;
}

GetPropertyDescCommand::GetPropertyDescCommand(CameraModel& model, EdsPropertyID property)
    : PropertyReadCommand(model, property, kReportedDescs, true)
{}

EdsError GetPropertyDescCommand::readOne(EdsPropertyID property)
{
    Roomy<EdsPropertyDesc> description;
    const EdsError error = EdsGetPropertyDesc(model().camera, property, description.toFill());
    if (error != kOk) {
        return error;
    }
    model().setPropertyDesc(property, *description);
    model().notify("PropertyDescChanged", property);
    return kOk;
}

template <typename Value>
bool SetPropertyCommand<Value>::execute()
{
    const EdsError error =
        EdsSetPropertyData(model().camera, m_property, 0, sizeof m_value, &m_value);
    reportFailure(error);
    return error != kDeviceBusy;
}

template class SetPropertyCommand<std::uint32_t>;
template class SetPropertyCommand<EdsPoint>;

bool SetCapacityCommand::execute()
{
    const EdsError error = EdsSetCapacity(model().camera, m_capacity);
    if (error != kOk) {
        model().notify("error", error);
    }
    return true;
}

}  // namespace canon
