// Subscription records through the real plugin: the quick part on the host's
// thread, the hand-over to the serial execution, the stored record, the
// status block, the survey value and the "apps_check" timer.
#include <algorithm>
#include <string>
#include <vector>

#include "plugin_fixture.h"
#include "registry_scratch.h"
#include "support/unique_resource.h"

namespace
{
using Strings = std::vector<std::string>;

constexpr wchar_t kProductId[] = L"PCPTEST";
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPTEST";
constexpr wchar_t kBase[] = L"PcpTest";
constexpr wchar_t kSurveyKey[] = L"Software\\PcpTest\\Install";
constexpr wchar_t kProductKey[] = L"Software\\PcpTest\\Product";
constexpr wchar_t kInstallDoneEventName[] = L"Global\\Install_Done-9E9487AA-4E57-4A22-B92A-F353BB7727A6";
const std::string kEvent = "CProductConfigurationPlg::OnSubscriptionStatusChanged: ";
const std::string kNoGsShowed = kEvent + "No gs showed in registry";
const std::string kSurveyEntry =
    "CProductConfigurationPlg::_WriteSurveyInfo: -> CProductConfigurationPlg::_WriteSurveyInfo()";

size_t CountOf(const Strings& lines, const std::string& line)
{
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

class SubscriptionTest : public PluginTest
{
protected:
    void SetUp() override
    {
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, L"Software\\PcpTest");
        // Runs of ProductCfg.exe are not this test's business: the
        // configuration timer fires ten hours after it is armed.
        ConfigureProduct(*host, kProductId, kBase, kProductKey);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 36000);
        PluginTest::SetUp();
    }

    void Deliver(const SubscriptionData& record)
    {
        host->subscription.Deliver(record);
        ASSERT_TRUE(host->WaitIdle());
    }

    std::wstring Survey() const { return registry.String(HKEY_LOCAL_MACHINE, kSurveyKey, L"SurveyDataInfo"); }

    size_t SurveyWrites() const { return CountOf(log.Messages("TRACE"), kSurveyEntry); }

    RegistryScratch registry;
};
} // namespace

TEST_F(SubscriptionTest, SurveyValueIsTheRecordsCompactJson)
{
    struct Row
    {
        const char* what;
        int32_t keyType;
        uint32_t daysLeft;
        int32_t serverType;
        bool valid;
        std::string bundle;
        std::wstring expected;
    };
    const Row rows[] = {
        {"example", 2, 30, 4, true, "abc",
         LR"({"bundle_id":"abc","days_left":30,"key_type":2,"server_product_type":4,"valid":true})"},
        {"all zero", 0, 0, 0, false, "",
         LR"({"bundle_id":"","days_left":0,"key_type":0,"server_product_type":0,"valid":false})"},
        {"extremes", -1, 4294967295u, -5, true, "x",
         LR"({"bundle_id":"x","days_left":4294967295,"key_type":-1,"server_product_type":-5,"valid":true})"},
        {"escapes", 0, 1, 3, false, "a\"b\\c/d",
         LR"({"bundle_id":"a\"b\\c\/d","days_left":1,"key_type":0,"server_product_type":3,"valid":false})"},
        {"not utf-8", 0, 1, 3, true, "\xff\xfeok",
         L"{\"bundle_id\":\"\xfffd\xfffdok\",\"days_left\":1,\"key_type\":0,\"server_product_type\":3,\"valid\":true}"},
        {"no terminator", 0, 1, 3, true, std::string(kSubscriptionTextChars, 'b'),
         (L"{\"bundle_id\":\"" + std::wstring(kSubscriptionTextChars, L'b') +
          L"\",\"days_left\":1,\"key_type\":0,\"server_product_type\":3,\"valid\":true}")},
    };
    StartLoaded();
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        SubscriptionData record = MakeRecord(row.serverType, 3, 1);
        record.KeyType = row.keyType;
        record.DaysLeft = row.daysLeft;
        record.Valid = row.valid;
        std::copy(row.bundle.begin(), row.bundle.end(), record.BundleId);
        if (row.bundle.size() < kSubscriptionTextChars)
            record.BundleId[row.bundle.size()] = '\0';
        Deliver(record);
        EXPECT_EQ(Survey(), row.expected);
    }
    StopAndUnInit();
}

