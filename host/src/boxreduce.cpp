// Block sums and the area average to RGB behind DoFFMpegScale.
//
// The detector wants about 120 x 67 pixels from a picture of up to 4K. Reading the picture
// is the cost that cannot be avoided: 3 MB for 1080p, most of it no longer in the core's own
// caches when the decoder is done. So every byte is read once, by the cheapest instruction
// that adds bytes (a sum of absolute differences against zero adds 8 of them), into exact
// integer sums of whole blocks; everything after that works on a picture a few dozen times
// smaller. The sums are kept unrounded, and the area average at the target size divides
// only once, at the end, so the result is the true area average of the source wherever the
// target's pixel boundaries fall on block boundaries, and differs from it by the weight of
// a cut block's parts elsewhere.

#include "boxreduce.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <list>
#include <new>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define TW_BOX_X86 1
#endif

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace tw::host {
namespace {

// SetAreaKernelLanes' limit.
std::atomic<int> g_AreaKernelLanes{16};

// Per-thread scratch: a detector's thread scales one picture at a time.
struct Scratch {
    std::vector<uint16_t> columns;   // column sums of one row of blocks (general kernel)
    std::vector<uint64_t> lanes;     // running vector sums of one row of blocks (vector kernels)
    std::vector<float> rowSums;      // one vertically averaged row (area step)
    std::vector<float> rows;         // one row of each plane's averages at the target size
    std::vector<uint32_t> words;     // one row of pixels as 4-byte words before packing
};
thread_local Scratch t_Scratch;

// Storage for `vectors` registers of type T, aligned to 64 bytes (enough for any of them;
// alignof of a vector type is not to be trusted outside a function built for it).
template <typename T>
T* AlignedLanes(std::vector<uint64_t>& lanes, size_t vectors)
{
    constexpr size_t kAlign = 64;
    const size_t words = (vectors * sizeof(T) + kAlign) / sizeof(uint64_t);
    if (lanes.size() < words) lanes.resize(words);
    auto address = reinterpret_cast<uintptr_t>(lanes.data());
    address = (address + kAlign - 1) & ~uintptr_t(kAlign - 1);
    return reinterpret_cast<T*>(address);
}

// The sum of `rows` rows of the fx bytes at pCell, byte by byte: the columns that a vector
// kernel's last whole register does not reach.
unsigned CellSum(const uint8_t* pCell, int stride, int fx, int rows)
{
    unsigned sum = 0;
    for (int r = 0; r < rows; ++r, pCell += stride) {
        for (int k = 0; k < fx; ++k) sum += pCell[k];
    }
    return sum;
}

// Each kernel adds the sums of `rows` rows from pTop, fx bytes to a sum, into the outWidth
// values at pOut: one row of blocks.

// Any factor: column sums of the rows, then sums of fx neighbouring columns.
void AddRowsGeneral(const uint8_t* pTop, int stride, int rows, int fx, int outWidth,
                    uint16_t* pOut)
{
    const int inWidth = outWidth * fx;
    std::vector<uint16_t>& columns = t_Scratch.columns;
    if (columns.size() < size_t(inWidth)) columns.resize(size_t(inWidth));
    std::fill(columns.begin(), columns.begin() + inWidth, uint16_t(0));
    const uint8_t* pRow = pTop;
    for (int r = 0; r < rows; ++r, pRow += stride) {
        for (int x = 0; x < inWidth; ++x) columns[size_t(x)] = uint16_t(columns[size_t(x)] + pRow[x]);
    }
    const uint16_t* pColumn = columns.data();
    for (int ox = 0; ox < outWidth; ++ox, pColumn += fx) {
        unsigned sum = 0;
        for (int k = 0; k < fx; ++k) sum += pColumn[k];
        pOut[ox] = static_cast<uint16_t>(pOut[ox] + sum);
    }
}

#if TW_BOX_X86
// Blocks 8 or 16 wide: one SAD adds each 8 neighbouring bytes of a load. Each kernel walks
// the row of blocks in strips of four registers' width and sums every strip down all its
// rows in those registers, so that the loop does nothing per byte but load, SAD and add,
// and the block sums are written once per strip. (Keeping a running sum per register in
// memory instead costs a load and a store per register and row, which on some cores bounds
// the kernel well below what the cache delivers.) The strip's rows are read side by side,
// a handful of streams that the hardware prefetcher follows.

// The 8-byte sums in the two lanes of s, for the 16 columns from x, into pOut.
__attribute__((target("sse2"))) inline void AddLanesSse2(__m128i s, int fx, int x, uint16_t* pOut)
{
    const auto lo = static_cast<unsigned>(_mm_cvtsi128_si32(s));
    const auto hi = static_cast<unsigned>(_mm_cvtsi128_si32(_mm_srli_si128(s, 8)));
    if (fx == 8) {
        pOut[x / 8] = static_cast<uint16_t>(pOut[x / 8] + lo);
        pOut[x / 8 + 1] = static_cast<uint16_t>(pOut[x / 8 + 1] + hi);
    } else {
        pOut[x / 16] = static_cast<uint16_t>(pOut[x / 16] + lo + hi);
    }
}

__attribute__((target("sse2"))) void AddRowsSse2(const uint8_t* pTop, int stride, int rows,
                                                 int fx, int outWidth, uint16_t* pOut)
{
    const __m128i zero = _mm_setzero_si128();
    const int inWidth = outWidth * fx;
    const int vectors = inWidth / 16;
    auto sad = [zero](const uint8_t* p) __attribute__((target("sse2"))) {
        return _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), zero);
    };
    int v = 0;
    for (; v + 4 <= vectors; v += 4) {
        const uint8_t* pRow = pTop + 16 * v;
        __m128i s0 = zero, s1 = zero, s2 = zero, s3 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) {
            s0 = _mm_add_epi64(s0, sad(pRow));
            s1 = _mm_add_epi64(s1, sad(pRow + 16));
            s2 = _mm_add_epi64(s2, sad(pRow + 32));
            s3 = _mm_add_epi64(s3, sad(pRow + 48));
        }
        AddLanesSse2(s0, fx, 16 * v, pOut);
        AddLanesSse2(s1, fx, 16 * v + 16, pOut);
        AddLanesSse2(s2, fx, 16 * v + 32, pOut);
        AddLanesSse2(s3, fx, 16 * v + 48, pOut);
    }
    for (; v < vectors; ++v) {
        const uint8_t* pRow = pTop + 16 * v;
        __m128i s0 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) s0 = _mm_add_epi64(s0, sad(pRow));
        AddLanesSse2(s0, fx, 16 * v, pOut);
    }
    // inWidth is a multiple of fx; a last block of 8 when 16 does not divide it.
    for (int x = vectors * 16; x < inWidth; x += fx) {
        pOut[x / fx] = static_cast<uint16_t>(pOut[x / fx] + CellSum(pTop + x, stride, fx, rows));
    }
}

