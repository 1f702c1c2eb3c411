// Text and time helpers of the host.
#include <cmath>
#include <cstring>

#include "tw/util.h"

std::list<std::string> String2StrList(const std::string& text, const std::string& separator) {
    std::list<std::string> pieces;
    if (separator.empty()) {
        if (!text.empty()) pieces.push_back(text);
        return pieces;
    }
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t begin = text.find_first_not_of(separator, pos);
        if (begin == std::string::npos) break;
        size_t end = text.find_first_of(separator, begin);
        if (end == std::string::npos) end = text.size();
        pieces.push_back(text.substr(begin, end - begin));
        pos = end;
    }
    return pieces;
}

double GetAbsTimeDiffBySec(long t1, long t2) { return std::fabs(static_cast<double>(t1) - static_cast<double>(t2)); }

char* Strncpy(char* dst, const char* src, unsigned long size) {
    if (dst == nullptr || size == 0) return dst;
    if (src == nullptr) {
        dst[0] = '\0';
        return dst;
    }
    const size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
    return dst;
}
