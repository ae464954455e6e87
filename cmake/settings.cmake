# What differs from one maker or deployment to the next. Each reaches the code through one generated header.
set(VELA_CRASH_URL "https://crash.vela.example" CACHE STRING "Crash-report service, production")
set(VELA_CRASH_URL_DEV "https://crash-dev.vela.example" CACHE STRING "Crash-report service, development")
set(VELA_TRACE_URL "https://trace.vela.example" CACHE STRING "Trace service, production")
set(VELA_TRACE_URL_DEV "https://trace-dev.vela.example" CACHE STRING "Trace service, development")
# By address, so that finding the resolver needs no resolver.
set(VELA_DOH_URL_1 "https://1.1.1.1/dns-query" CACHE STRING "First DNS-over-HTTPS resolver")
set(VELA_DOH_URL_2 "https://8.8.8.8/dns-query" CACHE STRING "Second DNS-over-HTTPS resolver")
set(VELA_BUS_NETWORK "network.interface" CACHE STRING "Bus object of the network daemon")
set(VELA_BUS_SERVICE "service" CACHE STRING "Bus object of the service manager")
set(VELA_BUS_POWER "vela.power" CACHE STRING "Bus object that tells of supplies and outlets")
set(VELA_BUS_PORTAL "vela.portal" CACHE STRING "Bus object of the guest portal")
set(VELA_DHCP_LEASE_FILE "/var/run/dhcp-%s.lease" CACHE STRING "Where the DHCP client notes the lease of an interface")
set(VELA_POWER_HWMON "" CACHE STRING "Names of hardware-monitor chips that measure the supply, with blanks between them")
# Locally administered, hence nobody's: a maker sets its own.
set(VELA_VENDOR_OUI "0x025656" CACHE STRING "OUI of the chip vendor's nl80211 commands")
set(VELA_MAKER_OUI "0x02564C" CACHE STRING "OUI of the maker's information element")
# Where the system's resolvers stand, in the order of asking.
set(VELA_RESOLV_FILES "/etc/resolv.conf /tmp/resolv.conf.d/resolv.conf.auto" CACHE STRING "Files with nameserver lines, by blanks")
# Filters of this priority on an interface's clsact queue are this library's.
set(VELA_QOS_PREFERENCE "22092" CACHE STRING "Priority of the traffic-control filters of station rules, 1 to 65535")

configure_file(${CMAKE_CURRENT_LIST_DIR}/settings.h.in ${PROJECT_BINARY_DIR}/generated/vela/settings.h)
