// The software of a board, which knows nothing of stand-ins: opens the devices at their fixed paths, adds an input and
// two routes as docs/registers.md says, and counts the records that arrive until there are none for a second.
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

static volatile uint32_t *map(const char *path, size_t size) {
    const int fd = open(path, O_RDWR);
    void *base = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        perror(path);
        _exit(1);
    }
    return base;
}

int main(void) {
    volatile uint32_t *tsio = map("/dev/zeptsif_iplut", 0x4000);
    volatile uint32_t *router = map("/dev/zeptsif_pidlut", 0x20000);
    struct pollfd pktio = {.fd = open("/dev/zeptsif_pktio", O_RDONLY), .events = POLLIN};
#include "registers_example.h"
    unsigned counts[0x2000] = {0};
    uint8_t record[192];
    while (poll(&pktio, 1, 1000) > 0 && read(pktio.fd, record, sizeof record) == (ssize_t)sizeof record) {
        if (record[0] == 3 && record[4] == 0x47) {
            ++counts[(record[5] & 0x1F) << 8 | record[6]];
        }
    }
    for (unsigned pid = 0; pid < 0x2000; ++pid) {
        if (counts[pid] > 0) {
            printf("0x%04x %u\n", pid, counts[pid]);
        }
    }
    return 0;
}
