// The media listener of a simulated device: takes session requests at its abstract address, holds each against the
// format byte by byte, and answers as it was told, rightly or wrongly.
#pragma once

#include "site/local_peer.h"

namespace site
{

struct media_request {
    int32_t command = 0;
    std::string uuid;
    bytes body;
    std::string answer; ///< the SDP text behind command 3
};

/// What the listener sends back: one datagram, and how long it waits before.
struct media_datagram {
    media_datagram(bytes what, int after_ms = 0) : content{std::move(what)}, delay_ms{after_ms} {}
    bytes content;
    int delay_ms;
};
using media_answer = std::vector<media_datagram>;

// Pieces of an answer.
bytes media_record(int32_t command_or_status, const std::string &uuid, const bytes &body = {});
media_answer media_text(const std::string &text);
/// An offer's record, and its text behind it where there is one; without, the record calls itself incomplete.
media_answer media_offer(const std::string &uuid, const std::string &credentials, const std::string &text);
media_answer in_turn(std::initializer_list<media_answer> parts);

class media_listener
{
public:
    /// Gets each request and gives what to send back, if anything.
    using responder = std::function<media_answer(const media_request &)>;

    /// Serves from here on, in a thread of its own, until destroyed.
    explicit media_listener(responder respond);
    ~media_listener();

    /// The requests since the last call, waiting for the first.
    std::vector<media_request> requests();
    /// How requests broke the rules of the format, if any did.
    std::vector<std::string> faults() { return peer_.faults(); }

private:
    void serve();
    media_request read_request(const local_peer::datagram &record);
    std::string read_answer();

    responder respond_;
    local_peer peer_;
    std::mutex mutex_;
    std::vector<media_request> requests_;
};

} // namespace site
