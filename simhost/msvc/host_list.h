// The host's own list, built with the host's compiler: the layout and the
// table of host/list.h, so that a record the host fills travels to the plugin
// as the service's would.
#pragma once

#include "host/list.h"

namespace msvc
{
template <class T>
class HostListEnum final : public qm::IListEnum<T>
{
public:
    explicit HostListEnum(qm::ListNode<T>* const* list) : list(list), current((*list)->next) {}
    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

    qm::ListNode<T>* const* list;
    qm::ListNode<T>* current;
};

template <class T>
class HostConstListEnum final : public qm::IConstListEnum<T>
{
public:
    explicit HostConstListEnum(qm::ListNode<T>* const* list) : list(list), current((*list)->next) {}
    bool HasMore() const override { return current != *list; }
    void Next() override { current = current->next; }
    const T* Current() const override { return &current->value; }
    void Release() override { delete this; }
    void Reset() override { current = (*list)->next; }

private:
    qm::ListNode<T>* const* list;
    const qm::ListNode<T>* current;
};

template <class T>
class HostList final : public qm::IList<T>
{
public:
    HostList() : fields{new Node{}, 0} { fields.head->next = fields.head->previous = fields.head; }
    ~HostList()
    {
        Clear();
        delete fields.head;
    }
    HostList(const HostList&) = delete;
    HostList& operator=(const HostList&) = delete;

    Status Append(const T& value) override { return Insert(fields.head, value); }
    Status Prepend(const T& value) override { return Insert(fields.head->next, value); }
    T* Last() override { return Empty() ? nullptr : &fields.head->previous->value; }
    const T* Last() const override { return Empty() ? nullptr : &fields.head->previous->value; }
    Status GetLast(T& value) const override { return Get(fields.head->previous, value); }
    T* First() override { return Empty() ? nullptr : &fields.head->next->value; }
    const T* First() const override { return Empty() ? nullptr : &fields.head->next->value; }
    Status GetFirst(T& value) const override { return Get(fields.head->next, value); }
    void Erase(qm::IListEnum<T>& position) override
    {
        auto& enumerator = static_cast<HostListEnum<T>&>(position);
        Node* node = enumerator.current;
        if (enumerator.list != &fields.head || node == fields.head)
            return;
        enumerator.current = node->next;
        node->previous->next = node->next;
        node->next->previous = node->previous;
        --fields.size;
        delete node;
    }
    qm::IConstListEnum<T>* ConstEnum() const override { return new HostConstListEnum<T>(&fields.head); }
    qm::IListEnum<T>* Enum() override { return new HostListEnum<T>(&fields.head); }
    void Clear() override
    {
        for (Node* node = fields.head->next; node != fields.head;)
        {
            Node* next = node->next;
            delete node;
            node = next;
        }
        fields.head->next = fields.head->previous = fields.head;
        fields.size = 0;
    }
    int64_t Count() const override { return fields.size; }

private:
    using Node = qm::ListNode<T>;

    bool Empty() const { return fields.head->next == fields.head; }
    Status Get(const Node* node, T& value) const
    {
        if (Empty())
            return qm::kListNotFound;
        value = node->value;
        return 0;
    }
    Status Insert(Node* at, const T& value)
    {
        Node* node = new Node{at, at->previous, value};
        at->previous->next = node;
        at->previous = node;
        ++fields.size;
        return 0;
    }

    qm::ListFields<T> fields;
};
} // namespace msvc
