// libFuzzer target: request lines of "twhost ioaction" through its parser
// (tw::host::ParseIOActionRequest), as they come from the command line or standard input.
// Besides "no sanitizer report", what must hold: a refused line says why; an accepted one
// is one of the forms, with what the executor's DoAction needs (action flags of that form,
// at least one port for outputs, ports from 0, the audio action's key) and a wait that the
// command can turn into microseconds of its clock.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ioactionrequest.h"

namespace {

using tw::host::IOActionRequest;

[[noreturn]] void Fail(const char* what, long value) {
    fprintf(stderr, "ioaction_request_fuzz: %s (%ld)\n", what, value);
    fflush(stderr);
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    IOActionRequest req;
    std::string error;
    if (!tw::host::ParseIOActionRequest(line, req, error)) {
        if (error.empty()) Fail("refused without a reason", 0);
        return 0;
    }
    switch (req.kind) {
    case IOActionRequest::kDO:
        if (req.flags != 0x400 && req.flags != 0x4000) Fail("output request with other action flags", req.flags);
        if (req.outputs.empty()) Fail("output request without a port", 0);
        if (!req.audio.empty()) Fail("output request with an audio action", 0);
        for (const auto& port : req.outputs) {
            if (port.first < 0) Fail("negative port", port.first);
        }
        break;
    case IOActionRequest::kAudio:
        if (req.flags != 0x200) Fail("audio request with other action flags", req.flags);
        if (req.audio.size() != 1 || req.audio.count(IOACT_TYPE_AUDIO_OUT) != 1) Fail("audio request without the audio action", 0);
        if (!req.outputs.empty()) Fail("audio request with outputs", 0);
        break;
    case IOActionRequest::kManualDO:
    case IOActionRequest::kManualAudio:
        break;
    case IOActionRequest::kWait:
        // The command adds the wait to its clock in microseconds (int64_t).
        if (!std::isfinite(req.seconds) || req.seconds < 0.0 || req.seconds * 1e6 >= 9.2e18)
            Fail("a wait the command cannot count", static_cast<long>(std::isfinite(req.seconds) ? 1 : 0));
        break;
    default:
        Fail("unknown request kind", static_cast<long>(req.kind));
    }
    return 0;
}
