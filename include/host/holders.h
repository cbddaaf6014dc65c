// Unique owners of a host component and of a serial execution object.
#pragma once

#include <string>
#include <utility>

#include "host/services.h"

// Keeps one component with what is needed to give it back by name.
template <class T>
class ComponentHolder
{
public:
    ComponentHolder() = default;
    ~ComponentHolder()
    {
        if (component != nullptr && manager != nullptr)
            manager->ReleaseComponent(name.c_str());
    }

    ComponentHolder(const ComponentHolder&) = delete;
    ComponentHolder& operator=(const ComponentHolder&) = delete;

    ComponentHolder(ComponentHolder&& other) noexcept
        : manager(other.manager), name(std::move(other.name)), component(other.component)
    {
        other.component = nullptr;
        other.name.clear();
    }

    // Gives back the component this holder had, under its old name, then
    // takes over the other's component, manager and name.
    ComponentHolder& operator=(ComponentHolder&& other) noexcept
    {
        if (this == &other)
            return *this;
        T* taken = other.component;
        other.component = nullptr;
        Reset();
        component = taken;
        manager = other.manager;
        name = std::move(other.name);
        other.name.clear();
        return *this;
    }

    // Asks manager for the component. On status 0 the result holds it; on
    // any other status the result is empty and status tells why.
    static ComponentHolder Acquire(IComponentManager* manager, const wchar_t* name, const InterfaceId& id,
                                   Status& status)
    {
        // The name is copied first: when that copy runs out of memory,
        // nothing has been acquired yet.
        ComponentHolder holder;
        holder.name = name;
        void* out = nullptr;
        status = manager->GetComponent(name, id, &out);
        if (status == 0)
        {
            holder.manager = manager;
            holder.component = static_cast<T*>(out);
        }
        else
        {
            holder.name.clear();
        }
        return holder;
    }

    // Gives the component back once; manager and name stay, so a second
    // reset does nothing.
    void Reset()
    {
        if (component == nullptr)
            return;
        component = nullptr;
        if (manager != nullptr)
            manager->ReleaseComponent(name.c_str());
    }

    T* get() const { return component; }
    T* operator->() const { return component; }
    explicit operator bool() const { return component != nullptr; }

private:
    IComponentManager* manager = nullptr;
    std::wstring name;
    T* component = nullptr;
};

// Keeps the serial execution object and gives it back to its queue.
class SerialExecutionHolder
{
public:
    SerialExecutionHolder() = default;
    SerialExecutionHolder(IEventQueue* queue, ISerialExecution* serial) : queue(queue), serial(serial) {}
    ~SerialExecutionHolder()
    {
        if (serial != nullptr && queue != nullptr)
            queue->ReleaseSerialExecution(serial);
    }

    SerialExecutionHolder(const SerialExecutionHolder&) = delete;
    SerialExecutionHolder& operator=(const SerialExecutionHolder&) = delete;

    SerialExecutionHolder& operator=(SerialExecutionHolder&& other) noexcept
    {
        if (this == &other)
            return *this;
        ISerialExecution* taken = other.serial;
        other.serial = nullptr;
        Reset();
        queue = other.queue;
        serial = taken;
        return *this;
    }

    // Releases the object at the queue, which waits for a running item and
    // drops the queued ones.
    void Reset()
    {
        ISerialExecution* old = serial;
        serial = nullptr;
        if (old != nullptr && queue != nullptr)
            queue->ReleaseSerialExecution(old);
    }

    ISerialExecution* get() const { return serial; }
    explicit operator bool() const { return serial != nullptr; }

private:
    IEventQueue* queue = nullptr;
    ISerialExecution* serial = nullptr;
};
