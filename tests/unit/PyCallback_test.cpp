// The road into Python: what reaches the callable, what happens to errors, references and locks.
#include "PythonSupport.h"

#include "PyCallback.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

#include "TestSupport.h"

namespace {

using Calls = std::vector<std::string>;

class PyCallbackTest : public testing::Test
{
protected:
    void set(PyCallback& channel, PyObject* callable)
    {
        const InterpreterLock lock;
        channel.SetCallback(callable);
    }

    // Lets Python's error stream go into a text while `action` runs and returns that text.
    template <typename Action>
    std::string errorsOf(Action action)
    {
        {
            const InterpreterLock lock;
            runPython("import io, sys\nsys.stderr = io.StringIO()\n");
        }
        action();
        const InterpreterLock lock;
        std::string text = evaluate("sys.stderr.getvalue()");
        runPython("sys.stderr = sys.__stderr__\n");
        return text;
    }

    // Declared first: a channel drops its callable with the lock held.
    RecordingCallable m_recorder;
};

// A channel whose end takes the interpreter lock, as the generated wrapper does.
class Channel : public PyCallback
{
public:
    ~Channel() override
    {
        const InterpreterLock lock;
        SetCallback(nullptr);
    }
};

TEST_F(PyCallbackTest, EventsWithoutACallableAreDropped)
{
    Channel channel;
    channel.Call("is", 0, "text");
    EXPECT_EQ(m_recorder.calls(), Calls{});
}

TEST_F(PyCallbackTest, NoneIsNoCallable)
{
    Channel channel;
    set(channel, m_recorder.object());
    set(channel, Py_None);
    EXPECT_EQ(errorsOf([&] { channel.Call("is", 0, "text"); }), "");
    EXPECT_EQ(m_recorder.calls(), Calls{});
}

TEST_F(PyCallbackTest, ADroppedEventDoesNotTouchTheInterpreterLock)
{
    Channel channel;
    std::future<void> dropped;
    {
        const InterpreterLock lock;
        dropped = std::async(std::launch::async, [&] { channel.Call("is", 0, "text"); });
        EXPECT_EQ(dropped.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    dropped.get();
}

TEST_F(PyCallbackTest, AFormatOfOneCharacterGivesOneArgument)
{
    Channel channel;
    set(channel, m_recorder.object());
    channel.Call("s", "text");
    channel.Call("i", -7);
    EXPECT_EQ(m_recorder.calls(), (Calls{"('text',)", "(-7,)"}));
}

TEST_F(PyCallbackTest, AnEmptyOrMissingFormatGivesNoArguments)
{
    Channel channel;
    set(channel, m_recorder.object());
    channel.Call("");
    channel.Call(nullptr);
    EXPECT_EQ(m_recorder.calls(), (Calls{"()", "()"}));
}

TEST_F(PyCallbackTest, EveryFormOfTheProtocolArrivesAsItIs)
{
    Channel channel;
    set(channel, m_recorder.object());
    channel.Call("is", 0, "{'GENERAL_DEVICEBUSY':1}");
    channel.Call("ii", 11, 5200);
    channel.Call("iis", 3, -1, "unknown");
    EXPECT_EQ(m_recorder.calls(),
              (Calls{"(0, \"{'GENERAL_DEVICEBUSY':1}\")", "(11, 5200)", "(3, -1, 'unknown')"}));
}

TEST_F(PyCallbackTest, TextsAreReadAsUtf8)
{
    Channel channel;
    set(channel, m_recorder.object());
    channel.Call("s", "\xC3\xBC");
    EXPECT_EQ(m_recorder.calls(), (Calls{"('\xC3\xBC',)"}));
}

TEST_F(PyCallbackTest, ATextThatIsNoUtf8CallsWithoutArgumentsAndPrintsTheError)
{
    Channel channel;
    set(channel, m_recorder.object());
    const std::string errors = errorsOf([&] { channel.Call("is", 0, "\xFF"); });
    EXPECT_NE(errors.find("UnicodeDecodeError"), std::string::npos) << errors;
    // Nothing was pending any more when the callable was called.
    EXPECT_EQ(errors.find("SystemError"), std::string::npos) << errors;
    EXPECT_EQ(m_recorder.calls(), (Calls{"()"}));
}

TEST_F(PyCallbackTest, AnErrorOfTheValuesIsPrintedAfterTheCall)
{
    Channel channel;
    {
        const InterpreterLock lock;
        runPython(
            "import sys\n"
            "def noting(*values):\n"
            "    sys.stderr.write('called with %d\\n' % len(values))\n");
        channel.SetCallback(mainObject("noting"));
    }
    const std::string errors = errorsOf([&] { channel.Call("is", 0, "\xFF"); });
    EXPECT_EQ(errors.find("called with 0\n"), 0U) << errors;
    EXPECT_NE(errors.find("UnicodeDecodeError"), std::string::npos) << errors;
    EXPECT_EQ(errors.find("SystemError"), std::string::npos) << errors;
}

TEST_F(PyCallbackTest, AnErrorOfTheValuesIsPrintedBeforeTheOneThatTheCallableRaises)
{
    Channel channel;
    {
        const InterpreterLock lock;
        runPython(
            "def raising(*values):\n"
            "    raise ValueError('on purpose')\n");
        channel.SetCallback(mainObject("raising"));
    }
    const std::string errors = errorsOf([&] { channel.Call("is", 0, "\xFF"); });
    EXPECT_LT(errors.find("UnicodeDecodeError"), errors.find("ValueError: on purpose")) << errors;
    EXPECT_NE(errors.find("ValueError: on purpose"), std::string::npos) << errors;
}

TEST_F(PyCallbackTest, ACallableThatRaisesPrintsTheTracebackAndTheNextEventIsDelivered)
{
    Channel channel;
    {
        const InterpreterLock lock;
        runPython(
            "seen = []\n"
            "def raising(*values):\n"
            "    seen.append(values)\n"
            "    raise ValueError('on purpose')\n");
        channel.SetCallback(mainObject("raising"));
    }
    const std::string errors = errorsOf([&] {
        channel.Call("i", 1);
        channel.Call("i", 2);
    });
    EXPECT_NE(errors.find("Traceback"), std::string::npos) << errors;
    EXPECT_NE(errors.find("ValueError: on purpose"), std::string::npos) << errors;
    const InterpreterLock lock;
    EXPECT_EQ(evaluate("seen"), "[(1,), (2,)]");
}

TEST_F(PyCallbackTest, AnErrorLeavesNothingPending)
{
    Channel channel;
    set(channel, m_recorder.object());
    const InterpreterLock lock;
    errorsOf([&] { channel.Call("s", "\xFF"); });
    EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_F(PyCallbackTest, AnObjectThatCannotBeCalledIsAcceptedAndPrintsAnErrorForEachEvent)
{
    Channel channel;
    {
        const InterpreterLock lock;
        PyObject* number = PyLong_FromLong(123456);
        channel.SetCallback(number);
        Py_DECREF(number);
    }
    const std::string errors = errorsOf([&] { channel.Call("i", 1); });
    EXPECT_NE(errors.find("'int' object is not callable"), std::string::npos) << errors;
}

TEST_F(PyCallbackTest, ReplacingTheCallableReleasesTheOldOne)
{
    Channel channel;
    const InterpreterLock lock;
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    channel.SetCallback(m_recorder.object());
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before + 1);
    const RecordingCallable other;
    channel.SetCallback(other.object());
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before);
    channel.SetCallback(nullptr);
}

TEST_F(PyCallbackTest, StoringTheSameCallableAgainKeepsOneReference)
{
    Channel channel;
    const InterpreterLock lock;
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    channel.SetCallback(m_recorder.object());
    channel.SetCallback(m_recorder.object());
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before + 1);
}

TEST_F(PyCallbackTest, TheDestructorReleasesTheCallable)
{
    const InterpreterLock lock;
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    {
        PyCallback channel;
        channel.SetCallback(m_recorder.object());
    }
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before);
}

