// Writes a scenario's registry value into the real registry (of the Wine
// prefix when run there), and reads one back as a scenario would give it.
#pragma once

#include <string>

#include "host/types.h"
#include "runner/scenario.h"

namespace runner
{
// 0, or the status of RegSetKeyValueW / RegDeleteKeyValueW. Deleting a value
// or key that does not exist counts as success.
Status ApplyRegistryValue(const scenario::RegistryValue& value);

// 0 with out holding the value as it is now: a dword, a string (REG_SZ or
// REG_EXPAND_SZ, unexpanded), or absent when the value or its key does not
// exist. ERROR_UNSUPPORTED_TYPE for any other type, else RegGetValueW's status.
Status ReadRegistryValue(scenario::RegistryRoot root, const std::wstring& key, const std::wstring& name,
                         scenario::RegistryValue& out);
} // namespace runner
