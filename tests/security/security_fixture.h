// Helpers of the security tests: error lines, payload bytes as hex, and the `openssl`
// command-line tool as the independent implementation our RSA is checked against.
#pragma once

#include "fake_os.h"
#include "test_util.h"
#include "security/mesh_rsa.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

// True when `out` is exactly one line "[MESH][ERROR](<func>) <5 digits>: <text>\r\n".
inline bool errorLine(const std::string& out, const std::string& func, const std::string& text) {
    const std::string head = "[MESH][ERROR](" + func + ") ";
    return out.size() == head.size() + 7 + text.size() + 2 && out.rfind(head, 0) == 0 &&
           std::all_of(out.begin() + head.size(), out.begin() + head.size() + 5, ::isdigit) &&
           out.compare(head.size() + 5, std::string::npos, ": " + text + "\r\n") == 0;
}

// A temporary directory in which the test runs the `openssl` tool.
class OpensslDir {
  public:
    OpensslDir() {
        char tmpl[] = "/tmp/zormesh-openssl-XXXXXX";
        dir_ = mkdtemp(tmpl) != nullptr ? tmpl : "/nonexistent";
    }
    ~OpensslDir() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    // Runs `cmd` in the directory; true when it exited with 0.
    bool run(const std::string& cmd) const {
        return std::system(("cd '" + dir_ + "' && " + cmd + " 2>>stderr.txt").c_str()) == 0;
    }
    Bytes read(const std::string& name) const {
        std::ifstream in(dir_ + "/" + name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    void write(const std::string& name, const Bytes& bytes) const {
        std::ofstream(dir_ + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
    }

    // `openssl genrsa` of 1024 bits into `name`; n and d read back from `openssl rsa -text`
    // into a key record (e = 65537, no CRT parameters).
    bool genrsa(const std::string& name, MESH_RSA_KEY* key) const {
        if (!run("openssl genrsa -out " + name + " 1024") ||
            !run("openssl rsa -in " + name + " -text -noout > key.txt")) {
            return false;
        }
        const Bytes raw = read("key.txt");
        const std::string text(raw.begin(), raw.end());
        auto number = [&](const std::string& field) { // the indented hex lines under "field:"
            std::string digits;
            size_t p = text.find("\n" + field + ":\n");
            p = p == std::string::npos ? text.size() : p + field.size() + 3;
            for (size_t end; p < text.size() && text[p] == ' ' &&
                             (end = text.find('\n', p)) != std::string::npos;
                 p = end + 1) {
                digits += text.substr(p, end - p);
            }
            Bytes b = hexBytes(digits);
            b.erase(b.begin(), std::find_if(b.begin(), b.end(), [](uint8_t x) { return x != 0; }));
            return b;
        };
        const Bytes nb = number("modulus"), db = number("privateExponent");
        if (nb.size() != 128 || db.empty() || db.size() > 128) {
            return false;
        }
        memset(key, 0, sizeof *key);
        memcpy(key->modulus, nb.data(), 128);
        key->modulusLen = 128;
        memcpy(key->publicExponent, "\x01\x00\x01", 3);
        memcpy(key->privateExponent, db.data(), db.size());
        key->privateExponentLen = static_cast<uint16_t>(db.size());
        return true;
    }
    // The public key (n of `key`, e = 65537) as a DER SubjectPublicKeyInfo for `openssl pkeyutl
    // -pubin -keyform DER`: the fixed header of a 1024-bit RSA key, a sign byte, n, then e.
    void writePublicDer(const std::string& name, const MESH_RSA_KEY& key) const {
        write(name, hexBytes("30819f300d06092a864886f70d010101050003818d0030818902818100" +
                             toHex(key.modulus, 128) + "0203010001"));
    }

  private:
    std::string dir_;
};
