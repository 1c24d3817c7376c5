#include "nikon/MaidCommands.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Text.h"

namespace nikon {

namespace {

// A module may ask to be asked again, but not for ever.
constexpr int kMostTries = 1000;

// More than any camera has. What a module says beyond it is wrong, and not allocated.
constexpr std::uint32_t kMostCaps = 65'536;
constexpr std::size_t kMostArrayBytes = std::size_t{64} << 20U;

// The room for an announced number of elements; null when it is not to be had. None have an
// address, too: a module may refuse a null one.
template <typename Array>
std::shared_ptr<Array> makeArray(std::size_t size, std::size_t most)
{
    if (size > most) {
        return nullptr;
    }
    try {
        auto array = std::make_shared<Array>();
        array->reserve(std::max<std::size_t>(size, 1));
        array->resize(size);
        return array;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// One try of GetCapInfo. `caps` is null when there was no memory for so many.
MaidResult fetchCaps(MaidDriver& driver, const MaidObjectPtr& ref, std::shared_ptr<MaidCaps>& caps)
{
    const auto count = std::make_shared<std::uint32_t>(0);
    MaidCommand command{kMaidCommandGetCapCount, 0, kMaidDataTypeUnsignedPtr, dataOf(count), count};
    const MaidResult counted = driver.execute(ref, command);
    if (counted != kMaidOk) {
        return counted == kMaidPending ? kMaidNoAnswer : counted;
    }
    const std::uint32_t announced = *count;
    caps = makeArray<MaidCaps>(announced, kMostCaps);
    if (!caps) {
        return kMaidOk;
    }
    command = {kMaidCommandGetCapInfo, announced, kMaidDataTypeCapInfoPtr,
               reinterpret_cast<MaidData>(caps->data()), caps};
    return driver.execute(ref, command);
}

}  // namespace

bool GetCapInfo(MaidDriver& driver, const MaidObjectPtr& ref)
{
    const MaidDriver::Guard guard(driver);
    if (!guard) {
        return false;
    }
    const unsigned version = ref->capsVersion;
    std::shared_ptr<MaidCaps> caps;
    MaidResult result = kMaidBufferSize;
    for (int tries = 0; result == kMaidBufferSize && tries < kMostTries; ++tries) {
        result = fetchCaps(driver, ref, caps);
    }
    if (ref->capsVersion != version) {
        // An event inside has brought newer ones.
        return true;
    }
    const bool fetched = result == kMaidOk || result == kMaidPending;
    ref->caps = fetched && caps ? caps : std::make_shared<MaidCaps>();
    ++ref->capsVersion;
    return fetched;
}

std::optional<MaidCapInfo> FindCapability(MaidDriver& driver, const MaidObjectPtr& ref,
                                          std::uint32_t capId)
{
    const MaidDriver::Guard guard(driver);
    if (!guard || !ref || ref->closed) {
        return std::nullopt;
    }
    const auto found = std::find_if(ref->caps->begin(), ref->caps->end(),
                                    [&](const MaidCapInfo& info) { return info.id == capId; });
    return found != ref->caps->end() ? std::make_optional(*found) : std::nullopt;
}

std::optional<MaidCapInfo> FindCapability(MaidDriver& driver, const MaidObjectPtr& ref,
                                          std::uint32_t capId, std::uint32_t operation)
{
    std::optional<MaidCapInfo> info = FindCapability(driver, ref, capId);
    return info && (info->operations & operation) != 0 ? info : std::nullopt;
}

std::string DescriptionOf(const MaidCapInfo& info)
{
    return fieldText(info.description, sizeof info.description);
}

bool GetCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                   std::uint32_t dataType, MaidData data, std::shared_ptr<void> keep)
{
    const MaidCommand command{kMaidCommandCapGet, capId, dataType, data, std::move(keep)};
    return driver.execute(ref, command) == kMaidOk;
}

bool SetCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                   std::uint32_t dataType, MaidData data, std::shared_ptr<void> keep)
{
    const MaidCommand command{kMaidCommandCapSet, capId, dataType, data, std::move(keep)};
    return driver.execute(ref, command) == kMaidOk;
}

std::optional<std::uint32_t> GetUnsigned(MaidDriver& driver, const MaidObjectPtr& ref,
                                         std::uint32_t capId, std::uint32_t preset)
{
    const auto value = std::make_shared<std::uint32_t>(preset);
    if (!GetCapability(driver, ref, capId, kMaidDataTypeUnsignedPtr, dataOf(value), value)) {
        return std::nullopt;
    }
    return *value;
}

std::shared_ptr<EnumBuffer> GetEnum(MaidDriver& driver, const MaidObjectPtr& ref,
                                    std::uint32_t capId)
{
    const auto buffer = std::make_shared<EnumBuffer>();
    const auto data = reinterpret_cast<MaidData>(&buffer->record);
    const bool read = GetCapability(driver, ref, capId, kMaidDataTypeEnumPtr, data, buffer);
    return read ? buffer : nullptr;
}

bool GetCapabilityArray(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                        const std::shared_ptr<EnumBuffer>& buffer)
{
    MaidEnum& record = buffer->record;
    if (record.elementSize <= 0) {
        return false;
    }
    const auto size = std::size_t{record.elements} * static_cast<std::size_t>(record.elementSize);
    const auto array = makeArray<std::vector<unsigned char>>(size, kMostArrayBytes);
    if (!array) {
        return false;
    }
    buffer->array = std::move(*array);
    record.array = buffer->array.data();
    const MaidCommand command{kMaidCommandCapGetArray, capId, kMaidDataTypeEnumPtr,
                              reinterpret_cast<MaidData>(&record), buffer};
    return driver.execute(ref, command) == kMaidOk;
}

std::uint32_t NumberAt(const EnumBuffer& buffer, std::size_t index)
{
    std::uint32_t number = 0;
    if ((index + 1) * sizeof number <= buffer.array.size()) {
        std::memcpy(&number, buffer.array.data() + index * sizeof number, sizeof number);
    }
    return number;
}

bool StartCapability(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId)
{
    const MaidCommand command{kMaidCommandCapStart, capId};
    const MaidResult result = driver.execute(ref, command);
    return result == kMaidOk || result == kMaidPending;
}

bool EnumChildren(MaidDriver& driver, const MaidObjectPtr& ref)
{
    return driver.execute(ref, MaidCommand{kMaidCommandEnumChildren}) == kMaidOk;
}

bool SetProcedure(MaidDriver& driver, const MaidObjectPtr& ref, std::uint32_t capId,
                  void (*procedure)(), MaidReference reference)
{
    const MaidDriver::Guard guard(driver);
    bool done = false;
    if (procedure == nullptr) {
        done = SetCapability(driver, ref, capId, kMaidDataTypeNull, 0);
    } else {
        const auto callback = std::make_shared<MaidCallback>(MaidCallback{procedure, reference});
        done =
            SetCapability(driver, ref, capId, kMaidDataTypeCallbackPtr, dataOf(callback), callback);
    }
    if (guard && done && capId == kMaidCapDataProc) {
        ref->receiving = procedure != nullptr;
    }
    return done;
}

}  // namespace nikon
