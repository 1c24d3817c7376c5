// The virtual Canon camera in a storm: its events come on three threads of the library.
#include <array>
#include <atomic>
#include <cstdint>
#include <sstream>

#include "Storm.h"
#include "VirtualCanon.h"

namespace {

constexpr std::array<std::uint32_t, 7> kProperties{0x100, 0x106, 0x107, 0x402, 0x405, 0x406, 0x436};
constexpr std::array<std::uint32_t, 4> kDial{0, 1, 2, 3};
constexpr std::array<std::uint32_t, 3> kQualities{0x0013FF0F, 0x0064FF0F, 0x00640013};
constexpr std::array<std::int32_t, 4> kAllowed{0x48, 0x50, 0x58, 0x60};
constexpr std::array<std::uint32_t, 3> kObjectEvents{0x204, 0x207, 0x20C};
constexpr std::array<std::uint32_t, 4> kStateEvents{0x301, 0x302, 0x303, 0x306};
constexpr std::array<const char*, 6> kFaults{
    "EdsDownload code=0x2A",    "EdsGetPropertyData code=0x81",  "EdsSetPropertyData code=0xC0",
    "EdsSendCommand code=0x81", "EdsGetPropertyDesc delay_ms=5", "EdsDownload delay_ms=20 calls=2"};

constexpr std::array<const char*, 4> kPictureRules{"0x208 double", "0x208 delay_ms=30",
                                                   "0x101 double", "0x102 lose"};

constexpr std::uint32_t kReportedSet = 0xFFFF;  // stands for all properties that are reported
constexpr std::uint32_t kExposureMode = 0x436;
constexpr std::uint32_t kQuality = 0x100;

template <typename TextOut>
std::string textOf(TextOut textOut)
{
    std::vector<char> buffer(static_cast<std::size_t>(textOut(nullptr, 0)) + 1);
    textOut(buffer.data(), static_cast<int>(buffer.size()));
    return buffer.data();
}

class CanonStorm final : public Storm
{
public:
    unsigned cameras() const override { return 2; }
    std::string sessionInfo(unsigned owner) const override
    {
        return owner % cameras() == 0 ? "Virtual EOS" : "Second EOS";
    }
    unsigned startsAndEnds() const override { return 10; }
    long mostUntold(long sessions) const override { return sessions; }
    unsigned pauseMs() const override { return 50; }

    // The camera did not even tell its name, and so no extension.
    bool isOfNoPicture(const std::string& fileName) const override
    {
        return fileName.find('.') == std::string::npos;
    }

    void begin(unsigned round, bool isOrderly) override
    {
        VirtualCameraReset();
        std::string text =
            "picture.width = 32\npicture.height = 32\npicture.keep = 100000\n"
            "shutter.lag_ms = 1\nlog.lines = 500\nevents.threads = 3\n";
        text += round % 3 == 1 ? "events.inside_calls = 1\n" : "";
        text += round % 5 == 2 ? "events.at_registration = 1\n" : "";
        text += round % 5 == 3 ? "events.at_terminate = 1\n" : "";
        // A second session on a camera in use is never opened, but its worker uses the camera.
        text += isOrderly ? "" : "misuse.one_thread = 0\n";
        text += "[camera 1]\ncamera.name = Second EOS\n";
        VirtualCameraConfigure(text.c_str());
    }

    std::vector<Act> acts() override
    {
        return {changeProperty, sendPropertyEvents, changeProperty,
                makePictures,   sendOtherEvents,    lookOn};
    }

    void calmDown() override
    {
        VirtualCameraClearFaults();
        // Each property that a session is told of before it is open costs it half a second.
        VirtualCameraConfigure("events.at_registration = 0\n");
        VirtualCameraPlug(0);
        VirtualCanonSetProperty(0, kExposureMode, 3);
        VirtualCanonSetProperty(0, kQuality, kQualities.front());
        m_started = VirtualCameraCallCount("EdsSetCapacity");
    }

    bool isReady() override { return VirtualCameraCallCount("EdsSetCapacity") > m_started; }
    bool press() override { return VirtualCameraPressShutter(0) == 1; }

    // What was dropped with an ended session stays where it is.
    bool isFetched() override { return VirtualCameraWaitUntilIdle(0) == 1; }

    std::vector<StormPicture> pictures() override
    {
        std::vector<StormPicture> found;
        for (int file = 0; file < VirtualCameraPictureCount(); ++file) {
            StormPicture picture;
            const std::int64_t size = VirtualCameraPictureBytes(file, nullptr, 0);
            picture.bytes.resize(static_cast<std::size_t>(size < 0 ? 0 : size));
            VirtualCameraPictureBytes(file, picture.bytes.data(), size);
            picture.fetched = VirtualCameraPictureValue(file, "downloaded");
            found.push_back(std::move(picture));
        }
        return found;
    }

    std::vector<std::string> complaints(bool /*isOrderly*/) override
    {
        std::vector<std::string> found;
        std::istringstream misuses(textOf(VirtualCameraMisuse));
        for (std::string line; std::getline(misuses, line);) {
            found.push_back(line);
        }
        if (const int left = VirtualCanonReferenceCount("")) {
            found.push_back(std::to_string(left) + " references left");
        }
        return found;
    }

private:
    // Mostly the first one.
    static int camera(Random& random) { return random.below(4) == 0 ? 1 : 0; }

    static void changeProperty(Random& random)
    {
        switch (random.below(8)) {
            case 0:
                VirtualCameraTurnDial(camera(random), random.oneOf(kDial));
                break;
            case 1:
                VirtualCanonSetProperty(camera(random), kQuality, random.oneOf(kQualities));
                break;
            case 2:
                VirtualCanonSetAllowed(0, random.oneOf(kProperties), kAllowed.data(),
                                       static_cast<int>(random.below(5)) - 1);
                break;
            default:
                VirtualCanonSetProperty(camera(random), 0x402, 0x48 + random.below(3) * 8);
        }
    }

    static void sendPropertyEvents(Random& random)
    {
        const std::uint32_t event = 0x101 + random.below(2);
        const bool isWhole = random.below(10) == 0;
        VirtualCanonSendPropertyEvent(0, event, isWhole ? kReportedSet : random.oneOf(kProperties),
                                      0);
    }

    static void makePictures(Random& random)
    {
        if (random.below(30) == 0) {
            VirtualCameraFault(random.oneOf(kFaults));
        }
        if (random.below(4) == 0) {
            VirtualCameraEventRule(random.oneOf(kPictureRules));
        }
        VirtualCameraPressShutter(camera(random));
    }

    static void sendOtherEvents(Random& random)
    {
        if (random.below(3) == 0) {
            VirtualCanonSendStateEvent(0, random.oneOf(kStateEvents), random.below(3));
            return;
        }
        if (random.below(1000) == 0) {
            VirtualCameraUnplug(0);
            VirtualCameraPlug(0);
            return;
        }
        VirtualCanonSendObjectEvent(0, random.oneOf(kObjectEvents), nullptr);
    }

    static void lookOn(Random& random)
    {
        switch (random.below(5)) {
            case 0:
                textOf(VirtualCameraLog);
                break;
            case 1:
                textOf(VirtualCameraSettings);
                break;
            case 2:
                textOf(VirtualCameraPictureList);
                break;
            default:
                VirtualCameraWaitForEvents(-1, VirtualCameraEventCount(-1) + 1, 20);
        }
    }

    int m_started = 0;
};

}  // namespace

std::unique_ptr<Storm> makeCanonStorm()
{
    return std::make_unique<CanonStorm>();
}
