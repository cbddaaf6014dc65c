// The module's entry points: the library entry routine and the two exports.
#include <windows.h>

#include "plugin/factory.h"
#include "plugin/product_cfg_plugin.h"

namespace
{
qmFactory<CProductConfigurationPlg> productConfigFactory(kPluginName, L"");
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}

extern "C" Status QmCreateObject(const wchar_t* name, const InterfaceId& id, void** out)
{
    return qmFactoryBase::head->CreateObject(name, id, out);
}

extern "C" void QmDestroyObject(const wchar_t* name, void* object)
{
    qmFactoryBase::head->DestroyObject(name, object);
}
