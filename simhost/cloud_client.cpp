#include "simhost/cloud_client.h"
#include "simhost/fault_point.h"

#include <windows.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <picojson.h>

#include "support/counted_string.h"

namespace sim
{
namespace
{
constexpr char kPath[] = "connect/commercial_ids";
constexpr char kMethod[] = "get_commercial_id_details";
constexpr uint32_t kTimeoutMs = 30000;

qm::CountedStringHeader* HeaderOf(char* text)
{
    return reinterpret_cast<qm::CountedStringHeader*>(text - sizeof(qm::CountedStringHeader));
}

uint32_t ReadGuard(const char* at)
{
    uint32_t value = 0;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

void WriteGuard(char* at)
{
    std::memcpy(at, &qm::kCountedStringGuard, sizeof(qm::kCountedStringGuard));
}

std::string TextOf(const CountedStringPointer& slot)
{
    return slot.text != nullptr ? std::string(slot.text) : std::string();
}
} // namespace

void* HostMemMgr::Alloc(std::uint64_t size)
{
    return std::malloc(static_cast<size_t>(size));
}

void* HostMemMgr::Realloc(void* block, std::uint64_t size)
{
    return std::realloc(block, static_cast<size_t>(size));
}

void HostMemMgr::Free(void* block)
{
    std::free(block);
}

std::string CountedStringFault(const CountedStringPointer& slot)
{
    if (slot.text == nullptr)
        return std::string();
    const qm::CountedStringHeader* header = HeaderOf(slot.text);
    if (header->leadingGuard != qm::kCountedStringGuard || header->innerGuard != qm::kCountedStringGuard)
        return "broken leading guard";
    const qm::CountedStringDescriptor* descriptor = header->descriptor;
    if (descriptor == nullptr)
        return std::string(); // no storage
    if (descriptor->manager == nullptr)
        return "no manager";
    if (descriptor->length > descriptor->capacity)
        return "length beyond capacity";
    if (ReadGuard(slot.text + descriptor->capacity + 1) != qm::kCountedStringGuard)
        return "broken trailing guard";
    if (slot.text[descriptor->length] != '\0')
        return "not terminated at its length";
    if (std::strlen(slot.text) != descriptor->length)
        return "length differs from the text";
    return std::string();
}

bool WriteCountedString(CountedStringPointer& slot, const char* text, size_t length, qm::IMemMgr& fallback)
{
    if (!CountedStringFault(slot).empty())
        return false;
    qm::CountedStringDescriptor* descriptor = slot.text != nullptr ? HeaderOf(slot.text)->descriptor : nullptr;
    char* block = slot.text != nullptr ? slot.text - sizeof(qm::CountedStringHeader) : nullptr;
    if (descriptor == nullptr)
    {
        // No storage: a string of the host's own, as its client makes them.
        descriptor = static_cast<qm::CountedStringDescriptor*>(fallback.Alloc(sizeof(qm::CountedStringDescriptor)));
        if (descriptor == nullptr)
            return false;
        *descriptor = qm::CountedStringDescriptor{&fallback, 0, 0, qm::kCountedStringDefaultGrowth, 0, 1};
        block = nullptr;
    }
    if (block == nullptr || length > descriptor->capacity)
    {
        const uint64_t capacity = length > descriptor->growth ? length : descriptor->growth;
        const uint64_t size = capacity + qm::kCountedStringOverhead;
        char* grown = static_cast<char*>(descriptor->manager->Realloc(descriptor->ownsBlock ? block : nullptr, size));
        if (grown == nullptr)
        {
            if (slot.text == nullptr || HeaderOf(slot.text)->descriptor == nullptr)
                descriptor->manager->Free(descriptor);
            return false;
        }
        if (block != nullptr && !descriptor->ownsBlock)
            std::memcpy(grown, block, static_cast<size_t>(descriptor->capacity + qm::kCountedStringOverhead));
        qm::CountedStringHeader header{qm::kCountedStringGuard, descriptor, qm::kCountedStringGuard};
        std::memcpy(grown, &header, sizeof(header));
        block = grown;
        descriptor->capacity = capacity;
        descriptor->ownsBlock = 1;
        slot.text = block + sizeof(qm::CountedStringHeader);
        slot.text[capacity] = '\0';
        WriteGuard(slot.text + capacity + 1);
    }
    if (length != 0)
        std::memcpy(slot.text, text, length);
    slot.text[length] = '\0';
    descriptor->length = length;
    return true;
}

CloudCall ConnectIntegrator::_Check(const CloudRequestRecord& request, uint32_t flag) const
{
    CloudCall call;
    call.flag = flag;
    call.timeoutMs = request.TimeoutMs;
    const std::pair<const char*, const CountedStringPointer*> texts[] = {
        {"Path", &request.Path},     {"Method", &request.Method}, {"Extra1", &request.Extra1},
        {"Extra2", &request.Extra2}, {"Extra3", &request.Extra3}, {"Extra4", &request.Extra4},
        {"Extra5", &request.Extra5}, {"Params", &request.Params}};
    for (const auto& text : texts)
    {
        const std::string fault = CountedStringFault(*text.second);
        if (!fault.empty())
            call.faults.push_back(std::string(text.first) + ": " + fault);
    }
    if (!call.faults.empty())
        return call; // the texts are not to be read
    call.path = TextOf(request.Path);
    call.method = TextOf(request.Method);
    call.params = TextOf(request.Params);
    if (call.path != kPath)
        call.faults.push_back("Path is \"" + call.path + "\"");
    if (call.method != kMethod)
        call.faults.push_back("Method is \"" + call.method + "\"");
    if (call.timeoutMs != kTimeoutMs)
        call.faults.push_back("TimeoutMs is " + std::to_string(call.timeoutMs));
    if (request.Reserved != 0)
        call.faults.push_back("Reserved is " + std::to_string(request.Reserved));
    if (flag != 1)
        call.faults.push_back("flag is " + std::to_string(flag));
    for (const CountedStringPointer* extra :
         {&request.Extra1, &request.Extra2, &request.Extra3, &request.Extra4, &request.Extra5})
    {
        if (!TextOf(*extra).empty())
            call.faults.push_back("an Extra text is not empty");
    }
    picojson::value params;
    const std::string error = picojson::parse(params, call.params);
    if (!error.empty() || !params.is<picojson::object>() || params.get<picojson::object>().size() != 1 ||
        !params.get("commercial_details_id").is<std::string>())
        call.faults.push_back("Params is not {\"commercial_details_id\":<string>}");
    return call;
}

CloudAnswer ConnectIntegrator::_NextAnswer()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (answers.empty())
    {
        CloudAnswer refusal;
        refusal.error = ERROR_NOT_SUPPORTED;
        return refusal;
    }
    CloudAnswer answer = answers.front();
    if (answers.size() > 1)
        answers.pop_front();
    return answer;
}

CloudStatus ConnectIntegrator::PerformRequestImpl(CloudRequest& request, CloudResponse& response, uint32_t flag)
{
    // The host knows the records by their layout alone.
    auto& requestRecord = reinterpret_cast<CloudRequestRecord&>(request);
    auto& responseRecord = reinterpret_cast<CloudResponseRecord&>(response);
    CloudCall call = _Check(requestRecord, flag);
    journal.Record("connect_integrator.PerformRequest " + call.path + " " + call.method + " " + call.params);
    const bool good = call.faults.empty();
    for (const std::string& fault : call.faults)
        journal.Record("connect_integrator.PerformRequest bad request: " + fault);
    {
        std::unique_lock<std::mutex> lock(mutex);
        calls.push_back(std::move(call));
        changed.notify_all();
        changed.wait(lock, [this] { return !held; });
    }
    if (!good)
        return CloudStatus{0, ERROR_INVALID_PARAMETER};
    if (const Status failure = InjectedFailure("PerformRequest"))
        return CloudStatus{0, failure};

    const CloudAnswer answer = _NextAnswer();
    if (answer.delayMs != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(answer.delayMs));
    if (!CountedStringFault(responseRecord.Body).empty() || !CountedStringFault(responseRecord.Aux).empty())
    {
        journal.Record("connect_integrator.PerformRequest bad response record");
        return CloudStatus{0, ERROR_INVALID_PARAMETER};
    }
    if (!WriteCountedString(responseRecord.Body, answer.body.data(), answer.body.size(), hostMemory) ||
        !WriteCountedString(responseRecord.Aux, answer.aux.data(), answer.aux.size(), hostMemory))
        return CloudStatus{0, ERROR_NOT_ENOUGH_MEMORY};
    if (answer.lengthSkew != 0)
    {
        qm::CountedStringDescriptor* descriptor = HeaderOf(responseRecord.Body.text)->descriptor;
        const int64_t claimed = static_cast<int64_t>(answer.body.size()) + answer.lengthSkew;
        descriptor->length = static_cast<uint64_t>(claimed < 0 ? 0 : claimed);
    }
    responseRecord.AuxCode = answer.auxCode;
    return CloudStatus{0x5EED, answer.error};
}

void ConnectIntegrator::SetAnswers(std::vector<CloudAnswer> list)
{
    std::lock_guard<std::mutex> lock(mutex);
    answers.assign(list.begin(), list.end());
}

std::vector<CloudCall> ConnectIntegrator::Calls() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
}

void ConnectIntegrator::Hold()
{
    std::lock_guard<std::mutex> lock(mutex);
    held = true;
}

void ConnectIntegrator::Unhold()
{
    std::lock_guard<std::mutex> lock(mutex);
    held = false;
    changed.notify_all();
}

bool ConnectIntegrator::WaitForCalls(size_t count, uint32_t timeoutMs)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return calls.size() >= count; });
}
} // namespace sim
