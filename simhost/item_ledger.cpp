#include "simhost/event_queue.h"

namespace sim
{
void ItemLedger::Received(EqWorkItem* item, const std::string& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    live[item] = name;
    ++received[name];
}

void ItemLedger::Release(EqWorkItem* item)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = live.find(item);
        if (it == live.end())
        {
            ++doubleReleases;
            return;
        }
        ++released[it->second];
        live.erase(it);
    }
    item->Release();
}

size_t ItemLedger::ReceivedCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    size_t total = 0;
    for (const auto& entry : received)
        total += entry.second;
    return total;
}

size_t ItemLedger::ReleasedCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    size_t total = 0;
    for (const auto& entry : released)
        total += entry.second;
    return total;
}

size_t ItemLedger::Outstanding() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return live.size();
}

size_t ItemLedger::DoubleReleases() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return doubleReleases;
}

size_t ItemLedger::ReceivedCount(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = received.find(name);
    return it == received.end() ? 0 : it->second;
}

size_t ItemLedger::ReleasedCount(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = released.find(name);
    return it == released.end() ? 0 : it->second;
}
} // namespace sim
