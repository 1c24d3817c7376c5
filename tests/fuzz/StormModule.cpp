#include "StormModule.h"

#include <algorithm>

namespace fuzz {

using fake::Call;
using fake::Object;
using fake::Pending;

namespace {

constexpr int kMostCalls = 3000;  // after these, everything goes well
constexpr int kMostPolls = 64;    // that read the input
constexpr int kMostNevers = 2;    // each of them costs a whole wait
constexpr std::size_t kMostKept = 64;

// Few, so that events and commands meet.
constexpr std::uint32_t kIds[] = {1, 2, 1, 3, 0, 1, 0x8000, 0xFFFFFFFF};

constexpr std::uint32_t kEvents[] = {
    kMaidEventAddChild,         kMaidEventRemoveChild, kMaidEventAddChild,
    kMaidEventRemoveChild,      kMaidEventCapChange,   kMaidEventAddChild,
    kMaidEventCapChangeValue,   kMaidEventWarmingUp,   kMaidEventRemoveChild,
    kMaidEventOrphanedChildren, kMaidEventWarmedUp,    7};

// What happens to a command; all other actions are nothing but the command.
enum Action : std::uint32_t {
    kActBefore = 1,
    kActInside = 2,
    kActAfter = 3,
    kRefuse = 4,
    kRefuseSilently = 5,
    kLate = 6,
    kNeverOrTwice = 7,
};

}  // namespace

std::shared_ptr<nikon::MaidLibrary> StormModule::library() const
{
    return std::make_shared<nikon::MaidLibrary>(enter);
}

std::set<const MaidObject*> StormModule::openObjects() const
{
    std::set<const MaidObject*> objects;
    for (const auto& entry : m_open) {
        objects.insert(entry.first);
    }
    return objects;
}

bool StormModule::isWild() const
{
    return !m_isCalm && m_calls < kMostCalls && !m_input.empty();
}

MaidResult StormModule::handle(Call call)
{
    ++m_calls;
    return Module::handle(call);
}

MaidResult StormModule::answer(const Call& call)
{
    const std::uint32_t choice = isWild() ? m_input.byte() : 0;
    const std::uint32_t action = choice % 8;
    const std::uint32_t detail = choice / 8;
    if (action == kActBefore) {
        actOften(detail);
    }
    if (action == kRefuse || action == kRefuseSilently) {
        return refuse(call, detail, action == kRefuse);
    }
    const bool isForEver = action == kNeverOrTwice && detail % 2 == 0 && m_nevers < kMostNevers;
    if (call.completion != nullptr && (action == kLate || isForEver)) {
        return postpone(call, detail, isForEver);
    }
    return answerNow(call, action, detail);
}

void StormModule::actOften(std::uint32_t detail)
{
    for (std::uint32_t count = detail % 4 + 1; count > 0; --count) {
        act();
    }
}

MaidResult StormModule::refuse(const Call& call, std::uint32_t detail, bool isCompleted)
{
    constexpr MaidResult results[] = {fake::kRefused, kMaidBufferSize, -1, 5};
    const MaidResult result = results[detail % 4];
    if (isCompleted) {
        complete(call, result);
    }
    return result;
}

MaidResult StormModule::postpone(const Call& call, std::uint32_t detail, bool isForEver)
{
    m_nevers += isForEver ? 1 : 0;
    const bool isServed = (detail & 2U) != 0;
    const MaidResult result = isServed ? serve(call) : kMaidOk;
    const int polls = isForEver ? fake::kNever : 1 + static_cast<int>(detail / 4);
    m_pending.push_back({call, polls, isServed});
    return result == kMaidOk && (detail & 4U) != 0 ? kMaidPending : result;
}

MaidResult StormModule::answerNow(const Call& call, std::uint32_t action, std::uint32_t detail)
{
    const MaidResult result = serve(call);
    if (action == kActInside) {
        actOften(detail);
    }
    complete(call, result);
    if (action == kActAfter) {
        actOften(detail);
    }
    if (action == kNeverOrTwice) {
        complete(call, fake::kRefused);
    }
    return result;
}

MaidResult StormModule::work()
{
    Module::work();
    if (!isWild() || ++m_polls > kMostPolls) {
        return kMaidOk;
    }
    const std::uint32_t choice = m_input.byte();
    if (choice < 64) {
        act();
    }
    return choice >= 248 ? fake::kRefused : kMaidOk;
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
    Module::complete(call, result);
}

void StormModule::act()
{
    const std::uint32_t kind = m_input.below(8);
    const std::uint32_t which = m_input.byte();
    if (kind == 6 && !m_completed.empty()) {
        complete(m_completed[which % m_completed.size()], kMaidOk);
    } else if (kind == 7 && !m_pending.empty()) {
        completeLate(which % m_pending.size());
    } else if (!m_procedures.empty()) {
        callProcedure(Procedure(m_procedures[which % m_procedures.size()]));
    }
}

// Much too late, perhaps: what it writes to has to be there still.
void StormModule::completeLate(std::size_t which)
{
    const auto chosen = m_pending.begin() + static_cast<std::ptrdiff_t>(which);
    const Pending pending = *chosen;
    m_pending.erase(chosen);
    complete(pending.call, pending.isServed ? kMaidOk : serve(pending.call));
}

void StormModule::callProcedure(const Procedure& procedure)
{
    switch (procedure.capId) {
        case kMaidCapEventProc:
            raiseAny(procedure);
            break;
        case kMaidCapDataProc:
            deliver(procedure);
            break;
        case kMaidCapProgressProc:
            showAnyProgress(procedure);
            break;
        default:
            reinterpret_cast<MaidUserInterfaceProcedure>(procedure.callback.procedure)(
                procedure.callback.reference, nullptr);
    }
}

void StormModule::raiseAny(const Procedure& procedure)
{
    const std::uint32_t event = m_input.oneOf(kEvents);
    fake::callEvent(procedure.callback, event, m_input.oneOf(kIds));
}

void StormModule::showAnyProgress(const Procedure& procedure)
{
    const std::uint32_t done = m_input.byte();
    fake::callProgress(procedure.callback, done, m_input.oneOf(kIds));
}

void StormModule::deliver(const Procedure& procedure)
{
    const fake::Bytes bytes(8);
    const std::uint32_t total = m_input.below(9);
    MaidFileInfo info = fake::fileInfo(total, std::min(total, m_input.below(9)), 0);
    info.removeObject = m_input.byte();
    fake::callData(procedure.callback, &info, bytes.data());
}

void StormModule::callEverything()
{
    calmDown();
    for (const Procedure& procedure : std::vector<Procedure>(m_procedures)) {
        if (procedure.capId == kMaidCapEventProc) {
            for (const std::uint32_t event : kEvents) {
                fake::callEvent(procedure.callback, event, 1);
            }
        } else if (procedure.capId != kMaidCapUserInterfaceProc) {
            callProcedure(procedure);
        }
    }
    std::vector<Call> calls = m_completed;
    for (const Pending& pending : m_pending) {
        calls.push_back(pending.call);
    }
    for (Call& call : calls) {
        call.record = nullptr;
        Module::complete(call, kMaidOk);
    }
}

Object* StormModule::findToOpen(const Call& call)
{
    Object* object = Module::findToOpen(call);
    if (object == nullptr) {
        object = &call.object->addChild(call.object->level + 1, call.parameter);
    }
    if (object->caps.empty()) {
        describeNew(*object);
    }
    return object;
}

// The children that it lists, the input says; whatever is opened below it is there.
void StormModule::describeNew(Object& object)
{
    std::vector<std::uint32_t> listed(isWild() ? m_input.below(4) : 1);
    for (std::uint32_t& id : listed) {
        id = isWild() ? m_input.oneOf(kIds) : 1;
    }
    object.addCommonCaps();
    object.at(kMaidCapChildren).numbers(listed, 0);
    object.cap(kMaidCapUserInterfaceProc, 0, fake::kSettable);
    object.cap(kMaidCapModuleMode, kMaidCapTypeUnsigned, fake::kSettable);
    object.cap(kMaidCapSourceSetting, kMaidCapTypeUnsigned, fake::kSettable);
    object.cap(kMaidCapLiveness, kMaidCapTypeUnsigned, kMaidOperationGet);
    object.cap(kMaidCapCapture, 0, kMaidOperationStart);
    fake::Cap& aperture =
        object.cap(kMaidCapAperture, kMaidCapTypeEnum, fake::kSettable, "Aperture");
    aperture.array = {'2', '.', '8', 0, '4', 0, '8'};
    aperture.record = fake::textsRecord(aperture.array, 0);
    object.cap(kMaidCapDataTypes, kMaidCapTypeUnsigned, kMaidOperationGet);
    object.cap(kMaidCapDataProc, 0, fake::kSettable);
    object.cap(kMaidCapAcquire, 0, kMaidOperationStart);
    for (fake::Cap& cap : object.caps) {
        cap.value = kMaidItemImage;
    }
}

MaidResult StormModule::openObject(const Call& call)
{
    if (call.object != nullptr && call.object->level >= kMaidLevelData) {
        return fake::kRefused;
    }
    const MaidResult result = Module::openObject(call);
    if (isWild() && m_input.below(32) == 31) {
        reinterpret_cast<MaidObject*>(call.data)->type = m_input.byte();
    }
    return result;
}

// To the procedure that the object has or had last.
MaidResult StormModule::announceChildren(const Call& call)
{
    for (const std::uint32_t id : fake::numbersIn(call.object->at(kMaidCapChildren).array)) {
        const auto last = std::find_if(
            m_procedures.rbegin(), m_procedures.rend(), [&call](const Procedure& procedure) {
                return procedure.capId == kMaidCapEventProc &&
                       procedure.callback.reference == call.record->clientRef;
            });
        if (last != m_procedures.rend()) {
            fake::callEvent(MaidCallback(last->callback), kMaidEventAddChild, id);
        }
    }
    return kMaidOk;
}

MaidResult StormModule::set(const Call& call, fake::Cap& cap)
{
    if (call.dataType == kMaidDataTypeCallbackPtr) {
        m_procedures.push_back({call.parameter, fake::recordAt<MaidCallback>(call.data)});
    }
    return Module::set(call, cap);
}

// An acquisition or an exposure: what it delivers, the input says.
MaidResult StormModule::start(const Call& /*call*/)
{
    if (isWild() && !m_procedures.empty() && m_procedures.back().capId == kMaidCapDataProc) {
        for (std::uint32_t count = m_input.below(4); count > 0; --count) {
            deliver(m_procedures.back());
        }
    }
    return kMaidOk;
}

}  // namespace fuzz
