#include "nikon/Pending.h"

#include <algorithm>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/World.h"

namespace virtualnikon {

namespace {

std::string describe(const Pending& pending, MaidResult result)
{
    return std::string("completion ") + commandName(pending.command) + "(" +
           pending.object->name() + ", " + virtualcamera::hexadecimal(pending.parameter) +
           ") = " + std::to_string(result);
}

bool isWaiting(const std::list<PendingRef>& all, const PendingRef& pending)
{
    return std::find(all.begin(), all.end(), pending) != all.end();
}

void callCompletion(World& world, Lock& lock, const Pending& pending, MaidResult result)
{
    const Clock::time_point start = Clock::now();
    ++world.delivering;
    lock.unlock();
    pending.procedure(pending.record, pending.command, pending.parameter, pending.dataType,
                      pending.data, pending.reference, result);
    lock.lock();
    --world.delivering;
    if (pending.wasLeft) {
        world.log.write(describe(pending, result), start);
    }
    world.changed.notify_all();
}

PendingRef dueOnThread(const std::list<PendingRef>& all)
{
    for (const PendingRef& pending : all) {
        const Completion& how = pending->how;
        if (pending->isReady && how.isOnThread && !how.isNever && pending->due <= Clock::now()) {
            return pending;
        }
    }
    return nullptr;
}

void serve(World& world)
{
    Lock lock(world.mutex);
    world.log.markOwn(std::this_thread::get_id());
    while (!world.isThreadStopping) {
        if (const PendingRef pending = dueOnThread(world.pending)) {
            world.pending.remove(pending);
            world.threadInside = pending->object.get();
            complete(world, lock, pending);
            world.threadInside = nullptr;
            world.changed.notify_all();
            continue;
        }
        Clock::time_point due = Clock::time_point::max();
        for (const PendingRef& pending : world.pending) {
            if (pending->isReady && pending->how.isOnThread && !pending->how.isNever) {
                due = std::min(due, pending->due);
            }
        }
        if (due == Clock::time_point::max()) {
            world.changed.wait(lock);
        } else {
            world.changed.wait_until(lock, due);
        }
    }
    world.log.forget(std::this_thread::get_id());
}

}  // namespace

void addPending(World& world, const PendingRef& pending)
{
    pending->wasLeft = true;
    world.pending.push_back(pending);
    if (pending->isReady) {
        finishPending(world, pending, pending->result);
    }
}

void finishPending(World& world, const PendingRef& pending, MaidResult result)
{
    pending->result = result;
    pending->isReady = true;
    pending->exposure = nullptr;
    pending->transfer = nullptr;
    pending->due = Clock::now() + std::chrono::milliseconds(pending->how.ms);
    if (pending->how.isOnThread && !world.thread.joinable()) {
        world.isThreadStopping = false;
        world.loaded = std::make_unique<virtualcamera::LoadedWhile>();
        world.thread = std::thread([&world] { serve(world); });
    }
    world.changed.notify_all();
}

void runPending(World& world, Lock& lock)
{
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        if (!isWaiting(world.pending, pending)) {
            continue;
        }
        if (pending->transfer != nullptr) {
            runTransfer(world, lock, pending, false);
        } else if (pending->exposure != nullptr && world.options.progress == 2) {
            showProgress(world, lock, *pending->object, pending->command, pending->parameter, 1, 0);
        }
        if (!pending->isReady || pending->how.isNever || pending->how.isOnThread) {
            continue;
        }
        pending->how.calls = std::max(0, pending->how.calls - 1);
        const bool isDue = pending->how.calls == 0 && pending->due <= Clock::now();
        if (isDue && isWaiting(world.pending, pending)) {
            world.pending.remove(pending);
            complete(world, lock, pending);
        }
    }
}

void complete(World& world, Lock& lock, const PendingRef& pending)
{
    if (pending->lateWork != nullptr && pending->object->isOpen && !pending->isLast) {
        pending->result = pending->lateWork();
    }
    pending->lateWork = nullptr;
    const MaidResult result = pending->how.result.value_or(pending->result);
    callCompletion(world, lock, *pending, result);
    if (pending->how.isTwice) {
        callCompletion(world, lock, *pending, result);
    }
}

void abortPending(World& world, Lock& lock, const ObjectRef& object)
{
    if (std::this_thread::get_id() != world.thread.get_id()) {
        world.changed.wait(lock, [&] { return world.threadInside != object.get(); });
    }
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        if (pending->object != object || !isWaiting(world.pending, pending)) {
            continue;
        }
        world.pending.remove(pending);
        if (pending->how.isNever || world.options.closeAborts == 0) {
            continue;
        }
        pending->isLast = true;
        pending->result = result::kAborted;
        complete(world, lock, pending);
    }
}

void stopThread(World& world, Lock& lock)
{
    if (!world.thread.joinable() || world.thread.get_id() == std::this_thread::get_id()) {
        return;
    }
    world.isThreadStopping = true;
    world.changed.notify_all();
    std::thread ended;
    ended.swap(world.thread);
    lock.unlock();
    ended.join();
    lock.lock();
    world.loaded = nullptr;
    world.isThreadStopping = false;
}

}  // namespace virtualnikon