TEST_F(PyCallbackTest, AnEventLeavesNoReferenceBehind)
{
    Channel channel;
    const InterpreterLock lock;
    runPython(
        "import sys\n"
        "class Result: pass\n"
        "result = Result()\n"
        "def returning(*values): return result\n");
    channel.SetCallback(mainObject("returning"));

    const std::string before = evaluate("(sys.getrefcount(result), sys.getrefcount(returning))");
    for (int i = 0; i < 1000; ++i) {
        channel.Call("is", 0, "a text that is not interned");
    }
    EXPECT_EQ(evaluate("(sys.getrefcount(result), sys.getrefcount(returning))"), before);
}

TEST_F(PyCallbackTest, AThousandEventsLeaveNoMemoryBehind)
{
    Channel channel;
    const InterpreterLock lock;
    runPython(
        "import sys\n"
        "def ignoring(*values): pass\n");
    channel.SetCallback(mainObject("ignoring"));

    const long before = std::stol(evaluate("sys.getallocatedblocks()"));
    for (int i = 0; i < 1000; ++i) {
        channel.Call("iis", 3, 1'000'000 + i, "a text of its own");
    }
    EXPECT_LT(std::stol(evaluate("sys.getallocatedblocks()")) - before, 100);
}

TEST_F(PyCallbackTest, AnyThreadMayCallAndTheCallableHoldsTheLock)
{
    Channel channel;
    std::thread::id thread;
    int holdsLock = 0;
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject*) {
            thread = std::this_thread::get_id();
            holdsLock = PyGILState_Check();
        });
        channel.SetCallback(callable);
        Py_DECREF(callable);
    }
    std::thread caller([&] { channel.Call("i", 1); });
    const std::thread::id expected = caller.get_id();
    caller.join();
    EXPECT_EQ(thread, expected);
    EXPECT_EQ(holdsLock, 1);
}

