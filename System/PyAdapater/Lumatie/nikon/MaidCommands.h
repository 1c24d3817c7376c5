// The commands of the MAID interface, one function each.
//
// All of them wait for the command's completion and are thread-safe. Where nothing else is said,
// true is success. An object that was closed meanwhile fails every command.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nikon/MaidDriver.h"
#include "nikon/MaidObjectRef.h"

namespace nikon {

// An enumeration and the room for its array.
struct EnumBuffer {
    MaidEnum record = {};
    std::vector<unsigned char> array;
};

// Fetches the object's capability descriptors anew; on failure it has none. A module whose
// capabilities change meanwhile is asked again.
bool GetCapInfo(MaidDriver& driver, const MaidObjectPtr& ref);

// The object's descriptor of a capability as it is now.
std::optional<MaidCapInfo> FindCapability(MaidDriver& driver, const MaidObjectPtr& ref,
                                          std::uint32_t capId);

// The descriptor, if the object has the capability and it permits `operation`, a
// kMaidOperation... bit.
std::optional<MaidCapInfo> FindCapability(MaidDriver& driver, const MaidObjectPtr& ref,
                                          std::uint32_t capId, std::uint32_t operation);

// A descriptor's description up to its terminator, if it has one.
std::string DescriptionOf(const MaidCapInfo& info);

// Reads a capability into `data`, which `keep` owns.
bool GetCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                   std::uint32_t dataType, MaidData data, std::shared_ptr<void> keep);

// Sets a capability; `keep` owns what `data` points to, if it points to anything.
bool SetCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                   std::uint32_t dataType, MaidData data, std::shared_ptr<void> keep = nullptr);

// Reads the number of a capability; `preset` is what it is when the module writes nothing.
std::optional<std::uint32_t> GetUnsigned(MaidDriver& driver, const MaidObjectPtr& ref,
                                         std::uint32_t capId, std::uint32_t preset);

// Reads an enumeration, without its array; null on failure.
std::shared_ptr<EnumBuffer> GetEnum(MaidDriver& driver, const MaidObjectPtr& ref,
                                    std::uint32_t capId);

// Reads the array of an enumeration that GetEnum has returned. It has elements times elementSize
// bytes; false also when that is not to be had.
bool GetCapabilityArray(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                        const std::shared_ptr<EnumBuffer>& buffer);

// An element of the array of 32-bit numbers.
std::uint32_t NumberAt(const EnumBuffer& buffer, std::size_t index);

// Starts a capability and waits for its end. An accepted command counts as a success.
bool StartCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId);

// Has the module announce the object's children by events.
bool EnumChildren(MaidDriver& driver, const MaidObjectPtr& ref);

// Installs a procedure of ours, or, with null, removes it. `reference` comes back with each call.
bool SetProcedure(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                  void (*procedure)(), MaidReference reference);

}  // namespace nikon
