#include "runner/scenario.h"

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

#include "runner/commercial_keys.h"
#include "runner/json_reader.h"

namespace scenario
{
namespace
{
using Need = FieldReader::Need;

// Components the host hands out, the only names fail_components accepts.
const std::vector<const char*> kComponentNames = {"SubscriptionCommClient", "sessionchange",
                                                  "productinfo",            "QmServiceStatusClient",
                                                  "productagentcommclient", "connect_integrator"};

std::string Narrow(const std::wstring& text)
{
    if (text.empty())
        return std::string();
    const int size = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (length <= 0)
        return std::string();
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), size, &narrow[0], length, nullptr, nullptr);
    return narrow;
}

std::string Quoted(const std::wstring& text)
{
    return "\"" + Narrow(text) + "\"";
}

// Reads "root", "key" and "name", which name a registry value.
void ReadRegistryPlace(FieldReader& fields, RegistryRoot& root, std::wstring& key, std::wstring& name)
{
    std::string rootName;
    fields.Text("root", rootName, Need::Required);
    if (fields.Ok())
    {
        if (rootName == "HKLM")
            root = RegistryRoot::LocalMachine;
        else if (rootName == "HKCU")
            root = RegistryRoot::CurrentUser;
        else if (rootName == "HKU")
            root = RegistryRoot::Users;
        else
            fields.Fail("root", "unknown root \"" + rootName + "\" (expected one of: HKLM, HKCU, HKU)");
    }
    fields.WideText("key", key, Need::Required);
    if (fields.Ok() && key.empty())
        fields.Fail("key", "expected a key path, found an empty text");
    fields.WideText("name", name, Need::Required);
}

// A text of a subscription record: it has to fit its fixed array with the
// NUL, and a NUL inside would cut it short.
void ReadRecordText(FieldReader& fields, const char* key, std::string& out)
{
    fields.Text(key, out, Need::Optional);
    if (!fields.Ok())
        return;
    if (out.size() > kMaxSubscriptionTextBytes)
        fields.Fail(key, "expected a text of at most " + std::to_string(kMaxSubscriptionTextBytes) +
                             " bytes, found " + std::to_string(out.size()) + " bytes");
    else if (out.find('\0') != std::string::npos)
        fields.Fail(key, "expected a text without NUL characters");
}

// Reads a subscription record; shared by the top-level "subscription" and
// the "subscription" step. Every field is optional and defaults to zero.
SubscriptionRecord ReadSubscriptionRecord(FieldReader& fields)
{
    SubscriptionRecord record;
    fields.OnlyKeys({"key_type", "product_type", "server_product_type", "status_code", "valid", "days_left",
                     "account_id", "bundle_id", "commercial_id", "features"});
    fields.Int32("key_type", record.keyType, Need::Optional);
    fields.Int32("product_type", record.productType, Need::Optional);
    fields.Int32("server_product_type", record.serverProductType, Need::Optional);
    fields.Uint32("status_code", record.statusCode, Need::Optional);
    fields.Bool("valid", record.valid, Need::Optional);
    fields.Uint32("days_left", record.daysLeft, Need::Optional);
    ReadRecordText(fields, "account_id", record.accountId);
    ReadRecordText(fields, "bundle_id", record.bundleId);
    ReadRecordText(fields, "commercial_id", record.commercialId);
    fields.Int32List("features", record.features, Need::Optional);
    return record;
}

// Reads fields of a registry value record; shared by "registry" and the
// "set_registry" step, which carry the same fields.
void ReadRegistryFields(FieldReader& fields, RegistryValue& out)
{
    ReadRegistryPlace(fields, out.root, out.key, out.name);

    std::string type;
    fields.Text("type", type, Need::Required);
    if (!fields.Ok())
        return;
    if (type == "dword")
    {
        out.type = RegistryType::Dword;
        fields.Uint32("value", out.dword, Need::Required);
    }
    else if (type == "string")
    {
        out.type = RegistryType::String;
        fields.WideText("value", out.text, Need::Required);
    }
    else if (type == "absent")
    {
        out.type = RegistryType::Absent;
        if (fields.Find("value") != nullptr)
            fields.Fail("value", "not allowed with type \"absent\"");
    }
    else if (type == "absent_key")
    {
        out.type = RegistryType::AbsentKey;
        if (fields.Find("value") != nullptr)
            fields.Fail("value", "not allowed with type \"absent_key\"");
        else if (!out.name.empty())
            fields.Fail("name", "expected \"\" with type \"absent_key\", which deletes the whole key");
    }
    else
    {
        fields.Fail("type", "unknown type \"" + type + "\" (expected one of: dword, string, absent, absent_key)");
    }
}