// The 8-byte sums in the four lanes of s, for the 32 columns from x, into pOut.
__attribute__((target("avx2"))) inline void AddLanesAvx2(__m256i s, int fx, int x, uint16_t* pOut)
{
    alignas(32) uint64_t lane[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lane), s);
    if (fx == 8) {
        for (int k = 0; k < 4; ++k) pOut[x / 8 + k] = static_cast<uint16_t>(pOut[x / 8 + k] + lane[k]);
    } else {
        pOut[x / 16] = static_cast<uint16_t>(pOut[x / 16] + lane[0] + lane[1]);
        pOut[x / 16 + 1] = static_cast<uint16_t>(pOut[x / 16 + 1] + lane[2] + lane[3]);
    }
}

// The sums of blocks 16 wide in a strip of four 32-byte registers (s0 the leftmost), eight
// blocks from x / 16, into pOut. Each 128-bit lane of a register holds the two 8-byte halves
// of one block: the halves of two registers are added pairwise at once, the blocks of the
// other two registers shifted into the high halves of the same 64-bit lanes (no block sum
// reaches 16 bits), and one permutation puts the eight in order for a single add.
__attribute__((target("avx2"))) inline void AddStrip16Avx2(__m256i s0, __m256i s1, __m256i s2,
                                                           __m256i s3, int x, uint16_t* pOut)
{
    // Lane j: blocks (register 0, j) and (register 1, j); and (2, j), (3, j).
    const __m256i a = _mm256_add_epi64(_mm256_unpacklo_epi64(s0, s1), _mm256_unpackhi_epi64(s0, s1));
    const __m256i b = _mm256_add_epi64(_mm256_unpacklo_epi64(s2, s3), _mm256_unpackhi_epi64(s2, s3));
    // 32-bit values of lane j: blocks of registers 0, 2, 1, 3; block 2k + j is at 4j + {0, 2, 1, 3}[k].
    const __m256i mixed = _mm256_or_si256(a, _mm256_slli_epi64(b, 32));
    const __m256i ordered = _mm256_permutevar8x32_epi32(mixed, _mm256_setr_epi32(0, 4, 2, 6, 1, 5, 3, 7));
    const __m128i sums =
        _mm_packus_epi32(_mm256_castsi256_si128(ordered), _mm256_extracti128_si256(ordered, 1));
    __m128i* pSums = reinterpret_cast<__m128i*>(pOut + x / 16);
    _mm_storeu_si128(pSums, _mm_add_epi16(_mm_loadu_si128(pSums), sums));
}

// The same with 32-byte registers: half the loads and adds per byte.
__attribute__((target("avx2"))) void AddRowsAvx2(const uint8_t* pTop, int stride, int rows,
                                                 int fx, int outWidth, uint16_t* pOut)
{
    const __m256i zero = _mm256_setzero_si256();
    const int inWidth = outWidth * fx;
    const int vectors = inWidth / 32;
    auto sad = [zero](const uint8_t* p) __attribute__((target("avx2"))) {
        return _mm256_sad_epu8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), zero);
    };
    int v = 0;
    for (; v + 4 <= vectors; v += 4) {
        const uint8_t* pRow = pTop + 32 * v;
        __m256i s0 = zero, s1 = zero, s2 = zero, s3 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) {
            s0 = _mm256_add_epi64(s0, sad(pRow));
            s1 = _mm256_add_epi64(s1, sad(pRow + 32));
            s2 = _mm256_add_epi64(s2, sad(pRow + 64));
            s3 = _mm256_add_epi64(s3, sad(pRow + 96));
        }
        if (fx == 16) {
            AddStrip16Avx2(s0, s1, s2, s3, 32 * v, pOut);
        } else {
            AddLanesAvx2(s0, fx, 32 * v, pOut);
            AddLanesAvx2(s1, fx, 32 * v + 32, pOut);
            AddLanesAvx2(s2, fx, 32 * v + 64, pOut);
            AddLanesAvx2(s3, fx, 32 * v + 96, pOut);
        }
    }
    for (; v < vectors; ++v) {
        const uint8_t* pRow = pTop + 32 * v;
        __m256i s0 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) s0 = _mm256_add_epi64(s0, sad(pRow));
        AddLanesAvx2(s0, fx, 32 * v, pOut);
    }
    for (int x = vectors * 32; x < inWidth; x += fx) {
        pOut[x / fx] = static_cast<uint16_t>(pOut[x / fx] + CellSum(pTop + x, stride, fx, rows));
    }
}

// The eight 8-byte sums of s, blocks 8 wide for the 64 columns from x, into pOut: packed to
// 16 bits in a register (every sum of up to 8 x 16 bytes fits) and added there.
__attribute__((target("avx512f,avx512bw"))) inline void AddLanes8Avx512(__m512i s, int x,
                                                                        uint16_t* pOut)
{
    __m128i* pSums = reinterpret_cast<__m128i*>(pOut + x / 8);
    _mm_storeu_si128(pSums, _mm_add_epi16(_mm_loadu_si128(pSums), _mm512_maskz_cvtepi64_epi16(0xff, s)));
}

