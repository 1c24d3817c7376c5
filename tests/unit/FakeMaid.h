// A driver module in the test's own process: a scripted camera that answers the entry point's
// commands, writes them down, and checks its caller.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nikon/MaidDriver.h"

namespace fake {

using Bytes = std::vector<unsigned char>;

// One call of a data procedure.
struct Part {
    Bytes info;
    Bytes data;
    bool withoutData = false;  // a null pointer is delivered
};

template <typename Record>
Bytes bytesOf(const Record& record)
{
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

inline Bytes bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

// A part of a file of `total` bytes.
inline Part filePart(const std::string& data, std::size_t total,
                     std::uint32_t fileType = kMaidFileJpeg, bool removes = false)
{
    MaidFileInfo info = {};
    info.kind = kMaidDataFile | kMaidDataImage;
    info.fileType = fileType;
    info.totalLength = static_cast<std::uint32_t>(total);
    info.length = static_cast<std::uint32_t>(data.size());
    info.removeObject = removes ? 1 : 0;
    return {bytesOf(info), bytesOf(data)};
}

// A whole file.
inline Part wholeFile(const std::string& data, std::uint32_t fileType = kMaidFileJpeg,
                      bool removes = false)
{
    return filePart(data, data.size(), fileType, removes);
}

// Some rows of an image of `totalRows`.
inline Part imagePart(const std::string& data, std::uint32_t rowBytes, std::uint32_t totalRows,
                      bool removes = false)
{
    MaidImageInfo info = {};
    info.kind = kMaidDataImage;
    info.totalRows = totalRows;
    info.rows = rowBytes > 0 ? static_cast<std::uint32_t>(data.size()) / rowBytes : 0;
    info.rowBytes = rowBytes;
    info.removeObject = removes ? 1 : 0;
    return {bytesOf(info), bytesOf(data)};
}

struct Cap {
    MaidCapInfo info = {};
    std::uint32_t value = 0;     // of a number
    MaidEnum record = {};        // of an enumeration
    Bytes array;                 // of an enumeration
    MaidCallback callback = {};  // of a procedure
};

struct Object {
    std::uint32_t level = 0;
    std::uint32_t id = 0;
    std::vector<Cap> caps;
    std::vector<std::unique_ptr<Object>> children;  // what it lists
    std::vector<Part> parts;                        // what a Data object delivers
    MaidObject* open = nullptr;
    Object* parent = nullptr;

    Cap* find(std::uint32_t capId)
    {
        for (Cap& cap : caps) {
            if (cap.info.id == capId) {
                return &cap;
            }
        }
        return nullptr;
    }

    // The capability, which must be there.
    Cap& at(std::uint32_t capId)
    {
        static Cap none;
        Cap* found = find(capId);
        EXPECT_NE(found, nullptr) << capId;
        return found != nullptr ? *found : none;
    }

    // Adds a capability, or replaces it.
    Cap& cap(std::uint32_t capId, std::uint32_t type, std::uint32_t operations,
             const std::string& description = "")
    {
        remove(capId);
        Cap made;
        made.info.id = capId;
        made.info.type = type;
        made.info.operations = operations;
        std::memcpy(made.info.description, description.data(),
                    std::min(description.size(), sizeof made.info.description));
        caps.push_back(made);
        return caps.back();
    }

    void remove(std::uint32_t capId)
    {
        for (auto found = caps.begin(); found != caps.end(); ++found) {
            if (found->info.id == capId) {
                caps.erase(found);
                return;
            }
        }
    }

    // The child, which must be there.
    Object& childAt(std::uint32_t childId)
    {
        static Object none;
        Object* found = child(childId);
        EXPECT_NE(found, nullptr) << childId;
        return found != nullptr ? *found : none;
    }

    Object* child(std::uint32_t childId)
    {
        for (const auto& object : children) {
            if (object->id == childId) {
                return object.get();
            }
        }
        return nullptr;
    }
};

struct Call {
    Object* object;  // null for the open of the Module object
    std::uint32_t command;
    std::uint32_t parameter;
    std::uint32_t dataType;
    MaidData data;
};

constexpr int kNever = -1;
constexpr std::uint32_t kAny = 0xFFFFFFFF;
constexpr std::uint32_t kSettable = kMaidOperationGet | kMaidOperationSet;

// How a command misbehaves.
struct Rule {
    std::uint32_t command;
    std::uint32_t parameter = kAny;
    MaidResult result = kMaidOk;  // another one: nothing else is done
    int polls = 0;                // completion after that many asynchronous calls, or kNever
    int times = 1;                // how often it applies; 0: always
    int skip = 0;                 // calls that pass first
    std::uint32_t level = kAny;
    std::function<void(const Call&)> action = nullptr;  // run inside, before anything else
    bool hangs = false;                                 // until `releaseHangs`
    bool completes = true;  // a refused command is completed all the same
};

class Maid
{
public:
    Maid()
    {
        current() = this;
        module.level = kMaidLevelModule;
        addProcedures(module);
        module.cap(kMaidCapUserInterfaceProc, 0, kSettable);
        module.cap(kMaidCapModuleMode, kMaidCapTypeUnsigned, kSettable);
        source = &addChild(module, kMaidLevelSource, 1);
        source->cap(kMaidCapCapture, 0, kMaidOperationStart, "Capture");
        source->cap(kMaidCapLiveness, kMaidCapTypeUnsigned, kMaidOperationGet);
        numbers(kMaidCapExposureMode, {0, 1, 2, 3}, 3);
        texts(kMaidCapShutterSpeed, "Shutter Speed", {"1/250", "1/500"}, 1);
        texts(kMaidCapAperture, "Aperture", {"2.8", "4"}, 0);
        texts(kMaidCapSensitivity, "Sensitivity", {"100", "200", "400"}, 2);
        texts(kMaidCapWhiteBalance, "White Balance Mode", {"Auto", "Sunny"}, 0);
        texts(kMaidCapImageQuality, "Compression Level", {"RAW", "JPEG Fine"}, 1);
    }
    Maid(const Maid&) = delete;
    Maid& operator=(const Maid&) = delete;
    ~Maid() { current() = nullptr; }

    std::shared_ptr<nikon::MaidLibrary> library()
    {
        return std::make_shared<nikon::MaidLibrary>(&Maid::enter);
    }

    // The camera's settings.
    Cap& texts(std::uint32_t capId, const std::string& description,
               const std::vector<std::string>& values, std::uint32_t current)
    {
        Cap& cap = source->cap(capId, kMaidCapTypeEnum, kSettable, description);
        for (const std::string& value : values) {
            cap.array.insert(cap.array.end(), value.begin(), value.end());
            cap.array.push_back(0);
        }
        cap.record = {kMaidElementPackedText,
                      static_cast<std::uint32_t>(cap.array.size()),
                      current,
                      0,
                      1,
                      nullptr};
        return cap;
    }

    Cap& numbers(std::uint32_t capId, const std::vector<std::uint32_t>& values,
                 std::uint32_t current)
    {
        Cap& cap = source->cap(capId, kMaidCapTypeEnum, kSettable, "Numbers");
        cap.array.resize(values.size() * 4);
        if (!values.empty()) {
            std::memcpy(cap.array.data(), values.data(), cap.array.size());
        }
        cap.record = {kMaidElementUnsigned,
                      static_cast<std::uint32_t>(values.size()),
                      current,
                      0,
                      4,
                      nullptr};
        return cap;
    }

    // A picture on the camera, not announced.
    Object& addItem(std::uint32_t id, std::vector<Part> parts, std::uint32_t types = kMaidItemImage)
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        Object& item = addChild(*source, kMaidLevelItem, id);
        item.cap(kMaidCapDataTypes, kMaidCapTypeUnsigned, kMaidOperationGet).value = types;
        Object& data = addChild(item, kMaidLevelData, 1);
        data.cap(kMaidCapDataProc, 0, kSettable);
        data.cap(kMaidCapAcquire, 0, kMaidOperationStart);
        data.parts = std::move(parts);
        return item;
    }

    static Object& addChild(Object& parent, std::uint32_t level, std::uint32_t id)
    {
        parent.children.push_back(std::make_unique<Object>());
        Object& child = *parent.children.back();
        child.level = level;
        child.id = id;
        child.parent = &parent;
        addProcedures(child);
        return child;
    }

    // The item is not listed any more. It can still be closed.
    void removeItem(std::uint32_t id)
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        for (auto found = source->children.begin(); found != source->children.end(); ++found) {
            if ((*found)->id == id) {
                m_removed.push_back(std::move(*found));
                source->children.erase(found);
                return;
            }
        }
    }

