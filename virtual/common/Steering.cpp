// The functions of VirtualCamera.h.
#include "VirtualCamera.h"

#include <array>

#include "common/Configure.h"
#include "common/Maker.h"
#include "common/Text.h"
#include "common/World.h"

namespace {

using virtualcamera::copyOut;
using virtualcamera::maker;
using virtualcamera::textFrom;
using virtualcamera::waitFor;
using virtualcamera::World;

using LockedMaker = virtualcamera::Locked<virtualcamera::Maker>;

// The maker, with the world locked as long as the answer lives.
LockedMaker locked()
{
    return {maker(), maker().world().mutex};
}

// The same, with the work done that is due.
LockedMaker lockedWithDuePictures()
{
    auto maker = locked();
    maker->catchUp();
    return maker;
}

// Does `work` with the maker of a camera; 0 with an error when there is no such camera.
template <typename Work>
int withCamera(int camera, Work work)
{
    auto maker = locked();
    if (!maker->hasCamera(camera)) {
        return maker->world().refuseCamera(camera);
    }
    return work(maker);
}

// The code that an event is counted under; -1 stands for all.
std::optional<std::uint32_t> countedCode(std::int64_t event)
{
    return event == -1 ? std::nullopt : std::optional(static_cast<std::uint32_t>(event));
}

std::string describe(const virtualcamera::Picture& picture)
{
    constexpr std::array<const char*, 3> kOrigins{"host", "body", "test"};
    std::string text = "shot=" + std::to_string(picture.shot) +
                       " camera=" + std::to_string(picture.camera) +
                       " origin=" + kOrigins.at(static_cast<std::size_t>(picture.origin)) +
                       " name=" + picture.name + " size=" + std::to_string(picture.size) +
                       " announced=" + std::to_string(picture.announced);
    for (const auto& [name, value] : picture.ownFields()) {
        text.append(" ").append(name).append("=").append(std::to_string(value));
    }
    return text + "\n";
}

virtualcamera::Picture::Fields fieldsOf(const virtualcamera::Picture& picture)
{
    virtualcamera::Picture::Fields fields = picture.ownFields();
    fields.emplace_back("shot", picture.shot);
    fields.emplace_back("camera", picture.camera);
    fields.emplace_back("origin", static_cast<std::int64_t>(picture.origin));
    fields.emplace_back("size", picture.size);
    fields.emplace_back("announced", picture.announced);
    return fields;
}

}  // namespace

extern "C" {

void VirtualCameraReset(void)
{
    locked()->reset();
}

int VirtualCameraConfigure(const char* text)
{
    return configure(*locked(), textFrom(text));
}

int VirtualCameraSettings(char* buffer, int capacity)
{
    return copyOut(describeSettings(*lockedWithDuePictures()), buffer, capacity);
}

int VirtualCameraLastError(char* buffer, int capacity)
{
    return copyOut(lockedWithDuePictures()->world().lastError, buffer, capacity);
}

int VirtualCameraAdd(const char* name, uint32_t id)
{
    return locked()->addCamera(textFrom(name), id);
}

int VirtualCameraRemove(int camera)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        maker->removeCamera(camera);
        return 1;
    });
}

int VirtualCameraCount(void)
{
    return locked()->cameraCount();
}

int VirtualCameraUnplug(int camera)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        maker->unplugCamera(camera);
        return 1;
    });
}

int VirtualCameraPlug(int camera)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        maker->plugCamera(camera);
        return 1;
    });
}

int VirtualCameraSessionOpen(int camera)
{
    return withCamera(camera,
                      [&](LockedMaker& maker) { return maker->isSessionOpen(camera) ? 1 : 0; });
}

int VirtualCameraPressShutter(int camera)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        maker->catchUp();
        return maker->world().answer(maker->pressShutter(maker.lock(), camera));
    });
}

int VirtualCameraEndExposure(int camera)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        return maker->closeShutter(camera) ? 1 : maker->world().refuse("no exposure is kept open");
    });
}

int VirtualCameraWaitForExposure(int camera, int timeoutMs)
{
    return waitFor(maker(), timeoutMs,
                   [&] { return maker().hasCamera(camera) && maker().isExposing(camera); });
}

int VirtualCameraTurnDial(int camera, uint32_t mode)
{
    return withCamera(camera, [&](LockedMaker& maker) {
        maker->turnDial(camera, mode);
        return 1;
    });
}