// Blocks 8 wide with 64-byte registers, where the CPU has them: fewer loads per byte again.
__attribute__((target("avx512f,avx512bw"))) void AddRows8Avx512(const uint8_t* pTop, int stride,
                                                               int rows, int outWidth,
                                                               uint16_t* pOut)
{
    const __m512i zero = _mm512_setzero_si512();
    const int inWidth = outWidth * 8;
    const int vectors = inWidth / 64;
    auto sad = [zero](const uint8_t* p) __attribute__((target("avx512f,avx512bw"))) {
        return _mm512_sad_epu8(_mm512_loadu_si512(p), zero);
    };
    int v = 0;
    for (; v + 4 <= vectors; v += 4) {
        const uint8_t* pRow = pTop + 64 * v;
        __m512i s0 = zero, s1 = zero, s2 = zero, s3 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) {
            s0 = _mm512_add_epi64(s0, sad(pRow));
            s1 = _mm512_add_epi64(s1, sad(pRow + 64));
            s2 = _mm512_add_epi64(s2, sad(pRow + 128));
            s3 = _mm512_add_epi64(s3, sad(pRow + 192));
        }
        AddLanes8Avx512(s0, 64 * v, pOut);
        AddLanes8Avx512(s1, 64 * v + 64, pOut);
        AddLanes8Avx512(s2, 64 * v + 128, pOut);
        AddLanes8Avx512(s3, 64 * v + 192, pOut);
    }
    for (; v < vectors; ++v) {
        const uint8_t* pRow = pTop + 64 * v;
        __m512i s0 = zero;
        for (int r = 0; r < rows; ++r, pRow += stride) s0 = _mm512_add_epi64(s0, sad(pRow));
        AddLanes8Avx512(s0, 64 * v, pOut);
    }
    for (int x = vectors * 64; x < inWidth; x += 8) {
        pOut[x / 8] = static_cast<uint16_t>(pOut[x / 8] + CellSum(pTop + x, stride, 8, rows));
    }
}

// Blocks 16 wide with 64-byte registers, the row in strips of four registers (256 columns,
// 16 blocks) and the last strip's registers loaded under a mask, zero past the row's end,
// so that no block is left to a single register's lane work. The four registers' sums are
// brought together as in AddStrip16Avx2 and added to the 16 block sums with one load and
// one store, masked in the last strip.
__attribute__((target("avx512f,avx512bw,avx512vl"))) void AddRows16Avx512(
    const uint8_t* pTop, int stride, int rows, int outWidth, uint16_t* pOut)
{
    const __m512i zero = _mm512_setzero_si512();
    const int inWidth = outWidth * 16;
    // Block 4k + j of a strip is the 32-bit value 4j + {0, 2, 1, 3}[k] after the mixing.
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 2, 6, 10, 14, 1, 5, 9, 13, 3, 7, 11, 15);
    for (int x = 0; x < inWidth; x += 256) {
        const uint8_t* pRow = pTop + x;
        __m512i s0 = zero, s1 = zero, s2 = zero, s3 = zero;
        if (x + 256 <= inWidth) {
            for (int r = 0; r < rows; ++r, pRow += stride) {
                s0 = _mm512_add_epi64(s0, _mm512_sad_epu8(_mm512_loadu_si512(pRow), zero));
                s1 = _mm512_add_epi64(s1, _mm512_sad_epu8(_mm512_loadu_si512(pRow + 64), zero));
                s2 = _mm512_add_epi64(s2, _mm512_sad_epu8(_mm512_loadu_si512(pRow + 128), zero));
                s3 = _mm512_add_epi64(s3, _mm512_sad_epu8(_mm512_loadu_si512(pRow + 192), zero));
            }
        } else {
            // The row's last registers, each loaded under a mask: masked-off bytes are not
            // read, so the row may end anywhere. A register wholly past the end stays zero.
            __m512i* sums[4] = {&s0, &s1, &s2, &s3};
            for (int k = 0; k < 4 && x + 64 * k < inWidth; ++k) {
                const int bytes = std::min(64, inWidth - x - 64 * k);
                const __mmask64 mask = bytes == 64 ? ~__mmask64(0) : (__mmask64(1) << bytes) - 1;
                const uint8_t* pColumn = pRow + 64 * k;
                __m512i sum = zero;
                for (int r = 0; r < rows; ++r, pColumn += stride) {
                    sum = _mm512_add_epi64(sum, _mm512_sad_epu8(_mm512_maskz_loadu_epi8(mask, pColumn), zero));
                }
                *sums[k] = sum;
            }
        }
        // The zero-masked forms: GCC 12 warns of the plain ones' undefined pass-through.
        const __m512i a = _mm512_add_epi64(_mm512_maskz_unpacklo_epi64(0xff, s0, s1),
                                           _mm512_maskz_unpackhi_epi64(0xff, s0, s1));
        const __m512i b = _mm512_add_epi64(_mm512_maskz_unpacklo_epi64(0xff, s2, s3),
                                           _mm512_maskz_unpackhi_epi64(0xff, s2, s3));
        const __m512i mixed = _mm512_or_si512(a, _mm512_maskz_slli_epi64(0xff, b, 32));
        const __m256i sums =
            _mm512_maskz_cvtepi32_epi16(0xffff, _mm512_maskz_permutexvar_epi32(0xffff, order, mixed));
        const int blocks = std::min(16, outWidth - x / 16);
        const __mmask16 keep = blocks == 16 ? __mmask16(0xffff) : __mmask16((1u << blocks) - 1);
        uint16_t* pSums = pOut + x / 16;
        _mm256_mask_storeu_epi16(pSums, keep,
                                 _mm256_add_epi16(_mm256_maskz_loadu_epi16(keep, pSums), sums));
    }
}

