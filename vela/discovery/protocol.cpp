// Members and clients share the record and the way it is filled from a configuration file. What is beside the record
// belongs to a member: its events, its handlers, and the group membership, which is dropped as it was added.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <event2/event.h>
#include <sys/socket.h>
#include <vela/config/cfg.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/discovery/protocol.h>

static_assert(sizeof(struct vela_protocol_ctrl) == 96 && offsetof(struct vela_protocol_ctrl, key) == 30 &&
              offsetof(struct vela_protocol_ctrl, tx_seq) == 48);

static constexpr struct vela_protocol_ctrl cleared_record = {.fd = -1};
constinit struct vela_protocol_ctrl vela_protocol_ctrl = cleared_record;

namespace
{

constexpr const char *log_module = "vela_protocol";

constexpr const char *member_config_path = "/var/run/vela_protocol.info";
constexpr const char *client_config_path = "/tmp/system.cfg";
constexpr const char *system_info_path = "/proc/velahal/system.info";
constexpr const char *bridge_address_path = "/var/run/ipready.br0";
constexpr const char *bridge = "br0";
constexpr const char *key_name = "corvo.key";
constexpr const char *group_name = "corvo.mcip";

constexpr uint16_t port = 48000;
constexpr int ttl = 64;
constexpr size_t datagram_max = 512; // longer ones are cut, and then refused
constexpr size_t key_digits = 32;
constexpr uint16_t client_type = 3;
constexpr uint16_t mesh_halt_method = 6;
constexpr uint32_t mesh_halt_seconds = 600;
constexpr int device_kind = 4;

/// A member's state beside the record; vela_protocol_deinit resets all but the callback.
constinit struct {
    const vela_handler_entry *table = nullptr;
    void (*ready_callback)(void) = nullptr; // vela_protocol_set_mcast_ready_cb
    event *receive = nullptr;
    event *address = nullptr; // SIGUSR1
    ip_mreq membership = {};  // as last added
    int socket = -1;          // what we opened: the record's fd is the program's to write
    uint32_t inits = 0;       // tells a handler's deinit and init from none
} member_state;

struct vela_protocol_ctrl &ctrl = vela_protocol_ctrl;

struct release_config {
    void operator()(cfg_entry *config) const { free_cfg(config); }
};
using config_ptr = std::unique_ptr<cfg_entry, release_config>;

struct address_text {
    char text[INET_ADDRSTRLEN] = "";

