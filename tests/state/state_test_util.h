// Helpers shared by the state module's tests.
#pragma once

#include <regex>
#include <string>

// Error lines carry the source line number; tests compare them with it masked as NNNNN.
inline std::string maskLineNumbers(const std::string& text) {
    static const std::regex number(R"(\) \d{5}: )");
    return std::regex_replace(text, number, ") NNNNN: ");
}
