// The list that carries values in records shared with the host. The host and
// this module both read its nodes directly, and the host may also call it
// through its table of operations, so its layout and the order of its
// virtual operations are a contract between the two modules:
//
//   list object (24 bytes):  table pointer, head (the sentinel), size
//   node (24 bytes for a 32-bit value):  next, previous, value
//
// The list is a ring through the sentinel: head->next is the first element,
// head->previous the last, and an empty list's sentinel points at itself.
// The sentinel's value is never read. Not thread-safe: a list belongs to one
// thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "host/types.h"

namespace qm
{
constexpr Status kListNotFound = 1168;  // ERROR_NOT_FOUND: no first or last element
constexpr Status kListNoMemory = 8;     // ERROR_NOT_ENOUGH_MEMORY

template <class T>
struct ListNode
{
    ListNode* next;
    ListNode* previous;
    T value;
};

// The list's fields, right behind its table pointer.
template <class T>
struct ListFields
{
    ListNode<T>* head; // never null in a constructed list
    std::int64_t size;
};

template <class T>
class IConstListEnum
{
public:
    // True while the enumerator is not at the sentinel.
    virtual bool HasMore() const = 0;
    virtual void Next() = 0;
    // The current value; at the sentinel, a value that means nothing.
    virtual const T* Current() const = 0;
    // Destroys an enumerator made by ConstEnum.
    virtual void Release() = 0;
    // Back to the first element.
    virtual void Reset() = 0;
    virtual ~IConstListEnum() = default;
};

template <class T>
class IListEnum
{
public:
    virtual bool HasMore() const = 0;
    virtual void Next() = 0;
    virtual T* Current() const = 0;
    // Destroys an enumerator made by Enum.
    virtual void Release() = 0;
    virtual void Reset() = 0;
    virtual ~IListEnum() = default;
};

// No virtual destructor: whoever owns a list frees its nodes and sentinel.
// The const overloads of Last and First follow their plain ones in the table,
// as GCC lays overloads out in the order of declaration.
template <class T>
class IList
{
public:
    // Both give 0, or kListNoMemory when no node can be had.
    virtual Status Append(const T& value) = 0;
    virtual Status Prepend(const T& value) = 0;
    // Null when the list is empty.
    virtual T* Last() = 0;
    virtual const T* Last() const = 0;
    // 0, or kListNotFound with value untouched when the list is empty.
    virtual Status GetLast(T& value) const = 0;
    virtual T* First() = 0;
    virtual const T* First() const = 0;
    virtual Status GetFirst(T& value) const = 0;
    // Removes the element at the enumerator, which then stands on the
    // element behind it. Does nothing at the sentinel or for an enumerator
    // of another list.
    virtual void Erase(IListEnum<T>& position) = 0;
    // New enumerators at the first element, or null when memory runs out.
    virtual IConstListEnum<T>* ConstEnum() const = 0;
    virtual IListEnum<T>* Enum() = 0;
    virtual void Clear() = 0;
    virtual std::int64_t Count() const = 0;

protected:
    ~IList() = default;
};

template <class T>
class List;

template <class T>
class ListEnum final : public IListEnum<T>
{
public:
    explicit ListEnum(ListNode<T>* const* list) : list(list), current((*list)->next) {}
    ~ListEnum() override = default;

    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

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
    ~ConstListEnum() override = default;

    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    const T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

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

// The layouts the host relies on, for the 32-bit values that records carry.
static_assert(sizeof(ListNode<std::uint32_t>) == 24, "a node is 24 bytes");
static_assert(offsetof(ListNode<std::uint32_t>, next) == 0, "node layout");
static_assert(offsetof(ListNode<std::uint32_t>, previous) == 8, "node layout");
static_assert(offsetof(ListNode<std::uint32_t>, value) == 16, "node layout");
static_assert(offsetof(ListFields<std::uint32_t>, head) == 0, "list layout");
static_assert(offsetof(ListFields<std::uint32_t>, size) == 8, "list layout");
// The table pointer and the fields, nothing else: the fields start at 8.
static_assert(sizeof(List<std::uint32_t>) == sizeof(void*) + sizeof(ListFields<std::uint32_t>), "list layout");
static_assert(sizeof(List<std::uint32_t>) == 24, "a list object is 24 bytes");
static_assert(sizeof(ListEnum<std::uint32_t>) == 24, "enumerator layout");
static_assert(sizeof(ConstListEnum<std::uint32_t>) == 24, "enumerator layout");
} // namespace qm
