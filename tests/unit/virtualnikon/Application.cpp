// What the tests for any maker's camera are for Nikon's.
#include "virtualcamera/Application.h"

#include "Host.h"

const char* const kLook = "GetCapCount";
const char* const kTextFileVariable = "LUMATIE_VIRTUAL_NIKON";

const SteeredLibrary& steered()
{
    return driver();
}

namespace {

class NikonApplication final : public Application
{
public:
    void connect() override { m_host.open(); }
    void leave() override { m_host.closeAll(); }
    std::int64_t look() override
    {
        std::uint32_t count = 0;
        return m_host
            .issue(m_host.source(), kMaidCommandGetCapCount, 0, kMaidDataTypeUnsignedPtr,
                   dataOf(&count))
            .result;
    }
    void shoot() override { m_host.begin(m_host.source(), kMaidCommandCapStart, kMaidCapCapture); }
    void work() override { Host::async(m_host.source()); }

private:
    Host m_host;
};

}  // namespace

std::unique_ptr<Application> makeApplication()
{
    return std::make_unique<NikonApplication>();
}
