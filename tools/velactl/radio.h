// What the commands about radios share.
#pragma once

#include "command.h"

#include <event2/event.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/scan.h>

namespace velactl
{

constexpr uint32_t absent = UINT32_MAX; ///< what a driver does not tell

/// The connection to nl80211, for as long as a command runs.
class radio_service
{
public:
    radio_service()
    {
        if (!base_ || vl_nl80211_service_init(&service_, base_.get()) != 0) {
            throw trouble(status::unavailable, "this kernel has no nl80211: no Wi-Fi driver is loaded");
        }
    }
    radio_service(const radio_service &) = delete;
    radio_service &operator=(const radio_service &) = delete;
    ~radio_service() { vl_nl80211_service_deinit(&service_); }
    vl_nl80211_service *get() { return &service_; }
    event_base *base() { return base_.get(); }

private:
    struct drop_base {
        void operator()(event_base *base) const { event_base_free(base); }
    };
    std::unique_ptr<event_base, drop_base> base_{event_base_new()};
    vl_nl80211_service service_ = {};
};

inline std::string no_radio(const char *ifname)
{
    return std::string(ifname) + " is no wireless interface; velactl networks lists them";
}

struct drop_scan {
    void operator()(scan_list *list) const { free_scanlist(list); }
};
using scan_ptr = std::unique_ptr<scan_list, drop_scan>;

} // namespace velactl
