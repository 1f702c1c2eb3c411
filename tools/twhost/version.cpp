#include "version.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}
#include <jconfig.h>

#define TW_STRINGIFY2(x) #x
#define TW_STRINGIFY(x) TW_STRINGIFY2(x)

#include "twhost/plugin.h"

#ifndef TW_VERSION
#define TW_VERSION "unknown"
#endif

namespace {

struct NoteSearch {
    uintptr_t base;
    std::string version;
};

// Walks the PT_NOTE segments of the object loaded at search->base for the plug-in's note.
int FindNote(dl_phdr_info* info, size_t, void* data) {
    NoteSearch* search = static_cast<NoteSearch*>(data);
    if (info->dlpi_addr != search->base) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_NOTE) continue;
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        const char* end = p + ph.p_memsz;
        while (p + sizeof(ElfW(Nhdr)) <= end) {
            const ElfW(Nhdr)* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
            const char* name = p + sizeof(ElfW(Nhdr));
            const char* desc = name + ((note->n_namesz + 3) & ~3u);
            const char* next = desc + ((note->n_descsz + 3) & ~3u);
            if (next > end) break;
            if (note->n_type == 1 && note->n_namesz == 12 && std::memcmp(name, "TwDevPlugin", 12) == 0) {
                search->version.assign(desc, strnlen(desc, note->n_descsz));
                return 1;
            }
            p = next;
        }
    }
    return 1;
}

std::string LibVersion(unsigned v) {
    return std::to_string(AV_VERSION_MAJOR(v)) + "." + std::to_string(AV_VERSION_MINOR(v)) + "." +
           std::to_string(AV_VERSION_MICRO(v));
}

}  // namespace

std::string PluginVersion(const tw::host::PluginModule& module) {
    // Any symbol of the plug-in tells where it is mapped.
    void* symbol = module.Symbol("szDetectorHandler");
    Dl_info info{};
    if (symbol == nullptr || dladdr(symbol, &info) == 0) return std::string();
    NoteSearch search{reinterpret_cast<uintptr_t>(info.dli_fbase), std::string()};
    dl_iterate_phdr(FindNote, &search);
    return search.version;
}

std::string VersionText() {
    std::string text = std::string("twhost ") + TW_VERSION + "\n";
    const std::string path = tw::host::PluginModule::DefaultPath();
    std::string error;
    std::unique_ptr<tw::host::PluginModule> module = tw::host::PluginModule::Load(path, error);
    if (module) {
        const std::string v = PluginVersion(*module);
        text += "plug-in " + (v.empty() ? std::string("(no version note)") : v) + " (" + path + ")\n";
    } else {
        text += "plug-in not loaded: " + error + "\n";
    }
    text += std::string("FFmpeg ") + av_version_info() + " (libavformat " + LibVersion(avformat_version()) +
            ", libavcodec " + LibVersion(avcodec_version()) + ", libswscale " + LibVersion(swscale_version()) +
            ", libswresample " + LibVersion(swresample_version()) + ", libavutil " + LibVersion(avutil_version()) +
            ")\n";
    text += "libjpeg-turbo " TW_STRINGIFY(LIBJPEG_TURBO_VERSION) "\n";
    return text;
}
