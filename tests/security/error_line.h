// Checks captured standard output against error lines of the daemon's error log.
#pragma once

#include <cctype>
#include <string>
#include <vector>

// True when `out` is exactly the error lines "[MESH][ERROR](<func>) <5 digits>: <text>\r\n"
// for the given (function, text) pairs, in order.
inline bool errorLines(const std::string& out,
                       const std::vector<std::pair<std::string, std::string>>& lines) {
    size_t at = 0;
    for (const auto& l : lines) {
        std::string head = "[MESH][ERROR](" + l.first + ") ";
        if (out.compare(at, head.size(), head) != 0) {
            return false;
        }
        at += head.size();
        for (int i = 0; i < 5; ++i, ++at) {
            if (at >= out.size() || !isdigit(static_cast<unsigned char>(out[at]))) {
                return false;
            }
        }
        std::string tail = ": " + l.second + "\r\n";
        if (out.compare(at, tail.size(), tail) != 0) {
            return false;
        }
        at += tail.size();
    }
    return at == out.size();
}

inline bool errorLine(const std::string& out, const std::string& func, const std::string& text) {
    return errorLines(out, {{func, text}});
}
