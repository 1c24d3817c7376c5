#include "nikon/MaidTree.h"

#include <algorithm>
#include <new>
#include <utility>

#include "nikon/Console.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidProcedures.h"

namespace nikon {

namespace {

constexpr std::uint32_t kOn = 1;  // what the module's mode and the source's setting are set to

// Sets a flag for a scope.
class Flagged
{
public:
    explicit Flagged(bool& flag) : m_flag(flag) { flag = true; }
    Flagged(const Flagged&) = delete;
    Flagged& operator=(const Flagged&) = delete;
    ~Flagged() { m_flag = false; }

private:
    bool& m_flag;
};

template <typename Procedure>
void (*plain(Procedure procedure))()
{
    return reinterpret_cast<void (*)()>(procedure);
}

}  // namespace

MaidTree::MaidTree(std::shared_ptr<MaidLibrary> library, Timing timing)
    : m_driver(std::move(library), timing)
{}

MaidTree::~MaidTree()
{
    discardRoot();
}

// The whole subtree: handles are given back, whether the module has closed the objects or not.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the tree, here and below
void MaidTree::forgetRef(MaidObjectRef& ref)
{
    ref.closed = true;
    objectHandles().remove(ref.handle);
    for (const MaidObjectPtr& child : ref.children) {
        forgetRef(*child);
    }
    ref.children.clear();
}

void MaidTree::discardRoot()
{
    if (m_root) {
        forgetRef(*m_root);
    }
    m_root = nullptr;
    m_source = nullptr;
}

MaidObjectPtr MaidTree::makeRef(std::int32_t id, const MaidObjectPtr& parent)
{
    auto ref = std::make_shared<MaidObjectRef>();
    ref->object = std::make_shared<MaidObject>();
    ref->id = id;
    ref->parent = parent;
    ref->caps = std::make_shared<MaidCaps>();
    ref->tree = weak_from_this();
    ref->handle = objectHandles().add(ref);
    ref->object->clientRef = ref->handle;
    return ref;
}

bool MaidTree::OpenModule()
{
    const MaidDriver::Guard guard(m_driver);
    if (!guard) {
        Console::puts("Module object can't be opened.\n");
        return false;
    }
    MaidObjectPtr root;
    try {
        root = makeRef(kRootId, nullptr);
    } catch (const std::bad_alloc&) {
        Console::puts("There is not enough memory.");
        return false;
    }
    const MaidCommand open{kMaidCommandOpen, 0, kMaidDataTypeObjectPtr, dataOf(root->object),
                           root->object};
    root->opening = true;
    const MaidResult result = m_driver.call(nullptr, open);
    root->opening = false;
    if (result != kMaidOk) {
        Console::puts("Module object can't be opened.\n");
        forgetRef(*root);
        return false;
    }
    m_root = root;
    return setUpModule(root);
}

bool MaidTree::setUpModule(const MaidObjectPtr& root)
{
    if (!GetCapInfo(m_driver, root)) {
        Console::puts("Failed in enumeration of capabilities.");
        return false;
    }
    if (!SetProcs(root)) {
        Console::puts("Failed in setting a call back function.");
        return false;
    }
    return setModuleMode(root);
}

// A module without the capability is used as it is.
bool MaidTree::setModuleMode(const MaidObjectPtr& root)
{
    if (!FindCapability(m_driver, root, kMaidCapModuleMode, kMaidOperationSet)) {
        return true;
    }
    if (!SetCapability(m_driver, root, kMaidCapModuleMode, kMaidDataTypeUnsigned, kOn)) {
        Console::puts("Failed in setting kNkMAIDCapability_ModuleMode.");
        return false;
    }
    return true;
}

bool MaidTree::OpenSource()
{
    const MaidDriver::Guard guard(m_driver);
    const MaidObjectPtr root = guard ? m_root : nullptr;
    const std::optional<std::uint32_t> id = GetFirstChildId(root);
    if (!id) {
        return false;
    }
    MaidObjectPtr source = FindChild(root, static_cast<std::int32_t>(*id));
    if (!source) {
        source = OpenChild(root, static_cast<std::int32_t>(*id));
        if (!source) {
            Console::puts("Source object can't be opened.\n");
            return false;
        }
        Console::puts("Source object is opened.\n");
    }
    if (source->closed) {
        return false;
    }
    m_source = source;
    prepareSource(source);
    return true;
}

std::optional<std::uint32_t> MaidTree::GetFirstChildId(const MaidObjectPtr& ref)
{
    const std::optional<std::vector<std::uint32_t>> ids = ChildIds(ref);
    return ids && !ids->empty() ? std::make_optional(ids->front()) : std::nullopt;
}

std::optional<std::vector<std::uint32_t>> MaidTree::ChildIds(const MaidObjectPtr& ref)
{
    const auto info = FindCapability(m_driver, ref, kMaidCapChildren, kMaidOperationGet);
    if (!info || info->type != kMaidCapTypeEnum) {
        return std::nullopt;
    }
    const std::shared_ptr<EnumBuffer> buffer = GetEnum(m_driver, ref, kMaidCapChildren);
    if (!buffer) {
        return std::nullopt;
    }
    std::vector<std::uint32_t> ids;
    const std::uint32_t count = buffer->record.elements;
    if (count == 0) {
        return ids;
    }
    if (buffer->record.elementSize != sizeof(std::uint32_t) ||
        !GetCapabilityArray(m_driver, ref, kMaidCapChildren, buffer)) {
        return std::nullopt;
    }
    // A child may have gone since the count was read.
    const std::size_t left = std::min(count, buffer->record.elements);
    ids.reserve(left);
    for (std::size_t i = 0; i < left; ++i) {
        ids.push_back(NumberAt(*buffer, i));
    }
    return ids;
}

std::vector<std::uint32_t> MaidTree::OpenChildIds(const MaidObjectPtr& ref)
{
    std::vector<std::uint32_t> ids;
    const MaidDriver::Guard guard(m_driver);
    if (guard && ref) {
        for (const MaidObjectPtr& child : ref->children) {
            ids.push_back(static_cast<std::uint32_t>(child->id));
        }
    }
    return ids;
}

// What becomes of the setting does not matter.
void MaidTree::prepareSource(const MaidObjectPtr& source)
{
    constexpr std::uint32_t kNotRead = 0xFFFFFFFF;
    const auto info = FindCapability(m_driver, source, kMaidCapSourceSetting, kMaidOperationGet);
    if (!info || info->type != kMaidCapTypeUnsigned ||
        !GetUnsigned(m_driver, source, kMaidCapSourceSetting, kNotRead)) {
        return;
    }
    const auto value = GetUnsigned(m_driver, source, kMaidCapSourceSetting, kNotRead);
    Console::print("[%s]\n", DescriptionOf(*info).c_str());
    Console::print("Current Value: %d\n", static_cast<int>(value.value_or(kNotRead)));
    if ((info->operations & kMaidOperationSet) != 0) {
        SetCapability(m_driver, source, kMaidCapSourceSetting, kMaidDataTypeUnsigned, kOn);
    } else {
        Console::print("This value cannot be changed. Enter '0' to exit.\n>");
    }
}

MaidObjectPtr MaidTree::FindChild(const MaidObjectPtr& parent, std::int32_t id)
{
    const MaidDriver::Guard guard(m_driver);
    if (!guard || !parent) {
        return nullptr;
    }
    const auto found = std::find_if(parent->children.begin(), parent->children.end(),
                                    [&](const MaidObjectPtr& child) { return child->id == id; });
    return found != parent->children.end() ? *found : nullptr;
}

MaidObjectPtr MaidTree::OpenChild(const MaidObjectPtr& parentRef, std::int32_t id)
{
    const MaidDriver::Guard guard(m_driver);
    const MaidObjectPtr parent = keep(parentRef);
    if (!guard || !parent || parent->closed || parent->closing) {
        return nullptr;
    }
    MaidObjectPtr child;
    try {
        parent->children.reserve(parent->children.size() + 1);
        child = makeRef(id, parent);
        parent->children.push_back(child);
    } catch (const std::bad_alloc&) {
        Console::puts("There is not enough memory");
        return nullptr;
    }
    const MaidCommand open{kMaidCommandOpen, static_cast<std::uint32_t>(id), kMaidDataTypeObjectPtr,
                           dataOf(child->object), child->object};
    // Already among the children: an event inside the command must not open it a second time.
    child->opening = true;
    const MaidResult result = m_driver.call(parent->object, open);
    child->opening = false;
    if (result != kMaidOk) {
        Console::puts("Failed in Opening an object.");
        auto& children = parent->children;
        children.erase(std::remove(children.begin(), children.end(), child), children.end());
        forgetRef(*child);
        return nullptr;
    }
    GetCapInfo(m_driver, child);
    SetProcs(child);
    return child;
}

void MaidTree::describeAgain(const MaidObjectPtr& ref)
{
    const MaidDriver::Guard guard(m_driver);
    if (guard && ref->caps->empty() && GetCapInfo(m_driver, ref)) {
        SetProcs(ref);
    }
}

bool MaidTree::SetProcs(const MaidObjectPtr& ref)
{
    const auto settable = [&](std::uint32_t capId) {
        return FindCapability(m_driver, ref, capId, kMaidOperationSet).has_value();
    };
    const auto set = [&](std::uint32_t capId, void (*procedure)()) {
        return SetProcedure(m_driver, ref, capId, procedure, ref->handle);
    };
    if (settable(kMaidCapProgressProc) && !set(kMaidCapProgressProc, plain(showProgress))) {
        return false;
    }
    const std::uint32_t level = ref->object->type;
    MaidEventProcedure procedure = eventProcedure(level);
    if (procedure == nullptr) {
        return true;
    }
    if (settable(kMaidCapEventProc) && !set(kMaidCapEventProc, plain(procedure))) {
        return false;
    }
    if (level != kMaidLevelModule || !settable(kMaidCapUserInterfaceProc)) {
        return true;
    }
    return set(kMaidCapUserInterfaceProc, plain(answerUser));
}

bool MaidTree::ResetProcs(const MaidObjectPtr& ref)
{
    const auto reset = [&](std::uint32_t capId) {
        return !FindCapability(m_driver, ref, capId, kMaidOperationSet) ||
               SetProcedure(m_driver, ref, capId, nullptr, nullptr);
    };
    // A Data object may be closed in the middle of its transfer.
    return reset(kMaidCapProgressProc) && reset(kMaidCapEventProc) &&
           (ref->object->type != kMaidLevelModule || reset(kMaidCapUserInterfaceProc)) &&
           (!ref->receiving || reset(kMaidCapDataProc));
}

// NOLINTNEXTLINE(misc-no-recursion)
bool MaidTree::CloseChild(const MaidObjectPtr& parentRef, std::int32_t id)
{
    const MaidDriver::Guard guard(m_driver);
    const MaidObjectPtr parent = keep(parentRef);
    const MaidObjectPtr child = FindChild(parent, id);
    if (!guard || !child || child->opening || child->closing) {
        return false;
    }
    const Flagged closing(child->closing);
    bool closed = true;
    while (closed && !child->children.empty()) {
        closed = CloseChild(child, child->children.front()->id);
    }
    if (closed) {
        ResetProcs(child);
        closed = closeObject(child);
    }
    return closed;
}

// Closes one object without children and takes it out of the tree; a refused one stays.
bool MaidTree::closeObject(const MaidObjectPtr& ref)
{
    // Before the module says so: an event inside must not lead to commands for what it has closed.
    ref->closed = true;
    if (m_driver.call(ref->object, MaidCommand{kMaidCommandClose}) != kMaidOk) {
        ref->closed = false;
        return false;
    }
    if (const MaidObjectPtr parent = ref->parent.lock()) {
        auto& children = parent->children;
        children.erase(std::remove(children.begin(), children.end(), ref), children.end());
    }
    if (m_source == ref) {
        m_source = nullptr;
    }
    forgetRef(*ref);
    return true;
}

bool MaidTree::CloseTree()
{
    const MaidDriver::Guard guard(m_driver);
    if (!guard || !m_root || !closeWithChildren(m_root)) {
        return false;
    }
    discardRoot();
    return true;
}

// NOLINTNEXTLINE(misc-no-recursion)
bool MaidTree::closeWithChildren(const MaidObjectPtr& refInTree)
{
    const MaidObjectPtr ref = keep(refInTree);
    if (ref->opening || ref->closing) {
        return false;
    }
    const Flagged closing(ref->closing);
    bool closed = true;
    while (closed && !ref->children.empty()) {
        closed = closeWithChildren(ref->children.front());
    }
    return closed && ResetProcs(ref) && closeObject(ref);
}

MaidObjectPtr MaidTree::root()
{
    const MaidDriver::Guard guard(m_driver);
    return guard ? m_root : nullptr;
}

MaidObjectPtr MaidTree::source()
{
    const MaidDriver::Guard guard(m_driver);
    return guard ? m_source : nullptr;
}

void MaidTree::forgetSource()
{
    const MaidDriver::Guard guard(m_driver);
    if (guard) {
        m_source = nullptr;
    }
}

void MaidTree::observeItems(std::function<bool(std::int32_t)> observer)
{
    const MaidDriver::Guard guard(m_driver);
    m_itemObserver = std::move(observer);
}

bool MaidTree::tellItemObserver(std::int32_t id)
{
    const MaidDriver::Guard guard(m_driver);
    return guard && m_itemObserver && m_itemObserver(id);
}

}  // namespace nikon
