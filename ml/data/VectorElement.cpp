#include "ml/data/VectorElement.h"

namespace Velmoria::ML {

VectorElement::VectorElement(std::shared_ptr<SharedImageSet> sis)
    : SISBasedElement(std::move(sis))
{
    checkFrames(*m_sis);
}

void VectorElement::checkFrames(SharedImageSet const& sis) const
{
    for (auto const& frame : sis.images()) {
        if (frame->width() != 1 || frame->height() != 1 || frame->slices() != 1)
            throw DataElementException("VectorElement can only be constructed from 0-D images (1x1x1, "
                                       "potentially with multiple channels).");
    }
}

std::vector<std::shared_ptr<DataElement>> VectorElement::split()
{
    std::vector<std::shared_ptr<DataElement>> result;
    for (auto& sis : splitToSIS())
        result.push_back(std::make_shared<VectorElement>(std::move(sis)));
    return result;
}

std::unique_ptr<DataElement> VectorElement::clone(CloneOptions options) const
{
    return std::make_unique<VectorElement>(cloneToSIS(options));
}

std::unique_ptr<VectorElement>
VectorElement::stack(std::vector<std::shared_ptr<VectorElement>> const& elements)
{
    auto sis = stackToSIS(std::vector<std::shared_ptr<SISBasedElement>>(elements.begin(), elements.end()));
    return sis ? std::make_unique<VectorElement>(std::move(sis)) : nullptr;
}

} // namespace Velmoria::ML
