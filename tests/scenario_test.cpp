// The scenario parser of OrbhubSim: every malformed input is refused with
// the place and what was expected, a valid scenario becomes the right
// record, and scenario files are read with their own failures as values.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "runner/scenario.h"

namespace
{
using namespace scenario;

struct Malformed
{
    std::string text;
    std::string error;
};

// {"a":{"a":...1...}} with depth objects.
std::string Nested(size_t depth)
{
    std::string text;
    for (size_t i = 0; i < depth; ++i)
        text += "{\"a\":";
    return text + "1" + std::string(depth, '}');
}

TEST(ScenarioParse, RefusesMalformedInputWithPlaceAndExpectation)
{
    const Malformed cases[] = {
        // JSON itself, with the line of the fault.
        {"{\n  \"steps\": [\n    \"start\",,\n  ]\n}", "syntax error at line 3 near: ,"},
        {"{\"steps\": [],\n \"steps\": []}", "line 2: duplicate key \"steps\""},
        {"{\"steps\": [{\"do\": \"advance\", \"ms\": 1e999}]}", "line 1: number out of range"},
        {Nested(33), "line 1: nesting deeper than 32 levels"},
        // Shape of the top level.
        {"[1]", "the scenario: expected an object, found a list"},
        {"{\"stepz\": []}", "stepz: unknown key (expected one of: description, settings, missing_setting, registry, "
                            "host_service_status, fail_components, fail_serial_execution, product_agent_async, "
                            "user_info_answer, modules, fail_set_connect_app_state, null_component_manager, null_event_queue, "
                            "subscription, wscsvc, installer_running, steps, bootstrap_file, commercial_details, cloud_answers)"},
        {"{\"wscsvc\": \"paused\", \"steps\": []}",
         "wscsvc: unknown state \"paused\" (expected one of: stopped, running, start_pending)"},
        {"{}", "steps: missing (expected a list of steps)"},
        {"{\"steps\": {}}", "steps: expected a list of steps"},
        {"{\"host_service_status\": 4294967296, \"steps\": []}",
         "host_service_status: expected a whole number from 0 to 4294967295, found 4294967296"},
        {"{\"product_agent_async\": 1, \"steps\": []}", "product_agent_async: expected true or false, found a number"},
        // The product agent's modules and their connect states.
        {"{\"modules\": {\"\": 1}, \"steps\": []}",
         "modules: expected application identifiers as keys, found an empty key"},
        {"{\"modules\": {\"com.q.\xff\": 1}, \"steps\": []}", "modules: expected application identifiers in UTF-8"},
        {"{\"modules\": {\"com.q.vpn\": true}, \"steps\": []}",
         "modules.com.q.vpn: expected a whole number from 0 to 4294967295, found true or false"},
        // Settings, registry values and failing components.
        {"{\"settings\": [{\"number\": 44, \"section\": \"Desktop\"}], \"steps\": []}",
         "settings[0].value: missing (expected a text)"},
        {"{\"settings\": [{\"number\": 1, \"section\": \"s\", \"value\": \"a\"}, "
         "{\"number\": 1, \"section\": \"s\", \"value\": \"b\"}], \"steps\": []}",
         "settings[1].number: setting 1 \"s\" is given twice (first at settings[0])"},
        {"{\"registry\": [{\"root\": \"HKLM\", \"key\": \"k\", \"name\": \"n\", \"type\": \"absent\", \"value\": 1}], "
         "\"steps\": []}",
         "registry[0].value: not allowed with type \"absent\""},
        {"{\"registry\": [{\"root\": \"HKLM\", \"key\": \"k\", \"name\": \"n\", \"type\": \"absent_key\"}], "
         "\"steps\": []}",
         "registry[0].name: expected \"\" with type \"absent_key\", which deletes the whole key"},
        {"{\"steps\": [{\"do\": \"start\", \"expect\": {\"registry\": [{\"root\": \"HKLM\", \"key\": \"k\", "
         "\"name\": \"\", \"type\": \"absent_key\"}]}}]}",
         "steps[0].expect.registry[0].type: \"absent_key\" is for setting up; an expectation names values"},
        {"{\"registry\": [{\"root\": \"HKLM\", \"key\": \"k\", \"name\": \"n\", \"type\": \"string\", \"value\": 1}], "
         "\"steps\": []}",
         "registry[0].value: expected a text, found a number"},
        {"{\"fail_components\": {\"sessionchang\": 5}, \"steps\": []}",
         "fail_components.sessionchang: unknown component (expected one of: SubscriptionCommClient, sessionchange, "
         "productinfo, QmServiceStatusClient, productagentcommclient, connect_integrator)"},
        {"{\"fail_components\": {\"sessionchange\": 0}, \"steps\": []}",
         "fail_components.sessionchange: expected a failure status from 1 to 4294967295, found 0"},
        // Steps.
        {"{\"steps\": [\"start\", {\"do\": \"advanse\"}]}",
         "steps[1].do: unknown step \"advanse\" (expected one of: init, start, stop, service_status, session_change, "
         "user_info_changed, user_info_reply, advance, wait_idle, set_registry, show_registry, wsc_marker, "
         "start_wscsvc, finish_installer, subscription)"},
        {"{\"steps\": [{\"ms\": 5}]}", "steps[0].do: missing (expected a text)"},
        {"{\"steps\": [{\"do\": \"advance\", \"ms\": 1.5}]}",
         "steps[0].ms: expected a whole number from 0 to 2592000000, found 1.5"},
        {"{\"steps\": [\"advance\"]}", "steps[0].ms: missing (expected a whole number from 0 to 2592000000)"},
        // A step's expectations.
        {"{\"steps\": [{\"do\": \"start\", \"expect\": {\"launch\": []}}]}",
         "steps[0].expect.launch: unknown key (expected one of: launches, registry, log, no_log, cloud, bootstrap, "
         "modules, wsc, host)"},
        {"{\"steps\": [{\"do\": \"start\", \"expect\": {\"launches\": \"x\"}}]}",
         "steps[0].expect.launches: expected a list of texts"},
        {"{\"steps\": [{\"do\": \"user_info_reply\", \"level\": \"\xff\"}]}",
         "steps[0].level: expected a text in UTF-8"},
        // Subscription records, at the top level and in a step: names, widths and ranges.
        {"{\"subscription\": {\"account\": \"a\"}, \"steps\": []}",
         "subscription.account: unknown key (expected one of: key_type, product_type, server_product_type, "
         "status_code, valid, days_left, account_id, bundle_id, commercial_id, features)"},
        {"{\"subscription\": {\"bundle_id\": \"" + std::string(200, 'b') + "\"}, \"steps\": []}",
         "subscription.bundle_id: expected a text of at most 199 bytes, found 200 bytes"},
        {"{\"steps\": [{\"do\": \"subscription\"}]}", "steps[0].record: missing (expected a subscription record)"},
        {"{\"steps\": [{\"do\": \"subscription\", \"record\": {\"server_product_type\": 2147483648}}]}",
         "steps[0].record.server_product_type: expected a whole number from -2147483648 to 2147483647, found "
         "2147483648"},
        {"{\"steps\": [{\"do\": \"subscription\", \"record\": {\"account_id\": \"a\\u0000b\"}}]}",
         "steps[0].record.account_id: expected a text without NUL characters"},
        // The commercial data file, Commercial_Details and the cloud's answers.
        {"{\"bootstrap_file\": {\"contents\": \"\"}, \"steps\": []}",
         "bootstrap_file.contents: unknown key (expected one of: content, settings_folder)"},
        {"{\"bootstrap_file\": {\"content\": \"{}\", \"settings_folder\": false}, \"steps\": []}",
         "bootstrap_file.content: not allowed with \"settings_folder\": false"},
        {"{\"settings\": [{\"number\": 400, \"section\": \"Desktop\", \"value\": \"C:\\\\\"}], "
         "\"bootstrap_file\": {}, \"steps\": []}",
         "bootstrap_file: setting 400 \"Desktop\" is given in settings too (the runner names its own folder there)"},
        {"{\"commercial_details\": {\"type\": \"dword\", \"value\": 0}, \"steps\": []}",
         "commercial_details: needs setting 44 \"Desktop\" in settings (it names the subscription key)"},
        {"{\"cloud_answers\": [], \"steps\": []}",
         "cloud_answers: expected a list of at least one {body, error, delay_ms}"},
        {"{\"cloud_answers\": [{\"body\": \"{}\"}, {\"delay_ms\": 5001}], \"steps\": []}",
         "cloud_answers[1].delay_ms: expected a whole number from 0 to 5000, found 5001"},
        // The plugin object's life.
        {"{\"steps\": [\"stop\"]}", "steps[0].do: \"stop\" with no plugin object (expected \"init\" or \"start\" "
                                    "before it)"},
        {"{\"steps\": [\"start\", \"start\"]}",
         "steps[1].do: \"start\" with the plugin already started (expected \"stop\" first)"},
        {"{\"steps\": [\"init\", \"init\"]}",
         "steps[1].do: \"init\" with the plugin already initialised (expected \"stop\" first)"},
    };
    for (const Malformed& c : cases)
    {
        const ParseResult result = ParseScenario(c.text);
        EXPECT_FALSE(result.scenario.has_value()) << c.text;
        EXPECT_EQ(result.error, c.error) << c.text;
    }
}

TEST(ScenarioParse, ValidScenarioBecomesTheRecord)
{
    const ParseResult result = ParseScenario(R"({
      "description": "all of it",
      "settings": [{"number": 217, "section": "Desktop", "value": "SOFTWARE\\Quillmarten\\Security"}],
      "missing_setting": "<error-not-found>",
      "registry": [
        {"root": "HKU", "key": ".DEFAULT\\SOFTWARE\\Sub_ID_X", "name": "GsShowed", "type": "dword", "value": 4294967295},
        {"root": "HKLM", "key": "SOFTWARE\\Q", "name": "", "type": "string", "value": "gr\u00fc\u00df"},
        {"root": "HKCU", "key": "SOFTWARE\\Q", "name": "old", "type": "absent"},
        {"root": "HKLM", "key": "SOFTWARE\\Q\\Sub", "name": "", "type": "absent_key"}
      ],
      "host_service_status": 0,
      "fail_components": {"productinfo": 5, "connect_integrator": 1168},
      "fail_serial_execution": 8,
      "product_agent_async": false,
      "user_info_answer": {"level": "null", "text": " ", "when": "early"},
      "modules": {"com.q.vpn": 1, "com.q.kinguard": 4294967295, "com.q.\u00fc": 0},
      "fail_set_connect_app_state": 5,
      "null_component_manager": true,
      "null_event_queue": true,
      "subscription": {"key_type": -2147483648, "product_type": 3, "server_product_type": 2147483647,
        "status_code": 4294967295, "valid": true, "days_left": 30, "account_id": "acc",
        "bundle_id": "q\"\u00fc", "commercial_id": "C1", "features": [9, -1, 9]},
      "steps": [
        "init",
        {"do": "start", "note": "now", "expect": {"launches": [], "cloud": ["{}"], "log": ["INFO f: t"],
          "no_log": ["ERROR f: u"], "bootstrap": [], "modules": ["com.q.vpn on"], "wsc": ["wsc.dll loaded"],
          "registry": [{"root": "HKLM", "key": "K", "name": "N", "type": "absent"}], "host": {"Run a": 2, "Post": 0}}},
        {"do": "service_status", "service": 0, "status": 1},
        {"do": "session_change", "time": 7, "event": 5, "info": false},
        {"do": "session_change", "event": 6},
        "user_info_changed",
        {"do": "user_info_reply", "level": "msp", "text": "Org"},
        {"do": "advance", "ms": 2592000000},
        "wait_idle",
        {"do": "set_registry", "root": "HKLM", "key": "K", "name": "N", "type": "dword", "value": 1},
        {"do": "show_registry", "root": "HKU", "key": "K", "name": ""},
        {"do": "subscription", "record": {}},
        "wsc_marker",
        "start_wscsvc",
        "finish_installer",
        "stop",
        "start",
        "stop"
      ],
      "wscsvc": "start_pending",
      "installer_running": true
    })");
    ASSERT_TRUE(result.scenario.has_value()) << result.error;
    const Scenario& s = *result.scenario;
    EXPECT_EQ(s.description, "all of it");
    EXPECT_EQ(s.settings, (std::vector<Setting>{{217, L"Desktop", L"SOFTWARE\\Quillmarten\\Security"}}));
    EXPECT_EQ(s.missingSetting, MissingSetting::NotFoundText);
    EXPECT_EQ(s.registry,
              (std::vector<RegistryValue>{
                  {RegistryRoot::Users, L".DEFAULT\\SOFTWARE\\Sub_ID_X", L"GsShowed", RegistryType::Dword, 0xFFFFFFFFu, L""},
                  {RegistryRoot::LocalMachine, L"SOFTWARE\\Q", L"", RegistryType::String, 0, L"gr\u00fc\u00df"},
                  {RegistryRoot::CurrentUser, L"SOFTWARE\\Q", L"old", RegistryType::Absent, 0, L""},
                  {RegistryRoot::LocalMachine, L"SOFTWARE\\Q\\Sub", L"", RegistryType::AbsentKey, 0, L""}}));
    EXPECT_EQ(s.hostServiceStatus, 0u);
    EXPECT_EQ(s.failComponents, (std::map<std::wstring, uint32_t>{{L"productinfo", 5}, {L"connect_integrator", 1168}}));
    EXPECT_EQ(s.failSerialExecution, 8u);
    EXPECT_FALSE(s.productAgentAsync);
    EXPECT_EQ(s.userInfoAnswer, (UserInfoAnswer{L"null", L" ", true}));
    EXPECT_EQ(s.modules, (std::map<std::wstring, uint32_t>{
                             {L"com.q.vpn", 1}, {L"com.q.kinguard", 0xFFFFFFFFu}, {L"com.q.\u00fc", 0}}));
    EXPECT_EQ(s.failSetConnectAppState, 5u);
    EXPECT_TRUE(s.nullComponentManager);
    EXPECT_TRUE(s.nullEventQueue);
    EXPECT_EQ(s.wscsvc, scenario::Wscsvc::StartPending);
    EXPECT_TRUE(s.installerRunning);

