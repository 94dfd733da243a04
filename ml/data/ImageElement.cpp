#include "ml/data/ImageElement.h"

#include <algorithm>

namespace Velmoria::ML {

ImageElement::ImageElement(std::shared_ptr<SharedImageSet> sis)
    : SISBasedElement(std::move(sis))
{
    checkFrames(*m_sis);
}

void ImageElement::checkFrames(SharedImageSet const& sis) const
{
    for (auto const& frame : sis.images()) {
        if (std::max({frame->width(), frame->height(), frame->slices()}) < 2)
            throw DataElementException(
                "ImageElement cannot be constructed from 0-D images. For images with a 1x1x1 "
                "size, please use VectorElement instead.");
    }
}

std::vector<std::shared_ptr<DataElement>> ImageElement::split()
{
    std::vector<std::shared_ptr<DataElement>> result;
    for (auto& sis : splitToSIS())
        result.push_back(std::make_shared<ImageElement>(std::move(sis)));
    return result;
}

std::unique_ptr<DataElement> ImageElement::clone(CloneOptions options) const
{
    return std::make_unique<ImageElement>(cloneToSIS(options));
}

std::unique_ptr<ImageElement> ImageElement::stack(std::vector<std::shared_ptr<ImageElement>> const& elements)
{
    auto sis = stackToSIS(std::vector<std::shared_ptr<SISBasedElement>>(elements.begin(), elements.end()));
    return sis ? std::make_unique<ImageElement>(std::move(sis)) : nullptr;
}

} // namespace Velmoria::ML
