#include "site/media_listener.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace site
{
namespace
{

// The format once more, on purpose not taken from the library under test.
constexpr const char *listener_name = "IPC_WEBRTC_LISTENER";
constexpr size_t record_size = 1876;
constexpr size_t uuid_offset = 4;
constexpr size_t body_offset = 68;
constexpr size_t piece_max = 16384;
constexpr int32_t next_offer = 1;
constexpr int32_t offer = 2;
constexpr int32_t set_answer = 3;
constexpr int32_t close_session = 5;
constexpr int32_t text_type = 1;
constexpr int patience_ms = 2000;

bool is_zero(bytes::const_iterator from, bytes::const_iterator to)
{
    return std::all_of(from, to, [](uint8_t byte) { return byte == 0; });
}

/// "C_PID_SSH" behind the first byte, and zero bytes to the end of the address.
bool is_client(const local_address &from)
{
    const char *name = from.address.sun_path + 1;
    const local_address expected = abstract_address("C_" + std::to_string(strtol(name + 2, nullptr, 10)) + "_SSH");
    return from.length == expected.length && memcmp(&from.address, &expected.address, sizeof expected.address) == 0;
}

} // namespace

bytes media_record(int32_t command_or_status, const std::string &uuid, const bytes &body)
{
    bytes record(record_size);
    memcpy(record.data(), &command_or_status, sizeof command_or_status);
    uuid.copy(reinterpret_cast<char *>(record.data() + uuid_offset), body_offset - uuid_offset);
    std::copy_n(body.begin(), std::min(body.size(), record_size - body_offset), record.begin() + body_offset);
    return record;
}

media_answer media_text(const std::string &text)
{
    const int32_t header[2] = {text_type, static_cast<int32_t>(text.size())};
    const auto *raw = reinterpret_cast<const uint8_t *>(header);
    media_answer result{bytes(raw, raw + sizeof header)};
    for (size_t at = 0; at < text.size(); at += piece_max) {
        const std::string piece = text.substr(at, piece_max);
        result.emplace_back(bytes(piece.begin(), piece.end()));
    }
    return result;
}

media_answer media_offer(const std::string &uuid, const std::string &credentials, const std::string &text)
{
    bytes body(1 + credentials.size());
    body[0] = text.empty() ? 0 : 1;
    credentials.copy(reinterpret_cast<char *>(body.data()) + 1, credentials.size());
    const media_answer record{media_record(offer, uuid, body)};
    return text.empty() ? record : in_turn({record, media_text(text)});
}

media_answer in_turn(std::initializer_list<media_answer> parts)
{
    media_answer result;
    for (const auto &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

media_listener::media_listener(responder respond) : respond_{std::move(respond)}, peer_{abstract_address(listener_name)}
{
    peer_.serve([this] { serve(); });
}

media_listener::~media_listener() { peer_.stop(); }

std::vector<media_request> media_listener::requests()
{
    for (int waited_ms = 0; waited_ms < patience_ms; ++waited_ms) {
        {
            const std::lock_guard lock{mutex_};
            if (!requests_.empty()) return std::exchange(requests_, {});
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return {};
}

void media_listener::serve()
{
    while (const auto record = peer_.receive()) {
        if (!is_client(record->from)) peer_.complain("sent from another address than a client's");
        if (record->content.size() != record_size) {
            peer_.complain("a record of " + std::to_string(record->content.size()) + " bytes");
            continue;
        }
        const media_request request = read_request(*record);
        {
            const std::lock_guard lock{mutex_};
            requests_.push_back(request);
        }
        for (const auto &[content, delay_ms] : respond_(request)) {
            std::this_thread::sleep_for(std::chrono::milliseconds{delay_ms});
            peer_.send(record->from, content);
        }
    }
}

media_request media_listener::read_request(const local_peer::datagram &record)
{
    const bytes &content = record.content;
    const auto body = content.begin() + body_offset;
    const auto uuid_end = std::find(content.begin() + uuid_offset, body, 0);
    media_request request;
    memcpy(&request.command, content.data(), sizeof request.command);
    request.uuid.assign(content.begin() + uuid_offset, uuid_end);
    request.body.assign(body, content.end());

    if (uuid_end == body) peer_.complain("a uuid without an end");
    if (!is_zero(uuid_end, body)) peer_.complain("bytes behind the uuid");
    if (request.command < next_offer || request.command > close_session || request.command == offer) {
        peer_.complain("no request: " + std::to_string(request.command));
    }
    if (request.command != next_offer && !is_zero(body, content.end())) peer_.complain("a body where none belongs");
    if (request.command == set_answer) request.answer = read_answer();
    return request;
}

std::string media_listener::read_answer()
{
    const auto header = peer_.receive(patience_ms);
    int32_t fields[2] = {};
    if (!header || header->content.size() != sizeof fields) {
        peer_.complain("no answer behind the request");
        return {};
    }
    memcpy(fields, header->content.data(), sizeof fields);
    if (fields[0] != text_type) peer_.complain("an answer of type " + std::to_string(fields[0]));
    std::string text;
    while (text.size() < static_cast<size_t>(fields[1])) {
        const auto piece = peer_.receive(patience_ms);
        const size_t due = std::min(piece_max, static_cast<size_t>(fields[1]) - text.size());
        if (!piece || piece->content.size() != due) {
            peer_.complain("a piece that does not fit its message");
            break;
        }
        text.append(piece->content.begin(), piece->content.end());
    }
    return text;
}

} // namespace site
