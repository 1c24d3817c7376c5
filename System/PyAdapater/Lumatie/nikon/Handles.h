// References for a driver module that cannot dangle.
//
// A module keeps what it is given and may come back with it at any time, also much too late. So it
// is never given the address of an object of ours, but a number that is looked up; a number that
// is not known any more finds nothing.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "Maid.h"

namespace nikon {

// A number that no other call has returned, dressed as a reference.
MaidReference newHandle();

// The objects of one kind that handles stand for. Thread-safe.
template <typename Object>
class Handles
{
public:
    // Gives `object` a handle.
    MaidReference add(std::shared_ptr<Object> object)
    {
        MaidReference handle = newHandle();
        const std::lock_guard<std::mutex> guard(m_lock);
        m_objects.emplace(handle, std::move(object));
        return handle;
    }

    // Forgets the handle; the object lives on for as long as somebody else uses it.
    void remove(MaidReference handle)
    {
        std::shared_ptr<Object> last;  // destroyed after the lock was given up
        const std::lock_guard<std::mutex> guard(m_lock);
        const auto found = m_objects.find(handle);
        if (found != m_objects.end()) {
            last = std::move(found->second);
            m_objects.erase(found);
        }
    }

    // The object; null for a handle that is not, or not any more, one of this kind.
    std::shared_ptr<Object> find(MaidReference handle) const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        const auto found = m_objects.find(handle);
        return found != m_objects.end() ? found->second : nullptr;
    }

    std::size_t size() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_objects.size();
    }

private:
    mutable std::mutex m_lock;  // guards m_objects
    std::map<MaidReference, std::shared_ptr<Object>> m_objects;
};

}  // namespace nikon
