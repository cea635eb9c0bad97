// Small helpers shared by the unit tests of every module.
#pragma once

#include "fake_os.h"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// The text behind the "[MESH][ERROR](func) NNNNN: " prefix of each error line in `out`.
inline Lines errorTexts(const std::string& out) {
    Lines texts;
    for (size_t pos = 0, end; (end = out.find("\r\n", pos)) != std::string::npos; pos = end + 2) {
        const size_t text = out.find(": ", pos) + 2;
        texts.push_back(out.substr(text, end - text));
    }
    return texts;
}

// The texts of the event-log lines in `log`, without their "[YYYY-MM-DD hh:mm:ss]" stamps.
inline Lines eventTexts(const std::string& log) {
    Lines texts;
    for (size_t pos = 0, end; (end = log.find("\r\n", pos)) != std::string::npos; pos = end + 2) {
        texts.push_back(log.substr(pos + 21, end - pos - 21));
    }
    return texts;
}

// Lowercase hex without separators of hex written by hand, to compare with toHex() of what the
// code built: blanks are left out, "ab*N" stands for the byte ab N times, and the result is
// zero-filled to `total` bytes.
inline std::string hexText(const std::string& spaced, size_t total = 0) {
    std::string out;
    for (size_t i = 0, used = 0; i < spaced.size(); ++i) {
        if (spaced[i] == '*') {
            const std::string byte = out.substr(out.size() - 2);
            for (unsigned long n = std::stoul(spaced.substr(i + 1), &used); n > 1; --n) {
                out += byte;
            }
            i += used;
        } else if (spaced[i] != ' ') {
            out += static_cast<char>(tolower(spaced[i]));
        }
    }
    out.resize(std::max(out.size(), 2 * total), '0');
    return out;
}

// Lowercase hex of a whole record.
template <typename T> std::string hexOf(const T& v) {
    return toHex(&v, sizeof v);
}

// One recorded driver request: number, interface, sub-command flags, and the payload handed in
// as hex (hexText(); the length is the payload's).
inline void expectRequest(const FakeOs::IoctlRecord& r, unsigned long request, const char* ifName,
                          uint16_t flags, const std::string& payload) {
    EXPECT_EQ(request, r.request);
    EXPECT_EQ(ifName, r.ifName);
    EXPECT_EQ(flags, r.flags);
    EXPECT_EQ(hexText(payload).size() / 2, r.length);
    EXPECT_EQ(hexText(payload), toHex(r.payload.data(), r.payload.size()));
}
