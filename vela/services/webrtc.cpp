// Sessions of the remote console, over datagrams to the media listener.
//
// Every call asks the listener with one record from a socket of its own. Records have one size and one layout; the SDP
// texts, which do not fit them, travel as framed messages on the same socket. No text that the listener sends is
// trusted to end in a NUL.

#include <cstddef>
#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>
#include <vela/core/internal/buffer.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/wait.h>
#include <vela/ipc/sk_msg.h>
#include <vela/services/webrtc.h>

namespace
{

constexpr const char *log_module = "libvela_webrtc";
constexpr const char *source_name = "webrtc"; // in the out-of-memory text

constexpr const char *client_format = "C_%d_SSH"; // one name for the process
constexpr const char *listener_name = "IPC_WEBRTC_LISTENER";

enum class command : int32_t { next_offer = 1, offer = 2, set_answer = 3, list_sessions = 4, close_session = 5 };
constexpr int32_t status_success = 0;
constexpr int32_t answer_type = 1;             // of the framed message
constexpr int32_t offer_max = 4 * 1024 * 1024; // bytes; anybody may own the listener's name and announce 2 GiB

constexpr int send_wait_s = 1;
constexpr int text_wait_s = 5;
constexpr int offer_wait_s = 60;
constexpr int answer_wait_s = 5;
constexpr int sessions_wait_s = 3;

static_assert(sizeof(webrtc_ipc_msg) == 1876 && offsetof(webrtc_ipc_msg, body) == 68);
static_assert(sizeof(sdp_request) == sizeof(webrtc_ipc_msg::body) && offsetof(sdp_request, stun_server) == 404 &&
              offsetof(sdp_request, turn_query) == 1004 && offsetof(sdp_request, creds_url) == 1408);

char *copied(const char *text, size_t most)
{
    char *copy = strndup(text, most);
    if (!copy) vela::out_of_memory(source_name, __LINE__);
    return copy;
}

const char *text_of(const buffer &b) { return reinterpret_cast<const char *>(b.data(&b)); }

// ---- the socket of one call

sockaddr_un abstract_address(std::string_view name)
{
    sockaddr_un address = {}; // all the bytes behind the first are the name, zeroes included
    address.sun_family = AF_UNIX;
    vela::copy_text(address.sun_path + 1, sizeof address.sun_path - 1, name);
    return address;
}

template <auto Call> bool with_address(int fd, std::string_view name)
{
    const sockaddr_un address = abstract_address(name);
    return Call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

/// The first step that fails, or null.
const char *open_socket(vela::unique_fd &fd)
{
    fd.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) return "socket";
    if (!with_address<bind>(fd.get(), vela::formatted<32>(client_format, getpid()).view())) return "bind";
    if (!with_address<connect>(fd.get(), listener_name)) return "connect";
    return nullptr;
}

/// One datagram, whole or not at all. MSG_DONTWAIT, so that the socket's own flags stay as they are.
bool send_record(int fd, const webrtc_ipc_msg &record)
{
    constexpr const char *step = "send_nonblocking";
    const vela::deadline until{send_wait_s};
    do {
        const auto result = vela::wait_through_signals(fd, POLLOUT, until);
        if (result == vela::wait_result::timeout) break;
        if (result == vela::wait_result::failed) {
            log_error_as(step, "Select return -1! errno:%d/%s", errno, strerror(errno));
            return false;
        }
        if (send(fd, &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
        if (errno != EAGAIN) {
            log_error_as(step, "errno:%d/%s", errno, strerror(errno));
            return false;
        }
    } while (!until.passed());
    log_warn_as(step, "Connection Timeout!");
    errno = ETIMEDOUT;
    return false;
}

/// False when none came in time (errno ETIMEDOUT) or the socket failed. What a short record lacks is zero.
bool receive_record(int fd, webrtc_ipc_msg &record, int wait_s)
{
    record = {};
    const vela::deadline until{wait_s};
    const auto result = vela::wait_through_signals(fd, POLLIN, until);
    if (result == vela::wait_result::timeout) errno = ETIMEDOUT;
    return result == vela::wait_result::ready && recv(fd, &record, sizeof record, MSG_DONTWAIT) >= 0;
}

webrtc_ipc_msg make_request(command what, const char *uuid)
{
    webrtc_ipc_msg record = {};
    record.command = static_cast<int32_t>(what);
    vela::copy_text(record.uuid, vela::view(uuid));
    return record;
}

/// Opens the socket of a call and sends its request. What fails is logged under the call's name.
vela::unique_fd ask(const char *function, const webrtc_ipc_msg &request)
{
    vela::unique_fd fd;
    if (const char *failed = open_socket(fd)) {
        perror(failed);
        log_error_as(function, "Socket error");
        return {};
    }
    if (!send_record(fd.get(), request)) {
        log_warn_as(function, "Socket Timeout");
        return {};
    }
    return fd;
}

// ---- offers

void log_request(buffer &line, const char *uuid, const sdp_request &r)
{
    if (!libvela_log_enabled(LIBVELA_LOG_INFO)) return;
    line.reset(&line);
    line.printf(&line, "SDP request: uuid<%s>, stun<%.400s>, turn<%.400s>, username<%.200s>", uuid, r.stun_server,
                r.turn_server, r.username);
    line.printf(&line, " turn_query<%d>, reg_url<%.400s>, creds_url<%.400s>", r.turn_query, r.reg_url, r.creds_url);
    log_info_as("get_next_sdp_offer", "%s", text_of(line));
}

void log_offer(buffer &line, const webrtc_inform &inf, bool complete)
{
    if (!libvela_log_enabled(LIBVELA_LOG_INFO)) return;
    line.reset(&line);
    line.printf(&line, "Get SDP offer: uuid<%s>, complete<%s>", inf.uuid, complete ? "true" : "false");
    line.printf(&line, ", turn_creds: <%s>", inf.turn_creds);
    line.printf(&line, ", offer<%s>", inf.offer ? inf.offer : "");
    log_info_as("get_next_sdp_offer", "%s", text_of(line));
}

/// Takes an offer record and, where it is complete, the offer's text, which follows it. Whether it was complete.
bool take_offer(int fd, const webrtc_ipc_msg &record, webrtc_inform &out, buffer &line)
{
    const bool complete = record.body[0] != 0;
    const auto *credentials = reinterpret_cast<const char *>(record.body + 1);
    free_webrtc_inform(&out);
    out.uuid = copied(record.uuid, sizeof record.uuid - 1);
    if (complete) (void)sdp_offer_recv(fd, &out); // logs its failure; the offer is null then
    out.turn_creds = copied(credentials, sizeof record.body - 1);
    log_offer(line, out, complete);
    return complete;
}

} // namespace

int get_next_sdp_offer(const char *uuid, const sdp_request *req, webrtc_inform *out)
{
    if (!uuid || !req || !out) return -1;
    const vela::buffer_ptr line{buffer_create()};
    if (!line) {
        log_warn("buffer_create failed.");
        return -1;
    }
    webrtc_ipc_msg record = make_request(command::next_offer, uuid);
    memcpy(record.body, req, sizeof record.body);
    const vela::unique_fd fd = ask(__func__, record);
    if (!fd.ok()) return -1;
    log_request(*line, record.uuid, *req);

    while (receive_record(fd.get(), record, offer_wait_s)) {
        if (record.command != static_cast<int32_t>(command::offer)) continue;
        if (take_offer(fd.get(), record, *out, *line)) return 0;
    }
    log_warn("Get SDP offer: uuid<%.63s> TIMEOUT! errno:%d/%s", uuid, errno, strerror(errno));
    return -ENOENT;
}

int set_sdp_answer(const char *uuid, const char *answer, char **uuid_out)
{
    if (!uuid || !answer) return -1;
    const webrtc_ipc_msg request = make_request(command::set_answer, uuid);
    const vela::unique_fd fd = ask(__func__, request);
    if (!fd.ok()) return -1;
    (void)sdp_answer_send(fd.get(), answer); // on purpose: whether it arrived, the listener's reply tells
    log_info("Set SDP answer: uuid<%s>, answer<%s>", request.uuid, answer);

    webrtc_ipc_msg reply;
    if (!receive_record(fd.get(), reply, answer_wait_s)) {
        log_warn("Set SDP answer: uuid<%s> TIMEOUT!", request.uuid);
    } else if (reply.command != status_success) {
        log_info("Set SDP fail: uuid<%s>", request.uuid);
    } else {
        log_info("Set SDP success: uuid<%s>", request.uuid);
        if (uuid_out) *uuid_out = copied(reply.uuid, sizeof reply.uuid - 1);
    }
    return 0;
}

int get_all_sdp_sessions(void *out)
{
    const vela::unique_fd fd = ask(__func__, make_request(command::list_sessions, nullptr));
    if (!fd.ok()) return -1;
    webrtc_ipc_msg reply;
    if (!receive_record(fd.get(), reply, sessions_wait_s)) {
        log_warn("SDP get all sessions: TIMEOUT!");
        return 0;
    }
    if (reply.command != status_success) return 0;
    int32_t count = 0;
    memcpy(&count, reply.body, sizeof count);
    if (out && count >= 1) memcpy(out, reply.body, WEBRTC_SESSIONS_SIZE);
    return count;
}

int close_sdp_session(const char *uuid)
{
    if (!uuid) return -1;
    const webrtc_ipc_msg request = make_request(command::close_session, uuid);
    const vela::unique_fd fd = ask(__func__, request);
    if (!fd.ok()) return -1;
    log_info("SDP closed: uuid<%s>", request.uuid);
    return 0;
}

int sdp_offer_recv(int fd, webrtc_inform *out)
{
    if (!out) return -1;
    const vela::buffer_ptr text{buffer_create()};
    if (!text) {
        log_warn("buffer_create failed.");
        return -1;
    }
    sk_msg message = {0, 0, text.get()};
    if (sk_msg_recv_limited(fd, &message, text_wait_s, offer_max) < 0) {
        log_error("Recv failed, exit");
        return -1;
    }
    free(out->offer);
    out->offer = copied(text_of(*text), text->length(text.get()));
    return 0;
}

int sdp_answer_send(int fd, const char *answer)
{
    const size_t length = answer ? strlen(answer) : SIZE_MAX;
    if (length > INT32_MAX) return -1; // none, or more than a message can say
    const vela::buffer_ptr text{buffer_create()};
    if (!text) {
        log_warn("buffer_create failed.");
        return -1;
    }
    const auto size = static_cast<uint32_t>(length);
    if (text->append(text.get(), answer, size) != size) return -1;
    const sk_msg message = {answer_type, static_cast<int32_t>(size), text.get()};
    return sk_msg_send(fd, &message, text_wait_s) < 0 ? -1 : 0;
}

void free_webrtc_inform(webrtc_inform *inf)
{
    if (!inf) return;
    for (char *text : {inf->offer, inf->uuid, inf->third, inf->turn_creds}) free(text);
    *inf = {};
}
