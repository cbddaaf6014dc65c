// The session a launch goes to when none is named: the walk over a session
// list, fed as data (Wine's own list is always empty).
#include <gtest/gtest.h>

#include <vector>

#include "launch/sessions.h"

namespace
{
constexpr DWORD kConsole = 1;

WTS_SESSION_INFOW Session(DWORD id, WTS_CONNECTSTATE_CLASS state)
{
    return WTS_SESSION_INFOW{id, nullptr, state};
}

TEST(FirstActiveSessionId, TakesTheFirstActiveSessionInListOrderElseTheConsole)
{
    struct Row
    {
        const char* what;
        std::vector<WTS_SESSION_INFOW> sessions;
        DWORD expected;
    };
    const Row rows[] = {
        {"empty list", {}, kConsole},
        {"none active", {Session(0, WTSDisconnected), Session(kConsole, WTSConnected), Session(65536, WTSListen)},
         kConsole},
        {"several active, console among them but later",
         {Session(0, WTSDisconnected), Session(3, WTSActive), Session(kConsole, WTSActive)}, 3},
        {"several active, console first", {Session(kConsole, WTSActive), Session(3, WTSActive)}, kConsole},
        {"several active, console not listed", {Session(5, WTSIdle), Session(7, WTSActive), Session(2, WTSActive)}, 7},
        {"console listed but not active", {Session(kConsole, WTSDisconnected), Session(4, WTSActive)}, 4},
    };
    for (const Row& row : rows)
        EXPECT_EQ(FirstActiveSessionId(row.sessions.data(), row.sessions.size(), kConsole), row.expected) << row.what;
}
} // namespace
