#pragma once

// ImageSamplersException: a sampler could not cut its region (a null image, a region of no or
// negative size, a region that does not fit the image's dimensionality, a label map of the wrong
// pixel type). It is an OperationException, so callers that guard operations catch samplers too.

#include "ml/operations/OperationException.h"

#include <string>

namespace Velmoria::ML {

class ImageSamplersException : public OperationException
{
public:
    explicit ImageSamplersException(std::string const& message)
        : OperationException(message)
    {}
};

} // namespace Velmoria::ML
