#pragma once

// Foundation strings and errors as the adapter's C++ values. Objective-C++,
// for the backend's .mm files only.

#import <Foundation/Foundation.h>

#include "platform/NEVPN.h"
#include "platform/Secret.h"

#include <optional>
#include <string>
#include <string_view>

NS_ASSUME_NONNULL_BEGIN

namespace platform::macos {

// Nil for bytes that are not UTF-8 (and for none). The text is not copied
// on the way, which matters for a password.
NSString* _Nullable toNSString(std::string_view text);
NSString* _Nullable toNSString(const std::optional<std::string>& text);
// A secret as a string that owns its UTF-16 characters in a buffer of ours:
// they are wiped when the string is released, by us or by the framework
// that retained it (a copy of it is the string itself). Nil when the secret
// is not UTF-8. What the framework derives from the string (a mutable copy,
// its UTF-8 form, what it sends to its daemon) is freed without a wipe.
NSString* _Nullable toNSString(const Secret& secret);
// The string's UTF-8 bytes, NULs included; none for nil, and for a string
// that has no UTF-8 form (a lone surrogate).
std::optional<std::string> fromNSString(NSString* _Nullable text);
// The error's code and the text `%@` prints for it; none for nil.
OptionalError errorFromNSError(::NSError* _Nullable error);

}  // namespace platform::macos

NS_ASSUME_NONNULL_END