// A list of texts under key; out is replaced.
void ReadTextList(FieldReader& fields, const char* key, std::vector<std::string>& out, std::string& error)
{
    const picojson::value* list = fields.Find(key);
    if (list == nullptr || !fields.Ok())
        return;
    if (!list->is<picojson::array>())
        return fields.Fail(key, "expected a list of texts");
    std::vector<std::string> texts;
    const picojson::array& items = list->get<picojson::array>();
    for (size_t i = 0; i < items.size(); ++i)
    {
        std::string text;
        if (!ReadText(items[i], JoinPath(fields.PathOf(key), i), text, error))
            return;
        texts.push_back(text);
    }
    out = texts;
}

void ReadTextList(FieldReader& fields, const char* key, std::optional<std::vector<std::string>>& out,
                  std::string& error)
{
    if (fields.Find(key) == nullptr)
        return;
    std::vector<std::string> texts;
    ReadTextList(fields, key, texts, error);
    if (fields.Ok())
        out = texts;
}

// A step's "expect" object.
Expectations ReadExpectations(FieldReader& fields, std::string& error)
{
    Expectations expect;
    fields.OnlyKeys({"launches", "registry", "log", "no_log", "cloud", "bootstrap", "modules", "wsc", "host"});
    ReadTextList(fields, "launches", expect.launches, error);
    ReadTextList(fields, "log", expect.log, error);
    ReadTextList(fields, "no_log", expect.noLog, error);
    ReadTextList(fields, "cloud", expect.cloud, error);
    ReadTextList(fields, "bootstrap", expect.bootstrap, error);
    ReadTextList(fields, "modules", expect.modules, error);
    ReadTextList(fields, "wsc", expect.wsc, error);
    if (const picojson::value* list = fields.Find("registry"); list != nullptr && fields.Ok())
    {
        if (!list->is<picojson::array>())
            fields.Fail("registry", "expected a list of {root, key, name, type, value}");
        else
        {
            const picojson::array& items = list->get<picojson::array>();
            for (size_t i = 0; i < items.size() && error.empty(); ++i)
            {
                FieldReader value(items[i], JoinPath(fields.PathOf("registry"), i), error);
                value.OnlyKeys({"root", "key", "name", "type", "value"});
                RegistryValue expected;
                ReadRegistryFields(value, expected);
                if (value.Ok() && expected.type == RegistryType::AbsentKey)
                    value.Fail("type", "\"absent_key\" is for setting up; an expectation names values");
                if (value.Ok())
                    expect.registry.push_back(expected);
            }
        }
    }
    if (const picojson::value* counts = fields.Find("host"); counts != nullptr && fields.Ok())
    {
        if (!counts->is<picojson::object>())
            fields.Fail("host", "expected an object of host calls and their counts");
        else
        {
            for (const auto& entry : counts->get<picojson::object>())
            {
                uint32_t count = 0;
                if (!ReadUint32(entry.second, JoinPath(fields.PathOf("host"), entry.first), count, error))
                    break;
                expect.host[entry.first] = count;
            }
        }
    }
    return expect;
}

// One entry per step kind: its name, the keys it takes besides "do" and
// "note", and how its fields become a StepAction.
struct StepKind
{
    const char* name;
    std::vector<const char*> keys;
    std::function<StepAction(FieldReader&)> read;
};

