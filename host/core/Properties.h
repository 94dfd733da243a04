#pragma once

// Properties: the hierarchical key/value tree in which every configuration of the system lives
// (algorithm parameters, operation lists, model files, settings).
//
// A tree has a name (may be empty), an ordered list of parameters and an ordered list of owned
// sub-trees (names may repeat or be empty). Parameter keys are unique; a new key goes to the
// end and setting an existing key keeps its position, so that files written from a tree keep a
// stable, readable order. Each parameter holds
//   - a value: a text, or a list of texts (ParamValue). All conversions between typed values and
//     text go through ValueText, the one reader and writer of the text forms;
//   - a type: a ParamType kind plus flag bits, telling forms and writers what the value is;
//   - attributes: an ordered list of (name, value) pairs, names may repeat. Some names are
//     understood by other parts: "default", "label", "values" (the names of an enumeration),
//     "deprecatedName", "required", "hidden".
//
// Reading (`param`) never throws and never logs: callers know best whether a missing or
// unreadable key is an error. Parameters are kept in a vector and found by a linear search;
// trees hold tens of keys, where that beats any map. A tree is not thread-safe.

#include "host/core/ValueText.h"

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria {

// The type of a parameter: a kind in the low byte, flag bits above it. Stored in files as
// a decimal number (a hidden text parameter is 0x104 = 260).
struct ParamType
{
    static constexpr int Default = 0;     // untyped text
    static constexpr int Bool = 1;        //
    static constexpr int Int = 2;         // any integer
    static constexpr int Double = 3;      // any floating-point number
    static constexpr int String = 4;      //
    static constexpr int Vector = 5;      // numbers "1 2 3"
    static constexpr int Matrix = 6;      // rows "[1 0, 0 1]", also lists of fixed vectors
    static constexpr int Path = 7;        // a file or folder
    static constexpr int Label = 8;       // display text, not a value; YAML writers skip it
    static constexpr int Enumeration = 9; // one of the names in the attribute "values"
    static constexpr int List = 10;       // a list of texts

    static constexpr int KindMask = 0xff;
    static constexpr int Hidden = 0x100; // not shown in forms, skipped by YAML writers

    static constexpr int kind(int type) { return type & KindMask; }
    static constexpr bool isHidden(int type) { return (type & Hidden) != 0; }
    static constexpr int withKind(int type, int kind) { return (type & ~KindMask) | (kind & KindMask); }

    // The kind that setParam<T> gives a key that has none yet.
    template <class T>
    static constexpr int kindOf()
    {
        using namespace ValueText;
        if constexpr (std::is_same_v<T, bool>)
            return Bool;
        else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>)
            return Int;
        else if constexpr (std::is_floating_point_v<T>)
            return Double;
        else if constexpr (std::is_same_v<T, std::filesystem::path>)
            return Path;
        else if constexpr (StringLike<T>)
            return String;
        else if constexpr (FixedVector<T> || NumberVector<T>)
            return Vector;
        else if constexpr (FixedMatrix<T> || FixedVectorVector<T>)
            return Matrix;
        else if constexpr (StringVector<T>)
            return List;
        else if constexpr (Optional<T>)
            return kindOf<typename Detail::OptionalTraits<T>::Item>();
        else
            return Default;
    }
};

class Properties;

namespace PropertiesDetail {
// A value of the initializer-list constructor: anything with a text form, converted on the spot.
class StringAccepter
{
public:
    StringAccepter(char const* text)
        : m_value(ParamValue::fromText(text ? text : ""))
        , m_kind(ParamType::String)
    {}
    StringAccepter(std::string text)
        : m_value(ParamValue::fromText(std::move(text)))
        , m_kind(ParamType::String)
    {}
    template <class T>
    requires(ValueText::Supported<T> && !ValueText::StringLike<T>) StringAccepter(T const& value)
        : m_value(ValueText::toValue(value))
        , m_kind(ParamType::kindOf<T>())
    {}

    ParamValue const& value() const { return m_value; }
    int kind() const { return m_kind; }

private:
    ParamValue m_value;
    int m_kind;
};
} // namespace PropertiesDetail

class Properties
{
public:
    // One parameter, as the tree stores it.
    struct Param
    {
        std::string key;
        ParamValue value;
        int type = ParamType::Default;
        ParamAttributes attributes;

