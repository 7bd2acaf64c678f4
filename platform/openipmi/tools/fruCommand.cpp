// Writes the ipmi_sim command that gives the BMC its FRU device 0: the host
// platform's FRU image (product info area with the model and serial number
// where the library reads them) as "data" bytes.
//   brask-ipmi-fru OUTPUT SIZE MODEL SERIAL
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fruImage.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s OUTPUT SIZE MODEL SERIAL\n", argv[0]);
        return 2;
    }
    const unsigned long size = std::strtoul(argv[2], nullptr, 0);
    std::vector<unsigned char> image(size);
    if (size == 0 || hostplat::buildFruImage(image.data(), size, argv[3], argv[4]) != 0) {
        std::fprintf(stderr, "%s: cannot build a FRU image of %lu bytes\n", argv[0], size);
        return 1;
    }
    std::FILE* out = std::fopen(argv[1], "w");
    if (out == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    std::fprintf(out, "# FRU device 0 of the BMC (model \"%s\", serial \"%s\").\n", argv[3], argv[4]);
    std::fprintf(out, "mc_add_fru_data 0x20 0 0x%lx data", size);
    for (unsigned long i = 0; i < size; ++i) {
        std::fprintf(out, "%s0x%02x", i % 16 == 0 ? " \\\n  " : " ", image[i]);
    }
    std::fprintf(out, "\n");
    const bool ok = std::ferror(out) == 0;
    if (std::fclose(out) != 0 || !ok) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}
