// The plugin and its containers driven by a host built for Microsoft's C++
// ABI (msvc_host.dll, clang for x86_64-pc-windows-msvc): every table slot the
// host calls must reach the operation the table names, with that compiler's
// conventions.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "config/subscription_data.h"
#include "host/components.h"
#include "host/work_item.h"
#include "simhost/msvc/msvc_host_api.h"

namespace
{
std::wstring BinaryDirectory()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\') + 1);
}

// msvc_host.dll, loaded afresh for each test so that its counters start at 0.
class MsvcHost
{
public:
    MsvcHost() : module(LoadLibraryW((BinaryDirectory() + L"msvc_host.dll").c_str()))
    {
#define MSVC_HOST_RESOLVE(result, name, parameters)                                                                    \
    name = module ? reinterpret_cast<name##_fn>(reinterpret_cast<void*>(GetProcAddress(module, #name))) : nullptr;
        MSVC_HOST_ENTRY_POINTS(MSVC_HOST_RESOLVE)
#undef MSVC_HOST_RESOLVE
    }
    ~MsvcHost()
    {
        if (module)
            FreeLibrary(module);
    }
    MsvcHost(const MsvcHost&) = delete;
    MsvcHost& operator=(const MsvcHost&) = delete;

    bool Loaded() const { return module != nullptr && MsvcHost_FreeRecord != nullptr; }
    std::string Journal() const { return MsvcHost_Journal(); }

#define MSVC_HOST_MEMBER(result, name, parameters) name##_fn name = nullptr;
    MSVC_HOST_ENTRY_POINTS(MSVC_HOST_MEMBER)
#undef MSVC_HOST_MEMBER

private:
    HMODULE module;
};

class Counted
{
public:
    void Hit() { ++hits; }
    int hits = 0;
};

// Destruction of an item, seen from outside.
struct Witness
{
    int destroyed = 0;
};

struct WitnessedRecord
{
    explicit WitnessedRecord(Witness* witness) : witness(witness) {}
    WitnessedRecord(const WitnessedRecord& other) : witness(other.witness) {}
    ~WitnessedRecord() { ++witness->destroyed; }
    Witness* witness;
};

class Receiver
{
public:
    void Take(WitnessedRecord record, int value)
    {
        (void)record;
        received = value;
    }
    int received = 0;
};

std::vector<int> Values(const qm::List<SubscriptionFeatures>& list)
{
    std::vector<int> values;
    qm::IConstListEnum<SubscriptionFeatures>* walk = list.ConstEnum();
    for (; walk->HasMore(); walk->Next())
        values.push_back(static_cast<int>(*walk->Current()));
    walk->Release();
    return values;
}

class MsvcAbiTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(host.Loaded()) << "msvc_host.dll beside the test"; }

    // QmCreateObject, Init, Start and the _DelayedLoad item, as the host
    // runs them.
    void Load()
    {
        const std::wstring plugin = BinaryDirectory() + L"ProductCfgPlg.dll";
        ASSERT_EQ(host.MsvcHost_Create(plugin.c_str()), 0u);
        EXPECT_EQ(host.MsvcHost_Count("plugin.query_interface.failures"), 0);
        ASSERT_EQ(host.MsvcHost_Init(), 0u) << host.Journal();
        ASSERT_EQ(host.MsvcHost_Start(), 0u) << host.Journal();
        EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    }

    // QmDestroyObject after Stop and UnInit; then nothing is left with the
    // host and nothing was released twice.
    void Destroy()
    {
        host.MsvcHost_Destroy();
        for (const char* name : {"_DelayedLoad", "_OnSubscriptionChanged", "Async_StartProductCfgTimer",
                                 "_ProductCfgTimer", "apps_check", "EnableVpn"})
        {
            EXPECT_EQ(host.MsvcHost_Count(("release.left:" + std::string(name)).c_str()), 0) << name;
            EXPECT_EQ(host.MsvcHost_Count(("release.twice:" + std::string(name)).c_str()), 0) << name;
            EXPECT_EQ(host.MsvcHost_Count(("release:" + std::string(name)).c_str()),
                      host.MsvcHost_Count(("handed:" + std::string(name)).c_str()))
                << name;
        }
        EXPECT_EQ(host.MsvcHost_Count("run.unknown") + host.MsvcHost_Count("release.unknown"), 0);
        EXPECT_EQ(host.MsvcHost_Count("timer.bad_handle"), 0) << host.Journal();
        EXPECT_EQ(host.MsvcHost_Count("post.nonzero") + host.MsvcHost_Count("timer.nonzero"), 0);
    }

    MsvcHost host;
};