    const std::vector<StepAction> expected = {
        InitStep{},
        StartStep{},
        ServiceStatusStep{0, 1},
        SessionChangeStep{7, 5, false},
        SessionChangeStep{0, 6, true},
        UserInfoChangedStep{},
        UserInfoReplyStep{L"msp", L"Org"},
        AdvanceStep{kMaxAdvanceMs},
        WaitIdleStep{},
        SetRegistryStep{{RegistryRoot::LocalMachine, L"K", L"N", RegistryType::Dword, 1, L""}},
        ShowRegistryStep{RegistryRoot::Users, L"K", L""},
        SubscriptionStep{},
        WscMarkerStep{},
        StartWscsvcStep{},
        FinishInstallerStep{},
        StopStep{},
        StartStep{},
        StopStep{},
    };
    ASSERT_EQ(s.steps.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(s.steps[i].action == expected[i]) << "step " << i << ": " << Describe(s.steps[i].action);
    EXPECT_EQ(s.steps[1].note, "now");
    Expectations expect;
    expect.launches = std::vector<std::string>{};
    expect.cloud = std::vector<std::string>{"{}"};
    expect.log = {"INFO f: t"};
    expect.noLog = {"ERROR f: u"};
    expect.bootstrap = std::vector<std::string>{};
    expect.modules = std::vector<std::string>{"com.q.vpn on"};
    expect.wsc = std::vector<std::string>{"wsc.dll loaded"};
    expect.registry = {{RegistryRoot::LocalMachine, L"K", L"N", RegistryType::Absent, 0, L""}};
    expect.host = {{"Run a", 2}, {"Post", 0}};
    EXPECT_TRUE(s.steps[1].expect == expect);
    EXPECT_FALSE(s.steps[0].expect.has_value());

    // The record is printed in one line, any byte of its texts escaped.
    const SubscriptionRecord record{INT32_MIN, 3, INT32_MAX, 0xFFFFFFFFu, true, 30, "acc", "q\"\xc3\xbc", "C1", {9, -1, 9}};
    ASSERT_TRUE(s.subscription.has_value());
    EXPECT_EQ(*s.subscription, record);
    EXPECT_EQ(Describe(record), "key_type -2147483648, product_type 3, server_product_type 2147483647, "
                                "status_code 4294967295, valid true, days_left 30, account_id \"acc\", "
                                "bundle_id \"q\\\"\\xc3\\xbc\", commercial_id \"C1\", features [9, -1, 9]");
}

TEST(ScenarioParse, CommercialKeysBecomeTheRecordAndEveryKeyButStepsHasADefault)
{
    const ParseResult result = ParseScenario(R"({
      "settings": [{"number": 44, "section": "Desktop", "value": "QMX"}],
      "bootstrap_file": {"content": "{\"app_data\":1}\u0000\u00ff"},
      "commercial_details": {"type": "string", "value": "0"},
      "cloud_answers": [{"body": "{\"k\":\"v\"}"}, {"error": 5, "delay_ms": 5000}, {}],
      "steps": []
    })");
    ASSERT_TRUE(result.scenario.has_value()) << result.error;
    const Scenario& s = *result.scenario;
    EXPECT_EQ(s.bootstrapFile, (BootstrapFile{true, std::string("{\"app_data\":1}\0\xc3\xbf", 17)}));
    EXPECT_EQ(s.commercialDetails, (RegistryValue{RegistryRoot::Users, L".DEFAULT\\SOFTWARE\\Sub_ID_QMX",
                                                  L"Commercial_Details", RegistryType::String, 0, L"0"}));
    EXPECT_EQ(s.cloudAnswers, (std::vector<CloudAnswer>{{"{\"k\":\"v\"}", 0, 0}, {"", 5, 5000}, {"", 0, 0}}));

