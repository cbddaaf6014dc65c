// The module's entry points: the library entry routine and the two exports.
#include <windows.h>

#include "plugin/factory.h"
#include "plugin/product_cfg_plugin.h"
#include "support/boundary.h"

namespace
{
qmFactory<CProductConfigurationPlg> productConfigFactory(kPluginName, L"");
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}

// A plugin object that cannot be built gives the status of the exception
// (14 for want of memory); the factory has freed its block and left its
// count as it was.
extern "C" Status QmCreateObject(const wchar_t* name, const InterfaceId& id, void** out)
{
    return CallAtBoundary(L"QmCreateObject", [&] { return qmFactoryBase::head->CreateObject(name, id, out); },
                          [](Status status) { return status; });
}

extern "C" void QmDestroyObject(const wchar_t* name, void* object)
{
    CallAtBoundary(L"QmDestroyObject", [&] { qmFactoryBase::head->DestroyObject(name, object); });
}
