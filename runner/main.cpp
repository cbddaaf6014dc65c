// OrbhubSim: stands in for the Orbhub service. Loads ProductCfgPlg.dll from
// its own folder, drives it with the simulated host and plays one scenario
// file. Exit status: 0 clean, 1 a check failed, 2 nothing could be played.
#include <windows.h>

#include <cstdio>
#include <exception>
#include <string>

#include "runner/console.h"
#include "runner/json_report.h"
#include "runner/player.h"
#include "runner/plugin_library.h"
#include "runner/scenario.h"
#include "simhost/journal.h"

namespace
{
int Unusable(const std::string& message)
{
    std::fprintf(stderr, "%s\n", message.c_str());
    std::fflush(stderr);
    return runner::kExitUnusable;
}

// --crash-in-plugin: a test of the shipped symbols, never of the plugin's
// behaviour. Hands Init a host pointer into a page that cannot be read, so
// that the plugin's own code faults at its first call of the host, and the
// process ends the way a crash in the field ends it.
int CrashInPlugin()
{
    std::string error;
    const std::optional<runner::PluginLibrary> library = runner::PluginLibrary::Load(L"ProductCfgPlg.dll", error);
    if (!library)
        return Unusable(error);
    IServPlugin* plugin = nullptr;
    if (library->Create(L"productconfigplg", ids::ServPluginA, plugin) != 0 || plugin == nullptr)
        return Unusable("QmCreateObject failed");
    void* page = VirtualAlloc(nullptr, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_NOACCESS);
    if (page == nullptr)
        return Unusable("VirtualAlloc failed");
    std::fprintf(stderr, "OrbhubSim: Init with an unreadable host at %p\n", page);
    std::fflush(stderr);
    return static_cast<int>(plugin->Init(static_cast<IServMain*>(page)));
}

int Run(int argc, wchar_t** argv)
{
    if (argc == 2 && std::wstring(argv[1]) == L"--crash-in-plugin")
        return CrashInPlugin();
    std::wstring jsonPath;
    if (argc == 4 && std::wstring(argv[1]) == L"--json")
    {
        jsonPath = argv[2];
        argv += 2;
        argc -= 2;
    }
    if (argc != 2)
        return Unusable("usage: OrbhubSim [--json FILE] <scenario.json>\n"
                        "Plays the scenario against ProductCfgPlg.dll from this program's folder; --json also\n"
                        "writes the run as one JSON document to FILE.");
    const std::wstring path = argv[1];
    const std::string source = sim::Narrow(path.c_str());

    const scenario::FileText file = scenario::ReadScenarioFile(path);
    if (!file.text)
        return Unusable(source + ": " + file.error);
    const scenario::ParseResult parsed = scenario::ParseScenario(*file.text);
    if (!parsed.scenario)
        return Unusable(source + ": " + parsed.error);

    std::string error;
    const std::optional<runner::PluginLibrary> library = runner::PluginLibrary::Load(L"ProductCfgPlg.dll", error);
    if (!library)
        return Unusable(error);

    runner::Console console;
    const std::string pluginPath = sim::Narrow(library->Path().c_str());
    console.Line("== scenario " + source + " with " + pluginPath);
    runner::JsonReport report;
    report.Begin(source, pluginPath, parsed.scenario->description);
    int status = runner::kExitUnusable;
    {
        runner::Player player(*parsed.scenario, *library, console, jsonPath.empty() ? nullptr : &report);
        status = player.Play();
    }
    if (!jsonPath.empty() && !runner::WriteTextFile(jsonPath, report.Text()))
        return Unusable("cannot write the JSON report to " + sim::Narrow(jsonPath.c_str()));
    return status;
}
} // namespace

int wmain(int argc, wchar_t** argv)
{
    // Nothing in the runner reports a failure by exception; this only turns
    // an unforeseen one (such as running out of memory) into a message.
    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception& e)
    {
        return Unusable(std::string("OrbhubSim: unexpected failure: ") + e.what());
    }
}