        bool operator==(Param const&) const = default;
    };

    // Bits of copyFrom.
    enum CopyFlags : int
    {
        CopyValues = 1,          // copy values; keys missing here are appended at the end
        CopyTypes = 2,           // copy the types of the copied keys
        CopyAttributes = 4,      // replace the attributes of the copied keys
        CopySubProperties = 8,   // append deep copies of the other's sub-trees
        MergeSubProperties = 16, // instead merge each into the same-named one here (see copyFrom)
        CopyName = 32,           // take the other's name
        CopyDefault = CopyValues | CopyTypes | CopyAttributes | CopySubProperties,
    };

    // Bits of compareWith; 0 compares keys, values and sub-trees only.
    enum CompareFlags : int
    {
        CompareOrder = 1,      // parameters in the same order
        CompareTypes = 2,      // same types
        CompareAttributes = 4, // same attribute lists
        CompareName = 8,       // same name of the two roots (sub-tree names always count)
        CompareAll = 255,
    };

    Properties();
    explicit Properties(std::string name);
    // Properties p{{"size", 3}, {"mode", "linear"}, {"spacing", Eigen::Vector3d(1, 1, 2)}};
    Properties(std::initializer_list<std::pair<std::string, PropertiesDetail::StringAccepter>> values);
    Properties(Properties const& other);
    Properties(Properties&& other) noexcept;
    Properties& operator=(Properties const& other);
    Properties& operator=(Properties&& other) noexcept;
    ~Properties();

    std::string const& name() const { return m_name; }
    void setName(std::string name) { m_name = std::move(name); }

    // ---- Values -----------------------------------------------------------------------------

    // True and `out` filled when the key exists and its value reads as T; otherwise false and
    // `out` untouched. Never throws, never logs.
    template <class T>
    bool param(std::string_view key, T& out) const
    {
        ParamValue const* value = paramValue(key);
        return value && ValueText::fromValue(*value, out);
    }

    // The value of the key, or `fallback` when it is missing or unreadable.
    template <class T>
    T paramOr(std::string_view key, T fallback) const
    {
        param(key, fallback);
        return fallback;
    }

    // Stores the value (a vector<string> as a list, anything else as its text). A key without
    // a kind gets the kind of T; an existing kind and the Hidden flag stay as they are.
    template <class T>
    requires ValueText::Supported<T>
    void setParam(std::string_view key, T const& value)
    {
        storeValue(key, ValueText::toValue(value), ParamType::kindOf<T>());
    }
    // As above, and sets the attribute "default" to the text of `defaultValue` (list items
    // joined by ", ").
    template <class T>
    requires ValueText::Supported<T>
    void setParam(std::string_view key, T const& value, std::type_identity_t<T> const& defaultValue)
    {
        storeValue(key, ValueText::toValue(value), ParamType::kindOf<T>());
        setDefaultAttribute(key, ValueText::toText(defaultValue));
    }
    // paramOr(key, "text") reads a string rather than a pointer.
    std::string paramOr(std::string_view key, char const* fallback) const
    {
        return paramOr<std::string>(key, fallback ? fallback : "");
    }

    void setParam(std::string_view key, char const* text);
    void setParam(std::string_view key, std::string const& text, char const* defaultText);

    // Raw access for readers and writers of files: the value as stored, without conversion.
    // setParamValue keeps an existing key's type and attributes; setParamEntry replaces all.
    void setParamValue(std::string_view key, ParamValue value);
    void setParamEntry(Param entry);
    std::vector<Param> const& params() const { return m_params; }
    Param const* findParam(std::string_view key) const;
    ParamValue const* paramValue(std::string_view key) const;
    // The text of a text value; empty for a list value or a missing key.
    std::string paramValueText(std::string_view key) const;
    bool paramIsList(std::string_view key) const;

    bool contains(std::string_view key) const { return findParam(key) != nullptr; }
    bool removeParam(std::string_view key);
    // Keeps position, value, type and attributes. False when `oldKey` is missing or `newKey`
    // exists already (renaming a key to itself succeeds).
    bool renameParam(std::string_view oldKey, std::string_view newKey);
    std::vector<std::string> paramKeys() const;

    // ---- Types and attributes ---------------------------------------------------------------

