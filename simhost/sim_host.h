// The whole simulated host: ServMain, the component manager with every
// component the plugin asks for, the event queue and the clients.
#pragma once

#include <atomic>

#include "simhost/clients.h"
#include "simhost/component_manager.h"
#include "simhost/event_queue.h"
#include "simhost/journal.h"
#include "simhost/serv_config.h"

namespace sim
{
class Host final : public IServMain
{
public:
    // Registers every component under its name and identifier.
    Host();
    ~Host();

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // IServMain; each can be told to give null.
    void Reserved1() override {}
    IComponentManager* GetComponentManager() override;
    void Reserved2() override {}
    IEventQueue* GetEventQueue() override;
    void SetComponentManagerNull(bool null) { managerNull = null; }
    void SetEventQueueNull(bool null) { queueNull = null; }

    // The one serial execution object the plugin made, or null.
    SerialExecution* Serial() const;
    // Waits until the serial execution (if any) and every client thread
    // are idle.
    bool WaitIdle(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Members are destroyed in reverse order: the clients and their threads
    // go before the queue, the queue (which releases what is left) before
    // the ledger and the journal.
    Journal journal;
    ItemLedger ledger;
    EventQueue queue;
    ComponentManager components;
    ServConfig config;
    SubscriptionClient subscription;
    SessionChangeClient sessionChange;
    ServiceStatusClient serviceStatus;
    ProductAgentClient productAgent;
    ConnectIntegrator connectIntegrator;

private:
    std::atomic<bool> managerNull{false};
    std::atomic<bool> queueNull{false};
};
} // namespace sim
