// What a started operation costs while the service says nothing: the worker polls the dialog and the pipe
// and sleeps between polls. Its threads' CPU time over a fixed stretch of wall time, as a share of one core.
// The service runs in this process, so only the threads that the operation started are counted (Linux:
// /proc/self/task).
#include "channel/OperationThread.h"
#include "extension/MenuPlan.h"
#include "extension/OperationJob.h"
#include "module/ModuleLock.h"
#include "platform/host/ControlProgress.h"
#include "tools/FakeService/FakeService.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <dirent.h>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{
std::set<std::string> Threads()
{
    std::set<std::string> ids;
    if (DIR* tasks = opendir("/proc/self/task"))
    {
        while (dirent* entry = readdir(tasks))
            if (entry->d_name[0] != '.')
                ids.insert(entry->d_name);
        closedir(tasks);
    }
    return ids;
}

// Time one thread of this process has run, in seconds: schedstat counts nanoseconds, where stat's utime and
// stime count 10 ms ticks, too coarse for a thread that should barely run.
double ThreadCpuSeconds(const std::string& id)
{
    std::ifstream schedstat("/proc/self/task/" + id + "/schedstat");
    double nanoseconds = 0;
    if (schedstat >> nanoseconds)
        return nanoseconds / 1e9;
    return 0;
}

void IdleOperation(benchmark::State& state)
{
    ServiceScript silent;
    silent.steps.push_back({ServiceStep::Pause, {}, INFINITE});
    silent.onCancel.push_back({ServiceStep::Vanish, {}, 0});
    FakeService service(TEXT("bench-idle"), silent);
    if (!service.Start())
    {
        state.SkipWithError("the service's pipe cannot be created");
        return;
    }
    VmHost::SetProgressStatus(PDOPS_RUNNING);
    const std::chrono::duration<double> stretch(state.range(0) / 1000.0);
    double cpu = 0, wall = 0;
    for (auto _ : state)
    {
        auto* job = new OperationJob;
        job->m_pipeKey = TEXT("bench-idle");
        job->m_operation = OP_QUICK_COPY;
        job->m_showProgress = 1;
        job->m_sourceList = TEXT("V:\\docs\\a.txt\n");
        job->m_targetFolder = TEXT("V:\\in");
        std::set<std::string> before = Threads();
        ModuleLockAcquire();
        HANDLE worker = CreateThread(nullptr, 0, OperationThreadProc, job, 0, nullptr);
        if (!worker)
        {
            ModuleLockRelease();
            DestroyOperationJob(job);
            state.SkipWithError("no worker thread");
            break;
        }
        // Let it connect, send the request and settle into its polling before the stretch starts.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::set<std::string> started;
        for (const std::string& id : Threads())
            if (!before.count(id))
                started.insert(id);
        double startCpu = 0, endCpu = 0;
        for (const std::string& id : started)
            startCpu += ThreadCpuSeconds(id);
        auto startWall = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(stretch);
        for (const std::string& id : started)
            endCpu += ThreadCpuSeconds(id);
        double spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - startWall).count();
        cpu += endCpu - startCpu;
        wall += spent;
        state.SetIterationTime(spent);

        // The user cancels; the service vanishes; the worker ends.
        VmHost::SetProgressStatus(PDOPS_CANCELLED);
        WaitForSingleObject(worker, 10000);
        CloseHandle(worker);
        VmHost::SetProgressStatus(PDOPS_RUNNING);
        if (service.SessionsEnded() < 1)
            state.SkipWithError("the operation never reached the service");
    }
    service.Stop();
    state.counters["cpu_percent_of_core"] = wall > 0 ? 100.0 * cpu / wall : 0;
}
} // namespace

BENCHMARK(IdleOperation)->Arg(3000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
