#include "connector/Finish.h"

#include <cstdlib>

void finishProcess(int status) {
    std::exit(status);
}
