// Work items: small heap objects handed to ISerialExecution::Post and
// IEventQueue::SetTimer. The poster builds an item in a local owning pointer
// and gives up ownership at the call; from then on the host runs it and
// releases it once. Each item carries the full name of the function it runs:
// Run is an entry of the host's, and an exception out of that function ends
// there under that name (support/boundary.h).
#pragma once

#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "host/eq_work_item.h"
#include "support/boundary.h"

// The one definition of Release shared by every concrete item: deletes the
// item through its virtual destructor; null does nothing.
inline void ReleaseWorkItem(EqWorkItem* item)
{
    DestroyThroughDestructorSlot(item);
}

// Owning pointer for an item that has not been handed over yet.
struct WorkItemDeleter
{
    void operator()(EqWorkItem* item) const { ReleaseWorkItem(item); }
};
template <class Item>
using WorkItemPtr = std::unique_ptr<Item, WorkItemDeleter>;

// An item bound to an object it does not own.
template <class T>
class EqWorkItemMember : public EqWorkItem
{
public:
    explicit EqWorkItemMember(T* object) : object(object) {}
    // Destroys the item; nothing in it throws.
    void Release() noexcept override { ReleaseWorkItem(this); }

protected:
    T* object;
};

// Calls a member function without arguments on the object; drops its result.
template <class R, class T>
class EqWorkItemMember0 final : public EqWorkItemMember<T>
{
public:
    using Method = R (T::*)();

    EqWorkItemMember0(const wchar_t* entry, T* object, Method method)
        : EqWorkItemMember<T>(object), entry(entry), method(method)
    {
    }
    void Run() override
    {
        CallAtBoundary(entry, [this] { (void)(this->object->*method)(); });
    }

    QM_IMPLEMENTS_DESTRUCTOR_SLOT(EqWorkItemMember0)

private:
    const wchar_t* entry; // a literal
    Method method;
};

namespace qm
{
namespace framework
{
// Carries a call of the member function F with bound arguments: the first
// argument is the object pointer, the rest are copied into a heap record that
// the item owns until it is released. Run passes the stored arguments on, so
// a parameter taken by value gets a fresh copy at each run.
template <class F, class... Args>
class task final : public EqWorkItem
{
public:
    // entry: the full name of the function, a literal.
    template <class... A>
    explicit task(const wchar_t* entry, F function, A&&... args)
        : entry(entry), call(new Record{std::tuple<std::decay_t<Args>...>(std::forward<A>(args)...), function})
    {
    }
    ~task() { delete call; }

    task(const task&) = delete;
    task& operator=(const task&) = delete;

    // Destroys the item and its record; nothing in them throws.
    void Release() noexcept override { ReleaseWorkItem(this); }
    void Run() override
    {
        CallAtBoundary(entry, [this] {
            std::apply([this](auto& object, auto&... rest) { (object->*call->function)(rest...); }, call->arguments);
        });
    }

    QM_IMPLEMENTS_DESTRUCTOR_SLOT(task)

private:
    struct Record
    {
        std::tuple<std::decay_t<Args>...> arguments;
        F function;
    };
    const wchar_t* entry;
    Record* call;
};
} // namespace framework
} // namespace qm

// Builds an item in an owning pointer, to be released by the host once it
// has been handed over.
template <class Item, class... A>
WorkItemPtr<Item> MakeWorkItem(A&&... args)
{
    return WorkItemPtr<Item>(new Item(std::forward<A>(args)...));
}
