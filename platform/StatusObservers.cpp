#include "platform/NEVPN.h"

#include <vector>

namespace platform {

namespace {

std::vector<StatusObserver>& observers() {
    static auto* list = new std::vector<StatusObserver>;
    return *list;
}

}  // namespace

void addStatusObserver(StatusObserver observer) {
    observers().push_back(std::move(observer));
}

void postStatusDidChange() {
    // A copy: an observer may add observers, or end the process, while the
    // list is being walked.
    const std::vector<StatusObserver> current = observers();
    for (const StatusObserver& observer : current) {
        observer();
    }
}

void removeAllStatusObservers() {
    observers().clear();
}

}  // namespace platform
