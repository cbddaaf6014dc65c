#include "simhost/sim_host.h"

namespace sim
{
Host::Host() : queue(journal, ledger), components(journal), config(journal), subscription(journal),
               sessionChange(journal), serviceStatus(journal), productAgent(journal), connectIntegrator(journal)
{
    components.Register(L"SubscriptionCommClient", ids::SubscriptionCommClient,
                        static_cast<ISubscriptionCommClient*>(&subscription));
    components.Register(L"sessionchange", ids::SessionChangeClient, static_cast<ISessionChangeClient*>(&sessionChange));
    components.Register(L"productinfo", ids::ServConfig, static_cast<IServConfig*>(&config));
    components.Register(L"QmServiceStatusClient", ids::ServiceStatusClient,
                        static_cast<IServiceStatusClient*>(&serviceStatus));
    components.Register(L"productagentcommclient", ids::ProductAgentCommClient,
                        static_cast<IProductAgentCommClient*>(&productAgent));
    components.Register(L"connect_integrator", ids::ConnectIntegrator,
                        static_cast<IConnectIntegrator*>(&connectIntegrator));
}

Host::~Host() = default;

IComponentManager* Host::GetComponentManager()
{
    journal.Record(std::string("GetComponentManager -> ") + (managerNull ? "null" : "manager"));
    return managerNull ? nullptr : &components;
}

IEventQueue* Host::GetEventQueue()
{
    journal.Record(std::string("GetEventQueue -> ") + (queueNull ? "null" : "queue"));
    return queueNull ? nullptr : &queue;
}

SerialExecution* Host::Serial() const
{
    auto serials = queue.SerialExecutions();
    return serials.empty() ? nullptr : serials.front();
}

bool Host::WaitIdle(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto left = [&] {
        auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        return rest.count() > 0 ? rest : std::chrono::milliseconds(0);
    };
    // Two rounds: an event delivered by a client may post to the serial
    // execution, and an item may ask a client for more.
    for (int round = 0; round < 2; ++round)
    {
        if (!subscription.Drain(left()) || !sessionChange.Drain(left()) || !serviceStatus.Drain(left()) ||
            !productAgent.Drain(left()) || !productAgent.Async().Drain(left()))
            return false;
        if (SerialExecution* serial = Serial())
        {
            if (!serial->WaitIdle(left()))
                return false;
        }
    }
    return true;
}
} // namespace sim
