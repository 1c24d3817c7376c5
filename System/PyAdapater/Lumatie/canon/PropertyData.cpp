#include "canon/PropertyData.h"

#include <algorithm>

#include "EdSdkCodes.h"
#include "Text.h"

namespace canon {

EdsError PropertyData::read(EdsBaseRef object, EdsPropertyID property, std::uint32_t size)
{
    if (size > kLargestSize) {
        return kInvalidParameter;
    }
    m_size = size;
    m_bytes.assign(std::max<std::size_t>(size, kSmallestBuffer), '\0');
    return EdsGetPropertyData(object, property, 0, size, m_bytes.data());
}

std::string PropertyData::text() const
{
    return fieldText(m_bytes.data(), m_size);
}

}  // namespace canon
