// RIFF/WAVE parsing and writing for the audio-out services.
#include "twhost/wavfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "tw/audio.h"

namespace tw::host {

namespace {

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t Le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLe16(std::vector<unsigned char>& out, uint32_t v) {
    out.push_back(static_cast<unsigned char>(v & 0xff));
    out.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}

void PutLe32(std::vector<unsigned char>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xff));
}

void PutId(std::vector<unsigned char>& out, const char* id) { out.insert(out.end(), id, id + 4); }

// A file opened for the walk; closes itself.
class WavReader {
public:
    ~WavReader() {
        if (m_Fd >= 0) close(m_Fd);
    }

    bool Open(const std::string& path, std::string& error) {
        m_Fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_Fd < 0) {
            error = "cannot open '" + path + "': " + std::strerror(errno);
            return false;
        }
        struct stat st {};
        if (fstat(m_Fd, &st) != 0) {
            error = "cannot read '" + path + "': " + std::strerror(errno);
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            error = "'" + path + "' is not a regular file";
            return false;
        }
        m_Size = static_cast<int64_t>(st.st_size);
        return true;
    }

    int64_t Size() const { return m_Size; }

    // Exactly n bytes at pos, or false: never a short read past the end.
    bool ReadAt(int64_t pos, unsigned char* buf, size_t n) const {
        if (pos < 0 || pos + static_cast<int64_t>(n) > m_Size) return false;
        size_t done = 0;
        while (done < n) {
            const ssize_t got = pread(m_Fd, buf + done, n - done, static_cast<off_t>(pos) +
                                                                      static_cast<off_t>(done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            done += static_cast<size_t>(got);
        }
        return true;
    }

private:
    int m_Fd = -1;
    int64_t m_Size = 0;
};

struct ChunkWalk {
    int64_t fmtOffset = -1;   // contents of the fmt chunk
    uint32_t fmtSize = 0;
    int64_t dataOffset = -1;  // contents of the data chunk
    uint32_t dataSize = 0;
};

// Walks the chunks up to the data chunk (and on past it when wantFmt and no fmt chunk has
// been seen yet, for files that put it late).
bool WalkChunks(const WavReader& file, const std::string& path, bool wantFmt, ChunkWalk& walk,
                std::string& error) {
    unsigned char head[12];
    if (file.Size() == 0) {
        error = "'" + path + "' is empty";
        return false;
    }
    if (!file.ReadAt(0, head, sizeof(head))) {
        error = "'" + path + "' is too short for a RIFF/WAVE header (" +
                std::to_string(file.Size()) + " bytes)";
        return false;
    }
    if (std::memcmp(head, "RIFF", 4) != 0) {
        error = "'" + path + "' is not a RIFF file";
        return false;
    }
    if (std::memcmp(head + 8, "WAVE", 4) != 0) {
        error = "'" + path + "' is a RIFF file but not WAVE";
        return false;
    }
    int64_t pos = 12;
    while (pos + 8 <= file.Size()) {
        unsigned char chunk[8];
        if (!file.ReadAt(pos, chunk, sizeof(chunk))) break;
        const uint32_t size = Le32(chunk + 4);
        const int64_t contents = pos + 8;
        if (std::memcmp(chunk, "data", 4) == 0) {
            if (walk.dataOffset < 0) {
                walk.dataOffset = contents;
                walk.dataSize = size;
            }
            if (!wantFmt || walk.fmtOffset >= 0) return true;
        } else if (std::memcmp(chunk, "fmt ", 4) == 0 && walk.fmtOffset < 0) {
            walk.fmtOffset = contents;
            walk.fmtSize = size;
        }
        if (contents + static_cast<int64_t>(size) > file.Size()) {
            if (walk.dataOffset >= 0) break;   // the data chunk ran to the end: reported below
            char id[5] = {0};
            for (int i = 0; i < 4; ++i) {
                id[i] = (chunk[i] >= 0x20 && chunk[i] < 0x7f) ? static_cast<char>(chunk[i]) : '?';
            }
            error = "'" + path + "': chunk '" + id + "' at offset " + std::to_string(pos) +
                    " declares " + std::to_string(size) + " bytes, past the end of the file (" +
                    std::to_string(file.Size()) + " bytes)";
            return false;
        }
        pos = contents + static_cast<int64_t>(size) + (size & 1u);
    }
    if (walk.dataOffset < 0) {
        error = "'" + path + "' has no data chunk";
        return false;
    }
    return true;
}

}  // namespace