    explicit address_text(in_addr address) { (void)inet_ntop(AF_INET, &address, text, sizeof text); } // always fits
};

void free_event(event *&e)
{
    if (e) event_free(e);
    e = nullptr;
}

template <class Value> bool set_option(int fd, int level, int option, const Value &value)
{
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

sockaddr_in endpoint(in_addr address)
{
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr = address;
    return result;
}

bool bind_to_port(int fd)
{
    const sockaddr_in any = endpoint({INADDR_ANY});
    return bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any) == 0;
}

void clear_record() { ctrl = cleared_record; }

void read_device_id()
{
    char serial[13];
    freadvalue(system_info_path, "serialno", serial, sizeof serial, "000000000000");
    (void)hex2uchar(serial, ctrl.device_id, sizeof ctrl.device_id); // zero where it is no hexadecimal
}

config_ptr load_config(const char *step, const char *path)
{
    if (access(path, R_OK) != 0) {
        log_error_as(step, "Unable to access %s: %s", path, strerror(errno));
        return nullptr;
    }
    config_ptr config{parse(path)};
    if (!config) log_error_as(step, "Unable to parse %s", path);
    return config;
}

bool take_key(const char *step, const char *text)
{
    const size_t length = strlen(text);
    if (length != key_digits) {
        log_error_as(step, "%s invalid len %zd", key_name, static_cast<ssize_t>(length));
        return false;
    }
    (void)hex2uchar(text, ctrl.key, sizeof ctrl.key);
    return true;
}

/// The bridge's address where it has one.
bool bridge_address(in_addr &address)
{
    char text[64];
    freadline(bridge_address_path, text, sizeof text, "0.0.0.0");
    return inet_pton(AF_INET, text, &address) == 1 && address.s_addr != INADDR_ANY;
}

int join_group()
{
    constexpr const char *step = "vela_multicast_socket_init";
    if (!set_option(ctrl.fd, IPPROTO_IP, IP_MULTICAST_IF, ctrl.my_ip)) {
        log_error_as(step, "unable to set mcast local ip, %s", strerror(errno));
        return -1;
    }
    if (!set_option(ctrl.fd, IPPROTO_IP, IP_MULTICAST_TTL, ttl)) {
        log_error_as(step, "unable to set mcast ttl, %s", strerror(errno));
        return -2;
    }
    if (!set_option(ctrl.fd, IPPROTO_IP, IP_MULTICAST_LOOP, int{0})) {
        log_error_as(step, "unable to set mcast loop, %s", strerror(errno));
        return -3;
    }
    member_state.membership = {.imr_multiaddr = ctrl.mcast_ip, .imr_interface = ctrl.my_ip};
    if (!set_option(ctrl.fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, member_state.membership)) {
        log_error_as(step, "unable to add membership, %s", strerror(errno));
        return -4;
    }
    return 0;
}

// On purpose by group alone: the kernel picks the interface by its route to the group.
void leave_group()
{
    member_state.membership.imr_interface.s_addr = INADDR_ANY;
    if (!set_option(ctrl.fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, member_state.membership)) {
        log_error_as("vela_multicast_socket_deinit", "unable to drop membership, %s", strerror(errno));
    }
}

bool open_member_socket()
{
    constexpr const char *step = "vela_protocol_init";
    ctrl.fd = member_state.socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (ctrl.fd < 0) {
        log_error_as(step, "unable to create udp socket, %s", strerror(errno));
        return false;
    }
    if (!set_option(ctrl.fd, SOL_SOCKET, SO_REUSEADDR, int{1})) {
        log_error_as(step, "unable to set sockopt reuseaddr socket, %s", strerror(errno));
        return false;
    }
    if (!set_option(ctrl.fd, SOL_SOCKET, SO_BROADCAST, int{1})) {
        log_error_as(step, "can't set socket broadcast");
        return false;
    }
    if (!bind_to_port(ctrl.fd)) {
        log_error_as(step, "unable to bind vela socket, %s", strerror(errno));
        return false;
    }
    return true;
}

bool start_member(const char *group)
{
    constexpr const char *step = "vela_protocol_init";
    if (inet_pton(AF_INET, group, &ctrl.mcast_ip) != 1) {
        log_error_as(step, "%s=%s is not valid", group_name, group);
        return false;
    }
    log_info_as(step, "mcast_ip is %s", address_text{ctrl.mcast_ip}.text);
    if (!open_member_socket()) return false;

    in_addr address = {};
    if (!bridge_address(address)) return true; // SIGUSR1 will tell
    ctrl.my_ip = address;
    log_info_as(step, "my_ip is %s", address_text{ctrl.my_ip}.text);
    if (join_group() != 0) {
        log_error_as(step, "set multicast socket fail, %s", strerror(errno));
        return false;
    }
    return true;
}

bool init(int member)
{
    constexpr const char *step = "vela_protocol_init";
    read_device_id();
    log_info_as(step, "VELA_DEVICE[%s]", vela::mac_text{ctrl.device_id}.c_str());
    const config_ptr config = load_config(step, member_config_path);
    if (!config) return false;
    const char *key = get_value(config.get(), nullptr, "%s", key_name);
    if (!key) {
        log_error_as(step, "no %s", key_name);
        return false;
    }
    const char *group = get_value(config.get(), nullptr, "%s", group_name);
    if (!group && member) {
        log_error_as(step, "no %s", group_name);
        return false;
    }
    if (!group) log_info_as(step, "no %s", group_name);
    return take_key(step, key) && (!member || start_member(group));
}

bool client_init()
{
    constexpr const char *step = "vela_protocol_client_init";
    read_device_id();
    const config_ptr config = load_config(step, client_config_path);
    if (!config) return false;
    const char *key = get_value(config.get(), nullptr, "%s", key_name);
    const char *group = get_value(config.get(), nullptr, "%s", group_name);
    if (!key || !group) {
        log_error_as(step, "no %s", key ? group_name : key_name);
        return false;
    }
    if (!take_key(step, key)) return false;
    (void)inet_pton(AF_INET, group, &ctrl.mcast_ip); // on purpose unchecked: a send to 0.0.0.0 says it
    return true;
}

/// An init's result: with a key and all that goes with it, or with everything cleared.
int conclude(const char *step, bool complete)
{
    if (complete) {
        ctrl.ready = ctrl.encrypt = 1;
        return 0;
    }
    vela_protocol_deinit();
    log_error_as(step, "could not start vela-protocol");
    return -1;
}

void dispatch(const vela_packet &packet)
{
    const uint32_t inits = member_state.inits;
    const vela_handler_entry *const table = member_state.table;
    const uint16_t sequence = packet.sequence;
    // A handler may end the protocol or bring another table: this one need not exist any more.
    for (const auto *entry = table; entry && member_state.inits == inits && member_state.table == table; ++entry) {
        if (!entry->handler) break;
        if (entry->method == packet.method) entry->handler(&packet, packet.payload, entry->method);
    }
    if (member_state.inits == inits) ctrl.rx_seq = sequence;
}

void on_readable(evutil_socket_t fd, short, void *)
{
    constexpr const char *step = "vela_protocol_init_recv";
    alignas(vela_packet) alignas(uint32_t) uint8_t datagram[datagram_max];
    // A datagram that turned out damaged leaves nothing to read.
    const ssize_t n = recvfrom(fd, datagram, sizeof datagram, MSG_DONTWAIT, nullptr, nullptr);
    if (n < 0) {
        if (errno != EINTR && errno != EAGAIN) log_error_as(step, "recvfrom failed: %s", strerror(errno));
        return;
    }
    auto &packet = *reinterpret_cast<vela_packet *>(datagram);
    const int result = dec_payload(static_cast<uint32_t>(n), &packet, &ctrl);
    if (result == VELA_PACKET_INVALID) log_error_as(step, "failed to decrypt the message: %d", result);
    if (result != VELA_PACKET_VALID) return;
    log_debug_as(step, "[%.*s]", static_cast<int>(packet.length), reinterpret_cast<const char *>(packet.payload));
    dispatch(packet);
}

void on_address(evutil_socket_t, short, void *)
{
    constexpr const char *step = "vela_usr1_handler";
    log_info_as(step, "%s", "Get DHCP IP");
    in_addr address = {};
    if (!bridge_address(address) || address.s_addr == ctrl.my_ip.s_addr) return;
    ctrl.my_ip = address;
    log_info_as(step, "my_ip is %s", address_text{ctrl.my_ip}.text);
    leave_group();
    if (join_group() != 0) {
        log_error_as(step, "set multicast socket fail, %s", strerror(errno));
        return;
    }
    if (member_state.ready_callback) member_state.ready_callback();
}

/// A socket for one packet on the bridge; logs what it cannot have.
vela::unique_fd client_socket()
{
    constexpr const char *step = "vela_protocol_client_sock_init";
    const auto refuse = [](const char *format) {
        log_error_as(step, format, errno, strerror(errno));
        return vela::unique_fd{};
    };
    vela::unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd.ok()) return refuse("lcm event socket error, errno:%d/%s");
    if (!set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, int{1}))
        return refuse("can't set sockopt reuseaddr, errno:%d/%s");
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, bridge, static_cast<socklen_t>(strlen(bridge))) < 0) {
        log_error_as(step, "unable to bind socket to device");
        return {};
    }
    if (!set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, in_addr{INADDR_ANY})) {
        return refuse("unable to set mcast local ip, errno:%d/%s");
    }
    if (!set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, ttl)) return refuse("unable to set mcast ttl, errno:%d/%s");
    if (!set_option(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, int{0}))
        return refuse("unable to set mcast loop, errno:%d/%s");
    if (!bind_to_port(fd.get())) return refuse("unable to bind sock, errno:%d/%s");
    return fd;
}

