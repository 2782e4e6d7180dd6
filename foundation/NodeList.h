// An ordered, doubly linked list in insertion order. Values are destroyed by RemoveAll (and on
// destruction); a list of pointers leaves the pointed-to records to their owner.
#pragma once

#include "foundation/NodeBlocks.h"

#include <new>
#include <utility>

template <typename T> class NodeList
{
public:
    NodeList() noexcept = default;
    NodeList(const NodeList&) = delete;
    NodeList& operator=(const NodeList&) = delete;
    ~NodeList() { RemoveAll(); }

    POSITION AddTail(const T& value) { return LinkTail(NewNode(value, m_tail, nullptr)); }
    // A value given up by its caller is moved in: for a shared string, no count of shares to raise and lower.
    POSITION AddTail(T&& value) { return LinkTail(NewNode(std::move(value), m_tail, nullptr)); }

    POSITION AddHead(const T& value)
    {
        Node* node = NewNode(value, nullptr, m_head);
        if (m_head)
            m_head->previous = node;
        else
            m_tail = node;
        m_head = node;
        return ToPosition(node);
    }

    POSITION GetHeadPosition() const noexcept { return ToPosition(m_head); }
    POSITION GetTailPosition() const noexcept { return ToPosition(m_tail); }

    // The value at `position`; moves `position` to the next node (null after the tail).
    T& GetNext(POSITION& position) noexcept
    {
        Node* node = FromPosition(position);
        position = ToPosition(node->next);
        return node->value;
    }
    const T& GetNext(POSITION& position) const noexcept
    {
        Node* node = FromPosition(position);
        position = ToPosition(node->next);
        return node->value;
    }
    T& GetHead() noexcept { return m_head->value; }
    const T& GetHead() const noexcept { return m_head->value; }

    size_t GetCount() const noexcept { return m_count; }
    bool IsEmpty() const noexcept { return m_count == 0; }

    // The tail node goes back to its block; the list must not be empty.
    void RemoveTail() noexcept
    {
        Node* node = m_tail;
        m_tail = node->previous;
        if (m_tail)
            m_tail->next = nullptr;
        else
            m_head = nullptr;
        node->~Node();
        m_blocks.Give(node);
        --m_count;
    }

    void RemoveAll() noexcept
    {
        for (Node* node = m_head; node;)
        {
            Node* next = node->next;
            node->~Node();
            node = next;
        }
        m_head = m_tail = nullptr;
        m_count = 0;
        m_blocks.FreeAll();
    }

private:
    struct Node
    {
        template <typename V> Node(V&& v, Node* p, Node* n) : value(std::forward<V>(v)), previous(p), next(n)
        {
        }
        T value;
        Node* previous;
        Node* next;
    };

    POSITION LinkTail(Node* node) noexcept
    {
        if (m_tail)
            m_tail->next = node;
        else
            m_head = node;
        m_tail = node;
        return ToPosition(node);
    }

    template <typename V> Node* NewNode(V&& value, Node* previous, Node* next)
    {
        void* storage = m_blocks.Take();
        Node* node;
        try
        {
            node = new (storage) Node(std::forward<V>(value), previous, next);
        }
        catch (...)
        {
            m_blocks.Give(storage);
            throw;
        }
        ++m_count;
        return node;
    }

    static POSITION ToPosition(Node* node) noexcept { return reinterpret_cast<POSITION>(node); }
    static Node* FromPosition(POSITION position) noexcept { return reinterpret_cast<Node*>(position); }

    Node* m_head = nullptr;
    Node* m_tail = nullptr;
    size_t m_count = 0;
    NodeBlocks<Node> m_blocks;
};