bool CpuHasAvx512()
{
    static const bool has = __builtin_cpu_supports("avx512f") != 0 &&
                            __builtin_cpu_supports("avx512bw") != 0 &&
                            __builtin_cpu_supports("avx512vl") != 0;
    return has;
}

// The 64-byte kernels behind one entry: 16-wide blocks in strips, 8-wide ones by register.
void AddRowsAvx512(const uint8_t* pTop, int stride, int rows, int fx, int outWidth,
                   uint16_t* pOut)
{
    if (fx == 16) {
        AddRows16Avx512(pTop, stride, rows, outWidth, pOut);
    } else {
        AddRows8Avx512(pTop, stride, rows, outWidth, pOut);
    }
}

bool CpuHasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2") != 0;
    return has;
}
#endif

using AddRowsFn = void (*)(const uint8_t*, int, int, int, int, uint16_t*);

// The kernel for fx, or null when `kernel` cannot take it on this CPU.
AddRowsFn KernelFor(BoxKernel kernel, int fx)
{
    const bool wide = fx == 8 || fx == 16;
#if TW_BOX_X86
    switch (kernel) {
    case BoxKernel::Best:
        return !wide            ? AddRowsGeneral
               : CpuHasAvx512() ? AddRowsAvx512
               : CpuHasAvx2()   ? AddRowsAvx2
                                : AddRowsSse2;
    case BoxKernel::General:
        return AddRowsGeneral;
    case BoxKernel::Sse2:
        return wide ? AddRowsSse2 : nullptr;
    case BoxKernel::Avx2:
        return wide && CpuHasAvx2() ? AddRowsAvx2 : nullptr;
    case BoxKernel::Avx512:
        return wide && CpuHasAvx512() ? AddRowsAvx512 : nullptr;
    }
    return nullptr;
#else
    (void)wide;
    return kernel == BoxKernel::Best || kernel == BoxKernel::General ? AddRowsGeneral : nullptr;
#endif
}

// Area weights of one axis: target pixel i covers source positions [i S/D, (i+1) S/D); the
// weight of source pixel first[i] + t is the length of its overlap with that span, over
// S/D. taps weights per target pixel (as many as the widest span touches), zero where a
// span touches fewer pixels.
struct AxisTaps {
    int taps = 0;
    std::vector<int> first;
    std::vector<float> weight;
};

void MakeAxisTaps(int source, int target, AxisTaps& axis)
{
    const int64_t S = source;
    const int64_t D = target;
    // In units of 1/D of a source pixel, span i is [i S, (i + 1) S): pixels i S / D to
    // ((i + 1) S - 1) / D.
    int taps = 1;
    for (int64_t i = 0; i < D; ++i) {
        taps = std::max(taps, int(((i + 1) * S - 1) / D - (i * S) / D + 1));
    }
    axis.taps = taps;
    axis.first.assign(size_t(target), 0);
    axis.weight.assign(size_t(target) * size_t(taps), 0.0f);
    for (int64_t i = 0; i < D; ++i) {
        const int64_t lo = i * S;
        const int64_t hi = lo + S;
        const int64_t j0 = lo / D;
        const int64_t j1 = (hi - 1) / D;
        // Keep every tap inside the plane: a span near the end starts its taps earlier
        // and gives the leading ones no weight.
        const int64_t start = std::min(j0, S - taps);
        axis.first[size_t(i)] = int(start);
        for (int64_t j = j0; j <= j1; ++j) {
            const int64_t overlap = std::min(hi, (j + 1) * D) - std::max(lo, j * D);
            axis.weight[size_t(i) * size_t(taps) + size_t(j - start)] =
                float(double(overlap) / double(S));
        }
    }
}

// The horizontal step of the area average for one row: each target value the weighted sum
// of its taps. TAPS is the tap count when it is a small constant (0: read from axis), so
// that the common spans of 2 to 4 pixels run without a loop of their own.
template <int TAPS>
void AcrossRowOf(const float* row, const AxisTaps& across, float* pLine, int targetWidth)
{
    const int taps = TAPS > 0 ? TAPS : across.taps;
    const float* w = across.weight.data();
    const int* first = across.first.data();
    for (int ox = 0; ox < targetWidth; ++ox, w += taps) {
        const float* pCell = row + first[ox];
        float sum = 0.0f;
        for (int t = 0; t < taps; ++t) sum += w[t] * pCell[t];
        pLine[ox] = sum;
    }
}

void AcrossRow(const float* row, const AxisTaps& across, float* pLine, int targetWidth)
{
    switch (across.taps) {
    case 1: AcrossRowOf<1>(row, across, pLine, targetWidth); break;
    case 2: AcrossRowOf<2>(row, across, pLine, targetWidth); break;
    case 3: AcrossRowOf<3>(row, across, pLine, targetWidth); break;
    case 4: AcrossRowOf<4>(row, across, pLine, targetWidth); break;
    default: AcrossRowOf<0>(row, across, pLine, targetWidth); break;
    }
}

// The vertical step of the area average for one row: row[x] the weighted sum of the taps
// rows from pFirst, products added tap by tap from zero (a tap of no weight adds nothing).
void DownRow(const uint16_t* pFirst, ptrdiff_t stride, const float* wDown, int taps, int width,
             float* __restrict row)
{
    for (int x = 0; x < width; ++x) row[x] = 0.0f;
    for (int t = 0; t < taps; ++t) {
        const float w = wDown[t];
        if (w == 0.0f) continue;
        const uint16_t* __restrict pRow = pFirst + ptrdiff_t(t) * stride;
        for (int x = 0; x < width; ++x) row[x] += w * float(pRow[x]);
    }
}

#if TW_BOX_X86
// The taps of one target row that weigh anything, in order: their rows into pRows and
// their weights into weight, at most `most` of them. The count, or -1 when there are more
// (a reduction so steep is rare; the plain loop takes any number).
int WeightedTaps(const uint16_t* pFirst, ptrdiff_t stride, const float* wDown, int taps,
                 int most, const uint16_t** pRows, float* weight)
{
    int used = 0;
    for (int t = 0; t < taps; ++t) {
        if (wDown[t] == 0.0f) continue;
        if (used == most) return -1;
        pRows[used] = pFirst + ptrdiff_t(t) * stride;
        weight[used] = wDown[t];
        ++used;
    }
    return used;
}

