// Audio for a device as twhost's users mean it: a file of any sample format, rate and
// channel count turned into the bytes the device's own format carries (FFmpeg's decoders,
// its resampler and its G.711 encoders), laid out so that the plug-in's file output
// delivers exactly those bytes.
#ifndef TWHOST_AUDIOCONVERT_H
#define TWHOST_AUDIOCONVERT_H

#include <cstdint>
#include <string>
#include <vector>

#include "tw/audio.h"

namespace tw::host {

// Whether twhost can produce audio of this device format: "PCM" of 8, 16, 24 or 32 bits,
// "G711U" / "G711A" of 8 bits; false with error saying what is wrong.
bool CanConvertTo(const CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error);

// Decodes the file and converts it to the device format: the samples the device plays,
// interleaved, little-endian. False with error naming the file.
bool ConvertAudioFile(const std::string& path, const CAM_CAP_AUDIO_OUT_FORMAT& format,
                      std::vector<uint8_t>& bytes, std::string& error);

// Writes the bytes a device is to receive into a new temporary WAV file that the plug-in's
// file output reads. For a one-channel device the plug-in keeps every other byte of what it
// reads (its down-mix of two one-byte channels), so every byte is written twice: whatever
// the sample size and wherever a read chunk ends, the device gets the bytes as they were.
// path receives the file's name; false with error.
bool WriteDeviceWav(const std::vector<uint8_t>& bytes, const CAM_CAP_AUDIO_OUT_FORMAT& format,
                    std::string& path, std::string& error);

}  // namespace tw::host

#endif
