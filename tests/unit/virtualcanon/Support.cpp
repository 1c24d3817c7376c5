#include "Support.h"

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

Host::~Host()
{
    close();
}

EdsError Host::connect(int index)
{
    EdsError error = EdsInitializeSDK();
    if (error != 0) {
        return error;
    }
    EdsCameraListRef list = nullptr;
    error = EdsGetCameraList(&list);
    if (error != 0) {
        return error;
    }
    error = EdsGetChildAtIndex(list, index, &m_camera);
    EdsRelease(list);
    if (error != 0) {
        return error;
    }
    EdsSetPropertyEventHandler(m_camera, 0x100, onProperty, this);
    EdsSetObjectEventHandler(m_camera, 0x200, onObject, this);
    return EdsSetCameraStateEventHandler(m_camera, 0x300, onState, this);
}

EdsError Host::open()
{
    EdsError error = EdsOpenSession(m_camera);
    if (error == 0) {
        error = set(0xB, 3);
    }
    if (error == 0) {
        error = EdsSendStatusCommand(m_camera, 0, 0);
    }
    if (error == 0) {
        error = EdsSetCapacity(m_camera, {0x7FFFFFFF, 0x1000, 1});
        EdsSendStatusCommand(m_camera, 1, 0);
    }
    return error;
}

void Host::close()
{
    if (m_camera != nullptr) {
        EdsCloseSession(m_camera);
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (EdsDirectoryItemRef item : m_items) {
            EdsRelease(item);
        }
        m_items.clear();
        EdsRelease(m_camera);
        m_camera = nullptr;
    }
    EdsTerminateSDK();
}

EdsError Host::shoot() const
{
    const EdsError error = EdsSendCommand(m_camera, 4, 3);
    EdsSendCommand(m_camera, 4, 0);
    return error;
}

EdsError Host::set(EdsPropertyID property, std::uint32_t value) const
{
    return EdsSetPropertyData(m_camera, property, 0, sizeof value, &value);
}

std::uint32_t Host::get(EdsPropertyID property) const
{
    std::uint32_t value = 0xDEADBEEF;
    EXPECT_EQ(EdsGetPropertyData(m_camera, property, 0, sizeof value, &value), 0U);
    return value;
}

std::vector<std::int32_t> Host::allowed(EdsPropertyID property) const
{
    EdsPropertyDesc description{};
    EXPECT_EQ(EdsGetPropertyDesc(m_camera, property, &description), 0U);
    return {description.propDesc, description.propDesc + description.numElements};
}

EdsDirectoryItemRef Host::nextItem()
{
    EdsDirectoryItemRef item = nullptr;
    waitFor([&] {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_items.empty()) {
            return false;
        }
        item = m_items.front();
        m_items.erase(m_items.begin());
        return true;
    });
    return item;
}

EdsDirectoryItemRef Host::picture()
{
    EXPECT_EQ(shoot(), 0U);
    return nextItem();
}

int Host::count(std::uint32_t event, EdsPropertyID property) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    int count = 0;
    for (const Seen& seen : m_seen) {
        count += seen.event == event && (property == 0 || property == seen.property) ? 1 : 0;
    }
    return count;
}

std::vector<std::string> Host::history() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> texts;
    for (const Seen& seen : m_seen) {
        std::ostringstream text;
        text << std::hex << std::uppercase << seen.event << ":" << seen.property;
        texts.push_back(text.str());
    }
    return texts;
}

void Host::forget()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.clear();
}

void Host::note(std::uint32_t event, EdsPropertyID property)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.push_back({event, property});
}

EdsError EDSAPI Host::onProperty(std::uint32_t event, EdsPropertyID property,
                                 std::uint32_t /*parameter*/, void* context)
{
    auto* self = static_cast<Host*>(context);
    if (self->inPropertyHandler) {
        self->inPropertyHandler(event, property);
    }
    self->note(event, property);
    return 0;
}

EdsError EDSAPI Host::onObject(std::uint32_t event, EdsBaseRef object, void* context)
{
    auto* self = static_cast<Host*>(context);
    if (self->inObjectHandler) {
        self->inObjectHandler(event, object);
    }
    if (!(event == 0x208 && self->keep(object)) && object != nullptr) {
        EdsRelease(object);
    }
    self->note(event, 0);
    return 0;
}

bool Host::keep(EdsDirectoryItemRef item)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_camera != nullptr) {
        m_items.push_back(item);
    }
    return m_camera != nullptr;
}

EdsError EDSAPI Host::onState(std::uint32_t event, std::uint32_t /*parameter*/, void* context)
{
    static_cast<Host*>(context)->note(event, 0);
    return 0;
}

void VirtualTest::TearDown()
{
    EXPECT_EQ(misuses(), "");
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    VirtualCameraReset();
}

void OpenTest::SetUp()
{
    VirtualTest::SetUp();
    ASSERT_EQ(m_host.connect(), 0U);
    ASSERT_EQ(m_host.open(), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    m_host.forget();
}

void OpenTest::TearDown()
{
    m_host.close();
    VirtualTest::TearDown();
}

bool waitFor(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

Bytes pictureBytes(int file)
{
    const std::int64_t size = VirtualCameraPictureBytes(file, nullptr, 0);
    Bytes bytes(static_cast<std::size_t>(size < 0 ? 0 : size));
    VirtualCameraPictureBytes(file, bytes.data(), size);
    return bytes;
}

Bytes fileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

EdsError download(EdsDirectoryItemRef item, const std::string& path, EdsProgressCallback progress,
                  void* context)
{
    EdsDirectoryItemInfo info{};
    EdsError error = EdsGetDirectoryItemInfo(item, &info);
    if (error != 0) {
        return error;
    }
    EdsStreamRef stream = nullptr;
    error = EdsCreateFileStream(path.c_str(), 1, 2, &stream);
    if (error != 0) {
        return error;
    }
    error = EdsSetProgressCallback(stream, progress, 2, context);
    if (error == 0) {
        error = EdsDownload(item, info.size, stream);
    }
    if (error == 0) {
        error = EdsDownloadComplete(item);
    }
    EdsRelease(stream);
    return error;
}
