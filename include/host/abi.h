// The host is built with Microsoft's compiler, so every interface that crosses
// between it and this module has that compiler's table of virtual operations.
// This module is built by compilers that follow the Itanium C++ ABI (GCC and
// clang for mingw-w64), which differ from it in exactly three places. The
// boundary headers state each of them with the macros below, so that one
// declaration gives the host's table under either kind of compiler:
//
// 1. A virtual destructor is one slot under Microsoft's compiler, the scalar
//    deleting destructor void* (unsigned int flags), where bit 0 of flags
//    frees the memory. Itanium compilers give it two slots (complete and
//    deleting destructor). QM_DESTRUCTOR_SLOT(Interface) stands where a table
//    lists the destructor; under Itanium it declares the one slot with that
//    signature, ScalarDeletingDestructor, and the interface's own destructor
//    becomes protected and non-virtual. A class of ours that the host may
//    destroy through the slot adds QM_IMPLEMENTS_DESTRUCTOR_SLOT(Class) in its
//    most derived class, and destroys it as the host would:
//    DestroyThroughDestructorSlot(object).
//
// 2. Overloads of one name stand together in reverse order of declaration
//    under Microsoft's compiler, in declaration order under Itanium.
//    QM_OVERLOADS(first, second) declares the pair as the table lists it and
//    gives both compilers the host's order.
//
// 3. A member function that returns a record by value gets a hidden pointer to
//    the result right after this under Microsoft's compiler, whatever the
//    record's size, and returns that pointer; Itanium returns a small record
//    in registers. QM_RECORD_RESULT(Record, Name, (parameters), (arguments))
//    declares the operation; under Itanium the slot is NameSlot(Record*
//    result, parameters...), which implementations override, and Name itself
//    is an inline call of it, so callers read the same under both. An
//    implementation defines NameImpl(parameters) and adds
//    QM_IMPLEMENTS_RECORD_RESULT with the same arguments.
//
// Everything else that crosses (pointers, 32- and 64-bit numbers, bool,
// 16-bit wchar_t, single inheritance of pure interfaces, the table pointer
// at offset 0) agrees between the two. This header and the ones that declare
// the interfaces compile freestanding.
#pragma once

#if defined(_MSC_VER)
#define QM_HOST_ABI_MSVC 1
#else
#define QM_HOST_ABI_MSVC 0
#endif

#define QM_HOST_UNPAREN(...) __VA_ARGS__

#if QM_HOST_ABI_MSVC

#define QM_DESTRUCTOR_SLOT(Interface)                                                                                  \
public:                                                                                                                \
    virtual ~Interface() {}

#define QM_IMPLEMENTS_DESTRUCTOR_SLOT(Class)

#define QM_OVERLOADS(first, second) first second

#define QM_RECORD_RESULT(Record, Name, parameters, arguments) virtual Record Name parameters = 0;

#define QM_IMPLEMENTS_RECORD_RESULT(Record, Name, parameters, arguments)                                               \
    Record Name parameters override { return Name##Impl arguments; }

// Deletes object through its virtual destructor, as the host does.
template <class Interface>
inline void DestroyThroughDestructorSlot(Interface* object)
{
    delete object;
}

#else

#define QM_DESTRUCTOR_SLOT(Interface)                                                                                  \
public:                                                                                                                \
    virtual void* ScalarDeletingDestructor(unsigned int flags) = 0;                                                    \
                                                                                                                       \
protected:                                                                                                             \
    ~Interface() = default;                                                                                            \
                                                                                                                       \
public:

// Class must be the most derived class, or have a virtual destructor of its
// own (which Itanium places behind the interface's slots).
#define QM_IMPLEMENTS_DESTRUCTOR_SLOT(Class)                                                                           \
public:                                                                                                                \
    void* ScalarDeletingDestructor(unsigned int flags) override                                                        \
    {                                                                                                                  \
        Class* self = this;                                                                                            \
        if (flags & 1u)                                                                                                \
            delete self;                                                                                               \
        else                                                                                                           \
            self->~Class();                                                                                            \
        return self;                                                                                                   \
    }

#define QM_OVERLOADS(first, second) second first

#define QM_RECORD_RESULT(Record, Name, parameters, arguments)                                                          \
    virtual Record* Name##Slot(Record* result, QM_HOST_UNPAREN parameters) = 0;                                        \
    Record Name parameters                                                                                             \
    {                                                                                                                  \
        Record result{};                                                                                               \
        Name##Slot(&result, QM_HOST_UNPAREN arguments);                                                                \
        return result;                                                                                                 \
    }

#define QM_IMPLEMENTS_RECORD_RESULT(Record, Name, parameters, arguments)                                               \
    Record* Name##Slot(Record* result, QM_HOST_UNPAREN parameters) override                                            \
    {                                                                                                                  \
        *result = Name##Impl arguments;                                                                                \
        return result;                                                                                                 \
    }

// Deletes object through its destructor slot with bit 0 set, as the host
// does; null does nothing.
template <class Interface>
inline void DestroyThroughDestructorSlot(Interface* object)
{
    if (object != nullptr)
        object->ScalarDeletingDestructor(1u);
}

#endif
