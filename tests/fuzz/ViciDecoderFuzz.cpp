// libFuzzer target for the VICI decoder: any byte string must be either
// refused with an error or decoded into a packet that encodes back to the
// same bytes; the frame reader must cut any stream without crashing.

#include "platform/strongswan/ViciMessage.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace ss = platform::strongswan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);

    if (auto packet = ss::decodeViciPacket(bytes)) {
        std::string again;
        if (!ss::encodeViciPacket(*packet, again) || again != bytes) {
            std::abort();  // a decoded packet must encode to its own bytes
        }
    } else if (packet.error().text.empty()) {
        std::abort();  // every refusal says why
    }

    // The same bytes as a stream, fed in pieces whose sizes come from the
    // input itself.
    ss::ViciFrameReader reader;
    std::size_t at = 0;
    while (at < size) {
        std::size_t piece = 1 + data[at] % 64;
        if (piece > size - at) {
            piece = size - at;
        }
        reader.feed(bytes.substr(at, piece));
        at += piece;
        std::string body;
        for (auto frame = reader.next(body); frame && *frame == ss::ViciFrameReader::Frame::Packet;
             frame = reader.next(body)) {
            (void)ss::decodeViciPacket(body);
        }
    }
    return 0;
}
