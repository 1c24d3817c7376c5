#include "StormModule.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "ScriptedCamera.h"
#include "nikon/MaidProcedures.h"

namespace fuzz {

namespace {

constexpr int kMostCalls = 3000;  // after these, everything goes well
constexpr int kMostPolls = 64;    // that read the input
constexpr int kMostNevers = 2;    // each of them costs a whole wait
constexpr std::size_t kMostKept = 64;
constexpr MaidResult kRefused = -127;

// Few, so that events and commands meet.
constexpr std::uint32_t kIds[] = {1, 2, 1, 3, 0, 1, 0x8000, 0xFFFFFFFF};

constexpr std::uint32_t kEvents[] = {
    kMaidEventAddChild,         kMaidEventRemoveChild, kMaidEventAddChild,
    kMaidEventRemoveChild,      kMaidEventCapChange,   kMaidEventAddChild,
    kMaidEventCapChangeValue,   kMaidEventWarmingUp,   kMaidEventRemoveChild,
    kMaidEventOrphanedChildren, kMaidEventWarmedUp,    7};

constexpr std::uint32_t kSettable = kMaidOperationGet | kMaidOperationSet;

StormModule* g_module = nullptr;

template <typename Record>
Record recordAt(MaidData data)
{
    Record record = {};
    std::memcpy(&record, reinterpret_cast<const void*>(data), sizeof record);
    return record;
}

}  // namespace

StormModule::StormModule(Input& input) : m_input(input)
{
    g_module = this;
}

StormModule::~StormModule()
{
    g_module = nullptr;
}

std::shared_ptr<nikon::MaidLibrary> StormModule::library() const
{
    return std::make_shared<nikon::MaidLibrary>(&StormModule::enter);
}

std::set<const MaidObject*> StormModule::openObjects() const
{
    std::set<const MaidObject*> objects;
    for (const auto& entry : m_open) {
        objects.insert(entry.first);
    }
    return objects;
}

bool StormModule::isWild()
{
    return !m_isCalm && m_calls < kMostCalls && !m_input.empty();
}

MaidResult MAIDAPI StormModule::enter(MaidObject* object, std::uint32_t command,
                                      std::uint32_t parameter, std::uint32_t dataType,
                                      MaidData data, MaidCompletionProcedure completion,
                                      MaidReference reference)
{
    check(g_module != nullptr, "nobody enters a module that is gone");
    return g_module->handle(
        {nullptr, object, command, parameter, dataType, data, completion, reference});
}

MaidResult StormModule::handle(const Call& made)
{
    ++m_calls;
    Call call = made;
    if (call.object != nullptr) {
        const auto found = m_open.find(call.object);
        check(found != m_open.end(), "a command is for an object that is open");
        call.node = found->second;
    }
    if (call.command == kMaidCommandAsync) {
        return work();
    }
    const bool isCompleted = call.command != kMaidCommandOpen && call.command != kMaidCommandClose;
    check(isCompleted == (call.completion != nullptr), "what is completed has its procedure");
    const std::uint32_t choice = isWild() ? m_input.byte() : 0;
    return answer(call, choice % 8, choice / 8);
}

// The eight things that may happen to a command.
MaidResult StormModule::answer(const Call& call, std::uint32_t action, std::uint32_t detail)
{
    const auto actOften = [this, detail] {
        for (std::uint32_t count = detail % 4 + 1; count > 0; --count) {
            act();
        }
    };
    if (action == 1) {
        actOften();
    }
    if (action == 4 || action == 5) {
        constexpr MaidResult results[] = {kRefused, kMaidBufferSize, -1, 5};
        const MaidResult result = results[detail % 4];
        if (action == 4) {
            complete(call, result);
        }
        return result;
    }
    const bool isLater =
        call.completion != nullptr &&
        (action == 6 || (action == 7 && detail % 2 == 0 && m_nevers < kMostNevers));
    if (isLater) {
        m_nevers += action == 7 ? 1 : 0;
        const bool isServed = (detail & 2U) != 0;
        const MaidResult result = isServed ? serve(call) : kMaidOk;
        const int polls = action == 7 ? 0 : 1 + static_cast<int>(detail / 4);
        m_pending.push_back({call, polls, isServed});
        return result == kMaidOk && (detail & 4U) != 0 ? kMaidPending : result;
    }
    const MaidResult result = serve(call);
    if (action == 2) {
        actOften();
    }
    complete(call, result);
    if (action == 3) {
        actOften();
    }
    if (action == 7) {
        complete(call, kRefused);
    }
    return result;
}

MaidResult StormModule::work()
{
    std::vector<Pending> due;
    for (auto pending = m_pending.begin(); pending != m_pending.end();) {
        if (pending->polls > 0 && --pending->polls == 0) {
            due.push_back(*pending);
            pending = m_pending.erase(pending);
        } else {
            ++pending;
        }
    }
    for (const Pending& pending : due) {
        const MaidResult result = pending.isServed ? kMaidOk : serve(pending.call);
        complete(pending.call, result);
    }
    if (!isWild() || ++m_polls > kMostPolls) {
        return kMaidOk;
    }
    const std::uint32_t choice = m_input.byte();
    if (choice < 64) {
        act();
    }
    return choice >= 248 ? kRefused : kMaidOk;
}

void StormModule::complete(const Call& made, MaidResult result)
{
    const Call call = made;  // it may be one of the list that changes here
    if (call.completion == nullptr) {
        return;
    }
    if (m_completed.size() >= kMostKept) {
        m_completed.erase(m_completed.begin());
    }
    m_completed.push_back(call);
    call.completion(call.object, call.command, call.parameter, call.dataType, call.data,
                    call.reference, result);
}

void StormModule::act()
{
    const std::uint32_t kind = m_input.below(8);
    const std::uint32_t which = m_input.byte();
    if (kind == 6 && !m_completed.empty()) {
        complete(m_completed[which % m_completed.size()], kMaidOk);
        return;
    }
    if (kind == 7 && !m_pending.empty()) {
        // Much too late, perhaps: what it writes to has to be there still.
        const auto chosen =
            m_pending.begin() + static_cast<std::ptrdiff_t>(which % m_pending.size());
        const Pending pending = *chosen;
        m_pending.erase(chosen);
        complete(pending.call, pending.isServed ? kMaidOk : serve(pending.call));
        return;
    }
    if (m_procedures.empty()) {
        return;
    }
    const Procedure procedure = m_procedures[which % m_procedures.size()];
    switch (procedure.capId) {
        case kMaidCapEventProc:
            raise(procedure);
            break;
        case kMaidCapDataProc:
            deliver(procedure);
            break;
        case kMaidCapProgressProc:
            showProgress(procedure);
            break;
        default:
            reinterpret_cast<MaidUserInterfaceProcedure>(procedure.callback.procedure)(
                procedure.callback.reference, nullptr);
    }
}

void StormModule::raise(const Procedure& procedure)
{
    const std::uint32_t event = m_input.oneOf(kEvents);
    const MaidData parameter = m_input.oneOf(kIds);
    reinterpret_cast<MaidEventProcedure>(procedure.callback.procedure)(procedure.callback.reference,
                                                                       event, parameter);
}

void StormModule::showProgress(const Procedure& procedure)
{
    const std::uint32_t done = m_input.byte();
    const std::uint32_t total = m_input.oneOf(kIds);
    reinterpret_cast<MaidProgressProcedure>(procedure.callback.procedure)(
        kMaidCommandCapStart, kMaidCapAcquire, procedure.callback.reference, done, total);
}

void StormModule::deliver(const Procedure& procedure)
{
    const std::vector<unsigned char> bytes(8);
    MaidFileInfo info = {};
    info.kind = kMaidDataFile | kMaidDataImage;
    info.totalLength = m_input.below(9);
    info.length = std::min<std::uint32_t>(info.totalLength, m_input.below(9));
    info.removeObject = m_input.byte();
    reinterpret_cast<MaidDataProcedure>(procedure.callback.procedure)(procedure.callback.reference,
                                                                      &info, bytes.data());
}

void StormModule::callEverything()
{
    calmDown();
    for (const Procedure& procedure : std::vector<Procedure>(m_procedures)) {
        const auto which = procedure.callback.procedure;
        if (procedure.capId == kMaidCapEventProc) {
            for (const std::uint32_t event : kEvents) {
                reinterpret_cast<MaidEventProcedure>(which)(procedure.callback.reference, event, 1);
            }
        } else if (procedure.capId == kMaidCapDataProc) {
            deliver(procedure);
        } else if (procedure.capId == kMaidCapProgressProc) {
            showProgress(procedure);
        }
    }
    std::vector<Call> calls = m_completed;
    for (const Pending& pending : m_pending) {
        calls.push_back(pending.call);
    }
    for (const Call& call : calls) {
        call.completion(nullptr, call.command, call.parameter, call.dataType, call.data,
                        call.reference, kMaidOk);
    }
}

StormModule::Node& StormModule::nodeOf(Node* parent, std::uint32_t id)
{
    for (const auto& node : m_nodes) {
        if (node->parent == parent && node->id == id) {
            return *node;
        }
    }
    m_nodes.push_back(std::make_unique<Node>());
    Node& node = *m_nodes.back();
    node.parent = parent;
    node.id = id;
    node.level = parent == nullptr ? kMaidLevelModule : parent->level + 1;
    const std::uint32_t count = isWild() ? m_input.below(4) : 1;
    for (std::uint32_t i = 0; i < count; ++i) {
        node.listed.push_back(isWild() ? m_input.oneOf(kIds) : 1);
    }
    addCaps(node);
    return node;
}

void StormModule::addCaps(Node& node)
{
    const auto add = [&node](std::uint32_t id, std::uint32_t type, std::uint32_t operations,
                             const char* description) {
        node.caps.push_back(capInfo(id, type, operations, description));
    };
    add(kMaidCapProgressProc, 0, kSettable, "");
    add(kMaidCapEventProc, 0, kSettable, "");
    add(kMaidCapChildren, kMaidCapTypeEnum, kMaidOperationGet, "Children");
    add(kMaidCapUserInterfaceProc, 0, kSettable, "");
    add(kMaidCapModuleMode, kMaidCapTypeUnsigned, kSettable, "");
    add(kMaidCapSourceSetting, kMaidCapTypeUnsigned, kSettable, "");
    add(kMaidCapLiveness, kMaidCapTypeUnsigned, kMaidOperationGet, "");
    add(kMaidCapCapture, 0, kMaidOperationStart, "");
    add(kMaidCapAperture, kMaidCapTypeEnum, kSettable, "Aperture");
    add(kMaidCapDataTypes, kMaidCapTypeUnsigned, kMaidOperationGet, "");
    add(kMaidCapDataProc, 0, kSettable, "");
    add(kMaidCapAcquire, 0, kMaidOperationStart, "");
}

MaidResult StormModule::serve(const Call& call)
{
    switch (call.command) {
        case kMaidCommandOpen:
            return open(call);
        case kMaidCommandClose:
            return close(call);
        case kMaidCommandGetCapCount:
            return giveCount(call);
        case kMaidCommandGetCapInfo:
            return giveInfos(call);
        case kMaidCommandEnumChildren:
            return announce(call);
        case kMaidCommandCapGet:
            return get(call);
        case kMaidCommandCapGetArray:
            return giveArray(call);
        case kMaidCommandCapSet:
            return set(call);
        case kMaidCommandCapStart:
            return start();
        default:
            check(false, "only commands that there are");
            return kRefused;
    }
}

MaidResult StormModule::open(const Call& call)
{
    Node* const parent = call.node;
    if (parent != nullptr && parent->level >= kMaidLevelData) {
        return kRefused;
    }
    Node& node = nodeOf(parent, call.parameter);
    check(node.open == nullptr, "no object is opened twice");
    auto* record = reinterpret_cast<MaidObject*>(call.data);
    const bool isOdd = isWild() && m_input.below(32) == 31;
    record->type = isOdd ? m_input.byte() : node.level;
    record->id = node.id;
    node.open = record;
    m_open[record] = &node;
    return kMaidOk;
}

MaidResult StormModule::close(const Call& call)
{
    for (const auto& entry : m_open) {
        check(entry.second->parent != call.node, "no object is closed before its children");
    }
    call.node->open = nullptr;
    m_open.erase(call.object);
    return kMaidOk;
}

MaidResult StormModule::announce(const Call& call)
{
    for (const std::uint32_t id : std::vector<std::uint32_t>(call.node->listed)) {
        for (std::size_t i = m_procedures.size(); i > 0; --i) {
            const Procedure procedure = m_procedures[i - 1];
            if (procedure.capId == kMaidCapEventProc &&
                procedure.callback.reference == call.object->clientRef) {
                reinterpret_cast<MaidEventProcedure>(procedure.callback.procedure)(
                    procedure.callback.reference, kMaidEventAddChild, id);
                break;
            }
        }
    }
    return kMaidOk;
}

MaidResult StormModule::giveCount(const Call& call) const
{
    const auto count = static_cast<std::uint32_t>(call.node->caps.size());
    std::memcpy(reinterpret_cast<void*>(call.data), &count, sizeof count);
    return kMaidOk;
}

MaidResult StormModule::giveInfos(const Call& call) const
{
    const std::size_t count = std::min<std::size_t>(call.parameter, call.node->caps.size());
    if (count > 0) {
        std::memcpy(reinterpret_cast<void*>(call.data), call.node->caps.data(),
                    count * sizeof(MaidCapInfo));
    }
    return kMaidOk;
}

std::vector<unsigned char> StormModule::arrayOf(const Node& node, std::uint32_t capId)
{
    if (capId != kMaidCapChildren) {
        return {'2', '.', '8', 0, '4', 0, '8'};
    }
    std::vector<unsigned char> bytes(node.listed.size() * sizeof(std::uint32_t));
    if (!bytes.empty()) {
        std::memcpy(bytes.data(), node.listed.data(), bytes.size());
    }
    return bytes;
}

MaidResult StormModule::get(const Call& call) const
{
    auto* target = reinterpret_cast<void*>(call.data);
    if (call.dataType == kMaidDataTypeUnsignedPtr) {
        const std::uint32_t value = kMaidItemImage;
        std::memcpy(target, &value, sizeof value);
        return kMaidOk;
    }
    const std::size_t size = arrayOf(*call.node, call.parameter).size();
    MaidEnum record = {};
    const bool isList = call.parameter == kMaidCapChildren;
    record.elementType = isList ? kMaidElementUnsigned : kMaidElementPackedText;
    record.elementSize = isList ? 4 : 1;
    record.elements = static_cast<std::uint32_t>(isList ? size / 4 : size);
    record.value = call.node->position;
    std::memcpy(target, &record, sizeof record);
    return kMaidOk;
}

MaidResult StormModule::giveArray(const Call& call) const
{
    const auto record = recordAt<MaidEnum>(call.data);
    const std::vector<unsigned char> array = arrayOf(*call.node, call.parameter);
    const std::size_t room =
        std::size_t{record.elements} * static_cast<std::size_t>(record.elementSize);
    if (std::min(room, array.size()) > 0) {
        std::memcpy(record.array, array.data(), std::min(room, array.size()));
    }
    return kMaidOk;
}

MaidResult StormModule::set(const Call& call)
{
    if (call.dataType == kMaidDataTypeCallbackPtr) {
        m_procedures.push_back({call.parameter, recordAt<MaidCallback>(call.data)});
    } else if (call.dataType == kMaidDataTypeEnumPtr) {
        call.node->position = recordAt<MaidEnum>(call.data).value;
    }
    return kMaidOk;
}

// An acquisition or an exposure: what it delivers, the input says.
MaidResult StormModule::start()
{
    if (isWild() && !m_procedures.empty() && m_procedures.back().capId == kMaidCapDataProc) {
        for (std::uint32_t count = m_input.below(4); count > 0; --count) {
            deliver(m_procedures.back());
        }
    }
    return kMaidOk;
}

}  // namespace fuzz
