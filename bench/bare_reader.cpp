// Reads a TCP source to its end and does nothing with the bytes: what the same reads cost without kvt.
//     bare_reader HOST PORT RING_BYTES READ_BYTES
// Reads at most READ_BYTES at once, to a place that moves through a populated buffer of RING_BYTES: a ring that is
// full offers its reader just the room that was vacated before the read.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: %s HOST PORT RING_BYTES READ_BYTES\n", argv[0]);
        return 2;
    }
    const size_t ring_bytes = strtoul(argv[3], nullptr, 10);
    const size_t read_bytes = strtoul(argv[4], nullptr, 10);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || inet_pton(AF_INET, argv[1], &addr.sin_addr) != 1 ||
        connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        perror("connect");
        return 1;
    }
    void* map = mmap(nullptr, 2 * ring_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (map == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    auto* buf = static_cast<uint8_t*>(map);
    size_t total = 0;
    size_t reads = 0;
    size_t at = 0;
    ssize_t n;
    while ((n = read(fd, buf + at, read_bytes)) > 0) {
        total += static_cast<size_t>(n);
        reads++;
        at = (at + static_cast<size_t>(n)) % ring_bytes;
    }
    printf("%zu bytes in %zu reads\n", total, reads);
    return n == 0 ? 0 : 1;
}
