// The registry values under a few keys, compared from step to step: after
// each step the runner lists what the step changed, "old -> new".
#pragma once

#include <map>
#include <string>
#include <vector>

#include "runner/expectations.h"
#include "runner/scenario.h"

namespace runner
{
class RegistryWatch
{
public:
    // Adds a key (its values, not its subkeys) to the watch, once.
    void Watch(scenario::RegistryRoot root, const std::wstring& key);
    // Takes the values as they are now without reporting them.
    void Reset();
    // The values changed, added or removed since the last call (or Reset),
    // in the order of the keys watched and then of the names.
    std::vector<RegistryChange> TakeChanges();

private:
    struct Key
    {
        scenario::RegistryRoot root;
        std::wstring key;
    };
    // place -> value text, for every value under the watched keys.
    std::map<std::string, std::string> Snapshot() const;

    std::vector<Key> keys;
    std::map<std::string, std::string> last;
};

// The keys the plugin writes for the scenario's settings: the product key
// (setting 217), its Onboarding key, the subscription key (setting 44) and
// the survey key (setting 0), and every key that the scenario names.
void WatchScenarioKeys(const scenario::Scenario& scenario, RegistryWatch& watch);
} // namespace runner
