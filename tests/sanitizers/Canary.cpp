// Makes one mistake of the kind a sanitizer reports, named by the first
// argument, so that a test can show the sanitizers of a build are at work:
// "use-after-free", "signed-overflow" or "data-race".

#include <cstdio>
#include <cstring>
#include <thread>

namespace {

int useAfterFree() {
    int* volatile value = new int(7);
    delete value;
    return *value;
}

int signedOverflow(int argc) {
    volatile int big = 0x7fffffff;
    return big + argc;
}

int dataRace() {
    int counter = 0;
    std::thread other([&counter] { ++counter; });
    ++counter;
    other.join();
    return counter;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: sanitizer_canary use-after-free|signed-overflow|data-race\n");
        return 2;
    }
    if (std::strcmp(argv[1], "use-after-free") == 0) {
        return useAfterFree();
    }
    if (std::strcmp(argv[1], "signed-overflow") == 0) {
        return signedOverflow(argc);
    }
    if (std::strcmp(argv[1], "data-race") == 0) {
        return dataRace();
    }
    std::fprintf(stderr, "sanitizer_canary: unknown mistake %s\n", argv[1]);
    return 2;
}
