// This module's list: the host's list interface with its operations, and
// deep copies for the records that carry it. See host/list.h for the layout
// both modules share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "host/list.h"

namespace qm
{
template <class T>
class List;

template <class T>
class ListEnum final : public IListEnum<T>
{
public:
    explicit ListEnum(ListNode<T>* const* list) : list(list), current((*list)->next) {}
    ~ListEnum() = default;

    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

    QM_IMPLEMENTS_DESTRUCTOR_SLOT(ListEnum)

private:
    friend class List<T>;

    ListNode<T>* const* list; // the head field of the list
    ListNode<T>* current;
};

template <class T>
class ConstListEnum final : public IConstListEnum<T>
{
public:
    explicit ConstListEnum(ListNode<T>* const* list) : list(list), current((*list)->next) {}
    ~ConstListEnum() = default;

    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    const T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

    QM_IMPLEMENTS_DESTRUCTOR_SLOT(ConstListEnum)

private:
    ListNode<T>* const* list; // the head field of the list
    const ListNode<T>* current;
};

// Copies are deep and share no node with their source; they walk the
// source's nodes directly, so a list the host built copies the same way.
// Assignment reuses the target's nodes, adds or frees the difference, and
// leaves a list assigned to itself alone. Construction and copying throw
// std::bad_alloc when memory runs out; the operations of the table do not.
template <class T>
class List final : public IList<T>
{
public:
    List() : fields{new Node{}, 0} { fields.head->next = fields.head->previous = fields.head; }
    List(const List& other) : List() { _CopyFrom(other); }
    List& operator=(const List& other)
    {
        if (this != &other)
            _CopyFrom(other);
        return *this;
    }
    ~List()
    {
        Clear();
        delete fields.head;
    }

    Status Append(const T& value) override { return _InsertBefore(fields.head, value); }
    Status Prepend(const T& value) override { return _InsertBefore(fields.head->next, value); }
    T* Last() override { return _IsEmpty() ? nullptr : &fields.head->previous->value; }
    const T* Last() const override { return _IsEmpty() ? nullptr : &fields.head->previous->value; }
    Status GetLast(T& value) const override { return _Get(fields.head->previous, value); }
    T* First() override { return _IsEmpty() ? nullptr : &fields.head->next->value; }
    const T* First() const override { return _IsEmpty() ? nullptr : &fields.head->next->value; }
    Status GetFirst(T& value) const override { return _Get(fields.head->next, value); }

    void Erase(IListEnum<T>& position) override
    {
        auto& enumerator = static_cast<ListEnum<T>&>(position);
        Node* node = enumerator.current;
        if (enumerator.list != &fields.head || node == fields.head)
            return;
        enumerator.current = node->next;
        _Unlink(node);
    }

    IConstListEnum<T>* ConstEnum() const override { return new (std::nothrow) ConstListEnum<T>(&fields.head); }
    IListEnum<T>* Enum() override { return new (std::nothrow) ListEnum<T>(&fields.head); }

    // Breaks the ring at the last node and frees the nodes from the first on.
    void Clear() override
    {
        Node* const head = fields.head;
        head->previous->next = nullptr;
        for (Node* node = head->next; node;)
        {
            Node* next = node->next;
            delete node;
            node = next;
        }
        head->next = head->previous = head;
        fields.size = 0;
    }

    std::int64_t Count() const override { return fields.size; }

private:
    using Node = ListNode<T>;

    bool _IsEmpty() const { return fields.head->next == fields.head; }

    Status _Get(const Node* node, T& value) const
    {
        if (_IsEmpty())
            return kListNotFound;
        value = node->value;
        return 0;
    }

    Status _InsertBefore(Node* at, const T& value)
    {
        Node* node = new (std::nothrow) Node{at, at->previous, value};
        if (!node)
            return kListNoMemory;
        at->previous->next = node;
        at->previous = node;
        ++fields.size;
        return 0;
    }

    void _Unlink(Node* node)
    {
        node->previous->next = node->next;
        node->next->previous = node->previous;
        --fields.size;
        delete node;
    }

    void _CopyFrom(const List& other)
    {
        const Node* const sourceHead = other.fields.head;
        Node* const head = fields.head;
        const Node* from = sourceHead->next;
        Node* to = head->next;
        for (; from != sourceHead && to != head; from = from->next, to = to->next)
            to->value = from->value;
        while (to != head)
        {
            Node* next = to->next;
            _Unlink(to);
            to = next;
        }
        for (; from != sourceHead; from = from->next)
        {
            if (_InsertBefore(head, from->value) != 0)
                throw std::bad_alloc();
        }
    }

    ListFields<T> fields;
};

// The list object is its table pointer and its fields, nothing else.
// The table pointer and the fields, nothing else: the fields start at 8.
static_assert(sizeof(List<std::uint32_t>) == sizeof(void*) + sizeof(ListFields<std::uint32_t>), "list layout");
static_assert(sizeof(List<std::uint32_t>) == 24, "a list object is 24 bytes");
static_assert(sizeof(ListEnum<std::uint32_t>) == 24, "enumerator layout");
static_assert(sizeof(ConstListEnum<std::uint32_t>) == 24, "enumerator layout");
} // namespace qm
