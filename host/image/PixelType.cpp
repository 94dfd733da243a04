#include "host/image/PixelType.h"

#include "host/core/String.h"
#include "host/core/ValueText.h"

#include <array>

namespace Velmoria {

namespace {

struct Alias
{
    std::string_view name;
    PixelType type;
};

// Canonical names first: pixelTypeName reads them from here.
constexpr std::array<Alias, 19> g_aliases{{
    {"int8", PixelType::Char},
    {"uint8", PixelType::UChar},
    {"int16", PixelType::Short},
    {"uint16", PixelType::UShort},
    {"int32", PixelType::Int},
    {"uint32", PixelType::UInt},
    {"float", PixelType::Float},
    {"double", PixelType::Double},
    {"char", PixelType::Char},
    {"unsigned char", PixelType::UChar},
    {"uchar", PixelType::UChar},
    {"short", PixelType::Short},
    {"unsigned short", PixelType::UShort},
    {"ushort", PixelType::UShort},
    {"int", PixelType::Int},
    {"unsigned int", PixelType::UInt},
    {"uint", PixelType::UInt},
    {"float32", PixelType::Float},
    {"float64", PixelType::Double},
}};

template <class T>
std::pair<double, double> rangeOf()
{
    return {static_cast<double>(std::numeric_limits<T>::lowest()),
            static_cast<double>(std::numeric_limits<T>::max())};
}

std::pair<double, double> range(PixelType type)
{
    if (!isValidPixelType(type))
        return {0.0, 0.0};
    return visitPixelType(type, [](auto tag) { return rangeOf<decltype(tag)>(); });
}

} // namespace

bool isValidPixelType(PixelType type)
{
    int const value = static_cast<int>(type);
    return value >= static_cast<int>(PixelType::Char) && value <= static_cast<int>(PixelType::Double);
}

std::size_t pixelTypeSize(PixelType type)
{
    if (!isValidPixelType(type))
        return 0;
    return visitPixelType(type, [](auto tag) { return sizeof(tag); });
}

std::string_view pixelTypeName(PixelType type)
{
    if (!isValidPixelType(type))
        return "invalid";
    return g_aliases[static_cast<std::size_t>(type) - 1].name;
}

std::optional<PixelType> parsePixelType(std::string_view text)
{
    std::string const lower = String::toLowerCopy(String::trimView(text));
    for (auto const& alias : g_aliases)
        if (alias.name == lower)
            return alias.type;
    int value = 0;
    if (ValueText::parseNumber(lower, value) && isValidPixelType(static_cast<PixelType>(value)))
        return static_cast<PixelType>(value);
    return std::nullopt;
}

bool isIntegerPixelType(PixelType type)
{
    return isValidPixelType(type) && type != PixelType::Float && type != PixelType::Double;
}

bool isSignedPixelType(PixelType type)
{
    switch (type) {
    case PixelType::Char:
    case PixelType::Short:
    case PixelType::Int:
    case PixelType::Float:
    case PixelType::Double:
        return true;
    default:
        return false;
    }
}

double pixelTypeMin(PixelType type)
{
    return range(type).first;
}

double pixelTypeMax(PixelType type)
{
    return range(type).second;
}

namespace PixelTypeDetail {
void throwInvalid(PixelType type)
{
    throw PixelTypeError("Invalid pixel type value " + std::to_string(static_cast<int>(type)));
}
} // namespace PixelTypeDetail

} // namespace Velmoria
