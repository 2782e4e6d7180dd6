// Ratios against a baseline taken in the same run: every iteration times the measured work, then the
// baseline on the same data, and the benchmark reports both and their quotient as counters. Iteration time
// is the measured work's own (register with UseManualTime).
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

// `aside` runs after each iteration, outside both timings: for further measures taken in the same iterations.
template <typename Measured, typename Baseline, typename Aside>
void RunAgainstBaseline(benchmark::State& state, Measured&& measured, Baseline&& baseline, Aside&& aside)
{
    typedef std::chrono::steady_clock Clock;
    double measuredSeconds = 0, baselineSeconds = 0;
    for (auto _ : state)
    {
        auto start = Clock::now();
        measured();
        auto middle = Clock::now();
        baseline();
        auto end = Clock::now();
        double spent = std::chrono::duration<double>(middle - start).count();
        measuredSeconds += spent;
        baselineSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(spent);
        aside();
    }
    double iterations = static_cast<double>(state.iterations());
    state.counters["measured_us"] = measuredSeconds / iterations * 1e6;
    state.counters["baseline_us"] = baselineSeconds / iterations * 1e6;
    state.counters["ratio"] = baselineSeconds > 0 ? measuredSeconds / baselineSeconds : 0;
}

template <typename Measured, typename Baseline>
void RunAgainstBaseline(benchmark::State& state, Measured&& measured, Baseline&& baseline)
{
    RunAgainstBaseline(state, measured, baseline, [] {});
}
