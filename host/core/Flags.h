#pragma once

// Flags<E>: a set of bits of the enumeration E, type-safe and comparable.
//
//   enum class CloneOption { Deep = 1, KeepFrames = 2 };
//   Flags<CloneOption> f = CloneOption::Deep;
//   f |= CloneOption::KeepFrames;  f.test(CloneOption::Deep);  f.value();
//
// The raw value is kept, so flags can be stored as numbers (Properties, files) and read back.

#include <initializer_list>
#include <type_traits>

namespace Velmoria {

template <typename E>
class Flags
{
    static_assert(std::is_enum_v<E>, "Flags<E> needs an enumeration");

public:
    using Underlying = std::underlying_type_t<E>;

    constexpr Flags() = default;
    constexpr Flags(E flag)
        : m_value(static_cast<Underlying>(flag))
    {}
    constexpr Flags(std::initializer_list<E> flags)
    {
        for (E flag : flags)
            m_value |= static_cast<Underlying>(flag);
    }
    static constexpr Flags fromValue(Underlying value)
    {
        Flags f;
        f.m_value = value;
        return f;
    }

    constexpr Underlying value() const { return m_value; }
    // True when every bit of `flag` is set (a zero flag is never set).
    constexpr bool test(E flag) const
    {
        auto bits = static_cast<Underlying>(flag);
        return bits != 0 && (m_value & bits) == bits;
    }
    constexpr bool testAny(Flags other) const { return (m_value & other.m_value) != 0; }
    constexpr bool empty() const { return m_value == 0; }
    constexpr explicit operator bool() const { return m_value != 0; }

    constexpr Flags& set(E flag, bool on = true)
    {
        if (on)
            m_value |= static_cast<Underlying>(flag);
        else
            m_value &= static_cast<Underlying>(~static_cast<Underlying>(flag));
        return *this;
    }
    constexpr Flags& reset(E flag) { return set(flag, false); }

    constexpr Flags& operator|=(Flags other)
    {
        m_value |= other.m_value;
        return *this;
    }
    constexpr Flags& operator&=(Flags other)
    {
        m_value &= other.m_value;
        return *this;
    }
    constexpr Flags operator|(Flags other) const { return fromValue(m_value | other.m_value); }
    constexpr Flags operator&(Flags other) const { return fromValue(m_value & other.m_value); }
    constexpr Flags operator^(Flags other) const { return fromValue(m_value ^ other.m_value); }
    constexpr Flags operator~() const { return fromValue(static_cast<Underlying>(~m_value)); }
    constexpr bool operator==(Flags const&) const = default;

private:
    Underlying m_value = 0;
};

} // namespace Velmoria
