// The decisions taken from the status block, row by row: whether the
// configuration timer runs, which parameters ProductCfg.exe gets and what
// they consume, and which session counts as the user's.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/run_decision.h"

namespace
{
ProductCfgStatus Block(uint32_t cfg, uint32_t msp, uint32_t com, bool seccenter)
{
    ProductCfgStatus status;
    status.cfgStatus = cfg;
    status.mspStatus = msp;
    status.comStatus = com;
    status.seccenterAllowed = seccenter;
    return status;
}

std::string Describe(const ProductCfgStatus& s)
{
    return "cfg " + std::to_string(s.cfgStatus) + " msp " + std::to_string(s.mspStatus) + " com " +
           std::to_string(s.comStatus) + (s.seccenterAllowed ? " seccenter" : " no seccenter");
}
} // namespace

TEST(RunDecision, TimerRunsWhenAnythingIsOwed)
{
    for (uint32_t com : {0u, 1u, 2u})
        for (uint32_t cfg : {0u, 1u})
            for (uint32_t msp : {0u, 1u})
                for (bool seccenter : {false, true})
                {
                    const ProductCfgStatus status = Block(cfg, msp, com, seccenter);
                    const bool expected = com != 0 || cfg == 1 || msp == 1 || seccenter;
                    EXPECT_EQ(IsConfigRunDue(status), expected) << Describe(status);
                }
}

TEST(RunDecision, ParametersAndWhatTheyConsume)
{
    struct Row
    {
        uint32_t cfg;
        bool seccenter;
        uint32_t com;
        const wchar_t* parameter; // without config_msp_status; null: none
        uint32_t comAfter;        // all else is consumed
    };
    const Row rows[] = {
        {1, false, 0, L"do_config_seccenter", 0}, {1, true, 2, L"do_config_seccenter", 0},
        {1, true, 1, L"do_config_seccenter", 0},  {0, true, 0, L"show_seccenter", 0},
        {0, true, 1, L"show_seccenter", 1}, // the fetch goes on hourly
        {0, true, 2, L"contacts_seccenter", 0},   {0, false, 2, L"change_contacts", 0},
        {0, false, 0, nullptr, 0},                {0, false, 1, nullptr, 1},
    };
    for (const Row& row : rows)
        for (uint32_t msp : {0u, 1u})
        {
            ProductCfgStatus status = Block(row.cfg, msp, row.com, row.seccenter);
            SCOPED_TRACE(Describe(status));
            std::wstring expected = row.parameter != nullptr ? row.parameter : L"";
            if (msp == 1)
                expected += expected.empty() ? L"config_msp_status" : L" config_msp_status";
            EXPECT_EQ(ConvertStatusToParams(status).value_or(L"<none>"), expected.empty() ? L"<none>" : expected);
            EXPECT_EQ(Describe(status), Describe(Block(0, 0, row.comAfter, false)));
        }
}

TEST(RunDecision, SessionOfTheUser)
{
    auto session = [](DWORD id, WTS_CONNECTSTATE_CLASS state) { return WTS_SESSION_INFOW{id, nullptr, state}; };
    struct Row
    {
        const char* what;
        std::vector<WTS_SESSION_INFOW> sessions;
        DWORD console;
        DWORD expected;
    };
    const Row rows[] = {
        {"no sessions: the console stands", {}, 1, 1},
        {"none active", {session(0, WTSDisconnected), session(2, WTSListen)}, 1, 1},
        {"the active console wins", {session(3, WTSActive), session(1, WTSActive), session(4, WTSActive)}, 1, 1},
        {"last active one before the console entry",
         {session(3, WTSActive), session(5, WTSActive), session(1, WTSDisconnected), session(7, WTSActive)},
         1,
         5},
        {"console not listed: the last active one", {session(2, WTSActive), session(6, WTSActive)}, 1, 6},
    };
    for (const Row& row : rows)
        EXPECT_EQ(ChooseActiveSession(row.sessions.data(), row.sessions.size(), row.console), row.expected)
            << row.what;
}
