// One thread runs evhttp over TLS connections. What the owner and the thread share (the script, the names, the record)
// is behind one lock; an event descriptor ends the loop.

#include "site/collector.h"

#include "site/authority.h"
#include "site/world.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <event2/buffer.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <map>
#include <mutex>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

namespace site
{
namespace
{

constexpr uint16_t https_port = 443;
constexpr const char *trusted_authorities = "/etc/ssl/certs/ca-certificates.crt"; // where the host's libcurl looks
constexpr const char *hosts_path = "/etc/hosts";
constexpr const char *dns_path = "/dns-query";
constexpr const char *dns_media_type = "application/dns-message";
constexpr const char *nobodys_name = "elsewhere.example";

[[noreturn]] void give_up(const std::string &what)
{
    fprintf(stderr, "the collector cannot work: %s\n", what.c_str());
    exit(1);
}

// --- DNS messages (RFC 1035, section 4) ---

constexpr size_t dns_header_size = 12;
constexpr uint16_t type_a = 1;
constexpr uint16_t type_aaaa = 28;
constexpr uint8_t name_error = 3;

using name_table = std::map<std::string, std::vector<std::string>>;

struct dns_question {
    std::string name;
    uint16_t type = 0;
    std::string bytes; // as it was asked
};

dns_question parse_question(const std::string &query)
{
    dns_question question;
    size_t at = dns_header_size;
    while (at < query.size() && query[at] != 0) {
        const auto length = static_cast<uint8_t>(query[at]);
        if (at + 1 + length > query.size()) return {};
        if (!question.name.empty()) question.name += '.';
        question.name.append(query, at + 1, length);
        at += 1 + length;
    }
    if (at + 5 > query.size()) return {};
    question.type =
        static_cast<uint16_t>(static_cast<uint8_t>(query[at + 1]) << 8 | static_cast<uint8_t>(query[at + 2]));
    question.bytes = query.substr(dns_header_size, at + 5 - dns_header_size);
    return question;
}

void append_record(std::string &records, uint16_t type, std::string_view address)
{
    const std::array<char, 11> head = {
        '\xc0', dns_header_size,
        0,      static_cast<char>(type),
        0,      1, // the question's name, its type, class IN
        0,      0,
        0,      60,
        0, // a minute to live, upper half of the length
    };
    records.append(head.data(), head.size());
    records += static_cast<char>(address.size());
    records += address;
}

std::string dns_answer(const std::string &query, const name_table &names)
{
    const dns_question question = parse_question(query);
    const auto known = names.find(question.name);
    std::string records;
    uint8_t count = 0;
    for (const auto &text : known == names.end() ? std::vector<std::string>{} : known->second) {
        const bool is_v4 = text.find(':') == std::string::npos;
        if (question.type != (is_v4 ? type_a : type_aaaa)) continue;
        std::array<char, 16> address = {};
        inet_pton(is_v4 ? AF_INET : AF_INET6, text.c_str(), address.data());
        append_record(records, question.type, {address.data(), is_v4 ? size_t{4} : address.size()});
        ++count;
    }
    std::string message = query.substr(0, 2); // the id
    message += '\x81';                        // a response; recursion was desired
    message += static_cast<char>(0x80 | (known == names.end() ? name_error : 0));
    message.append({0, 1, 0, static_cast<char>(count), 0, 0, 0, 0});
    return message + question.bytes + records;
}

// --- HTTP ---

std::string bytes_of(evbuffer *buffer)
{
    std::string bytes(evbuffer_get_length(buffer), '\0');
    evbuffer_copyout(buffer, bytes.data(), bytes.size());
    return bytes;
}

const char *verb(evhttp_cmd_type command)
{
    switch (command) {
    case EVHTTP_REQ_GET: return "GET";
    case EVHTTP_REQ_POST: return "POST";
    case EVHTTP_REQ_PUT: return "PUT";
    default: return "another";
    }
}

request recorded(evhttp_request *from)
{
    request made;
    made.method = verb(evhttp_request_get_command(from));
    if (const char *host = evhttp_request_get_host(from)) made.host = host;
    made.path = evhttp_request_get_uri(from);
    const evkeyvalq *headers = evhttp_request_get_input_headers(from);
    for (const evkeyval *header = headers->tqh_first; header; header = header->next.tqe_next) {
        made.headers.emplace_back(header->key, header->value);
    }
    made.body = bytes_of(evhttp_request_get_input_buffer(from));
    return made;
}

void send(evhttp_request *to, const reply &reply)
{
    for (const auto &[name, value] : reply.headers) {
        evhttp_add_header(evhttp_request_get_output_headers(to), name.c_str(), value.c_str());
    }
    evbuffer_add(evhttp_request_get_output_buffer(to), reply.body.data(), reply.body.size());
    evhttp_send_reply(to, reply.status, nullptr, nullptr);
}

void close_when_written(bufferevent *, void *connection)
{
    evhttp_connection_free(static_cast<evhttp_connection *>(connection));
}

void close_when_broken(bufferevent *, short, void *connection)
{
    evhttp_connection_free(static_cast<evhttp_connection *>(connection));
}

void blurt(evhttp_request *to, const std::string &bytes)
{
    evhttp_connection *connection = evhttp_request_get_connection(to);
    bufferevent *stream = evhttp_connection_get_bufferevent(connection);
    bufferevent_setcb(stream, nullptr, close_when_written, close_when_broken, connection);
    bufferevent_write(stream, bytes.data(), bytes.size());
    bufferevent_enable(stream, EV_WRITE);
}

void list_hosts(const std::vector<std::string> &names, const std::string &address)
{
    std::string hosts = read_file(hosts_path);
    for (const auto &name : names) {
        const std::string line = address + " " + name + "\n";
        if (hosts.find(line) == std::string::npos) hosts += line;
    }
    put_file(hosts_path, hosts);
}

void add_to_loopback(const std::string &address)
{
    if (address.starts_with("127.")) return;
    if (run("ip address replace " + address + "/32 dev lo") != 0) give_up("adding " + address + " to loopback");
}

} // namespace

std::string request::header(std::string_view name) const
{
    const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto &header) {
        return header.first.size() == name.size() && strncasecmp(header.first.c_str(), name.data(), name.size()) == 0;
    });
    return found == headers.end() ? "" : found->second;
}