    // Raises an event on an object that is open; nothing happens without a procedure.
    static void raise(const Object& object, std::uint32_t event, MaidData parameter = 0)
    {
        for (const Cap& cap : object.caps) {
            if (cap.info.id == kMaidCapEventProc && cap.callback.procedure != nullptr) {
                reinterpret_cast<MaidEventProcedure>(cap.callback.procedure)(cap.callback.reference,
                                                                             event, parameter);
                return;
            }
        }
    }

    static void showProgress(const Object& object, std::uint32_t done, std::uint32_t total)
    {
        for (const Cap& cap : object.caps) {
            if (cap.info.id == kMaidCapProgressProc && cap.callback.procedure != nullptr) {
                reinterpret_cast<MaidProgressProcedure>(cap.callback.procedure)(
                    kMaidCommandCapStart, kMaidCapAcquire, cap.callback.reference, done, total);
                return;
            }
        }
    }

    void rule(const Rule& made)
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        m_rules.push_back(made);
    }

    // The next calls of the command get this result.
    void refuse(std::uint32_t command, std::uint32_t parameter, MaidResult result = -127,
                int times = 1)
    {
        Rule made{command, parameter};
        made.result = result;
        made.times = times;
        rule(made);
    }

    // The next call of the command runs `action` first.
    void during(std::uint32_t command, std::uint32_t parameter,
                std::function<void(const Call&)> action)
    {
        Rule made{command, parameter};
        made.action = std::move(action);
        rule(made);
    }

    void clearRules()
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        m_rules.clear();
    }

    void hang(std::uint32_t command, std::uint32_t parameter = kAny)
    {
        Rule made{command, parameter};
        made.hangs = true;
        rule(made);
    }

    bool isHanging() const { return m_hanging > 0; }

    void releaseHangs()
    {
        const std::lock_guard<std::mutex> guard(m_hangLock);
        m_released = true;
        m_hangChanged.notify_all();
    }

    // Completes every command that is outstanding, however late.
    void completeAll(MaidResult result = kMaidOk)
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        std::vector<Pending> pending;
        pending.swap(m_pending);
        for (const Pending& command : pending) {
            command.complete(result);
        }
    }

    std::size_t outstanding() const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return m_pending.size();
    }

    // The calls so far, e.g. "Source CapGet 0x81D7"; asynchronous calls are left out.
    std::vector<std::string> calls() const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return m_calls;
    }

    std::ptrdiff_t count(const std::string& call) const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return std::count(m_calls.begin(), m_calls.end(), call);
    }

    int polls() const { return m_polls; }

    void clearCalls()
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        m_calls.clear();
        m_polls = 0;
    }

    // What the data procedures have answered.
    std::vector<MaidResult> dataResults() const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return m_dataResults;
    }

    std::vector<std::string> misuses() const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return m_misuses;
    }

    bool isOpen(const Object& object) const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return object.open != nullptr;
    }

    std::size_t openObjects() const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return m_open.size();
    }

    // Delivers the parts of a Data object now, to whatever procedure it has or had last.
    void deliver(Object& data)
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        for (const Part& part : data.parts) {
            m_dataResults.push_back(
                m_lastDataProcedure(m_lastDataReference, part.info.data(),
                                    part.withoutData ? nullptr : part.data.data()));
        }
    }

    Object module;
    Object* source = nullptr;
    MaidResult asyncResult = kMaidOk;
    std::optional<std::uint32_t> announcedCaps;  // instead of the real count
    bool dropsFetchedItems = false;              // an item goes when its image was delivered
    std::vector<std::uint32_t> setValues;        // positions that enumerations were set to
    mutable std::recursive_mutex lock;           // guards everything but the hangs

