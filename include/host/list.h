// The list that carries values in records shared with the host, as both
// modules see it. The host and this module both read its nodes directly, and
// either may call a list through its table of operations, so its layout and
// the order of its virtual operations are a contract between the two:
//
//   list object (24 bytes):  table pointer, head (the sentinel), size
//   node (24 bytes for a 32-bit value):  next, previous, value
//
// The list is a ring through the sentinel: head->next is the first element,
// head->previous the last, and an empty list's sentinel points at itself.
// The sentinel's value is never read. Not thread-safe: a list belongs to one
// thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "host/abi.h"
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
    int64_t size;
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
    QM_DESTRUCTOR_SLOT(IConstListEnum)
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
    QM_DESTRUCTOR_SLOT(IListEnum)
};

// No virtual destructor: whoever owns a list frees its nodes and sentinel.
// Last and First come in pairs of overloads, declared as the host declares
// them; QM_OVERLOADS gives the table the host's order (const first).
template <class T>
class IList
{
public:
    // Both give 0, or kListNoMemory when no node can be had.
    virtual Status Append(const T& value) = 0;
    virtual Status Prepend(const T& value) = 0;
    // Null when the list is empty.
    QM_OVERLOADS(virtual T* Last() = 0;, virtual const T* Last() const = 0;)
    // 0, or kListNotFound with value untouched when the list is empty.
    virtual Status GetLast(T& value) const = 0;
    QM_OVERLOADS(virtual T* First() = 0;, virtual const T* First() const = 0;)
    virtual Status GetFirst(T& value) const = 0;
    // Removes the element at the enumerator, which then stands on the
    // element behind it. Does nothing at the sentinel or for an enumerator
    // of another list.
    virtual void Erase(IListEnum<T>& position) = 0;
    // New enumerators at the first element, or null when memory runs out.
    virtual IConstListEnum<T>* ConstEnum() const = 0;
    virtual IListEnum<T>* Enum() = 0;
    virtual void Clear() = 0;
    virtual int64_t Count() const = 0;

protected:
    ~IList() = default;
};

// The layouts both modules rely on, for the 32-bit values that records carry.
static_assert(sizeof(ListNode<uint32_t>) == 24, "a node is 24 bytes");
static_assert(offsetof(ListNode<uint32_t>, next) == 0, "node layout");
static_assert(offsetof(ListNode<uint32_t>, previous) == 8, "node layout");
static_assert(offsetof(ListNode<uint32_t>, value) == 16, "node layout");
static_assert(offsetof(ListFields<uint32_t>, head) == 0, "list layout");
static_assert(offsetof(ListFields<uint32_t>, size) == 8, "list layout");
} // namespace qm
