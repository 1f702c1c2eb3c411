// Costs of the action executor's and the audio output's steady work, on the host's real
// services (emulated I/O module, WAV-file sink, shared-memory audio FIFO):
//
//   ExecutorPassHeld/N   one worker pass (audio, outputs, manual status) over N outputs held
//                        until stopped: the work the worker does every second when nothing
//                        is due, with the executor's maps as a busy module has them.
//   ExecutorStartStop/N  a DoAction that starts N outputs and the pass that switches them,
//                        then the stop and its pass: 2N port-setting requests through the
//                        web API and the emulator, JSON built and journalled.
//   ResampleOneChannel   the down-mix of one half-second chunk of 16 kHz 16-bit stereo.
//   FifoChunk            one half-second chunk through the shared-memory FIFO: the
//                        recorder's write and the output's GetData.
//   WavSinkChunk         one half-second chunk appended by the WAV-file sink.
//
// The executor is driven without its thread (its pass functions are public members), so
// that the figures are the passes themselves and not the once-a-second wait.
#include <benchmark/benchmark.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "actionrule/ioactionExecutor.h"
#include "camera/audioout.h"
#include "twhost/audiofifo.h"
#include "twhost/audiosink.h"
#include "twhost/iomodule.h"

namespace {

constexpr int kModuleId = 901;

void ExecutorPassHeld(benchmark::State& state) {
    const int ports = static_cast<int>(state.range(0));
    tw::host::SetIOModuleBackend(kModuleId, std::make_shared<tw::host::IOModuleEmulator>(ports));
    IOModuleStatus status;
    IOActExecutor exec;
    std::map<int, IOActExecCond> outputs;
    for (int p = 0; p < ports; ++p) outputs[p] = IOActExecCond{false, 0, 0, -2, 0};
    exec.DoAction(0x400, {}, outputs, false);
    exec.ExecDO();   // switches them all on
    tw::host::TakeIORequests();
    for (auto _ : state) {
        exec.ExecAudioOut();
        exec.ExecDO();
        exec.UpdateActStatus();
    }
    state.SetItemsProcessed(state.iterations() * ports);
    tw::host::ClearIOModuleBackends();
}
BENCHMARK(ExecutorPassHeld)->Arg(4)->Arg(32);

void ExecutorStartStop(benchmark::State& state) {
    const int ports = static_cast<int>(state.range(0));
    tw::host::SetIOModuleBackend(kModuleId, std::make_shared<tw::host::IOModuleEmulator>(ports));
    IOActExecutor exec;
    std::map<int, IOActExecCond> start, stop;
    for (int p = 0; p < ports; ++p) {
        start[p] = IOActExecCond{false, 0, 0, 5, 0};
        stop[p] = IOActExecCond{true, 0, 0, 0, 0};
    }
    for (auto _ : state) {
        exec.DoAction(0x400, {}, start, false);
        exec.ExecDO();
        exec.DoAction(0x400, {}, stop, false);
        exec.ExecDO();
        state.PauseTiming();
        tw::host::TakeIORequests();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ports * 2);
    tw::host::ClearIOModuleBackends();
}
BENCHMARK(ExecutorStartStop)->Arg(1)->Arg(8);

constexpr int kChunkBytes = 32000;   // half a second of 16 kHz 16-bit stereo

void ResampleOneChannel(benchmark::State& state) {
    AudioOut out(1, 1);
    std::vector<char> buf(kChunkBytes, 7);
    for (auto _ : state) {
        benchmark::DoNotOptimize(out.ResampleToOneChannel(buf.data(), kChunkBytes));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kChunkBytes);
}
BENCHMARK(ResampleOneChannel);

void FifoChunk(benchmark::State& state) {
    setenv("TW_SHM_KEY_BASE", "0x5a5a0000", 0);
    tw::host::AudioOutFifoWriter writer(kModuleId, true);
    std::string error;
    if (!writer.Open(error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    ShmAudioOutFifo* fifo = IPSpeakerAudioOutFifoAt(kModuleId);
    std::vector<unsigned char> in(kChunkBytes, 3), out(kChunkBytes);
    for (auto _ : state) {
        writer.Write(in.data(), in.size());
        benchmark::DoNotOptimize(fifo->GetData(out.data(), kChunkBytes));
    }
    state.SetBytesProcessed(state.iterations() * kChunkBytes);
    shmdt(fifo);
}
BENCHMARK(FifoChunk);

void WavSinkChunk(benchmark::State& state) {
    const std::string path = "/tmp/tw_actions_bench_" + std::to_string(getpid()) + ".wav";
    tw::host::WavFileAudioSink sink(path, CAM_CAP_AUDIO_OUT_FORMAT{"PCM", 16000, 16, 2});
    if (sink.Connect() != 0) {
        state.SkipWithError(sink.GetLastError().c_str());
        return;
    }
    std::vector<char> chunk(kChunkBytes, 5);
    for (auto _ : state) {
        int len = kChunkBytes;
        sink.SendData(chunk.data(), len);
        benchmark::DoNotOptimize(len);
    }
    state.SetBytesProcessed(state.iterations() * kChunkBytes);
    sink.Disconnect();
    std::remove(path.c_str());
}
BENCHMARK(WavSinkChunk);

}  // namespace

BENCHMARK_MAIN();