const std::vector<StepKind>& StepKinds()
{
    static const std::vector<StepKind> kinds = {
        {"init", {"do", "note"}, [](FieldReader&) -> StepAction { return InitStep{}; }},
        {"start", {"do", "note"}, [](FieldReader&) -> StepAction { return StartStep{}; }},
        {"stop", {"do", "note"}, [](FieldReader&) -> StepAction { return StopStep{}; }},
        {"service_status", {"do", "note", "service", "status"},
         [](FieldReader& fields) -> StepAction {
             ServiceStatusStep step;
             fields.Uint32("service", step.service, Need::Required);
             fields.Uint32("status", step.status, Need::Required);
             return step;
         }},
        {"session_change", {"do", "note", "time", "event", "info"},
         [](FieldReader& fields) -> StepAction {
             SessionChangeStep step;
             fields.Uint32("time", step.time, Need::Optional);
             fields.Uint32("event", step.event, Need::Required);
             fields.Bool("info", step.info, Need::Optional);
             return step;
         }},
        {"user_info_changed", {"do", "note"}, [](FieldReader&) -> StepAction { return UserInfoChangedStep{}; }},
        {"user_info_reply", {"do", "note", "level", "text"},
         [](FieldReader& fields) -> StepAction {
             UserInfoReplyStep step;
             fields.WideText("level", step.level, Need::Required);
             fields.WideText("text", step.text, Need::Optional);
             return step;
         }},
        {"advance", {"do", "note", "ms"},
         [](FieldReader& fields) -> StepAction {
             AdvanceStep step;
             fields.Uint64("ms", kMaxAdvanceMs, step.ms, Need::Required);
             return step;
         }},
        {"wait_idle", {"do", "note"}, [](FieldReader&) -> StepAction { return WaitIdleStep{}; }},
        {"set_registry", {"do", "note", "root", "key", "name", "type", "value"},
         [](FieldReader& fields) -> StepAction {
             SetRegistryStep step;
             ReadRegistryFields(fields, step.value);
             return step;
         }},
        {"show_registry", {"do", "note", "root", "key", "name"},
         [](FieldReader& fields) -> StepAction {
             ShowRegistryStep step;
             ReadRegistryPlace(fields, step.root, step.key, step.name);
             return step;
         }},
        {"wsc_marker", {"do", "note"}, [](FieldReader&) -> StepAction { return WscMarkerStep{}; }},
        {"start_wscsvc", {"do", "note"}, [](FieldReader&) -> StepAction { return StartWscsvcStep{}; }},
        {"finish_installer", {"do", "note"}, [](FieldReader&) -> StepAction { return FinishInstallerStep{}; }},
        {"subscription", {"do", "note", "record"},
         [](FieldReader& fields) -> StepAction {
             SubscriptionStep step;
             fields.Object("record", Need::Required, "a subscription record",
                           [&](FieldReader& record) { step.record = ReadSubscriptionRecord(record); });
             return step;
         }},
    };
    return kinds;
}

std::string StepNameList()
{
    std::string list;
    for (const StepKind& kind : StepKinds())
        list += (list.empty() ? "" : ", ") + std::string(kind.name);
    return list;
}

// A step is an object {"do": kind, ...}; a bare text "kind" stands for
// {"do": "kind"}.
std::optional<Step> ReadStep(const picojson::value& value, const std::string& path, std::string& error)
{
    picojson::value object = value;
    if (value.is<std::string>())
    {
        picojson::object fields;
        fields["do"] = value;
        object = picojson::value(fields);
    }
    FieldReader fields(object, path, error);
    std::string name;
    fields.Text("do", name, Need::Required);
    if (!fields.Ok())
        return std::nullopt;
    for (const StepKind& kind : StepKinds())
    {
        if (name != kind.name)
            continue;
        std::vector<const char*> keys = kind.keys;
        keys.push_back("expect");
        fields.OnlyKeys(keys);
        Step step{kind.read(fields), std::string(), std::nullopt};
        fields.Text("note", step.note, Need::Optional);
        fields.Object("expect", Need::Optional, "an object of expected effects",
                      [&](FieldReader& expect) { step.expect = ReadExpectations(expect, error); });
        if (!fields.Ok())
            return std::nullopt;
        return step;
    }
    fields.Fail("do", "unknown step \"" + name + "\" (expected one of: " + StepNameList() + ")");
    return std::nullopt;
}

// The plugin object's life as the steps drive it: "init" and "start" need
// an object that has not been started, "stop" one that exists. After "stop"
// a new cycle may begin with a new object.
void CheckLifecycleOrder(const std::vector<Step>& steps, std::string& error)
{
    enum class Phase
    {
        None,
        Initialised,
        Started,
    } phase = Phase::None;
    for (size_t i = 0; i < steps.size() && error.empty(); ++i)
    {
        const std::string path = JoinPath(JoinPath("steps", i), "do");
        const StepAction& action = steps[i].action;
        if (std::holds_alternative<InitStep>(action))
        {
            if (phase != Phase::None)
                error = path + ": \"init\" with the plugin already initialised (expected \"stop\" first)";
            phase = Phase::Initialised;
        }
        else if (std::holds_alternative<StartStep>(action))
        {
            if (phase == Phase::Started)
                error = path + ": \"start\" with the plugin already started (expected \"stop\" first)";
            phase = Phase::Started;
        }
        else if (std::holds_alternative<StopStep>(action))
        {
            if (phase == Phase::None)
                error = path + ": \"stop\" with no plugin object (expected \"init\" or \"start\" before it)";
            phase = Phase::None;
        }
    }
}

