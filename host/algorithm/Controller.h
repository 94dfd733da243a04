#pragma once

// Controllers: the interface side of algorithms, without any GUI toolkit. A desktop host wraps
// them in widgets; the command-line host uses them directly.
//
// - Controller: anything a host shows; init() is called once after construction, when the
//   object is in place (virtual calls are safe there, unlike in the constructor).
// - AlgorithmController: the controller of one algorithm (not owned) with a title.
// - DefaultAlgorithmController(algorithm, title, showComputeButton, computeOnChange):
//   the generic parameter form. init() reads the algorithm's configuration into form();
//   applyForm(values) configures the algorithm and, with `computeOnChange`, runs it at once
//   (live preview). `showComputeButton` tells a host whether to offer an explicit "Compute"
//   action (false for algorithms started some other way, e.g. streaming ones).
// - AlgorithmControllerFactory: makes the controller of an algorithm (null for algorithms it
//   does not know); plug-ins register one beside their AlgorithmFactory.
// - IoController: the controller of an IoAlgorithm; exposes its location.

#include "host/core/Properties.h"

#include <memory>
#include <string>

namespace Velmoria {

class Algorithm;
class IoAlgorithm;

class Controller
{
public:
    virtual ~Controller();
    virtual void init() {}
};

class AlgorithmController : public Controller
{
public:
    AlgorithmController(Algorithm* algorithm, std::string title);
    Algorithm* algorithm() const { return m_algorithm; }
    std::string const& title() const { return m_title; }

    // Runs the algorithm through AlgorithmUtils::execute; false when there is none or it fails.
    virtual bool compute();

private:
    Algorithm* m_algorithm;
    std::string m_title;
};

class DefaultAlgorithmController : public AlgorithmController
{
public:
    DefaultAlgorithmController(Algorithm* algorithm, std::string title, bool showComputeButton = true,
                               bool computeOnChange = false);

    void init() override;
    bool showComputeButton() const { return m_showComputeButton; }
    bool computeOnChange() const { return m_computeOnChange; }

    // The algorithm's parameters as last read by init() or applyForm().
    Properties const& form() const { return m_form; }
    // Configures the algorithm with `values` and refreshes form(); with computeOnChange also
    // computes. Returns false when there is no algorithm or the computation fails.
    bool applyForm(Properties const& values);

private:
    bool m_showComputeButton;
    bool m_computeOnChange;
    Properties m_form;
};

class AlgorithmControllerFactory
{
public:
    virtual ~AlgorithmControllerFactory();
    virtual std::unique_ptr<AlgorithmController> create(Algorithm* algorithm) const = 0;
};

class IoController : public AlgorithmController
{
public:
    IoController(IoAlgorithm* algorithm, std::string title);
    IoAlgorithm* ioAlgorithm() const { return m_ioAlgorithm; }

private:
    IoAlgorithm* m_ioAlgorithm;
};

} // namespace Velmoria
