// What the commercial bootstrap meets in a scenario, and what it did: the
// commercial data file in a folder of the runner's own (named to the plugin
// by setting 400 "Desktop"), "Commercial_Details", and the cloud client's
// answers; after each step, the cloud requests the plugin made and the file
// whenever it was rewritten.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "runner/scenario.h"
#include "simhost/sim_host.h"

namespace runner
{
class CommercialSetup
{
public:
    using Out = std::function<void(const std::string&)>;

    CommercialSetup() = default;
    // Removes the file and the folders it made.
    ~CommercialSetup();
    CommercialSetup(const CommercialSetup&) = delete;
    CommercialSetup& operator=(const CommercialSetup&) = delete;

    // Before the plugin is created. false, with a line said, when the folder,
    // the file or the registry value cannot be made.
    bool SetUp(const scenario::Scenario& scenario, sim::Host& host, const Out& say);

    // The cloud requests since the last report, and the file when it was
    // written since it was last looked at. fail takes what the client found
    // wrong with a request.
    void Report(const sim::Host& host, const Out& say, const Out& fail);

private:
    // The file as it was last looked at.
    struct FileState
    {
        bool exists = false;
        FILETIME written{};
        std::string content;
    };

    std::wstring File() const { return folder + L"\\settings\\bootstrapdata.json"; }
    FileState Look() const;

    std::wstring folder; // empty: the scenario has no file of the runner's
    bool settingsFolder = false;
    FileState seen;
    size_t callsSeen = 0;
};
} // namespace runner
