// How fast the worker takes in a stream of phase-3 reports, each through HandleProgressMessage into the
// dialog, against a bare reader of the same stream from the same service: blocking reads, nothing decoded.
// Both send the same request and read until the final message; the service writes as fast as the pipe
// takes it. Each side is timed from its start until the service's session has ended, which the service ends
// once the reader has taken the final message: what comes after that on the worker (its pause of 100 ms
// before it stops the dialog, and its teardown) is the end of an operation, not the drain, and is let run
// untimed before the next round.
#include "channel/OperationThread.h"
#include "channel/PipeMessage.h"
#include "extension/MenuPlan.h"
#include "extension/OperationJob.h"
#include "module/ModuleLock.h"
#include "platform/host/ControlProgress.h"
#include "tools/FakeService/FakeService.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

namespace
{
const WCHAR DRAIN_KEY[] = TEXT("bench-drain");

ServiceScript ReportStream(int reports)
{
    ServiceMessage report;
    report.kind = 21;
    report.phase = MSG_PHASE_PROGRESS;
    report.source = "E:\\in\\a.txt";
    report.target = "F:\\out";
    report.values[2] = static_cast<ULONGLONG>(reports);
    report.values[3] = static_cast<ULONGLONG>(reports) * 4096;
    ServiceScript script;
    for (int i = 1; i <= reports; ++i)
    {
        report.values[0] = static_cast<ULONGLONG>(i);
        report.values[1] = static_cast<ULONGLONG>(i) * 4096;
        script.steps.push_back({ServiceStep::Write, EncodeServiceMessage(report), 0});
    }
    report.phase = MSG_PHASE_FINAL;
    script.steps.push_back({ServiceStep::Write, EncodeServiceMessage(report), 0});
    script.steps.push_back({ServiceStep::Close, {}, 0});
    return script;
}

// Starts a worker on the stream; null if it cannot be started.
HANDLE StartWorker()
{
    auto* job = new OperationJob;
    job->m_pipeKey = DRAIN_KEY;
    job->m_operation = OP_QUICK_COPY;
    job->m_showProgress = 1;
    job->m_sourceList = TEXT("E:\\in\\a.txt\n");
    job->m_targetFolder = TEXT("F:\\out");
    ModuleLockAcquire();
    HANDLE worker = CreateThread(nullptr, 0, OperationThreadProc, job, 0, nullptr);
    if (!worker)
    {
        ModuleLockRelease();
        DestroyOperationJob(job);
    }
    return worker;
}

bool FinishWorker(HANDLE worker)
{
    bool ended = WaitForSingleObject(worker, 120000) == WAIT_OBJECT_0;
    CloseHandle(worker);
    VmHost::ClearProgressJournal();
    return ended;
}

// Connects, sends a request and reads whole messages until the final one; the number of reports read.
int RunBareReader(const std::basic_string<WCHAR>& name, std::vector<BYTE>& buffer)
{
    if (!WaitNamedPipeW(name.c_str(), 10000))
        return -1;
    HANDLE pipe =
        CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (pipe == INVALID_HANDLE_VALUE)
        return -1;
    DWORD mode = PIPE_READMODE_MESSAGE;
    SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
    ServiceMessage request;
    request.kind = OP_QUICK_COPY;
    std::vector<BYTE> bytes = EncodeServiceMessage(request);
    DWORD count = 0;
    int reports = 0;
    if (WriteFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr))
        while (ReadFile(pipe, buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr) &&
               count >= 8)
        {
            DWORD phase = buffer[4] | buffer[5] << 8 | buffer[6] << 16 | static_cast<DWORD>(buffer[7]) << 24;
            if (phase != MSG_PHASE_PROGRESS)
                break;
            ++reports;
        }
    CloseHandle(pipe);
    return reports;
}

void WorkerDrain(benchmark::State& state)
{
    const int reports = static_cast<int>(state.range(0));
    FakeService service(DRAIN_KEY, ReportStream(reports), 0);
    if (!service.Start())
    {
        state.SkipWithError("the service's pipe cannot be created");
        return;
    }
    VmHost::SetProgressStatus(PDOPS_RUNNING);
    std::vector<BYTE> buffer(PIPE_MESSAGE_LIMIT);
    bool complete = true;
    int sessions = 0;
    typedef std::chrono::steady_clock Clock;
    double measured = 0, baseline = 0;
    for (auto _ : state)
    {
        auto start = Clock::now();
        HANDLE worker = StartWorker();
        complete = worker && service.WaitForSessions(++sessions, 120000) && complete;
        auto middle = Clock::now();
        complete = worker && FinishWorker(worker) && complete;
        auto restart = Clock::now();
        complete = RunBareReader(service.PipeName(), buffer) == reports &&
                   service.WaitForSessions(++sessions, 120000) && complete;
        auto end = Clock::now();
        double spent = std::chrono::duration<double>(middle - start).count();
        measured += spent;
        baseline += std::chrono::duration<double>(end - restart).count();
        state.SetIterationTime(spent);
        if (!complete)
            break;
    }
    service.Stop();
    if (!complete)
        state.SkipWithError("a reader did not get the whole stream");
    double iterations = static_cast<double>(state.iterations());
    state.counters["measured_us"] = measured / iterations * 1e6;
    state.counters["baseline_us"] = baseline / iterations * 1e6;
    state.counters["ratio"] = baseline > 0 ? measured / baseline : 0;
    // Messages per second of the worker as a share of the bare reader's: the inverse of the time ratio.
    state.counters["rate_share"] = measured > 0 ? baseline / measured : 0;
    state.SetItemsProcessed(state.iterations() * reports);
}
} // namespace

BENCHMARK(WorkerDrain)->Arg(20000)->UseManualTime()->Unit(benchmark::kMillisecond);
