// libFuzzer target: arbitrary files through the host's RIFF/WAVE chunk walk, as
// GetWavAudioFileDataStartPos and ReadWavInfo meet the files a user hands to audio output.
// The input is written to a file (the parser's interface is a path) and both are checked
// against what the bytes say: a data start lies inside the file, right after a "data"
// chunk header, and both functions agree on it.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tw/audio.h"
#include "twhost/wavfile.h"

namespace {

const std::string& InputPath() {
    static const std::string path = [] {
        const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        return std::string(dir) + "/tw_wav_fuzz_" + std::to_string(getpid()) + ".wav";
    }();
    return path;
}

[[noreturn]] void Fail(const char* what, long value) {
    std::fprintf(stderr, "wav_parser_fuzz: %s (%ld)\n", what, value);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* f = std::fopen(InputPath().c_str(), "wb");
    if (f == nullptr) return 0;
    if (size > 0 && std::fwrite(data, 1, size, f) != size) {
        std::fclose(f);
        return 0;
    }
    std::fclose(f);

    const int pos = GetWavAudioFileDataStartPos(InputPath());
    tw::host::WavInfo info;
    std::string error;
    const bool haveInfo = tw::host::ReadWavInfo(InputPath(), info, error);
    if (pos != -1) {
        // RIFF, size, WAVE, then at least the data chunk's own header.
        if (pos < 20 || static_cast<size_t>(pos) > size) Fail("data start outside the file", pos);
        if (std::memcmp(data + pos - 8, "data", 4) != 0) Fail("data start not after a data chunk header", pos);
        if (std::memcmp(data, "RIFF", 4) != 0 || std::memcmp(data + 8, "WAVE", 4) != 0) {
            Fail("data start found in a file that is not RIFF/WAVE", pos);
        }
        if (haveInfo && info.dataOffset != pos) Fail("ReadWavInfo disagrees on the data start", info.dataOffset);
    } else if (haveInfo) {
        Fail("ReadWavInfo found what GetWavAudioFileDataStartPos did not", info.dataOffset);
    }
    if (haveInfo && (info.dataBytes < 0 || info.dataOffset + info.dataBytes > static_cast<int64_t>(size))) {
        Fail("data chunk runs past the file", static_cast<long>(info.dataBytes));
    }
    return 0;
}
