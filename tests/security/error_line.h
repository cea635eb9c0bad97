// Checks captured standard output against the daemon's error-log lines.
#pragma once

#include <regex>
#include <string>

// True when `out` is exactly one line "[MESH][ERROR](<func>) <5 digits>: <text>\r\n".
inline bool errorLine(const std::string& out, const std::string& func, const std::string& text) {
    std::string head = "[MESH][ERROR](" + func + ") ";
    std::string tail = ": " + text + "\r\n";
    return out.size() == head.size() + 5 + tail.size() && out.compare(0, head.size(), head) == 0 &&
           std::regex_match(out.substr(head.size(), 5), std::regex("[0-9]{5}")) &&
           out.compare(head.size() + 5, std::string::npos, tail) == 0;
}