// The same, eight values held in a register across all the taps instead of being stored
// and loaded again for each: the same products added in the same order, so the same bits.
__attribute__((target("avx2"))) void DownRowAvx2(const uint16_t* pFirst, ptrdiff_t stride,
                                                 const float* wDown, int taps, int width,
                                                 float* __restrict row)
{
    // The taps that weigh anything, their weights ready in registers.
    constexpr int kMostTaps = 8;
    const uint16_t* pRows[kMostTaps];
    float weight[kMostTaps];
    const int used = WeightedTaps(pFirst, stride, wDown, taps, kMostTaps, pRows, weight);
    if (used < 0) {
        DownRow(pFirst, stride, wDown, taps, width, row);
        return;
    }
    __m256 weights[kMostTaps];
    for (int k = 0; k < used; ++k) weights[k] = _mm256_set1_ps(weight[k]);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 sum = _mm256_setzero_ps();
        for (int k = 0; k < used; ++k) {
            const __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pRows[k] + x));
            sum = _mm256_add_ps(sum, _mm256_mul_ps(weights[k], _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(values))));
        }
        _mm256_storeu_ps(row + x, sum);
    }
    for (; x < width; ++x) {
        float sum = 0.0f;
        for (int k = 0; k < used; ++k) sum += _mm256_cvtss_f32(weights[k]) * float(pRows[k][x]);
        row[x] = sum;
    }
}

// GCC 12 takes the undefined pass-through value of the plain 512-bit intrinsics for a use
// of an uninitialised variable; it is never read.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
// Sixteen values at a time, the row's last ones loaded and stored under a mask (no value
// left to a loop of one at a time): again the same products added in the same order. TAPS
// rows of weight, so that their pointers and weights stay in registers.
template <int TAPS>
__attribute__((target("avx512f,avx512bw,avx512vl"))) inline void DownTapsAvx512(
    const uint16_t* const* pRows, const float* weight, int width, float* __restrict row)
{
    __m512 weights[TAPS];
    for (int k = 0; k < TAPS; ++k) weights[k] = _mm512_set1_ps(weight[k]);
    for (int x = 0; x < width; x += 16) {
        const int count = std::min(16, width - x);
        const __mmask16 mask = count == 16 ? __mmask16(0xffff) : __mmask16((1u << count) - 1);
        __m512 sum = _mm512_setzero_ps();
        for (int k = 0; k < TAPS; ++k) {
            const __m256i values = _mm256_maskz_loadu_epi16(mask, pRows[k] + x);
            sum = _mm512_add_ps(sum, _mm512_mul_ps(weights[k], _mm512_cvtepi32_ps(_mm512_cvtepu16_epi32(values))));
        }
        _mm512_mask_storeu_ps(row + x, mask, sum);
    }
}

__attribute__((target("avx512f,avx512bw,avx512vl"))) void DownRowAvx512(
    const uint16_t* pFirst, ptrdiff_t stride, const float* wDown, int taps, int width,
    float* __restrict row)
{
    constexpr int kMostTaps = 6;
    const uint16_t* pRows[kMostTaps];
    float weight[kMostTaps];
    const int used = WeightedTaps(pFirst, stride, wDown, taps, kMostTaps, pRows, weight);
    if (used < 0) {
        DownRow(pFirst, stride, wDown, taps, width, row);
        return;
    }
    switch (used) {
    case 0: std::fill(row, row + width, 0.0f); break;
    case 1: DownTapsAvx512<1>(pRows, weight, width, row); break;
    case 2: DownTapsAvx512<2>(pRows, weight, width, row); break;
    case 3: DownTapsAvx512<3>(pRows, weight, width, row); break;
    case 4: DownTapsAvx512<4>(pRows, weight, width, row); break;
    case 5: DownTapsAvx512<5>(pRows, weight, width, row); break;
    default: DownTapsAvx512<6>(pRows, weight, width, row); break;
    }
}
#pragma GCC diagnostic pop
#endif

using DownRowFn = void (*)(const uint16_t*, ptrdiff_t, const float*, int, int, float*);

// Row oy of the area average of one plane of sums at targetWidth, still as sums of a block
// (not yet divided by its area), into pOut (targetWidth values). rowSums holds the plane's
// width of values. The loops are written for the compiler to vectorise (this file is built
// with -O3).
void AreaRow(const PlaneSums& plane, const AxisTaps& across, const AxisTaps& down, int oy,
             int targetWidth, float* rowSums, DownRowFn downRow, float* pOut)
{
    const float* wDown = &down.weight[size_t(oy) * size_t(down.taps)];
    const uint16_t* pFirst = plane.data + ptrdiff_t(down.first[size_t(oy)]) * plane.stride;
    // Where the blocks make exactly the target width, the vertical step writes the result.
    const bool identity = plane.width == targetWidth;
    float* row = identity ? pOut : rowSums;
    downRow(pFirst, plane.stride, wDown, down.taps, plane.width, row);
    if (!identity) AcrossRow(row, across, pOut, targetWidth);
}

// Pixels from x to the end of the row as 4-byte words (red, green, blue, unused), one
// pixel at a time: what a vector loop leaves over.
void RgbWordsFrom(int x, const float* luma, const float* cb, const float* cr, bool halfChroma,
                  int width, const RgbMatrix& m, float lumaOffset, float chromaMid,
                  uint32_t* words)
{
    auto toInt = [](float value) { return uint32_t(std::min(255.0f, std::max(0.0f, value)) + 0.5f); };
    for (; x < width; ++x) {
        const int c = halfChroma ? x / 2 : x;
        const float y = m.cy * luma[x] - lumaOffset;
        const float u = cb[c] - chromaMid;
        const float v = cr[c] - chromaMid;
        words[x] = toInt(y + m.crv * v) | toInt(y - m.cgu * u - m.cgv * v) << 8 |
                   toInt(y + m.cbu * u) << 16;
    }
}

