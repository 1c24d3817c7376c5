// The open objects of one session's driver module: the Module, the camera in use, its pictures.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "nikon/MaidDriver.h"
#include "nikon/MaidObjectRef.h"
#include "nikon/ProgressBar.h"

namespace nikon {

// Every function takes the module's lock and may be called on any thread, also from inside an
// event. Where nothing else is said, true is success.
class MaidTree : public std::enable_shared_from_this<MaidTree>
{
public:
    explicit MaidTree(std::shared_ptr<MaidLibrary> library, Timing timing = {});
    MaidTree(const MaidTree&) = delete;
    MaidTree& operator=(const MaidTree&) = delete;
    ~MaidTree();

    // Opens the Module object, installs the procedures and chooses the mode of work.
    bool OpenModule();

    // Opens the module's first Source, or takes the open one of that id, and makes it the current
    // one.
    bool OpenSource();

    // Opens a child, fetches its descriptors and installs its procedures. Null on failure.
    MaidObjectPtr OpenChild(const MaidObjectPtr& parent, std::int32_t id);

    // Fetches the descriptors of an open object that has none, because that failed before, and
    // installs its procedures.
    void describeAgain(const MaidObjectPtr& ref);

    // Closes the child with that id after everything below it; false also when there is none. An
    // object that the module refuses to close stays open.
    bool CloseChild(const MaidObjectPtr& parent, std::int32_t id);

    // Closes every object, each after its children, and the Module object last. The first failure
    // ends the walk.
    bool CloseTree();

    // The open child with that id; null when there is none.
    MaidObjectPtr FindChild(const MaidObjectPtr& parent, std::int32_t id);

    // The ids that the object lists as its children; nothing when it cannot be read.
    std::optional<std::vector<std::uint32_t>> ChildIds(const MaidObjectPtr& ref);

    // The ids of the children that are open, for instance because they were announced.
    std::vector<std::uint32_t> OpenChildIds(const MaidObjectPtr& ref);

    bool SetProcs(const MaidObjectPtr& ref);
    bool ResetProcs(const MaidObjectPtr& ref);

    // The reference that stands for the Module object; null while that is not open.
    MaidObjectPtr root();

    // The camera in use; null when there is none, also after it was closed.
    MaidObjectPtr source();
    void forgetSource();

    // Has `observer` called, under the module's lock, with the id of each item that the camera in
    // use announces as new or as removed. It returns whether it knew a picture of that id.
    void observeItems(std::function<bool(std::int32_t)> observer);
    bool tellItemObserver(std::int32_t id);

    MaidDriver& driver() { return m_driver; }
    ProgressBar& progressBar() { return m_progressBar; }

private:
    MaidObjectPtr makeRef(std::int32_t id, const MaidObjectPtr& parent);
    static void forgetRef(MaidObjectRef& ref);
    bool setUpModule(const MaidObjectPtr& root);
    bool setModuleMode(const MaidObjectPtr& root);
    std::optional<std::uint32_t> GetFirstChildId(const MaidObjectPtr& ref);
    void prepareSource(const MaidObjectPtr& source);
    bool closeWithChildren(const MaidObjectPtr& ref);
    bool closeObject(const MaidObjectPtr& ref);
    void discardRoot();

    MaidDriver m_driver;
    ProgressBar m_progressBar;
    MaidObjectPtr m_root;  // these three: guarded by the module's lock
    MaidObjectPtr m_source;
    std::function<bool(std::int32_t)> m_itemObserver;
};

}  // namespace nikon
