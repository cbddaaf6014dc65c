#include "runner/json_report.h"

#include <windows.h>

#include "support/unique_resource.h"

namespace runner
{
namespace
{
picojson::value Texts(const std::vector<std::string>& lines)
{
    picojson::array list;
    for (const std::string& line : lines)
        list.emplace_back(line);
    return picojson::value(list);
}
} // namespace

void JsonReport::Begin(const std::string& scenarioPath, const std::string& pluginPath, const std::string& description)
{
    document["scenario"] = picojson::value(scenarioPath);
    document["plugin"] = picojson::value(pluginPath);
    document["description"] = picojson::value(description);
}

void JsonReport::Setup(const std::vector<std::string>& lines)
{
    document["setup"] = Texts(lines);
}

void JsonReport::Step(size_t index, const std::string& name, const std::string& note, uint64_t timeMs,
                      const StepEffects& effects, bool expectations, const std::vector<Unmet>& unmet)
{
    picojson::object step;
    step["index"] = picojson::value(static_cast<double>(index));
    step["step"] = picojson::value(name);
    step["note"] = picojson::value(note);
    step["time_ms"] = picojson::value(static_cast<double>(timeMs));
    step["host"] = Texts(effects.hostCalls);
    picojson::array log;
    for (const LogLine& line : effects.log)
    {
        picojson::object entry;
        entry["time"] = picojson::value(line.time);
        entry["thread"] = picojson::value(line.thread);
        entry["level"] = picojson::value(line.level);
        entry["function"] = picojson::value(line.function);
        entry["text"] = picojson::value(line.text);
        log.emplace_back(entry);
    }
    step["log"] = picojson::value(log);
    picojson::array launches;
    for (size_t i = 0; i < effects.launches.size(); ++i)
    {
        picojson::object launch;
        launch["command_line"] = picojson::value(effects.launches[i]);
        launch["session"] = picojson::value(static_cast<double>(i < effects.sessions.size() ? effects.sessions[i] : 0));
        launches.emplace_back(launch);
    }
    step["launches"] = picojson::value(launches);
    picojson::array registry;
    for (const RegistryChange& change : effects.registry)
    {
        picojson::object entry;
        entry["value"] = picojson::value(change.place);
        entry["before"] = picojson::value(change.before);
        entry["after"] = picojson::value(change.after);
        registry.emplace_back(entry);
    }
    step["registry"] = picojson::value(registry);
    step["cloud"] = Texts(effects.cloud);
    step["bootstrap"] = Texts(effects.bootstrap);
    step["modules"] = Texts(effects.modules);
    step["wsc"] = Texts(effects.wsc);
    picojson::object outcome;
    outcome["checked"] = picojson::value(expectations);
    outcome["met"] = picojson::value(unmet.empty());
    picojson::array unmetList;
    for (const Unmet& entry : unmet)
    {
        picojson::object item;
        item["what"] = picojson::value(entry.what);
        item["expected"] = Texts(entry.expected);
        item["happened"] = Texts(entry.happened);
        unmetList.emplace_back(item);
    }
    outcome["unmet"] = picojson::value(unmetList);
    step["expectations"] = picojson::value(outcome);
    steps.emplace_back(step);
}

void JsonReport::Summary(const std::vector<std::string>& lines, const std::vector<std::string>& failures,
                         int exitStatus)
{
    picojson::object summary;
    summary["lines"] = Texts(lines);
    summary["failures"] = Texts(failures);
    summary["exit_status"] = picojson::value(static_cast<double>(exitStatus));
    document["summary"] = picojson::value(summary);
}

std::string JsonReport::Text() const
{
    picojson::object whole = document;
    whole["steps"] = picojson::value(steps);
    return picojson::value(whole).serialize(true);
}

bool WriteTextFile(const std::wstring& path, const std::string& text)
{
    const UniqueFileHandle file(
        CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
           written == text.size();
}
} // namespace runner
