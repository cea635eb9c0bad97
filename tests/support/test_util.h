// Small helpers shared by the unit tests of every module.
#pragma once

#include "fake_os.h"

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

// Lowercase hex without separators of a hex text written by hand with blanks, to compare with
// toHex() of what the code built.
inline std::string hexText(const std::string& spaced) {
    Bytes b = hexBytes(spaced);
    return toHex(b.data(), b.size());
}

// Lowercase hex of a whole record.
template <typename T> std::string hexOf(const T& v) {
    return toHex(&v, sizeof v);
}

// One recorded driver request: number, interface, sub-command flags, and the payload handed in
// (the length is the payload's).
inline void expectRequest(const FakeOs::IoctlRecord& r, unsigned long request, const char* ifName,
                          uint16_t flags, const Bytes& payload) {
    EXPECT_EQ(request, r.request);
    EXPECT_EQ(ifName, r.ifName);
    EXPECT_EQ(flags, r.flags);
    EXPECT_EQ(payload.size(), r.length);
    EXPECT_EQ(toHex(payload.data(), payload.size()), toHex(r.payload.data(), r.payload.size()));
}