TEST_F(SubscriptionTest, UnknownProductTypeWithoutStatusEndsOnTheHostThread)
{
    // The first record is fetched once subscribed and refreshed whatever it holds.
    host->subscription.SetRecord(MakeRecord(0, 0, 0));
    StartLoaded();
    const size_t fetched = host->journal.Find("SubscriptionCommClient.GetSubscription");
    ASSERT_NE(fetched, sim::Journal::npos);
    EXPECT_GT(fetched, host->journal.Find("SubscriptionCommClient.Subscribe"));
    EXPECT_EQ(CountOf(log.Messages("INFO"),
                      "CProductConfigurationPlg::_RefreshSubscription: ServerProductType = 0, ProductType = 0"),
              1u);
    EXPECT_EQ(registry.Dword(HKEY_USERS, kSubscriptionKey, L"ServerProductType"), 0u);
    EXPECT_GE(SurveyWrites(), 1u);
    log.Clear();
    host->subscription.DeliverNull();
    ASSERT_TRUE(host->WaitIdle());
    EXPECT_EQ(log.Messages("TRACE").size(), 2u) << "the event's own scope and nothing else";
    EXPECT_EQ(log.Messages("INFO").size() + log.Messages("WARN").size() + log.Messages("ERROR").size(), 0u);

    log.Clear();
    Deliver(MakeRecord(0, 3, 0));
    EXPECT_EQ(SurveyWrites(), 1u);
    EXPECT_EQ(host->ledger.ReceivedCount("_OnSubscriptionChanged"), 0u);
    EXPECT_EQ(log.Messages("WARN"), Strings{kEvent + "Product type unknown"});
    EXPECT_EQ(log.Messages("INFO"), Strings{kNoGsShowed});
    const Strings eventThread = log.Threads(kEvent + "-> ");
    ASSERT_EQ(eventThread.size(), 1u);
    EXPECT_EQ(log.Threads(kSurveyEntry), eventThread);

    // With a status code the record goes on: a second survey write follows
    // in the refresh on the serial execution, and the stored record becomes
    // this one.
    log.Clear();
    Deliver(MakeRecord(0, 3, 7));
    EXPECT_EQ(SurveyWrites(), 2u);
    EXPECT_EQ(host->ledger.ReceivedCount("_OnSubscriptionChanged"), 1u);
    EXPECT_EQ(CountOf(log.Messages("INFO"),
                      "CProductConfigurationPlg::_RefreshSubscription: ServerProductType = 0, ProductType = 3"),
              1u);
    const Strings serialThread = log.Threads("CProductConfigurationPlg::_OnSubscriptionChanged: -> ");
    ASSERT_EQ(serialThread.size(), 1u);
    EXPECT_NE(serialThread, log.Threads(kEvent + "-> "));
    EXPECT_EQ(log.Threads(kSurveyEntry), (Strings{log.Threads(kEvent + "-> ").at(0), serialThread[0]}));
    EXPECT_EQ(registry.Dword(HKEY_USERS, kSubscriptionKey, L"ServerProductType"), 0u);
    StopAndUnInit();
}

// A setting the plugin cannot use: the GsShowed read is skipped without a
// subscription key path, and the registry's refusal of a key name longer
// than 255 characters is logged with its code.
TEST_F(SubscriptionTest, SettingsThatCannotBeUsedAreLoggedOrSkipped)
{
    const std::wstring tooLong(300, L'x');
    struct Row
    {
        const char* what;
        uint32_t number;
        const wchar_t* section;
        const wchar_t* value; // null: removed
        Strings errors;       // from Init to the end of one event
        size_t gsLines;       // "No gs showed in registry" of the event
    };
    const std::string serverType = "CProductConfigurationPlg::_WriteServerProductType: ";
    const std::string survey = "CProductConfigurationPlg::_WriteSurveyInfo: ";
    const Row rows[] = {
        {"all usable", 44, L"Desktop", kProductId, {}, 1},
        {"no product id", 44, L"Desktop", nullptr, {}, 0},
        {"product id too long", 44, L"Desktop", tooLong.c_str(),
         Strings(2, serverType + "Failed to write server product type: 87"), 0},
        {"base name too long", 0, L"BASE", tooLong.c_str(), Strings(2, survey + "set value failed, err: 87"), 1},
        {"no product key", 217, L"Desktop", nullptr, {"CProductConfigurationPlg::_GetDelay: String not found"}, 1},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.what);
        DestroyPlugin();
        host = std::make_unique<sim::Host>();
        host->config.SetMissing(sim::ServConfig::Missing::NotFoundText);
        ConfigureProduct(*host, kProductId, kBase, kProductKey);
        if (row.value != nullptr)
            host->config.Set(row.number, row.section, row.value);
        else
            host->config.Remove(row.number, row.section);
        plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
        log.Clear();
        StartLoaded();
        Deliver(MakeRecord(4, 3, 0));
        // The commercial data file has no folder here; its line is not
        // this table's concern.
        Strings errors = log.Messages("ERROR");
        errors.erase(std::remove_if(errors.begin(), errors.end(),
                                    [](const std::string& line) { return line.rfind("CBootstrap::", 0) == 0; }),
                     errors.end());
        EXPECT_EQ(errors, row.errors);
        EXPECT_EQ(log.Count("INFO", kNoGsShowed), row.gsLines);
        StopAndUnInit();
    }
}

