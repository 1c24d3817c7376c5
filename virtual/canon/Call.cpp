#include "canon/Call.h"

#include <algorithm>

#include "canon/Cameras.h"
#include "common/Text.h"

namespace virtualcanon {

std::string arguments(std::initializer_list<std::string> parts)
{
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : ", ") + part;
    }
    return text;
}

std::string shown(const void* reference)
{
    return ObjectTable::nameOf(reference);
}

std::string shown(std::uint32_t code)
{
    return virtualcamera::hexadecimal(code);
}

Call::Call(const CallSpec& spec)
    : m_spec(spec),
      m_world(virtualcanon::world()),
      m_lock(m_world.mutex),
      m_generation(m_world.generation)
{
    ++m_world.underWay;
    if (spec.needsInitialised && !m_world.isInitialised() &&
        !m_world.isAwaited(std::this_thread::get_id())) {
        misuse(m_world.generation == 0 ? "called before EdsInitializeSDK"
                                       : "called after EdsTerminateSDK");
        m_refusal = result::kInternal;
        return;
    }
    const Object* object = m_world.objects.find(spec.object);
    if (object != nullptr) {
        const Connection* connection = object->connection.get();
        if (object->item != nullptr) {
            connection = object->item->connection.get();
        }
        m_body = connection != nullptr ? connection->body : nullptr;
    }
    checkThread();

    CallFacts facts;
    facts.function = spec.function;
    facts.property = spec.property;
    facts.command = spec.command;
    facts.parameter = spec.parameter;
    facts.onEventThread = m_world.isOwnThread(std::this_thread::get_id());
    m_fault = m_world.faults.next(facts);
    if (m_fault.percent < 0) {
        m_refusal = applyFault();
    }
}

Call::~Call()
{
    if (m_underWay) {
        m_world.callsUnderWay.erase(*m_underWay);
    }
    --m_world.underWay;
    m_world.changed.notify_all();
}

void Call::checkThread()
{
    if (!m_spec.talksToCamera || m_body == nullptr) {
        return;
    }
    const std::thread::id self = std::this_thread::get_id();
    for (const CallUnderWay& other : m_world.callsUnderWay) {
        const bool concerns = m_world.options.oneThread == 2 ||
                              (m_world.options.oneThread == 1 && other.body == m_body.get());
        if (concerns && other.thread != self) {
            misuse("called by " + m_world.log.threadName(self) + " while " +
                   m_world.log.threadName(other.thread) + " is inside " + other.function);
            break;
        }
    }
    m_underWay = m_world.callsUnderWay.insert(m_world.callsUnderWay.end(),
                                              CallUnderWay{self, m_body.get(), m_spec.function});
}

std::optional<EdsError> Call::applyFault()
{
    const Fault fault = m_fault;
    m_fault.percent = -1;
    if (fault.unplug) {
        for (const auto& body : m_world.bodies) {
            if (body != nullptr && (m_body == nullptr || m_body == body)) {
                unplug(m_world, *body);
            }
        }
    }
    if (fault.delayMs > 0) {
        sleepUntil(Clock::now() + std::chrono::milliseconds(fault.delayMs));
    }
    if (fault.hang) {
        m_world.hang(m_lock, m_spec.function, [&] { return m_world.generation != m_generation; });
    }
    const bool isTerminated = m_spec.needsInitialised && m_world.generation != m_generation;
    if (isTerminated && (m_spec.isCutOff || m_world.objects.find(m_spec.object) == nullptr)) {
        return result::kInternal;
    }
    return fault.after ? std::nullopt : fault.code;
}

void Call::misuse(const std::string& text)
{
    m_world.log.misuse(std::string(m_spec.function) + ": " + text);
}

Object* Call::object(EdsBaseRef reference, Kind kind)
{
    Object* found = m_world.objects.find(reference);
    if (found == nullptr) {
        const bool isStale = m_world.objects.isStale(reference);
        misuse((reference == nullptr ? "no reference: "
                : isStale            ? "stale reference "
                                     : "unknown reference ") +
               shown(reference));
        return nullptr;
    }
    if (kind != Kind::kNone && found->kind != kind) {
        misuse("wrong kind of reference " + shown(reference));
        return nullptr;
    }
    return found;
}

EdsError Call::check(const Connection& connection, bool needsSession) const
{
    if (!connection.isAlive) {
        return static_cast<EdsError>(m_world.options.goneCode);
    }
    if (connection.body->isAsleep) {
        return static_cast<EdsError>(m_world.options.sleepCode);
    }
    return needsSession && !connection.isOpen ? result::kSessionNotOpen : result::kOk;
}

std::shared_ptr<Connection> Call::camera(EdsBaseRef reference, bool needsSession, EdsError& error)
{
    const Object* found = object(reference, Kind::kCamera);
    if (found == nullptr) {
        error = result::kInvalidHandle;
        return nullptr;
    }
    error = check(*found->connection, needsSession);
    return error == result::kOk ? found->connection : nullptr;
}

bool Call::isGiven(const void* pointer, const char* name)
{
    if (pointer == nullptr) {
        misuse(std::string("null for ") + name);
    }
    return pointer != nullptr;
}

bool Call::sleepUntil(Clock::time_point due)
{
    return !m_world.changed.wait_until(m_lock, due,
                                       [&] { return m_world.generation != m_generation; });
}

EdsError Call::finish(EdsError result)
{
    if (m_fault.after && m_fault.code) {
        result = *m_fault.code;
    }
    deliverInside(m_world, m_lock);
    m_world.log.count(m_spec.function);
    m_world.log.write(std::string(m_spec.function) + "(" + m_spec.arguments +
                          ") = " + virtualcamera::hexadecimal(result),
                      m_start);
    return result;
}

}  // namespace virtualcanon
