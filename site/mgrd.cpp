#include "site/mgrd.h"

#include <algorithm>
#include <cstring>
#include <jansson.h>
#include <sys/stat.h>

namespace site
{
namespace
{

// The format once more, on purpose not taken from the library under test.
constexpr const char *daemon_path = "/tmp/.mgrd";
constexpr const char *stranger_path = "/tmp/.mgrd-stranger";
constexpr const char *client_prefix = "/tmp/.mgr-";
constexpr uint8_t magic[] = {0xE3, 0x57, 0x07, 0xF0};
constexpr uint32_t chunk_max = 16384;
constexpr uint32_t message_max = 1 << 20;
constexpr int chunk_patience_ms = 20000; // a client on a busy machine

bytes number(uint32_t n, size_t size)
{
    bytes result;
    for (size_t i = 0; i < size; ++i) result.push_back(static_cast<uint8_t>(n >> (8 * i)));
    return result;
}

uint32_t number_at(const bytes &from, size_t offset, size_t size = 4)
{
    uint32_t n = 0;
    for (size_t i = 0; i < size; ++i) n |= uint32_t{from.at(offset + i)} << (8 * i);
    return n;
}

bool is_client(const local_address &from)
{
    const std::string path = from.address.sun_path;
    struct stat status = {};
    return path.rfind(client_prefix, 0) == 0 && path.size() == strlen(client_prefix) + 6 &&
           stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

} // namespace

bytes joined(std::initializer_list<bytes> parts)
{
    bytes result;
    for (const auto &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

bytes text_bytes(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

bytes chunk_header(uint32_t total, uint32_t length, uint32_t more)
{
    return joined({number(total, 4), number(length, 4), number(more, 4)});
}

bytes control_attribute(uint16_t type, const bytes &data)
{
    return joined({number(type, 2), number(static_cast<uint32_t>(data.size()), 4), data});
}

bytes control_message(uint32_t type, const bytes &payload)
{
    const auto length = static_cast<uint32_t>(payload.size());
    return joined({bytes(magic, magic + sizeof magic), number(type, 4), number(length, 4), payload});
}

mgrd_answer in_chunks(const bytes &message)
{
    mgrd_answer result;
    for (size_t at = 0; at < message.size(); at += chunk_max) {
        const size_t end = std::min<size_t>(message.size(), at + chunk_max);
        result.push_back({chunk_header(static_cast<uint32_t>(message.size()), static_cast<uint32_t>(end - at),
                                       end < message.size() ? 1 : 0)});
        result.push_back(
            {bytes(message.begin() + static_cast<ptrdiff_t>(at), message.begin() + static_cast<ptrdiff_t>(end))});
    }
    return result;
}

mgrd_answer json_answer(const std::string &text, uint32_t type)
{
    return in_chunks(control_message(type, control_attribute(1, text_bytes(text))));
}

mgrd::mgrd(responder respond)
    : respond_{std::move(respond)}, peer_{path_address(daemon_path)}, stranger_{path_address(stranger_path)}
{
    peer_.serve([this] { serve(); });
}

mgrd::~mgrd() { peer_.stop(); }

std::vector<std::string> mgrd::requests()
{
    const std::lock_guard lock{mutex_};
    return requests_;
}

void mgrd::serve()
{
    local_address client;
    while (const auto message = receive_message(client)) {
        if (!is_client(client)) peer_.complain("sent from a socket of another name");
        const std::string request = json_of(*message);
        {
            const std::lock_guard lock{mutex_};
            requests_.push_back(request);
        }
        for (const auto &datagram : respond_(request)) send(client, datagram);
    }
}

void mgrd::send(const local_address &client, const mgrd_datagram &datagram)
{
    switch (datagram.sender) {
    case mgrd_sender::daemon: return peer_.send(client, datagram.content);
    case mgrd_sender::stranger: return stranger_.send(client, datagram.content);
    case mgrd_sender::nameless: return local_peer{{}}.send(client, datagram.content);
    }
}

/// The next message, chunk by chunk; what breaks the framing is noted and dropped.
std::optional<bytes> mgrd::receive_message(local_address &from)
{
    bytes message;
    for (;;) {
        const auto header = peer_.receive(message.empty() ? -1 : chunk_patience_ms);
        if (!header && message.empty()) return std::nullopt;
        const auto chunk = header && header->content.size() == 12 ? peer_.receive(chunk_patience_ms) : std::nullopt;
        if (!chunk) {
            peer_.complain("a message cut short");
            message.clear();
            continue;
        }
        const uint32_t total = number_at(header->content, 0);
        const uint32_t length = number_at(header->content, 4);
        const uint32_t more = number_at(header->content, 8);
        message = joined({message, chunk->content});
        const bool filled = message.size() == total;
        if (total > message_max || length != chunk->content.size() || message.size() > total ||
            more != (filled ? 0 : 1) || (!filled && length != chunk_max)) {
            peer_.complain("a chunk that does not fit its message");
        }
        from = chunk->from;
        if (more == 0) return message;
    }
}

/// The one JSON attribute that a request consists of.
std::string mgrd::json_of(const bytes &message)
{
    if (message.size() < 12 + 6 + 1 || memcmp(message.data(), magic, sizeof magic) != 0 || number_at(message, 4) != 1 ||
        number_at(message, 8) != message.size() - 12 || number_at(message, 12, 2) != 1 ||
        number_at(message, 14) != message.size() - 18 || message.back() != 0) {
        peer_.complain("a request that is not one JSON attribute");
        return {};
    }
    std::string text{message.begin() + 18, message.end() - 1};
    json_t *parsed = json_loadb(text.data(), text.size(), 0, nullptr);
    if (!parsed) peer_.complain("no JSON: " + text);
    json_decref(parsed);
    return text;
}

} // namespace site
