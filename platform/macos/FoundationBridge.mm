#import "platform/macos/FoundationBridge.h"

#include "os/Memory.h"
#include "platform/Utf8.h"
#include "platform/macos/FrameworkValues.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

NS_ASSUME_NONNULL_BEGIN

// An immutable string over UTF-16 characters it owns, wiped and freed when
// it goes. A string subclass needs only the two primitives; getCharacters
// spares Foundation a call per character.
@interface OrvaneWipingString : NSString
- (instancetype)initWithOwnedCharacters:(unichar*)characters
                                 length:(NSUInteger)length
                                  bytes:(std::size_t)bytes;
@end

@implementation OrvaneWipingString {
    unichar* _characters;
    NSUInteger _length;
    std::size_t _bytes;
}

- (instancetype)initWithOwnedCharacters:(unichar*)characters
                                 length:(NSUInteger)length
                                  bytes:(std::size_t)bytes {
    self = [super init];
    if (self != nil) {
        _characters = characters;
        _length = length;
        _bytes = bytes;
    } else {
        os::wipeMemory(characters, bytes);
        std::free(characters);
    }
    return self;
}

- (NSUInteger)length {
    return _length;
}

- (unichar)characterAtIndex:(NSUInteger)index {
    if (index >= _length) {
        [NSException raise:NSRangeException
                    format:@"index %lu beyond length %lu", static_cast<unsigned long>(index),
                           static_cast<unsigned long>(_length)];
    }
    return _characters[index];
}

- (void)getCharacters:(unichar*)buffer range:(NSRange)range {
    if (range.location > _length || range.length > _length - range.location) {
        [NSException raise:NSRangeException
                    format:@"range beyond length %lu", static_cast<unsigned long>(_length)];
    }
    std::memcpy(buffer, _characters + range.location, range.length * sizeof(unichar));
}

// Immutable: a copy is the same string, not an unwiped duplicate.
- (id)copyWithZone:(nullable NSZone*)zone {
    return self;
}

- (void)dealloc {
    os::wipeMemory(_characters, _bytes);
    std::free(_characters);
}

@end

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
    return [[OrvaneWipingString alloc] initWithOwnedCharacters:characters
                                                        length:*length
                                                         bytes:bytes];
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
