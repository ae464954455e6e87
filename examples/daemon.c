/*
 * A whole daemon: ./example-daemon
 *
 * It runs as the daemons of the device do: one event loop, nothing that stands still in it. It reads the configuration
 * and reads it again on SIGHUP, knows its board, keeps a place on the bus where it calls and listens, is a member of
 * the site's discovery, scores the stations of its radio every ten seconds, reports a bad one as a trace, gives its
 * watchdog signs of life and ends cleanly on SIGTERM or SIGINT.
 *
 * What is missing on a host (a bus, a radio, a site key, a watchdog) is said once, and the rest goes on. Names of
 * radios and of the network come from the configuration; LIBVELA_FACILITIES and LIBVELA_VERBOSITY say where the log
 * goes.
 */
#include <event2/event.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/board/board.h>
#include <vela/config/cfg.h>
#include <vela/core/log.h>
#include <vela/discovery/protocol.h>
#include <vela/ipc/ubus.h>
#include <vela/ipc/xwd.h>
#include <vela/telemetry/trace.h>
#include <vela/wireless/station.h>

#define TAG "example"
#define STATIONS_MAX 256 /* per poll; more are not scored */
#define BAD_SCORE 30     /* of 100 */

/* All state of the daemon, in one place. Most callbacks of the library carry no pointer of ours, so it is static. */
static struct {
    struct event_base *base;
    cfg_entry *config;
    const char *ifname; /* into the configuration: set anew with it */
    vela_ubus_interface_t *bus;
    vl_nl80211_service radio;
    int has_radio;
    vela_sta_info polls[2][STATIONS_MAX]; /* the poll before, and the one being made */
    int counts[2], now;
    pid_t sender; /* the child that sends a trace; 0: none */
} self;

/* Configuration: read whole, and only when it can be read is the old one let go. */

static void read_config(void)
{
    cfg_entry *fresh = parse("/tmp/system.cfg");
    if (!fresh) {
        LIBVELA_LOG(LIBVELA_LOG_WARN, TAG, "no configuration, the old one stays");
        return;
    }
    free_cfg(self.config);
    self.config = fresh;
    self.ifname = get_value(fresh, "wlan0", "radio.1.devname");
    LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "%d entries, radio %s", get_cfg_count(fresh), self.ifname);
}

/* The bus. A call waits, so it gets a time limit that the loop can bear; events arrive from the loop. */

static void ask_for_stations(void)
{
    json_t *answer = NULL;
    int result = vela_ubus_call(self.bus, "stats", NULL, &answer, 500);
    if (result == 0) {
        LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "the management agent told %zu figures", json_object_size(answer));
    } else {
        LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "stats: %s", vela_ubus_error_text(result));
    }
    json_decref(answer);
}

static void on_event(vela_ubus_interface_t *bus, const char *name, const json_t *data, void *arg)
{
    (void)bus, (void)data, (void)arg;
    /* An empty name tells of a gap: what was learnt by listening has to be asked for again. */
    if (*name == '\0')
        ask_for_stations();
    else
        LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "%s", name);
}

static void join_bus(void)
{
    vela_ubus_init();
    /* With KEEP_TRYING there is a record even before there is a bus; listeners survive its restarts. */
    self.bus = vela_ubus_create(self.base, "/var/run/ubus/ubus.sock", "mgragent", VELA_UBUS_KEEP_TRYING, NULL, NULL);
    if (self.bus) vela_ubus_listen(self.bus, "network.*", on_event, NULL);
}

/* Discovery: what other devices of the site announce. */

static void on_packet(const vela_packet *packet, const uint8_t *payload, uint32_t method)
{
    const uint8_t *id = packet->device_id;
    LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "method %u from %02x:%02x:%02x:%02x:%02x:%02x: %.*s", method, id[0], id[1],
                id[2], id[3], id[4], id[5], packet->length, (const char *)payload);
}

static const vela_handler_entry handlers[] = {{on_packet, 1}, {NULL, 0}};

static void join_discovery(void)
{
    if (vela_protocol_init(1) != 0) return; /* it says why */
    vela_protocol_init_recv(self.base, handlers);
}

/* Traces: sending takes seconds when the service is far, so a child does it, and the loop goes on. */

