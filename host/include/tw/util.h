// Small text and time helpers of the host.
#pragma once

#include <list>
#include <string>

// Splits text at any run of the separator's characters; no empty pieces.
std::list<std::string> String2StrList(const std::string& text, const std::string& separator);

// |t1 - t2| in seconds.
double GetAbsTimeDiffBySec(long t1, long t2);

// Copies at most size - 1 characters of src and always terminates dst (when size > 0).
// Returns dst.
char* Strncpy(char* dst, const char* src, unsigned long size);
