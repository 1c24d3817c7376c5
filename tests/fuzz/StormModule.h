// A driver module that does what the fuzzer's input says: it raises events of any kind inside of
// commands and events, refuses commands, completes them late, twice or never, and delivers parts of
// pictures when nobody asked. It checks its caller: no object is opened twice, none is used that is
// not open, and none is closed before its children.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Input.h"
#include "nikon/MaidDriver.h"

namespace fuzz {

class StormModule
{
public:
    explicit StormModule(Input& input);
    StormModule(const StormModule&) = delete;
    StormModule& operator=(const StormModule&) = delete;
    ~StormModule();

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
    struct Node {
        std::uint32_t level = 0;
        std::uint32_t id = 0;
        Node* parent = nullptr;
        const MaidObject* open = nullptr;
        std::vector<std::uint32_t> listed;
        std::vector<MaidCapInfo> caps;
        std::uint32_t position = 0;  // of its enumerations
    };

    struct Call {
        Node* node;  // null for the open of the Module object
        MaidObject* object;
        std::uint32_t command;
        std::uint32_t parameter;
        std::uint32_t dataType;
        MaidData data;
        MaidCompletionProcedure completion;
        MaidReference reference;
    };

    // A command that is not completed yet.
    struct Pending {
        Call call;
        int polls;      // 0: never
        bool isServed;  // its data was written already
    };

    // A procedure of the application's, and the object or acquisition that it is for.
    struct Procedure {
        std::uint32_t capId;
        MaidCallback callback;
    };

    static MaidResult MAIDAPI enter(MaidObject* object, std::uint32_t command,
                                    std::uint32_t parameter, std::uint32_t dataType, MaidData data,
                                    MaidCompletionProcedure completion, MaidReference reference);

    bool isWild();
    MaidResult handle(const Call& call);
    MaidResult answer(const Call& call, std::uint32_t action, std::uint32_t detail);
    MaidResult work();
    MaidResult serve(const Call& call);
    MaidResult open(const Call& call);
    MaidResult close(const Call& call);
    MaidResult announce(const Call& call);
    MaidResult giveCount(const Call& call) const;
    MaidResult giveInfos(const Call& call) const;
    MaidResult get(const Call& call) const;
    MaidResult giveArray(const Call& call) const;
    MaidResult set(const Call& call);
    MaidResult start();
    void complete(const Call& made, MaidResult result);
    void raise(const Procedure& procedure);
    void deliver(const Procedure& procedure);
    void showProgress(const Procedure& procedure);
    Node& nodeOf(Node* parent, std::uint32_t id);
    void addCaps(Node& node);
    static std::vector<unsigned char> arrayOf(const Node& node, std::uint32_t capId);

    Input& m_input;
    std::vector<std::unique_ptr<Node>> m_nodes;
    std::map<const MaidObject*, Node*> m_open;
    std::vector<Pending> m_pending;
    std::vector<Call> m_completed;        // the last ones
    std::vector<Procedure> m_procedures;  // all that were ever installed
    int m_calls = 0;
    int m_polls = 0;
    int m_nevers = 0;
    bool m_isCalm = false;
};

}  // namespace fuzz
