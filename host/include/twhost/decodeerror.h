// Why the last picture decoding call of this thread failed. DecodeJpeg and the DoFFMpeg
// wrappers only return a status (their callers are written against that), so the reason
// is kept aside for the host's own diagnostics ("twhost detect", tests).
#pragma once

namespace tw::host {

// The reason of the calling thread's last failed DecodeJpeg or DoFFMpeg* call, e.g.
// "DecodeJpeg: Not a JPEG file: starts with 0x89 0x50". Empty when none failed yet. The
// text stays valid until the next decoding call on the same thread.
const char* LastDecodeError();

}  // namespace tw::host
