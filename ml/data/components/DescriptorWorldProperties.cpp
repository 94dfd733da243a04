#include "ml/data/components/DescriptorWorldProperties.h"

#include "host/core/Log.h"

#include <Eigen/Core>

namespace Velmoria::ML {

void writeDescriptorWorld(ImageDescriptorWorld const& descriptorWorld, Properties& tree)
{
    Properties* descriptorTree = tree.addSubProperties(Properties().name());
    descriptorWorld.descriptor().configuration(descriptorTree);
    tree.setParam("matrixToWorld", descriptorWorld.matrixToWorld());
}

bool readDescriptorWorld(Properties const& tree, ImageDescriptorWorld& out, std::string const& category,
                         std::string const& what)
{
    Properties const* descriptorTree = tree.findSubProperties(Properties().name());
    if (!descriptorTree) {
        VELMORIA_LOG_ERROR(category, "No image descriptor found in {}", what);
        return false;
    }
    Eigen::Matrix4d matrix;
    if (!tree.param("matrixToWorld", matrix)) {
        VELMORIA_LOG_ERROR(category, "Invalid value '{}' for 'matrixToWorld' in {}",
                           tree.paramValueText("matrixToWorld"), what);
        return false;
    }
    // ImageDescriptor::configure names the key and value at fault itself.
    ImageDescriptor descriptor;
    if (!descriptor.configure(descriptorTree)) {
        VELMORIA_LOG_ERROR(category, "Invalid image descriptor in {}", what);
        return false;
    }
    out = ImageDescriptorWorld(descriptor, matrix);
    return true;
}

} // namespace Velmoria::ML
