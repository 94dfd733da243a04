#pragma once

// Engines registered from test code for the model tests: one that doubles its input, one that
// throws, one whose builder fails, and one of a second factory as a scripting layer would add it.

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/model/Engine.h"

#include "host/image/SharedImageSet.h"

#include <Eigen/Core>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velmoria::MLTest {

// Doubles every value of the first input field's float images into every output field (so that a
// second output field exists to be ignored). Records the batch size and first frame size of every
// call and counts constructions and hook calls, so that tests see each arrive exactly once.
class DoublingEngine : public ML::Engine
{
public:
    struct Call
    {
        std::size_t batch = 0;
        Eigen::Vector3i dims = Eigen::Vector3i::Zero();
    };
    static inline std::vector<Call> calls;
    static inline int constructed = 0;
    // Copies of the first frame appended to every output: a network that makes up samples.
    static inline int extraFrames = 0;

    DoublingEngine()
        : Engine("doubler")
    {
        ++constructed;
    }

    ML::DataItem predict(ML::DataItem const& input) override
    {
        checkInputFields(input);
        auto const* element = input.get<ML::ImageElement>(config.p_inputFields.value().front());
        if (!element)
            throw std::runtime_error("no image input");
        calls.push_back(
            {static_cast<std::size_t>(element->sis()->size()), element->sis()->get(0)->dimensions()});
        ML::DataItem prediction;
        for (std::string const& field : config.p_outputFields.value()) {
            auto doubled = std::make_shared<SharedImageSet>();
            for (auto const& frame : element->sis()->images()) {
                std::shared_ptr<SharedImage> copy = frame->clone();
                auto* pixels = static_cast<float*>(copy->mem()->data());
                for (std::size_t i = 0; i < copy->mem()->valueCount(); ++i)
                    pixels[i] *= 2.0F;
                doubled->add(copy);
            }
            for (int extra = 0; extra < extraFrames; ++extra)
                doubled->add(std::shared_ptr<SharedImage>(doubled->get(0)->clone()));
            prediction.set(field, doubled);
        }
        return prediction;
    }

    void onModelFileChanged() override { ++modelFileChanges; }
    void onForceCPUChanged() override { ++forceCPUChanges; }

    int modelFileChanges = 0;
    int forceCPUChanges = 0;
};

class ThrowingEngine : public ML::Engine
{
public:
    ThrowingEngine()
        : Engine("thrower")
    {}
    ML::DataItem predict(ML::DataItem const&) override { throw std::runtime_error("the network failed"); }
};

class ScriptedEngine : public ThrowingEngine
{};

// Registers, once each: "doubler", "thrower" and "broken" (registered, but its builder fails:
// only a lazy model gets past loading with it) in the C++ factory, "scripted" in a second one.
inline void registerTestEngines()
{
    ML::EngineFactory& cpp = ML::getCppEngineFactory();
    if (!cpp.hasType("doubler"))
        cpp.registerType<DoublingEngine>("doubler", ML::makeInitializedEngine<DoublingEngine>);
    if (!cpp.hasType("thrower"))
        cpp.registerType<ThrowingEngine>("thrower", ML::makeInitializedEngine<ThrowingEngine>);
    if (!cpp.hasType("broken"))
        cpp.registerType<ThrowingEngine>("broken",
                                         [](Properties const&) { return std::unique_ptr<ThrowingEngine>(); });
    ML::EngineFactory& script = ML::getSubEngineFactory("TestScriptEngineFactory");
    if (!script.hasType("scripted"))
        script.registerType<ScriptedEngine>("scripted", ML::makeInitializedEngine<ScriptedEngine>);
}

} // namespace Velmoria::MLTest
