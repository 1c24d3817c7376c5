// What the shared steering does with the virtual Nikon camera.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/Maker.h"
#include "nikon/Cameras.h"
#include "nikon/World.h"

namespace virtualnikon {

class Maker final : public virtualcamera::Maker
{
public:
    explicit Maker(World& world) : virtualcamera::Maker(world), m_world(world) {}

    void reset() override;
    int cameraCount() const override { return static_cast<int>(m_world.cameras.size()); }
    bool hasCamera(int number) const override { return m_world.camera(number) != nullptr; }
    void addFactoryCamera() override { virtualnikon::addFactoryCamera(m_world); }
    int addCamera(const std::string& name, std::uint32_t id) override;
    void removeCamera(int number) override;
    void nameCamera(int number, const std::string& name) override;
    void plugCamera(int number) override;
    void unplugCamera(int number) override;
    void turnDial(int number, std::uint32_t mode) override;
    bool isSessionOpen(int number) const override;
    std::string pressShutter(Lock& lock, int number) override;
    bool closeShutter(int number) override;
    bool isExposing(int number) const override;
    int pictureCount() const override { return static_cast<int>(m_world.pictures.size()); }
    std::shared_ptr<const virtualcamera::Picture> picture(int number) const override
    {
        return virtualcamera::atNumber(m_world.pictures, number);
    }
    std::string addFault(const std::string& rule) override { return m_world.rules.add(rule); }
    void clearFaults() override { m_world.rules.clear(); }
    std::string describeCamera(int number) const override;
    std::string configureOwn(const std::string& key, const std::string& value, int camera) override;
    void applyOptions() override;
    bool isIdle() const override;
    bool hasThreads() const override;
    void catchUp() override;
    Clock::time_point nextDue() const override;
    void unload() override;

private:
    World& m_world;
};

}  // namespace virtualnikon