int VirtualCameraFault(const char* rule)
{
    const auto maker = locked();
    return maker->world().answer(maker->addFault(textFrom(rule)));
}

int VirtualCameraFailNext(const char* call, int64_t code, int calls)
{
    return VirtualCameraFault(
        (textFrom(call) + " code=" + std::to_string(code) + " calls=" + std::to_string(calls))
            .c_str());
}

int VirtualCameraEventRule(const char* rule)
{
    const auto maker = locked();
    World& world = maker->world();
    return world.answer(world.eventRules.add(textFrom(rule)));
}

void VirtualCameraClearFaults(void)
{
    const auto maker = locked();
    maker->clearFaults();
    maker->world().eventRules.clear();
}

int VirtualCameraReleaseHangs(void)
{
    return locked()->world().releaseHangs();
}

int VirtualCameraWaitForHang(const char* call, int timeoutMs)
{
    const std::string name = textFrom(call);
    return waitFor(maker(), timeoutMs, [&] { return maker().world().isHanging(name); });
}

int VirtualCameraEventCount(int64_t event)
{
    return locked()->world().eventCount(countedCode(event));
}

int VirtualCameraWaitForEvents(int64_t event, int count, int timeoutMs)
{
    return waitFor(maker(), timeoutMs,
                   [&] { return maker().world().eventCount(countedCode(event)) >= count; });
}

int VirtualCameraCallCount(const char* call)
{
    return locked()->world().log.calls(textFrom(call));
}

int VirtualCameraWaitForCalls(const char* call, int count, int timeoutMs)
{
    const std::string name = textFrom(call);
    return waitFor(maker(), timeoutMs, [&] { return maker().world().log.calls(name) >= count; });
}

int VirtualCameraWaitUntilIdle(int timeoutMs)
{
    return waitFor(maker(), timeoutMs, [] { return maker().isIdle(); });
}

int VirtualCameraLog(char* buffer, int capacity)
{
    return copyOut(lockedWithDuePictures()->world().log.text(), buffer, capacity);
}

int64_t VirtualCameraClock(void)
{
    return locked()->world().log.microseconds();
}

void VirtualCameraClearLog(void)
{
    locked()->world().log.clearLines();
}

int VirtualCameraMisuseCount(void)
{
    return locked()->world().log.misuses();
}

int VirtualCameraMisuse(char* buffer, int capacity)
{
    return copyOut(lockedWithDuePictures()->world().log.misuseText(), buffer, capacity);
}

void VirtualCameraClearMisuse(void)
{
    locked()->world().log.clearMisuses();
}

int VirtualCameraPictureCount(void)
{
    return lockedWithDuePictures()->pictureCount();
}

int VirtualCameraWaitForPictures(int count, int timeoutMs)
{
    return waitFor(maker(), timeoutMs, [&] { return maker().pictureCount() >= count; });
}

int VirtualCameraPictureList(char* buffer, int capacity)
{
    const auto maker = lockedWithDuePictures();
    std::string text;
    for (int i = 0; i < maker->pictureCount(); ++i) {
        text += describe(*maker->picture(i));
    }
    return copyOut(text, buffer, capacity);
}

int64_t VirtualCameraPictureValue(int picture, const char* field)
{
    const auto maker = lockedWithDuePictures();
    const auto found = maker->picture(picture);
    if (found == nullptr) {
        maker->world().refuse("no such picture");
        return -1;
    }
    const std::string wanted = textFrom(field);
    for (const auto& [name, value] : fieldsOf(*found)) {
        if (name == wanted) {
            return value;
        }
    }
    return -1;
}

int VirtualCameraPictureName(int picture, char* buffer, int capacity)
{
    const auto maker = lockedWithDuePictures();
    const auto found = maker->picture(picture);
    return copyOut(found == nullptr ? std::string() : found->name, buffer, capacity);
}

int64_t VirtualCameraPictureBytes(int picture, void* buffer, int64_t capacity)
{
    const auto maker = lockedWithDuePictures();
    const auto found = maker->picture(picture);
    if (found == nullptr || found->bytes == nullptr) {
        maker->world().refuse("no such picture, or its bytes are not kept");
        return -1;
    }
    return copyOut(found->bytes->data(), found->bytes->size(), buffer, capacity);
}

}  // extern "C"
