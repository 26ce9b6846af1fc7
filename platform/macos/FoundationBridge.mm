#import "platform/macos/FoundationBridge.h"

#include "platform/macos/FrameworkValues.h"

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

NSString* _Nullable toNSString(std::string_view text) {
    return [[NSString alloc] initWithBytes:text.data()
                                    length:text.size()
                                  encoding:NSUTF8StringEncoding];
}

NSString* _Nullable toNSString(const std::optional<std::string>& text) {
    return text ? toNSString(std::string_view(*text)) : nil;
}

std::optional<std::string> fromNSString(NSString* _Nullable text) {
    if (text == nil) {
        return std::nullopt;
    }
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
    if (bytes == nil) {
        return std::nullopt;
    }
    if (bytes.length == 0) {
        return std::string();
    }
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

OptionalError errorFromNSError(::NSError* _Nullable error) {
    if (error == nil) {
        return std::nullopt;
    }
    return errorFromFramework(error.code, fromNSString(error.description));
}

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
