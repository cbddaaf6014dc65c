#include "runner/expectations.h"

#include <algorithm>

#include "runner/registry_preset.h"

namespace runner
{
namespace
{
const std::vector<std::string> kNone = {"(none)"};

// An exactly compared list: unmet when the lists differ in any way.
void CompareList(const char* what, const std::optional<std::vector<std::string>>& expected,
                 const std::vector<std::string>& happened, std::vector<Unmet>& unmet)
{
    if (expected && *expected != happened)
        unmet.push_back({what, expected->empty() ? kNone : *expected, happened.empty() ? kNone : happened});
}

size_t CountStartingWith(const std::vector<std::string>& lines, const std::string& prefix)
{
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                              [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
}
} // namespace

std::string ValueText(const scenario::RegistryValue& value)
{
    const std::string described = scenario::Describe(value);
    const std::string place = scenario::DescribeRegistryPlace(value.root, value.key, value.name);
    // Describe gives "<place> = dword 1" or "<place> absent".
    std::string text = described.substr(std::min(described.size(), place.size()));
    if (text.rfind(" = ", 0) == 0)
        text.erase(0, 3);
    else if (text.rfind(" ", 0) == 0)
        text.erase(0, 1);
    return text;
}

std::vector<Unmet> Check(const scenario::Expectations& expect, const StepEffects& effects)
{
    std::vector<Unmet> unmet;
    CompareList("launches", expect.launches, effects.launches, unmet);
    CompareList("cloud", expect.cloud, effects.cloud, unmet);
    CompareList("bootstrap", expect.bootstrap, effects.bootstrap, unmet);
    CompareList("modules", expect.modules, effects.modules, unmet);
    CompareList("wsc", expect.wsc, effects.wsc, unmet);

    for (const scenario::RegistryValue& expected : expect.registry)
    {
        scenario::RegistryValue now;
        const Status status = ReadRegistryValue(expected.root, expected.key, expected.name, now);
        const std::string actual = status == 0 ? ValueText(now) : "unreadable (" + std::to_string(status) + ")";
        if (actual != ValueText(expected))
            unmet.push_back({"registry " + scenario::DescribeRegistryPlace(expected.root, expected.key, expected.name),
                             {ValueText(expected)},
                             {actual}});
    }

    std::vector<std::string> logged;
    for (const LogLine& line : effects.log)
        logged.push_back(line.Shown());
    for (const std::string& line : expect.log)
    {
        if (std::find(logged.begin(), logged.end(), line) == logged.end())
            unmet.push_back({"log", {line}, {"(not logged)"}});
    }
    for (const std::string& line : expect.noLog)
    {
        if (std::find(logged.begin(), logged.end(), line) != logged.end())
            unmet.push_back({"no_log", {"(not logged) " + line}, {line}});
    }

    for (const auto& count : expect.host)
    {
        const size_t calls = CountStartingWith(effects.hostCalls, count.first);
        if (calls != count.second)
            unmet.push_back({"host " + count.first, {std::to_string(count.second)}, {std::to_string(calls)}});
    }
    return unmet;
}

std::vector<std::string> SideBySide(const Unmet& unmet)
{
    constexpr size_t kMaxWidth = 60;
    size_t width = std::string("expected").size();
    for (const std::string& line : unmet.expected)
        width = std::max(width, std::min(line.size(), kMaxWidth));
    auto pad = [width](const std::string& text) {
        return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
    };
    std::vector<std::string> lines = {pad("expected") + " | happened"};
    for (size_t i = 0; i < std::max(unmet.expected.size(), unmet.happened.size()); ++i)
        lines.push_back(pad(i < unmet.expected.size() ? unmet.expected[i] : "") + " | " +
                        (i < unmet.happened.size() ? unmet.happened[i] : ""));
    return lines;
}
} // namespace runner
