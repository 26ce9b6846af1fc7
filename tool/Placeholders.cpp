#include "tool/Tool.h"

#include <fmt/format.h>

#include <cstdlib>

std::string random_ip() {
    const int first = std::rand() % 240 + 11;
    const int second = std::rand() % 256;
    const int third = std::rand() % 256;
    const int fourth = std::rand() % 256;
    return fmt::format("{}.{}.{}.{}", first, second, third, fourth);
}

std::string random_username() {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz";
    char name[7] = {};
    for (int i = 0; i < 6; ++i) {
        name[i] = kLetters[std::rand() % 26];
    }
    return name;
}
