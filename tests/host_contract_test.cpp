// Holders give a component back exactly once under the name it was asked
// for; work items carry their call and free what they own on Release.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "host/holders.h"
#include "host/work_item.h"
#include "simhost/sim_host.h"

namespace
{
// Counts live copies, so a test sees every copy freed.
struct Counted
{
    static int live;
    int value = 0;
    explicit Counted(int v) : value(v) { ++live; }
    Counted(const Counted& other) : value(other.value) { ++live; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --live; }
};
int Counted::live = 0;

struct Target
{
    int calls = 0;
    int lastValue = 0;
    bool lastFlag = false;
    void Plain() { ++calls; }
    int WithResult() { return ++calls; }
    void WithRecord(Counted record, bool flag)
    {
        ++calls;
        lastValue = record.value;
        record.value = -1; // the callee owns its copy
        lastFlag = flag;
    }
};
} // namespace

TEST(ComponentHolder, GivesBackOnceUnderItsName)
{
    sim::Host host;
    Status status = 1;
    auto holder = ComponentHolder<IServConfig>::Acquire(&host.components, L"productinfo", ids::ServConfig, status);
    EXPECT_EQ(status, 0u);
    EXPECT_TRUE(holder);
    holder.Reset();
    holder.Reset();
    EXPECT_EQ(host.components.Released(L"productinfo"), 1u);

    host.components.Fail(L"sessionchange", 5);
    {
        auto failed = ComponentHolder<ISessionChangeClient>::Acquire(&host.components, L"sessionchange",
                                                                     ids::SessionChangeClient, status);
        EXPECT_EQ(status, 5u);
        EXPECT_FALSE(failed);
    }
    EXPECT_EQ(host.components.Released(L"sessionchange"), 0u);

    // Moving a new component in gives the old one back under its old name;
    // the moved-from holder gives nothing back.
    {
        auto target = ComponentHolder<void>::Acquire(&host.components, L"productinfo", ids::ServConfig, status);
        auto source =
            ComponentHolder<void>::Acquire(&host.components, L"connect_integrator", ids::ConnectIntegrator, status);
        target = std::move(source);
        EXPECT_EQ(host.components.Released(L"productinfo"), 2u);
        EXPECT_EQ(host.components.Released(L"connect_integrator"), 0u);
        target = std::move(target);
        EXPECT_TRUE(target);
    }
    EXPECT_EQ(host.components.Released(L"connect_integrator"), 1u);
    EXPECT_EQ(host.components.Outstanding(), 0);
}

TEST(SerialExecutionHolder, ReleasesTheObjectOnce)
{
    sim::Host host;
    ISerialExecution* serial = nullptr;
    ASSERT_EQ(host.queue.CreateSerialExecution(&serial), 0u);
    {
        SerialExecutionHolder holder(&host.queue, serial);
        holder.Reset();
        holder.Reset();
    }
    EXPECT_EQ(host.journal.Count("ReleaseSerialExecution"), 1u);
    EXPECT_EQ(host.queue.InvalidHandleCalls(), 0u);
}

TEST(WorkItems, RunTheirCallAndFreeWhatTheyOwn)
{
    Target target;
    auto member = MakeWorkItem<EqWorkItemMember0<int, Target>>(L"test", &target, &Target::WithResult);
    member->Run();
    member->Run();
    EqWorkItem* handedOver = member.release();
    handedOver->Release();
    EXPECT_EQ(target.calls, 2); // the object outlives its item

    using Plain = qm::framework::task<void (Target::*)(), Target*>;
    auto plain = MakeWorkItem<Plain>(L"test", &Target::Plain, &target);
    plain->Run();
    EXPECT_EQ(target.calls, 3);
    plain.release()->Release();

    using WithRecord = qm::framework::task<void (Target::*)(Counted, bool), Target*, const Counted&, bool>;
    {
        Counted original(42);
        auto item = MakeWorkItem<WithRecord>(L"test", &Target::WithRecord, &target, original, true);
        original.value = 7; // the item holds its own copy
        EXPECT_EQ(Counted::live, 2);
        item->Run();
        item->Run(); // each run gets a fresh copy of the stored record
        EXPECT_EQ(target.lastValue, 42);
        EXPECT_TRUE(target.lastFlag);
        EXPECT_EQ(Counted::live, 2);
        item.release()->Release();
        EXPECT_EQ(Counted::live, 1);
    }
    EXPECT_EQ(Counted::live, 0);
}