void ReadSettings(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* list = top.Find("settings");
    if (list == nullptr || !top.Ok())
        return;
    if (!list->is<picojson::array>())
        return top.Fail("settings", "expected a list of {number, section, value}");
    const picojson::array& items = list->get<picojson::array>();
    for (size_t i = 0; i < items.size() && error.empty(); ++i)
    {
        FieldReader fields(items[i], JoinPath("settings", i), error);
        fields.OnlyKeys({"number", "section", "value"});
        Setting setting;
        fields.Uint32("number", setting.number, Need::Required);
        fields.WideText("section", setting.section, Need::Required);
        fields.WideText("value", setting.value, Need::Required);
        if (!fields.Ok())
            return;
        for (size_t j = 0; j < out.settings.size(); ++j)
        {
            if (out.settings[j].number == setting.number && out.settings[j].section == setting.section)
                return fields.Fail("number", "setting " + std::to_string(setting.number) + " " +
                                                 Quoted(setting.section) + " is given twice (first at " +
                                                 JoinPath("settings", j) + ")");
        }
        out.settings.push_back(setting);
    }
}

void ReadRegistry(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* list = top.Find("registry");
    if (list == nullptr || !top.Ok())
        return;
    if (!list->is<picojson::array>())
        return top.Fail("registry", "expected a list of {root, key, name, type, value}");
    const picojson::array& items = list->get<picojson::array>();
    for (size_t i = 0; i < items.size() && error.empty(); ++i)
    {
        FieldReader fields(items[i], JoinPath("registry", i), error);
        fields.OnlyKeys({"root", "key", "name", "type", "value"});
        RegistryValue value;
        ReadRegistryFields(fields, value);
        if (fields.Ok())
            out.registry.push_back(value);
    }
}

void ReadMissingSetting(FieldReader& top, Scenario& out)
{
    std::string how;
    top.Text("missing_setting", how, Need::Optional);
    if (!top.Ok() || top.Find("missing_setting") == nullptr)
        return;
    if (how == "null")
        out.missingSetting = MissingSetting::Null;
    else if (how == "<error-not-found>")
        out.missingSetting = MissingSetting::NotFoundText;
    else
        top.Fail("missing_setting", "unknown answer \"" + how + "\" (expected one of: null, <error-not-found>)");
}

UserInfoAnswer ReadUserInfoAnswer(FieldReader& fields)
{
    UserInfoAnswer answer;
    fields.OnlyKeys({"level", "text", "when"});
    fields.WideText("level", answer.level, Need::Required);
    fields.WideText("text", answer.text, Need::Optional);
    std::string when = "late";
    fields.Text("when", when, Need::Optional);
    if (fields.Ok())
    {
        if (when == "early")
            answer.early = true;
        else if (when != "late")
            fields.Fail("when", "unknown timing \"" + when + "\" (expected one of: early, late)");
    }
    return answer;
}

void ReadFailComponents(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* map = top.Find("fail_components");
    if (map == nullptr || !top.Ok())
        return;
    FieldReader fields(*map, "fail_components", error);
    if (!fields.Ok())
        return;
    for (const auto& entry : map->get<picojson::object>())
    {
        bool known = false;
        for (const char* name : kComponentNames)
            known = known || entry.first == name;
        if (!known)
            return fields.Fail(entry.first, "unknown component (expected one of: " + JoinNames(kComponentNames) + ")");
        uint32_t status = 0;
        if (!ReadUint32(entry.second, fields.PathOf(entry.first), status, error))
            return;
        if (status == 0)
            return fields.Fail(entry.first, "expected a failure status from 1 to 4294967295, found 0");
        std::wstring name;
        WidenUtf8(entry.first, name);
        out.failComponents[name] = status;
    }
}

// "modules": {"<application identifier>": state, ...}. The reader has
// refused a key given twice already.
void ReadModules(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* map = top.Find("modules");
    if (map == nullptr || !top.Ok())
        return;
    FieldReader fields(*map, "modules", error);
    if (!fields.Ok())
        return;
    for (const auto& entry : map->get<picojson::object>())
    {
        if (entry.first.empty())
            return top.Fail("modules", "expected application identifiers as keys, found an empty key");
        std::wstring appId;
        if (!WidenUtf8(entry.first, appId))
            return top.Fail("modules", "expected application identifiers in UTF-8");
        uint32_t state = 0;
        if (!ReadUint32(entry.second, fields.PathOf(entry.first), state, error))
            return;
        out.modules[appId] = state;
    }
}

