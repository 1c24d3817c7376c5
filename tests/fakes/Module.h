// A driver module in the program's own process: a tree of objects, and the commands for them. It
// knows what is open and what is pending, checks its caller, and writes into the caller's records.
// By itself it completes every command at once; what else a camera may do, derived classes say.
//
// Who needs no more than a camera that works takes the virtual driver module instead.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fakes/Object.h"

namespace fake {

// A command as it came.
struct Call {
    Object* object;      // null for the open of the Module object
    MaidObject* record;  // the object's, as the caller has it
    std::uint32_t command;
    std::uint32_t parameter;
    std::uint32_t dataType;
    MaidData data;
    MaidCompletionProcedure completion;
    MaidReference reference;
};

// For people, e.g. "Source CapGet 0x81D7".
std::string describe(const Call& call);

constexpr int kNever = -1;

// A command that is not completed yet.
struct Pending {
    Call call;
    int polls;      // asynchronous calls until then, or kNever
    bool isServed;  // its work is done
};

// There is one at a time. Used by one thread at a time: what else comes, derived classes guard.
class Module
{
public:
    Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    virtual ~Module();

    // The entry point.
    static MaidResult MAIDAPI enter(MaidObject* object, std::uint32_t command,
                                    std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                    MaidCompletionProcedure completion, MaidReference reference);

    // Adds an object with the capabilities that every one has.
    static Object& addChild(Object& parent, std::uint32_t level, std::uint32_t id);

    // Calls the object's event or progress procedure; nothing happens without one.
    static void raise(const Object& object, std::uint32_t event, MaidData parameter = 0);
    static void showProgress(const Object& object, std::uint32_t done, std::uint32_t total);

    Object module;  // the root; without capabilities at first

protected:
    // The application did what it must not: ends the program.
    virtual void misuse(const std::string& what);

    // Takes a call, and finds its object.
    virtual MaidResult handle(Call call);

    // Does a command and completes it. Returns its immediate result.
    virtual MaidResult answer(const Call& call);

    // An asynchronous call. Completes what is due.
    virtual MaidResult work();

    virtual void complete(const Call& call, MaidResult result);

    // Does a command without completing it.
    virtual MaidResult serve(const Call& call);

    // The object to open, null when there is none.
    virtual Object* findToOpen(const Call& call);
    virtual MaidResult openObject(const Call& call);
    virtual MaidResult closeObject(const Call& call);
    virtual MaidResult announceChildren(const Call& call);
    virtual MaidResult set(const Call& call, Cap& cap);
    virtual MaidResult start(const Call& call);

    std::map<const MaidObject*, Object*> m_open;
    std::vector<Pending> m_pending;

private:
    MaidResult serveCapability(const Call& call);
};

}  // namespace fake
