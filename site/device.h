// The files that make a world look like one access point: who it is, how it is configured, and what its scripts do.
#pragma once

#include <cstdint>
#include <string>

namespace site
{

/// What differs from one device to the next. The defaults are one healthy, adopted access point of a current model.
struct device_facts {
    uint16_t sysid = 0xA686; // Orb 7
    int revision = 11;
    uint32_t cpuid = 0x410FD034;
    std::string serial = "02564c0a1b2c"; // twelve hexadecimal digits: the base MAC address
    std::string manufid = "2F01";
    std::string mfgweek = "2531";
    std::string anonid = "5f0c2c1e-7d5b-4b6e-9a41-0d3c6f2b8e77";
    std::string qrid = "QK7M2D";
    uint16_t country = 372; // ISO 3166-1 numeric

    std::string version = "7.2.4"; // an empty text: the file is missing
    std::string build = "1863";
    std::string reftype = "atag";

    bool factory_default = false;
    bool clock_ready = true;                   // /var/run/ntp.ready
    std::string bridge_address = "192.0.2.20"; // /var/run/ipready.br0; empty: no address, no file
    std::string stage;                         // mgmt.brix.env: "", "stage" or "dev"
    std::string controller_version = "9.4.19"; // each of these three: left out when empty
    std::string controller_id = "c7b1a7d2-0a55-4c0c-8d0e-0f6d5ad4a0e1";
    std::string site_id = "0b9f3a64-52d1-4c37-a1a5-b6f1e6a5b0c3";
    std::string site_key = "00112233445566778899aabbccddeeff"; // corvo.key, 32 hexadecimal digits
    std::string site_group = "233.252.0.48";                   // corvo.mcip
    std::string more_config;                                   // whole lines, at the end of /tmp/system.cfg
};

/// Secrets of the configuration and the log: none of them may leave the device.
inline constexpr const char *device_secrets[] = {"correct-horse-battery", "s3cr3t-admin", "hunter2-radius"};

/// Where the wrapper script notes its calls other than the two filters: "SYSWRAPPER_PPID argument argument...".
inline constexpr const char *syswrapper_calls = "/var/log/syswrapper.calls";

/// Writes the hardware-abstraction files, configuration, version and build files, wrapper script, system log and
/// readiness markers of the device. What an earlier call wrote is replaced; a fact that is now absent is removed.
void lay_out_device(const device_facts &facts = {});

} // namespace site
