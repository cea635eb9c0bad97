// zormeshctl: the management-side client of the mesh daemon's command socket.
#include "platform/hex.h"
#include "platform/unix_sock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kMsgLen = 1456;
constexpr int kPayloadLen = 1448;
constexpr int kMsgCode = 16;
constexpr const char* kDefaultSocket = "/var/run/usock/21.sock";

// Exit statuses.
constexpr int EXIT_REPLY = 0;
constexpr int EXIT_USAGE = 1;
constexpr int EXIT_NO_CONNECT = 2;
constexpr int EXIT_NO_REPLY = 3;

void usage(FILE* out) {
    fprintf(out,
            "usage: zormeshctl [--socket PATH] raw TYPE [HEX]\n"
            "\n"
            "Sends one command to the mesh daemon and prints its reply.\n"
            "\n"
            "  raw TYPE [HEX]   send a command of type TYPE (a decimal number, may be negative);\n"
            "                   HEX is the payload as hexadecimal digits (blanks, line ends\n"
            "                   and ':' allowed), at most 1448 bytes, the rest is filled with\n"
            "                   zeros. The reply, the whole 1456-byte message, is printed as\n"
            "                   one line of lowercase hexadecimal.\n"
            "  --socket PATH    the daemon's command socket (default %s)\n"
            "  -h, --help       this text\n"
            "\n"
            "Exit status: 0 a reply came; 1 bad usage; 2 could not connect;\n"
            "3 the daemon closed the connection without a reply.\n",
            kDefaultSocket);
}

void putLe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t getLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool sendAll(int fd, const uint8_t* buf, size_t len) {
    while (len > 0) {
        ssize_t n = send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Receives exactly len bytes; false on end of stream or error.
bool recvAll(int fd, uint8_t* buf, size_t len) {
    while (len > 0) {
        ssize_t n = recv(fd, buf, len, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    const char* socketPath = kDefaultSocket;
    int i = 1;
    for (; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return EXIT_REPLY;
        }
        if (strcmp(argv[i], "--socket") == 0) {
            if (i + 1 >= argc) {
                fprintf(stderr, "zormeshctl: --socket needs a path\n");
                return EXIT_USAGE;
            }
            socketPath = argv[++i];
            continue;
        }
        break;
    }
    if (i >= argc || strcmp(argv[i], "raw") != 0 || i + 1 >= argc || i + 3 < argc) {
        usage(stderr);
        return EXIT_USAGE;
    }
    char* end = nullptr;
    errno = 0;
    long type = strtol(argv[i + 1], &end, 10);
    if (errno != 0 || end == argv[i + 1] || *end != '\0' || type < INT32_MIN || type > INT32_MAX) {
        fprintf(stderr, "zormeshctl: TYPE must be a decimal number, not '%s'\n", argv[i + 1]);
        return EXIT_USAGE;
    }
    uint8_t msg[kMsgLen] = {};
    putLe32(msg, static_cast<uint32_t>(static_cast<int32_t>(type)));
    if (i + 2 < argc) {
        size_t len = 0;
        if (!hex::parse(argv[i + 2], strlen(argv[i + 2]), msg + 8, kPayloadLen, &len)) {
            fprintf(stderr,
                    "zormeshctl: HEX must be pairs of hexadecimal digits, at most %d bytes\n",
                    kPayloadLen);
            return EXIT_USAGE;
        }
    }

    int fd = unix_sock_connectPath(socketPath);
    if (fd < 0) {
        fprintf(stderr, "zormeshctl: cannot connect to %s: %s\n", socketPath, strerror(errno));
        return EXIT_NO_CONNECT;
    }
    uint8_t header[16];
    putLe32(header, UNIX_SOCK_MAGIC);
    putLe32(header + 4, kMsgCode);
    putLe32(header + 8, kMsgLen);
    putLe32(header + 12, 0);
    if (!sendAll(fd, header, sizeof header) || !sendAll(fd, msg, sizeof msg)) {
        // The daemon closes a connection it will not answer, possibly before we are done.
        fprintf(stderr, "zormeshctl: the daemon closed the connection without a reply (%s)\n",
                strerror(errno));
        close(fd);
        return EXIT_NO_REPLY;
    }
    uint8_t reply[kMsgLen];
    bool ok = recvAll(fd, header, sizeof header) && getLe32(header) == UNIX_SOCK_MAGIC &&
              getLe32(header + 8) == kMsgLen && recvAll(fd, reply, sizeof reply);
    close(fd);
    if (!ok) {
        fprintf(stderr, "zormeshctl: the daemon closed the connection without a reply\n");
        return EXIT_NO_REPLY;
    }
    char line[2 * kMsgLen + 2];
    hex::format(reply, sizeof reply, line);
    line[2 * kMsgLen] = '\n';
    line[2 * kMsgLen + 1] = '\0';
    fputs(line, stdout);
    return EXIT_REPLY;
}