// Words from x on to packed 3-byte pixels: each word stored whole, its top byte overwritten
// by the next pixel, the last one byte by byte so that nothing is written past the row.
void PackWordsFrom(int x, const uint32_t* words, int width, uint8_t* pOut)
{
    for (; x + 1 < width; ++x) memcpy(pOut + 3 * x, &words[x], 4);
    pOut[3 * x] = uint8_t(words[x]);
    pOut[3 * x + 1] = uint8_t(words[x] >> 8);
    pOut[3 * x + 2] = uint8_t(words[x] >> 16);
}

// One row of RGB: luma sums (one per pixel) and chroma sums (one per pixel, or one per two
// pixels when halfChroma), each colour clamped to [0, 255] and rounded to nearest. The
// conversion takes four pixels at a time where SSE2 is there (every x86-64 CPU).
void RgbRow(const float* __restrict luma, const float* __restrict cb, const float* __restrict cr,
            bool halfChroma, int width, const RgbMatrix& m, float lumaOffset, float chromaMid,
            uint32_t* __restrict words, uint8_t* __restrict pOut)
{
    int x = 0;
#if defined(__SSE2__)
    const __m128 cy = _mm_set1_ps(m.cy);
    const __m128 offset = _mm_set1_ps(lumaOffset);
    const __m128 mid = _mm_set1_ps(chromaMid);
    const __m128 crv = _mm_set1_ps(m.crv);
    const __m128 cgu = _mm_set1_ps(m.cgu);
    const __m128 cgv = _mm_set1_ps(m.cgv);
    const __m128 cbu = _mm_set1_ps(m.cbu);
    const __m128 low = _mm_setzero_ps();
    const __m128 high = _mm_set1_ps(255.0f);
    const __m128 half = _mm_set1_ps(0.5f);
    auto toInts = [&](__m128 value) {
        return _mm_cvttps_epi32(_mm_add_ps(_mm_min_ps(high, _mm_max_ps(low, value)), half));
    };
    auto four = [&](int at, __m128 u, __m128 v) {
        const __m128 y = _mm_sub_ps(_mm_mul_ps(cy, _mm_loadu_ps(luma + at)), offset);
        u = _mm_sub_ps(u, mid);
        v = _mm_sub_ps(v, mid);
        const __m128i red = toInts(_mm_add_ps(y, _mm_mul_ps(crv, v)));
        const __m128i green =
            toInts(_mm_sub_ps(_mm_sub_ps(y, _mm_mul_ps(cgu, u)), _mm_mul_ps(cgv, v)));
        const __m128i blue = toInts(_mm_add_ps(y, _mm_mul_ps(cbu, u)));
        const __m128i word = _mm_or_si128(
            red, _mm_or_si128(_mm_slli_epi32(green, 8), _mm_slli_epi32(blue, 16)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(words + at), word);
    };
    if (halfChroma) {
        for (; x + 8 <= width; x += 8) {
            const __m128 u = _mm_loadu_ps(cb + x / 2);
            const __m128 v = _mm_loadu_ps(cr + x / 2);
            four(x, _mm_unpacklo_ps(u, u), _mm_unpacklo_ps(v, v));
            four(x + 4, _mm_unpackhi_ps(u, u), _mm_unpackhi_ps(v, v));
        }
    } else {
        for (; x + 4 <= width; x += 4) four(x, _mm_loadu_ps(cb + x), _mm_loadu_ps(cr + x));
    }
#endif
    RgbWordsFrom(x, luma, cb, cr, halfChroma, width, m, lumaOffset, chromaMid, words);
    PackWordsFrom(0, words, width, pOut);
}

#if TW_BOX_X86
// The same row eight pixels at a time: the same operations on each pixel in the same order,
// so the same bytes. Four words at a time are then packed by a byte shuffle into 12 bytes
// of pixels, stored as 16 whose last 4 the next store overwrites.
__attribute__((target("avx2"))) void RgbRowAvx2(const float* __restrict luma,
                                                const float* __restrict cb,
                                                const float* __restrict cr, bool halfChroma,
                                                int width, const RgbMatrix& m, float lumaOffset,
                                                float chromaMid, uint32_t* __restrict words,
                                                uint8_t* __restrict pOut)
{
    const __m256 cy = _mm256_set1_ps(m.cy);
    const __m256 offset = _mm256_set1_ps(lumaOffset);
    const __m256 mid = _mm256_set1_ps(chromaMid);
    const __m256 crv = _mm256_set1_ps(m.crv);
    const __m256 cgu = _mm256_set1_ps(m.cgu);
    const __m256 cgv = _mm256_set1_ps(m.cgv);
    const __m256 cbu = _mm256_set1_ps(m.cbu);
    const __m256 low = _mm256_setzero_ps();
    const __m256 high = _mm256_set1_ps(255.0f);
    const __m256 half = _mm256_set1_ps(0.5f);
    auto toInts = [&](__m256 value) __attribute__((target("avx2"))) {
        return _mm256_cvttps_epi32(_mm256_add_ps(_mm256_min_ps(high, _mm256_max_ps(low, value)), half));
    };
    // Each chroma value twice over, for two neighbouring pixels.
    const __m256i twice = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 u;
        __m256 v;
        if (halfChroma) {
            u = _mm256_permutevar8x32_ps(_mm256_castps128_ps256(_mm_loadu_ps(cb + x / 2)), twice);
            v = _mm256_permutevar8x32_ps(_mm256_castps128_ps256(_mm_loadu_ps(cr + x / 2)), twice);
        } else {
            u = _mm256_loadu_ps(cb + x);
            v = _mm256_loadu_ps(cr + x);
        }
        const __m256 y = _mm256_sub_ps(_mm256_mul_ps(cy, _mm256_loadu_ps(luma + x)), offset);
        u = _mm256_sub_ps(u, mid);
        v = _mm256_sub_ps(v, mid);
        const __m256i red = toInts(_mm256_add_ps(y, _mm256_mul_ps(crv, v)));
        const __m256i green =
            toInts(_mm256_sub_ps(_mm256_sub_ps(y, _mm256_mul_ps(cgu, u)), _mm256_mul_ps(cgv, v)));
        const __m256i blue = toInts(_mm256_add_ps(y, _mm256_mul_ps(cbu, u)));
        const __m256i word = _mm256_or_si256(
            red, _mm256_or_si256(_mm256_slli_epi32(green, 8), _mm256_slli_epi32(blue, 16)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(words + x), word);
    }
    // The helpers below are plain SSE code: with the upper halves of the registers left
    // dirty, each of their instructions would wait on a merge of the whole register (GCC
    // does not clear them before these calls by itself).
    _mm256_zeroupper();
    RgbWordsFrom(x, luma, cb, cr, halfChroma, width, m, lumaOffset, chromaMid, words);

    const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    x = 0;
    // A 16-byte store at pixel x reaches byte 3 x + 15, inside the row while x + 6 <= width.
    for (; x + 6 <= width; x += 4) {
        const __m128i four = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words + x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + 3 * x), _mm_shuffle_epi8(four, pack));
    }
    PackWordsFrom(x, words, width, pOut);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
