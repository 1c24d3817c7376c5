// Writes down the commands that a driver module gets, and issues the same ones again.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "nikon/Maid.h"
#include "nikon/MaidDriver.h"

namespace bench {

// Stands in front of a module's entry point. There is one at a time. Used by one thread.
class Replay
{
public:
    explicit Replay(MaidEntryPoint module);
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;
    ~Replay();

    // The module with this in front of it.
    std::shared_ptr<nikon::MaidLibrary> library() const;

    // Writes the commands down from now on, or no more.
    void record(bool on) { m_isRecording = on; }

    // Issues those that were written down, with data of its own: nothing but the calls. Returns
    // whether each was done.
    bool run();

    std::size_t size() const { return m_calls.size(); }

private:
    struct Call {
        MaidObject* object;
        std::uint32_t command;
        std::uint32_t parameter;
        std::uint32_t dataType;
    };

    static MaidResult MAIDAPI enter(MaidObject* object, std::uint32_t command,
                                    std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                    MaidCompletionProcedure completion, MaidReference reference);

    const MaidEntryPoint m_module;
    bool m_isRecording = false;
    std::vector<Call> m_calls;
    std::vector<unsigned char> m_array;
};

}  // namespace bench
