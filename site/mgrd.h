// The management daemon of a simulated device: takes control messages at /tmp/.mgrd, holds each against the format byte
// by byte, and answers as it was told, rightly or wrongly.
#pragma once

#include "site/local_peer.h"

namespace site
{

/// Whose socket a datagram comes from: the daemon's, one at another path, or one without a name.
enum class mgrd_sender { daemon, stranger, nameless };

/// What the daemon sends back, one datagram after the other.
struct mgrd_datagram {
    bytes content;
    mgrd_sender sender = mgrd_sender::daemon;
};
using mgrd_answer = std::vector<mgrd_datagram>;

// Pieces of an answer, from the whole down to the byte.
mgrd_answer json_answer(const std::string &text, uint32_t type = 1);
mgrd_answer in_chunks(const bytes &message);
bytes control_message(uint32_t type, const bytes &payload);
bytes control_attribute(uint16_t type, const bytes &data);
bytes chunk_header(uint32_t total, uint32_t length, uint32_t more);
bytes text_bytes(const std::string &text); ///< with its NUL
bytes joined(std::initializer_list<bytes> parts);

class mgrd
{
public:
    /// Gets the JSON text of each request and gives the answer; an empty one is silence.
    using responder = std::function<mgrd_answer(const std::string &request)>;

    /// Serves from here on, in a thread of its own, until destroyed.
    explicit mgrd(responder respond);
    ~mgrd();

    std::vector<std::string> requests();
    /// How requests broke the rules of the format, if any did.
    std::vector<std::string> faults() { return peer_.faults(); }

private:
    void serve();
    void send(const local_address &client, const mgrd_datagram &datagram);
    std::optional<bytes> receive_message(local_address &from);
    std::string json_of(const bytes &message);

    responder respond_;
    local_peer peer_;
    local_peer stranger_;
    std::mutex mutex_;
    std::vector<std::string> requests_;
};

} // namespace site
