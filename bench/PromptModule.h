// A driver module whose entry point does no more than a command needs, and delivers pictures from
// memory: what is measured with it is the time of its caller. The virtual camera's own work, and
// its pictures, would be in those figures.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fakes/Module.h"

namespace bench {

// There is one at a time. Used by one thread.
class PromptModule : public fake::Module
{
public:
    using Clock = std::chrono::steady_clock;

    // The content of the pictures to come.
    explicit PromptModule(std::string picture = "");

    // The camera lists a new picture, and no other one.
    void takePicture();

    // When the first part of the last picture was delivered.
    Clock::time_point firstPart() const { return m_firstPart; }

private:
    MaidResult start(const fake::Call& call) override;
    MaidResult deliver(const MaidCallback& procedure);

    const std::string m_picture;
    fake::Object* m_source = nullptr;
    std::vector<std::unique_ptr<fake::Object>> m_taken;  // earlier pictures
    std::uint32_t m_lastItem = 0;
    Clock::time_point m_firstPart;
};

}  // namespace bench
