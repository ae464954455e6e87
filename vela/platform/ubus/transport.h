// The bytes of a bus connection: its greeting, sending a frame, receiving one in whatever pieces it comes. Every wait
// has an end; signals only interrupt it.
#pragma once

#include <cstdint>
#include <span>
#include <vela/core/internal/own.h>
#include <vela/core/internal/wait.h>
#include <vela/platform/ubus/wire.h>

namespace vela::bus
{

constexpr int stall_ms = 3000; // for the next piece of a frame that has begun, in either direction

/// Waits for poll events on a descriptor, through any signals; false when the time has come first.
bool wait_until(int fd, short events, const deadline &until);

enum class progress : uint8_t { done, nothing_yet, broken };

/// A frame on its way in.
class incoming
{
public:
    frame_header header{};

    /// Reads what is there, up to the frame's end. Broken: end of file, an error, or a header nobody should send.
    progress receive(int fd);
    void forget();
    [[nodiscard]] bool begun() const { return received_ != 0; }
    [[nodiscard]] std::span<uint8_t> payload() const { return {body_.get(), body_length(header) - sizeof header.body}; }

private:
    [[nodiscard]] std::span<uint8_t> missing();
    [[nodiscard]] bool accept_header();

    heap<uint8_t> body_;
    size_t received_ = 0; // of header and payload together
};

/// Sends header and payload as one. Nothing yet: the time came before the first byte could leave; broken: the
/// connection failed, or stopped in the middle of the frame and is of no more use.
progress send(int fd, frame_header header, std::span<const uint8_t> payload, const deadline &until);

/// Receives the daemon's greeting; our id is written on success. False for anything else, and when the time has come.
bool take_greeting(int fd, uint32_t &local_id, const deadline &until);

} // namespace vela::bus
