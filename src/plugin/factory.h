// The chain of plugin factories behind QmCreateObject and QmDestroyObject.
// Each factory knows one plugin class by one or two names, keeps at most one
// instance of it and counts how often that instance was handed out.
#pragma once

#include <windows.h>

#include <cstring>
#include <cwchar>
#include <new>

#include "host/interface_id.h"
#include "host/types.h"

class qmFactoryBase
{
public:
    qmFactoryBase();
    // Unlinks this factory from the chain; an instance still alive is left.
    virtual ~qmFactoryBase();

    // The pointer the current instance (or else the rest of the chain)
    // yields for id, or null. Takes no lock.
    virtual void* QueryObject(const InterfaceId& id) = 0;
    // 0 with the interface at out; 13 for a null out or name or a foreign
    // identifier; 1168 when no factory knows the name; 14 when the instance
    // gives no interface.
    virtual Status CreateObject(const wchar_t* name, const InterfaceId& id, void** out) = 0;
    // Counts one hand-out back; the last one destroys the instance.
    virtual void DestroyObject(const wchar_t* name, void* object) = 0;

    // Start of the chain, null until the first factory registers.
    static qmFactoryBase* head;

protected:
    qmFactoryBase* next;
};

// The identifiers every factory of this module accepts: the second word
// selects the row, the first word must then match it.
bool IsAcceptedPluginId(const InterfaceId& id);

template <class T>
class qmFactory final : public qmFactoryBase
{
public:
    static constexpr size_t kNameCapacity = 1024;

    qmFactory(const wchar_t* firstName, const wchar_t* secondName)
    {
        wcsncpy(name, firstName, kNameCapacity - 1);
        name[kNameCapacity - 1] = L'\0';
        wcsncpy(alias, secondName, kNameCapacity - 1);
        alias[kNameCapacity - 1] = L'\0';
        InitializeCriticalSection(&lock);
    }

    ~qmFactory() override { DeleteCriticalSection(&lock); }

    qmFactory(const qmFactory&) = delete;
    qmFactory& operator=(const qmFactory&) = delete;

    void* QueryObject(const InterfaceId& id) override
    {
        if (instance != nullptr)
        {
            if (void* object = instance->QueryInterface(id))
                return object;
        }
        return next != nullptr ? next->QueryObject(id) : nullptr;
    }

    Status CreateObject(const wchar_t* givenName, const InterfaceId& id, void** out) override
    {
        if (out == nullptr)
            return ERROR_INVALID_DATA;
        *out = nullptr;
        if (givenName == nullptr)
            return ERROR_INVALID_DATA;
        if (!IsAcceptedPluginId(id))
            return ERROR_INVALID_DATA;
        if (!Matches(givenName))
            return next != nullptr ? next->CreateObject(givenName, id, out) : ERROR_NOT_FOUND;

        Guard guard(lock);
        if (refCount == 0)
            instance = Construct();
        if (instance != nullptr)
            *out = instance->QueryInterface(id);
        ++refCount;
        return *out != nullptr ? 0 : ERROR_OUTOFMEMORY;
    }

    void DestroyObject(const wchar_t* givenName, void* object) override
    {
        if (object == nullptr || !Matches(givenName))
        {
            if (next != nullptr)
                next->DestroyObject(givenName, object);
            return;
        }
        Guard guard(lock);
        if (--refCount == 0)
        {
            delete instance;
            instance = nullptr;
        }
    }

private:
    // Holds the critical section for a scope, also when the plugin's
    // constructor throws.
    class Guard
    {
    public:
        explicit Guard(CRITICAL_SECTION& section) : section(section) { EnterCriticalSection(&section); }
        ~Guard() { LeaveCriticalSection(&section); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        CRITICAL_SECTION& section;
    };

    // Exact, case-sensitive comparison; an empty alias never matches.
    bool Matches(const wchar_t* givenName) const
    {
        return wcscmp(name, givenName) == 0 || (alias[0] != L'\0' && wcscmp(alias, givenName) == 0);
    }

    // The instance lives in a zero-filled block; if the constructor throws,
    // the block is freed and the exception goes on to the caller.
    static T* Construct()
    {
        void* block = ::operator new(sizeof(T));
        std::memset(block, 0, sizeof(T));
        try
        {
            return new (block) T();
        }
        catch (...)
        {
            ::operator delete(block);
            throw;
        }
    }

    CRITICAL_SECTION lock;
    T* instance = nullptr;
    uint32_t refCount = 0;
    wchar_t name[kNameCapacity];
    wchar_t alias[kNameCapacity];
};
