// libFuzzer target: script texts through the mobile-daemon emulator's parser
// (tw::host::ParseMobiledScript), as "twhost mobiled --script" reads them. Besides "no
// sanitizer report", what must hold: a refused script says where ("NAME:LINE: why"); every
// event keeps a delay from 0 to 86400 s, a line within the text and non-empty bytes; a
// frame's bytes are its header and its payload; and writing the parsed script back out in
// the script language and parsing that again gives the same events (so nothing in the
// text was misread or silently lost).
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "twhost/mobiledaemon.h"

namespace {

using tw::host::MobiledScript;
using tw::host::MobiledScriptEvent;

[[noreturn]] void Fail(const char* what, size_t index) {
    fprintf(stderr, "mobiled_script_fuzz: %s (event %zu)\n", what, index);
    fflush(stderr);
    abort();
}

// A script line for one event: the delay exactly, raw bytes as \xHH escapes.
std::string LineOf(const MobiledScriptEvent& e) {
    char delay[64];
    snprintf(delay, sizeof(delay), "%.17g", e.delaySec);
    std::string line = delay;
    if (e.raw) {
        line += " raw \"";
        for (unsigned char c : e.payload) {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            line += hex;
        }
        line += "\"";
    } else {
        line += " type=" + e.type + " " + e.payload;
    }
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream in(text);
    MobiledScript script;
    std::string error;
    if (!tw::host::ParseMobiledScript(in, "fuzz", script, error)) {
        if (error.compare(0, 5, "fuzz:") != 0 || error.size() < 8) Fail("refused without naming where", 0);
        return 0;
    }

    size_t lines = 1;
    for (char c : text) lines += c == '\n' ? 1 : 0;
    int lastLine = 0;
    std::string rewritten;
    for (size_t i = 0; i < script.events.size(); ++i) {
        const MobiledScriptEvent& e = script.events[i];
        if (!std::isfinite(e.delaySec) || e.delaySec < 0.0 || e.delaySec > 86400.0) Fail("delay out of range", i);
        if (e.line <= lastLine || static_cast<size_t>(e.line) > lines) Fail("line number out of order or range", i);
        lastLine = e.line;
        if (e.payload.empty()) Fail("empty payload", i);
        const std::string bytes = e.Bytes();
        if (e.raw) {
            if (bytes != e.payload) Fail("raw bytes differ from the payload", i);
        } else {
            if (e.type.empty()) Fail("frame without a type", i);
            if (e.type.find_first_of(" \t\n") != std::string::npos) Fail("type with a blank", i);
            const std::string header = "Content-Type: " + e.type + "\r\nContent-Length: " +
                                       std::to_string(e.payload.size()) + "\r\n\r\n";
            if (bytes != header + e.payload) Fail("frame is not header and payload", i);
            if (e.payload.find('\n') != std::string::npos) Fail("payload runs over a line", i);
        }
        // CR LF: the parser drops one CR before the line feed, so a payload that ends in a
        // CR of its own keeps it.
        rewritten += LineOf(e) + "\r\n";
    }

    std::istringstream again(rewritten);
    MobiledScript reparsed;
    if (!tw::host::ParseMobiledScript(again, "rewritten", reparsed, error)) Fail("the rewritten script is refused", 0);
    if (reparsed.events.size() != script.events.size()) Fail("the rewritten script has another number of events", 0);
    for (size_t i = 0; i < script.events.size(); ++i) {
        const MobiledScriptEvent& a = script.events[i];
        const MobiledScriptEvent& b = reparsed.events[i];
        if (a.delaySec != b.delaySec || a.raw != b.raw || a.payload != b.payload || (!a.raw && a.type != b.type))
            Fail("the rewritten script reads differently", i);
    }
    return 0;
}
