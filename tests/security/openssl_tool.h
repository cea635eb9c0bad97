// Helpers that let a test check our RSA against an independent implementation: the
// `openssl` command-line tool, run in a temporary directory of the test's own.
#pragma once

#include "security/mesh_rsa.h"

#include <cstdint>
#include <string>
#include <vector>

class OpensslDir {
  public:
    OpensslDir();
    ~OpensslDir();
    OpensslDir(const OpensslDir&) = delete;
    OpensslDir& operator=(const OpensslDir&) = delete;

    // Runs `cmd` with the directory as working directory; true when it exited with 0.
    bool run(const std::string& cmd) const;
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    std::vector<uint8_t> read(const std::string& name) const;
    void write(const std::string& name, const std::vector<uint8_t>& bytes) const;

    // `openssl genrsa` of 1024 bits into `name`; n, e and d read back with `openssl rsa -text`
    // into a key record (CRT parameters are dropped).
    bool genrsa(const std::string& name, MESH_RSA_KEY* key) const;
    // Writes the public key (n of `key`, e = 65537) as a DER SubjectPublicKeyInfo built by
    // `openssl asn1parse -genconf`, for `openssl pkeyutl -pubin`.
    bool writePublicDer(const std::string& name, const MESH_RSA_KEY& key) const;

  private:
    std::string dir_;
};
