// IProductCfgInternal: the view of the plugin object that CAppsManager keeps
// for the plugin's life. Every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "host/abi.h"

class IProductCfgInternal
{
    QM_DESTRUCTOR_SLOT(IProductCfgInternal)

public:
    // BundleId of the stored record up to its NUL; empty before the first.
    virtual std::string GetBundleId() = 0;
    // ServerProductType of the stored record; 0 before the first.
    virtual int32_t GetServerProductType() = 0;
    // Whether the latest organisation reply put the account in a managed
    // organisation; false until the first reply.
    virtual bool IsMsp() = 0;
};
