// What the plug-in needs from the process that loads it, read from its ELF file: the
// libraries it names (only the C/C++ runtime), where each undefined symbol comes from (the
// host library or the runtime), and the symbols it exports (its interface, nothing more).
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "twhost/logsink.h"

namespace {

// The host library is part of this process as it is of a recorder daemon's; asking it for
// its sink makes sure the linker keeps it.
const bool g_blHostLoaded = tw::host::GetLogSink() != nullptr;

struct DynSymbol {
    std::string name;
    bool defined;
    bool weak;
    int type;
};

struct ElfInfo {
    std::vector<std::string> needed;
    std::vector<DynSymbol> symbols;
};

// Reads DT_NEEDED and the dynamic symbol table of a 64-bit ELF file.
ElfInfo ReadElf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ElfInfo info;
    if (file.size() < sizeof(Elf64_Ehdr)) return info;
    const auto* eh = reinterpret_cast<const Elf64_Ehdr*>(file.data());
    if (memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_ident[EI_CLASS] != ELFCLASS64) return info;
    const auto* sh = reinterpret_cast<const Elf64_Shdr*>(file.data() + eh->e_shoff);
    for (int i = 0; i < eh->e_shnum; ++i) {
        if (sh[i].sh_type == SHT_DYNSYM) {
            const char* strtab = file.data() + sh[sh[i].sh_link].sh_offset;
            const auto* syms = reinterpret_cast<const Elf64_Sym*>(file.data() + sh[i].sh_offset);
            const size_t n = sh[i].sh_size / sizeof(Elf64_Sym);
            for (size_t k = 1; k < n; ++k) {
                DynSymbol s;
                s.name = strtab + syms[k].st_name;
                s.defined = syms[k].st_shndx != SHN_UNDEF;
                s.weak = ELF64_ST_BIND(syms[k].st_info) == STB_WEAK;
                s.type = ELF64_ST_TYPE(syms[k].st_info);
                info.symbols.push_back(s);
            }
        }
        if (sh[i].sh_type == SHT_DYNAMIC) {
            const char* strtab = file.data() + sh[sh[i].sh_link].sh_offset;
            const auto* dyn = reinterpret_cast<const Elf64_Dyn*>(file.data() + sh[i].sh_offset);
            for (size_t k = 0; k < sh[i].sh_size / sizeof(Elf64_Dyn) && dyn[k].d_tag != DT_NULL; ++k)
                if (dyn[k].d_tag == DT_NEEDED) info.needed.push_back(strtab + dyn[k].d_un.d_val);
        }
    }
    return info;
}

std::string Demangle(const std::string& name) {
    int status = 0;
    char* out = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
    std::string result = status == 0 && out ? out : name;
    free(out);
    return result;
}

bool StartsWith(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }

bool IsRuntimeLibrary(const std::string& file) {
    for (const char* lib : {"/libstdc++.so", "/libm.so", "/libgcc_s.so", "/libc.so", "/ld-linux"})
        if (file.find(lib) != std::string::npos) return true;
    // The C library answers time() and clock_gettime() from the kernel's vDSO.
    if (file == "linux-vdso.so.1") return true;
#ifdef TW_SANITIZER_BUILD
    for (const char* lib : {"/libasan.so", "/libubsan.so", "/libtsan.so"})
        if (file.find(lib) != std::string::npos) return true;
#endif
    return false;
}

TEST(Linkage, NeedsOnlyTheCAndCxxRuntime) {
    ASSERT_TRUE(g_blHostLoaded);
    ElfInfo info = ReadElf(TW_PLUGIN_PATH);
    ASSERT_FALSE(info.needed.empty());
    std::set<std::string> allowed = {"libstdc++.so.6", "libm.so.6", "libgcc_s.so.1", "libc.so.6"};
#ifdef TW_SANITIZER_BUILD
    allowed.insert({"libasan.so.8", "libubsan.so.1", "libtsan.so.2"});
#endif
    for (const std::string& lib : info.needed) EXPECT_TRUE(allowed.count(lib)) << "unexpected DT_NEEDED " << lib;
    EXPECT_NE(std::find(info.needed.begin(), info.needed.end(), "libc.so.6"), info.needed.end());
}

TEST(Linkage, EveryUndefinedSymbolIsDefinedByTheHostLibraryOrTheRuntime) {
    ElfInfo info = ReadElf(TW_PLUGIN_PATH);
    ASSERT_FALSE(info.symbols.empty());
    // This process links libtwhost.so (and through it JsonCpp, libjpeg and FFmpeg), as a
    // recorder daemon does; it has not loaded the plug-in.
    int fromHost = 0;
    for (const DynSymbol& s : info.symbols) {
        if (s.defined || s.weak) continue;
#ifdef TW_SANITIZER_BUILD
        if (StartsWith(s.name, "__ubsan") || StartsWith(s.name, "__asan") || StartsWith(s.name, "__tsan") ||
            StartsWith(s.name, "__sanitizer"))
            continue;  // the sanitizer runtime's, wherever the process keeps it
#endif
        void* addr = dlsym(RTLD_DEFAULT, s.name.c_str());
        ASSERT_NE(addr, nullptr) << "nothing in the host process defines " << Demangle(s.name);
        Dl_info where{};
        ASSERT_NE(dladdr(addr, &where), 0) << s.name;
        const std::string file = where.dli_fname ? where.dli_fname : "";
        if (IsRuntimeLibrary(file)) continue;
        const bool hostLibrary = file.find("libtwhost.so") != std::string::npos;
        // The host library brings its own dependencies into the process: JsonCpp and
        // libjpeg symbols are the host's to provide, by the host library's links.
        const bool hostDependency = file.find("libjsoncpp.so") != std::string::npos ||
                                    file.find("libjpeg.so") != std::string::npos;
        EXPECT_TRUE(hostLibrary || hostDependency) << Demangle(s.name) << " comes from " << file;
        if (hostLibrary) ++fromHost;
    }
    EXPECT_GT(fromHost, 10);
}

