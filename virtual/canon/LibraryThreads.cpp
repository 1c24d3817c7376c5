#include "canon/LibraryThreads.h"

#include <algorithm>

#include "canon/World.h"

namespace virtualcanon {

namespace {

// Until something is due, or there is something new to look at.
void waitForWork(std::condition_variable& work, Lock& lock, const LibraryThreads& libraryThreads)
{
    Clock::time_point due = Clock::time_point::max();
    for (const Event& event : libraryThreads.events) {
        if (!event.isInside) {
            due = std::min(due, event.due);
        }
    }
    for (const Exposure& exposure : libraryThreads.exposures) {
        due = std::min(due, exposure.due);
    }
    if (due == Clock::time_point::max()) {
        work.wait(lock);
    } else {
        work.wait_until(lock, due);
    }
}

void deliverEvents(World& world, Lock& lock, LibraryThreads& libraryThreads)
{
    while (!libraryThreads.isStopping) {
        const auto next = nextEvent(libraryThreads, false);
        if (next == libraryThreads.events.end()) {
            waitForWork(world.work, lock, libraryThreads);
            continue;
        }
        const Event event = *next;
        libraryThreads.events.erase(next);
        deliver(world, lock, libraryThreads, event);
    }
}

void endExposures(World& world, Lock& lock, LibraryThreads& libraryThreads)
{
    while (!libraryThreads.isStopping) {
        const auto next =
            std::find_if(libraryThreads.exposures.begin(), libraryThreads.exposures.end(),
                         [](const Exposure& exposure) { return exposure.due <= Clock::now(); });
        if (next == libraryThreads.exposures.end()) {
            waitForWork(world.work, lock, libraryThreads);
            continue;
        }
        const Exposure exposure = *next;
        libraryThreads.exposures.erase(next);
        exposure.body->exposures = std::max(0, exposure.body->exposures - 1);
        ++libraryThreads.developing;
        developPicture(world, lock, exposure, &libraryThreads);
        --libraryThreads.developing;
        world.changed.notify_all();
    }
}

using Duty = void (*)(World& world, Lock& lock, LibraryThreads& libraryThreads);

void serve(World& world, const std::shared_ptr<LibraryThreads>& libraryThreads, Duty duty)
{
    Lock lock(world.mutex);
    const std::thread::id self = std::this_thread::get_id();
    world.log.markOwn(self);
    libraryThreads->ids.push_back(self);
    duty(world, lock, *libraryThreads);
    world.log.forget(self);
    --libraryThreads->running;
    world.changed.notify_all();
}

void join(World& world, Lock& lock, const std::shared_ptr<LibraryThreads>& libraryThreads)
{
    std::vector<std::thread> threads;
    threads.swap(libraryThreads->all);
    lock.unlock();
    for (std::thread& thread : threads) {
        thread.join();
    }
    lock.lock();
    world.changed.notify_all();
}

// Threads that ended after their terminate had returned.
void joinRetired(World& world, Lock& lock)
{
    std::vector<std::shared_ptr<LibraryThreads>> still;
    std::vector<std::shared_ptr<LibraryThreads>> ended;
    for (const auto& libraryThreads : world.retired) {
        (libraryThreads->running == 0 ? ended : still).push_back(libraryThreads);
    }
    world.retired.swap(still);
    for (const auto& libraryThreads : ended) {
        join(world, lock, libraryThreads);
    }
}

bool isHandledElsewhere(const LibraryThreads& libraryThreads)
{
    return std::any_of(libraryThreads.handling.begin(), libraryThreads.handling.end(),
                       [](std::thread::id thread) { return thread != std::this_thread::get_id(); });
}

// Gives up on a handler that does not return; a call that it is in ends.
void awaitHandlers(World& world, Lock& lock, const std::shared_ptr<LibraryThreads>& libraryThreads)
{
    const auto awaited = world.stopping.insert(world.stopping.end(), libraryThreads);
    const auto patience = Clock::now() + std::chrono::milliseconds(world.options.patienceMs);
    if (!world.changed.wait_until(lock, patience,
                                  [&] { return !isHandledElsewhere(*libraryThreads); })) {
        world.log.misuse("EdsTerminateSDK: an event handler does not return");
    }
    world.stopping.erase(awaited);
    ++world.generation;
    world.changed.notify_all();
}

// Events that nobody will get: references that a test put into them go with them.
void dropEvents(ObjectTable& objects, LibraryThreads& libraryThreads)
{
    for (const Event& event : libraryThreads.events) {
        if (event.reference != nullptr) {
            objects.release(event.reference);
        }
    }
    libraryThreads.events.clear();
    libraryThreads.exposures.clear();
}

void deliverTheRest(World& world, Lock& lock, LibraryThreads& libraryThreads)
{
    while (!libraryThreads.events.empty()) {
        const Event event = libraryThreads.events.front();
        libraryThreads.events.pop_front();
        deliver(world, lock, libraryThreads, event);
    }
}

}  // namespace

void startThreads(World& world, Lock& lock)
{
    joinRetired(world, lock);
    if (world.libraryThreads != nullptr) {
        return;
    }
    ++world.generation;
    const auto libraryThreads = std::make_shared<LibraryThreads>();
    world.libraryThreads = libraryThreads;
    for (std::int64_t i = 0; i < world.options.eventThreads; ++i) {
        ++libraryThreads->running;
        libraryThreads->all.emplace_back(
            [&world, libraryThreads] { serve(world, libraryThreads, deliverEvents); });
    }
    ++libraryThreads->running;
    libraryThreads->all.emplace_back(
        [&world, libraryThreads] { serve(world, libraryThreads, endExposures); });
}

void stopThreads(World& world, Lock& lock)
{
    const std::shared_ptr<LibraryThreads> libraryThreads = world.libraryThreads;
    if (world.options.eventsAtEnd != 0) {
        deliverTheRest(world, lock, *libraryThreads);
    }
    ++world.generation;
    world.libraryThreads = nullptr;
    libraryThreads->isStopping = true;
    dropEvents(world.objects, *libraryThreads);
    world.work.notify_all();
    world.changed.notify_all();

    awaitHandlers(world, lock, libraryThreads);

    // A thread that is busy with a picture, or that terminates from its own handler, is left to
    // end by itself. All others end at once, as soon as the machine lets them.
    const std::thread::id self = std::this_thread::get_id();
    const bool isOwn = std::find(libraryThreads->ids.begin(), libraryThreads->ids.end(), self) !=
                       libraryThreads->ids.end();
    const auto soon =
        Clock::now() + std::chrono::milliseconds(libraryThreads->developing != 0 ? 3 : 1000);
    const bool ended = !isOwn && world.changed.wait_until(
                                     lock, soon, [&] { return libraryThreads->running == 0; });
    if (ended) {
        join(world, lock, libraryThreads);
    } else {
        world.retired.push_back(libraryThreads);
    }
}

}  // namespace virtualcanon
