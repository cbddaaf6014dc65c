// The plugin and the records it shares, driven by a host built for
// Microsoft's C++ ABI (msvc_host.dll, clang for x86_64-pc-windows-msvc):
// every slot of every interface that crosses, in either direction, is reached
// once with that compiler's conventions, and what it answers is checked.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bootstrap/cloud_records.h"
#include "host/components.h"
#include "host/list.h"
#include "host/subscription_record.h"
#include "host/work_item.h"
#include "simhost/guarded_library.h"
#include "simhost/msvc/msvc_host_api.h"

namespace
{
using Feature = SubscriptionFeatures;

// Every slot that crosses, in the host's order, by what reaches it and what
// is checked there; the host counts a slot once its check holds. Neither side
// ever calls the rest, which vtable_check alone covers: Reserved* and Unused*,
// ISessionChangeEvents' destructor (the host never destroys the plugin), the
// host's own list (the plugin copies a host's list node by node),
// IMemMgr::Alloc (both sides allocate with Realloc), and a memory manager of
// the host's (it hands the plugin no string of its own).
struct SlotRow
{
    const char* interfaceName;
    std::vector<const char*> slots;
    const char* reachedBy;
};
const SlotRow kSlots[] = {
    // The host calls the plugin's objects.
    {"IServPlugin", {"QueryInterface", "Init", "Start", "Stop", "UnInit"},
     "the life: ids A and B give the object, a mix of them null; each call answers 0 and calls the host"},
    {"EqWorkItem", {"~", "Release", "Run"}, "the plugin's items, which call the host as they run; the test's items"},
    {"IServiceStatusObserver", {"OnServiceStatusChanged"}, "the service reports itself loaded: _DelayedLoad posted"},
    {"ISubscriptionEvents", {"OnSubscriptionStatusChanged"}, "a record of the host's: _OnSubscriptionChanged posted"},
    {"ISessionChangeEvents", {"OnSessionChange"}, "a logon: Async_StartProductCfgTimer posted"},
    {"IProductAgentEvents", {"OnUserInfoChanged"}, "a change of the user information: GetUserInfoExAsync asked"},
    {"IProductAgentResponse", {"OnGetUserInfoExAsync"}, "the answer, level \"null\": GetOrganizationText asked"},
    {"IList",
     {"Append", "Prepend", "Last const", "Last", "GetLast", "First const", "First", "GetFirst", "Erase", "ConstEnum",
      "Enum", "Clear", "Count"},
     "GetSubscription: the plugin's record, every answer as the list's contract gives it; the overloads again on "
     "a list of the test's"},
    {"IListEnum", {"HasMore", "Next", "Current", "Release", "Reset", "~"}, "GetSubscription: Enum"},
    {"IConstListEnum", {"HasMore", "Next", "Current", "Release", "Reset", "~"}, "GetSubscription: ConstEnum"},
    {"IMemMgr", {"Realloc", "Free", "Release"}, "PerformRequest grows Body to the answer and frees Aux"},
    // The plugin calls the host's objects.
    {"IServMain", {"GetComponentManager", "GetEventQueue"}, "Init"},
    {"IComponentManager", {"GetComponent", "ReleaseComponent"}, "Init and UnInit: each name with its identifier"},
    {"IEventQueue",
     {"SetTimer", "WaitTimer", "CancelTimer", "DeleteTimer", "CreateSerialExecution", "ReleaseSerialExecution"},
     "Init, the timers armed, re-armed and deleted, Stop: known handles, an item, zero reserved words"},
    {"ISerialExecution", {"Post"}, "the sinks: an item, zero reserved words"},
    {"IServConfig", {"GetString"}, "Init and the items: setting 217 gives the product key"},
    {"ISubscriptionCommClient", {"Subscribe", "Unsubscribe", "GetSubscription"}, "_DelayedLoad and Stop, one sink"},
    {"ISessionChangeClient", {"Subscribe", "Unsubscribe"}, "_DelayedLoad and Stop, one sink"},
    {"IServiceStatusClient", {"AddObserver", "RemoveObserver", "GetStatus"}, "Start and Stop, one sink; service 0"},
    {"IProductAgentCommClient", {"QueryInterface", "GetModuleInfo", "SetConnectAppState", "Subscribe", "Unsubscribe"},
     "_DelayedLoad and Stop, one sink; apps_check on a soho bundle switches the parental controls off"},
    {"IProductAgentCommClientAsync", {"GetUserInfoExAsync", "SetResponseSink", "ClearResponseSink"},
     "_DelayedLoad, OnUserInfoChanged and Stop, one sink"},
    {"IModuleInfo", {"Release", "GetConnectAppState"}, "apps_check: on, so the plugin switches it off"},
    {"IUserInfo", {"GetOrganizationText", "GetOrganizationLevel"}, "OnGetUserInfoExAsync"},
    {"IConnectIntegrator", {"PerformRequest"},
     "this test: the status by the hidden result pointer, the request's fields at their offsets"},
};

// Counts its own destructions: a work item's stored argument shows when the
// item is freed.
struct Witnessed
{
    explicit Witnessed(int* destroyed) : destroyed(destroyed) {}
    Witnessed(const Witnessed& other) : destroyed(other.destroyed) {}
    ~Witnessed() { ++*destroyed; }
    int* destroyed;
};

struct Receiver
{
    void Take(Witnessed, int value) { received = value; }
    int received = 0;
};

// A list whose overloads answer apart: a call that reaches the other one of a
// pair shows.
class OverloadProbe final : public qm::IList<Feature>
{
public:
    Status Append(const Feature&) override { return 0; }
    Status Prepend(const Feature&) override { return 0; }
    Feature* Last() override { return &answers[0]; }
    const Feature* Last() const override { return &answers[1]; }
    Status GetLast(Feature&) const override { return 0; }
    Feature* First() override { return &answers[2]; }
    const Feature* First() const override { return &answers[3]; }
    Status GetFirst(Feature&) const override { return 0; }
    void Erase(qm::IListEnum<Feature>&) override {}
    qm::IConstListEnum<Feature>* ConstEnum() const override { return nullptr; }
    qm::IListEnum<Feature>* Enum() override { return nullptr; }
    void Clear() override {}
    int64_t Count() const override { return 0; }

