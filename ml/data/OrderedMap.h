#pragma once

// OrderedMap<Key, Value>: a map that keeps the order in which keys were first inserted.
//
// It is one vector of (key, value) pairs and every lookup is a linear scan by equal key. That is
// the chosen method, not a shortcut: its main user, DataItem, holds a handful of fields and
// iterates over them in insertion order far more often than it looks one up, so a vector beats
// any hashed or tree index on both counts and keeps the order for free.
//
// Rules:
// - operator[] on a non-const map finds the key or appends it with a default value.
// - A lookup on a const map (operator[] const, at) that finds nothing throws std::out_of_range
//   with the message "Key not found in OrderedMap". at() on a non-const map throws as well.
// - Assigning to an existing key keeps its position; keys are unique at all times (the
//   initializer-list constructor lets a repeated key replace the earlier value in place).

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Velmoria::ML {

template <class Key, class Value>
class OrderedMap
{
public:
    using key_type = Key;
    using mapped_type = Value;
    using value_type = std::pair<Key, Value>;
    using Storage = std::vector<value_type>;
    using iterator = typename Storage::iterator;
    using const_iterator = typename Storage::const_iterator;

    OrderedMap() = default;
    OrderedMap(std::initializer_list<value_type> pairs)
    {
        for (auto const& pair : pairs)
            (*this)[pair.first] = pair.second;
    }

    iterator begin() { return m_pairs.begin(); }
    iterator end() { return m_pairs.end(); }
    const_iterator begin() const { return m_pairs.begin(); }
    const_iterator end() const { return m_pairs.end(); }

    std::size_t size() const { return m_pairs.size(); }
    bool empty() const { return m_pairs.empty(); }
    void clear() { m_pairs.clear(); }

    iterator find(Key const& key)
    {
        return std::find_if(m_pairs.begin(), m_pairs.end(),
                            [&](value_type const& p) { return p.first == key; });
    }
    const_iterator find(Key const& key) const
    {
        return std::find_if(m_pairs.begin(), m_pairs.end(),
                            [&](value_type const& p) { return p.first == key; });
    }
    bool contains(Key const& key) const { return find(key) != end(); }

    Value& operator[](Key const& key)
    {
        auto it = find(key);
        if (it != end())
            return it->second;
        m_pairs.emplace_back(key, Value{});
        return m_pairs.back().second;
    }
    Value const& operator[](Key const& key) const { return at(key); }

    Value& at(Key const& key)
    {
        auto it = find(key);
        if (it == end())
            throw std::out_of_range("Key not found in OrderedMap");
        return it->second;
    }
    Value const& at(Key const& key) const
    {
        auto it = find(key);
        if (it == end())
            throw std::out_of_range("Key not found in OrderedMap");
        return it->second;
    }

    // Replaces the value of an existing key in place, or appends the pair. True when appended.
    bool insertOrAssign(Key const& key, Value value)
    {
        auto it = find(key);
        if (it != end()) {
            it->second = std::move(value);
            return false;
        }
        m_pairs.emplace_back(key, std::move(value));
        return true;
    }

    // Removes the pair of `key`; the others keep their order. False when absent.
    bool erase(Key const& key)
    {
        auto it = find(key);
        if (it == end())
            return false;
        m_pairs.erase(it);
        return true;
    }
    iterator erase(const_iterator position) { return m_pairs.erase(position); }

    std::vector<Key> keys() const
    {
        std::vector<Key> result;
        result.reserve(m_pairs.size());
        for (auto const& pair : m_pairs)
            result.push_back(pair.first);
        return result;
    }

    // The same pairs in the same order.
    bool operator==(OrderedMap const& other) const { return m_pairs == other.m_pairs; }

private:
    Storage m_pairs;
};

} // namespace Velmoria::ML
