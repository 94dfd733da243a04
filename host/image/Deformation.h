#pragma once

// Deformation: a displacement field that hangs on an image (SharedImage::deformation()).
//
// The image's pixels stay where its matrix puts them; a deformation says how far each world
// point moves on top of that. Registration results and augmentations attach one; consumers
// that resample honour it. Implementations are immutable once attached, so several images can
// share one.

#include <Eigen/Core>
#include <memory>
#include <string>

namespace Velmoria {

class Deformation
{
public:
    virtual ~Deformation() = default;

    // Displacement in millimetres of the world point `world`.
    virtual Eigen::Vector3d displacement(Eigen::Vector3d const& world) const = 0;
    // The deformed position: world + displacement(world).
    Eigen::Vector3d apply(Eigen::Vector3d const& world) const { return world + displacement(world); }

    virtual std::unique_ptr<Deformation> clone() const = 0;
    virtual std::string describe() const = 0;
};

// A displacement that is the same everywhere: the simplest deformation, and a test double.
class ConstantDeformation final : public Deformation
{
public:
    explicit ConstantDeformation(Eigen::Vector3d const& offset)
        : m_offset(offset)
    {}
    Eigen::Vector3d displacement(Eigen::Vector3d const&) const override { return m_offset; }
    std::unique_ptr<Deformation> clone() const override
    {
        return std::make_unique<ConstantDeformation>(*this);
    }
    std::string describe() const override;

private:
    Eigen::Vector3d m_offset;
};

} // namespace Velmoria
