// Audio outputs of the plug-in against the host's device store and sinks: devices with a
// format and a sink the test holds, WAV files made at run time, and a manual clock that
// jumps to every paced delay (so a file plays at once while each delay is recorded).
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <dirent.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "camera/audioout.h"
#include "support/testenv.h"
#include "support/waituntil.h"
#include "twhost/audiosink.h"
#include "twhost/clock.h"
#include "twhost/devices.h"
#include "twhost/stores.h"

// White-box access to the format fields and the thread record.
struct AudioOutAccess {
    static int ByteRate(AudioOut& a) { return a.m_ByteRate; }
    static const std::string& Codec(AudioOut& a) { return a.m_strCodec; }
    static int FormatA(AudioOut& a) { return a.m_FormatA; }
    static int FormatB(AudioOut& a) { return a.m_FormatB; }
    static int Channels(AudioOut& a) { return a.m_Channels; }
    static AudioOutThreadField& Field(AudioOut& a) { return a.m_ThreadField; }
};

namespace tw::test {

inline CAM_CAP_AUDIO_OUT_FORMAT Pcm(int rate, int bits, int channels) {
    return CAM_CAP_AUDIO_OUT_FORMAT{"PCM", rate, bits, channels};
}

// A WAV file: header of the given format, optionally a LIST chunk before the data, then
// the data. Returns the offset of the data.
inline long WriteWav(const std::string& path, int rate, int bits, int channels,
                     const std::vector<unsigned char>& data, bool listChunk = false) {
    std::vector<unsigned char> out;
    auto u32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
    };
    auto u16 = [&](uint16_t v) {
        out.push_back(static_cast<unsigned char>(v));
        out.push_back(static_cast<unsigned char>(v >> 8));
    };
    auto tag = [&](const char* t) { out.insert(out.end(), t, t + 4); };
    tag("RIFF");
    u32(0);
    tag("WAVE");
    tag("fmt ");
    u32(16);
    u16(1);
    u16(static_cast<uint16_t>(channels));
    u32(static_cast<uint32_t>(rate));
    u32(static_cast<uint32_t>(rate * channels * bits / 8));
    u16(static_cast<uint16_t>(channels * bits / 8));
    u16(static_cast<uint16_t>(bits));
    if (listChunk) {
        tag("LIST");
        u32(13);   // odd: a pad byte follows
        const char info[] = "INFOISFT\1\0\0\0x";
        out.insert(out.end(), info, info + 13);
        out.push_back(0);
    }
    tag("data");
    u32(static_cast<uint32_t>(data.size()));
    const long offset = static_cast<long>(out.size());
    out.insert(out.end(), data.begin(), data.end());
    const uint32_t riff = static_cast<uint32_t>(out.size() - 8);
    for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<unsigned char>(riff >> (8 * i));
    FILE* f = std::fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr) << path;
    if (f == nullptr) return -1;
    EXPECT_EQ(std::fwrite(out.data(), 1, out.size(), f), out.size());
    std::fclose(f);
    return offset;
}

inline std::vector<unsigned char> Ramp(size_t n, unsigned seed = 0) {
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>((i * 7 + seed + i / 251) & 0xff);
    return v;
}

// The kernel tasks (threads) of this process. A thread's task is gone once it has run
// to its very end, whether or not it has been joined yet.
inline std::set<long> ProcessTasks() {
    std::set<long> tasks;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return tasks;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') tasks.insert(std::strtol(entry->d_name, nullptr, 10));
    }
    closedir(dir);
    return tasks;
}

inline std::string TempPath(const std::string& stem) {
    return "/tmp/tw_audioout_" + stem + "_" + std::to_string(getpid());
}

class AudioOutTest : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::SetClock(m_Clock);
        tw::host::DeviceStore::Instance().Clear();
        // A thread runtime may start threads of its own with the first thread of the
        // process (ThreadSanitizer does): one thread started and joined first makes them
        // part of the base.
        std::thread([] {}).join();
        m_BaseTasks = ProcessTasks();
    }
    void TearDown() override {
        for (const std::string& p : m_Files) std::remove(p.c_str());
        tw::host::DeviceStore::Instance().Clear();
        tw::host::CameraStore::Instance().Clear();
        tw::host::SetClock(nullptr);
    }

    // A device with an audio output of the given format, sending into a memory sink.
    std::shared_ptr<tw::host::MemoryAudioSink> AddDevice(int devType, int id,
                                                         const CAM_CAP_AUDIO_OUT_FORMAT& format) {
        auto sink = std::make_shared<tw::host::MemoryAudioSink>();
        tw::host::AudioDeviceRecord record;
        record.strName = "device " + std::to_string(id);
        record.doCount = 4;
        record.blAudioOut = true;
        record.format = format;
        record.pSink = sink;
        PutDevice(devType, id, record);
        return sink;
    }
    void PutDevice(int devType, int id, const tw::host::AudioDeviceRecord& record) {
        const tw::host::DeviceKind kind = tw::host::DeviceKindOfType(devType);
        if (kind == tw::host::DeviceKind::Camera) {
            tw::host::CameraStore::Instance().Put(tw::host::MakeCamera(id, VIDEO_CODEC_H264));
        }
        tw::host::DeviceStore::Instance().Put(kind, id, record);
    }

    std::string NewFile(const std::string& stem) {
        m_Files.push_back(TempPath(stem));
        return m_Files.back();
    }

    // Waits until the output's thread has ended by itself: not only until it cleared the
    // activated flag (after which it still disconnects, hands the manual trigger back and
    // logs its end), but until its task is gone, i.e. until every thread started since
    // SetUp has run to its end.
    bool WaitForEnd(AudioOut& out) {
        return WaitUntil([&] {
            if (AudioOutAccess::Field(out).GetActivatedFlag()) return false;
            for (long task : ProcessTasks()) {
                if (m_BaseTasks.count(task) == 0) return false;
            }
            return true;
        });
    }

    std::shared_ptr<tw::host::ManualClock> m_Clock = std::make_shared<tw::host::ManualClock>(0, true);
    std::vector<std::string> m_Files;
    std::set<long> m_BaseTasks;   // the threads of the process before the test's outputs
};

}  // namespace tw::test