/// The event goes first: the descriptor's number is soon someone else's, whose bytes it would take.
void close_socket()
{
    free_event(member_state.receive);
    if (member_state.socket == ctrl.fd) member_state.socket = -1;
    const vela::unique_fd closing{ctrl.fd};
    ctrl.fd = -1;
}

/// Lets go of what an earlier init holds, silently, and of nothing else: the record may hold any number by now, 0 of a
/// program that cleared it included. The group is left with its socket.
void forget_earlier_init()
{
    ++member_state.inits;
    member_state.table = nullptr;
    free_event(member_state.address);
    free_event(member_state.receive);
    const vela::unique_fd closing{member_state.socket};
    member_state.socket = -1;
    member_state.membership = {};
    clear_record();
}

} // namespace

int vela_protocol_init(int member)
{
    forget_earlier_init();
    const int result = conclude(__func__, init(member));
    if (result == 0) log_info("vela_protocol init done");
    return result;
}

int vela_protocol_init_recv(event_base *base, const vela_handler_entry *table)
{
    free_event(member_state.receive);
    free_event(member_state.address);
    member_state.table = table;
    member_state.receive = event_new(base, ctrl.fd, EV_READ | EV_PERSIST, on_readable, nullptr);
    member_state.address = event_new(base, SIGUSR1, EV_SIGNAL | EV_PERSIST, on_address, nullptr);
    if (!member_state.receive || !member_state.address) return -1;
    if (event_add(member_state.receive, nullptr) != 0 || event_add(member_state.address, nullptr) != 0) return -1;
    return 0;
}