TEST_F(PyCallbackTest, AThreadThatHoldsTheLockMayCall)
{
    Channel channel;
    const InterpreterLock lock;
    channel.SetCallback(m_recorder.object());
    channel.Call("i", 1);
    EXPECT_EQ(PyGILState_Check(), 1);
    EXPECT_EQ(m_recorder.calls(), (Calls{"(1,)"}));
}

TEST_F(PyCallbackTest, TheCallableMayClearItself)
{
    Channel channel;
    int calls = 0;
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject*) {
            channel.SetCallback(nullptr);
            ++calls;
        });
        channel.SetCallback(callable);
        Py_DECREF(callable);
    }
    channel.Call("i", 1);
    channel.Call("i", 2);
    EXPECT_EQ(calls, 1);
}

TEST_F(PyCallbackTest, TheCallableMayReplaceItself)
{
    Channel channel;
    {
        const InterpreterLock lock;
        PyObject* callable =
            makeCallable([&](PyObject*) { channel.SetCallback(m_recorder.object()); });
        channel.SetCallback(callable);
        Py_DECREF(callable);
    }
    channel.Call("i", 1);
    channel.Call("i", 2);
    EXPECT_EQ(m_recorder.calls(), (Calls{"(2,)"}));
}

TEST_F(PyCallbackTest, TheCallableMayLetGoOfTheChannelWhoseCallerKeepsIt)
{
    auto channel = std::make_shared<PyCallback>();
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject*) { channel.reset(); });
        channel->SetCallback(callable);
        Py_DECREF(callable);
    }
    const std::shared_ptr<PyCallback> kept = channel;
    kept->Call("i", 1);
    EXPECT_EQ(channel, nullptr);
    EXPECT_FALSE(kept->isCalling());
    const InterpreterLock lock;
    kept->SetCallback(nullptr);
}

TEST_F(PyCallbackTest, TellsWhetherTheCallableIsRunningAndWhetherAThreadIsInsideOne)
{
    Channel channel;
    bool calling = false;
    bool inside = false;
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject*) {
            calling = channel.isCalling();
            inside = PyCallback::isInsideCall();
        });
        channel.SetCallback(callable);
        Py_DECREF(callable);
    }
    EXPECT_FALSE(channel.isCalling());
    channel.Call("i", 1);
    EXPECT_TRUE(calling);
    EXPECT_TRUE(inside);
    EXPECT_FALSE(channel.isCalling());
    EXPECT_FALSE(PyCallback::isInsideCall());
}

TEST_F(PyCallbackTest, ACallableThatGoesWhenItReturnsGoesInsideItsCall)
{
    Channel channel;
    bool inside = false;
    {
        const InterpreterLock lock;
        const std::shared_ptr<void> end(
            nullptr, [&](void*) { inside = PyCallback::isInsideCall() && channel.isCalling(); });
        PyObject* callable = makeCallable([&, end](PyObject*) { channel.SetCallback(nullptr); });
        channel.SetCallback(callable);
        Py_DECREF(callable);
    }
    channel.Call("i", 1);
    EXPECT_TRUE(inside);
    EXPECT_FALSE(channel.isCalling());
    EXPECT_FALSE(PyCallback::isInsideCall());
}

