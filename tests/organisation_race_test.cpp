// Organisation replies, logons, records and timer firings on threads of
// their own, with Stop coming at a different moment each time.
#include <atomic>
#include <future>

#include "plugin_fixture.h"
#include "registry_scratch.h"

namespace
{
using namespace std::chrono_literals;

constexpr auto kBound = 10s;
constexpr int kIterations = 12;
constexpr wchar_t kSubscriptionKey[] = L".DEFAULT\\SOFTWARE\\Sub_ID_PCPORGRACE";
constexpr wchar_t kTestKey[] = L"Software\\PcpOrgRace";
constexpr wchar_t kProductKey[] = L"Software\\PcpOrgRace\\Product";

// The plugin's entries into the sinks that these threads call.
const char* const kSinkEntries[] = {
    "CProductConfigurationPlg::OnGetUserInfoExAsync: -> ",
    "CProductConfigurationPlg::OnSessionChange: -> ",
    "CProductConfigurationPlg::OnUserInfoChanged: -> ",
};

// A thread that calls body until told to finish; each call waits for its
// delivery, so nothing piles up in the host's queues.
class Loop
{
public:
    explicit Loop(std::function<void(size_t)> body)
        : done(std::async(std::launch::async, [this, body] {
              for (size_t n = 0; !finishing; ++n, ++rounds)
                  body(n);
          }))
    {
    }
    size_t Rounds() const { return rounds; }
    bool Finish()
    {
        finishing = true;
        return done.wait_for(kBound) == std::future_status::ready;
    }

private:
    std::atomic<bool> finishing{false};
    std::atomic<size_t> rounds{0};
    std::future<void> done;
};

// Threads of the plugin that are stuck leave nothing that can be torn down.
void ReturnsOrExit(bool returned, const char* what)
{
    if (returned)
        return;
    ADD_FAILURE() << what << " did not return within the bound";
    std::_Exit(1);
}

class OrganisationRaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.Loaded());
        registry.Forget(HKEY_USERS, kSubscriptionKey);
        registry.Forget(HKEY_LOCAL_MACHINE, kTestKey);
        // About 50 days: nothing is started; "apps_check" does run.
        registry.SetDword(HKEY_USERS, kSubscriptionKey, L"GsShowed", 1);
        registry.SetDword(HKEY_LOCAL_MACHINE, kProductKey, L"ProductCfgDelay", 4294967);
    }

    size_t SinkCalls() const
    {
        size_t calls = 0;
        for (const char* entry : kSinkEntries)
            calls += log.Count("TRACE", entry);
        return calls;
    }

    LogCapture log;
    PluginModule module;
    RegistryScratch registry;
};

TEST_F(OrganisationRaceTest, StopEndsRepliesLogonsAndRecordsRunningAtOnce)
{
    WTSSESSION_NOTIFICATION info{sizeof(WTSSESSION_NOTIFICATION), 1};
    for (int i = 0; i < kIterations; ++i)
    {
        SCOPED_TRACE("iteration " + std::to_string(i));
        log.Clear();
        auto host = std::make_unique<sim::Host>();
        ConfigureProduct(*host, L"PCPORGRACE", L"PcpOrgRace", kProductKey);
        host->subscription.SetRecord(MakeRecord(3, 3, 1, "acc-race"));
        IServPlugin* plugin = module.Create();
        ASSERT_NE(plugin, nullptr);
        ASSERT_EQ(plugin->Init(host.get()), 0u);
        ASSERT_EQ(plugin->Start(), 0u);

        sim::Host* h = host.get();
        std::vector<std::unique_ptr<Loop>> loops;
        loops.push_back(std::make_unique<Loop>(
            [h](size_t n) { h->productAgent.Async().Reply(n % 2 == 0 ? L"1" : L"0", L"", true); }));
        loops.push_back(std::make_unique<Loop>([h, &info](size_t) { h->sessionChange.Deliver(0, 5, &info, true); }));
        loops.push_back(std::make_unique<Loop>(
            [h](size_t n) { h->subscription.Deliver(MakeRecord(n % 3 == 0 ? 5 : 3, 3, 1, "acc-race"), true); }));
        loops.push_back(std::make_unique<Loop>([h](size_t) { h->productAgent.DeliverUserInfoChanged(true); }));
        loops.push_back(std::make_unique<Loop>([h](size_t) { h->queue.Advance(60000); }));
        // Stop comes after a different amount of work each time.
        ASSERT_TRUE(Eventually([&] { return loops[0]->Rounds() > static_cast<size_t>(i % 9); }, kBound));

        auto stop = std::async(std::launch::async, [plugin] { plugin->Stop(); });
        ReturnsOrExit(stop.wait_for(kBound) == std::future_status::ready, "Stop");
        const size_t callsAtStop = SinkCalls();
        for (auto& loop : loops)
            ReturnsOrExit(loop->Finish(), "a thread of the host");
        ASSERT_TRUE(host->WaitIdle());
        EXPECT_EQ(SinkCalls(), callsAtStop) << "a sink was called after Stop returned";

        plugin->UnInit();
        module.Destroy(plugin);
        ExpectNothingLeft(*host);
        EXPECT_EQ(host->journal.LinesStartingWith("ERROR"), std::vector<std::string>{});
        if (HasFailure())
            return;
    }
}
} // namespace
