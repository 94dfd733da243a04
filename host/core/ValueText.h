#pragma once

// ValueText: the one reader and the one writer of the text forms of values.
//
// Every configuration of the system is text (Properties, their XML file, the YAML form built
// on top of them, attribute strings of parameters). To make a value written by one of them read
// back identically by all others, they all go through the functions of this file:
//
//   number            shortest round-trip form of std::to_chars: 0.1 -> "0.1", 1.0 -> "1",
//                     1e-7 -> "1e-07"; a float is written as a float (0.1f -> "0.1").
//                     Reading trims blanks, accepts a leading '+', and needs the WHOLE text to be
//                     the number ("3x", "", "1 2" fail). An integer never reads "3.0", and a
//                     value outside the target type fails ("-1" as unsigned, "70000" as unsigned
//                     short). inf and nan read as std::from_chars reads them. unsigned char and
//                     the other character types are numbers, not characters.
//   bool              written "true"/"false"; reads "true", "false", "1", "0" in any case.
//   enumeration       its underlying integer.
//   string, path      as is (no trimming, no quoting).
//   fixed vector      Eigen::Matrix with one fixed row or column: numbers separated by single
//                     blanks, "1 2 3". Reading accepts any whitespace runs, one enclosing bracket
//                     pair "[1 2 3]", and a column of single numbers "[1, 2, 3]". The count must
//                     match exactly.
//   fixed matrix      more than one row and column: rows in brackets, separated by ", ":
//                     "[1 0, 0 1]". Reading also accepts extra whitespace, rows in their own
//                     brackets "[[1 0], [0 1]]", and a flat row-major list "1 0 0 1".
//   vector<number>    like a vector, any length; "" is the empty vector.
//   vector<fixed N>   the matrix form with one row per element, "[1 2 3, 4 5 6]"; "" when empty.
//                     Reading also accepts a flat list whose length is a multiple of N.
//   vector<string>    a LIST value (see ParamValue), not text.
//   optional<T>       nullopt is the empty text; otherwise T's form. Reading a blank text gives
//                     nullopt (for optional<string>: only the empty text does).
//
// A stored value (ParamValue) is either a text or a list of texts. Reading a list value:
// vector<string> takes the items; vector<number> parses every item and concatenates the
// numbers; vector<fixed N> parses every item as one vector; a fixed vector or matrix takes the
// items as rows (or as single numbers). Every other type fails on a list, and reading a text
// value as vector<string> gives one item (none for the empty text).
//
// Readers never throw and never log; they leave `out` untouched unless they return true.
//
// Parameter attributes have a text form too: comma-separated entries "name: value". A value may
// be in single quotes and may then hold commas, blanks and quotes (a quote doubled: 'it''s').
// Blanks around names and unquoted values are dropped; names must not hold ':' or ','.

#include <Eigen/Core>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria {

// Attributes of a parameter: ordered, names may repeat ("deprecatedName" twice).
using ParamAttributes = std::vector<std::pair<std::string, std::string>>;

// The stored form of one parameter value: a text, or a list of texts.
struct ParamValue
{
    std::string text; // the value when `list` is empty
    std::optional<std::vector<std::string>> list;

    static ParamValue fromText(std::string text) { return {std::move(text), std::nullopt}; }
    static ParamValue fromList(std::vector<std::string> items) { return {{}, std::move(items)}; }
    bool isList() const { return list.has_value(); }
    bool operator==(ParamValue const&) const = default;
};

