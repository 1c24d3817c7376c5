// A driver module that follows a test's rules: a scripted camera that writes down the commands that
// it gets, and checks its caller.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fakes/Module.h"
#include "nikon/MaidDriver.h"

namespace fake {

constexpr std::uint32_t kAny = 0xFFFFFFFF;

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

class Maid : public Module
{
public:
    // One camera with the usual settings and no pictures.
    Maid();

    std::shared_ptr<nikon::MaidLibrary> library();

    // The camera's settings.
    Cap& texts(std::uint32_t capId, const std::string& description,
               const std::vector<std::string>& values, std::uint32_t current);
    Cap& numbers(std::uint32_t capId, const std::vector<std::uint32_t>& values,
                 std::uint32_t current);

    // A picture on the camera, not announced.
    Object& addItem(std::uint32_t id, std::vector<Part> parts,
                    std::uint32_t types = kMaidItemImage);

    // The item is not listed any more. It can still be closed.
    void removeItem(std::uint32_t id);

    void rule(const Rule& made);

    // The next calls of the command get this result.
    void refuse(std::uint32_t command, std::uint32_t parameter, MaidResult result = kRefused,
                int times = 1);

    // The next call of the command runs `action` first.
    void during(std::uint32_t command, std::uint32_t parameter,
                std::function<void(const Call&)> action);

    void clearRules();

    void hang(std::uint32_t command, std::uint32_t parameter = kAny);
    bool isHanging() const { return m_hanging > 0; }
    void releaseHangs();

    // Returns when every call has returned, or a session's patience is long over.
    bool awaitNobodyInside();

    // Completes every command that is outstanding, however late.
    void completeAll(MaidResult result = kMaidOk);
    std::size_t outstanding() const { return locked(m_pending).size(); }

    // The calls so far, e.g. "Source CapGet 0x81D7"; asynchronous calls are left out.
    std::vector<std::string> calls() const { return locked(m_calls); }
    std::ptrdiff_t count(const std::string& call) const;
    int polls() const { return m_polls; }
    void clearCalls();

    // What the data procedures have answered.
    std::vector<MaidResult> dataResults() const { return locked(m_dataResults); }

    std::vector<std::string> misuses() const { return locked(m_misuses); }

    bool isOpen(const Object& object) const { return locked(object.open) != nullptr; }
    std::size_t openObjects() const { return locked(m_open).size(); }

    // Delivers the parts of a Data object now, to whatever procedure it has or had last.
    void deliver(Object& data);

    Object* source = nullptr;
    std::atomic<MaidResult> asyncResult{kMaidOk};
    std::optional<std::uint32_t> announcedCaps;  // instead of the real count
    bool dropsFetchedItems = false;              // an item goes when its image was delivered
    std::vector<std::uint32_t> setValues;        // positions that enumerations were set to
    mutable std::recursive_mutex lock;           // guards everything but the hangs

private:
    class Inside;

    void misuse(const std::string& what) override { m_misuses.push_back(what); }
    MaidResult handle(Call call) override;
    MaidResult answer(const Call& call) override;
    MaidResult work() override;
    MaidResult serve(const Call& call) override;
    MaidResult closeObject(const Call& call) override;
    MaidResult set(const Call& call, Cap& cap) override;
    MaidResult start(const Call& call) override;

    // A copy of what the lock guards.
    template <typename Field>
    Field locked(const Field& field) const
    {
        const std::lock_guard<std::recursive_mutex> guard(lock);
        return field;
    }

    Rule takeRule(const Call& call);
    void hangNow();

    std::vector<std::unique_ptr<Object>> m_removed;
    std::vector<Rule> m_rules;
    std::vector<std::string> m_calls;
    std::vector<std::string> m_misuses;
    std::vector<MaidResult> m_dataResults;
    MaidCallback m_lastDataProcedure = {};
    std::atomic<int> m_polls{0};

    std::mutex m_insideLock;  // guards these two
    std::condition_variable m_insideChanged;
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
    void TearDown() override;

    static nikon::Timing impatient();

    Maid maid;
};

}  // namespace fake
