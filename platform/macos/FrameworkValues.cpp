#include "platform/macos/FrameworkValues.h"

#include "platform/NilText.h"

namespace platform::macos {

NSError errorFromFramework(std::int64_t code, const std::optional<std::string>& description) {
    return {code, description.value_or(std::string(kNilText))};
}

}  // namespace platform::macos
