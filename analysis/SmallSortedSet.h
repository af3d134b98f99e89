// CSmallSortedSet: an ordered set of small integers without duplicates, made
// for the many small sets of the flow tracking (a source's destination
// addresses and ports in one time bin), which mostly hold a handful of
// members and exist by the hundred thousand.
//
// Up to N members live inside the object, sorted; more move to a sorted
// array on the heap; past kFlatLimit members, to a node-based tree, so that
// a set that grows large still takes each member in logarithmic time. The
// members are visited in ascending order in every form, and the form follows
// from the size alone, since members are never removed.
//
// Not thread-safe: the owner's lock guards it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>
#include <type_traits>
#include <utility>

#include "host/Types.h"

namespace VEXIL {

template <typename T, u32 N>
class CSmallSortedSet {
    static_assert(std::is_integral<T>::value, "members are integers");

public:
    CSmallSortedSet() {}
    CSmallSortedSet(const CSmallSortedSet& other) { InsertAll(other); }
    CSmallSortedSet(CSmallSortedSet&& other) noexcept { Steal(other); }
    CSmallSortedSet& operator=(CSmallSortedSet other) noexcept {
        Release();
        Steal(other);
        return *this;
    }
    ~CSmallSortedSet() { Release(); }

    size_t Size() const { return m_Size; }

    // Adds value unless it is a member already; true when it was added.
    bool Insert(T value) {
        if (IsTree()) {
            if (!m_Tree->insert(value).second) {
                return false;
            }
            ++m_Size;
            return true;
        }
        T* members = Flat();
        T* at = std::lower_bound(members, members + m_Size, value);
        if (at != members + m_Size && *at == value) {
            return false;
        }
        if (m_Size == kFlatLimit) {
            auto* tree = new std::set<T>(members, members + m_Size);
            tree->insert(value);
            delete[] m_Heap;
            m_Tree = tree;
            ++m_Size;
            return true;
        }
        if (m_Size == m_Capacity) {
            const u32 capacity = std::min<u32>(m_Capacity * 2, kFlatLimit);
            T* grown = new T[capacity];
            const size_t before = size_t(at - members);
            std::memcpy(grown, members, before * sizeof(T));
            std::memcpy(grown + before + 1, at, (m_Size - before) * sizeof(T));
            grown[before] = value;
            if (m_Capacity > N) {
                delete[] m_Heap;
            }
            m_Heap = grown;
            m_Capacity = capacity;
        } else {
            std::memmove(at + 1, at, size_t(members + m_Size - at) * sizeof(T));
            *at = value;
        }
        ++m_Size;
        return true;
    }

    // Calls visit with each member, in ascending order.
    template <typename Visit>
    void ForEach(Visit visit) const {
        if (IsTree()) {
            for (const T member : *m_Tree) {
                visit(member);
            }
            return;
        }
        const T* members = Flat();
        for (u32 i = 0; i < m_Size; ++i) {
            visit(members[i]);
        }
    }

    void InsertAll(const CSmallSortedSet& other) {
        other.ForEach([this](T member) { Insert(member); });
    }

private:
    // The largest set kept as a sorted array.
    static constexpr u32 kFlatLimit = 4096;

    bool IsTree() const { return m_Size > kFlatLimit; }
    T* Flat() { return m_Capacity > N ? m_Heap : m_Inline; }
    const T* Flat() const { return m_Capacity > N ? m_Heap : m_Inline; }

    void Release() {
        if (IsTree()) {
            delete m_Tree;
        } else if (m_Capacity > N) {
            delete[] m_Heap;
        }
    }
    // Takes other's members and leaves it empty.
    void Steal(CSmallSortedSet& other) {
        m_Size = other.m_Size;
        m_Capacity = other.m_Capacity;
        if (IsTree()) {
            m_Tree = other.m_Tree;
        } else if (m_Capacity > N) {
            m_Heap = other.m_Heap;
        } else {
            std::memcpy(m_Inline, other.m_Inline, sizeof m_Inline);
        }
        other.m_Size = 0;
        other.m_Capacity = N;
    }

    u32 m_Size = 0;
    u32 m_Capacity = N;  // room of the sorted array, inline or on the heap
    union {
        T m_Inline[N];
        T* m_Heap;
        std::set<T>* m_Tree;
    };
};

}  // namespace VEXIL
