// The event side of an nl80211 service, for the source that opens and closes the whole.
#pragma once

#include <vela/wireless/nl80211.h>

struct event_base;

namespace vela::nl80211
{

inline constexpr const char *family_name = "nl80211";

/// Opens the event socket and joins the groups. Also gives both sockets their ports. A failure is logged; what was
/// opened stays in the record, for its owner to close.
int open_event_socket(vl_nl80211_service &service);

/// Has events dispatched, and the base watch the socket for them. Failures as above.
int watch_events(vl_nl80211_service &service, event_base *base);

/// Frees the registered callbacks. Dispatching that is under way on this service ends with the handler it is in.
void drop_callbacks(vl_nl80211_service &service);

} // namespace vela::nl80211
