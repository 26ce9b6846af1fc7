#import "platform/macos/FoundationBridge.h"

#include "os/Memory.h"
#include "platform/Utf8.h"
#include "platform/macos/FrameworkValues.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

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

NSString* _Nullable toNSString(const Secret& secret) {
    const std::optional<std::size_t> length = utf16FromUTF8(secret.view(), nullptr);
    if (!length) {
        return nil;
    }
    // One unit at least, so that an empty secret has a buffer to own too.
    const std::size_t bytes = std::max<std::size_t>(*length, 1) * sizeof(unichar);
    auto* characters = static_cast<unichar*>(std::malloc(bytes));
    if (characters == nullptr) {
        return nil;
    }
    static_assert(std::is_same_v<unichar, std::uint16_t>);
    utf16FromUTF8(secret.view(), characters);
    return [[NSString alloc] initWithCharactersNoCopy:characters
                                               length:*length
                                          deallocator:^(unichar* owned, NSUInteger) {
                                            os::wipeMemory(owned, bytes);
                                            std::free(owned);
                                          }];
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
