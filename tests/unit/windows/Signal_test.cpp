// Waiting for a signal on threads that COM knows: what others call on them comes through.
#include "platform/Platform.h"

#include <windows.h>

#include <objbase.h>
#include <objidl.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

using platform::Signal;

constexpr unsigned kDeadlineMs = 20000;

// An object that notes on which thread it is called. It lives on the stack.
class Counted : public IPersist
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) override
    {
        const bool isKnown = IsEqualIID(id, IID_IUnknown) || IsEqualIID(id, IID_IPersist);
        *object = isKnown ? this : nullptr;
        return isKnown ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetClassID(CLSID* id) override
    {
        *id = IID_IPersist;
        caller = ::GetCurrentThreadId();
        return S_OK;
    }

    std::atomic<DWORD> caller{0};
};

// Calls the object, which is another apartment's, from the multithreaded one.
HRESULT callAcross(IStream* stream)
{
    const platform::ComApartment apartment;
    IPersist* object = nullptr;
    HRESULT result =
        ::CoGetInterfaceAndReleaseStream(stream, IID_IPersist, reinterpret_cast<void**>(&object));
    if (FAILED(result)) {
        return result;
    }
    CLSID id{};
    result = object->GetClassID(&id);
    object->Release();
    return result;
}

// What a wait does that failed its test, so that the test ends all the same.
void letCallsThroughUntil(Signal& signal)
{
    while (!signal.waitFor(1)) {
        MSG message{};
        while (::PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE) != FALSE) {
            ::DispatchMessageA(&message);
        }
    }
}

class SignalInApartment : public testing::Test
{
protected:
    // Waits on this thread, a single-threaded apartment, for another one that first calls an
    // object of this one.
    void waitForACaller()
    {
        ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        Counted object;
        IStream* stream = nullptr;
        ASSERT_EQ(::CoMarshalInterThreadInterfaceInStream(IID_IPersist, &object, &stream), S_OK);
        Signal ended;
        HRESULT called = E_FAIL;
        std::thread other([&] {
            called = callAcross(stream);
            ended.set();
        });
        EXPECT_TRUE(ended.waitFor(kDeadlineMs));
        letCallsThroughUntil(ended);
        other.join();
        ::CoUninitialize();
        EXPECT_EQ(called, S_OK);
        EXPECT_EQ(object.caller, ::GetCurrentThreadId());
    }
};

TEST_F(SignalInApartment, LetsCallsOfOtherApartmentsThroughWhereThereIsOneThread)
{
    std::thread([&] { waitForACaller(); }).join();
}

TEST_F(SignalInApartment, ThatIsNotSetIsWaitedForInVain)
{
    std::thread([&] {
        ASSERT_EQ(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        Signal signal;
        EXPECT_FALSE(signal.waitFor(20));
        signal.set();
        EXPECT_TRUE(signal.waitFor(0));
        signal.wait();
        ::CoUninitialize();
    }).join();
}

TEST_F(SignalInApartment, IsWaitedForInTheMultithreadedOneToo)
{
    std::thread([&] {
        const platform::ComApartment apartment;
        Signal signal;
        EXPECT_FALSE(signal.waitFor(20));
        std::thread setter([&] { signal.set(); });
        signal.wait();
        setter.join();
    }).join();
}

}  // namespace
