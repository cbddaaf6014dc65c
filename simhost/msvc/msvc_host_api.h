// The entry points of msvc_host.dll: a host built for Microsoft's C++ ABI
// (clang, x86_64-pc-windows-msvc), freestanding on kernel32 alone. It loads
// ProductCfgPlg.dll as the service does, offers every host object the plugin
// asks for, and calls what the host calls on the plugin: the exports,
// IServPlugin, each sink, Run and Release of work items, the list and its
// enumerators. Tests built by GCC load it and drive it step by step from one
// thread, which plays every thread of the host: an item runs when
// MsvcHost_RunSerial or MsvcHost_FireTimer says so, never by itself.
//
// Every entry point is a plain C function; interface pointers travel as
// void*. Names are looked up with GetProcAddress.
#pragma once

#include <stdint.h>

#define MSVC_HOST_ENTRY_POINTS(X)                                                                                      \
    /* A product setting GetString gives; every other one is "<error-not-found>". Before MsvcHost_Create. */         \
    X(void, MsvcHost_SetSetting, (uint32_t number, const wchar_t* section, const wchar_t* value))                     \
    /* LoadLibraryW(pluginPath), QmCreateObject("productconfigplg"); gives its status. */                             \
    X(uint32_t, MsvcHost_Create, (const wchar_t* pluginPath))                                                          \
    X(uint32_t, MsvcHost_Init, (void))                                                                                 \
    X(uint32_t, MsvcHost_Start, (void))                                                                                \
    /* Runs the queued items of the serial execution in order; gives how many ran. */                                 \
    X(int, MsvcHost_RunSerial, (void))                                                                                 \
    X(void, MsvcHost_ReportServiceLoaded, (void))                                                                      \
    /* A subscription record built by the host, with a list of the host's own. */                                     \
    X(void, MsvcHost_DeliverSubscription, (const char* accountId, int32_t serverProductType, const char* bundleId,     \
                                          const char* commercialId, const int32_t* features, int count))               \
    X(void, MsvcHost_DeliverSessionChange, (uint32_t event, int withInfo))                                             \
    X(void, MsvcHost_DeliverUserInfoChanged, (void))                                                                   \
    X(void, MsvcHost_AnswerUserInfo, (const wchar_t* level, const wchar_t* text))                                      \
    /* Runs the item of the newest live timer of that name once; 0 when there is none. */                             \
    X(int, MsvcHost_FireTimer, (const wchar_t* name))                                                                  \
    X(void, MsvcHost_Stop, (void))                                                                                     \
    X(void, MsvcHost_UnInit, (void))                                                                                   \
    /* QmDestroyObject, FreeLibrary; releases what the host still holds. */                                           \
    X(void, MsvcHost_Destroy, (void))                                                                                  \
    /* A counter by name (see msvc_host.cpp); 0 for one never counted. */                                             \
    X(int, MsvcHost_Count, (const char* name))                                                                         \
    /* The host's calls and the items' lives, one line each. */                                                       \
    X(const char*, MsvcHost_Journal, (void))                                                                           \
    /* Every operation of a qm::IList<SubscriptionFeatures> and its enumerators; gives the failed checks. */          \
    X(int, MsvcHost_ExerciseList, (void* list))                                                                        \
    /* Run, then Release, of an EqWorkItem. */                                                                         \
    X(void, MsvcHost_RunAndRelease, (void* item))                                                                      \
    /* delete of an EqWorkItem through its virtual destructor. */                                                      \
    X(void, MsvcHost_DeleteItem, (void* item))                                                                         \
    /* A subscription record the host made (fields, then a host list); freed by MsvcHost_FreeRecord. */               \
    X(void*, MsvcHost_MakeRecord, (const char* bundleId, const int32_t* features, int count))                          \
    X(void, MsvcHost_FreeRecord, (void* record))                                                                       \
    /* The host's cloud client (IConnectIntegrator*); by default every request fails with the code 5. */            \
    X(void*, MsvcHost_CloudClient, (void))                                                                             \
    /* Later requests succeed: body is written into the response's Body through the manager its descriptor names. */ \
    X(void, MsvcHost_SetCloudAnswer, (const char* body))

#define MSVC_HOST_DECLARE(result, name, parameters) typedef result(*name##_fn) parameters;
MSVC_HOST_ENTRY_POINTS(MSVC_HOST_DECLARE)
#undef MSVC_HOST_DECLARE