reply redirect(const std::string &location, int status) { return {status, "", {{"Location", location}}}; }
reply stalled() { return {.how = reply::conduct::stalls}; }
reply cut_short()
{
    return {.body = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf", .how = reply::conduct::blurts};
}
reply garbage() { return {.body = std::string("\0\xff garbage \r\n\r\n", 14), .how = reply::conduct::blurts}; }

struct collector::state {
    struct script {
        std::vector<reply> replies;
        size_t next = 0;
    };

    event_base *loop = event_base_new();
    evhttp *server = evhttp_new(loop);
    int stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    event *stopping = event_new(loop, stop, EV_READ, end_loop, loop);
    std::array<tls_context, 3> identities;
    std::atomic<identity> shown = identity::trusted;
    std::vector<evhttp_request *> stalled; // the thread's alone
    std::thread thread;

    std::mutex lock; // of what follows
    std::map<std::string, script> scripts;
    name_table known;
    std::vector<request> record;

    explicit state(const settings &wanted);
    ~state();
    void make_identities(const settings &wanted);
    void listen(const std::string &address);
    bufferevent *greet();
    void handle(evhttp_request *request);
    reply choose(const request &request);
    static void end_loop(int, short, void *base) { event_base_loopbreak(static_cast<event_base *>(base)); }
};

collector::state::state(const settings &wanted)
{
    make_identities(wanted);
    list_hosts(wanted.names, wanted.addresses.at(0));
    evhttp_set_bevcb(
        server, [](event_base *, void *self) { return static_cast<state *>(self)->greet(); }, this);
    evhttp_set_gencb(
        server, [](evhttp_request *request, void *self) { static_cast<state *>(self)->handle(request); }, this);
    for (const auto &address : wanted.addresses) listen(address);
    event_add(stopping, nullptr);
    thread = std::thread([this] {
        // Writing to a client that has gone must not end the program; whether it does is the client's own question.
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        event_base_dispatch(loop);
    });
}

collector::state::~state()
{
    eventfd_write(stop, 1);
    thread.join();
    for (evhttp_request *request : stalled) {
        // Those whose client has gone are ours to release; the others go with their connection.
        if (!evhttp_request_get_connection(request)) evhttp_send_reply(request, 0, nullptr, nullptr);
    }
    event_free(stopping);
    evhttp_free(server);
    event_base_free(loop);
    close(stop);
}

void collector::state::make_identities(const settings &wanted)
{
    const authority ours("Vela Site Authority");
    const authority stranger("Nobody's Authority");
    auto names = wanted.names;
    names.insert(names.end(), wanted.unlisted.begin(), wanted.unlisted.end());
    identities[static_cast<size_t>(identity::trusted)] = ours.server(names, wanted.addresses);
    identities[static_cast<size_t>(identity::untrusted_authority)] = stranger.server(names, wanted.addresses);
    identities[static_cast<size_t>(identity::wrong_name)] = ours.server({nobodys_name});
    put_file(trusted_authorities, ours.pem());
}

bufferevent *collector::state::greet()
{
    SSL *tls = SSL_new(identities[static_cast<size_t>(shown.load())].get());
    bufferevent *stream =
        bufferevent_openssl_socket_new(loop, -1, tls, BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_openssl_set_allow_dirty_shutdown(stream, 1);
    return stream;
}

void collector::state::listen(const std::string &address)
{
    add_to_loopback(address);
    evhttp_bound_socket *bound = evhttp_bind_socket_with_handle(server, address.c_str(), https_port);
    if (!bound) give_up("port 443 of " + address + " is taken");
    // Connections take it over from the listener: an answer of several writes must not wait for acknowledgements.
    const int on = 1;
    setsockopt(evhttp_bound_socket_get_fd(bound), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void collector::state::handle(evhttp_request *request)
{
    const auto seen = recorded(request);
    const auto reply = choose(seen);
    switch (reply.how) {
    case reply::conduct::answers: send(request, reply); break;
    case reply::conduct::blurts: blurt(request, reply.body); break;
    case reply::conduct::stalls: stalled.push_back(request); break;
    }
}

reply collector::state::choose(const request &request)
{
    const std::lock_guard held(lock);
    record.push_back(request);
    const std::string path = request.path.substr(0, request.path.find('?'));
    for (const auto &where : {request.host + path, path}) {
        const auto found = scripts.find(where);
        if (found == scripts.end() || found->second.replies.empty()) continue;
        script &told = found->second;
        return told.replies[std::min(told.next++, told.replies.size() - 1)];
    }
    if (path != dns_path) return {404, "nothing here\n"};
    if (request.method != "POST" || request.header("Content-Type") != dns_media_type) return {415};
    return {200, dns_answer(request.body, known), {{"Content-Type", dns_media_type}}};
}

collector::collector(const settings &wanted) : state_{std::make_unique<state>(wanted)} {}
collector::~collector() = default;

void collector::on(const std::string &where, reply reply) { on(where, std::vector{std::move(reply)}); }

void collector::on(const std::string &where, std::vector<reply> replies)
{
    const std::lock_guard held(state_->lock);
    state_->scripts[where] = {std::move(replies)};
}

void collector::resolve(const std::string &name, std::vector<std::string> addresses)
{
    const std::lock_guard held(state_->lock);
    state_->known[name] = std::move(addresses);
}

void collector::present(identity identity) { state_->shown = identity; }

std::vector<request> collector::requests()
{
    const std::lock_guard held(state_->lock);
    return std::exchange(state_->record, {});
}

} // namespace site
