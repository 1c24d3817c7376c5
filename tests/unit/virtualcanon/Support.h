// What the tests of the virtual camera share: an application that uses it, and a look at files.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "EdSdk.h"
#include "VirtualCanon.h"
#include "virtualcamera/Decoded.h"
#include "virtualcamera/Steered.h"

constexpr int kDeadlineMs = 60000;

// A tethering application: one camera, three handlers that write down what they are told.
class Host
{
public:
    Host() = default;
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Initialises the library, takes a camera, registers the handlers. Answers the first error.
    EdsError connect(int index = 0);

    // Opens the session as a tethering application does: pictures go to the host.
    EdsError open();

    // Gives everything back, in the right order.
    void close();

    EdsCameraRef camera() const { return m_camera; }

    // Presses the shutter button all the way and lets it go; the answer to the press.
    EdsError shoot() const;

    EdsError set(EdsPropertyID property, std::uint32_t value) const;
    std::uint32_t get(EdsPropertyID property) const;
    std::vector<std::int32_t> allowed(EdsPropertyID property) const;

    // The reference of the next picture; waits for it. The caller releases it.
    EdsDirectoryItemRef nextItem();

    // Takes a picture and answers its reference.
    EdsDirectoryItemRef picture();

    // How many of these events came; property 0 counts all of them.
    int count(std::uint32_t event, EdsPropertyID property = 0) const;

    // Codes and properties in the order they came, e.g. "101:406".
    std::vector<std::string> history() const;
    void forget();

    // Called in the object handler, before it goes on.
    std::function<void(std::uint32_t event, EdsBaseRef object)> inObjectHandler;
    std::function<void(std::uint32_t event, EdsPropertyID property)> inPropertyHandler;

private:
    struct Seen {
        std::uint32_t event;
        EdsPropertyID property;
    };

    static EdsError EDSAPI onProperty(std::uint32_t event, EdsPropertyID property,
                                      std::uint32_t parameter, void* context);
    static EdsError EDSAPI onObject(std::uint32_t event, EdsBaseRef object, void* context);
    static EdsError EDSAPI onState(std::uint32_t event, std::uint32_t parameter, void* context);
    void note(std::uint32_t event, EdsPropertyID property);

    // Keeps the reference of a picture; false when the camera was given back already.
    bool keep(EdsDirectoryItemRef item);

    EdsCameraRef m_camera = nullptr;
    mutable std::mutex m_mutex;
    std::vector<Seen> m_seen;
    std::vector<EdsDirectoryItemRef> m_items;
};

// Factory state before each test, and no misuse after it unless the test took note of it.
class VirtualTest : public testing::Test
{
protected:
    void SetUp() override { VirtualCameraReset(); }
    void TearDown() override;
};

// With an application whose session is open and whose first events are over.
class OpenTest : public VirtualTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    Host m_host;
};

bool waitFor(const std::function<bool()>& condition);

Bytes pictureBytes(int file);
Bytes fileBytes(const std::string& path);

// Brings a picture to a file as an application does. Answers the first error.
EdsError download(EdsDirectoryItemRef item, const std::string& path,
                  EdsProgressCallback progress = nullptr, void* context = nullptr);
