// Fuzzes the tree of open objects with a driver module that raises whatever it likes, whenever it
// likes. The module checks each command; between the steps the tree and the module have to agree on
// what is open, and at the end everything is closed and nothing is remembered.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Input.h"
#include "Scratch.h"
#include "ScriptedCamera.h"
#include "StormModule.h"
#include "TetherTexts.h"
#include "nikon/Acquisition.h"
#include "nikon/EnumSetting.h"
#include "nikon/MaidCommands.h"
#include "nikon/MaidProcedures.h"
#include "nikon/MaidTree.h"
#include "nikon/NikonReporting.h"

namespace {

using fuzz::check;
using fuzz::Input;
using nikon::MaidObjectPtr;

constexpr int kMostSteps = 64;
constexpr int kMostItems = 40;  // of one pass

struct Deaf : nikon::ReportReceiver {
    bool send(TetherType /*type*/, const std::string& /*text*/) override { return true; }
    bool send(TetherType /*type*/, int /*value*/) override { return true; }
    bool isWanted() override { return true; }
};

// Appends an object and everything below it.
void collect(const MaidObjectPtr& ref, std::vector<MaidObjectPtr>& refs)
{
    if (ref) {
        refs.push_back(ref);
        for (const MaidObjectPtr& child : ref->children) {
            collect(child, refs);
        }
    }
}

// A session with a module that is out of control.
class Storm
{
public:
    explicit Storm(Input& input)
        : m_input(input),
          m_module(input),
          m_tree(std::make_shared<nikon::MaidTree>(m_module.library(), fuzz::noPatience())),
          m_reporting(m_tree, m_host),
          m_acquisition(std::make_unique<nikon::Acquisition>(
              m_tree, [](const std::string& /*text*/) { return true; },
              [this] { return --m_items > 0; }))
    {}

    void run()
    {
        m_tree->OpenModule();
        checkAgreement();
        m_tree->OpenSource();
        checkAgreement();
        for (int count = 0; count < kMostSteps && !m_input.empty(); ++count) {
            step();
            checkAgreement();
        }
        finish();
    }

private:
    std::vector<MaidObjectPtr> refs() const
    {
        std::vector<MaidObjectPtr> all;
        collect(m_tree->root(), all);
        return all;
    }

    MaidObjectPtr anyRef()
    {
        const std::vector<MaidObjectPtr> all = refs();
        const std::uint32_t which = m_input.byte();
        return all.empty() ? nullptr : all[which % all.size()];
    }

    void step()
    {
        nikon::MaidDriver& driver = m_tree->driver();
        switch (m_input.below(16)) {
            case 0:
                openChild(anyRef());
                break;
            case 1:
                m_tree->CloseChild(anyRef(), static_cast<std::int32_t>(m_input.below(4)));
                break;
            case 2:
                m_tree->OpenSource();
                break;
            case 3:
                nikon::SetEnumPosition(*m_tree, kMaidCapAperture, m_input.byte());
                break;
            case 4:
            case 5:
                m_items = kMostItems;
                m_acquisition->AcquireNewItems();
                break;
            case 6:
                driver.work(anyRef());
                break;
            case 7:
                nikon::StartCapability(driver, m_tree->source(), kMaidCapCapture);
                break;
            case 8:
                if (const MaidObjectPtr ref = anyRef()) {
                    nikon::GetCapInfo(driver, ref);
                }
                break;
            case 9:
                m_reporting.ReportNikonProperties();
                break;
            case 10:
                driver.enter(nikon::MaidDriver::Phase::stopping);
                break;
            default:
                m_module.act();
        }
    }

    // As the acquisition does it.
    void openChild(const MaidObjectPtr& parent)
    {
        const auto id = static_cast<std::int32_t>(m_input.below(4));
        if (parent && !m_tree->FindChild(parent, id)) {
            m_tree->OpenChild(parent, id);
        }
    }

    void checkAgreement() const
    {
        std::set<const MaidObject*> known;
        std::set<std::pair<const nikon::MaidObjectRef*, std::int32_t>> ids;
        bool isSourceKnown = m_tree->source() == nullptr;
        for (const MaidObjectPtr& ref : refs()) {
            known.insert(ref->object.get());
            check(!ref->closed && !ref->opening && !ref->closing, "what is open is at rest");
            check(ids.emplace(ref->parent.lock().get(), ref->id).second, "no child is there twice");
            isSourceKnown = isSourceKnown || ref == m_tree->source();
        }
        check(known == m_module.openObjects(), "tree and module agree on what is open");
        check(isSourceKnown, "the camera in use is in the tree");
        check(nikon::objectHandles().size() == known.size(), "what is open has one handle each");
        check(nikon::receivers().size() == 0, "no acquisition is under way");
    }

    // The way a session ends.
    void finish()
    {
        m_module.calmDown();
        m_tree->driver().enter(nikon::MaidDriver::Phase::closing);
        if (m_tree->root()) {
            m_tree->CloseChild(m_tree->root(), 1);
            m_tree->forgetSource();
            check(m_tree->CloseTree(), "the tree is closed");
        }
        check(m_module.openObjects().empty(), "everything is closed");
        m_acquisition.reset();
        const int calls = m_module.calls();
        m_module.callEverything();
        check(m_module.calls() == calls, "a session that has ended does nothing any more");
        check(nikon::objectHandles().size() == 0, "no handle is left");
    }

    Input& m_input;
    fuzz::StormModule m_module;
    Deaf m_host;
    int m_items = 0;
    const std::shared_ptr<nikon::MaidTree> m_tree;
    nikon::NikonReporting m_reporting;
    std::unique_ptr<nikon::Acquisition> m_acquisition;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::Scratch scratch;
    Input input(data, size);
    const bool hasFolder = input.flag();
    g_szExportFolder.set(hasFolder ? scratch.path().c_str() : "");
    Storm(input).run();
    if (hasFolder) {
        scratch.clear();
    }
    return 0;
}
