#include "runner/commercial_setup.h"

#include <fstream>
#include <iterator>

#include "runner/registry_preset.h"

namespace runner
{
namespace
{
constexpr char kFileName[] = "settings\\bootstrapdata.json";
// Longer contents are cut in the report.
constexpr size_t kShownBytes = 2000;

// The bytes as they are where they are printable ASCII, a backslash doubled
// and every other byte as \xNN, so that the JSON stays readable on one line.
std::string Shown(const std::string& content)
{
    static const char kHex[] = "0123456789abcdef";
    std::string shown;
    for (size_t i = 0; i < content.size() && i < kShownBytes; ++i)
    {
        const auto byte = static_cast<unsigned char>(content[i]);
        if (byte == '\\')
            shown += "\\\\";
        else if (byte >= 0x20 && byte <= 0x7E)
            shown += content[i];
        else
            shown += std::string("\\x") + kHex[byte >> 4] + kHex[byte & 0xF];
    }
    if (content.size() > kShownBytes)
        shown += " ... (" + std::to_string(content.size()) + " bytes in all)";
    return shown;
}

std::string Describe(const scenario::CloudAnswer& answer)
{
    return "error " + std::to_string(answer.error) + ", after " + std::to_string(answer.delayMs) + " ms, body " +
           (answer.body.empty() ? std::string("empty") : Shown(answer.body));
}
} // namespace

CommercialSetup::~CommercialSetup()
{
    if (folder.empty())
        return;
    DeleteFileW(File().c_str());
    RemoveDirectoryW((folder + L"\\settings").c_str());
    RemoveDirectoryW(folder.c_str());
}

bool CommercialSetup::SetUp(const scenario::Scenario& scenario, sim::Host& host, const Out& say)
{
    if (scenario.bootstrapFile)
    {
        const scenario::BootstrapFile& file = *scenario.bootstrapFile;
        wchar_t temp[MAX_PATH];
        wchar_t name[MAX_PATH];
        // A unique name, made a folder in place of the file.
        if (GetTempPathW(MAX_PATH, temp) == 0 || GetTempFileNameW(temp, L"pcb", 0, name) == 0 ||
            !DeleteFileW(name) || !CreateDirectoryW(name, nullptr))
        {
            say("cannot make a folder for the commercial data file; nothing was played");
            return false;
        }
        folder = name;
        settingsFolder = file.settingsFolder;
        if (settingsFolder && !CreateDirectoryW((folder + L"\\settings").c_str(), nullptr))
        {
            say("cannot make the folder \"settings\" for the commercial data file; nothing was played");
            return false;
        }
        if (file.content)
        {
            std::ofstream out(File().c_str(), std::ios::binary);
            out.write(file.content->data(), static_cast<std::streamsize>(file.content->size()));
            out.close();
            if (!out)
            {
                say("cannot write the commercial data file; nothing was played");
                return false;
            }
        }
        host.config.Set(400, L"Desktop", folder + L"\\");
        say("productinfo 400 \"Desktop\" = a folder of the runner's own, with its closing separator" +
            std::string(settingsFolder ? "" : ", without \"settings\" in it"));
        seen = Look();
        if (seen.exists)
            say("bootstrap: " + std::string(kFileName) + " = " + Shown(seen.content));
        else
            say("bootstrap: " + std::string(kFileName) + " absent");
    }

    if (scenario.commercialDetails)
    {
        const Status status = ApplyRegistryValue(*scenario.commercialDetails);
        say("registry " + scenario::Describe(*scenario.commercialDetails) +
            (status == 0 ? "" : " FAILED: " + std::to_string(status)));
        if (status != 0)
        {
            say("cannot preset the registry; nothing was played");
            return false;
        }
    }

    if (!scenario.cloudAnswers.empty())
    {
        std::vector<sim::CloudAnswer> answers;
        for (size_t i = 0; i < scenario.cloudAnswers.size(); ++i)
        {
            const scenario::CloudAnswer& answer = scenario.cloudAnswers[i];
            answers.emplace_back(answer.body, answer.error, answer.delayMs);
            say("connect_integrator answer " + std::to_string(i + 1) + ": " + Describe(answer) +
                (i + 1 == scenario.cloudAnswers.size() ? " (and every later request)" : ""));
        }
        host.connectIntegrator.SetAnswers(std::move(answers));
    }
    return true;
}

CommercialSetup::FileState CommercialSetup::Look() const
{
    FileState state;
    WIN32_FILE_ATTRIBUTE_DATA attributes{};
    if (folder.empty() || !GetFileAttributesExW(File().c_str(), GetFileExInfoStandard, &attributes))
        return state;
    state.exists = true;
    state.written = attributes.ftLastWriteTime;
    std::ifstream in(File().c_str(), std::ios::binary);
    state.content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return state;
}

void CommercialSetup::Report(const sim::Host& host, const Out& say, const Out& fail)
{
    const std::vector<sim::CloudCall> calls = host.connectIntegrator.Calls();
    for (; callsSeen < calls.size(); ++callsSeen)
    {
        const sim::CloudCall& call = calls[callsSeen];
        say("cloud: request " + call.path + " " + call.method + " " + call.params);
        for (const std::string& fault : call.faults)
            fail("cloud request: " + fault);
    }

    if (folder.empty())
        return;
    const FileState now = Look();
    const bool rewritten = now.exists && (!seen.exists || CompareFileTime(&now.written, &seen.written) != 0 ||
                                          now.content != seen.content);
    if (rewritten)
        say("bootstrap: " + std::string(kFileName) + " rewritten: " + Shown(now.content));
    else if (seen.exists && !now.exists)
        say("bootstrap: " + std::string(kFileName) + " is gone");
    seen = now;
}
} // namespace runner