    Feature answers[4] = {};
};

TEST(MsvcAbiTest, EverySlotThatCrossesIsReachedInTheHostsLayout)
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    directory.resize(directory.find_last_of(L'\\') + 1);
    // Both modules with the guard enforced: the plugin's calls into the host
    // and the host's into the plugin are checked against the callee's table.
    const sim::GuardedLibrary host((directory + L"msvc_host.dll").c_str());
    ASSERT_TRUE(host) << "msvc_host.dll beside the test: " << host.Error();
    ASSERT_TRUE(host.Guarded()) << "msvc_host.dll is linked with Control Flow Guard";
    const sim::GuardedLibrary plugin((directory + L"ProductCfgPlg.dll").c_str());
    ASSERT_TRUE(plugin) << plugin.Error();
    const HMODULE module = host.get();
#define MSVC_HOST_RESOLVE(result, name, parameters)                                                                    \
    const auto name = reinterpret_cast<name##_fn>(reinterpret_cast<void*>(GetProcAddress(module, #name)));             \
    ASSERT_NE(name, nullptr) << #name;
    MSVC_HOST_ENTRY_POINTS(MSVC_HOST_RESOLVE)
#undef MSVC_HOST_RESOLVE

    // Work items of the test's: Run and Release of one (a copy of the argument
    // for the call, then the stored one freed), delete through the destructor
    // slot of the other (its stored argument freed).
    int destroyed = 0;
    Receiver receiver;
    using Task = qm::framework::task<void (Receiver::*)(Witnessed, int), Receiver*, const Witnessed&, int>;
    auto ran = MakeWorkItem<Task>(L"test", &Receiver::Take, &receiver, Witnessed(&destroyed), 7);
    auto deleted = MakeWorkItem<Task>(L"test", &Receiver::Take, &receiver, Witnessed(&destroyed), 8);
    destroyed = 0;
    MsvcHost_Items(static_cast<EqWorkItem*>(ran.release()), static_cast<EqWorkItem*>(deleted.release()));
    EXPECT_EQ(receiver.received, 7);
    EXPECT_EQ(destroyed, 3);

    // Each overload of a pair reaches its own slot.
    OverloadProbe probe;
    const void* answers[4] = {};
    MsvcHost_Overloads(static_cast<qm::IList<Feature>*>(&probe), answers);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(answers[i], &probe.answers[i]) << "Last, Last const, First, First const: " << i;

    // The cloud client answers with Params in Body, longer than the room the
    // record reserves, and the request's time-out in the status.
    CloudRequest request;
    CloudResponse response;
    const std::string params = "{\"commercial_details_id\":\"C1\",\"padding\":\"" + std::string(64, 'x') + "\"}";
    request.Params.Set(params.c_str());
    request.TimeoutMs = 30000;
    const CloudStatus status =
        static_cast<IConnectIntegrator*>(MsvcHost_CloudClient())->PerformRequest(request, response, 1);
    EXPECT_EQ(status.Word0, 30000u);
    EXPECT_EQ(status.Error, 0u);
    EXPECT_EQ(std::string(response.Body.Text()), params);
    EXPECT_EQ(std::string(response.Aux.Text()), "");

    // The plugin's whole life; its markers go under a key of the test's own.
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, MSVC_HOST_PRODUCT_KEY);
    MsvcHost_Live((directory + L"ProductCfgPlg.dll").c_str());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, MSVC_HOST_PRODUCT_KEY);

    EXPECT_STREQ(MsvcHost_Failures(), "");
    for (const SlotRow& row : kSlots)
    {
        for (const char* slot : row.slots)
        {
            const std::string name = std::string(row.interfaceName) + "." + slot;
            EXPECT_GT(MsvcHost_Count(name.c_str()), 0) << name << ", reached by " << row.reachedBy;
        }
    }
}
} // namespace