// Sixteen pixels at a time, packed in registers (a byte shuffle in each 128-bit lane, then
// the lanes' 12 bytes moved together) and stored under a mask, so that the row's last
// pixels need no loop of their own and nothing is written past the row. The operations on
// each pixel are those of RgbRow, in the same order.
__attribute__((target("avx512f,avx512bw,avx512vl"))) void RgbRowAvx512(
    const float* __restrict luma, const float* __restrict cb, const float* __restrict cr,
    bool halfChroma, int width, const RgbMatrix& m, float lumaOffset, float chromaMid,
    uint32_t* __restrict, uint8_t* __restrict pOut)
{
    const __m512 cy = _mm512_set1_ps(m.cy);
    const __m512 offset = _mm512_set1_ps(lumaOffset);
    const __m512 mid = _mm512_set1_ps(chromaMid);
    const __m512 crv = _mm512_set1_ps(m.crv);
    const __m512 cgu = _mm512_set1_ps(m.cgu);
    const __m512 cgv = _mm512_set1_ps(m.cgv);
    const __m512 cbu = _mm512_set1_ps(m.cbu);
    const __m512 low = _mm512_setzero_ps();
    const __m512 high = _mm512_set1_ps(255.0f);
    const __m512 half = _mm512_set1_ps(0.5f);
    auto toInts = [&](__m512 value) __attribute__((target("avx512f"))) {
        return _mm512_cvttps_epi32(_mm512_add_ps(_mm512_min_ps(high, _mm512_max_ps(low, value)), half));
    };
    const __m512i twice = _mm512_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7);
    // Each lane's four words to 12 bytes at its start, then the four lanes' 12 to 48 bytes.
    const __m512i pack = _mm512_broadcast_i32x4(
        _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    const __m512i together = _mm512_setr_epi32(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, 15, 15, 15, 15);
    for (int x = 0; x < width; x += 16) {
        const int count = std::min(16, width - x);
        const __mmask16 mask = count == 16 ? __mmask16(0xffff) : __mmask16((1u << count) - 1);
        __m512 u;
        __m512 v;
        if (halfChroma) {
            // halfChroma comes with even widths only: count / 2 chroma values.
            const __mmask8 half8 = __mmask8((1u << (count / 2)) - 1);
            u = _mm512_permutexvar_ps(twice, _mm512_castps256_ps512(_mm256_maskz_loadu_ps(half8, cb + x / 2)));
            v = _mm512_permutexvar_ps(twice, _mm512_castps256_ps512(_mm256_maskz_loadu_ps(half8, cr + x / 2)));
        } else {
            u = _mm512_maskz_loadu_ps(mask, cb + x);
            v = _mm512_maskz_loadu_ps(mask, cr + x);
        }
        const __m512 y = _mm512_sub_ps(_mm512_mul_ps(cy, _mm512_maskz_loadu_ps(mask, luma + x)), offset);
        u = _mm512_sub_ps(u, mid);
        v = _mm512_sub_ps(v, mid);
        const __m512i red = toInts(_mm512_add_ps(y, _mm512_mul_ps(crv, v)));
        const __m512i green =
            toInts(_mm512_sub_ps(_mm512_sub_ps(y, _mm512_mul_ps(cgu, u)), _mm512_mul_ps(cgv, v)));
        const __m512i blue = toInts(_mm512_add_ps(y, _mm512_mul_ps(cbu, u)));
        const __m512i word = _mm512_or_si512(
            red, _mm512_or_si512(_mm512_slli_epi32(green, 8), _mm512_slli_epi32(blue, 16)));
        const __m512i bytes = _mm512_permutexvar_epi32(together, _mm512_shuffle_epi8(word, pack));
        const __mmask64 store = (__mmask64(1) << (3 * count)) - 1;
        _mm512_mask_storeu_epi8(pOut + 3 * x, store, bytes);
    }
}
#pragma GCC diagnostic pop
#endif

using RgbRowFn = void (*)(const float*, const float*, const float*, bool, int, const RgbMatrix&,
                          float, float, uint32_t*, uint8_t*);

