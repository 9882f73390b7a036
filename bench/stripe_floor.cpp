// The floor for the stripe benchmark: one stripe (two halves of 0x10000 bytes) written
// with pwrite or read with pread on a plain file, one process per direction like kelpth.
//   stripe_floor write FILE LBA   writes 0x5A over the stripe at LBA (512-byte blocks)
//   stripe_floor read FILE LBA    reads the stripe back and checks it
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s write|read FILE LBA\n", argv[0]);
        return 2;
    }
    const bool writing = strcmp(argv[1], "write") == 0;
    const off_t start = static_cast<off_t>(strtoull(argv[3], nullptr, 16)) * 512;
    const int fd = open(argv[2], writing ? O_WRONLY | O_CREAT : O_RDONLY, 0644);
    if (fd < 0) {
        perror(argv[2]);
        return 1;
    }
    constexpr size_t kHalf = 0x10000;
    std::vector<unsigned char> buffer(kHalf);
    for (off_t half = 0; half < 2; half++) {
        const off_t at = start + half * static_cast<off_t>(kHalf);
        if (writing) {
            memset(buffer.data(), 0x5A, kHalf);
            if (pwrite(fd, buffer.data(), kHalf, at) != static_cast<ssize_t>(kHalf)) {
                perror("pwrite");
                return 1;
            }
        } else if (pread(fd, buffer.data(), kHalf, at) != static_cast<ssize_t>(kHalf) || buffer[kHalf - 1] != 0x5A) {
            fprintf(stderr, "short or wrong read\n");
            return 1;
        }
    }
    close(fd);
    return 0;
}
