// What is known of the connected camera: the last values read and the values it allows.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "EdSdk.h"
#include "canon/Observable.h"

namespace canon {

// The data of a property of type 101, taken as it comes.
using FocusInfo = std::array<std::byte, 19224>;

// Written and read on the session's worker, where the observers are told, too. The one exception
// is evfPosition, which a focus move reads on the thread that asks for it.
class CameraModel : public Observable
{
public:
    // `ref`, the camera, is borrowed from the session, which releases it after the worker has
    // ended.
    explicit CameraModel(EdsCameraRef ref) : camera(ref) {}

    void setFocusInfo(const FocusInfo& record) { focusInfo = record; }

    // Stores the 32-bit value of a property; ids that have no field here are ignored.
    void setPropertyValue(EdsPropertyID property, std::uint32_t value);

    // Stores the allowed values of a property; ids that have no field here are ignored.
    void setPropertyDesc(EdsPropertyID property, const EdsPropertyDesc& description);

    const EdsCameraRef camera;
    std::uint32_t state = 0;
    std::string productName;  // at most 255 bytes

    std::uint32_t AEMode = 0;
    std::uint32_t Av = 0;
    std::uint32_t Tv = 0;
    std::uint32_t ISOSpeed = 0;
    std::uint32_t meteringMode = 0;
    std::uint32_t exposureCompensation = 0;
    std::uint32_t imageQuality = 0;
    std::uint32_t unnamed = 0;
    std::uint32_t evfMode = 0;
    std::uint32_t evfOutputDevice = 0;
    std::uint32_t evfDepthOfFieldPreview = 0;

    // Of the last live-view frame.
    std::uint32_t evfZoom = 0;
    std::atomic<EdsPoint> evfPosition{EdsPoint{0, 0}};
    EdsRect evfZoomRect = {};

    std::uint32_t evfAFMode = 0;
    FocusInfo focusInfo = {};

    EdsPropertyDesc AEModeDesc = {};
    EdsPropertyDesc AvDesc = {};
    EdsPropertyDesc TvDesc = {};
    EdsPropertyDesc ISOSpeedDesc = {};
    EdsPropertyDesc meteringModeDesc = {};
    EdsPropertyDesc exposureCompensationDesc = {};
    EdsPropertyDesc imageQualityDesc = {};
    EdsPropertyDesc evfAFModeDesc = {};
    EdsPropertyDesc colorTemperatureDesc = {};
};

// A camera whose device sub-type is 0: an older body.
class CameraModelLegacy : public CameraModel
{
public:
    using CameraModel::CameraModel;
    virtual bool isLegacy() const { return true; }
};

}  // namespace canon
