#include "host/image/SharedImage.h"

#include "host/core/Log.h"
#include "host/image/Deformation.h"
#include "host/image/Mask.h"

#include <Eigen/LU>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.SharedImage";

std::shared_ptr<MemImage> asMemImage(std::shared_ptr<Image> const& image)
{
    if (!image || image->location() != Image::Memory)
        return nullptr;
    return std::dynamic_pointer_cast<MemImage>(image);
}

} // namespace

SharedImage::SharedImage(ImageDescriptor const& descriptor)
    : m_mem(MemImage::zeros(descriptor))
{}

SharedImage::SharedImage(std::shared_ptr<Image> image)
    : m_mem(asMemImage(image))
{
    if (!m_mem)
        throw ImageError(image ? "SharedImage needs an image in CPU memory (there is no GPU backend)"
                               : "SharedImage needs an image, got null");
}

SharedImage::SharedImage(SharedImage const& other)
    : m_mem(other.m_mem->cloneMem())
    , m_matrixToWorld(other.m_matrixToWorld)
    , m_mask(other.m_mask)
    , m_deformation(other.m_deformation)
    , m_modality(other.m_modality)
{}

SharedImage::SharedImage(SharedImage&& other) noexcept = default;
SharedImage& SharedImage::operator=(SharedImage&& other) noexcept = default;
SharedImage::~SharedImage() = default;

SharedImage& SharedImage::operator=(SharedImage const& other)
{
    if (this != &other) {
        SharedImage copy(other);
        *this = std::move(copy);
    }
    return *this;
}

bool SharedImage::prepare(bool /*forceCpu*/)
{
    m_memDirty = false;
    return m_mem != nullptr;
}

void SharedImage::update(MemImage const& image)
{
    m_mem = image.cloneMem();
    m_glDirty = true;
    m_memDirty = false;
}

bool SharedImage::assign(std::shared_ptr<Image> image)
{
    auto mem = asMemImage(image);
    if (!mem) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot assign {} to a frame: only CPU images exist in this build",
                           image ? "a GPU image" : "a null image");
        return false;
    }
    m_mem = std::move(mem);
    m_glDirty = true;
    m_memDirty = false;
    return true;
}

bool SharedImage::makeExclusive(Image::Location location)
{
    if (location == Image::Memory)
        return m_mem != nullptr;
    VELMORIA_LOG_WARNING(kCategory, "Cannot keep only the GPU representation: there is no GPU backend");
    return false;
}

Eigen::Matrix4d SharedImage::matrixFromWorld() const
{
    return m_matrixToWorld.inverse();
}

void SharedImage::setMatrixFromWorld(Eigen::Matrix4d const& matrix)
{
    m_matrixToWorld = matrix.inverse();
}

void SharedImage::setSpacing(Eigen::Vector3d const& spacing)
{
    m_mem->setSpacing(spacing);
}

void SharedImage::setSpacing(Eigen::Vector3d const& spacing, bool isMetric)
{
    m_mem->setSpacing(spacing, isMetric);
}

Eigen::Vector3d SharedImage::pixelToWorld(Eigen::Vector3d const& pixel) const
{
    return descriptorWorld().pixelToWorld(pixel);
}

Eigen::Vector3d SharedImage::worldToPixel(Eigen::Vector3d const& world) const
{
    return descriptorWorld().worldToPixel(world);
}

Eigen::Matrix4d SharedImage::pixelToWorldMatrix() const
{
    return descriptorWorld().pixelToWorldMatrix();
}

Eigen::Matrix4d SharedImage::worldToPixelMatrix() const
{
    return descriptorWorld().worldToPixelMatrix();
}

std::unique_ptr<SharedImage> SharedImage::clone(CloneOptions options) const
{
    std::shared_ptr<Image> pixels = options.test(CloneOption::SharePixels)
                                        ? std::shared_ptr<Image>(m_mem)
                                        : std::shared_ptr<Image>(m_mem->cloneMem());
    auto copy = std::make_unique<SharedImage>(std::move(pixels));
    copy->m_matrixToWorld = m_matrixToWorld;
    copy->m_modality = m_modality;
    if (!options.test(CloneOption::WithoutMask))
        copy->m_mask = m_mask;
    if (!options.test(CloneOption::WithoutDeformation))
        copy->m_deformation = m_deformation;
    return copy;
}

} // namespace Velmoria
