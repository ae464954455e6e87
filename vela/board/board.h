/**
 * @file
 * The board: which hardware model this is, and what it has.
 *
 * A table of board records is compiled in. board_identify() finds the row of the running board from the
 * hardware-abstraction files under /proc/velahal, adds what only the device itself knows (CPU id, revision, serial
 * number), and keeps the result for the life of the process. All other queries answer from that record.
 *
 * When the board cannot be identified, board_identify() returns a record whose model name is "Unknown" and whose other
 * fields mean nothing. The queries do not look at the name: a caller that depends on their answers does.
 *
 * Any thread may ask at any time, also for the first time; only update_cached_board() wants to be alone, as other
 * threads may still hold what it replaces.
 */
#ifndef VELA_BOARD_BOARD_H
#define VELA_BOARD_BOARD_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BOARD_MAX_PHY_GROUPS 4
#define BOARD_MAX_GROUP_PORTS 8
#define BOARD_MAX_RADIOS 4

/** phy_group.kind; 0 is neither. */
#define PHY_GROUP_SINGLE 1 /**< one port, wired to the processor itself */
#define PHY_GROUP_MULTI 2  /**< ports of a switch chip */

/** phy_port.media, as bits. */
#define PHY_MEDIA_FE 0x01U
#define PHY_MEDIA_GE 0x02U        /**< copper; phy_port.speed tells what beyond 1 Gbit/s it can do */
#define PHY_MEDIA_MULTI_GIG 0x04U /**< copper, likewise */
#define PHY_MEDIA_SFP 0x08U
#define PHY_MEDIA_SFP_PLUS 0x10U
#define PHY_MEDIA_SFP28 0x20U
#define PHY_MEDIA_QSFP 0x40U
#define PHY_MEDIA_QSFP28 0x80U

/** phy_port.speed, as bits: what a copper port can do beyond 1 Gbit/s. */
#define PHY_SPEED_2P5G 0x040U
#define PHY_SPEED_5G 0x080U
#define PHY_SPEED_10G 0x100U

/** phy_port.flags: role as uplink to the internet, 0 none, 1 first, 2 second. */
#define PHY_PORT_WAN_ROLE 0x0FU

/** board_radio.flags and flags8. A 6 GHz radio with both top bits needs AFC for standard power. */
#define BOARD_RADIO_6GHZ 0x80000000U
#define BOARD_RADIO_MULTI_LINK 0x100U
#define BOARD_RADIO_AFC 0x80U /**< in flags8 */

/** board_record.flags. */
#define BOARD_OUTDOOR 0x01U

/** board_record.capabilities. */
#define BOARD_WIFI_ONLY 0x04U

/** board_record.capability_sets: lists of models that the management server tells apart. */
#define BOARD_SET_A 0x01U
#define BOARD_SET_B 0x02U
#define BOARD_SET_C 0x04U
#define BOARD_MULTI_5GHZ 0x08U

/** The Ethernet controller through which the processor reaches the ports: its interface and number. */
typedef struct cpu_port {
    const char *name;
    uint16_t value;
} cpu_port;

/** One Ethernet port. */
typedef struct phy_port {
    uint8_t phy_index; /**< of its PHY, from 0 */
    uint8_t port_id;   /**< number by which the device reports the port, from 1 */
    uint32_t media;
    uint32_t speed;
    const char *label; /**< as printed on the case, "Main" or "PoE In + Data" for the uplink; may be null */
    const char *name;  /**< interface name or its prefix; null where the kernel knows no interface of the port */
    uint32_t flags;
} phy_port;

/** Ports that belong together. */
typedef struct phy_group {
    uint8_t kind;
    uint8_t port_count; /**< at most BOARD_MAX_GROUP_PORTS */
    phy_port ports[BOARD_MAX_GROUP_PORTS];
} phy_group;

/** One radio. */
typedef struct board_radio {
    char dev_name[16]; /**< "wifi0"; empty when unset */
    uint32_t flags;
    uint8_t flags8;
    uint8_t mac[6];     /**< the radio's own address, from the device; zero where it has none */
    uint32_t chip_code; /**< kind of radio chip, as station scoring knows it */
} board_radio;

/** A model of a certain range of hardware revisions; in the process's own copy, the board it runs on. */
typedef struct board_record {
    char model_name[64];
    char short_code[16];
    struct cpu_port cpu_port;
    uint8_t phy_group_count;
    phy_group phy_groups[BOARD_MAX_PHY_GROUPS];
    uint8_t radio_count; /**< 0 for a wired-only model */
    board_radio radios[BOARD_MAX_RADIOS];
    uint16_t system_id;
    uint16_t poe_budget;    /**< W that PoE outputs may draw; 0 without PoE output */
    uint16_t poe_reserve;   /**< W of the budget that are not for ports */
    uint32_t cpu_id;        /**< from the device */
    int32_t board_revision; /**< in the table the lowest revision of the row; in a copy the board's own */
    uint8_t flags;
    uint8_t serial[6];   /**< from the device: its base MAC address */
    uint8_t poe_powered; /**< not 0: takes its own power over Ethernet */
    uint8_t capabilities;
    uint8_t radio_layout; /**< arrangement of radios and antennas, as the management server numbers it */
    uint8_t capability_sets;
    char qr_id[16];             /**< from the device: what its QR code says; may be empty */
    uint16_t country_code;      /**< from the device: ISO 3166-1 numeric, 0 unknown */
    uint16_t regulatory_domain; /**< from the device: the radios' calibration domain, 0 unknown */
} board_record;