// An event's record is decided on with firstLoad false: an installer that
// comes after the load makes nobody wait. GsShowed is only looked for.
TEST_F(SubscriptionTest, AnEventDecidesAtOnceAndOnlyLooksForGsShowed)
{
    StartLoaded();
    const UniqueHandle installer(CreateEventW(nullptr, TRUE, FALSE, kInstallDoneEventName));
    ASSERT_TRUE(installer);
    registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 0);
    log.Clear();
    Deliver(MakeRecord(4, 3, 0));
    EXPECT_EQ(log.Count("TRACE", "CProductConfigurationPlg::_DoConfig: -> "), 1u);
    EXPECT_EQ(log.Count("INFO", "CProductConfigurationPlg::_WaitForEventsAndConfig: "), 0u);
    EXPECT_EQ(log.Count("INFO", kNoGsShowed), 0u);
    StopAndUnInit();
}

TEST_F(SubscriptionTest, StatusFollowsTheRecordsAndTheHostsBufferDoesNotMatter)
{
    struct Row
    {
        int32_t serverType;
        int32_t localType;
        const char* commercialId;
        std::string cfgLine;
        std::string comLine;
    };
    // cfgStatus keeps its value for an unknown server type, 1 included.
    // Without stored commercial data every identifier is a new one.
    const Row rows[] = {
        {0, 3, "", "CfgStatus: 0", "ComStatus: 0"}, {4, 3, "C1", "CfgStatus: 1", "ComStatus: 1"},
        {0, 3, "C1", "CfgStatus: 1", "ComStatus: 1"}, {3, 3, "", "CfgStatus: 0", "ComStatus: 0"},
        {5, 3, "", "CfgStatus: 1", "ComStatus: 0"},   {5, 5, "", "CfgStatus: 0", "ComStatus: 0"},
    };
    StartLoaded();
    sim::SerialExecution* serial = host->Serial();
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.cfgLine + " after " + std::to_string(row.serverType) + "/" + std::to_string(row.localType));
        log.Clear();
        SubscriptionData record = MakeRecord(row.serverType, row.localType, 1);
        SetFixedText(record.CommercialId, row.commercialId);
        // The item runs only after the host has overwritten its own buffer.
        serial->Pause();
        host->subscription.Deliver(record);
        serial->Resume();
        ASSERT_TRUE(host->WaitIdle());
        const Strings info = log.Messages("INFO");
        EXPECT_EQ(CountOf(info, "CProductConfigurationPlg::_RefreshSubscription: ServerProductType = " +
                                    std::to_string(row.serverType) + ", ProductType = " + std::to_string(row.localType)),
                  1u);
        EXPECT_EQ(CountOf(info, "CProductConfigurationPlg::_SetConfigurationStatus: " + row.cfgLine), 1u);
        EXPECT_EQ(CountOf(info, "CProductConfigurationPlg::_SetCommercialStatus: " + row.comLine), 1u);
        EXPECT_EQ(registry.Dword(HKEY_USERS, kSubscriptionKey, L"ServerProductType"),
                  static_cast<uint32_t>(row.serverType));
    }
    StopAndUnInit();
}

TEST_F(SubscriptionTest, AppsCheckFollowsTheLatestRecordWithAnAccount)
{
    StartLoaded();
    Deliver(MakeRecord(4, 3, 0, "account-1"));
    host->queue.Advance(5000);
    Deliver(MakeRecord(4, 3, 0, "account-1"));

    auto appsChecks = [this] {
        auto timers = host->queue.Timers();
        timers.erase(std::remove_if(timers.begin(), timers.end(), [](const auto& t) { return t.name != "apps_check"; }),
                     timers.end());
        return timers;
    };
    auto timers = appsChecks();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].due, 5000u + 120000u);
    EXPECT_EQ(timers[0].periodMs, kNoRepeat);
    EXPECT_EQ(host->journal.Count("DeleteTimer apps_check"), 1u);
    EXPECT_EQ(CountOf(log.Messages("INFO"), "CProductConfigurationPlg::_ScheduleAppsCheck: Set timer: 0"), 2u);

    // A record without an account leaves the pending check alone.
    Deliver(MakeRecord(4, 3, 0, ""));
    timers = appsChecks();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].due, 125000u);
    EXPECT_EQ(host->journal.Count("DeleteTimer apps_check"), 1u);

    host->queue.Advance(120000);
    EXPECT_EQ(host->journal.Count("Run apps_check"), 1u);
    EXPECT_EQ(host->journal.Count("Run _ProductCfgTimer"), 0u);
    plugin->Stop();
    EXPECT_EQ(host->queue.LiveTimers(), 0u);

    // Replaced by the second record, then ended by Stop, each time the same
    // way: cancelled, waited for, deleted, its item released once.
    const Strings ending = {"CancelTimer apps_check", "WaitTimer apps_check", "DeleteTimer apps_check",
                            "Release apps_check"};
    Strings calls;
    for (const std::string& line : host->journal.Lines())
        if (std::find(ending.begin(), ending.end(), line) != ending.end())
            calls.push_back(line);
    Strings twice = ending;
    twice.insert(twice.end(), ending.begin(), ending.end());
    EXPECT_EQ(calls, twice);
    plugin->UnInit();
    EXPECT_EQ(host->ledger.Outstanding(), 0u);
}