TEST_F(MsvcAbiTest, WorkItemsRunAndReleaseThroughTheHostsSlots)
{
    Counted counted;
    auto member = MakeWorkItem<EqWorkItemMember0<void, Counted>>(L"test", &counted, &Counted::Hit);
    host.MsvcHost_RunAndRelease(static_cast<EqWorkItem*>(member.release()));
    EXPECT_EQ(counted.hits, 1);

    Witness witness;
    Receiver receiver;
    using Task = qm::framework::task<void (Receiver::*)(WitnessedRecord, int), Receiver*, const WitnessedRecord&, int>;
    auto task = MakeWorkItem<Task>(L"test", &Receiver::Take, &receiver, WitnessedRecord(&witness), 7);
    const int before = witness.destroyed;
    host.MsvcHost_RunAndRelease(static_cast<EqWorkItem*>(task.release()));
    EXPECT_EQ(receiver.received, 7);
    // One copy for the call's parameter, then the stored record on release.
    EXPECT_EQ(witness.destroyed - before, 2);

    // delete through the table's destructor slot frees the item like Release.
    auto deleted = MakeWorkItem<Task>(L"test", &Receiver::Take, &receiver, WitnessedRecord(&witness), 8);
    const int beforeDelete = witness.destroyed;
    host.MsvcHost_DeleteItem(static_cast<EqWorkItem*>(deleted.release()));
    EXPECT_EQ(witness.destroyed - beforeDelete, 1);
    EXPECT_EQ(receiver.received, 7);
}

// A record returned by value travels through the host's hidden result
// pointer: the status read here is the one the host wrote.
TEST_F(MsvcAbiTest, TheCloudClientsStatusComesBackByValue)
{
    auto* client = static_cast<IConnectIntegrator*>(host.MsvcHost_CloudClient());
    alignas(8) char request[64] = {};
    alignas(8) char response[64] = {};
    const CloudStatus status = client->PerformRequest(*reinterpret_cast<CloudRequest*>(request),
                                                      *reinterpret_cast<CloudResponse*>(response), 1);
    EXPECT_EQ(status.Error, 5u);
    EXPECT_EQ(status.Word0, 0u);
    EXPECT_EQ(host.MsvcHost_Count("PerformRequest"), 1);
}

TEST_F(MsvcAbiTest, ThePluginsListAnswersEveryOperationOfTheHost)
{
    qm::List<SubscriptionFeatures> list;
    list.Append(static_cast<SubscriptionFeatures>(99));
    EXPECT_EQ(host.MsvcHost_ExerciseList(&list), 0) << host.Journal();
    EXPECT_EQ(Values(list), (std::vector<int>{7, 8, 9}));
}

TEST_F(MsvcAbiTest, ARecordTheHostBuiltCopiesWithItsFeatures)
{
    const int32_t features[] = {5, 6, 7};
    void* hostRecord = host.MsvcHost_MakeRecord("bundle.soho", features, 3);
    SubscriptionData copy(*static_cast<const SubscriptionData*>(hostRecord));
    host.MsvcHost_FreeRecord(hostRecord);
    EXPECT_EQ(FixedText(copy.BundleId), "bundle.soho");
    EXPECT_EQ(Values(copy.Features), (std::vector<int>{5, 6, 7}));
}

