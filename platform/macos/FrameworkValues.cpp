#include "platform/macos/FrameworkValues.h"

namespace platform::macos {

NSError errorFromFramework(std::int64_t code, const std::optional<std::string>& description) {
    return {code, description.value_or("(null)")};
}

}  // namespace platform::macos