TEST_F(PyCallbackTest, WhatTheThreadKeepsForTheCallableGoesInsideItsCall)
{
    Channel channel;
    bool inside = false;
    PyObject* note = nullptr;
    {
        const InterpreterLock lock;
        note = makeCallable(
            [&](PyObject*) { inside = PyCallback::isInsideCall() && channel.isCalling(); });
        PyObject_SetAttrString(PyImport_AddModule("__main__"), "note", note);
        ASSERT_TRUE(
            runPython("import threading\n"
                      "kept = threading.local()\n"
                      "class Noting:\n"
                      "    def __del__(self):\n"
                      "        note()\n"
                      "def keep(*event):\n"
                      "    kept.noting = Noting()\n"));
        channel.SetCallback(mainObject("keep"));
    }
    std::thread([&] { channel.Call("i", 1); }).join();
    EXPECT_TRUE(inside);
    const InterpreterLock lock;
    runPython("del kept, Noting, keep, note");
    Py_DECREF(note);
}

TEST_F(PyCallbackTest, TheEndOfTheOldCallableMayStoreAnotherOne)
{
    Channel channel;
    const InterpreterLock lock;
    // Its captured guard runs when the callable is destroyed.
    std::shared_ptr<void> atItsEnd(nullptr,
                                   [&](void*) { channel.SetCallback(m_recorder.object()); });
    PyObject* callable = makeCallable([guard = std::move(atItsEnd)](PyObject*) {});
    channel.SetCallback(callable);
    Py_DECREF(callable);

    channel.SetCallback(nullptr);
    channel.Call("i", 1);
    EXPECT_EQ(m_recorder.calls(), (Calls{"(1,)"}));
}

TEST_F(PyCallbackTest, WhatTheEndOfTheOldCallableHasStoredGivesWayToTheNewOne)
{
    Channel channel;
    const InterpreterLock lock;
    PyObject* meanwhile = makeCallable([](PyObject*) {});
    std::shared_ptr<void> atItsEnd(nullptr, [&](void*) { channel.SetCallback(meanwhile); });
    PyObject* callable = makeCallable([guard = std::move(atItsEnd)](PyObject*) {});
    channel.SetCallback(callable);
    Py_DECREF(callable);

    channel.SetCallback(m_recorder.object());
    EXPECT_EQ(Py_REFCNT(meanwhile), 1);
    Py_DECREF(meanwhile);
    channel.Call("i", 1);
    EXPECT_EQ(m_recorder.calls(), (Calls{"(1,)"}));
}

TEST_F(PyCallbackTest, ThreadsThatCallAtOnceAreAllHeard)
{
    Channel channel;
    set(channel, m_recorder.object());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&channel] {
            for (int event = 0; event < 50; ++event) {
                channel.Call("i", event);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_recorder.calls().size(), 200U);
}

TEST_F(PyCallbackTest, TheCallableMayBeReplacedWhileAnotherThreadSends)
{
    Channel channel;
    const RecordingCallable other;
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done) {
            channel.Call("i", 1);
        }
    });
    for (int round = 0; round < 200; ++round) {
        set(channel, round % 2 == 0 ? m_recorder.object() : other.object());
    }
    EXPECT_TRUE(waitFor([&] { return !other.calls().empty(); }));
    done = true;
    sender.join();
}

// The host's window number.

std::int64_t mainWindowOf(const std::string& value)
{
    const InterpreterLock lock;
    runPython("import os\nos.environ['quil main window'] = '" + value + "'\n");
    const std::int64_t number = PyCallback().mainWindow();
    runPython("del os.environ['quil main window']\n");
    return number;
}

TEST(MainWindow, IsZeroWithoutTheVariable)
{
    const InterpreterLock lock;
    EXPECT_EQ(PyCallback().mainWindow(), 0);
}

TEST(MainWindow, IsReadAsADecimalNumber)
{
    EXPECT_EQ(mainWindowOf("123456"), 123456);
    EXPECT_EQ(mainWindowOf("+7"), 7);
    EXPECT_EQ(mainWindowOf("  -5"), -5);
}

TEST(MainWindow, EndsAtTheFirstCharacterThatIsNoDigit)
{
    EXPECT_EQ(mainWindowOf("12px"), 12);
    EXPECT_EQ(mainWindowOf("0x10"), 0);
    EXPECT_EQ(mainWindowOf("window"), 0);
    EXPECT_EQ(mainWindowOf(""), 0);
}

TEST(MainWindow, StaysWithin32Bits)
{
    EXPECT_EQ(mainWindowOf("2147483647"), 2147483647);
    EXPECT_EQ(mainWindowOf("99999999999999999999"), 2147483647);
    EXPECT_EQ(mainWindowOf("-99999999999999999999"), -2147483647 - 1);
}