void vela_protocol_deinit(void)
{
    free_event(member_state.address);
    if (ctrl.fd >= 0) leave_group();
    close_socket();
    forget_earlier_init(); // where the record had another number than ours
}

int vela_protocol_send(const void *data, uint32_t len, uint16_t method, uint16_t type, int encrypt)
{
    const vela::heap<vela_packet> packet{gen_payload(data, len, method, type, encrypt, &ctrl)};
    if (!packet) {
        log_error("fill_vela_payload fail");
        return -1;
    }
    const sockaddr_in group = endpoint(ctrl.mcast_ip);
    const ssize_t sent = sendto(ctrl.fd, packet.get(), sizeof(vela_packet) + ntohs(packet->length), 0,
                                reinterpret_cast<const sockaddr *>(&group), sizeof group);
    if (sent < 0) {
        log_error("failed to send message (method: %d, type: %d, len: %d), %s", method, type, static_cast<int>(len),
                  strerror(errno));
    }
    return static_cast<int>(sent);
}

void vela_protocol_set_mcast_ready_cb(void (*cb)(void)) { member_state.ready_callback = cb; }

int vela_protocol_client_init(void)
{
    forget_earlier_init();
    return conclude(__func__, client_init());
}

void vela_protocol_client_send(const void *data, uint32_t len, uint16_t method)
{
    close_socket(); // a member's, too
    vela::unique_fd fd = client_socket();
    if (!fd.ok()) {
        log_error("sock init failed");
        return;
    }
    ctrl.fd = member_state.socket = fd.release();
    (void)vela_protocol_send(data, len, method, client_type, ctrl.encrypt); // logs its failure itself
    close_socket();
}

void vela_protocol_client_event_mesh_halt_send(void)
{
    if (!ctrl.ready) {
        log_error("vela-protocol not initilized");
        return;
    }
    struct {
        uint8_t device_id[6];
        uint32_t seconds;
        uint32_t kind;
    } __attribute__((packed)) announcement = {{}, htonl(mesh_halt_seconds), htonl(device_kind)};
    static_assert(sizeof announcement == 14);
    memcpy(announcement.device_id, ctrl.device_id, sizeof announcement.device_id);
    vela_protocol_client_send(&announcement, sizeof announcement, mesh_halt_method);
}

int vela_device_identify(void) { return device_kind; }
