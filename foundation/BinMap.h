// A chained hash map from WideString keys. Its bin counts, thresholds and iteration order are fixed
// because the order reaches the service: the mount paths of a request are listed in this map's order.
#pragma once

#include "foundation/NodeBlocks.h"
#include "foundation/WideString.h"

#include <new>

// Bin counts the map grows through, ended by a terminator.
extern const UINT g_binMapPrimes[61];

inline UINT HashKey(LPCWSTR key) noexcept
{
    UINT hash = 0;
    for (; *key; ++key)
        hash = hash * 33u + static_cast<UINT>(*key);
    return hash;
}

// Thresholds for a bin count: load times bins as 32-bit floats, fraction cut off; a low threshold below
// 17 means "never shrink".
inline size_t BinMapHighThreshold(UINT bins, float load = 2.25f) noexcept
{
    return static_cast<size_t>(load * static_cast<float>(bins));
}
inline size_t BinMapLowThreshold(UINT bins, float load = 0.25f) noexcept
{
    size_t low = static_cast<size_t>(load * static_cast<float>(bins));
    return low < 17 ? 0 : low;
}
// The bin count the map grows to when it holds `elements` (returns 17 for small maps).
UINT BinMapNextBinCount(size_t elements, float optimalLoad = 0.75f) noexcept;

template <typename V> class BinMap
{
public:
    BinMap() noexcept = default;
    BinMap(const BinMap&) = delete;
    BinMap& operator=(const BinMap&) = delete;
    ~BinMap() { RemoveAll(); }

    bool Lookup(LPCWSTR key, V& value) const
    {
        if (!key)
            AtlThrow(E_FAIL);
        UINT hash = HashKey(key);
        const Node* node = Find(key, hash);
        if (!node)
            return false;
        value = node->value;
        return true;
    }

    void SetAt(const WideString& key, const V& value)
    {
        UINT hash = HashKey(key.GetString());
        if (Node* node = Find(key.GetString(), hash))
        {
            node->value = value;
            return;
        }
        if (!m_bins)
            m_bins = NewTable(m_binCount);
        void* storage = m_blocks.Take();
        Node* node;
        try
        {
            node = new (storage) Node(key, value, hash);
        }
        catch (...)
        {
            m_blocks.Give(storage);
            throw;
        }
        UINT bin = hash % m_binCount;
        node->next = m_bins[bin];
        m_bins[bin] = node;
        ++m_count;
        if (m_count > m_highThreshold && m_rehashLock == 0)
            Rehash(BinMapNextBinCount(m_count, m_optimalLoad));
    }

    size_t GetCount() const noexcept { return m_count; }
    bool IsEmpty() const noexcept { return m_count == 0; }
    UINT GetHashTableSize() const noexcept { return m_binCount; }

    // Bins in ascending order, each chain from its head.
    POSITION GetStartPosition() const noexcept
    {
        if (!m_bins)
            return nullptr;
        return ToPosition(FirstFrom(0));
    }

    void GetNextAssoc(POSITION& position, WideString& key, V& value) const
    {
        const Node* node = FromPosition(position);
        key = node->key;
        value = node->value;
        position = ToPosition(Next(node));
    }
    // The value at `position` without copying the key (the map's order is all the caller needs).
    V& GetNextValue(POSITION& position) const noexcept
    {
        Node* node = FromPosition(position);
        position = ToPosition(Next(node));
        return node->value;
    }

    void RemoveAll() noexcept
    {
        ++m_rehashLock;
        if (m_bins)
        {
            for (UINT bin = 0; bin < m_binCount; ++bin)
                for (Node* node = m_bins[bin]; node;)
                {
                    Node* next = node->next;
                    node->~Node();
                    node = next;
                }
            delete[] m_bins;
            m_bins = nullptr;
        }
        m_count = 0;
        m_blocks.FreeAll();
        --m_rehashLock;
    }

private:
    struct Node
    {
        Node(const WideString& k, const V& v, UINT h) : key(k), value(v), next(nullptr), hash(h) {}
        WideString key;
        V value;
        Node* next;
        UINT hash;
    };

    static Node** NewTable(UINT bins)
    {
        Node** table = new (std::nothrow) Node*[bins];
        if (!table)
            AtlThrow(E_OUTOFMEMORY);
        for (UINT i = 0; i < bins; ++i)
            table[i] = nullptr;
        return table;
    }

    Node* Find(LPCWSTR key, UINT hash) const
    {
        if (!m_bins)
            return nullptr;
        for (Node* node = m_bins[hash % m_binCount]; node; node = node->next)
            if (node->hash == hash && CompareText(node->key.GetString(), key) == 0)
                return node;
        return nullptr;
    }

    Node* FirstFrom(UINT bin) const noexcept
    {
        for (; bin < m_binCount; ++bin)
            if (m_bins[bin])
                return m_bins[bin];
        return nullptr;
    }
    Node* Next(const Node* node) const noexcept
    {
        return node->next ? node->next : FirstFrom(node->hash % m_binCount + 1);
    }

    void Rehash(UINT bins)
    {
        if (bins == m_binCount)
            return;
        if (bins > 0x1FFFFFFF)
            AtlThrow(E_FAIL);
        Node** table = NewTable(bins);
        if (m_bins)
        {
            for (UINT bin = 0; bin < m_binCount; ++bin)
                for (Node* node = m_bins[bin]; node;)
                {
                    Node* next = node->next;
                    UINT target = node->hash % bins;
                    node->next = table[target];
                    table[target] = node;
                    node = next;
                }
            delete[] m_bins;
        }
        m_bins = table;
        m_binCount = bins;
        m_highThreshold = BinMapHighThreshold(bins, m_highLoad);
        m_lowThreshold = BinMapLowThreshold(bins, m_lowLoad);
    }

    static POSITION ToPosition(const Node* node) noexcept
    {
        return reinterpret_cast<POSITION>(const_cast<Node*>(node));
    }
    static Node* FromPosition(POSITION position) noexcept { return reinterpret_cast<Node*>(position); }

    Node** m_bins = nullptr;
    size_t m_count = 0;
    UINT m_binCount = 17;
    float m_optimalLoad = 0.75f;
    float m_lowLoad = 0.25f;
    float m_highLoad = 2.25f;
    size_t m_highThreshold = 38;
    size_t m_lowThreshold = 0;
    LONG m_rehashLock = 0;
    NodeBlocks<Node> m_blocks;
};