private:
    struct Pending {
        MaidObject* object;
        Call call;
        MaidCompletionProcedure procedure;
        MaidReference reference;
        int polls;

        void complete(MaidResult result) const
        {
            procedure(object, call.command, call.parameter, call.dataType, call.data, reference,
                      result);
        }
    };

    static Maid*& current()
    {
        static Maid* maid = nullptr;
        return maid;
    }

    static void addProcedures(Object& object)
    {
        object.cap(kMaidCapProgressProc, 0, kSettable);
        object.cap(kMaidCapEventProc, 0, kSettable);
        object.cap(kMaidCapChildren, kMaidCapTypeEnum, kMaidOperationGet, "Children");
    }

    static const char* nameOf(const Object* object)
    {
        static const char* const names[] = {"", "Module", "Source", "Item", "Data"};
        return object != nullptr && object->level <= 4 ? names[object->level] : "none";
    }

    static std::string describe(const Call& call)
    {
        static const std::map<std::uint32_t, std::string> names = {
            {1, "Open"},   {2, "Close"},  {3, "GetCapCount"}, {4, "GetCapInfo"},   {5, "CapStart"},
            {6, "CapSet"}, {7, "CapGet"}, {9, "CapGetArray"}, {13, "EnumChildren"}};
        const auto found = names.find(call.command);
        char parameter[16];
        std::snprintf(parameter, sizeof parameter, " 0x%X", call.parameter);
        std::string text = std::string(nameOf(call.object)) + ' ' +
                           (found != names.end() ? found->second : "?") + parameter;
        if (call.command == kMaidCommandCapSet && call.dataType == kMaidDataTypeNull) {
            text += " none";
        }
        return text;
    }

    static MaidResult MAIDAPI enter(MaidObject* object, std::uint32_t command,
                                    std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                    MaidCompletionProcedure completion, MaidReference reference)
    {
        return current()->handle(object, {nullptr, command, parameter, dataType, data}, completion,
                                 reference);
    }

    // Watches that no second thread is inside.
    class Inside
    {
    public:
        explicit Inside(Maid& maid) : m_maid(maid)
        {
            const std::lock_guard<std::mutex> guard(maid.m_insideLock);
            if (maid.m_depth > 0 && maid.m_thread != std::this_thread::get_id()) {
                ADD_FAILURE() << "two threads are inside at once";
            }
            maid.m_thread = std::this_thread::get_id();
            ++maid.m_depth;
        }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        ~Inside()
        {
            const std::lock_guard<std::mutex> guard(m_maid.m_insideLock);
            --m_maid.m_depth;
        }

    private:
        Maid& m_maid;
    };

    MaidResult handle(MaidObject* object, Call call, MaidCompletionProcedure completion,
                      MaidReference reference)
    {
        const Inside inside(*this);
        std::unique_lock<std::recursive_mutex> guard(lock);
        if (object != nullptr) {
            const auto found = m_open.find(object);
            if (found == m_open.end()) {
                m_misuses.push_back("a call on an object that is not open: " + describe(call));
                return -127;
            }
            call.object = found->second;
        }
        if (call.command == kMaidCommandAsync) {
            return runPending();
        }
        m_calls.push_back(describe(call));
        const bool wantsCompletion =
            call.command != kMaidCommandOpen && call.command != kMaidCommandClose;
        if (wantsCompletion != (completion != nullptr)) {
            m_misuses.push_back("completion procedure: " + describe(call));
        }
        const Rule rule = takeRule(call);
        if (rule.action) {
            rule.action(call);
        }
        if (rule.hangs) {
            guard.unlock();
            hangNow();
            guard.lock();
        }
        const MaidResult result = rule.result != kMaidOk && rule.result != kMaidPending
                                      ? rule.result
                                      : serve(call, object, rule.result);
        const bool good = result == kMaidOk || result == kMaidPending;
        if (completion != nullptr && (good || rule.completes)) {
            const Pending pending{object, call, completion, reference, rule.polls};
            if (rule.polls == 0) {
                pending.complete(result);
            } else {
                m_pending.push_back(pending);
            }
        }
        return result;
    }

    void hangNow()
    {
        std::unique_lock<std::mutex> hang(m_hangLock);
        ++m_hanging;
        m_hangChanged.wait(hang, [this] { return m_released; });
        --m_hanging;
    }

    MaidResult runPending()
    {
        ++m_polls;
        std::vector<Pending> due;
        for (auto pending = m_pending.begin(); pending != m_pending.end();) {
            if (pending->polls > 0 && --pending->polls == 0) {
                due.push_back(*pending);
                pending = m_pending.erase(pending);
            } else {
                ++pending;
            }
        }
        for (const Pending& command : due) {
            command.complete(kMaidOk);
        }
        return asyncResult;
    }

    Rule takeRule(const Call& call)
    {
        for (auto rule = m_rules.begin(); rule != m_rules.end(); ++rule) {
            const std::uint32_t level = call.object != nullptr ? call.object->level : 0;
            if (rule->command != call.command ||
                (rule->parameter != kAny && rule->parameter != call.parameter) ||
                (rule->level != kAny && rule->level != level)) {
                continue;
            }
            if (rule->skip > 0) {
                --rule->skip;
                continue;
            }
            const Rule taken = *rule;
            if (rule->times > 0 && --rule->times == 0) {
                m_rules.erase(rule);
            }
            return taken;
        }
        return Rule{call.command};
    }

    MaidResult serve(const Call& call, MaidObject* object, MaidResult good)
    {
        switch (call.command) {
            case kMaidCommandOpen:
                return open(call, good);
            case kMaidCommandClose:
                return close(call, object, good);
            case kMaidCommandGetCapCount: {
                const auto real = static_cast<std::uint32_t>(call.object->caps.size());
                const std::uint32_t count = announcedCaps.value_or(real);
                std::memcpy(reinterpret_cast<void*>(call.data), &count, sizeof count);
                return good;
            }
            case kMaidCommandGetCapInfo: {
                auto* infos = reinterpret_cast<MaidCapInfo*>(call.data);
                for (std::size_t i = 0; i < call.object->caps.size() && i < call.parameter; ++i) {
                    infos[i] = call.object->caps[i].info;
                }
                return good;
            }
            case kMaidCommandEnumChildren: {
                for (const std::uint32_t id : idsOf(*call.object)) {
                    raise(*call.object, kMaidEventAddChild, id);
                }
                return good;
            }
            default:
                return serveCapability(call, good);
        }
    }

    static std::vector<std::uint32_t> idsOf(const Object& object)
    {
        std::vector<std::uint32_t> ids;
        for (const auto& child : object.children) {
            ids.push_back(child->id);
        }
        return ids;
    }

    MaidResult open(const Call& call, MaidResult good)
    {
        Object* target = call.object == nullptr ? &module : call.object->child(call.parameter);
        if (target == nullptr || target->open != nullptr) {
            m_misuses.push_back("an open that cannot be: " + describe(call));
            return -127;
        }
        auto* record = reinterpret_cast<MaidObject*>(call.data);
        record->type = target->level;
        record->id = target->id;
        target->open = record;
        m_open[record] = target;
        return good;
    }

    MaidResult close(const Call& call, MaidObject* object, MaidResult good)
    {
        for (const auto& opened : m_open) {
            if (opened.second->parent == call.object) {
                m_misuses.push_back("closed before its children: " + describe(call));
            }
        }
        for (Cap& cap : call.object->caps) {
            if (cap.callback.procedure != nullptr) {
                m_misuses.push_back("closed with a procedure: " + describe(call));
                cap.callback = {};
            }
        }
        call.object->open = nullptr;
        m_open.erase(object);
        return good;
    }

    MaidResult serveCapability(const Call& call, MaidResult good)
    {
        Cap* cap = call.object->find(call.parameter);
        if (cap == nullptr) {
            m_misuses.push_back("a capability that is not there: " + describe(call));
            return -127;
        }
        auto* target = reinterpret_cast<void*>(call.data);
        const bool isList = call.parameter == kMaidCapChildren && cap->array.empty() &&
                            cap->record.elementType == 0;
        switch (call.command) {
            case kMaidCommandCapGet:
                if (call.dataType == kMaidDataTypeUnsignedPtr) {
                    std::memcpy(target, &cap->value, sizeof cap->value);
                } else {
                    MaidEnum record = cap->record;
                    if (isList) {
                        const auto count = idsOf(*call.object).size();
                        record = {kMaidElementUnsigned,
                                  static_cast<std::uint32_t>(count),
                                  0,
                                  0,
                                  4,
                                  nullptr};
                    }
                    std::memcpy(target, &record, sizeof record);
                }
                return good;
            case kMaidCommandCapGetArray:
                giveArray(call, *cap, isList);
                return good;
            case kMaidCommandCapSet:
                set(call, *cap);
                return good;
            default:
                return start(call, good);
        }
    }

    static void giveArray(const Call& call, const Cap& cap, bool isList)
    {
        MaidEnum record = {};
        std::memcpy(&record, reinterpret_cast<void*>(call.data), sizeof record);
        const std::size_t room =
            std::size_t{record.elements} * static_cast<std::size_t>(record.elementSize);
        const std::vector<std::uint32_t> ids = idsOf(*call.object);
        const void* from = isList ? static_cast<const void*>(ids.data()) : cap.array.data();
        const std::size_t size = isList ? ids.size() * 4 : cap.array.size();
        if (room > 0 && size > 0) {
            std::memcpy(record.array, from, std::min(room, size));
        }
    }

    void set(const Call& call, Cap& cap)
    {
        if (call.dataType == kMaidDataTypeCallbackPtr) {
            std::memcpy(&cap.callback, reinterpret_cast<void*>(call.data), sizeof cap.callback);
            if (cap.info.id == kMaidCapDataProc) {
                m_lastDataProcedure = reinterpret_cast<MaidDataProcedure>(cap.callback.procedure);
                m_lastDataReference = cap.callback.reference;
            }
        } else if (call.dataType == kMaidDataTypeNull) {
            cap.callback = {};
        } else if (call.dataType == kMaidDataTypeUnsigned) {
            cap.value = static_cast<std::uint32_t>(call.data);
        } else if (call.dataType == kMaidDataTypeEnumPtr) {
            MaidEnum record = {};
            std::memcpy(&record, reinterpret_cast<void*>(call.data), sizeof record);
            cap.record.value = record.value;
            setValues.push_back(record.value);
        }
    }

    MaidResult start(const Call& call, MaidResult good)
    {
        if (call.parameter == kMaidCapAcquire) {
            const std::uint32_t itemId = call.object->parent->id;
            deliver(*call.object);
            if (dropsFetchedItems) {
                removeItem(itemId);
            }
        }
        return good;
    }

    std::map<MaidObject*, Object*> m_open;
    std::vector<std::unique_ptr<Object>> m_removed;
    std::vector<Pending> m_pending;
    std::vector<Rule> m_rules;
    std::vector<std::string> m_calls;
    std::vector<std::string> m_misuses;
    std::vector<MaidResult> m_dataResults;
    MaidDataProcedure m_lastDataProcedure = nullptr;
    MaidReference m_lastDataReference = nullptr;
    std::atomic<int> m_polls{0};

    std::mutex m_insideLock;  // guards these two
    std::thread::id m_thread;
    int m_depth = 0;

    std::mutex m_hangLock;  // guards m_released
    std::condition_variable m_hangChanged;
    bool m_released = false;
    std::atomic<int> m_hanging{0};
};

// A fake camera whose module is opened as a session opens it, with little patience.
class MaidTest : public testing::Test
{
protected:
    void TearDown() override
    {
        for (const std::string& misuse : maid.misuses()) {
            ADD_FAILURE() << misuse;
        }
    }

    static nikon::Timing impatient()
    {
        nikon::Timing timing;
        timing.poll = std::chrono::milliseconds(1);
        timing.pause = std::chrono::milliseconds(5);
        timing.running = std::chrono::milliseconds(400);
        timing.stopping = std::chrono::milliseconds(150);
        timing.closing = std::chrono::milliseconds(80);
        timing.refused = std::chrono::milliseconds(20);
        timing.hanging = std::chrono::milliseconds(400);
        return timing;
    }

    Maid maid;
};

}  // namespace fake
