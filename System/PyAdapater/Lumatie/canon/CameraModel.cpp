#include "canon/CameraModel.h"

#include "EdSdkCodes.h"

namespace canon {

namespace {

struct ValueField {
    EdsPropertyID property;
    std::uint32_t CameraModel::*field;
};

constexpr ValueField kValueFields[] = {
    {kPropAEMode, &CameraModel::AEMode},
    {kPropAv, &CameraModel::Av},
    {kPropTv, &CameraModel::Tv},
    {kPropISOSpeed, &CameraModel::ISOSpeed},
    {kPropMeteringMode, &CameraModel::meteringMode},
    {kPropExposureCompensation, &CameraModel::exposureCompensation},
    {kPropImageQuality, &CameraModel::imageQuality},
    {kPropEvfMode, &CameraModel::evfMode},
    {kPropEvfOutputDevice, &CameraModel::evfOutputDevice},
    {kPropEvfDepthOfFieldPreview, &CameraModel::evfDepthOfFieldPreview},
    {kPropEvfAFMode, &CameraModel::evfAFMode},
};

struct DescField {
    EdsPropertyID property;
    EdsPropertyDesc CameraModel::*field;
};

constexpr DescField kDescFields[] = {
    {kPropAEMode, &CameraModel::AEModeDesc},
    {kPropAv, &CameraModel::AvDesc},
    {kPropTv, &CameraModel::TvDesc},
    {kPropISOSpeed, &CameraModel::ISOSpeedDesc},
    {kPropMeteringMode, &CameraModel::meteringModeDesc},
    {kPropExposureCompensation, &CameraModel::exposureCompensationDesc},
    {kPropImageQuality, &CameraModel::imageQualityDesc},
    {kPropEvfAFMode, &CameraModel::evfAFModeDesc},
    {kPropColorTemperature, &CameraModel::colorTemperatureDesc},
};

// Sets the field that `fields` names for the property; nothing when it names none.
template <typename Fields, typename Value>
void setField(CameraModel& model, const Fields& fields, EdsPropertyID property, const Value& value)
{
    for (const auto& entry : fields) {
        if (entry.property == property) {
            model.*entry.field = value;
            return;
        }
    }
}

}  // namespace

void CameraModel::setPropertyValue(EdsPropertyID property, std::uint32_t value)
{
    setField(*this, kValueFields, property, value);
}

void CameraModel::setPropertyDesc(EdsPropertyID property, const EdsPropertyDesc& description)
{
    setField(*this, kDescFields, property, description);
}

}  // namespace canon
