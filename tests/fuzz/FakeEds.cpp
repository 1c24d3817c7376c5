#include "FakeEds.h"

#include <algorithm>
#include <cstring>

#include "Input.h"

namespace fuzz {

EdsBaseRef FakeEds::object()
{
    static char place = 0;
    return reinterpret_cast<EdsBaseRef>(&place);
}

FakeEds& fakeEds()
{
    static FakeEds eds;
    return eds;
}

}  // namespace fuzz

using fuzz::fakeEds;

std::uint32_t EDSAPI EdsRelease(EdsBaseRef /*object*/)
{
    ++fakeEds().releases;
    return fakeEds().references;
}

EdsError EDSAPI EdsGetPropertySize(EdsBaseRef /*object*/, EdsPropertyID /*property*/,
                                   std::int32_t /*parameter*/, EdsDataType* type,
                                   std::uint32_t* size)
{
    *type = 9;
    *size = fakeEds().propertySize;
    return fakeEds().result;
}

EdsError EDSAPI EdsGetPropertyData(EdsBaseRef /*object*/, EdsPropertyID /*property*/,
                                   std::int32_t /*parameter*/, std::uint32_t size, void* data)
{
    const std::vector<unsigned char>& property = fakeEds().property;
    const std::size_t given = std::min<std::size_t>(size, property.size());
    if (given > 0) {
        std::memcpy(data, property.data(), given);
        // The last byte that was asked for is there, too.
        static_cast<unsigned char*>(data)[size - 1] = property[given - 1];
    }
    return fakeEds().result;
}

EdsError EDSAPI EdsGetPropertyDesc(EdsBaseRef /*object*/, EdsPropertyID /*property*/,
                                   EdsPropertyDesc* description)
{
    *description = fakeEds().description;
    return fakeEds().result;
}

EdsError EDSAPI EdsGetDirectoryItemInfo(EdsDirectoryItemRef /*item*/, EdsDirectoryItemInfo* info)
{
    *info = fakeEds().item;
    return fakeEds().itemResult;
}

EdsError EDSAPI EdsCreateFileStream(const char* path, std::uint32_t /*disposition*/,
                                    std::uint32_t /*access*/, EdsStreamRef* stream)
{
    fakeEds().streamPath = path;
    *stream = fuzz::FakeEds::object();
    return fakeEds().result;
}

EdsError EDSAPI EdsSetProgressCallback(EdsBaseRef /*stream*/, EdsProgressCallback callback,
                                       std::uint32_t /*option*/, void* context)
{
    std::int32_t cancel = 0;
    callback(50, context, &cancel);
    fuzz::check(cancel == 0, "a download is not cancelled");
    return fakeEds().result;
}

EdsError EDSAPI EdsDownload(EdsDirectoryItemRef /*item*/, std::uint64_t size,
                            EdsStreamRef /*stream*/)
{
    fakeEds().downloadSize = size;
    return fakeEds().downloadResult;
}

EdsError EDSAPI EdsDownloadComplete(EdsDirectoryItemRef /*item*/)
{
    return fakeEds().result;
}