/** A product of the whole device family, boards of this table or not. */
typedef struct device_record {
    char name[51];
    uint16_t system_id;
} device_record;

/**
 * Reads system id and hardware revision from /proc/velahal/system.info.
 *
 * @param sysid  receives the system id; 0 when it cannot be read
 * @param rev    receives the revision; 0 when it cannot be read
 * @return 0; 1 when the file or one of the two keys is missing or cannot be parsed
 */
VELA_API int board_identify_ids(uint16_t *sysid, uint8_t *rev);

/**
 * Finds a row of the board table: of those for this system id whose lowest revision the board reaches, the one with the
 * highest.
 *
 * @return the row, which lives as long as the process and never changes; null when there is none
 */
VELA_API const board_record *corvo_get_board(uint16_t sysid, uint8_t rev);

/** Radio count of the first row with this system id; 0 when there is none. */
VELA_API int corvo_get_radio_count(uint16_t sysid);

/** The device record with this system id, or null. It belongs to the library. */
VELA_API const device_record *corvo_get_device(uint16_t sysid);

/** As corvo_get_device(); null for the system id 0. */
VELA_API const device_record *device_identify_by_sysid(uint16_t sysid);

/**
 * Identifies the running board afresh: its table row, with the fields that come from /proc/velahal/board filled in.
 *
 * @return a record for the caller to free(); null, with an error in the log, when the hardware-abstraction files are
 *         missing or incomplete or no row fits
 */
VELA_API board_record *get_board(void);

/**
 * The board that this process runs on. The first call identifies it, whatever comes of that; later calls return the
 * same.
 *
 * @return never null; the library's, or what update_cached_board() installed. Model name "Unknown": not identified
 */
VELA_API const board_record *board_identify(void);

/**
 * Makes board_identify() return another record.
 *
 * @param rec  borrowed until it is replaced; what was there before is not freed. Null: the next board_identify()
 *             identifies again
 */
VELA_API void update_cached_board(const board_record *rec);

/** Power that PoE outputs may draw, in W: the budget less the reserve; 0 without PoE output. */
VELA_API int board_get_poe_budget(void);

/** 1 when board_get_poe_budget() is not 0, else 0. */
VELA_API int board_has_poe(void);

/**
 * Copies the CPU port descriptor. Its name belongs to the board record.
 *
 * @return 0; -1 when out is null
 */
VELA_API int board_get_cpu_mac(cpu_port *out);

/** Device name of radio i; "" when there is no such radio. Belongs to the board record. */
VELA_API const char *get_radio_dev_name(int i);

/**
 * The main uplink port: the only port of the first group that has just one, or the first port labelled as uplink in a
 * group before it.
 *
 * @return a port of the board record; null when there is none
 */
VELA_API const phy_port *get_main_phy(void);

/** Port id of the main port; all ones (UINT32_MAX) when there is none. */
VELA_API uint32_t get_main_phy_port_id(void);

/** PHY index of the main port; all ones (UINT32_MAX) when there is none. */
VELA_API uint32_t get_main_phy_idx(void);

/** Port id of the first port with this PHY index; -1 when there is none. */
VELA_API int get_phy_port_id_by_idx(int idx);

/** Number of Ethernet ports of all groups. */
VELA_API int get_num_of_eth_ports(void);

/**
 * Walks the ports of a record, group by group. Start with both cursors 0.
 *
 * @param rec    the record to walk; null has no ports
 * @param group  cursor, advanced together with port: behind a group's last port, both stand at the next group's first
 * @return the next port; null at the end, and ever after
 */
VELA_API const phy_port *board_get_next_phy(const board_record *rec, unsigned *group, unsigned *port);

/** 1 when the port is a cage of the SFP kinds, else 0. */
VELA_API int board_phy_is_sfp(const phy_port *port);

/**
 * Name of the port's media: "SFP+", "SFP", "FE", "SFP28", "QSFP28", "GE", "2P5GE", "5GE", "10GE" or "UNKNOWN".
 */
VELA_API const char *board_get_phy_port_media(const phy_port *port);

/** 1 when the model may be mounted outdoors; 0 when not, and for null. */
VELA_API int board_is_outdoor_capable(const board_record *rec);

/** 1 when one of the radios is a 6 GHz radio that needs AFC for standard power; 0 when not, and for null. */
VELA_API int board_has_afc_6g_radio(const board_record *rec);

/** 1 when 6 GHz may only be used with an AFC grant: for an outdoor model with such a radio. */
VELA_API int board_requires_afc_for_6g(const board_record *rec);

/** 1 when the device has an accelerometer that the kernel knows, else 0. */
VELA_API int has_accelerometer(void);

/**
 * Starts the accelerometer's sampling and reads it.
 *
 * @return an object with the integers "x", "y" and "z" (raw driver values, 0 where unreadable), a new reference; null
 *         when out of memory
 */
VELA_API json_t *prepare_accelerometer_status(void);

#ifdef __cplusplus
}
#endif

#endif
