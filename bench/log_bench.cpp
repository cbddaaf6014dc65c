// Prints what a trace scope and a disabled message stream cost without
// log.dll, each as a ratio against an empty out-of-line call measured in the
// same run, in two situations:
//   - no users: outside the plugin object's life, nothing is loaded;
//   - one user: the plugin object holds its reference, but no log.dll was
//     found, so lines go to the stub and LogIsEnabled is missing.
//
//   log_bench [iterations]        (default 2000000)
//
// Each figure is the best of five rounds, in nanoseconds per operation.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/log_client.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
void EmptyCall() {}

// Called through a volatile pointer, so the call is made and never inlined.
void (*volatile emptyCall)() = &EmptyCall;

double Now()
{
    LARGE_INTEGER counter;
    LARGE_INTEGER frequency;
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(counter.QuadPart) * 1e9 / static_cast<double>(frequency.QuadPart);
}

template <class Operation>
double NanosecondsPerOperation(long iterations, Operation operation)
{
    double best = 0;
    for (int round = 0; round < 5; ++round)
    {
        const double start = Now();
        for (long i = 0; i < iterations; ++i)
            operation(i);
        const double perOperation = (Now() - start) / static_cast<double>(iterations);
        best = round == 0 ? perOperation : std::min(best, perOperation);
    }
    return best;
}

void Report(const char* situation, long iterations)
{
    const double floor = NanosecondsPerOperation(iterations, [](long) { emptyCall(); });
    const double scope =
        NanosecondsPerOperation(iterations, [](long) { TraceScope trace(L"CProductConfigurationPlg::Init"); });
    const double stream = NanosecondsPerOperation(iterations, [](long i) {
        logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::Init") << "status " << i;
    });
    std::printf("%s\n", situation);
    std::printf("  empty out-of-line call   %9.1f ns\n", floor);
    std::printf("  trace scope              %9.1f ns = %8.1f x empty call\n", scope, scope / floor);
    std::printf("  disabled message stream  %9.1f ns = %8.1f x empty call\n", stream, stream / floor);
}
} // namespace

int main(int argc, char** argv)
{
    const long iterations = argc > 1 ? std::max(1L, std::atol(argv[1])) : 2000000L;
    std::printf("log_bench: %ld iterations, best of 5 rounds\n", iterations);

    Report("no users (nothing loaded):", iterations);

    CLogDLLRef ref;
    ref.Acquire();
    if (ref.get() != nullptr && ref.get()->module)
    {
        std::printf("one user: skipped, a log.dll was found beside the benchmark\n");
        return 0;
    }
    Report("one user, no log.dll found:", iterations);
    return 0;
}
