// A driver module that does what the fuzzer's input says: it raises events of any kind inside of
// commands and events, refuses commands, completes them late, twice or never, and delivers parts of
// pictures when nobody asked. What the application does wrong ends the run.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include "Input.h"
#include "fakes/Module.h"
#include "nikon/MaidDriver.h"

namespace fuzz {

class StormModule : public fake::Module
{
public:
    explicit StormModule(Input& input) : m_input(input) {}

    std::shared_ptr<nikon::MaidLibrary> library() const;

    // Does one thing that a module may do at any time.
    void act();

    // From now on every command does what it should, at once.
    void calmDown() { m_isCalm = true; }

    // The objects that are open.
    std::set<const MaidObject*> openObjects() const;

    // How often the module was entered.
    int calls() const { return m_calls; }

    // Calls every procedure and every completion that the module was ever given.
    void callEverything();

private:
    // A procedure of the application's, and the object or acquisition that it is for.
    struct Procedure {
        std::uint32_t capId;
        MaidCallback callback;
    };

    MaidResult handle(fake::Call call) override;
    MaidResult answer(const fake::Call& call) override;
    MaidResult work() override;
    void complete(const fake::Call& made, MaidResult result) override;
    fake::Object* findToOpen(const fake::Call& call) override;
    MaidResult openObject(const fake::Call& call) override;
    MaidResult announceChildren(const fake::Call& call) override;
    MaidResult set(const fake::Call& call, fake::Cap& cap) override;
    MaidResult start(const fake::Call& call) override;

    bool isWild() const;
    void actOften(std::uint32_t detail);
    MaidResult refuse(const fake::Call& call, std::uint32_t detail, bool isCompleted);
    MaidResult postpone(const fake::Call& call, std::uint32_t detail, bool isForEver);
    MaidResult answerNow(const fake::Call& call, std::uint32_t action, std::uint32_t detail);
    void completeLate(std::size_t which);
    void callProcedure(const Procedure& procedure);
    void raiseAny(const Procedure& procedure);
    void showAnyProgress(const Procedure& procedure);
    void deliver(const Procedure& procedure);
    void describeNew(fake::Object& object);

    Input& m_input;
    std::vector<fake::Call> m_completed;  // the last ones
    std::vector<Procedure> m_procedures;  // all that were ever installed
    int m_calls = 0;
    int m_polls = 0;
    int m_nevers = 0;
    bool m_isCalm = false;
};

}  // namespace fuzz
