#include "runner/commercial_keys.h"

namespace scenario
{
namespace
{
using Need = FieldReader::Need;

const Setting* FindSetting(const Scenario& scenario, uint32_t number, const wchar_t* section)
{
    for (const Setting& setting : scenario.settings)
    {
        if (setting.number == number && setting.section == section)
            return &setting;
    }
    return nullptr;
}

void ReadBootstrapFile(FieldReader& top, Scenario& out)
{
    top.Object("bootstrap_file", Need::Optional, "the commercial data file", [&](FieldReader& fields) {
        fields.OnlyKeys({"content", "settings_folder"});
        BootstrapFile file;
        fields.Bool("settings_folder", file.settingsFolder, Need::Optional);
        std::string content;
        fields.Text("content", content, Need::Optional);
        if (!fields.Ok())
            return;
        if (fields.Find("content") != nullptr)
        {
            if (!file.settingsFolder)
                return fields.Fail("content", "not allowed with \"settings_folder\": false");
            file.content = content;
        }
        if (FindSetting(out, 400, L"Desktop") != nullptr)
            return top.Fail("bootstrap_file",
                            "setting 400 \"Desktop\" is given in settings too (the runner names its own folder there)");
        out.bootstrapFile = file;
    });
}

void ReadCommercialDetails(FieldReader& top, Scenario& out)
{
    top.Object("commercial_details", Need::Optional, "a registry value", [&](FieldReader& fields) {
        fields.OnlyKeys({"type", "value"});
        RegistryValue value;
        value.root = RegistryRoot::Users;
        value.name = L"Commercial_Details";
        std::string type;
        fields.Text("type", type, Need::Required);
        if (!fields.Ok())
            return;
        if (type == "dword")
        {
            value.type = RegistryType::Dword;
            fields.Uint32("value", value.dword, Need::Required);
        }
        else if (type == "string")
        {
            value.type = RegistryType::String;
            fields.WideText("value", value.text, Need::Required);
        }
        else if (type == "absent")
        {
            value.type = RegistryType::Absent;
            if (fields.Find("value") != nullptr)
                return fields.Fail("value", "not allowed with type \"absent\"");
        }
        else
        {
            return fields.Fail("type", "unknown type \"" + type + "\" (expected one of: dword, string, absent)");
        }
        if (!fields.Ok())
            return;
        const Setting* product = FindSetting(out, 44, L"Desktop");
        if (product == nullptr)
            return top.Fail("commercial_details",
                            "needs setting 44 \"Desktop\" in settings (it names the subscription key)");
        value.key = L".DEFAULT\\SOFTWARE\\Sub_ID_" + product->value;
        out.commercialDetails = value;
    });
}

void ReadCloudAnswers(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* list = top.Find("cloud_answers");
    if (list == nullptr || !top.Ok())
        return;
    if (!list->is<picojson::array>() || list->get<picojson::array>().empty())
        return top.Fail("cloud_answers", "expected a list of at least one {body, error, delay_ms}");
    const picojson::array& items = list->get<picojson::array>();
    for (size_t i = 0; i < items.size() && error.empty(); ++i)
    {
        FieldReader fields(items[i], JoinPath("cloud_answers", i), error);
        fields.OnlyKeys({"body", "error", "delay_ms"});
        CloudAnswer answer;
        fields.Text("body", answer.body, Need::Optional);
        fields.Uint32("error", answer.error, Need::Optional);
        uint64_t delay = 0;
        fields.Uint64("delay_ms", kMaxCloudDelayMs, delay, Need::Optional);
        answer.delayMs = static_cast<uint32_t>(delay);
        if (fields.Ok())
            out.cloudAnswers.push_back(answer);
    }
}
} // namespace

void ReadCommercialKeys(FieldReader& top, Scenario& out, std::string& error)
{
    ReadBootstrapFile(top, out);
    ReadCommercialDetails(top, out);
    ReadCloudAnswers(top, out, error);
}
} // namespace scenario