static void send_from_child(const uint8_t *mac, int32_t score)
{
    char text[18];
    if (self.sender != 0) return; /* one at a time */
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    self.sender = fork();
    if (self.sender == 0) {
        /* Nothing of the parent's loop may be touched here: its descriptors are shared. */
        _exit(send_trace_simple("wifi", "bad_station", json_pack("{s:s, s:i}", "mac", text, "score", score)));
    }
    if (self.sender < 0) self.sender = 0;
}

static void on_child(evutil_socket_t number, short what, void *arg)
{
    int status = 0;
    (void)number, (void)what, (void)arg;
    if (self.sender == 0 || waitpid(self.sender, &status, WNOHANG) != self.sender) return;
    self.sender = 0;
    LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "trace: %s",
                WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "accepted" : "not sent");
}

/* Stations: two polls make a score. */

static int remember(const vela_sta_info *info, void *arg)
{
    (void)arg;
    if (self.counts[self.now] == STATIONS_MAX) return 1;
    self.polls[self.now][self.counts[self.now]++] = *info; /* nothing in it is borrowed */
    return 0;
}

static const vela_sta_info *before(const uint8_t *mac)
{
    int i;
    for (i = 0; i < self.counts[!self.now]; ++i) {
        if (memcmp(self.polls[!self.now][i].mac, mac, 6) == 0) return &self.polls[!self.now][i];
    }
    return NULL;
}

static void score(const vela_sta_info *info)
{
    vela_station station;
    vela_station_clear(&station); /* a daemon that knows of addresses, DNS and DHCP fills them in here */
    if (vela_sta_fill(before(info->mac), info, &station) != 0) return; /* the first poll of this association */
    calc_sta_satisfaction(&station);
    if (station.satisfaction < BAD_SCORE) send_from_child(info->mac, station.satisfaction);
}

static void poll_stations(void)
{
    int i;
    self.now = !self.now;
    self.counts[self.now] = 0;
    if (vela_sta_foreach(&self.radio, self.ifname, remember, NULL) < 0) return; /* the radio may be down */
    for (i = 0; i < self.counts[self.now]; ++i) score(&self.polls[self.now][i]);
}

/* The loop. */

static void on_tick(evutil_socket_t fd, short what, void *arg)
{
    (void)fd, (void)what, (void)arg;
    xwd_ping(); /* from the loop itself: a loop that stands still must be noticed */
    if (self.has_radio) poll_stations();
}

static void on_hangup(evutil_socket_t number, short what, void *arg)
{
    (void)number, (void)what, (void)arg;
    read_config();
}

static void on_end(evutil_socket_t number, short what, void *arg)
{
    (void)number, (void)what, (void)arg;
    event_base_loopbreak(self.base);
}

int main(void)
{
    const struct timeval period = {10, 0};
    struct event *events[5];
    size_t i;

    libvela_log_init_from_env();
    xwd_start(); /* first: whoever watches wants to hear of a start that hangs, too */
    self.base = event_base_new();
    if (!self.base) return 1;
    read_config();
    if (!self.config) return 1;
    LIBVELA_LOG(LIBVELA_LOG_INFO, TAG, "a daemon on a %s", board_identify()->model_name);

    join_bus();
    join_discovery();
    self.has_radio = vl_nl80211_service_init(&self.radio, self.base) == 0;

    events[0] = event_new(self.base, -1, EV_PERSIST, on_tick, NULL);
    events[1] = evsignal_new(self.base, SIGHUP, on_hangup, NULL);
    events[2] = evsignal_new(self.base, SIGCHLD, on_child, NULL);
    events[3] = evsignal_new(self.base, SIGTERM, on_end, NULL);
    events[4] = evsignal_new(self.base, SIGINT, on_end, NULL);
    for (i = 0; i < 5; ++i) {
        if (!events[i] || event_add(events[i], i == 0 ? &period : NULL) < 0) return 1;
    }
    event_base_dispatch(self.base);

    /* In reverse: what lives on the event base goes before it. */
    for (i = 0; i < 5; ++i) event_free(events[i]);
    if (self.has_radio) vl_nl80211_service_deinit(&self.radio);
    vela_protocol_deinit();
    vela_ubus_shutdown();
    event_base_free(self.base);
    free_cfg(self.config);
    xwd_end();
    return 0;
}