TEST(Linkage, HostServicesResolveToTheHostLibrary) {
    for (const char* name : {"_Z8TWPrintf8LOG_TYPEPKcS1_S1_iS1_S1_z", "g_pDbgLogCfg", "g_DbgLogPid",
                             "_Z14DoFFMpegDecodeR10FFmpegAttrPKhi", "_ZN8EventBuf9SetStatusEbi",
                             "_ZTI12DPObjectBase"}) {
        void* addr = dlsym(RTLD_DEFAULT, name);
        ASSERT_NE(addr, nullptr) << name;
        Dl_info where{};
        ASSERT_NE(dladdr(addr, &where), 0);
        EXPECT_NE(std::string(where.dli_fname).find("libtwhost.so"), std::string::npos) << name;
    }
    // And the plug-in really asks for them.
    ElfInfo info = ReadElf(TW_PLUGIN_PATH);
    std::set<std::string> undefined;
    for (const DynSymbol& s : info.symbols)
        if (!s.defined) undefined.insert(s.name);
    EXPECT_TRUE(undefined.count("_Z8TWPrintf8LOG_TYPEPKcS1_S1_iS1_S1_z"));
    EXPECT_TRUE(undefined.count("g_pDbgLogCfg"));
    EXPECT_TRUE(undefined.count("_ZTI12DPObjectBase"));
}

TEST(Linkage, ExportsExactlyThePluginInterface) {
    ElfInfo info = ReadElf(TW_PLUGIN_PATH);
    const std::set<std::string> required = {
        "TWMotionDetFactory(Camera*, EventBuf*, StreamFifo*, FetcherBase*)",
        "ReleaseTWMotionDet(DPObjectBase*&)",
        "GetTWMdFuncTable()",
        "LiveCamDetectorFactory(Camera*, EventBuf*)",
        "ReleaseLiveCamDetector(DPObjectBase*&)",
        "GetLiveCamDetectorFuncTable()",
        "ChkPidLevel(LOG_LEVEL)",
        "szDetectorHandler",
        "szLiveCamDetHandler",
        "szImgDiffDetHandler",
        "DetectorHandler::DetectorHandler()",
        "DetectorHandler::SetDetector(DPObjectBase*, DetectorType)",
        "DetectorHandler::Release()",
        "DetectorHandler::GetDetType()",
        "TWMotionDet::Start()",
        "TWMotionDet::Stop()",
        "IOActExecutor::IOActExecutor()",
        "IOActExecutor::~IOActExecutor()",
        "IOActExecutor::Init(int, int, DeviceAPIHandler*, IOModuleStatus*)",
        "IOActExecutor::Terminate()",
        "AudioOut::AudioOut(int, int)",
        "AudioOut::Init()",
        "AudioOut::Stop()",
        "AudioOut::IsManualOutputing()",
    };
    std::set<std::string> exported;
    for (const DynSymbol& s : info.symbols) {
        if (!s.defined) continue;
        const std::string name = Demangle(s.name);
        exported.insert(name);
#ifdef TW_SANITIZER_BUILD
        if (StartsWith(s.name, "__asan") || StartsWith(s.name, "___asan") || StartsWith(s.name, "__odr_asan") ||
            StartsWith(s.name, "__ubsan") || StartsWith(s.name, "__tsan"))
            continue;
#endif
        if (s.name == "_init" || s.name == "_fini") continue;
        const bool ok = required.count(name) || StartsWith(name, "TWMotionDet::") ||
                        StartsWith(name, "LiveCamDetector::") ||
                        StartsWith(name, "DetectorHandler::") ||
                        StartsWith(name, "IOActExecutor::") ||
                        StartsWith(name, "AudioOut::") || StartsWith(name, "AudioOutThreadField::") ||
                        // Class information of the types that cross into the host.
                        StartsWith(name, "typeinfo for ") || StartsWith(name, "typeinfo name for ") ||
                        StartsWith(name, "vtable for ");
        EXPECT_TRUE(ok) << "exported but not part of the interface: " << name;
        if (StartsWith(name, "typeinfo") || StartsWith(name, "vtable")) {
            const std::string type = name.substr(name.find("for ") + 4);
            EXPECT_TRUE(StartsWith(type, "TWMotionDet") || StartsWith(type, "DetectorHandler") ||
                        StartsWith(type, "LiveCamDetector") ||
                        StartsWith(type, "MemFunc") || StartsWith(type, "NoneT"))
                << "class information of an internal type is exported: " << name;
        }
    }
    for (const std::string& name : required) EXPECT_TRUE(exported.count(name)) << "missing export " << name;
    EXPECT_EQ(exported.count("g_LearnFrameCnt"), 0u);
}

}  // namespace