TEST(MainWindow, MayFillItsBufferButNoMore)
{
    EXPECT_EQ(mainWindowOf(std::string(62, '0') + "7"), 7);
    EXPECT_EQ(mainWindowOf(std::string(63, '0') + "7"), 0);
}

// Giving up the interpreter lock.

TEST(PyThreadAllowTest, GivesUpTheLockOfAThreadThatHoldsIt)
{
    const InterpreterLock lock;
    {
        const PyThreadAllow allow;
        EXPECT_EQ(PyGILState_Check(), 0);
        std::thread([] { const InterpreterLock other; }).join();
    }
    EXPECT_EQ(PyGILState_Check(), 1);
}

TEST(PyThreadAllowTest, DoesNothingOnAThreadThatPythonDoesNotKnow)
{
    std::thread([] {
        {
            const PyThreadAllow allow;
            EXPECT_EQ(PyGILState_GetThisThreadState(), nullptr);
        }
        EXPECT_EQ(PyGILState_GetThisThreadState(), nullptr);
    }).join();
}

TEST(PyThreadAllowTest, DoesNothingWhereTheLockIsGivenUpAlready)
{
    const InterpreterLock lock;
    {
        const PyThreadAllow outer;
        {
            const PyThreadAllow inner;
        }
        EXPECT_EQ(PyGILState_Check(), 0);
    }
    EXPECT_EQ(PyGILState_Check(), 1);
}

// The interpreter's end. Each of these ends its process.

void sendTo(PyObject* callable)
{
    static PyCallback channel;
    channel.SetCallback(callable);
    channel.Call("i", 1);
}

PyObject* exitingCallable()
{
    return makeCallable([](PyObject*) { std::_Exit(9); });
}

TEST(InterpreterEndTest, EventsReachTheCallableBefore)
{
    const auto act = [] {
        const InterpreterLock lock;
        sendTo(exitingCallable());
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(9), "");
}

TEST(InterpreterEndTest, EventsAreDroppedOnceItIsAnnounced)
{
    const auto act = [] {
        const InterpreterLock lock;
        PyCallback::dropAllEvents();
        sendTo(exitingCallable());
        std::_Exit(PyCallback::interpreterIsEnding() ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

TEST(InterpreterEndTest, AFurtherRegistrationLetsEventsThroughAgain)
{
    const auto act = [] {
        const InterpreterLock lock;
        PyCallback::dropAllEvents();
        registerAtInterpreterExit([] {});
        sendTo(exitingCallable());
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(9), "");
}

TEST(InterpreterEndTest, TheRegisteredFunctionRunsWithTheLockHeld)
{
    const auto act = [] {
        PyGILState_Ensure();
        const bool registered = registerAtInterpreterExit(
            [] { std::fprintf(stderr, "ending, lock %d\n", PyGILState_Check()); });
        const int result = Py_FinalizeEx();
        std::_Exit(registered && result == 0 ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), testing::Eq("ending, lock 1\n"));
}

TEST(InterpreterEndTest, EventsAreDroppedAfterwards)
{
    const auto act = [] {
        PyGILState_Ensure();
        static PyCallback channel;
        channel.SetCallback(exitingCallable());
        Py_FinalizeEx();
        channel.Call("i", 1);
        std::_Exit(PyCallback::interpreterIsEnding() ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

TEST(InterpreterEndTest, GivingUpTheLockAfterwardsDoesNothing)
{
    const auto act = [] {
        PyGILState_Ensure();
        Py_FinalizeEx();
        {
            const PyThreadAllow allow;
        }
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

TEST(InterpreterEndTest, ACallableThatRaisesSystemExitEndsTheProcessWithItsStatus)
{
    const auto act = [] {
        const InterpreterLock lock;
        runPython(
            "import os, sys\n"
            "def leaving(*values): sys.exit(7)\n");
        sendTo(mainObject("leaving"));
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(7), "");
}

TEST(InterpreterEndTest, ACallableThatRaisesSystemExitHasTheExitFunctionsRun)
{
    const auto act = [] {
        const InterpreterLock lock;
        runPython(
            "import atexit, os, sys\n"
            "atexit.register(lambda: os.write(2, b'left'))\n"
            "def leaving(*values): sys.exit(7)\n");
        sendTo(mainObject("leaving"));
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(7), "left");
}

}  // namespace
