#include "config/run_decision.h"

bool IsConfigRunDue(const ProductCfgStatus& status) noexcept
{
    return status.comStatus == 1 || status.comStatus == 2 || status.cfgStatus == 1 || status.mspStatus == 1 ||
           status.seccenterAllowed;
}

std::optional<std::wstring> ConvertStatusToParams(ProductCfgStatus& status)
{
    std::wstring parameter;
    if (status.cfgStatus == 1)
    {
        parameter = L"do_config_seccenter";
        status.cfgStatus = 0;
        status.seccenterAllowed = false;
        status.comStatus = 0;
    }
    else if (status.seccenterAllowed)
    {
        if (status.comStatus == 2)
        {
            parameter = L"contacts_seccenter";
            status.comStatus = 0;
        }
        else
        {
            parameter = L"show_seccenter"; // a comStatus of 1 stays for the next firing
        }
        status.seccenterAllowed = false;
    }
    else if (status.comStatus == 2)
    {
        parameter = L"change_contacts";
        status.comStatus = 0;
    }

    if (status.mspStatus == 1)
        parameter += parameter.empty() ? L"config_msp_status" : L" config_msp_status";
    status.mspStatus = 0;

    if (parameter.empty())
        return std::nullopt;
    return parameter;
}

DWORD ChooseActiveSession(const WTS_SESSION_INFOW* sessions, size_t count, DWORD consoleSession) noexcept
{
    std::optional<DWORD> remembered;
    for (size_t i = 0; i < count; ++i)
    {
        if (sessions[i].State == WTSActive)
            remembered = sessions[i].SessionId;
        if (sessions[i].SessionId == consoleSession)
            break;
    }
    return remembered.value_or(consoleSession);
}
