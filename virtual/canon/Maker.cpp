#include "canon/Maker.h"

#include <chrono>
#include <thread>
#include <vector>

#include "canon/Codes.h"
#include "common/Text.h"

namespace virtualcanon {

void Maker::reset()
{
    ++m_world.epoch;
    m_world.resetShared();
    m_world.options = Options{};
    applyOptions();
    m_world.faults.clear();
    m_world.files.clear();
    if (m_world.libraryThreads != nullptr) {
        m_world.libraryThreads->exposures.clear();
    }
    for (const auto& body : m_world.bodies) {
        if (body != nullptr) {
            body->exposures = 0;
            body->isKeptOpen = false;
            body->isAsleep = false;
            body->shots = 0;
            body->files = 0;
            body->pictureName.clear();
        }
    }
    if (!m_world.hasCameraInUse()) {
        m_world.bodies.clear();
        m_world.connections.clear();
        addFactoryCamera();
    }
    m_world.changed.notify_all();
}

int Maker::addCamera(const std::string& name, std::uint32_t id)
{
    const std::string text = name.substr(0, kEdsMaxName - 1);
    return addBody(m_world, Bytes(text.begin(), text.end()), id)->number();
}

void Maker::removeCamera(int number)
{
    unplugCamera(number);
    m_world.bodies[static_cast<std::size_t>(number)] = nullptr;
}

void Maker::nameCamera(int number, const std::string& name)
{
    const std::string text = name.substr(0, kEdsMaxName);
    const std::shared_ptr<Body> named = m_world.existing(number);
    raiseChanges(m_world, m_world.connectionOf(*named),
                 named->setName(Bytes(text.begin(), text.end())));
}

void Maker::plugCamera(int number)
{
    m_world.existing(number)->isPlugged = true;
}

void Maker::unplugCamera(int number)
{
    unplug(m_world, *m_world.existing(number));
}

void Maker::turnDial(int number, std::uint32_t mode)
{
    const std::shared_ptr<Body> turned = m_world.existing(number);
    raiseChanges(m_world, m_world.connectionOf(*turned), turned->set(property::kMode, mode));
}

bool Maker::isSessionOpen(int number) const
{
    const auto connection = m_world.connectionOf(*m_world.existing(number));
    return connection != nullptr && connection->isOpen;
}

std::string Maker::pressShutter(Lock& lock, int number)
{
    const std::shared_ptr<Body> pressed = m_world.existing(number);
    const auto connection = m_world.connectionOf(*pressed);
    if (pressed->isAsleep) {
        return "the camera sleeps";
    }
    if (connection != nullptr && connection->areButtonsLocked) {
        return "the buttons are locked";
    }
    const std::uint32_t code = press(m_world, lock, pressed, true);
    return code == result::kOk ? "" : "the camera refuses: " + virtualcamera::hexadecimal(code);
}

bool Maker::closeShutter(int number)
{
    return endExposure(m_world, *m_world.existing(number));
}

bool Maker::isExposing(int number) const
{
    return m_world.existing(number)->exposures > 0;
}

void Maker::applyOptions()
{
    m_world.log.keep(static_cast<std::size_t>(m_world.options.logLines));
    for (const auto& body : m_world.bodies) {
        if (body != nullptr) {
            body->setLight(m_world.options.light);
        }
    }
}

bool Maker::isIdle() const
{
    if (m_world.underWay != 0) {
        return false;
    }
    const auto& threads = m_world.libraryThreads;
    return threads == nullptr || (threads->events.empty() && threads->exposures.empty() &&
                                  threads->handling.empty() && threads->developing == 0);
}

bool Maker::hasThreads() const
{
    return m_world.libraryThreads != nullptr || !m_world.retired.empty();
}

void Maker::unload()
{
    std::vector<std::shared_ptr<LibraryThreads>> generations;
    {
        Lock lock(m_world.mutex);
        if (m_world.libraryThreads != nullptr) {
            stopThreads(m_world, lock);
        }
        generations.swap(m_world.retired);
        const auto deadline = Clock::now() + std::chrono::seconds(1);
        for (const auto& old : generations) {
            m_world.changed.wait_until(lock, deadline, [&] { return old->running == 0; });
        }
        for (const auto& old : generations) {
            for (std::thread& thread : old->all) {
                // A handler that never returns must not keep the process from ending.
                if (old->running != 0) {
                    thread.detach();
                }
            }
        }
    }
    for (const auto& old : generations) {
        for (std::thread& thread : old->all) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

    const Lock lock(m_world.mutex);
    m_world.forgetShared();
    m_world.objects.clear();
    virtualcamera::forget(m_world.files);
    virtualcamera::forget(m_world.bodies);
    virtualcamera::forget(m_world.connections);
    virtualcamera::forget(m_world.faults);
    virtualcamera::forget(m_world.options);
}

}  // namespace virtualcanon

namespace virtualcamera {

Maker& maker()
{
    return onlyOne<virtualcanon::Maker>(virtualcanon::world());
}

}  // namespace virtualcamera
