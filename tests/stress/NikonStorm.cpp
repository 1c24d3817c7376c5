// The virtual Nikon camera in a storm: it acts inside the session's commands, and in some rounds on
// a thread of its own, too.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <sstream>

#include "Driver.h"
#include "Storm.h"

namespace {

constexpr std::array<std::uint32_t, 5> kSettings{0x8110, 0x8112, 0x8113, 0x8117, 0x8118};
constexpr std::array<std::uint32_t, 5> kDial{0, 1, 2, 3, 5};
constexpr std::array<const char*, 4> kLists{"Sun\nMoon\nLamp", "Sun", "", nullptr};
constexpr std::array<const char*, 3> kDescriptions{"white balance MODE", "White Balance", nullptr};
constexpr std::array<const char*, 8> kFaults{"GetCapCount code=-124",
                                             "GetCapInfo code=-124",
                                             "CapGet code=-124",
                                             "CapGetArray late_data complete_calls=2",
                                             "CapStart code=-124 capability=17",
                                             "Command complete_ms=10 complete_thread calls=5",
                                             "Command twice calls=5",
                                             "EnumChildren code=-1"};
constexpr std::array<const char*, 5> kEventRules{"0 double", "0 delay_ms=200", "6 lose", "4 double",
                                                 "1 delay_ms=50"};

constexpr std::uint32_t kSourceLevel = 2;
constexpr std::uint32_t kWhiteBalance = 0x8118;
constexpr std::uint32_t kImage = 1;
constexpr int kJpeg = 1;

template <typename TextOut>
std::string textOf(TextOut textOut)
{
    std::vector<char> buffer(static_cast<std::size_t>(textOut(nullptr, 0)) + 1);
    textOut(buffer.data(), static_cast<int>(buffer.size()));
    return buffer.data();
}

class NikonStorm final : public Storm
{
public:
    unsigned cameras() const override { return 1; }
    std::string sessionInfo(unsigned /*owner*/) const override { return VIRTUAL_NIKON_LIBRARY; }
    unsigned startsAndEnds() const override { return 60; }

    // An exposure that an end waits for brings two at most.
    long mostUntold(long sessions) const override { return 2 * sessions; }

    unsigned pauseMs() const override { return 10; }
    bool isOfNoPicture(const std::string& /*fileName*/) const override { return false; }

    void begin(unsigned round, bool /*isOrderly*/) override
    {
        driver().reset();
        std::string text =
            "picture.width = 32\npicture.height = 32\npicture.keep = 100000\n"
            "shutter.lag_ms = 1\nlog.lines = 500\n";
        text += round % 6 == 5 ? "complete.thread = 1\ncomplete.ms = 1\n" : "";
        text += round % 3 == 1 ? "events.in_all = 1\n" : "";
        text += round % 4 == 2 ? "transfer.chunk = 500\n" : "";
        text += round % 5 == 3 ? "items.remove = 2\n" : "";
        driver().configure(text.c_str());
    }

    std::vector<Act> acts() override
    {
        return {changeSetting, changeSetting,
                sendEvents,    [this](Random& random) { changeItems(random); },
                takePictures,  lookOn};
    }

    void calmDown() override
    {
        driver().clearFaults();
        driver().configure("complete.thread = 0\ncomplete.ms = 0\n");
        driver().plug(0);
        driver().turnDial(0, 3);
        for (const std::uint32_t setting : kSettings) {
            driver().setTexts(0, setting, nullptr);
        }
    }

    bool isReady() override { return driver().sessionOpen(0) == 1; }
    bool press() override { return driver().pressShutter(0) == 1; }
    bool isFetched() override { return driver().itemCount(0) == 0; }

    std::vector<StormPicture> pictures() override
    {
        std::vector<StormPicture> found;
        for (int number = 0; number < driver().pictureCount(); ++number) {
            StormPicture picture;
            const std::int64_t size = driver().pictureBytes(number, nullptr, 0);
            picture.bytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(size, 0)));
            driver().pictureBytes(number, picture.bytes.data(), size);
            picture.fetched = driver().pictureValue(number, "delivered");
            found.push_back(std::move(picture));
        }
        return found;
    }

    std::vector<std::string> complaints(bool isOrderly) override
    {
        std::vector<std::string> found;
        std::istringstream misuses(textOf(driver().misuse));
        for (std::string line; std::getline(misuses, line);) {
            // What a second start while a session runs comes to.
            if (isOrderly || line != "Open: the module is open already") {
                found.push_back(line);
            }
        }
        std::istringstream objects(textOf(driver().openObjects));
        for (std::string line; std::getline(objects, line);) {
            found.push_back("left open: " + line);
        }
        return found;
    }

private:
    static void changeSetting(Random& random)
    {
        switch (random.below(8)) {
            case 0:
                driver().turnDial(0, random.oneOf(kDial));
                break;
            case 1:
                driver().setTexts(0, kWhiteBalance, random.oneOf(kLists));
                break;
            case 2:
                driver().setDescription(kSourceLevel, kWhiteBalance, random.oneOf(kDescriptions));
                break;
            default:
                driver().setValue(0, random.oneOf(kSettings), random.below(3));
        }
    }

    // Children that come, stay away and go, and changes, true or not.
    static void sendEvents(Random& random)
    {
        constexpr std::array<std::uint32_t, 4> kEvents{0, 1, 4, 6};
        if (random.below(5) == 0) {
            driver().eventRule(random.oneOf(kEventRules));
        }
        if (random.below(5) == 0) {
            driver().fault(random.oneOf(kFaults));
        }
        const std::uint32_t event = random.oneOf(kEvents);
        const std::uint64_t parameter = event < 2 ? 1 + random.below(60) : random.oneOf(kSettings);
        driver().sendEvent(kSourceLevel, 0, event, parameter);
    }

    void changeItems(Random& random)
    {
        const int count = driver().pictureCount();
        if (random.below(3) == 0 && count > 0) {
            driver().removeItem(count - 1 - static_cast<int>(random.below(3)));
            return;
        }
        const std::string content = "item " + std::to_string(++m_items) + std::string(1000, '.');
        driver().addItem(0, kImage, kJpeg, 0, content.data(),
                         static_cast<std::int64_t>(content.size()));
    }

    static void takePictures(Random& random)
    {
        if (random.below(1000) == 0) {
            driver().unplug(0);
            driver().plug(0);
        }
        driver().pressShutter(0);
    }

    static void lookOn(Random& random)
    {
        switch (random.below(4)) {
            case 0:
                textOf(driver().log);
                break;
            case 1:
                textOf(driver().settings);
                break;
            case 2:
                textOf(driver().pictureList);
                break;
            default:
                driver().waitForEvents(-1, driver().eventCount(-1) + 1, 20);
        }
    }

    std::atomic<int> m_items{0};
};

}  // namespace

std::unique_ptr<Storm> makeNikonStorm()
{
    return std::make_unique<NikonStorm>();
}
