// The apartments of COM in which Canon's library is left.
#include "PythonSupport.h"

#include "Lumatie.h"

#include <windows.h>

#include <objbase.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "TestSupport.h"

// The addresses through which this program calls Canon's library.
// NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names
extern "C" {
extern EdsError(EDSAPI* __imp_EdsCloseSession)(EdsCameraRef);
extern EdsError(EDSAPI* __imp_EdsTerminateSDK)();
extern std::uint32_t(EDSAPI* __imp_EdsRelease)(EdsBaseRef);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using Calls = std::vector<std::string>;

constexpr const char* kCamera = "Virtual EOS";

// The apartment that the calling thread has entered. One that it is only taken to be in because
// other threads have one does not count: it lasts as long as theirs does.
std::string apartment()
{
    APTTYPE type = APTTYPE_CURRENT;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    if (FAILED(::CoGetApartmentType(&type, &qualifier)) ||
        qualifier == APTTYPEQUALIFIER_IMPLICIT_MTA) {
        return "none";
    }
    return type == APTTYPE_MTA ? "multithreaded" : "single-threaded";
}

// Notes in which apartments the calls that leave the library come, while one of these lives. There
// is one at a time, and it outlives the sessions.
class Apartments
{
public:
    Apartments()
    {
        s_current = this;
        m_close = redirect(__imp_EdsCloseSession, close);
        m_terminate = redirect(__imp_EdsTerminateSDK, terminate);
        m_release = redirect(__imp_EdsRelease, release);
    }
    Apartments(const Apartments&) = delete;
    Apartments& operator=(const Apartments&) = delete;
    ~Apartments()
    {
        redirect(__imp_EdsCloseSession, m_close);
        redirect(__imp_EdsTerminateSDK, m_terminate);
        redirect(__imp_EdsRelease, m_release);
    }

    // What was called since the last time, e.g. "release: multithreaded".
    Calls take()
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return std::exchange(m_calls, {});
    }

private:
    using OnObject = EdsError(EDSAPI*)(EdsBaseRef);
    using OnLibrary = EdsError(EDSAPI*)();

    static EdsError EDSAPI close(EdsCameraRef camera)
    {
        s_current->note("close");
        return s_current->m_close(camera);
    }

    static EdsError EDSAPI terminate()
    {
        s_current->note("terminate");
        return s_current->m_terminate();
    }

    static EdsError EDSAPI release(EdsBaseRef object)
    {
        s_current->note("release");
        return s_current->m_release(object);
    }

    // Returns what stood in the table of imports, which may be read-only.
    template <typename Function>
    static Function redirect(Function& import, Function to)
    {
        DWORD before = 0;
        ::VirtualProtect(&import, sizeof import, PAGE_READWRITE, &before);
        const Function was = std::exchange(import, to);
        ::VirtualProtect(&import, sizeof import, before, &before);
        return was;
    }

    void note(const char* call)
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_calls.push_back(std::string(call) + ": " + apartment());
    }

    static Apartments* s_current;

    std::mutex m_lock;  // guards `m_calls`
    Calls m_calls;
    OnObject m_close = nullptr;
    OnLibrary m_terminate = nullptr;
    OnObject m_release = nullptr;
};

Apartments* Apartments::s_current = nullptr;

const Calls kLeftInMultithreaded = {"close: multithreaded", "release: multithreaded",
                                    "terminate: multithreaded"};

class ApartmentsTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        const InterpreterLock lock;
        m_tether = std::make_unique<Lumatie>();
    }

    void TearDown() override
    {
        {
            const InterpreterLock lock;
            m_tether.reset();
        }
        VirtualCameraTest::TearDown();
    }

    // Returns when the session is open; what was called until then is not of interest.
    void startSession(PyObject* callable = nullptr)
    {
        ASSERT_EQ(init(kCamera, callable), 1);
        ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
        m_apartments.take();
    }

    BOOL init(const char* szInfo, PyObject* callable = nullptr)
    {
        const InterpreterLock lock;
        return m_tether->Init(szInfo, "folder", callable);
    }

    BOOL uninit()
    {
        const InterpreterLock lock;
        return m_tether->Uninit();
    }

    Apartments m_apartments;
    std::unique_ptr<Lumatie> m_tether;
};

TEST_F(ApartmentsTest, AHostsThreadWithoutOneLeavesTheLibraryInOneAndHasNoneAgain)
{
    startSession();
    std::string after = "not asked";
    std::thread([&] {
        uninit();
        after = apartment();
    }).join();
    EXPECT_EQ(m_apartments.take(), kLeftInMultithreaded);
    EXPECT_EQ(after, "none");
}

TEST_F(ApartmentsTest, AHostsThreadThatHasOneKeepsIt)
{
    startSession();
    std::string after = "not asked";
    std::thread([&] {
        EXPECT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        uninit();
        after = apartment();
        ::CoUninitialize();
    }).join();
    EXPECT_EQ(m_apartments.take(), (Calls{"close: multithreaded", "release: single-threaded",
                                          "terminate: single-threaded"}));
    EXPECT_EQ(after, "single-threaded");
}

TEST_F(ApartmentsTest, TheEndOfAStartThatFoundNoCameraIsInOne)
{
    EXPECT_EQ(init("no camera's name"), 0);
    m_apartments.take();
    std::thread([&] { uninit(); }).join();
    EXPECT_EQ(m_apartments.take(), Calls{"terminate: multithreaded"});
}

TEST_F(ApartmentsTest, AWorkerWhoseSessionWasEndedInTheCallableLeavesTheLibraryInIts)
{
    PyObject* callable = nullptr;
    std::atomic<bool> isToEnd{false};
    {
        const InterpreterLock lock;
        callable = makeCallable([&](PyObject*) {
            if (isToEnd) {
                m_tether->Uninit();
            }
        });
    }
    startSession(callable);
    isToEnd = true;
    VirtualCanonSetProperty(0, 0x406, 0x0C);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 10'000), 1);
    EXPECT_EQ(m_apartments.take(), kLeftInMultithreaded);
    const InterpreterLock lock;
    m_tether.reset();
    Py_DECREF(callable);
}

// The interpreter's end, in a process of its own, as nothing can be started after it. It prints
// what was called.
class ApartmentsAtTheExit : public ApartmentsTest
{
protected:
    [[noreturn]] void endAllSessions()
    {
        {
            const InterpreterLock lock;
            Lumatie::endAllSessions();
        }
        for (const std::string& call : m_apartments.take()) {
            std::fprintf(stderr, "%s\n", call.c_str());
        }
        std::fflush(stderr);
        std::_Exit(0);
    }
};

TEST_F(ApartmentsAtTheExit, ASessionIsEndedInOne)
{
    const auto act = [this] {
        startSession();
        endAllSessions();
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0),
                "close: multithreaded\\s+release: multithreaded\\s+terminate: multithreaded\\s+$");
}

TEST_F(ApartmentsAtTheExit, AStartThatFoundNoCameraIsEndedInOne)
{
    const auto act = [this] {
        init("no camera's name");
        m_apartments.take();
        endAllSessions();
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "terminate: multithreaded\\s+$");
}

}  // namespace
