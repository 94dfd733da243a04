#pragma once

// The join between an operation and the inversion records of the data it processes: kept apart
// from both Operation and InversionComponent so that neither has to know the other's details.

namespace Velmoria::ML {

class DataElement;
class Operation;

// Gets or creates the element's InversionComponent and records there the operation's inverse
// specs under its recordIdentifier(). False, and nothing created, for a null element, an
// operation without identifier, or one that does not support inversion.
bool recordOperationForInversion(Operation& operation, DataElement* element);

} // namespace Velmoria::ML