// The plugin's whole life in the host: every item it hands over is run when
// the host says so and released exactly once, every sink is reached at its
// slot, and every component is given back.
TEST_F(MsvcAbiTest, ThePluginLivesItsWholeLifeInTheHost)
{
    // _DelayedLoad: posted by Start, run by the host's serial execution.
    Load();
    EXPECT_EQ(host.MsvcHost_Count("run:_DelayedLoad"), 1);
    EXPECT_EQ(host.MsvcHost_Count("release:_DelayedLoad"), 1);
    EXPECT_EQ(host.MsvcHost_Count("subscribe.subscription"), 1);
    EXPECT_EQ(host.MsvcHost_Count("subscribe.session"), 1);
    EXPECT_EQ(host.MsvcHost_Count("subscribe.agent"), 1);
    EXPECT_EQ(host.MsvcHost_Count("response.set"), 1);
    EXPECT_EQ(host.MsvcHost_Count("GetUserInfoExAsync"), 1);
    EXPECT_EQ(host.MsvcHost_Count("list.exercised"), 1);
    EXPECT_EQ(host.MsvcHost_Count("list.failures"), 0) << host.Journal();

    // A second report of the loaded service posts a second item, which finds
    // the work done.
    host.MsvcHost_ReportServiceLoaded();
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:_DelayedLoad"), 2);

    // A record with an account, a server type of its own and a host-made
    // feature list: the companion check and the configuration timer.
    const int32_t features[] = {1, 2, 3};
    host.MsvcHost_DeliverSubscription("account-1", 5, "", "", features, 3);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:_OnSubscriptionChanged"), 1);
    EXPECT_EQ(host.MsvcHost_Count("release:_OnSubscriptionChanged"), 1);
    EXPECT_EQ(host.MsvcHost_Count("handed:apps_check"), 1);
    EXPECT_EQ(host.MsvcHost_FireTimer(L"apps_check"), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:apps_check"), 1);
    EXPECT_EQ(host.MsvcHost_Count("handed:_ProductCfgTimer"), 1);
    EXPECT_EQ(host.MsvcHost_FireTimer(L"_ProductCfgTimer"), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:_ProductCfgTimer"), 1);

    // The next record re-arms the timer: the first is cancelled, waited for,
    // deleted and released, in that order.
    host.MsvcHost_DeliverSubscription("account-1", 6, "", "", features, 0);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_Count("handed:_ProductCfgTimer"), 2);
    EXPECT_EQ(host.MsvcHost_Count("release:_ProductCfgTimer"), 1);
    const std::string journal = host.Journal();
    const size_t cancel = journal.find("CancelTimer _ProductCfgTimer");
    const size_t wait = journal.find("WaitTimer _ProductCfgTimer", cancel);
    const size_t remove = journal.find("DeleteTimer _ProductCfgTimer", wait);
    const size_t release = journal.find("Release _ProductCfgTimer", remove);
    EXPECT_NE(release, std::string::npos) << journal;

    // Logons: other events and a logon without information post nothing; a
    // logon re-arms the timer from the serial execution.
    host.MsvcHost_DeliverSessionChange(4, 1);
    host.MsvcHost_DeliverSessionChange(5, 0);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 0);
    host.MsvcHost_DeliverSessionChange(5, 1);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:Async_StartProductCfgTimer"), 1);
    EXPECT_EQ(host.MsvcHost_Count("handed:_ProductCfgTimer"), 3);

    // The product agent's events: a change asks for the information again.
    host.MsvcHost_DeliverUserInfoChanged();
    EXPECT_EQ(host.MsvcHost_Count("GetUserInfoExAsync"), 2);
    host.MsvcHost_AnswerUserInfo(L"1", L"");
    EXPECT_EQ(host.MsvcHost_Count("user_info.level"), 1);

    host.MsvcHost_Stop();
    host.MsvcHost_UnInit();
    EXPECT_EQ(host.MsvcHost_Count("observer.remove"), 1);
    EXPECT_EQ(host.MsvcHost_Count("unsubscribe.subscription"), 1);
    EXPECT_EQ(host.MsvcHost_Count("unsubscribe.session"), 1);
    EXPECT_EQ(host.MsvcHost_Count("unsubscribe.agent"), 1);
    EXPECT_EQ(host.MsvcHost_Count("response.clear"), 1);
    EXPECT_EQ(host.MsvcHost_Count("serial.release"), 1);
    for (const char* name : {"SubscriptionCommClient", "sessionchange", "QmServiceStatusClient",
                             "productagentcommclient", "productinfo", "connect_integrator"})
    {
        EXPECT_EQ(host.MsvcHost_Count(("component.release:" + std::string(name)).c_str()),
                  host.MsvcHost_Count(("component.get:" + std::string(name)).c_str()))
            << name;
    }
    Destroy();
}

