#include "host/image/Image.h"

namespace Velmoria {

bool Image::compatible(Image const& other, bool checkType, bool checkChannels, bool checkSpacing) const
{
    int flags = ImageDescriptor::CompareDimensions;
    if (checkType)
        flags |= ImageDescriptor::ComparePixelType;
    if (checkChannels)
        flags |= ImageDescriptor::CompareChannels;
    if (checkSpacing)
        flags |= ImageDescriptor::CompareSpacing;
    return m_descriptor.isApprox(other.m_descriptor, flags);
}

} // namespace Velmoria