    const struct
    {
        const char* file;
        BootstrapFile expected;
    } files[] = {
        {R"({"bootstrap_file": {}, "steps": []})", {true, std::nullopt}},
        {R"({"bootstrap_file": {"settings_folder": false}, "steps": []})", {false, std::nullopt}},
        {R"({"bootstrap_file": {"content": ""}, "steps": []})", {true, std::string()}},
    };
    for (const auto& row : files)
    {
        const ParseResult parsed = ParseScenario(row.file);
        ASSERT_TRUE(parsed.scenario.has_value()) << parsed.error;
        EXPECT_EQ(parsed.scenario->bootstrapFile, row.expected) << row.file;
    }

    // Everything but the steps has a default; these two are neither empty nor
    // zero.
    const ParseResult minimal = ParseScenario("{\"steps\": []}");
    ASSERT_TRUE(minimal.scenario.has_value()) << minimal.error;
    const Scenario& m = *minimal.scenario;
    EXPECT_EQ(m.missingSetting, MissingSetting::Null);
    EXPECT_EQ(m.hostServiceStatus, 1u);
}

TEST(ScenarioFile, ReadsTextOrTellsWhyNot)
{
    const struct
    {
        std::string content;
        std::optional<std::string> text;
        std::string error;
    } rows[] = {
        {"\xEF\xBB\xBF{\"steps\": []}", "{\"steps\": []}", ""},
        {" \r\n\t", std::nullopt, "the file is empty (expected a JSON object with \"steps\")"},
        {std::string(kMaxScenarioBytes + 1, ' '), std::nullopt, "the file is larger than 1048576 bytes"},
    };
    const std::wstring path = NewTempFile(L"scn");
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.error);
        std::ofstream(path.c_str(), std::ios::binary | std::ios::trunc) << row.content;
        const FileText read = ReadScenarioFile(path);
        EXPECT_EQ(read.text, row.text);
        EXPECT_EQ(read.error, row.error);
    }
    DeleteFileW(path.c_str());
    const FileText missing = ReadScenarioFile(L"no such folder\\no such file.json");
    EXPECT_FALSE(missing.text.has_value());
    EXPECT_EQ(missing.error.rfind("cannot open the file (", 0), 0u) << missing.error;
}
} // namespace
