#include "host/processing/FrameAttributes.h"

namespace Velmoria::ImageProcessing {

void copyFrameAttributes(SharedImage const& from, SharedImage& to)
{
    to.setMatrixToWorld(from.matrixToWorld());
    to.setMask(from.mask());
    to.setDeformation(from.deformation());
    to.setModality(from.modality());
}

std::unique_ptr<SharedImage> makeFrameLike(SharedImage const& from, std::unique_ptr<MemImage> pixels)
{
    auto frame = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    copyFrameAttributes(from, *frame);
    return frame;
}

} // namespace Velmoria::ImageProcessing
