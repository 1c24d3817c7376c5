#include "fakes/Module.h"

#include <cstdio>
#include <cstdlib>

namespace fake {

namespace {

Module* g_module = nullptr;

[[noreturn]] void stop(const std::string& what)
{
    std::fprintf(stderr, "driver module: %s\n", what.c_str());
    std::abort();
}

const char* nameOf(const Object* object)
{
    static const char* const names[] = {"", "Module", "Source", "Item", "Data"};
    return object != nullptr && object->level <= 4 ? names[object->level] : "none";
}

const char* nameOf(std::uint32_t command)
{
    static const std::map<std::uint32_t, const char*> names = {
        {kMaidCommandOpen, "Open"},
        {kMaidCommandClose, "Close"},
        {kMaidCommandGetCapCount, "GetCapCount"},
        {kMaidCommandGetCapInfo, "GetCapInfo"},
        {kMaidCommandCapStart, "CapStart"},
        {kMaidCommandCapSet, "CapSet"},
        {kMaidCommandCapGet, "CapGet"},
        {kMaidCommandCapGetArray, "CapGetArray"},
        {kMaidCommandEnumChildren, "EnumChildren"}};
    const auto found = names.find(command);
    return found != names.end() ? found->second : "?";
}

const MaidCallback* procedureOf(const Object& object, std::uint32_t capId)
{
    const Cap* cap = object.find(capId);
    return cap != nullptr && cap->callback.procedure != nullptr ? &cap->callback : nullptr;
}

}  // namespace

std::string describe(const Call& call)
{
    char parameter[16];
    std::snprintf(parameter, sizeof parameter, " 0x%X", call.parameter);
    std::string text = std::string(nameOf(call.object)) + ' ' + nameOf(call.command) + parameter;
    if (call.command == kMaidCommandCapSet && call.dataType == kMaidDataTypeNull) {
        text += " none";
    }
    return text;
}

Module::Module()
{
    g_module = this;
    module.level = kMaidLevelModule;
}

Module::~Module()
{
    g_module = nullptr;
}

MaidResult MAIDAPI Module::enter(MaidObject* object, std::uint32_t command, std::uint32_t parameter,
                                 std::uint32_t dataType, MaidData data,
                                 MaidCompletionProcedure completion, MaidReference reference)
{
    if (g_module == nullptr) {
        stop("entered when it is gone");
    }
    return g_module->handle(
        {nullptr, object, command, parameter, dataType, data, completion, reference});
}

Object& Module::addChild(Object& parent, std::uint32_t level, std::uint32_t id)
{
    Object& child = parent.addChild(level, id);
    child.addCommonCaps();
    return child;
}

void Module::raise(const Object& object, std::uint32_t event, MaidData parameter)
{
    if (const MaidCallback* callback = procedureOf(object, kMaidCapEventProc)) {
        callEvent(*callback, event, parameter);
    }
}

void Module::showProgress(const Object& object, std::uint32_t done, std::uint32_t total)
{
    if (const MaidCallback* callback = procedureOf(object, kMaidCapProgressProc)) {
        callProgress(*callback, done, total);
    }
}

void Module::misuse(const std::string& what)
{
    stop(what);
}

MaidResult Module::handle(Call call)
{
    if (call.record != nullptr) {
        const auto found = m_open.find(call.record);
        if (found == m_open.end()) {
            misuse("a call on an object that is not open: " + describe(call));
            return kRefused;
        }
        call.object = found->second;
    }
    if (call.command == kMaidCommandAsync) {
        return work();
    }
    const bool isCompleted = call.command != kMaidCommandOpen && call.command != kMaidCommandClose;
    if (isCompleted != (call.completion != nullptr)) {
        misuse("completion procedure: " + describe(call));
    }
    return answer(call);
}

MaidResult Module::answer(const Call& call)
{
    const MaidResult result = serve(call);
    complete(call, result);
    return result;
}

MaidResult Module::work()
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
        complete(pending.call, pending.isServed ? kMaidOk : serve(pending.call));
    }
    return kMaidOk;
}

void Module::complete(const Call& call, MaidResult result)
{
    if (call.completion != nullptr) {
        call.completion(call.record, call.command, call.parameter, call.dataType, call.data,
                        call.reference, result);
    }
}

MaidResult Module::serve(const Call& call)
{
    switch (call.command) {
        case kMaidCommandOpen:
            return openObject(call);
        case kMaidCommandClose:
            return closeObject(call);
        case kMaidCommandGetCapCount:
            write(call.data, static_cast<std::uint32_t>(call.object->caps.size()));
            return kMaidOk;
        case kMaidCommandGetCapInfo:
            writeInfos(call.data, call.object->infos(), call.parameter);
            return kMaidOk;
        case kMaidCommandEnumChildren:
            return announceChildren(call);
        default:
            return serveCapability(call);
    }
}

Object* Module::findToOpen(const Call& call)
{
    return call.object == nullptr ? &module : call.object->child(call.parameter);
}

MaidResult Module::openObject(const Call& call)
{
    Object* target = findToOpen(call);
    if (target == nullptr || target->open != nullptr) {
        misuse("an open that cannot be: " + describe(call));
        return kRefused;
    }
    auto* record = reinterpret_cast<MaidObject*>(call.data);
    record->type = target->level;
    record->id = target->id;
    target->open = record;
    m_open[record] = target;
    return kMaidOk;
}

MaidResult Module::closeObject(const Call& call)
{
    for (const auto& opened : m_open) {
        if (opened.second->parent == call.object) {
            misuse("closed before its children: " + describe(call));
        }
    }
    call.object->open = nullptr;
    m_open.erase(call.record);
    return kMaidOk;
}

MaidResult Module::announceChildren(const Call& call)
{
    for (const std::uint32_t id : call.object->childIds()) {
        raise(*call.object, kMaidEventAddChild, id);
    }
    return kMaidOk;
}

MaidResult Module::serveCapability(const Call& call)
{
    Cap* cap = call.object->find(call.parameter);
    if (cap == nullptr) {
        misuse("a capability that is not there: " + describe(call));
        return kRefused;
    }
    switch (call.command) {
        case kMaidCommandCapGet:
            if (call.dataType == kMaidDataTypeUnsignedPtr) {
                write(call.data, cap->value);
            } else {
                write(call.data, call.object->recordOf(*cap));
            }
            return kMaidOk;
        case kMaidCommandCapGetArray:
            writeArray(call.data, call.object->arrayOf(*cap));
            return kMaidOk;
        case kMaidCommandCapSet:
            return set(call, *cap);
        case kMaidCommandCapStart:
            return start(call);
        default:
            misuse("a command that there is not: " + describe(call));
            return kRefused;
    }
}

MaidResult Module::set(const Call& call, Cap& cap)
{
    switch (call.dataType) {
        case kMaidDataTypeCallbackPtr:
            cap.callback = recordAt<MaidCallback>(call.data);
            break;
        case kMaidDataTypeNull:
            cap.callback = {};
            break;
        case kMaidDataTypeUnsigned:
            cap.value = static_cast<std::uint32_t>(call.data);
            break;
        case kMaidDataTypeEnumPtr:
            cap.record.value = recordAt<MaidEnum>(call.data).value;
            break;
        default:
            break;
    }
    return kMaidOk;
}

MaidResult Module::start(const Call& /*call*/)
{
    return kMaidOk;
}

}  // namespace fake
