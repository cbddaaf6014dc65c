// The entry points of msvc_host.dll: a host built for Microsoft's C++ ABI
// (clang, x86_64-pc-windows-msvc), freestanding on kernel32 alone. It loads
// ProductCfgPlg.dll as the service does and plays its whole life from one
// thread; it calls the test's own objects where the plugin gives none. It
// counts every slot of a boundary interface that it calls, or is called at,
// by the name "Interface.Slot" ("IList.Last const" for a const overload),
// once the check made there holds; a check that fails is named among the
// failures instead.
//
// Every entry point is a plain C function; interface pointers travel as
// void*. Names are looked up with GetProcAddress.
#pragma once

#include <stdint.h>

// Setting 217 as the host gives it: the product key under HKEY_LOCAL_MACHINE,
// where the plugin keeps its markers. Every other setting is missing.
#define MSVC_HOST_PRODUCT_KEY L"SOFTWARE\\QmMsvcAbiTest"

#define MSVC_HOST_ENTRY_POINTS(X)                                                                                      \
    /* LoadLibraryW(pluginPath), QmCreateObject, the life (see msvc_host.cpp), QmDestroyObject, FreeLibrary. */       \
    X(void, MsvcHost_Live, (const wchar_t* pluginPath))                                                                \
    X(int, MsvcHost_Count, (const char* slot))                                                                         \
    /* The failed checks, one a line; empty when none failed. */                                                      \
    X(const char*, MsvcHost_Failures, (void))                                                                          \
    /* Run, then Release, of one EqWorkItem; delete of the other, through its destructor slot. */                     \
    X(void, MsvcHost_Items, (void* ran, void* deleted))                                                                \
    /* Last(), Last() const, First(), First() const of a qm::IList<SubscriptionFeatures>, in that order. */            \
    X(void, MsvcHost_Overloads, (void* list, const void** answers))                                                    \
    /* The host's IConnectIntegrator: it answers with the request's Params in Body, grown through the manager of     \
       Body's descriptor, empties Aux through its own, and returns {TimeoutMs, 0} by the hidden result pointer. */    \
    X(void*, MsvcHost_CloudClient, (void))

#define MSVC_HOST_DECLARE(result, name, parameters) typedef result(*name##_fn) parameters;
MSVC_HOST_ENTRY_POINTS(MSVC_HOST_DECLARE)
#undef MSVC_HOST_DECLARE
