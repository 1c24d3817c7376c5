#include "MachineSettings.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "windows/Registry.h"

namespace {

constexpr const char* kName = "DumpMsg";

// The key, made if need be.
class Key
{
public:
    Key() { EXPECT_EQ(RegCreateKeyA(HKEY_LOCAL_MACHINE, LUMATIE_TEST_REGISTRY_KEY, &m_key), 0); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { RegCloseKey(m_key); }

    HKEY get() const { return m_key; }

private:
    HKEY m_key = nullptr;
};

}  // namespace

MachineSettings::MachineSettings()
{
    remove();
}

MachineSettings::~MachineSettings()
{
    remove();
}

void MachineSettings::setDumpMessage(std::uint32_t number) const
{
    setRegistryValue(REG_DWORD, {reinterpret_cast<const char*>(&number), sizeof number});
}

void MachineSettings::removeDumpMessage() const
{
    RegDeleteValueA(Key().get(), kName);
}

void MachineSettings::remove() const
{
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, LUMATIE_TEST_REGISTRY_KEY);
}

void setRegistryValue(unsigned long type, const std::string& bytes)
{
    EXPECT_EQ(
        RegSetValueExA(Key().get(), kName, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                       static_cast<DWORD>(bytes.size())),
        0);
}
