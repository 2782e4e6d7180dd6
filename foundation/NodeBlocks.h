// Nodes of lists and maps come from blocks of ten, each block one allocation, so that a selection of many
// paths costs few trips to the heap. Nodes return to a free list; blocks go back only all at once.
#pragma once

#include "foundation/AtlException.h"
#include "platform/Win32.h"

#include <cstddef>

typedef struct __POSITION
{
} * POSITION;

template <typename Node> class NodeBlocks
{
public:
    static constexpr int kNodesPerBlock = 10;

    NodeBlocks() noexcept = default;
    NodeBlocks(const NodeBlocks&) = delete;
    NodeBlocks& operator=(const NodeBlocks&) = delete;
    ~NodeBlocks() { FreeAll(); }

    // Raw storage for one node; the caller constructs it in place.
    void* Take()
    {
        if (!m_free)
            AddBlock();
        FreeNode* node = m_free;
        m_free = node->next;
        return node;
    }

    // Storage of a destroyed node goes back to the free list.
    void Give(void* storage) noexcept
    {
        auto* node = static_cast<FreeNode*>(storage);
        node->next = m_free;
        m_free = node;
    }

    // Every block back to the heap; the caller has destroyed the nodes already.
    void FreeAll() noexcept
    {
        while (m_blocks)
        {
            Block* next = m_blocks->next;
            HeapFree(GetProcessHeap(), 0, m_blocks);
            m_blocks = next;
        }
        m_free = nullptr;
    }

    bool HasBlocks() const noexcept { return m_blocks != nullptr; }

private:
    union FreeNode
    {
        FreeNode* next;
        alignas(Node) unsigned char storage[sizeof(Node)];
    };
    struct Block
    {
        Block* next;
        FreeNode nodes[kNodesPerBlock];
    };

    void AddBlock()
    {
        void* memory = HeapAlloc(GetProcessHeap(), 0, sizeof(Block));
        if (!memory)
            AtlThrow(E_OUTOFMEMORY);
        auto* block = static_cast<Block*>(memory);
        block->next = m_blocks;
        m_blocks = block;
        // Hand out nodes in address order.
        for (int i = kNodesPerBlock - 1; i >= 0; --i)
        {
            block->nodes[i].next = m_free;
            m_free = &block->nodes[i];
        }
    }

    Block* m_blocks = nullptr;
    FreeNode* m_free = nullptr;
};
