// One call of the application: logged, counted, checked, and made to misbehave on request.
#pragma once

#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "canon/Codes.h"
#include "canon/World.h"

namespace virtualcanon {

// What is known of a call before it is done.
struct CallSpec {
    const char* function;
    std::string arguments;
    EdsBaseRef object = nullptr;  // the reference the call is about
    bool needsInitialised = true;
    bool isCutOff = true;        // does nothing when it hangs while the library is terminated
    bool talksToCamera = false;  // one thread at a time may be in such a call
    std::optional<std::uint32_t> property = std::nullopt;
    std::optional<std::uint32_t> command = std::nullopt;
    std::optional<std::int64_t> parameter = std::nullopt;
};

// Holds the lock from beginning to end, except while it waits.
class Call
{
public:
    explicit Call(const CallSpec& spec);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    World& world() { return m_world; }
    Lock& lock() { return m_lock; }

    // The answer when the call is not to do its work at all.
    std::optional<EdsError> refusal() const { return m_refusal; }

    // The fault of a download that comes at some share of the file; it applies once.
    const Fault& fault() const { return m_fault; }

    // Does what the fault says; the answer when the call must end now.
    std::optional<EdsError> applyFault();

    // Notes a misuse by this call.
    void misuse(const std::string& text);

    // The object of a reference. Notes a misuse and answers null for a wrong one.
    Object* object(EdsBaseRef reference, Kind kind);

    // A camera that can be talked to; sets `error` and answers null when it cannot.
    std::shared_ptr<Connection> camera(EdsBaseRef reference, bool needsSession, EdsError& error);

    // Whether a picture's camera can be talked to: 0 or a result code.
    EdsError check(const Connection& connection, bool needsSession) const;

    // True when the pointer is good; notes a misuse otherwise.
    bool isGiven(const void* pointer, const char* name);

    // Sleeps with the lock given up; false when the library was terminated meanwhile.
    bool sleepUntil(Clock::time_point due);

    // The answer for the application.
    EdsError finish(EdsError result);

private:
    void checkThread();

    const CallSpec& m_spec;
    World& m_world;
    Lock m_lock;
    Clock::time_point m_start = Clock::now();
    unsigned m_generation;
    std::shared_ptr<Body> m_body;
    std::optional<std::list<CallUnderWay>::iterator> m_underWay;
    std::optional<EdsError> m_refusal;
    Fault m_fault;
};

// Does a call: `work` gets the Call and returns a result code.
template <typename Work>
EdsError answer(const CallSpec& spec, Work work)
{
    try {
        Call call(spec);
        const EdsError result = call.refusal() ? *call.refusal() : work(call);
        return call.finish(result);
    } catch (const std::bad_alloc&) {
        return result::kOutOfMemory;
    } catch (...) {
        return result::kInternal;
    }
}

// A newer library's record is longer than the known one, and it fills all of it.
template <typename Record>
void fillExtra(std::int64_t extraBytes, Record* record)
{
    std::memset(record + 1, 0xEE, static_cast<std::size_t>(extraBytes));
}

// Arguments as the log shows them.
std::string arguments(std::initializer_list<std::string> parts);
std::string shown(const void* reference);
std::string shown(std::uint32_t code);
inline std::string shownText(const char* text)
{
    return text == nullptr ? "null" : '"' + std::string(text) + '"';
}

}  // namespace virtualcanon
