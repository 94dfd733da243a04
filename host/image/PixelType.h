#pragma once

// PixelType: the scalar type of the values stored in an image buffer.
//
// The numeric values of the enumeration are written into files and configurations, so they
// never change:
//
//   value  name     C++ type         bytes
//   1      int8     char (*)         1
//   2      uint8    unsigned char    1
//   3      int16    short            2
//   4      uint16   unsigned short   2
//   5      int32    int              4
//   6      uint32   unsigned int     4
//   7      float    float            4
//   8      double   double           8
//
// (*) `char` stands for a signed 8-bit integer here. The image classes are instantiated for
// plain `char` because that is the name callers use; a static_assert below refuses platforms
// where char is unsigned (build those with -fsigned-char). `signed char` (std::int8_t) maps to
// the same PixelType.
//
// `visitPixelType` is the one switch from a run-time PixelType to a compile-time C++ type. Every
// typed pixel loop dispatches through it once per image, so that loops themselves carry no
// virtual call or per-pixel switch:
//
//   visitPixelType(image.type(), [&](auto tag) {
//       using T = decltype(tag);
//       auto& typed = static_cast<TypedImage<T>&>(image);
//       ...
//   });
//
// The functor is called as `f(T{})` when it accepts a value of T, else as
// `f.template operator()<T>()` (a lambda with a template parameter list and no arguments).

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace Velmoria {

static_assert(std::numeric_limits<char>::is_signed,
              "Velmoria images use char as a signed 8-bit pixel type; build with -fsigned-char");

enum class PixelType : int
{
    Char = 1,   // int8
    UChar = 2,  // uint8
    Short = 3,  // int16
    UShort = 4, // uint16
    Int = 5,    // int32
    UInt = 6,   // uint32
    Float = 7,  // 32-bit IEEE float
    Double = 8, // 64-bit IEEE float
};

// Thrown by visitPixelType for a value outside the eight types; such a value can only come
// from a cast of an unchecked integer, because every reader validates with parsePixelType.
class PixelTypeError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// True for the eight enumerators.
bool isValidPixelType(PixelType type);
// Bytes per value; 0 for an invalid value.
std::size_t pixelTypeSize(PixelType type);
// "int8", "uint8", "int16", "uint16", "int32", "uint32", "float", "double"; "invalid" else.
std::string_view pixelTypeName(PixelType type);
// Reads a canonical name, a C-style alias ("char", "unsigned char", "uchar", "short",
// "ushort", "unsigned short", "int", "uint", "unsigned int", "float32", "float64"), in any case
// and with surrounding blanks, or the numeric value ("7"). Nothing else: the result is empty.
std::optional<PixelType> parsePixelType(std::string_view text);
bool isIntegerPixelType(PixelType type);
// Signed integers and the floating-point types.
bool isSignedPixelType(PixelType type);
// The representable range as doubles; for float and double the finite range (lowest, max).
double pixelTypeMin(PixelType type);
double pixelTypeMax(PixelType type);

namespace Utils {

namespace Detail {
template <class T>
inline constexpr bool alwaysFalse = false;
}

// True for the C++ types that have a PixelType (signed char included as an alias of char).
template <class T>
inline constexpr bool isPixelScalar =
    std::is_same_v<T, char> || std::is_same_v<T, signed char> || std::is_same_v<T, unsigned char> ||
    std::is_same_v<T, short> || std::is_same_v<T, unsigned short> || std::is_same_v<T, int> ||
    std::is_same_v<T, unsigned int> || std::is_same_v<T, float> || std::is_same_v<T, double>;

template <class T>
constexpr PixelType pixelTypeId()
{
    using U = std::remove_cv_t<T>;
    if constexpr (std::is_same_v<U, char> || std::is_same_v<U, signed char>)
        return PixelType::Char;
    else if constexpr (std::is_same_v<U, unsigned char>)
        return PixelType::UChar;
    else if constexpr (std::is_same_v<U, short>)
        return PixelType::Short;
    else if constexpr (std::is_same_v<U, unsigned short>)
        return PixelType::UShort;
    else if constexpr (std::is_same_v<U, int>)
        return PixelType::Int;
    else if constexpr (std::is_same_v<U, unsigned int>)
        return PixelType::UInt;
    else if constexpr (std::is_same_v<U, float>)
        return PixelType::Float;
    else if constexpr (std::is_same_v<U, double>)
        return PixelType::Double;
    else
        static_assert(Detail::alwaysFalse<T>, "no PixelType for this C++ type");
}

} // namespace Utils

// The C++ type of a PixelType: PixelScalar<PixelType::Float> is float.
template <PixelType P>
struct PixelScalarOf;
template <>
struct PixelScalarOf<PixelType::Char>
{
    using type = char;
};
template <>
struct PixelScalarOf<PixelType::UChar>
{
    using type = unsigned char;
};
template <>
struct PixelScalarOf<PixelType::Short>
{
    using type = short;
};
template <>
struct PixelScalarOf<PixelType::UShort>
{
    using type = unsigned short;
};
template <>
struct PixelScalarOf<PixelType::Int>
{
    using type = int;
};
template <>
struct PixelScalarOf<PixelType::UInt>
{
    using type = unsigned int;
};
template <>
struct PixelScalarOf<PixelType::Float>
{
    using type = float;
};
template <>
struct PixelScalarOf<PixelType::Double>
{
    using type = double;
};
template <PixelType P>
using PixelScalar = typename PixelScalarOf<P>::type;

namespace PixelTypeDetail {
template <class T, class F>
decltype(auto) call(F&& f)
{
    if constexpr (std::is_invocable_v<F, T>)
        return std::forward<F>(f)(T{});
    else
        return std::forward<F>(f).template operator()<T>();
}
[[noreturn]] void throwInvalid(PixelType type);
} // namespace PixelTypeDetail

// Calls f with the C++ type of `type` (see the file comment); returns what f returns. Throws
// PixelTypeError for a value outside the eight types.
template <class F>
decltype(auto) visitPixelType(PixelType type, F&& f)
{
    switch (type) {
    case PixelType::Char:
        return PixelTypeDetail::call<char>(std::forward<F>(f));
    case PixelType::UChar:
        return PixelTypeDetail::call<unsigned char>(std::forward<F>(f));
    case PixelType::Short:
        return PixelTypeDetail::call<short>(std::forward<F>(f));
    case PixelType::UShort:
        return PixelTypeDetail::call<unsigned short>(std::forward<F>(f));
    case PixelType::Int:
        return PixelTypeDetail::call<int>(std::forward<F>(f));
    case PixelType::UInt:
        return PixelTypeDetail::call<unsigned int>(std::forward<F>(f));
    case PixelType::Float:
        return PixelTypeDetail::call<float>(std::forward<F>(f));
    case PixelType::Double:
        return PixelTypeDetail::call<double>(std::forward<F>(f));
    }
    PixelTypeDetail::throwInvalid(type);
}

} // namespace Velmoria