void ReadSteps(FieldReader& top, Scenario& out, std::string& error)
{
    const picojson::value* list = top.Find("steps");
    if (!top.Ok())
        return;
    if (list == nullptr)
        return top.Fail("steps", "missing (expected a list of steps)");
    if (!list->is<picojson::array>())
        return top.Fail("steps", "expected a list of steps");
    const picojson::array& items = list->get<picojson::array>();
    for (size_t i = 0; i < items.size(); ++i)
    {
        std::optional<Step> step = ReadStep(items[i], JoinPath("steps", i), error);
        if (!step)
            return;
        out.steps.push_back(std::move(*step));
    }
    CheckLifecycleOrder(out.steps, error);
}

const char* RootName(RegistryRoot root)
{
    switch (root)
    {
    case RegistryRoot::LocalMachine:
        return "HKLM";
    case RegistryRoot::CurrentUser:
        return "HKCU";
    case RegistryRoot::Users:
        return "HKU";
    }
    return "?";
}

struct FileCloser
{
    void operator()(FILE* file) const { std::fclose(file); }
};
} // namespace

std::string QuotedBytes(const std::string& text)
{
    static const char kHex[] = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char c : text)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
        {
            quoted += '\\';
            quoted += c;
        }
        else if (byte < 0x20 || byte > 0x7E)
        {
            quoted += "\\x";
            quoted += kHex[byte >> 4];
            quoted += kHex[byte & 0xF];
        }
        else
        {
            quoted += c;
        }
    }
    return quoted + "\"";
}

ParseResult ParseScenario(const std::string& text)
{
    ParseResult result;
    picojson::value root;
    result.error = ParseJson(text, root);
    if (!result.error.empty())
        return result;

    Scenario scenario;
    std::string& error = result.error;
    FieldReader top(root, std::string(), error);
    top.OnlyKeys({"description", "settings", "missing_setting", "registry", "host_service_status",
                  "fail_components", "fail_serial_execution", "product_agent_async", "user_info_answer",
                  "modules", "fail_set_connect_app_state", "null_component_manager", "null_event_queue",
                  "subscription", "wscsvc", "installer_running", "steps", "bootstrap_file", "commercial_details",
                  "cloud_answers"});
    top.Text("description", scenario.description, Need::Optional);
    ReadSettings(top, scenario, error);
    ReadMissingSetting(top, scenario);
    ReadRegistry(top, scenario, error);
    top.Uint32("host_service_status", scenario.hostServiceStatus, Need::Optional);
    ReadFailComponents(top, scenario, error);
    top.Uint32("fail_serial_execution", scenario.failSerialExecution, Need::Optional);
    top.Bool("product_agent_async", scenario.productAgentAsync, Need::Optional);
    top.Object("user_info_answer", Need::Optional, "an answer of the product agent",
               [&](FieldReader& answer) { scenario.userInfoAnswer = ReadUserInfoAnswer(answer); });
    ReadModules(top, scenario, error);
    top.Uint32("fail_set_connect_app_state", scenario.failSetConnectAppState, Need::Optional);
    top.Bool("null_component_manager", scenario.nullComponentManager, Need::Optional);
    top.Bool("null_event_queue", scenario.nullEventQueue, Need::Optional);
    top.Object("subscription", Need::Optional, "a subscription record",
               [&](FieldReader& record) { scenario.subscription = ReadSubscriptionRecord(record); });
    std::string wscsvc;
    top.Text("wscsvc", wscsvc, Need::Optional);
    if (top.Ok() && top.Find("wscsvc") != nullptr)
    {
        if (wscsvc == "stopped")
            scenario.wscsvc = Wscsvc::Stopped;
        else if (wscsvc == "running")
            scenario.wscsvc = Wscsvc::Running;
        else if (wscsvc == "start_pending")
            scenario.wscsvc = Wscsvc::StartPending;
        else
            top.Fail("wscsvc", "unknown state \"" + wscsvc + "\" (expected one of: stopped, running, start_pending)");
    }
    top.Bool("installer_running", scenario.installerRunning, Need::Optional);
    ReadCommercialKeys(top, scenario, error);
    ReadSteps(top, scenario, error);
    if (error.empty())
        result.scenario = std::move(scenario);
    return result;
}

