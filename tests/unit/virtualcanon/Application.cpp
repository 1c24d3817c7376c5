// What the tests for any maker's camera are for Canon's.
#include "virtualcamera/Application.h"

#include "Support.h"

const char* const kLook = "EdsGetPropertySize";
const char* const kTextFileVariable = "LUMATIE_VIRTUAL_CANON";

const SteeredLibrary& steered()
{
    static const SteeredLibrary kLibrary(VIRTUAL_CANON_LIBRARY);
    return kLibrary;
}

namespace {

class CanonApplication final : public Application
{
public:
    void connect() override
    {
        ASSERT_EQ(m_host.connect(), 0U);
        ASSERT_EQ(m_host.open(), 0U);
    }
    void leave() override { m_host.close(); }
    std::int64_t look() override
    {
        EdsDataType type = 0;
        std::uint32_t size = 0;
        return EdsGetPropertySize(m_host.camera(), 0x406, 0, &type, &size);
    }
    void shoot() override { ASSERT_EQ(m_host.shoot(), 0U); }

private:
    Host m_host;
};

}  // namespace

std::unique_ptr<Application> makeApplication()
{
    return std::make_unique<CanonApplication>();
}
