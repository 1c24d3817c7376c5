#include "FakeMaid.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace fake {

namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

bool isGood(MaidResult result)
{
    return result == kMaidOk || result == kMaidPending;
}

bool applies(const Rule& rule, const Call& call)
{
    const std::uint32_t level = call.object != nullptr ? call.object->level : 0;
    return rule.command == call.command &&
           (rule.parameter == kAny || rule.parameter == call.parameter) &&
           (rule.level == kAny || rule.level == level);
}

}  // namespace

// Watches that no second thread is inside.
class Maid::Inside
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
        m_maid.m_insideChanged.notify_all();
    }

private:
    Maid& m_maid;
};

Maid::Maid()
{
    module.addCommonCaps();
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

std::shared_ptr<nikon::MaidLibrary> Maid::library()
{
    return std::make_shared<nikon::MaidLibrary>(&Maid::enter);
}

Cap& Maid::texts(std::uint32_t capId, const std::string& description,
                 const std::vector<std::string>& values, std::uint32_t current)
{
    return source->cap(capId, kMaidCapTypeEnum, kSettable, description).texts(values, current);
}

Cap& Maid::numbers(std::uint32_t capId, const std::vector<std::uint32_t>& values,
                   std::uint32_t current)
{
    return source->cap(capId, kMaidCapTypeEnum, kSettable, "Numbers").numbers(values, current);
}

Object& Maid::addItem(std::uint32_t id, std::vector<Part> parts, std::uint32_t types)
{
    const Lock guard(lock);
    Object& item = addChild(*source, kMaidLevelItem, id);
    item.cap(kMaidCapDataTypes, kMaidCapTypeUnsigned, kMaidOperationGet).value = types;
    Object& data = addChild(item, kMaidLevelData, 1);
    data.cap(kMaidCapDataProc, 0, kSettable);
    data.cap(kMaidCapAcquire, 0, kMaidOperationStart);
    data.parts = std::move(parts);
    return item;
}

void Maid::removeItem(std::uint32_t id)
{
    const Lock guard(lock);
    if (auto taken = source->takeChild(id)) {
        m_removed.push_back(std::move(taken));
    }
}

void Maid::rule(const Rule& made)
{
    const Lock guard(lock);
    m_rules.push_back(made);
}

void Maid::refuse(std::uint32_t command, std::uint32_t parameter, MaidResult result, int times)
{
    Rule made{command, parameter};
    made.result = result;
    made.times = times;
    rule(made);
}

void Maid::during(std::uint32_t command, std::uint32_t parameter,
                  std::function<void(const Call&)> action)
{
    Rule made{command, parameter};
    made.action = std::move(action);
    rule(made);
}

void Maid::clearRules()
{
    const Lock guard(lock);
    m_rules.clear();
}

void Maid::hang(std::uint32_t command, std::uint32_t parameter)
{
    Rule made{command, parameter};
    made.hangs = true;
    rule(made);
}

void Maid::releaseHangs()
{
    const std::lock_guard<std::mutex> guard(m_hangLock);
    m_released = true;
    m_hangChanged.notify_all();
}

bool Maid::awaitNobodyInside()
{
    std::unique_lock<std::mutex> guard(m_insideLock);
    return m_insideChanged.wait_for(guard, std::chrono::seconds(10),
                                    [this] { return m_depth == 0; });
}

void Maid::completeAll(MaidResult result)
{
    const Lock guard(lock);
    std::vector<Pending> pending;
    pending.swap(m_pending);
    for (const Pending& command : pending) {
        complete(command.call, result);
    }
}

std::ptrdiff_t Maid::count(const std::string& call) const
{
    const Lock guard(lock);
    return std::count(m_calls.begin(), m_calls.end(), call);
}

void Maid::clearCalls()
{
    const Lock guard(lock);
    m_calls.clear();
    m_polls = 0;
}

void Maid::deliver(Object& data)
{
    const Lock guard(lock);
    for (const Part& part : data.parts) {
        m_dataResults.push_back(callData(m_lastDataProcedure, part.info.data(),
                                         part.withoutData ? nullptr : part.data.data()));
    }
}

MaidResult Maid::handle(Call call)
{
    const Inside inside(*this);
    const Lock guard(lock);
    return Module::handle(call);
}

MaidResult Maid::answer(const Call& call)
{
    m_calls.push_back(describe(call));
    const Rule rule = takeRule(call);
    if (rule.action) {
        rule.action(call);
    }
    if (rule.hangs) {
        hangNow();
    }
    MaidResult result = isGood(rule.result) ? serve(call) : rule.result;
    if (result == kMaidOk) {
        result = rule.result;
    }
    if (call.completion != nullptr && (isGood(result) || rule.completes)) {
        if (rule.polls == 0) {
            complete(call, result);
        } else {
            m_pending.push_back({call, rule.polls, true});
        }
    }
    return result;
}

MaidResult Maid::work()
{
    ++m_polls;
    Module::work();
    return asyncResult;
}

MaidResult Maid::serve(const Call& call)
{
    if (call.command == kMaidCommandGetCapCount && announcedCaps) {
        write(call.data, *announcedCaps);
        return kMaidOk;
    }
    return Module::serve(call);
}

MaidResult Maid::closeObject(const Call& call)
{
    for (Cap& cap : call.object->caps) {
        if (cap.callback.procedure != nullptr) {
            misuse("closed with a procedure: " + describe(call));
            cap.callback = {};
        }
    }
    return Module::closeObject(call);
}

MaidResult Maid::set(const Call& call, Cap& cap)
{
    const MaidResult result = Module::set(call, cap);
    if (call.dataType == kMaidDataTypeEnumPtr) {
        setValues.push_back(cap.record.value);
    } else if (call.dataType == kMaidDataTypeCallbackPtr && cap.info.id == kMaidCapDataProc) {
        m_lastDataProcedure = cap.callback;
    }
    return result;
}

MaidResult Maid::start(const Call& call)
{
    if (call.parameter == kMaidCapAcquire) {
        const std::uint32_t itemId = call.object->parent->id;
        deliver(*call.object);
        if (dropsFetchedItems) {
            removeItem(itemId);
        }
    }
    return kMaidOk;
}

Rule Maid::takeRule(const Call& call)
{
    for (auto rule = m_rules.begin(); rule != m_rules.end(); ++rule) {
        if (!applies(*rule, call)) {
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

// The test may ask and change things meanwhile.
void Maid::hangNow()
{
    lock.unlock();
    {
        std::unique_lock<std::mutex> hang(m_hangLock);
        ++m_hanging;
        m_hangChanged.wait(hang, [this] { return m_released; });
        --m_hanging;
    }
    lock.lock();
}

void MaidTest::TearDown()
{
    EXPECT_TRUE(maid.awaitNobodyInside());
    for (const std::string& misuse : maid.misuses()) {
        ADD_FAILURE() << misuse;
    }
}

nikon::Timing MaidTest::impatient()
{
    using std::chrono::milliseconds;
    nikon::Timing timing;
    timing.poll = milliseconds(1);
    timing.pause = milliseconds(5);
    timing.running = milliseconds(400);
    timing.stopping = milliseconds(150);
    timing.closing = milliseconds(80);
    timing.refused = milliseconds(20);
    timing.hanging = milliseconds(400);
    timing.exposure = milliseconds(1500);
    return timing;
}

}  // namespace fake
