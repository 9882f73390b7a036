// The stripe read's dump on its own: reads a file of up to 128 KiB and shows it the way
// "kelpth r" shows a stripe, in its two halves, as many times as asked (so that the
// dump, not the process start, dominates the time). Timed against xxd.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kelpth/dump.h"

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: stripe_dump <file> [times]\n");
        return 2;
    }
    const int times = argc == 3 ? atoi(argv[2]) : 1;
    FILE *file = fopen(argv[1], "rb");
    if (file == nullptr) {
        perror(argv[1]);
        return 1;
    }
    std::vector<uint8_t> data(0x20000);
    const size_t size = fread(data.data(), 1, data.size(), file);
    fclose(file);
    const uint32_t half = static_cast<uint32_t>(size / 2);
    const int32_t total = static_cast<int32_t>(size);
    for (int i = 0; i < times; i++) {
        uint32_t rows = KelPasPrintData("Read Command(1 Stripe)", data.data(), half, 0, total);
        KelPasPrintData("Read Command(1 Stripe)", data.data() + half, static_cast<uint32_t>(size) - half, rows, total);
    }
    return 0;
}
