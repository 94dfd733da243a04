#pragma once

// Configurable: an object whose settings can be read from and written to Properties.
//
// A Configurable keeps a list of its parameters (ParameterBase, see Parameter.h). Parameters
// are usually members that register themselves on construction:
//
//   class Smoothing : public Configurable
//   {
//   public:
//       Parameter<double> p_sigma{"sigma", 1.0, this};
//       Parameter<bool> p_adaptive{"adaptive", false, this};
//   };
//
// configure() reads every registered parameter whose key is present, configuration() writes
// them all in registration order, configureDefaults() sets each back to its default.
//
// Copying: the registration list holds pointers to the members of one object, so it is never
// copied. Instead the parameters of the copy register with the copy: a copied parameter whose
// original belonged to the Configurable being copied, at the same offset inside it, registers
// with the new object (Configurable's copy constructor announces the copy on this thread, the
// parameters' copy constructors pick it up). Defaulted copy constructors of owners therefore
// just work. An owner that constructs its parameters afresh in its copy constructor copies
// their state with ParameterBase::setParentFromCopy. Assignment copies values and keeps each
// object's own registrations.

#include <string_view>
#include <vector>

namespace Velmoria {

class ParameterBase;
class Properties;

class Configurable
{
public:
    Configurable() = default;
    Configurable(Configurable const& other);
    Configurable& operator=(Configurable const& other);
    virtual ~Configurable();

    // Sets each registered parameter whose key (or deprecated name) is present and readable;
    // leaves the others alone. A null tree does nothing. Never throws.
    virtual void configure(Properties const* properties);
    // Writes every registered parameter, in registration order. Null does nothing.
    virtual void configuration(Properties* properties) const;
    // Every registered parameter back to its default.
    virtual void configureDefaults();

    // Adds the parameter (once) and makes this its parent, taking it from an earlier parent.
    void registerParameter(ParameterBase* parameter);
    void unregisterParameter(ParameterBase const* parameter);
    std::vector<ParameterBase*> const& parameters() const { return m_parameters; }
    // The registered parameter of that name, or null.
    ParameterBase* parameter(std::string_view name) const;

private:
    friend class ParameterBase;
    // Called by the copy constructor of `parameter`, a copy of `original`: registers it with
    // the copy of original's parent when one is being made on this thread.
    static void adoptCopiedParameter(ParameterBase* parameter, ParameterBase const& original);

    std::vector<ParameterBase*> m_parameters;
};

} // namespace Velmoria
