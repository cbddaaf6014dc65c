#include "plugin/factory.h"

qmFactoryBase* qmFactoryBase::head = nullptr;

qmFactoryBase::qmFactoryBase() : next(head)
{
    head = this;
}

qmFactoryBase::~qmFactoryBase()
{
    if (head == this)
    {
        head = next;
        return;
    }
    for (qmFactoryBase* current = head; current != nullptr; current = current->next)
    {
        if (current->next == this)
        {
            current->next = next;
            return;
        }
    }
}

bool IsAcceptedPluginId(const InterfaceId& id)
{
    if (id.second == ids::ServPluginA.second)
        return id.first == ids::ServPluginA.first;
    if (id.second == ids::ServPluginB.second)
        return id.first == ids::ServPluginB.first;
    return false;
}
