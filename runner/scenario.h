// A scenario for OrbhubSim: how the simulated host is set up and the steps
// it plays against the plugin. Parsing turns a JSON text into this plain
// record or into one message naming the place and what was expected; it
// touches neither the host nor the plugin.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace scenario
{
// A product setting that "productinfo" answers for GetString(number, section).
struct Setting
{
    uint32_t number = 0;
    std::wstring section;
    std::wstring value;

    bool operator==(const Setting& o) const
    {
        return number == o.number && section == o.section && value == o.value;
    }
};

// How "productinfo" answers for a setting it does not have.
enum class MissingSetting
{
    Null,         // "null"
    NotFoundText, // "<error-not-found>"
};

enum class RegistryRoot
{
    LocalMachine, // "HKLM"
    CurrentUser,  // "HKCU"
    Users,        // "HKU"
};

enum class RegistryType
{
    Dword,  // "dword": a number
    String, // "string": a text
    Absent, // "absent": the value is deleted if it exists
    AbsentKey, // "absent_key": the key goes with its subkeys; name is ""
};

// A registry value written (or deleted) in the real registry of the prefix.
struct RegistryValue
{
    RegistryRoot root = RegistryRoot::LocalMachine;
    std::wstring key;
    std::wstring name; // "" is the key's default value
    RegistryType type = RegistryType::Dword;
    uint32_t dword = 0;
    std::wstring text;

    bool operator==(const RegistryValue& o) const
    {
        return root == o.root && key == o.key && name == o.name && type == o.type && dword == o.dword &&
               text == o.text;
    }
};

// The fields of a subscription record that a scenario may give; every other
// field of the host's record stays zero. Texts are the bytes of the record's
// fixed arrays, at most kMaxSubscriptionTextBytes so that the NUL still fits.
struct SubscriptionRecord
{
    int32_t keyType = 0;
    int32_t productType = 0;
    int32_t serverProductType = 0; // 0: unknown
    uint32_t statusCode = 0;
    bool valid = false;
    uint32_t daysLeft = 0;
    std::string accountId; // empty: no account attached
    std::string bundleId;
    std::string commercialId;
    std::vector<int32_t> features;

    bool operator==(const SubscriptionRecord& o) const
    {
        return keyType == o.keyType && productType == o.productType && serverProductType == o.serverProductType &&
               statusCode == o.statusCode && valid == o.valid && daysLeft == o.daysLeft &&
               accountId == o.accountId && bundleId == o.bundleId && commercialId == o.commercialId &&
               features == o.features;
    }
};

constexpr size_t kMaxSubscriptionTextBytes = 199;

// How the product agent answers each GetUserInfoExAsync by itself.
struct UserInfoAnswer
{
    std::wstring level;
    std::wstring text;
    bool early = false; // before the request returns; else after the step that made it

    bool operator==(const UserInfoAnswer& o) const
    {
        return level == o.level && text == o.text && early == o.early;
    }
};

// Step kinds. Each is a plain record; adding a kind means a record here, an
// entry in the parser's table and an overload in the player.
struct InitStep // QmCreateObject (if no object yet) and Init
{
    bool operator==(const InitStep&) const { return true; }
};
struct StartStep // whatever of QmCreateObject and Init is still due, then Start
{
    bool operator==(const StartStep&) const { return true; }
};
struct StopStep // Stop, UnInit and QmDestroyObject, as far as the object got
{
    bool operator==(const StopStep&) const { return true; }
};
struct ServiceStatusStep // OnServiceStatusChanged from the service status client
{
    uint32_t service = 0;
    uint32_t status = 0;
    bool operator==(const ServiceStatusStep& o) const { return service == o.service && status == o.status; }
};
struct SessionChangeStep // OnSessionChange from the session change client
{
    uint32_t time = 0;
    uint32_t event = 0;
    bool info = true; // whether a session notification comes with it
    bool operator==(const SessionChangeStep& o) const
    {
        return time == o.time && event == o.event && info == o.info;
    }
};
struct UserInfoChangedStep // OnUserInfoChanged from the product agent
{
    bool operator==(const UserInfoChangedStep&) const { return true; }
};
struct UserInfoReplyStep // OnGetUserInfoExAsync on the product agent's reply thread
{
    std::wstring level;
    std::wstring text;
    bool operator==(const UserInfoReplyStep& o) const { return level == o.level && text == o.text; }
};
struct AdvanceStep // moves the host's clock on, running the timers due
{
    uint64_t ms = 0;
    bool operator==(const AdvanceStep& o) const { return ms == o.ms; }
};
struct WaitIdleStep // waits until the host's threads are idle
{
    bool operator==(const WaitIdleStep&) const { return true; }
};
struct SetRegistryStep // writes or deletes a registry value between events
{
    RegistryValue value;
    bool operator==(const SetRegistryStep& o) const { return value == o.value; }
};

struct ShowRegistryStep // prints a registry value as it is now
{
    RegistryRoot root = RegistryRoot::LocalMachine;
    std::wstring key;
    std::wstring name; // "" is the key's default value
    bool operator==(const ShowRegistryStep& o) const { return root == o.root && key == o.key && name == o.name; }
};
struct SubscriptionStep // OnSubscriptionStatusChanged from the subscription client
{
    SubscriptionRecord record;
    bool operator==(const SubscriptionStep& o) const { return record == o.record; }
};

struct WscMarkerStep // sets UnregFwWscFailed at the product key path (setting 217)
{
    bool operator==(const WscMarkerStep&) const { return true; }
};
struct StartWscsvcStep // starts the installed "wscsvc" (or lets a held start go on) until it runs
{
    bool operator==(const StartWscsvcStep&) const { return true; }
};
struct FinishInstallerStep // sets the installer's named event, as the installer does at its end
{
    bool operator==(const FinishInstallerStep&) const { return true; }
};

using StepAction = std::variant<InitStep, StartStep, StopStep, ServiceStatusStep, SessionChangeStep,
                                UserInfoChangedStep, UserInfoReplyStep, AdvanceStep, WaitIdleStep, SetRegistryStep,
                                ShowRegistryStep, SubscriptionStep, WscMarkerStep, StartWscsvcStep, FinishInstallerStep>;

// A step's "expect" object: what must have happened once the step is over.
// Lists that are given are compared exactly and in order ([] means none);
// registry values, log lines and host counts are checked one by one.
struct Expectations
{
    std::optional<std::vector<std::string>> launches; // command lines of ProductCfg.exe
    std::vector<RegistryValue> registry;              // values that hold after the step; "absent" too
    std::vector<std::string> log;                     // "LEVEL function: text", must appear
    std::vector<std::string> noLog;                   // "LEVEL function: text", must not appear
    std::optional<std::vector<std::string>> cloud;    // parameters of the cloud requests
    std::optional<std::vector<std::string>> bootstrap; // the data file's rewrites, as the report shows them
    std::optional<std::vector<std::string>> modules;  // SetConnectAppState calls: "<application> on|off"
    std::optional<std::vector<std::string>> wsc;      // what wsc.dll recorded: "wsc.dll UnInstall(1)", ...
    std::map<std::string, uint32_t> host;             // host calls starting with the key -> how many

    bool operator==(const Expectations& o) const
    {
        return launches == o.launches && registry == o.registry && log == o.log && noLog == o.noLog &&
               cloud == o.cloud && bootstrap == o.bootstrap && modules == o.modules && wsc == o.wsc &&
               host == o.host;
    }
};

struct Step
{
    StepAction action;
    std::string note; // printed under the step's header; may be empty
    std::optional<Expectations> expect;
};

// The service "wscsvc" the runner installs before the first step.
enum class Wscsvc
{
    Untouched,    // none installed: the prefix stays as it is
    Stopped,      // "stopped": installed, started by a start_wscsvc step
    Running,      // "running"
    StartPending, // "start_pending": started and held in START_PENDING until start_wscsvc
};

// The commercial data file, in a folder of the runner's own that setting
// 400 "Desktop" names with its closing separator.
struct BootstrapFile
{
    bool settingsFolder = true;         // whether the folder holds "settings"
    std::optional<std::string> content; // the file's bytes; absent: no file

    bool operator==(const BootstrapFile& o) const
    {
        return settingsFolder == o.settingsFolder && content == o.content;
    }
};

// What the cloud client gives back for one request.
struct CloudAnswer
{
    std::string body; // may hold any bytes, NULs included
    uint32_t error = 0;
    uint32_t delayMs = 0;

    bool operator==(const CloudAnswer& o) const
    {
        return body == o.body && error == o.error && delayMs == o.delayMs;
    }
};

// Longest wait of the cloud client before it answers.
constexpr uint32_t kMaxCloudDelayMs = 5000;

// Longest clock advance one step may ask for: 30 days.
constexpr uint64_t kMaxAdvanceMs = 30ull * 24 * 3600 * 1000;
// Largest scenario file read.
constexpr size_t kMaxScenarioBytes = 1024 * 1024;

struct Scenario
{
    std::string description;
    std::vector<Setting> settings;
    MissingSetting missingSetting = MissingSetting::Null;
    std::vector<RegistryValue> registry; // written before the first step
    uint32_t hostServiceStatus = 1;      // what GetStatus(0) answers
    std::map<std::wstring, uint32_t> failComponents; // name -> status of GetComponent
    uint32_t failSerialExecution = 0;                // status of CreateSerialExecution; 0: works
    bool productAgentAsync = true;
    // Absent: requests get no answer but the steps' replies.
    std::optional<UserInfoAnswer> userInfoAnswer;
    // The product agent's modules: application identifier -> connect state
    // (1: off). GetModuleInfo of any other identifier fails.
    std::map<std::wstring, uint32_t> modules;
    uint32_t failSetConnectAppState = 0; // status of SetConnectAppState; 0: works
    bool nullComponentManager = false;
    bool nullEventQueue = false;
    // What GetSubscription of "SubscriptionCommClient" fills in; absent: the
    // all-zero record.
    std::optional<SubscriptionRecord> subscription;
    Wscsvc wscsvc = Wscsvc::Untouched;
    // "installer_running": the installer's named event exists, not set,
    // until a finish_installer step.
    bool installerRunning = false;
    std::optional<BootstrapFile> bootstrapFile;
    // "Commercial_Details" at the subscription key path (setting 44 "Desktop").
    std::optional<RegistryValue> commercialDetails;
    // The cloud's answers in order, the last for all later requests; none:
    // every request fails with 50.
    std::vector<CloudAnswer> cloudAnswers;
    std::vector<Step> steps;
};

// The parsed scenario, or the reason there is none: "<path>: <problem>",
// e.g. "steps[2].ms: expected a whole number from 0 to 2592000000, found -5".
struct ParseResult
{
    std::optional<Scenario> scenario;
    std::string error;
};

ParseResult ParseScenario(const std::string& text);

// The bytes of a scenario file, or an error naming what went wrong (missing,
// unreadable, empty, too large).
struct FileText
{
    std::optional<std::string> text;
    std::string error;
};

FileText ReadScenarioFile(const std::wstring& path);

// A text in quotes with a quote, a backslash and any byte outside printable
// ASCII escaped, so that any bytes print on one line: "q\"\xc3\xbc".
std::string QuotedBytes(const std::string& text);

// One line for a step's header, e.g. "advance 120000 ms".
std::string Describe(const StepAction& action);
// "HKLM\SOFTWARE\Quillmarten\Security\ProductCfgDelay = dword 60000"
std::string Describe(const RegistryValue& value);
// "HKLM\SOFTWARE\Quillmarten\Security\ProductCfgDelay"
std::string DescribeRegistryPlace(RegistryRoot root, const std::wstring& key, const std::wstring& name);
// All fields in one line, named as in the file: "key_type 2, product_type 1,
// ..., account_id \"a\", ..., features [3, 5]".
std::string Describe(const SubscriptionRecord& record);
} // namespace scenario
