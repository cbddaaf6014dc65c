// Writes a scenario's registry value into the real registry (of the Wine
// prefix when run there).
#pragma once

#include "host/types.h"
#include "runner/scenario.h"

namespace runner
{
// 0, or the status of RegSetKeyValueW / RegDeleteKeyValueW. Deleting a value
// or key that does not exist counts as success.
Status ApplyRegistryValue(const scenario::RegistryValue& value);
} // namespace runner