    // The type of the key (ParamType::Default when it is missing).
    int paramType(std::string_view key) const;
    // False when the key is missing.
    bool setParamType(std::string_view key, int type);

    // Empty when the key is missing.
    ParamAttributes paramAttributes(std::string_view key) const;
    // The value of the first attribute of that name.
    std::optional<std::string> paramAttribute(std::string_view key, std::string_view name) const;
    // Replace the attributes of an existing key (false when it is missing). The text form is
    // ValueText's ("values: 'A, B', hidden: 1"); text that does not parse changes nothing,
    // returns false and logs a warning. An attribute "hidden" of "1"/"true" also sets the
    // Hidden flag of the type, "0"/"false" clears it.
    bool setParamAttributes(std::string_view key, std::string_view attributeText);
    bool setParamAttributes(std::string_view key, ParamAttributes attributes);
    // Appends one attribute (same "hidden" rule). False when the key is missing.
    bool addParamAttribute(std::string_view key, std::string name, std::string value);
    // setParamAttributes(key, text) for each (key, text) pair; false when any failed.
    bool setAttributes(std::vector<std::pair<std::string, std::string>> const& keyAttributeTexts);

    // ---- Whole tree ---------------------------------------------------------------------------

    // No parameters and no sub-trees (the name does not count).
    bool isEmpty() const { return m_params.empty() && m_subProperties.empty(); }
    // Removes parameters and sub-trees, keeps the name.
    void clear();

    // ---- Sub-trees ----------------------------------------------------------------------------

    // Appends a new, empty sub-tree and returns it.
    Properties* addSubProperties(std::string name);
    // Takes ownership and returns the tree (null for a null argument).
    Properties* addSubProperties(std::unique_ptr<Properties> properties);
    // Inserts before position `index`, clamped to [0, count].
    Properties* insertSubProperties(std::unique_ptr<Properties> properties, int index);
    std::vector<Properties*> subProperties();
    std::vector<Properties const*> subProperties() const;
    // All sub-trees of that name, in order.
    std::vector<Properties*> subProperties(std::string_view name);
    std::vector<Properties const*> subProperties(std::string_view name) const;
    // The first sub-tree of that name; created (appended) when missing and `create` is true,
    // otherwise null.
    Properties* subProperties(std::string_view name, bool create);
    Properties const* findSubProperties(std::string_view name) const;
    std::size_t subPropertiesCount() const { return m_subProperties.size(); }
    // False when `properties` is not a direct sub-tree of this one.
    bool deleteSubProperty(Properties const* properties);
    // Hands a direct sub-tree over to the caller (null when it is not one).
    std::unique_ptr<Properties> extractSubProperty(Properties const* properties);
    // Removes, recursively, every sub-tree that is empty after its own children were cleaned.
    void removeEmptySubProperties();

    // ---- Merging and comparing ----------------------------------------------------------------

    // Merges `other` into this tree; see CopyFlags. `filter` picks the parameter keys to copy
    // (all when empty); it does not apply to sub-trees. Appended sub-trees are full deep
    // copies. With MergeSubProperties the n-th sub-tree of a name in `other` is merged
    // (recursively, same flags, no filter) into the n-th sub-tree of that name here, so the
    // first goes into the first, and appended when there is none; a tree list with repeated
    // names (operation lists) thus merges item by item.
    void copyFrom(Properties const& other, int flags = CopyDefault,
                  std::function<bool(std::string_view key)> const& filter = {});

    // Equality of trees; see CompareFlags. Mode 0: the same keys with the same values (list
    // and text differ), in any order, and pairwise equal sub-trees in order (same count, same
    // names).
    bool compareWith(Properties const& other, int flags = 0) const;
    bool operator==(Properties const& other) const { return compareWith(other, CompareAll); }

    // A readable multi-line dump for logs and test failures.
    std::string describe() const;

private:
    Param* find(std::string_view key);
    // Sets the value, giving a new or untyped key the kind `kind`.
    void storeValue(std::string_view key, ParamValue value, int kind);
    void setDefaultAttribute(std::string_view key, std::string text);
    static void applyHiddenAttribute(Param& param);
    void describe(std::string& out, int depth) const;

    std::string m_name;
    std::vector<Param> m_params;
    std::vector<std::unique_ptr<Properties>> m_subProperties;
};

} // namespace Velmoria
