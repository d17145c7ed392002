// calyth-bench: the performance figures of the provider, each a ratio of two measurements taken side
// by side in one process. tools/bench.sh runs the modes and prints the whole table.
//   calyth-bench null quick|full                      beside the zero-cost device library
//   calyth-bench soft <store root> quick|full         beside the soft token
//   calyth-bench idle <store root> monitor|plain|agent <window seconds> <windows>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "figures.h"

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "null" && argc == 3)
        return bench::nullDeviceFigures(bench::scaleFor(std::strcmp(argv[2], "quick") == 0));
    if (mode == "soft" && argc == 4) {
        bench::Scale scale = bench::scaleFor(std::strcmp(argv[3], "quick") == 0);
        int status = bench::softTokenFigures(argv[2], scale);
        int threads = bench::threadFigures(argv[2], scale);
        return status != 0 ? status : threads;
    }
    if (mode == "idle" && argc == 6 && std::strcmp(argv[3], "agent") == 0)
        return bench::idleAgent(argv[2], std::atoi(argv[4]), std::atoi(argv[5]));
    if (mode == "idle" && argc == 6)
        return bench::idleProcess(argv[2], std::strcmp(argv[3], "monitor") == 0, std::atoi(argv[4]),
                                  std::atoi(argv[5]));
    std::fprintf(stderr,
                 "usage: calyth-bench null quick|full\n"
                 "       calyth-bench soft <store root> quick|full\n"
                 "       calyth-bench idle <store root> monitor|plain|agent <window seconds> <windows>\n");
    return 2;
}
