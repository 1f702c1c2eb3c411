// The plug-in's version as an ELF note. The loader maps notes with the library, so a host
// can tell which build it loaded (twhost --version does) without the plug-in exporting
// anything beyond its interface.
#include <cstdint>

#ifndef TW_PLUGIN_VERSION
#define TW_PLUGIN_VERSION "unknown"
#endif

namespace {

struct VersionNote {
    uint32_t nameSize;
    uint32_t descSize;
    uint32_t type;
    char name[12];  // "TwDevPlugin" and its NUL: a multiple of 4, as notes are padded
    char desc[32];
};

__attribute__((section(".note.twdevplugin.version"), used, aligned(4)))
const VersionNote kVersionNote = {sizeof(kVersionNote.name), sizeof(kVersionNote.desc), 1, "TwDevPlugin",
                                  TW_PLUGIN_VERSION};

}  // namespace
