// A driver module in this process that answers at once: one camera, whose entry point does no more
// than a command needs. What is measured with it is the time of its caller.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "nikon/Maid.h"

namespace bench {

// There is one at a time. Used by one thread.
class PromptModule
{
public:
    using Clock = std::chrono::steady_clock;

    // The content of the pictures to come.
    explicit PromptModule(std::string picture = "");
    PromptModule(const PromptModule&) = delete;
    PromptModule& operator=(const PromptModule&) = delete;
    ~PromptModule();

    static MaidResult MAIDAPI enter(MaidObject* object, std::uint32_t command,
                                    std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                    MaidCompletionProcedure completion, MaidReference reference);

    // The camera lists a new picture, and no other one.
    void takePicture();

    // When the first part of the last picture was delivered.
    Clock::time_point firstPart() const { return m_firstPart; }

private:
    struct Capability {
        MaidCapInfo info;
        std::uint32_t number;
        MaidEnum record;
        std::string array;
    };
    using Capabilities = std::vector<Capability>;

    static void add(Capabilities& to, std::uint32_t id, std::uint32_t type, const char* text = "");
    static void addEnum(Capabilities& to, std::uint32_t id, const char* text,
                        std::uint32_t elementType, std::int16_t elementSize, std::string array);
    Capabilities& of(const MaidObject& object) { return m_capabilities[object.type]; }
    Capability* find(const MaidObject& object, std::uint32_t id);
    MaidResult answer(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                      std::uint32_t dataType, MaidData data);
    MaidResult answerCapability(const MaidObject& object, std::uint32_t command,
                                std::uint32_t parameter, std::uint32_t dataType, MaidData data);
    MaidResult deliver();

    const std::string m_picture;
    Capabilities m_capabilities[5];  // by level
    std::uint32_t m_lastItem = 0;
    MaidCallback m_dataProcedure = {};
    Clock::time_point m_firstPart;
};

}  // namespace bench
