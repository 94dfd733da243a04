#pragma once

// The host's IO algorithms: one ImageFileIoAlgorithm per image file format, in an
// AlgorithmFactory of category "IO" that lives as long as the process and is added to the
// FactoryRegistry, so that FactoryRegistry::get().compatibleIoDescriptors(path) and
// instantiateIoAlgorithm(id, data) find them (ids in ImageFileIoAlgorithm.h).
//
// Registration is explicit rather than done by a static initialiser, because the host is a
// library: an application (or IO::FileLoader, which calls it itself) asks for it when it wants
// the formats, and plug-ins that add their own IO factories choose whether to go before them.

namespace Velmoria {

class AlgorithmFactory;

namespace ImageFiles {

// Creates the factory and adds it to the FactoryRegistry (at the end) on the first call; later
// calls do nothing. Thread-safe.
void registerIoAlgorithms();
// The factory (registered by this call when it was not yet).
AlgorithmFactory& ioAlgorithmFactory();

} // namespace ImageFiles
} // namespace Velmoria
