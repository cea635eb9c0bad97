// Hexadecimal text <-> bytes, for the tools, the tests and the emulator (the daemon itself
// never prints or parses hex).
//
// Text is read as pairs of digits, either case; blanks, tabs, line ends and ':' may stand
// between the digits and are skipped, so "de ad:BE\nEF" is four bytes. Anything else, an odd
// number of digits or more bytes than fit is an error. Bytes are written as lowercase digits
// without separators.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace hex {

// The value of a hexadecimal digit, -1 for any other character.
inline int digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

inline bool isSeparator(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ':';
}

// Parses `len` characters of `text` into at most `cap` bytes at `out`; the number of bytes in
// *outLen. false on a character that is neither a digit nor a separator, an odd number of
// digits, or more than `cap` bytes (`out` may then hold a part).
inline bool parse(const char* text, size_t len, uint8_t* out, size_t cap, size_t* outLen) {
    size_t n = 0;
    int high = -1;
    for (size_t i = 0; i < len; ++i) {
        if (isSeparator(text[i])) {
            continue;
        }
        int v = digitValue(text[i]);
        if (v < 0) {
            return false;
        }
        if (high < 0) {
            high = v;
            continue;
        }
        if (n == cap) {
            return false;
        }
        out[n++] = static_cast<uint8_t>(high << 4 | v);
        high = -1;
    }
    *outLen = n;
    return high < 0;
}

// Writes the 2 * `len` lowercase digits of `len` bytes to `out` (no terminator).
inline void format(const void* data, size_t len, char* out) {
    static const char digits[] = "0123456789abcdef";
    const auto* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < len; ++i) {
        out[2 * i] = digits[p[i] >> 4];
        out[2 * i + 1] = digits[p[i] & 15];
    }
}

inline std::string toHex(const void* data, size_t len) {
    std::string out(2 * len, '\0');
    format(data, len, &out[0]);
    return out;
}

inline std::string toHex(const std::vector<uint8_t>& bytes) {
    return toHex(bytes.data(), bytes.size());
}

// Parses a whole text into *out (replaced); false, with *out empty, when it is malformed.
inline bool parse(const std::string& text, std::vector<uint8_t>* out) {
    out->resize(text.size() / 2);
    size_t n = 0;
    bool ok = parse(text.data(), text.size(), out->data(), out->size(), &n);
    out->resize(ok ? n : 0);
    return ok;
}

// Bytes of a hex text the program itself wrote (test vectors, scripted replies). A malformed
// one is a mistake in the program: it is reported on stderr and the program aborts, so a
// typo in a test vector cannot pass as a shorter record.
inline std::vector<uint8_t> hexBytes(const std::string& text) {
    std::vector<uint8_t> out;
    if (!parse(text, &out)) {
        fprintf(stderr, "hexBytes: not pairs of hexadecimal digits: \"%s\"\n", text.c_str());
        abort();
    }
    return out;
}

} // namespace hex
