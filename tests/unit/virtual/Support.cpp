#include "Support.h"

#include <stb_image.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

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
    if (event == 0x208) {
        const std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_items.push_back(object);
    } else if (object != nullptr) {
        EdsRelease(object);
    }
    self->note(event, 0);
    return 0;
}

EdsError EDSAPI Host::onState(std::uint32_t event, std::uint32_t /*parameter*/, void* context)
{
    static_cast<Host*>(context)->note(event, 0);
    return 0;
}

void VirtualTest::TearDown()
{
    EXPECT_EQ(misuses(), "");
    EXPECT_EQ(VirtualCameraReferenceCount(""), 0);
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

Folder::Folder()
{
    static std::atomic<int> number{0};
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    m_path = (fs::temp_directory_path() /
              ("virtual-camera-" + std::to_string(now) + "-" + std::to_string(++number)))
                 .string();
    fs::create_directory(m_path);
}

Folder::~Folder()
{
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
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

namespace {

std::string textOf(int (*function)(char*, int))
{
    std::string text(static_cast<std::size_t>(function(nullptr, 0)) + 1, '\0');
    function(text.data(), static_cast<int>(text.size()));
    text.resize(text.size() - 1);
    return text;
}

}  // namespace

std::string misuses()
{
    return textOf(VirtualCameraMisuse);
}

std::string callLog()
{
    return textOf(VirtualCameraLog);
}

std::string takeMisuses()
{
    const std::string text = misuses();
    VirtualCameraClearMisuse();
    return text;
}

void configure(const std::string& text)
{
    ASSERT_EQ(VirtualCameraConfigure(text.c_str()), 0) << textOf(VirtualCameraLastError);
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

double Decoded::mean(int channel) const
{
    const auto end = static_cast<std::size_t>(width * (height * 3 / 4)) * 3;
    double sum = 0;
    for (std::size_t i = static_cast<std::size_t>(channel); i < end; i += 3) {
        sum += samples[i];
    }
    return sum / (static_cast<double>(end) / 3);
}

Decoded decode(const Bytes& file)
{
    Decoded decoded;
    int channels = 0;
    std::uint8_t* samples = stbi_load_from_memory(file.data(), static_cast<int>(file.size()),
                                                  &decoded.width, &decoded.height, &channels, 3);
    if (samples == nullptr) {
        return {};
    }
    const auto size = static_cast<std::size_t>(decoded.width * decoded.height) * 3;
    decoded.samples.assign(samples, samples + size);
    stbi_image_free(samples);
    return decoded;
}