int64_t FindWavDataStart(const std::string& path, std::string& error) {
    WavReader file;
    if (!file.Open(path, error)) return -1;
    ChunkWalk walk;
    if (!WalkChunks(file, path, false, walk, error)) return -1;
    return walk.dataOffset;
}

bool ReadWavInfo(const std::string& path, WavInfo& info, std::string& error) {
    WavReader file;
    if (!file.Open(path, error)) return false;
    ChunkWalk walk;
    if (!WalkChunks(file, path, true, walk, error)) return false;
    if (walk.fmtOffset < 0) {
        error = "'" + path + "' has no fmt chunk before its end";
        return false;
    }
    unsigned char fmt[40] = {0};
    if (walk.fmtSize < 16 || !file.ReadAt(walk.fmtOffset, fmt, 16)) {
        error = "'" + path + "' has a fmt chunk of " + std::to_string(walk.fmtSize) +
                " bytes (at least 16 needed)";
        return false;
    }
    WavInfo out;
    out.formatTag = Le16(fmt);
    out.channels = Le16(fmt + 2);
    out.sampleRate = Le32(fmt + 4);
    out.byteRate = Le32(fmt + 8);
    out.blockAlign = Le16(fmt + 12);
    out.bitsPerSample = Le16(fmt + 14);
    // The extensible layout keeps the real tag in the first two bytes of its sub-format
    // GUID, at offset 24 of the chunk.
    if (out.formatTag == WAV_FORMAT_EXTENSIBLE && walk.fmtSize >= 40 &&
        file.ReadAt(walk.fmtOffset, fmt, 40)) {
        out.formatTag = Le16(fmt + 24);
    }
    out.dataOffset = walk.dataOffset;
    const int64_t held = file.Size() - walk.dataOffset;
    out.dataBytes = static_cast<int64_t>(walk.dataSize) < held ? walk.dataSize : held;
    info = out;
    return true;
}

std::vector<unsigned char> MakeWavHeader(uint16_t formatTag, int channels, int sampleRate,
                                         int bitsPerSample, uint32_t dataBytes) {
    const bool pcm = formatTag == WAV_FORMAT_PCM;
    const uint32_t blockAlign = static_cast<uint32_t>(channels * ((bitsPerSample + 7) / 8));
    const uint32_t fmtSize = pcm ? 16 : 18;
    const uint32_t factBytes = pcm ? 0 : 12;
    const uint32_t headerBytes = 12 + 8 + fmtSize + factBytes + 8;
    std::vector<unsigned char> out;
    out.reserve(headerBytes);
    PutId(out, "RIFF");
    // The RIFF size counts everything after its own field, the data's pad byte included.
    PutLe32(out, headerBytes - 8 + dataBytes + (dataBytes & 1u));
    PutId(out, "WAVE");
    PutId(out, "fmt ");
    PutLe32(out, fmtSize);
    PutLe16(out, formatTag);
    PutLe16(out, static_cast<uint32_t>(channels));
    PutLe32(out, static_cast<uint32_t>(sampleRate));
    PutLe32(out, static_cast<uint32_t>(sampleRate) * blockAlign);
    PutLe16(out, blockAlign);
    PutLe16(out, static_cast<uint32_t>(bitsPerSample));
    if (!pcm) {
        PutLe16(out, 0);   // no format extension
        PutId(out, "fact");
        PutLe32(out, 4);
        PutLe32(out, blockAlign > 0 ? dataBytes / blockAlign : 0);
    }
    PutId(out, "data");
    PutLe32(out, dataBytes);
    return out;
}

}  // namespace tw::host

int GetWavAudioFileDataStartPos(const std::string& path) {
    std::string error;
    const int64_t start = tw::host::FindWavDataStart(path, error);
    // The recorder's interface is an int; a data chunk beyond 2 GiB is as good as none.
    if (start < 0 || start > INT_MAX) return -1;
    return static_cast<int>(start);
}
