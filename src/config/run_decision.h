// The status block and the decisions taken from it: whether the
// configuration timer must run, and what ProductCfg.exe is told to do.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// What the plugin still owes the product between events. Not persisted.
struct ProductCfgStatus
{
    uint32_t cfgStatus = 0; // 1: the server's product type differs from the local one
    uint32_t mspStatus = 0; // 1: the managed organisation flag changed
    uint32_t comStatus = 0; // 1: commercial data to fetch; 2: fetched, contacts to show
    bool seccenterAllowed = false;
};

// Whether the configuration timer must be armed for this block: anything
// commercial, a configuration, a changed organisation flag, or the seccenter
// being allowed.
bool IsConfigRunDue(const ProductCfgStatus& status) noexcept;

// The parameters of ProductCfg.exe for this block, consuming what it uses:
// at most one of "do_config_seccenter", "show_seccenter",
// "contacts_seccenter", "change_contacts", then " config_msp_status" (or
// "config_msp_status" alone). Empty when nothing is to be done.
std::optional<std::wstring> ConvertStatusToParams(ProductCfgStatus& status);

// The walk over a session list in list order: each active session is
// remembered, and the walk stops at the console session's entry. The last
// session remembered, else consoleSession.
DWORD ChooseActiveSession(const WTS_SESSION_INFOW* sessions, size_t count, DWORD consoleSession) noexcept;
