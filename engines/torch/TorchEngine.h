#pragma once

// TorchEngine: runs a TorchScript network (a module saved with torch.jit.script/trace) on the
// fields of a DataItem. Registered as "torch" in the C++ engine factory by the Velmoria.Torch
// plug-in (TorchPlugin.cpp).
//
// Model. The artefact comes through loadModelArtifact(), so a model in a resource repository
// works as well as a file; its bytes are handed to torch::jit::load from memory. init() loads it
// and fails (false, an error naming the file) when the bytes are missing or not TorchScript;
// onModelFileChanged() loads again, and a failed reload leaves the engine without a network
// (predict then throws).
//
// Inputs, in the order of the input fields, as positional arguments of forward():
//   - an ImageElement of n frames W x H x D with C channels: float32 [n, C, H, W] when every
//     frame has depth 1, else [n, C, D, H, W]; values in original intensities (the frames'
//     shift/scale undone), whatever the stored pixel type;
//   - a VectorElement (1x1x1 frames, C channels): float32 [n, C];
//   - a TensorSetElement of n tensors of one shape [...]: its tensors stacked, [n, ...], in
//     their own element type (float32, int64 or uint8).
// All frames (tensors) of one field must have the same size and channel count (shape).
//
// Outputs. forward() may return one tensor (the first output field), a tuple or list of tensors
// (one per output field, in the order of the output fields, ignored ones included) or a dict of
// tensors keyed by output field name (extra keys are dropped). Fields listed as ignored are not
// taken over. The model's "PredictionOutput" of the field (passed to the engine under that key)
// decides the element: Tensor gives a TensorSetElement of n tensors [...]; Vector needs [n, C]
// (or [n]) and gives a VectorElement; Image needs [n, C, H, W] or [n, C, D, H, W] and gives an
// ImageElement; another shape, or Keypoints/BoundingBoxes, is an error naming the field. Without
// a declared kind the shape decides between Vector and Image. Image frames are float and their
// geometry follows the first image input: frame i takes
// the matrix of input frame i (the last one when the output has more frames), the same spacing
// when the spatial size is the same, else the spacing scaled so that centre and extent stay.
//
// Parameters beyond Engine's: "NumThreads" (CPU threads of LibTorch; 0, the default, is every
// core; it is a process-wide setting of LibTorch). "ForceCPU" keeps the network on the CPU; a
// CUDA device is used otherwise when LibTorch has one. "HalfPrecision" (false) runs the network
// and its inputs in float16 on a CUDA device; the CPU always runs float32 (a log line says so
// when half precision was asked for). Outputs are float32 either way. "OptimizeForInference"
// (true) prepares the network once per load: torch::jit::freeze folds its weights and attributes
// into constants, then torch::jit::optimize_for_inference fuses convolutions with batch norms and
// activations and, on the CPU, runs them through oneDNN (about twice as fast for 3D U-Nets). A
// network that cannot be frozen (one that mutates its own attributes, say) runs as loaded, with
// one information line; false always runs it as loaded.
//
// predict() runs under c10::InferenceMode and throws EngineException for inputs it cannot map,
// a network that fails (the message names the model file and the input shapes) and outputs it
// cannot map or that are missing.

#include "ml/model/Engine.h"
#include "ml/model/ModelEnums.h"

#include "host/core/Parameter.h"

#include <memory>
#include <optional>
#include <string>

namespace Velmoria::ML {

class TorchEngine : public Engine
{
public:
    TorchEngine();
    ~TorchEngine() override;

    // Engine::init, then the thread count and the network. False (logged) when either fails.
    bool init(Properties const& properties) override;
    DataItem predict(DataItem const& input) override;

    void onModelFileChanged() override;
    void onForceCPUChanged() override;

    // True while a network is loaded.
    bool isLoaded() const;
    // "cpu" or "cuda:0": where the network runs.
    std::string deviceName() const;

    Parameter<int> p_numThreads{"NumThreads", 0, this};
    Parameter<bool> p_halfPrecision{"HalfPrecision", false, this};
    Parameter<bool> p_optimizeForInference{"OptimizeForInference", true, this};
    // The model's "PredictionOutput", one entry per output field (the driver passes it along).
    Parameter<std::vector<std::string>> p_predictionOutput{"PredictionOutput", {}, this};

private:
    // Loads the network named by "ModelFile" onto the current device; false (logged) on failure,
    // which leaves no network loaded.
    bool loadModel();
    // Freezes and optimises the loaded network for inference when asked to; keeps it as loaded
    // (logged) when that fails.
    void prepareForInference();
    // The device and precision from "ForceCPU", "HalfPrecision" and what LibTorch offers.
    void chooseDevice();
    // The declared kind of an output field; none when the model declared nothing for it.
    std::optional<PredictionOutput> declaredOutput(std::string const& field) const;
    void applyThreadCount() const;

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace Velmoria::ML
