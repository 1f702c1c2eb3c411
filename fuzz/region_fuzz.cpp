// libFuzzer target: region strings through tw::host::ParseRegion, as "twhost detect
// --region" hands them over. Besides "no sanitizer report", what must hold: an accepted
// text gives exactly 1200 cells of '0' or '1'; a refused one says why; the forms whose
// meaning is known ("all", "none", raw cells) give that meaning; and a list of rectangles
// marks exactly the cells that a plain reading of the list marks.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tw/camera.h"
#include "twhost/stores.h"

namespace {

[[noreturn]] void Fail(const char* what, const std::string& text) {
    fprintf(stderr, "region_fuzz: %s for a text of %zu bytes\n", what, text.size());
    fflush(stderr);
    abort();
}

// A plain reading of "c0,r0-c1,r1;c,r;..." that accepts only what the grammar allows (one to
// three digits per number, columns 0..39, rows 0..29, empty items skipped); false otherwise.
bool ReadRectangles(const std::string& text, std::string& cells) {
    cells.assign(TW_DET_REGION_CELLS, '0');
    size_t i = 0;
    auto number = [&](int& value) {
        size_t digits = 0;
        value = 0;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9' && digits < 4) {
            value = value * 10 + (text[i] - '0');
            ++i;
            ++digits;
        }
        return digits >= 1 && digits <= 3;
    };
    auto expect = [&](char c) {
        if (i < text.size() && text[i] == c) {
            ++i;
            return true;
        }
        return false;
    };
    while (i < text.size()) {
        if (expect(';')) continue;
        int c0, r0, c1, r1;
        if (!number(c0) || !expect(',') || !number(r0)) return false;
        c1 = c0;
        r1 = r0;
        if (expect('-')) {
            if (!number(c1) || !expect(',') || !number(r1)) return false;
        }
        if (i < text.size() && text[i] != ';') return false;
        if (c0 > c1) std::swap(c0, c1);
        if (r0 > r1) std::swap(r0, r1);
        if (c1 >= 40 || r1 >= 30) return false;
        for (int r = r0; r <= r1; ++r)
            for (int c = c0; c <= c1; ++c) cells[size_t(r) * 40 + size_t(c)] = '1';
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string region = "untouched";
    std::string error;
    const bool ok = tw::host::ParseRegion(text, region, error);
    if (ok) {
        if (region.size() != TW_DET_REGION_CELLS) Fail("accepted region is not 1200 cells long", text);
        if (region.find_first_not_of("01") != std::string::npos) Fail("accepted region holds other than 0/1", text);
    } else if (error.empty()) {
        Fail("refused without a reason", text);
    }

    const bool binary = text.find_first_not_of("01") == std::string::npos;
    if (text == "all") {
        if (!ok || region != std::string(TW_DET_REGION_CELLS, '1')) Fail("\"all\" is not every cell", text);
    } else if (text == "none") {
        if (!ok || region != std::string(TW_DET_REGION_CELLS, '0')) Fail("\"none\" is not an empty region", text);
    } else if (binary) {
        if (ok != (text.size() == TW_DET_REGION_CELLS)) Fail("raw cells accepted at a wrong length or refused", text);
        if (ok && region != text) Fail("raw cells changed", text);
    } else {
        std::string expected;
        const bool plain = ReadRectangles(text, expected);
        if (plain != ok) Fail(ok ? "accepted a text that is no list of rectangles" : "refused a list of rectangles", text);
        if (ok && region != expected) Fail("rectangles marked other cells than they name", text);
    }
    return 0;
}
