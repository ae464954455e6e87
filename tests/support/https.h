// A test whose device reports to HTTPS services. The fixture lays out the device, catches what is logged (debug and
// above), and starts a service that answers for the hosts of the given URLs:
//   class Crash : public https_test { protected: Crash() : https_test({vela::settings::crash_url}) {} };
//   service->on("/v1/crash", site::reply{200, "{}"});   what it does with a request; service.reset() ends it
//   shown(request)                                      "POST https://crash.vela.example/v1/crash"
#pragma once

#include "site/collector.h"
#include "site/device.h"
#include "tests/support/log_lines.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

/// The host of "https://host/path".
inline std::string host_of(const std::string &url)
{
    const std::string rest = url.substr(sizeof "https://" - 1);
    return rest.substr(0, rest.find('/'));
}

inline std::string shown(const site::request &r) { return r.method + " https://" + r.host + r.path; }

class https_test : public testing::Test
{
protected:
    explicit https_test(const std::vector<std::string> &urls)
    {
        site::lay_out_device();
        std::vector<std::string> hosts;
        for (const auto &url : urls) hosts.push_back(host_of(url));
        service = std::make_unique<site::collector>(site::collector::settings{.names = hosts});
    }

    log_lines log{"debug"};
    std::unique_ptr<site::collector> service;
};
