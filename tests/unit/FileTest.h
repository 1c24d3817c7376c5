// A folder of its own for each test of files.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Platform.h"

class FileTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        m_folder = std::filesystem::temp_directory_path() /
                   (std::string("lumatie_platform_") + test->name());
        std::filesystem::remove_all(m_folder);
        std::filesystem::create_directories(m_folder);
    }

    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string makeFile(const char* name = "file.md3") const
    {
        const std::filesystem::path path = m_folder / std::filesystem::u8path(name);
        std::ofstream(path) << "content";
        return path.u8string();
    }

    static std::uint32_t attributes(const std::string& path)
    {
        return platform::fileAttributes(path.c_str());
    }

    std::filesystem::path m_folder;
};
