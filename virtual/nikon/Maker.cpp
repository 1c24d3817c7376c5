#include "nikon/Maker.h"

#include <algorithm>
#include <cstdio>
#include <list>
#include <vector>

#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

void noteOpenObjects(const ObjectTable& objects, virtualcamera::CallLog& log)
{
    std::string names;
    for (const ObjectRef& object : objects.all()) {
        names += " " + object->name();
    }
    if (!names.empty()) {
        log.misuse("unloaded with open objects:" + names);
        std::fprintf(stderr, "virtual camera: unloaded with open objects:%s\n", names.c_str());
    }
}

}  // namespace

void Maker::reset()
{
    m_world.resetShared();
    m_world.options = Options{};
    applyOptions();
    m_world.corruptions.clear();
    m_world.rules.clear();
    m_world.pictures.clear();
    m_world.inventedChildren.clear();
    m_world.objects.forgetClosed();
    for (const PendingRef& waiting : std::list<PendingRef>(m_world.pending)) {
        waiting->how = Completion{};
        if (waiting->exposure != nullptr && !waiting->isReady) {
            finishPending(m_world, waiting, result::kAborted);
        }
    }
    m_world.exposures.clear();
    if (m_world.objects.find(kMaidLevelSource, 0) == nullptr) {
        m_world.cameras.clear();
        addFactoryCamera();
    }
    for (const auto& camera : m_world.cameras) {
        if (camera == nullptr) {
            continue;
        }
        camera->body->isExposing = false;
        camera->body->shots = 0;
        camera->body->files = 0;
        for (const auto& item : std::vector<std::shared_ptr<Item>>(camera->items)) {
            removeItem(m_world, *camera, item, false);
        }
        camera->items.clear();
    }
    m_world.changed.notify_all();
}

int Maker::addCamera(const std::string& name, std::uint32_t id)
{
    const auto added = virtualnikon::addCamera(m_world, name, id);
    raiseChild(m_world, kMaidEventAddChild, m_world.objects.find(kMaidLevelModule, 0), id);
    return added->body->number();
}

void Maker::removeCamera(int number)
{
    unplugCamera(number);
    m_world.cameras[static_cast<std::size_t>(number)] = nullptr;
}

void Maker::nameCamera(int number, const std::string& name)
{
    m_world.existing(number)->body->setName(name);
}

void Maker::plugCamera(int number)
{
    plug(m_world, *m_world.existing(number));
}

void Maker::unplugCamera(int number)
{
    const std::shared_ptr<Camera> unplugged = m_world.existing(number);
    unplug(m_world, *unplugged);
}

void Maker::turnDial(int number, std::uint32_t mode)
{
    const std::shared_ptr<Camera> turned = m_world.existing(number);
    raiseChanges(m_world, *turned, turned->body->turnDial(mode));
}

bool Maker::isSessionOpen(int number) const
{
    const auto& all = m_world.objects.all();
    const std::shared_ptr<Camera> wanted = m_world.existing(number);
    return std::any_of(all.begin(), all.end(), [&](const ObjectRef& object) {
        return object->level == kMaidLevelSource && object->camera == wanted;
    });
}

std::string Maker::pressShutter(Lock& /*lock*/, int number)
{
    const std::shared_ptr<Camera> pressed = m_world.existing(number);
    const bool isDone = pressed->body->isPlugged && press(m_world, pressed, true) != nullptr;
    return isDone ? "" : "the camera is busy or unplugged";
}

bool Maker::closeShutter(int number)
{
    return endExposure(m_world, *m_world.existing(number));
}

bool Maker::isExposing(int number) const
{
    return m_world.existing(number)->body->isExposing;
}

void Maker::applyOptions()
{
    m_world.log.keep(static_cast<std::size_t>(m_world.options.logLines));
    for (const auto& camera : m_world.cameras) {
        if (camera != nullptr) {
            camera->body->setLight(m_world.options.light);
        }
    }
}

bool Maker::isIdle() const
{
    const bool isPending =
        std::any_of(m_world.pending.begin(), m_world.pending.end(),
                    [](const auto& command) { return !command->isReady || !command->how.isNever; });
    return m_world.underWay == 0 && m_world.delivering == 0 && !isPending &&
           m_world.exposures.empty() && m_world.events.empty();
}

bool Maker::hasThreads() const
{
    return m_world.thread.joinable();
}

void Maker::catchUp()
{
    develop(m_world);
}

Clock::time_point Maker::nextDue() const
{
    Clock::time_point due = Clock::time_point::max();
    for (const auto& exposure : m_world.exposures) {
        due = std::min(due, exposure->due);
    }
    return due;
}

void Maker::unload()
{
    Lock lock(m_world.mutex);
    stopThread(m_world, lock);
    noteOpenObjects(m_world.objects, m_world.log);
    m_world.forgetShared();
    m_world.objects.clear();
    static_cast<State&>(m_world) = State{};
    virtualcamera::forget(m_world.options);
}

}  // namespace virtualnikon

namespace virtualcamera {

Maker& maker()
{
    return onlyOne<virtualnikon::Maker>(virtualnikon::world());
}

}  // namespace virtualcamera
