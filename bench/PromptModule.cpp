#include "PromptModule.h"

#include <algorithm>
#include <utility>

namespace bench {

namespace {

constexpr std::size_t kPartSize = std::size_t{256} * 1024;

std::vector<std::string> texts(const std::string& prefix, int count)
{
    std::vector<std::string> all;
    for (int i = 1; i <= count; ++i) {
        all.push_back(prefix + std::to_string(i));
    }
    return all;
}

}  // namespace

PromptModule::PromptModule(std::string picture) : m_picture(std::move(picture))
{
    module.addCommonCaps();
    m_source = &addChild(module, kMaidLevelSource, 1);
    m_source->cap(kMaidCapLiveness, kMaidCapTypeUnsigned, kMaidOperationGet).value = 1;
    const auto addEnum = [this](std::uint32_t id, const char* description) -> fake::Cap& {
        return m_source->cap(id, kMaidCapTypeEnum, fake::kSettable, description);
    };
    addEnum(kMaidCapExposureMode, "Exposure Mode").numbers({0, 1, 2, 3, 5, 6}, 1);
    // As many entries as a camera of the upper class has.
    addEnum(kMaidCapShutterSpeed, "Shutter Speed").texts(texts("1/", 55), 1);
    addEnum(kMaidCapAperture, "Aperture").texts(texts("f/", 19), 1);
    addEnum(kMaidCapSensitivity, "Sensitivity").texts(texts("10", 22), 1);
    addEnum(kMaidCapWhiteBalance, "White Balance Mode").texts(texts("Direct Sunlight ", 12), 1);
    addEnum(kMaidCapImageQuality, "Compression Level").texts(texts("JPEG Fine ", 7), 1);
}

void PromptModule::takePicture()
{
    if (auto taken = m_source->takeChild(m_lastItem)) {
        m_taken.push_back(std::move(taken));
    }
    fake::Object& item = addChild(*m_source, kMaidLevelItem, ++m_lastItem);
    item.cap(kMaidCapDataTypes, kMaidCapTypeUnsigned, kMaidOperationGet).value = kMaidItemImage;
    fake::Object& data = addChild(item, kMaidLevelData, kMaidItemImage);
    data.cap(kMaidCapDataProc, 0, fake::kSettable);
    data.cap(kMaidCapAcquire, 0, kMaidOperationStart);
}

MaidResult PromptModule::start(const fake::Call& call)
{
    return call.parameter == kMaidCapAcquire ? deliver(call.object->at(kMaidCapDataProc).callback)
                                             : kMaidOk;
}

MaidResult PromptModule::deliver(const MaidCallback& procedure)
{
    m_firstPart = Clock::now();
    MaidFileInfo info = fake::fileInfo(m_picture.size(), 0);
    info.removeObject = 1;
    for (std::size_t at = 0; at < m_picture.size(); at += info.length) {
        info.length = static_cast<std::uint32_t>(std::min(kPartSize, m_picture.size() - at));
        const MaidResult result = fake::callData(procedure, &info, m_picture.data() + at);
        if (result != kMaidOk) {
            return result;
        }
    }
    return kMaidOk;
}

}  // namespace bench
