// RIFF/WAVE files as the host reads and writes them: the chunk walk behind
// GetWavAudioFileDataStartPos (tw/audio.h), the format of a file for the tools, and the
// header that the WAV-file audio sink writes.
//
// The walk starts after "RIFF" <size> "WAVE" and steps from chunk to chunk by each chunk's
// size plus its pad byte when the size is odd. The RIFF size field itself is not trusted:
// writers that stream often leave it wrong, and the file's own length bounds everything.
// A chunk before the data chunk whose size runs past the end of the file ends the walk
// with a failure (nothing after it can be found). The data chunk's declared size may run
// past the end (a recording cut short, or a streaming writer's placeholder): its samples
// still start where the chunk says, and readers take what the file holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tw::host {

// Format tags of the fmt chunk that the host knows by name.
enum WavFormatTag : uint16_t {
    WAV_FORMAT_PCM = 0x0001,
    WAV_FORMAT_ALAW = 0x0006,
    WAV_FORMAT_MULAW = 0x0007,
    WAV_FORMAT_EXTENSIBLE = 0xfffe,
};

struct WavInfo {
    // For WAVE_FORMAT_EXTENSIBLE files, the tag of the sub-format (its GUID's first two
    // bytes), so that callers see PCM as PCM.
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t byteRate = 0;
    uint16_t blockAlign = 0;
    uint16_t bitsPerSample = 0;
    int64_t dataOffset = -1;   // first sample byte
    int64_t dataBytes = 0;     // declared size of the data chunk, cut to what the file holds
};

// Offset of the first sample byte of the data chunk; -1 when the file cannot be opened or
// is not a regular file, is not RIFF/WAVE, has no data chunk, or a chunk before it runs
// past the end. error names the file and the reason.
int64_t FindWavDataStart(const std::string& path, std::string& error);

// The fmt chunk and the data chunk's place. False with error (naming the file) for
// everything FindWavDataStart refuses, and for a missing or short fmt chunk.
bool ReadWavInfo(const std::string& path, WavInfo& info, std::string& error);

// The header of a WAV file of dataBytes sample bytes: for PCM the canonical 44 bytes
// (fmt chunk of 16 bytes); for other tags a fmt chunk of 18 bytes (no extension) and a
// fact chunk with the sample-frame count, as non-PCM WAVE requires (58 bytes). The data
// chunk's header is the last 8 bytes.
std::vector<unsigned char> MakeWavHeader(uint16_t formatTag, int channels, int sampleRate,
                                         int bitsPerSample, uint32_t dataBytes);

}  // namespace tw::host