FileText ReadScenarioFile(const std::wstring& path)
{
    FileText result;
    std::unique_ptr<FILE, FileCloser> file(_wfopen(path.c_str(), L"rb"));
    if (!file)
    {
        result.error = std::string("cannot open the file (") + std::strerror(errno) + ")";
        return result;
    }
    std::string text;
    char buffer[16384];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file.get())) != 0)
    {
        text.append(buffer, got);
        if (text.size() > kMaxScenarioBytes)
        {
            result.error = "the file is larger than " + std::to_string(kMaxScenarioBytes) + " bytes";
            return result;
        }
    }
    if (std::ferror(file.get()))
    {
        result.error = "cannot read the file";
        return result;
    }
    // A byte order mark is allowed and skipped.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        text.erase(0, 3);
    if (text.find_first_not_of(" \t\r\n") == std::string::npos)
    {
        result.error = "the file is empty (expected a JSON object with \"steps\")";
        return result;
    }
    result.text = std::move(text);
    return result;
}

std::string DescribeRegistryPlace(RegistryRoot root, const std::wstring& key, const std::wstring& name)
{
    return std::string(RootName(root)) + "\\" + Narrow(key) + "\\" +
           (name.empty() ? std::string("(default)") : Narrow(name));
}

std::string Describe(const RegistryValue& value)
{
    const std::string line = DescribeRegistryPlace(value.root, value.key, value.name);
    switch (value.type)
    {
    case RegistryType::Dword:
        return line + " = dword " + std::to_string(value.dword);
    case RegistryType::String:
        return line + " = string " + Quoted(value.text);
    case RegistryType::Absent:
        return line + " absent";
    case RegistryType::AbsentKey:
        return std::string(RootName(value.root)) + "\\" + Narrow(value.key) + " absent with its subkeys";
    }
    return line;
}

std::string Describe(const SubscriptionRecord& record)
{
    std::string features;
    for (const int32_t feature : record.features)
        features += (features.empty() ? "" : ", ") + std::to_string(feature);
    return "key_type " + std::to_string(record.keyType) + ", product_type " + std::to_string(record.productType) +
           ", server_product_type " + std::to_string(record.serverProductType) + ", status_code " +
           std::to_string(record.statusCode) + ", valid " + (record.valid ? "true" : "false") + ", days_left " +
           std::to_string(record.daysLeft) + ", account_id " + QuotedBytes(record.accountId) + ", bundle_id " +
           QuotedBytes(record.bundleId) + ", commercial_id " + QuotedBytes(record.commercialId) + ", features [" +
           features + "]";
}

std::string Describe(const StepAction& action)
{
    struct Describer
    {
        std::string operator()(const InitStep&) const { return "init"; }
        std::string operator()(const StartStep&) const { return "start"; }
        std::string operator()(const StopStep&) const { return "stop"; }
        std::string operator()(const ServiceStatusStep& s) const
        {
            return "service_status service " + std::to_string(s.service) + ", status " + std::to_string(s.status);
        }
        std::string operator()(const SessionChangeStep& s) const
        {
            return "session_change time " + std::to_string(s.time) + ", event " + std::to_string(s.event) +
                   (s.info ? ", with info" : ", without info");
        }
        std::string operator()(const UserInfoChangedStep&) const { return "user_info_changed"; }
        std::string operator()(const UserInfoReplyStep& s) const
        {
            return "user_info_reply level " + Quoted(s.level) + ", text " + Quoted(s.text);
        }
        std::string operator()(const AdvanceStep& s) const { return "advance " + std::to_string(s.ms) + " ms"; }
        std::string operator()(const WaitIdleStep&) const { return "wait_idle"; }
        std::string operator()(const SetRegistryStep& s) const { return "set_registry " + Describe(s.value); }
        std::string operator()(const ShowRegistryStep& s) const
        {
            return "show_registry " + DescribeRegistryPlace(s.root, s.key, s.name);
        }
        std::string operator()(const SubscriptionStep& s) const { return "subscription " + Describe(s.record); }
        std::string operator()(const WscMarkerStep&) const { return "wsc_marker"; }
        std::string operator()(const StartWscsvcStep&) const { return "start_wscsvc"; }
        std::string operator()(const FinishInstallerStep&) const { return "finish_installer"; }
    };
    return std::visit(Describer{}, action);
}
} // namespace scenario
