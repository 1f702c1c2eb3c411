// Host-side knobs of the video decoding services that the plug-in's interface has no room
// for: how exact the detection decoders are, and the scaler's reference path.
#pragma once

#include "tw/decode.h"

#include <cstdint>

namespace tw::host {

// Detection decoders (DoFFMpegInitVideo) skip the H.264/HEVC in-loop deblocking filter: the
// detector looks at a 120-pixel-wide average of the picture, where the filter's smoothing
// of block edges is lost in the averaging, and the filter costs about a tenth of a key
// frame's decode. true turns the filter back on for decoders opened from then on
// ("twhost detect --exact-decode"). Process-wide; default false.
void SetExactDetectionDecode(bool exact);
bool IsExactDetectionDecode();

// Turns the loop filter of one open decoder on (exact) or off, whatever the process-wide
// setting; for pictures people look at (snapshots, report pictures). No effect on codecs
// without a loop filter. 0 on success, -1 when the decoder is not open.
int SetExactDecode(FFmpegAttr& attr, bool exact);

// DoFFMpegScale as it was before the planes were box-reduced first: libswscale converts and
// scales the full picture. Kept for the tests and benchmarks that measure what the cheaper
// path changes; same contract as DoFFMpegScale.
int DoFFMpegScaleFull(FFmpegAttr& attr, unsigned char*& out, int& outSize, int& width,
                      int& height, int flags);

// An H.264 detection decoder whose last picture DoFFMpegScale reduced takes the block sums
// of its next picture while it decodes it, row by row as the rows come out of the decoder
// (still in the cache), instead of reading the finished picture back afterwards. The scaled
// picture is the same to the bit. false reads every picture after its decode, as before;
// for tests and benchmarks. Process-wide; default true.
void SetSumsWhileDecoding(bool on);
// Where the sums are all a picture is decoded for, an IDR picture is decoded into a ring of
// a few rows of macroblocks instead of a whole picture, which keeps the decoder's writes in
// the cache. Whatever wants such a picture other than by its sums gets it decoded again,
// whole, from the same decoder state, so the pictures scaled and decoded are the same to
// the bit. false decodes every picture whole; for tests and benchmarks. Process-wide;
// default true.
void SetRingWhileDecoding(bool on);
// A detection decoder that has reduced no picture yet gathers its pictures' sums (and may
// decode them into the ring) for what another detection decoder of the process last reduced
// a picture of the same size and format by: a recorder's cameras are judged alike. A wrong
// guess costs a replay, and that decoder guesses no more. This forgets what was shared, so
// that decoders opened next start as the first of the process did; for tests and
// benchmarks.
void ForgetSharedScaleRequests();
// How many of attr's pictures were decoded into the ring, and how many were decoded again
// whole (or had the decoder's state restored before a packet that could read them): for
// tests and benchmarks.
uint64_t PicturesInRing(const FFmpegAttr& attr);
uint64_t RingReplays(const FFmpegAttr& attr);
// How many of attr's scales took sums gathered during the decode (0 for codecs other than
// H.264): for tests and benchmarks that must know which way a picture went.
uint64_t ScalesFromDecodeSums(const FFmpegAttr& attr);

// The area average of the block sums and their conversion to RGB (the steps after the
// sums) take as many values at a time as the CPU's registers hold: 16 with AVX-512, 8 with
// AVX2, 4 on any other x86-64 CPU. The operations on each value are the same on every
// path, so the scaled picture is the same to the bit. SetAreaKernelLanes limits the paths
// to at most `lanes` values at a time and returns what the limit leaves on this CPU
// (4, 8 or 16); for the tests that hold the paths to the same bytes. Process-wide; the
// default takes the widest.
int SetAreaKernelLanes(int lanes);
int AreaKernelLanes();

// The integer box factors DoFFMpegScale reduces the planes of a srcWidth x srcHeight
// picture in pixel format pixFormat (an AVPixelFormat) by before it scales to dstWidth x
// dstHeight; 1 x 1 when it scales the full picture. For tests and benchmarks.
void ScaleReduceFactors(int srcWidth, int srcHeight, int pixFormat, int dstWidth,
                        int dstHeight, int& fx, int& fy);

// Sums of whole fx x fy blocks of one 8-bit plane (outWidth * fx columns and outHeight * fy
// rows read): the first step DoFFMpegScale takes on each plane. Blocks 8 or 16 wide have
// vector kernels; General is the plain path every factor can take, Best the fastest this
// CPU runs. fx and fy 1 to 16; dstStride counts values. False, with nothing written, when
// the factors are out of range or the kernel cannot take them on this CPU, so that tests
// can hold every kernel there is to the same sums.
enum class BoxKernel { Best, General, Sse2, Avx2, Avx512 };
bool BoxSumPlaneOf(const unsigned char* src, int srcStride, int fx, int fy, int outWidth,
                   int outHeight, uint16_t* dst, int dstStride, BoxKernel kernel);

}  // namespace tw::host
