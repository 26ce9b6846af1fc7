#pragma once

// A Finish for in-process tests: records every status it is handed instead
// of ending the process. Its finish() stays safe to call after the recorder
// is gone (a queued step of an earlier test may still run).

#include "connector/Finish.h"

#include <memory>
#include <vector>

namespace testing_support {

class FinishRecorder {
  public:
    Finish finish() const {
        return [statuses = statuses_](int status) { statuses->push_back(status); };
    }
    // Every status handed over so far, in order; a run ends with exactly one.
    const std::vector<int>& statuses() const { return *statuses_; }
    bool finished() const { return !statuses_->empty(); }
    void clear() { statuses_->clear(); }

  private:
    std::shared_ptr<std::vector<int>> statuses_ = std::make_shared<std::vector<int>>();
};

}  // namespace testing_support
