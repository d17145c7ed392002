// A host program named a.b.exe for the log tests: it logs each of its arguments as one ERROR line,
// so that a test can see which folder a host with a dotted name writes to and what it prints.
#include "log/log.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        logError(argv[i]);
    }
    return 0;
}
