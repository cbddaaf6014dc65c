// "connect_integrator": the host's cloud client. It reads the request as the
// host does, by the shared layout of the records, checks every counted
// string of it (guards, descriptor, terminator) and the texts the plugin must
// send, and answers with the body, error code and delay it was given. The
// body is written into the response's Body through the memory manager that
// Body's descriptor names, growing the block as the real client does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "host/cloud_records.h"
#include "host/components.h"
#include "simhost/journal.h"
#include "support/mem_mgr.h"

namespace sim
{
// What the client gives back for one request.
struct CloudAnswer
{
    CloudAnswer() = default;
    CloudAnswer(std::string body, uint32_t error = 0, uint32_t delayMs = 0, std::string aux = std::string(),
                uint32_t auxCode = 0)
        : body(std::move(body)), error(error), delayMs(delayMs), aux(std::move(aux)), auxCode(auxCode)
    {
    }

    std::string body; // may hold NULs; written whole, by its length
    uint32_t error = 0;
    uint32_t delayMs = 0;
    std::string aux;
    uint32_t auxCode = 0;
    // Added to the length that the body's descriptor claims (never below
    // zero): a faulty host's count that does not match the text.
    int64_t lengthSkew = 0;
};

// One request as the client received it.
struct CloudCall
{
    std::string path;
    std::string method;
    std::string params;
    uint32_t timeoutMs = 0;
    uint32_t flag = 0;
    // What was wrong with the request; empty for a good one.
    std::vector<std::string> faults;
};

// The host's own string memory, for a Body that comes without storage.
class HostMemMgr final : public qm::IMemMgr
{
public:
    void* Alloc(std::uint64_t size) override;
    void* Realloc(void* block, std::uint64_t size) override;
    void Free(void* block) override;
    void Release() override {}
};

class ConnectIntegrator final : public IConnectIntegrator
{
public:
    explicit ConnectIntegrator(Journal& journal) : journal(journal) {}

    void Reserved1() override {}
    void Reserved2() override {}
    CloudStatus PerformRequestImpl(CloudRequest& request, CloudResponse& response, uint32_t flag);
    QM_IMPLEMENTS_RECORD_RESULT(CloudStatus, PerformRequest,
                                (CloudRequest & request, CloudResponse & response, uint32_t flag),
                                (request, response, flag))

    // The answers of the next requests, in order; the last one stays for
    // all later requests. Without any, a request fails with 50
    // (ERROR_NOT_SUPPORTED).
    void SetAnswers(std::vector<CloudAnswer> answers);
    void SetAnswer(CloudAnswer answer) { SetAnswers({std::move(answer)}); }
    std::vector<CloudCall> Calls() const;

    // While held, a request waits before it answers until Unhold.
    void Hold();
    void Unhold();
    // True once count requests have arrived (held ones included).
    bool WaitForCalls(size_t count, uint32_t timeoutMs);

private:
    CloudCall _Check(const CloudRequestRecord& request, uint32_t flag) const;
    CloudAnswer _NextAnswer();

    Journal& journal;
    HostMemMgr hostMemory;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<CloudAnswer> answers;
    std::vector<CloudCall> calls;
    bool held = false;
};

// Writes length bytes of text and a terminator into the counted string at
// slot, growing its block through its descriptor's manager; a string without
// storage gets a block and a descriptor from fallback. False when memory ran
// out or the string is damaged; the string is then unchanged.
bool WriteCountedString(CountedStringPointer& slot, const char* text, size_t length, qm::IMemMgr& fallback);

// What is wrong with the counted string at slot: empty for a sound one (null
// included), else a description.
std::string CountedStringFault(const CountedStringPointer& slot);
} // namespace sim
