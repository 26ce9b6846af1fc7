#pragma once

// A secret, such as the account password, carried from the configuration
// line it was read in to the request that hands it to the VPN service.
//
// The bytes live in one heap block of exactly their size. The type cannot
// be copied, only moved: a move hands the block over and leaves the source
// empty, and destruction or assignment overwrites the old bytes with zeros
// before they are freed. There is no stream or format output, so a secret
// cannot reach a log line by accident; view() lends the bytes to the one
// place that must read them, which must not keep a copy beyond its use.
//
// The account password's use ends when the backend has handed it to the
// system. Linux: when the load-shared request that carries it has been
// written to charon's VICI socket; charon keeps the EAP secret loaded while
// the tool runs, and from then on the process holds no byte of it (the
// configuration reader, the connector and the request buffers are wiped,
// and the start options are destroyed once the request is queued). macOS:
// when startVPNTunnelWithOptions: returns; the NSString handed to the
// framework wipes its characters when released, but what the framework
// derives from it is out of reach.

#include <cstddef>
#include <string_view>

namespace platform {

class Secret {
  public:
    Secret() noexcept = default;
    // Copies the bytes, once.
    explicit Secret(std::string_view bytes);
    Secret(Secret&& other) noexcept;
    Secret& operator=(Secret&& other) noexcept;
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { wipe(); }

    std::string_view view() const noexcept { return {data_, size_}; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    // Zeros and frees the bytes; the secret is empty afterwards.
    void wipe() noexcept;

    friend bool operator==(const Secret& a, const Secret& b) noexcept {
        return a.view() == b.view();
    }
    friend bool operator==(const Secret& a, std::string_view b) noexcept { return a.view() == b; }
    // Byte order, so that secrets can be the keys of a std::map with
    // std::less<> and be found by a string_view.
    friend bool operator<(const Secret& a, const Secret& b) noexcept { return a.view() < b.view(); }
    friend bool operator<(const Secret& a, std::string_view b) noexcept { return a.view() < b; }
    friend bool operator<(std::string_view a, const Secret& b) noexcept { return a < b.view(); }

  private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
};

// Zeros what the functions the caller called leave behind of a secret they
// worked on: 64 KiB of stack below the caller's frame, which holds their
// buffers and the registers that they and the dynamic linker's lazy binding
// (in the shared libraries, which bind on first call) saved there. Call it
// when that work is done, from the function that did it.
void wipeScratch();

}  // namespace platform
