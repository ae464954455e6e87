// The radios of the Wi-Fi machine, and the access points and stations that tests put on them.
#pragma once

#include "site/world.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace machine
{

/// Reloads the simulated radios: wlan0 to wlan3, down, with fresh addresses 02:00:00:00:00:00 to 02:00:00:00:03:00 and
/// the regulatory domain US. Their wiphy indices are new each time.
void fresh_radios(int count = 4);

/// Changes the regulatory domain. DE lets access points begin at 6 GHz, US does not.
void set_country(const std::string &code);

/// Waits until `holds` does; false after the given time.
bool eventually(const std::function<bool()> &holds, int seconds = 20);

/// What `iw ARGUMENTS` prints.
std::string iw(const std::string &arguments);

/// One line of a test's story, printed with --show only.
void tell(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// An access point, open but for 6 GHz, run by hostapd until destroyed. Fails the test when it does not come up.
class access_point
{
public:
    struct settings {
        std::string ssid = "vela";
        int channel = 1;             ///< above 14: 5 GHz
        bool at_6ghz = false;        ///< then the channel is one of those
        std::string vendor_elements; ///< whole elements in hex, for beacons and probe responses
        std::string more;            ///< further lines for hostapd
    };
    access_point(const std::string &ifname, const settings &how);
    access_point(const access_point &) = delete;
    access_point &operator=(const access_point &) = delete;
    ~access_point();
    [[nodiscard]] std::string log() const; ///< what hostapd has written so far

private:
    std::string ifname_;
};

/// A station, kept associated to an open network by wpa_supplicant until destroyed. Fails the test when it is not
/// associated in time.
class station
{
public:
    /// With a frequency in MHz only that one is scanned, which spares a test ten seconds.
    station(const std::string &ifname, const std::string &ssid, int freq = 0);
    station(const station &) = delete;
    station &operator=(const station &) = delete;
    ~station();

private:
    std::string ifname_;
};

} // namespace machine
