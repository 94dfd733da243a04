#include "host/algorithm/Controller.h"

#include "host/algorithm/AlgorithmUtils.h"
#include "host/algorithm/IoAlgorithm.h"

namespace Velmoria {

Controller::~Controller() = default;

AlgorithmController::AlgorithmController(Algorithm* algorithm, std::string title)
    : m_algorithm(algorithm)
    , m_title(std::move(title))
{}

bool AlgorithmController::compute()
{
    return m_algorithm && AlgorithmUtils::execute(*m_algorithm);
}

DefaultAlgorithmController::DefaultAlgorithmController(Algorithm* algorithm, std::string title,
                                                       bool showComputeButton, bool computeOnChange)
    : AlgorithmController(algorithm, std::move(title))
    , m_showComputeButton(showComputeButton)
    , m_computeOnChange(computeOnChange)
{}

void DefaultAlgorithmController::init()
{
    m_form.clear();
    if (algorithm())
        algorithm()->configuration(&m_form);
}

bool DefaultAlgorithmController::applyForm(Properties const& values)
{
    if (!algorithm())
        return false;
    algorithm()->configure(&values);
    init();
    return !m_computeOnChange || compute();
}

AlgorithmControllerFactory::~AlgorithmControllerFactory() = default;

IoController::IoController(IoAlgorithm* algorithm, std::string title)
    : AlgorithmController(algorithm, std::move(title))
    , m_ioAlgorithm(algorithm)
{}

} // namespace Velmoria
