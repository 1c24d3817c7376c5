#include "Replay.h"

namespace bench {

namespace {

constexpr std::size_t kRoom = std::size_t{64} * 1024;  // for any array that is read

Replay* g_replay = nullptr;

void MAIDAPI noteCompletion(MaidObject* /*object*/, std::uint32_t /*command*/,
                            std::uint32_t /*parameter*/, std::uint32_t /*dataType*/,
                            MaidData /*data*/, MaidReference reference, MaidResult result)
{
    *static_cast<MaidResult*>(reference) = result;
}

}  // namespace

Replay::Replay(MaidEntryPoint module) : m_module(module), m_array(kRoom)
{
    g_replay = this;
}

Replay::~Replay()
{
    g_replay = nullptr;
}

std::shared_ptr<nikon::MaidLibrary> Replay::library() const
{
    return std::make_shared<nikon::MaidLibrary>(enter);
}

MaidResult MAIDAPI Replay::enter(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                                 std::uint32_t dataType, MaidData data,
                                 MaidCompletionProcedure completion, MaidReference reference)
{
    if (g_replay->m_isRecording) {
        g_replay->m_calls.push_back({object, command, parameter, dataType});
    }
    return g_replay->m_module(object, command, parameter, dataType, data, completion, reference);
}

bool Replay::run()
{
    std::uint32_t number = 0;
    MaidEnum record = {};
    bool good = true;
    for (const Call& call : m_calls) {
        // An array is read into the record that was read just before.
        record.array = m_array.data();
        const auto data = call.dataType == kMaidDataTypeUnsignedPtr
                              ? reinterpret_cast<MaidData>(&number)
                              : reinterpret_cast<MaidData>(&record);
        MaidResult completed = -1;
        const MaidResult result = enter(call.object, call.command, call.parameter, call.dataType,
                                        data, noteCompletion, &completed);
        good = good && result == kMaidOk && completed == kMaidOk;
    }
    return good;
}

}  // namespace bench