namespace ValueText {

// ---------------------------------------------------------------------------------------------
// Type families

template <class T>
concept Number = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;

namespace Detail {
template <class T>
inline constexpr bool alwaysFalse = false;

template <class T>
struct IsFixedEigen : std::false_type
{};
template <class S, int R, int C, int O, int MR, int MC>
struct IsFixedEigen<Eigen::Matrix<S, R, C, O, MR, MC>> : std::bool_constant<(R > 0 && C > 0)>
{};

template <class T>
struct VectorTraits : std::false_type
{};
template <class T, class A>
struct VectorTraits<std::vector<T, A>> : std::true_type
{
    using Item = T;
};

template <class T>
struct OptionalTraits : std::false_type
{};
template <class T>
struct OptionalTraits<std::optional<T>> : std::true_type
{
    using Item = T;
};
} // namespace Detail

template <class T>
concept FixedEigen = Detail::IsFixedEigen<T>::value && Number<typename T::Scalar>;
template <class T>
concept FixedVector = FixedEigen<T> &&(T::RowsAtCompileTime == 1 || T::ColsAtCompileTime == 1);
template <class T>
concept FixedMatrix = FixedEigen<T> && !FixedVector<T>;
template <class T>
concept StringLike = std::is_convertible_v<T const&, std::string_view>;
template <class T>
concept Enumeration = std::is_enum_v<T>;
template <class T>
concept StdVector = Detail::VectorTraits<T>::value;
template <class T>
concept NumberVector = StdVector<T> && Number<typename Detail::VectorTraits<T>::Item>;
template <class T>
concept FixedVectorVector = StdVector<T> && FixedVector<typename Detail::VectorTraits<T>::Item>;
template <class T>
concept StringVector = std::is_same_v<T, std::vector<std::string>>;
template <class T>
concept Optional = Detail::OptionalTraits<T>::value;

// Types whose value is a single text (everything but vector<string>).
template <class T>
concept TextType = std::is_same_v<T, bool> || Number<T> || Enumeration<T> || StringLike<T> ||
    std::is_same_v<T, std::filesystem::path> || FixedEigen<T> || NumberVector<T> || FixedVectorVector<T>;
template <class T>
concept OptionalType = Optional<T> && TextType<typename Detail::OptionalTraits<T>::Item> &&
    !Optional<typename Detail::OptionalTraits<T>::Item>;
template <class T>
concept OptionalFixedEigen = Optional<T> && FixedEigen<typename Detail::OptionalTraits<T>::Item>;
// Everything this file can read and write.
template <class T>
concept Supported = TextType<T> || StringVector<T> || OptionalType<T>;

// ---------------------------------------------------------------------------------------------
// Building blocks (defined in ValueText.cpp)

bool parseBool(std::string_view text, bool& out);
inline std::string writeBool(bool value)
{
    return value ? "true" : "false";
}

// Defined for every arithmetic type but bool.
template <class T>
bool parseNumber(std::string_view text, T& out);
template <class T>
void appendNumber(std::string& out, T value);

namespace Detail {
// The numbers of a text in row form, as views into it. See the file comment for the shapes.
struct Rows
{
    std::vector<std::vector<std::string_view>> rows;

    // One row, or every row a single number ("[1, 2, 3]").
    bool isFlat() const;
    std::vector<std::string_view> flat() const;
};
// False for misplaced brackets ("[1 2", "1 ]2", "[[1]").
bool splitRows(std::string_view text, Rows& out);

template <class S>
bool parseTokens(std::string_view const* tokens, std::size_t count, S* out)
{
    for (std::size_t i = 0; i < count; ++i)
        if (!parseNumber(tokens[i], out[i]))
            return false;
    return true;
}

template <class V>
bool readFixedVector(std::string_view text, V& out)
{
    Rows rows;
    if (!splitRows(text, rows) || !rows.isFlat())
        return false;
    auto tokens = rows.flat();
    if (tokens.size() != static_cast<std::size_t>(V::SizeAtCompileTime))
        return false;
    V value;
    if (!parseTokens(tokens.data(), tokens.size(), value.data()))
        return false;
    out = value;
    return true;
}

template <class M>
bool readFixedMatrix(std::string_view text, M& out)
{
    constexpr int R = M::RowsAtCompileTime;
    constexpr int C = M::ColsAtCompileTime;
    Rows rows;
    if (!splitRows(text, rows))
        return false;
    std::vector<std::string_view> tokens;
    if (rows.isFlat()) {
        tokens = rows.flat();
    } else {
        if (rows.rows.size() != static_cast<std::size_t>(R))
            return false;
        for (auto const& row : rows.rows) {
            if (row.size() != static_cast<std::size_t>(C))
                return false;
            tokens.insert(tokens.end(), row.begin(), row.end());
        }
    }
    if (tokens.size() != static_cast<std::size_t>(R * C))
        return false;
    Eigen::Matrix<typename M::Scalar, R, C, Eigen::RowMajor> rowMajor;
    if (!parseTokens(tokens.data(), tokens.size(), rowMajor.data()))
        return false;
    out = rowMajor;
    return true;
}

template <class V>
bool readFixedVectorVector(std::string_view text, std::vector<V>& out)
{
    constexpr std::size_t N = static_cast<std::size_t>(V::SizeAtCompileTime);
    Rows rows;
    if (!splitRows(text, rows))
        return false;
    std::vector<std::string_view> tokens;
    if (rows.isFlat()) {
        tokens = rows.flat();
    } else {
        for (auto const& row : rows.rows) {
            if (row.size() != N)
                return false;
            tokens.insert(tokens.end(), row.begin(), row.end());
        }
    }
    if (tokens.size() % N != 0)
        return false;
    std::vector<V> values(tokens.size() / N);
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!parseTokens(tokens.data() + i * N, N, values[i].data()))
            return false;
    out = std::move(values);
    return true;
}

template <class S>
bool readNumberVector(std::string_view text, std::vector<S>& out)
{
    Rows rows;
    if (!splitRows(text, rows) || !rows.isFlat())
        return false;
    auto tokens = rows.flat();
    std::vector<S> values(tokens.size());
    if (!parseTokens(tokens.data(), tokens.size(), values.data()))
        return false;
    out = std::move(values);
    return true;
}

template <class E>
void appendRow(std::string& out, E const& row)
{
    for (Eigen::Index i = 0; i < row.size(); ++i) {
        if (i > 0)
            out += ' ';
        appendNumber(out, row(i));
    }
}

// "[" + items joined by ", " + "]", for handing list items to a row reader.
std::string bracketItems(std::vector<std::string> const& items);
} // namespace Detail

