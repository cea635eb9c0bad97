#include "openssl_tool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace {

std::string hexOf(const uint8_t* p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(b, sizeof b, "%02X", p[i]);
        s += b;
    }
    return s;
}

// The colon-separated hex lines under "<section>:" in `openssl rsa -text` output, as bytes
// without the leading sign byte.
std::vector<uint8_t> section(const std::string& text, const std::string& name) {
    std::vector<uint8_t> out;
    size_t at = text.find("\n" + name + ":\n");
    if (at == std::string::npos) {
        return out;
    }
    std::istringstream in(text.substr(at + name.size() + 3));
    std::string line;
    while (std::getline(in, line) && !line.empty() && line[0] == ' ') {
        std::string hex;
        for (char c : line) {
            if (isxdigit(static_cast<unsigned char>(c))) {
                hex += c;
            }
        }
        for (size_t i = 0; i + 1 < hex.size(); i += 2) {
            out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
        }
    }
    while (!out.empty() && out.front() == 0) {
        out.erase(out.begin());
    }
    return out;
}

} // namespace

OpensslDir::OpensslDir() {
    char tmpl[] = "/tmp/zormesh-openssl-XXXXXX";
    const char* d = mkdtemp(tmpl);
    dir_ = d != nullptr ? d : "";
}

OpensslDir::~OpensslDir() {
    if (dir_.find("/tmp/zormesh-openssl-") == 0) {
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (std::system(cmd.c_str()) != 0) {
            fprintf(stderr, "could not remove %s\n", dir_.c_str());
        }
    }
}

bool OpensslDir::run(const std::string& cmd) const {
    if (dir_.empty()) {
        return false;
    }
    std::string line = "cd '" + dir_ + "' && " + cmd + " 2>>stderr.txt";
    return std::system(line.c_str()) == 0;
}

std::vector<uint8_t> OpensslDir::read(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void OpensslDir::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
}

bool OpensslDir::genrsa(const std::string& name, MESH_RSA_KEY* key) const {
    std::string text = name + ".txt";
    if (!run("openssl genrsa -out " + name + " 1024") ||
        !run("openssl rsa -in " + name + " -text -noout > " + text)) {
        return false;
    }
    std::vector<uint8_t> raw = read(text);
    std::string t(raw.begin(), raw.end());
    std::vector<uint8_t> n = section(t, "modulus");
    std::vector<uint8_t> d = section(t, "privateExponent");
    if (n.size() != MESH_RSA_MODULUS_LEN || d.empty() || d.size() > MESH_RSA_MODULUS_LEN ||
        t.find("publicExponent: 65537") == std::string::npos) {
        return false;
    }
    memset(key, 0, sizeof *key);
    memcpy(key->modulus, n.data(), n.size());
    key->modulusLen = static_cast<uint16_t>(n.size());
    key->publicExponent[0] = 0x01;
    key->publicExponent[2] = 0x01;
    memcpy(key->privateExponent, d.data(), d.size());
    key->privateExponentLen = static_cast<uint16_t>(d.size());
    return true;
}

bool OpensslDir::writePublicDer(const std::string& name, const MESH_RSA_KEY& key) const {
    std::ofstream conf(file(name + ".cnf"), std::ios::trunc);
    conf << "asn1=SEQUENCE:spki\n"
            "[spki]\n"
            "algorithm=SEQUENCE:alg\n"
            "key=BITWRAP,SEQUENCE:rsakey\n"
            "[alg]\n"
            "oid=OID:rsaEncryption\n"
            "params=NULL\n"
            "[rsakey]\n"
            "n=INTEGER:0x"
         << hexOf(key.modulus, key.modulusLen)
         << "\n"
            "e=INTEGER:0x010001\n";
    conf.close();
    return run("openssl asn1parse -genconf " + name + ".cnf -noout -out " + name);
}