// The taps of the axes of the last pictures this thread scaled: a detector asks for the
// same sizes turn after turn. Least recently used first; an entry found moves to the end,
// and a list keeps the references handed out valid, so the four axes of one scale (always
// the most recently used) are never the one dropped.
const AxisTaps& TapsFor(int source, int target)
{
    struct Entry {
        int source;
        int target;
        AxisTaps taps;
    };
    thread_local std::list<Entry> t_Taps;
    for (auto it = t_Taps.begin(); it != t_Taps.end(); ++it) {
        if (it->source == source && it->target == target) {
            t_Taps.splice(t_Taps.end(), t_Taps, it);
            return t_Taps.back().taps;
        }
    }
    constexpr size_t kKept = 8;
    if (t_Taps.size() >= kKept) t_Taps.pop_front();
    t_Taps.push_back(Entry{source, target, AxisTaps{}});
    MakeAxisTaps(source, target, t_Taps.back().taps);
    return t_Taps.back().taps;
}

}  // namespace

bool BoxSumPlaneOf(const unsigned char* src, int srcStride, int fx, int fy, int outWidth,
                   int outHeight, uint16_t* dst, int dstStride, BoxKernel kernel)
{
    if (fx < 1 || fx > kMaxBoxFactor || fy < 1 || fy > kMaxBoxFactor || outWidth < 1 ||
        outHeight < 1 || src == nullptr || dst == nullptr || dstStride < outWidth) {
        return false;
    }
    const AddRowsFn add = KernelFor(kernel, fx);
    if (add == nullptr) return false;
    try {
        for (int oy = 0; oy < outHeight; ++oy) {
            uint16_t* pOut = dst + ptrdiff_t(oy) * dstStride;
            std::fill(pOut, pOut + outWidth, uint16_t(0));
            add(src + ptrdiff_t(oy) * fy * srcStride, srcStride, fy, fx, outWidth, pOut);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

RgbMatrix RgbMatrixOf(int colorspace, bool fullRange)
{
    // libswscale's table gives the chroma factors for limited-range chroma, in 1/65536.
    const int* table = sws_getCoefficients(colorspace);
    RgbMatrix m;
    m.crv = float(table[0]) / 65536.0f;
    m.cbu = float(table[1]) / 65536.0f;
    m.cgu = float(table[2]) / 65536.0f;
    m.cgv = float(table[3]) / 65536.0f;
    if (fullRange) {
        const float chroma = 224.0f / 255.0f;
        m.crv *= chroma;
        m.cbu *= chroma;
        m.cgu *= chroma;
        m.cgv *= chroma;
    } else {
        m.cy = 255.0f / 219.0f;
        m.oy = 16.0f;
    }
    return m;
}

int SetAreaKernelLanes(int lanes)
{
    g_AreaKernelLanes.store(lanes, std::memory_order_relaxed);
    return AreaKernelLanes();
}

int AreaKernelLanes()
{
    const int lanes = g_AreaKernelLanes.load(std::memory_order_relaxed);
#if TW_BOX_X86
    if (lanes >= 16 && CpuHasAvx512()) return 16;
    if (lanes >= 8 && CpuHasAvx2()) return 8;
#endif
    return 4;
}

bool AreaToRgb(const PlaneSums* planes, int planeCount, int blockArea, bool fullChroma,
               const RgbMatrix& matrix, uint8_t* out, int width, int height)
{
    if (planes == nullptr || (planeCount != 1 && planeCount != 3) || blockArea < 1 ||
        width < 1 || height < 1) {
        return false;
    }
    const int chromaWidth = planeCount == 3 ? (fullChroma ? width : (width + 1) / 2) : width;
    try {
        // One row of each plane at a time, converted as soon as it is there: a whole
        // picture of averages would be written and read back once more, from far in the
        // cache after a decode.
        std::vector<float>& values = t_Scratch.rows;
        values.resize(size_t(width) + 2 * size_t(chromaWidth));
        float* pY = values.data();
        float* pU = pY + width;
        float* pV = pU + chromaWidth;
        DownRowFn downRow = DownRow;
        RgbRowFn rgbRow = RgbRow;
#if TW_BOX_X86
        const int lanes = AreaKernelLanes();
        if (lanes == 16) {
            downRow = DownRowAvx512;
            rgbRow = RgbRowAvx512;
        } else if (lanes == 8) {
            downRow = DownRowAvx2;
            rgbRow = RgbRowAvx2;
        }
#endif
        const AxisTaps& lumaAcross = TapsFor(planes[0].width, width);
        const AxisTaps& lumaDown = TapsFor(planes[0].height, height);
        const AxisTaps* chromaAcross = nullptr;
        const AxisTaps* chromaDown = nullptr;
        size_t rowSums = size_t(planes[0].width);
        // Grey: chroma at its middle, which the conversion takes as no colour.
        const float chromaMid = 128.0f * float(blockArea);
        if (planeCount == 3) {
            chromaAcross = &TapsFor(planes[1].width, chromaWidth);
            chromaDown = &TapsFor(planes[1].height, height);
            rowSums = std::max(rowSums, size_t(planes[1].width));
        } else {
            std::fill(pU, pU + 2 * chromaWidth, chromaMid);
        }
        std::vector<float>& across = t_Scratch.rowSums;
        across.resize(rowSums);

        // The sums are divided by the block's area in the matrix.
        const float perSum = 1.0f / float(blockArea);
        RgbMatrix m = matrix;
        m.cy *= perSum;
        m.crv *= perSum;
        m.cbu *= perSum;
        m.cgu *= perSum;
        m.cgv *= perSum;
        const float lumaOffset = matrix.cy * matrix.oy;
        std::vector<uint32_t>& words = t_Scratch.words;
        words.resize(size_t(width));
        const bool halfChroma = planeCount == 3 && !fullChroma;
        for (int y = 0; y < height; ++y) {
            AreaRow(planes[0], lumaAcross, lumaDown, y, width, across.data(), downRow, pY);
            if (planeCount == 3) {
                AreaRow(planes[1], *chromaAcross, *chromaDown, y, chromaWidth, across.data(), downRow, pU);
                AreaRow(planes[2], *chromaAcross, *chromaDown, y, chromaWidth, across.data(), downRow, pV);
            }
            rgbRow(pY, pU, pV, halfChroma, width, m, lumaOffset, chromaMid, words.data(),
                   out + ptrdiff_t(y) * width * 3);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace tw::host