// ---------------------------------------------------------------------------------------------
// Text form of one value

template <class T>
requires TextType<T> || OptionalType<T> || StringVector<T> std::string toText(T const& value)
{
    if constexpr (std::is_same_v<T, bool>) {
        return writeBool(value);
    } else if constexpr (Number<T>) {
        std::string out;
        appendNumber(out, value);
        return out;
    } else if constexpr (Enumeration<T>) {
        return toText(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_pointer_v<T>) {
        return value ? std::string(value) : std::string();
    } else if constexpr (StringLike<T>) {
        return std::string(std::string_view(value));
    } else if constexpr (std::is_same_v<T, std::filesystem::path>) {
        return value.string();
    } else if constexpr (FixedVector<T>) {
        std::string out;
        Detail::appendRow(out, value);
        return out;
    } else if constexpr (FixedMatrix<T>) {
        std::string out = "[";
        for (Eigen::Index r = 0; r < value.rows(); ++r) {
            if (r > 0)
                out += ", ";
            Detail::appendRow(out, value.row(r));
        }
        out += ']';
        return out;
    } else if constexpr (NumberVector<T>) {
        std::string out;
        for (std::size_t i = 0; i < value.size(); ++i) {
            if (i > 0)
                out += ' ';
            appendNumber(out, value[i]);
        }
        return out;
    } else if constexpr (FixedVectorVector<T>) {
        if (value.empty())
            return {};
        std::string out = "[";
        for (std::size_t i = 0; i < value.size(); ++i) {
            if (i > 0)
                out += ", ";
            Detail::appendRow(out, value[i]);
        }
        out += ']';
        return out;
    } else if constexpr (StringVector<T>) {
        // Only for messages and the "default" attribute: a list has no text form of its own.
        std::string out;
        for (std::size_t i = 0; i < value.size(); ++i)
            out += (i > 0 ? ", " : "") + value[i];
        return out;
    } else if constexpr (OptionalType<T>) {
        return value ? toText(*value) : std::string();
    } else {
        static_assert(Detail::alwaysFalse<T>, "ValueText: no text form for this type");
    }
}

template <class T>
requires(TextType<T> && !std::is_pointer_v<T> && !std::is_array_v<T>) || OptionalType<T> ||
    StringVector<T> bool fromText(std::string_view text, T& out)
{
    if constexpr (std::is_same_v<T, bool>) {
        return parseBool(text, out);
    } else if constexpr (Number<T>) {
        return parseNumber(text, out);
    } else if constexpr (Enumeration<T>) {
        std::underlying_type_t<T> raw{};
        if (!parseNumber(text, raw))
            return false;
        out = static_cast<T>(raw);
        return true;
    } else if constexpr (std::is_same_v<T, std::string>) {
        out = std::string(text);
        return true;
    } else if constexpr (std::is_same_v<T, std::filesystem::path>) {
        out = std::filesystem::path(std::string(text));
        return true;
    } else if constexpr (FixedVector<T>) {
        return Detail::readFixedVector(text, out);
    } else if constexpr (FixedMatrix<T>) {
        return Detail::readFixedMatrix(text, out);
    } else if constexpr (NumberVector<T>) {
        return Detail::readNumberVector(text, out);
    } else if constexpr (FixedVectorVector<T>) {
        return Detail::readFixedVectorVector(text, out);
    } else if constexpr (StringVector<T>) {
        out = text.empty() ? std::vector<std::string>{} : std::vector<std::string>{std::string(text)};
        return true;
    } else if constexpr (OptionalType<T>) {
        using Item = typename Detail::OptionalTraits<T>::Item;
        bool const none =
            std::is_same_v<Item, std::string> ? text.empty() : text.find_first_not_of(" \t\r\n") == text.npos;
        if (none) {
            out.reset();
            return true;
        }
        Item item{};
        if (!fromText(text, item))
            return false;
        out = std::move(item);
        return true;
    } else {
        static_assert(Detail::alwaysFalse<T>, "ValueText: no text form for this type");
    }
}

// ---------------------------------------------------------------------------------------------
// Stored form (text or list)

template <class T>
requires Supported<T> ParamValue toValue(T const& value)
{
    if constexpr (StringVector<T>)
        return ParamValue::fromList(value);
    else
        return ParamValue::fromText(toText(value));
}

template <class T>
requires(TextType<T> && !std::is_pointer_v<T> && !std::is_array_v<T>) || OptionalType<T> ||
    StringVector<T> bool fromValue(ParamValue const& value, T& out)
{
    if (!value.isList())
        return fromText(value.text, out);
    std::vector<std::string> const& items = *value.list;
    if constexpr (StringVector<T>) {
        out = items;
        return true;
    } else if constexpr (NumberVector<T>) {
        T all;
        for (auto const& item : items) {
            T part;
            if (!fromText(item, part))
                return false;
            all.insert(all.end(), part.begin(), part.end());
        }
        out = std::move(all);
        return true;
    } else if constexpr (FixedVectorVector<T>) {
        T all(items.size());
        for (std::size_t i = 0; i < items.size(); ++i)
            if (!fromText(items[i], all[i]))
                return false;
        out = std::move(all);
        return true;
    } else if constexpr (FixedEigen<T>) {
        return fromText(Detail::bracketItems(items), out);
    } else if constexpr (OptionalFixedEigen<T>) {
        typename Detail::OptionalTraits<T>::Item item;
        if (!fromValue(value, item))
            return false;
        out = item;
        return true;
    } else {
        return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Helpers for callers

// A short name of the type for messages: "double", "3-vector of float", "list of text", ...
template <class T>
std::string typeName()
{
    if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_same_v<T, float>)
        return "float";
    else if constexpr (std::is_same_v<T, double>)
        return "double";
    else if constexpr (std::is_floating_point_v<T>)
        return "long double";
    else if constexpr (Number<T>)
        return std::string(std::is_signed_v<T> ? "" : "unsigned ") + std::to_string(sizeof(T) * 8) +
               "-bit integer";
    else if constexpr (Enumeration<T>)
        return "enumeration (integer)";
    else if constexpr (StringLike<T>)
        return "text";
    else if constexpr (std::is_same_v<T, std::filesystem::path>)
        return "path";
    else if constexpr (FixedVector<T>)
        return std::to_string(T::SizeAtCompileTime) + "-vector of " + typeName<typename T::Scalar>();
    else if constexpr (FixedMatrix<T>)
        return std::to_string(T::RowsAtCompileTime) + "x" + std::to_string(T::ColsAtCompileTime) +
               " matrix of " + typeName<typename T::Scalar>();
    else if constexpr (StdVector<T>)
        return "list of " + typeName<typename Detail::VectorTraits<T>::Item>();
    else if constexpr (Optional<T>)
        return "optional " + typeName<typename Detail::OptionalTraits<T>::Item>();
    else
        return "value";
}

// Equality that a change signal can trust: NaN equals NaN, -0 differs from +0 (their texts
// differ too), Eigen values compare element-wise.
template <class T>
bool sameValue(T const& a, T const& b)
{
    if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(a) || std::isnan(b))
            return std::isnan(a) && std::isnan(b);
        return a == b && std::signbit(a) == std::signbit(b);
    } else if constexpr (FixedEigen<T>) {
        for (Eigen::Index i = 0; i < a.size(); ++i)
            if (!sameValue(a.data()[i], b.data()[i]))
                return false;
        return true;
    } else if constexpr (StdVector<T>) {
        if (a.size() != b.size())
            return false;
        for (std::size_t i = 0; i < a.size(); ++i)
            if (!sameValue(a[i], b[i]))
                return false;
        return true;
    } else if constexpr (Optional<T>) {
        if (a.has_value() != b.has_value())
            return false;
        return !a.has_value() || sameValue(*a, *b);
    } else {
        return a == b;
    }
}

// ---------------------------------------------------------------------------------------------
// Attribute text

// Replaces `out` and returns true when the whole text parses; otherwise leaves `out` alone and,
// when `error` is given, says what is wrong ("missing ':' in entry 'abc'").
bool parseAttributes(std::string_view text, ParamAttributes& out, std::string* error = nullptr);
// Entries joined by ", "; a value is quoted when it is empty or holds blanks, commas or quotes.
std::string writeAttributes(ParamAttributes const& attributes);

} // namespace ValueText
} // namespace Velmoria
