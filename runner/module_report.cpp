// The product agent's companion modules in a scenario: their setup, a line
// for every SetConnectAppState the plugin made, and the module objects
// handed out that were never given back.
#include <string>

#include "runner/player.h"

namespace runner
{
namespace
{
constexpr uint32_t kStateOff = 1;

std::string StateText(int64_t state)
{
    return std::to_string(state) + (state == kStateOff ? " (off)" : " (on)");
}
} // namespace

void Player::SetUpModules()
{
    for (const auto& module : scenario.modules)
    {
        host.productAgent.SetModule(module.first, module.second);
        Say("productagent module " + sim::Narrow(module.first.c_str()) + ": state " + StateText(module.second));
    }
    if (scenario.failSetConnectAppState != 0)
    {
        host.productAgent.FailSetConnectAppState(scenario.failSetConnectAppState);
        Say("SetConnectAppState fails with " + std::to_string(scenario.failSetConnectAppState));
    }
}

void Player::ReportModuleChanges()
{
    const auto calls = host.productAgent.ConnectStateCalls();
    for (; moduleCallsReported < calls.size(); ++moduleCallsReported)
    {
        const auto& call = calls[moduleCallsReported];
        std::string outcome;
        if (call.before < 0)
            outcome = "no such module";
        else if (call.before == call.after)
            outcome = "state stays " + StateText(call.after);
        else
            outcome = "state " + StateText(call.before) + " -> " + StateText(call.after);
        effects.modules.push_back(sim::Narrow(call.appId.c_str()) + (call.on ? " on" : " off"));
        Say("module: SetConnectAppState " + sim::Narrow(call.appId.c_str()) + (call.on ? " on" : " off") + " -> " +
            std::to_string(call.status) + ", " + outcome);
    }
}

std::string Player::ModuleObjectsLeft() const
{
    const size_t handedOut = host.productAgent.ModulesHandedOut();
    const size_t released = host.productAgent.ModulesReleased();
    if (handedOut == released)
        return std::string();
    return "module objects: handed out " + std::to_string(handedOut) + ", released " + std::to_string(released);
}
} // namespace runner