// The companion applications and the cloud through the host's objects: the
// module objects it hands out, the user information it lends and the status
// record the cloud client returns by value.
TEST_F(MsvcAbiTest, CompanionAppsAndTheCloudGoThroughTheHostsObjects)
{
    const wchar_t key[] = L"SOFTWARE\\QmMsvcAbiTest";
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    const wchar_t config[] = L"AV,VP";
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, L"Config", REG_SZ, config, sizeof(config)), ERROR_SUCCESS);
    host.MsvcHost_SetSetting(217, L"Desktop", key);
    host.MsvcHost_SetSetting(227, L"Desktop", key);
    host.MsvcHost_SetSetting(44, L"Desktop", L"qm.abi.test");
    // The commercial data file lies in a folder of this test's own.
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("pcp_msvc_abi_" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(folder / "settings");
    host.MsvcHost_SetSetting(400, L"Desktop", (folder.wstring() + L"\\").c_str());
    // Longer than the 64 characters the plugin reserves: the host grows
    // Body through the plugin's own memory manager.
    const std::string reply = "{\"contacts\":[\"sales-from-the-host-built-for-the-other-abi\",\"support-desk\"]}";
    host.MsvcHost_SetCloudAnswer(reply.c_str());
    Load();

    // A soho bundle with a new commercial identifier: the companion check
    // switches both parental controls off and the VPN on, once each, and
    // gives every module object back.
    host.MsvcHost_DeliverSubscription("account-1", 5, "bundle.soho", "C1", nullptr, 0);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_FireTimer(L"apps_check"), 1);
    EXPECT_EQ(host.MsvcHost_Count("SetConnectAppState.off:qm.abi.familymentor"), 1) << host.Journal();
    EXPECT_EQ(host.MsvcHost_Count("SetConnectAppState.off:qm.abi.kinguard"), 1);
    EXPECT_EQ(host.MsvcHost_Count("SetConnectAppState.on:qm.abi.vpn"), 1);
    EXPECT_EQ(host.MsvcHost_Count("module.handed"), 3);
    EXPECT_EQ(host.MsvcHost_Count("module.state"), 3);
    EXPECT_EQ(host.MsvcHost_Count("module.release"), 3);

    // The timer asks the cloud for the new identifier; the status comes
    // back through the hidden result pointer and the reply, grown by the
    // host, lands in the file.
    EXPECT_EQ(host.MsvcHost_FireTimer(L"_ProductCfgTimer"), 1);
    EXPECT_EQ(host.MsvcHost_Count("cloud.request_ok"), 1) << host.Journal();
    EXPECT_EQ(host.MsvcHost_Count("cloud.request_bad"), 0);
    EXPECT_EQ(host.MsvcHost_Count("cloud.body_grown"), 1);
    EXPECT_EQ(host.MsvcHost_Count("cloud.body_written"), 1);
    std::ifstream file(folder / "settings" / "bootstrapdata.json");
    const std::string written((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(written, "{\"app_data\":{\"commercial_details_id\":\"C1\"},\"commercial_data\":" + reply + "}");
    file.close();

    // Joining and leaving a managed organisation: the second reply gives
    // the VPN back through the item "EnableVpn"; the level "null" asks for
    // the second text.
    host.MsvcHost_AnswerUserInfo(L"1", L"");
    host.MsvcHost_AnswerUserInfo(L"null", L"");
    EXPECT_EQ(host.MsvcHost_Count("user_info.level"), 2);
    EXPECT_EQ(host.MsvcHost_Count("user_info.text"), 1);
    EXPECT_EQ(host.MsvcHost_RunSerial(), 1);
    EXPECT_EQ(host.MsvcHost_Count("run:EnableVpn"), 1);
    EXPECT_EQ(host.MsvcHost_Count("SetConnectAppState.on:qm.abi.vpn"), 2);
    EXPECT_EQ(host.MsvcHost_Count("module.release"), host.MsvcHost_Count("module.handed"));

    host.MsvcHost_Stop();
    host.MsvcHost_UnInit();
    Destroy();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}
} // namespace
